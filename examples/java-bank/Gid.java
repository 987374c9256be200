package bank;

import java.time.LocalDateTime;
import java.time.format.DateTimeFormatter;
import java.util.concurrent.atomic.AtomicInteger;

/** Global transaction ids: the moment, the system, and a running number. */
final class Gid {

  private static final DateTimeFormatter MOMENT = DateTimeFormatter.ofPattern("yyyyMMddHHmmssSSS");
  private static final AtomicInteger LAST = new AtomicInteger();

  private Gid() {}

  /** A new one of 30 characters. */
  static String next() {
    return MOMENT.format(LocalDateTime.now())
        + String.format("JBK%010d", LAST.incrementAndGet());
  }
}

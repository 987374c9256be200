import com.sun.management.ThreadMXBean;
import com.vexholm.tran.Call;
import com.vexholm.tran.PtParam;
import com.vexholm.tran.SttlParam;
import com.vexholm.tran.Tran;
import com.vexholm.tran.Transaction;
import java.lang.management.ManagementFactory;
import java.lang.reflect.Method;
import java.util.ArrayList;
import java.util.Comparator;
import java.util.List;
import java.util.concurrent.CyclicBarrier;
import java.util.stream.Stream;

/** What java_test.py has traced: Scenarios NAME. */
public final class Scenarios {

  private interface Scenario {
    void run() throws Exception;
  }

  public static void main(String[] args) throws Exception {
    if (args[0].equals("garbage")) {
      garbage();
      return;
    }
    if (Tran.init("WAS1") != 0) throw new AssertionError("not started");
    final Scenario scenario =
        args[0].equals("everything") ? Scenarios::everything
        : args[0].equals("params") ? Scenarios::params
        : args[0].equals("misuse") ? Scenarios::misuse
        : Scenarios::threads;
    scenario.run();
    Tran.done();
    Tran.start("AFTER", "DONE").close();
  }

  // Gives each text that there is a setter for a letter, in the order of their names, and that name.
  private static <T> T fill(T texts) throws Exception {
    char letter = 'A';
    final Method[] setters =
        Stream.of(texts.getClass().getMethods())
            .filter(m -> m.getReturnType() == texts.getClass() && m.getParameterCount() == 1)
            .sorted(Comparator.comparing(Method::getName))
            .toArray(Method[]::new);
    for (Method setter : setters)
      setter.invoke(texts, letter++ + setter.getName() + "........................................");
    return texts;
  }

  private static void everything() throws Exception {
    try (Transaction tx = fill(Tran.transaction("GID-OUTER", "OUTER001")).start()) {
      Tran.info("이체 접수");
      Tran.infoEx("X001", "extended");
      Tran.event("2101", "마감");
      Tran.event("GID-EVENT", "EVENT001", "2102", "RECV00000001", "WEB", "개시");
      Tran.errorInfo("1002", "잔액 부족");
      try (Call call = tx.call("Ledger.post")) {
        try (Call db = tx.dbCall("dbInsert")) {
          db.sqlId("LEDGER.1");
          db.sql("INSERT INTO 원장 VALUES (?)", 1000, 1005);
        }
        call.sql("not of a database call", 1000, 1005);
        try (Transaction inner = Tran.transaction("GID-OUTER", "INNER001").chnlTypCd("ICC").start();
            Call deeper = Tran.call("Limit.check", "Limit.java")) {
          inner.stdTmsgErrCd("BNK001003").error("1003", "한도 초과");
        }
      }
      tx.procRsltDvCd("0").empNo(null);
    }
  }

  private static void params() throws Exception {
    final byte[] telegram = "00000600 telegram".getBytes();
    final SttlParam request = fill(new SttlParam());
    final SttlParam response = fill(new SttlParam()).procRsltDvCd("8").chnlTypCd("ICC");
    response.message("상대은행 점검 중").scrnId("가나다라마");
    try (Transaction tx = Tran.start("", "SVC1", telegram, request)) {
      tx.response("00000600 answer".getBytes(), response);
    }
    Tran.start("GID-CLEAR", "SVC2", null, request.clear()).close();
    final PtParam texts = fill(new PtParam());
    try (Transaction tx = Tran.start("GID-PART", "SVC3", texts)) {
      tx.response(new PtParam().ptParam5("끝맺음"));
    }
    Tran.start("GID-PLAIN", "SVC4", (PtParam) null).close();
  }

  private static void misuse() throws Exception {
    Tran.call("outside").close();
    final Transaction never = Tran.transaction("NEVER", "NEVER");
    never.call("never").close();
    never.close();
    never.start();
    final Transaction early = Tran.start("GID", "EARLY");
    final Transaction late = Tran.transaction("GID", "LATE");
    early.close();
    late.start();

    final Transaction outer = Tran.transaction("GID", "OUTER").start().start();
    final Call first = outer.call("first");
    final Call second = outer.call("second");
    first.close();
    second.close();
    first.close();
    final Call around = outer.call("around");
    final Transaction inner = Tran.start("GID", "INNER");
    inner.call("left open");
    outer.error("1001", "not the innermost");
    elsewhere(
        () -> {
          inner.call("elsewhere");
          inner.scrnId("elsewhere").error("1002", "elsewhere");
          around.close();
          outer.close();
        });
    around.close();
    inner.close();
    try (Call business = outer.call("business");
        Call db = outer.dbCall("dbOuter");
        Call refused = outer.dbCall("dbInner")) {
      refused.sql("of no call", 0, 1);
      business.sql("of the call inside it", 0, 1);
    }
    outer.close();
    outer.close();
    first.close();

    final List<AutoCloseable> open = new ArrayList<>();
    open.add(Tran.start("GID", "CALLS"));
    for (int i = 1; i <= 60; ++i) open.add(Tran.call("deep" + i));
    open.get(60).close();
    Tran.info("the refused ones are closed");
    open.get(0).close();

    open.clear();
    for (int i = 1; i <= 11; ++i) {
      open.add(Tran.start("GID", "LEVEL" + i));
      open.add(Tran.call("in" + i));
    }
    open.get(0).close();
    for (int i = open.size() - 1; i > 1; --i) open.get(i).close();

    for (int i = 1; i <= 60; ++i) Tran.start("GID", "LEFT").call("left open");
    try (Transaction last = Tran.start("GID", "LAST")) {
      last.call("last").close();
    }
  }

  private static void elsewhere(Runnable work) throws InterruptedException {
    final Thread thread = new Thread(work);
    thread.start();
    thread.join();
  }

  private static void threads() throws InterruptedException {
    final int count = 2000;
    final CyclicBarrier allOpen = new CyclicBarrier(count);
    final Thread[] threads = new Thread[count];
    for (int i = 0; i < count; ++i) {
      final String gid = "GID" + i;
      final Runnable work =
          () -> {
            try (Transaction tx = Tran.start(gid, "THREADS");
                Call call = tx.call(gid)) {
              allOpen.await();
            } catch (Exception e) {
              throw new AssertionError(e);
            }
          };
      threads[i] = new Thread(null, work, gid, 128 << 10);
      threads[i].start();
    }
    for (Thread thread : threads) thread.join();
  }

  // ---- Without an agent ----

  private static Object kept;

  private static void garbage() {
    allocated(Scenarios::everyGuard);  // makes the objects
    System.out.println(allocated(() -> kept = new Object()) > 0);
    System.out.println(allocated(Scenarios::everyGuard));
  }

  private static void everyGuard() {
    try (Transaction tx = Tran.transaction("GID", "SERVICE").chnlTypCd("WEB").start();
        Transaction inner = Tran.start("GID", "INNER");
        Call call = tx.call("call");
        Call db = inner.dbCall("dbCall")) {
      db.sql("SELECT 1", 0, 1);
      inner.error("1001", "message");
    }
  }

  private static long allocated(Runnable work) {
    final ThreadMXBean bean = (ThreadMXBean) ManagementFactory.getThreadMXBean();
    final long thread = Thread.currentThread().getId();
    bean.getThreadAllocatedBytes(thread);
    final long before = bean.getThreadAllocatedBytes(thread);
    for (int i = 0; i < 1000; ++i) work.run();
    return bean.getThreadAllocatedBytes(thread) - before;
  }
}

package bank;

import com.vexholm.tran.Tran;
import java.io.FileDescriptor;
import java.io.FileOutputStream;
import java.io.PrintStream;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.Path;

/**
 * A bank's HTTP server over a SQLite database, traced, and a client that sends it a mix of requests.
 *
 * <p>{@code java-bank [N]} serves N requests, 50 unless told.
 */
final class Main {

  private Main() {}

  public static void main(String[] args) throws Exception {
    final int requests = args.length > 0 ? Integer.parseInt(args[0]) : 50;
    final int rc = Tran.init("JAVABANK");
    if (rc != 0) System.err.println("java-bank: not traced, Tran.init returned " + rc);
    final boolean isRight;
    try {
      isRight = serve(requests);
    } finally {
      Tran.done();
    }
    if (!isRight) System.exit(1);
  }

  // Whether every answer was right, and no money came or went.
  private static boolean serve(int requests) throws Exception {
    // Records are EUC-KR, and so is the default charset; a terminal is not.
    final PrintStream out =
        new PrintStream(new FileOutputStream(FileDescriptor.out), true, StandardCharsets.UTF_8);
    final Path file = Files.createTempFile("java-bank", ".db");
    try {
      final Ledger ledger = new Ledger(file);
      ledger.create();
      final long before = ledger.total();
      final Client client = new Client(out);
      try (Server server = new Server(new Service(ledger))) {
        client.send(server.port(), requests);
      }
      final boolean isUnchanged = ledger.total() == before;
      out.printf(
          "java-bank: %d requests, %d done, %d refused, %d wrong answers; total balance %s (%d)%n",
          requests, client.done(), client.refused(), client.wrong(),
          isUnchanged ? "unchanged" : "CHANGED", before);
      return client.wrong() == 0 && isUnchanged;
    } finally {
      Files.delete(file);
    }
  }
}

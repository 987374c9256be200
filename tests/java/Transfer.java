import com.vexholm.tran.Call;
import com.vexholm.tran.Tran;
import com.vexholm.tran.Transaction;
import java.util.Map;
import java.util.TreeMap;

/** The program of docs/java.md. */
public final class Transfer {

  private static final String ADD = "UPDATE accounts SET balance = balance + ? WHERE number = ?";

  private final Map<String, Long> balances = new TreeMap<>();

  public static void main(String[] args) {
    if (Tran.init("BANKWAS1") != 0) System.err.println("transfers are not traced");
    final Transfer bank = new Transfer();
    bank.balances.put("110-201", 5000L);
    bank.serve("202611220930WEB01000000000001", "110-201", "140-700", 3000);
    bank.serve("202611220930WEB01000000000002", "110-201", "140-700", 3000);
    System.out.println(bank.balances);
    Tran.done();
  }

  // docs/java.md: from here
  void serve(String gid, String from, String to, long amount) {
    try (Transaction tx =
        Tran.transaction(gid, "XFER0001").chnlTypCd("WEB").recvSvcCd("XFER0001").start()) {
      Tran.info("이체 접수 [" + from + " -> " + to + ", " + amount + "원]");
      try {
        transfer(from, to, amount);
        tx.procRsltDvCd("0");
      } catch (IllegalStateException e) {
        tx.procRsltDvCd("1").stdTmsgErrCd("BNK001001").error("1001", e.getMessage());
      }
    }
  }

  private void transfer(String from, String to, long amount) {
    try (Call call = Tran.call("Transfer.transfer")) {
      if (balances.get(from) < amount) throw new IllegalStateException("잔액이 부족합니다.");
      add(from, -amount);
      add(to, amount);
    }
  }

  private void add(String number, long amount) {
    try (Call call = Tran.dbCall("dbAddToBalance")) {
      final long start = System.currentTimeMillis();
      balances.merge(number, amount, Long::sum); // the database
      call.sql(ADD, start, System.currentTimeMillis());
    }
  }
  // to here
}

package bank;

import com.vexholm.tran.Call;
import com.vexholm.tran.Tran;
import java.sql.SQLException;

/** What the bank does for its customers, inside a transaction that the server has opened. */
final class Service {

  // Of SQLite: the statement would have broken a constraint of its table.
  private static final int CONSTRAINT = 19;

  private final Ledger ledger;

  Service(Ledger ledger) {
    this.ledger = ledger;
  }

  /** The receiver's name. */
  String transfer(String from, String to, long amount) throws Refusal, SQLException {
    try (Call call = Tran.call("Service.transfer");
        Ledger.Session session = ledger.open()) {
      checkAmount(amount);
      final String receiver = holder(session, to);
      holder(session, from);
      withdraw(session, from, amount);
      add(session, to, amount);
      session.commit();
      return receiver;
    }
  }

  /** The holder's name and the balance, as a customer reads them. */
  String balance(String account) throws Refusal, SQLException {
    try (Call call = Tran.call("Service.balance");
        Ledger.Session session = ledger.open()) {
      final String holder = holder(session, account);
      final String select = "SELECT balance FROM account WHERE number = ?";
      return String.format("%s %,d원", holder, session.number("dbSelectBalance", select, account));
    }
  }

  private static void checkAmount(long amount) throws Refusal {
    try (Call call = Tran.call("Service.checkAmount")) {
      if (amount <= 0) throw new Refusal("JBK001002", "이체금액이 올바르지 않습니다.");
    }
  }

  private static String holder(Ledger.Session session, String account)
      throws Refusal, SQLException {
    try (Call call = Tran.call("Service.holder")) {
      final String select = "SELECT holder FROM account WHERE number = ?";
      final String holder = session.text("dbSelectHolder", select, account);
      if (holder == null) throw new Refusal("JBK001001", "없는 계좌번호입니다. [" + account + "]");
      return holder;
    }
  }

  // An overdraft is the database's to find: two transfers at a time see the same balance.
  private static void withdraw(Ledger.Session session, String account, long amount)
      throws Refusal, SQLException {
    try {
      add(session, account, -amount);
    } catch (SQLException e) {
      if ((e.getErrorCode() & 0xFF) != CONSTRAINT) throw e;
      throw new Refusal("JBK001003", "잔액이 부족합니다. [" + account + "]");
    }
  }

  private static void add(Ledger.Session session, String account, long amount)
      throws SQLException {
    final String update = "UPDATE account SET balance = balance + ? WHERE number = ?";
    session.update("dbAddToBalance", update, amount, account);
  }
}

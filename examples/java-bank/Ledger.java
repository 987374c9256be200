package bank;

import com.vexholm.tran.Call;
import com.vexholm.tran.Tran;
import java.nio.file.Path;
import java.sql.Connection;
import java.sql.DriverManager;
import java.sql.PreparedStatement;
import java.sql.ResultSet;
import java.sql.SQLException;
import java.util.Properties;

/** The accounts. Each statement is a traced database call. */
final class Ledger {

  private final String url;
  private final Properties settings = new Properties();

  Ledger(Path file) {
    url = "jdbc:sqlite:" + file;
    settings.put("busy_timeout", "5000");
    settings.put("transaction_mode", "IMMEDIATE");
    settings.put("synchronous", "OFF"); // an example's file lives as long as its process
  }

  /** Makes the accounts of four customers. */
  void create() throws SQLException {
    try (Session session = open()) {
      session.update(
          "dbCreate",
          "CREATE TABLE account (number TEXT PRIMARY KEY, holder TEXT NOT NULL,"
              + " balance INTEGER NOT NULL CHECK (balance >= 0))");
      final String add = "INSERT INTO account (number, holder, balance) VALUES (?, ?, ?)";
      session.update("dbInsertAccount", add, "110-201-000011", "김민준", 5_000_000L);
      session.update("dbInsertAccount", add, "110-201-000022", "이서연", 12_500_000L);
      session.update("dbInsertAccount", add, "140-700-000019", "박도윤", 800_000L);
      session.update("dbInsertAccount", add, "140-700-000027", "최하은", 31_000_000L);
      session.commit();
    }
  }

  /** The sum of all balances. */
  long total() throws SQLException {
    try (Session session = open()) {
      return session.number("dbTotal", "SELECT sum(balance) FROM account");
    }
  }

  /** A session of its own, which is rolled back where it is not committed. */
  Session open() throws SQLException {
    final Connection connection = DriverManager.getConnection(url, settings);
    connection.setAutoCommit(false);
    return new Session(connection);
  }

  /** A connection to the database, of one request. */
  static final class Session implements AutoCloseable {

    private final Connection connection;

    private Session(Connection connection) {
      this.connection = connection;
    }

    /** The rows that it changed. */
    int update(String name, String sql, Object... values) throws SQLException {
      return execute(name, sql, PreparedStatement::executeUpdate, values);
    }

    /** The number that it selects, or null where there is none. */
    Long number(String name, String sql, Object... values) throws SQLException {
      return execute(name, sql, statement -> first(statement, ResultSet::getLong), values);
    }

    /** The text that it selects, or null where there is none. */
    String text(String name, String sql, Object... values) throws SQLException {
      return execute(name, sql, statement -> first(statement, ResultSet::getString), values);
    }

    void commit() throws SQLException {
      try (Call call = Tran.dbCall("dbCommit")) {
        connection.commit();
      }
    }

    @Override
    public void close() throws SQLException {
      try (Call call = Tran.dbCall("dbClose")) {
        connection.rollback();
        connection.close();
      }
    }

    private interface Work<T> {
      T of(PreparedStatement statement) throws SQLException;
    }

    private interface Column<T> {
      T of(ResultSet rows, int column) throws SQLException;
    }

    // The statement is reported with its times on every way out, the database's refusals included.
    private <T> T execute(String name, String sql, Work<T> work, Object... values)
        throws SQLException {
      try (Call call = Tran.dbCall(name)) {
        final long start = System.currentTimeMillis();
        try (PreparedStatement statement = connection.prepareStatement(sql)) {
          for (int n = 0; n < values.length; ++n) statement.setObject(n + 1, values[n]);
          return work.of(statement);
        } catch (SQLException e) {
          Tran.errorInfo("1900", "[SQLCODE " + e.getErrorCode() + "] " + e.getMessage());
          throw e;
        } finally {
          call.sql(sql, start, System.currentTimeMillis());
        }
      }
    }

    private static <T> T first(PreparedStatement statement, Column<T> column) throws SQLException {
      try (ResultSet rows = statement.executeQuery()) {
        return rows.next() ? column.of(rows, 1) : null;
      }
    }
  }
}

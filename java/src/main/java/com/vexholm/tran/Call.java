package com.vexholm.tran;

import com.vexholm.tran.api.TranApiAdapter;

/**
 * A call of a function inside a transaction, from its start to {@link #close}. Made by {@link
 * Tran#call} and {@link Tran#dbCall}; see {@link Tran} for what holds for all of it.
 */
public final class Call implements AutoCloseable {

  private static final int SQL_ADD = 0;
  private static final int SQL_KIND_NONE = 9999;

  /** Stands for one that was not opened. */
  static final Call NONE = new Call(null);

  private final Context context;
  int number;
  boolean isDbCall;
  private boolean isOpen;

  Call(Context context) {
    this.context = context;
  }

  void started(int number, boolean isDbCall) {
    this.number = number;
    this.isDbCall = isDbCall;
    isOpen = true;
  }

  void release() {
    isOpen = false;
  }

  private boolean isMine() {
    return isOpen && context.isCurrent();
  }

  /**
   * Names the SQL that the call executes, for those who look at the running thread.
   *
   * @param sqlId identifier, 200 bytes
   */
  public void sqlId(String sqlId) {
    if (isMine()) TranApiAdapter.TranSqlId(context.tid, sqlId);
  }

  /**
   * Reports an SQL statement that a database call has executed, while that is the innermost open
   * call. Up to five different ones are kept, and sent when the call ends where they took at least
   * the configured time.
   *
   * @param statement the statement, 8,192 bytes
   * @param startMs when it began, in milliseconds since 1970
   * @param endMs when it ended, likewise
   */
  public void sql(String statement, long startMs, long endMs) {
    if (!isMine() || !context.isInnermost(this)) return;
    TranApiAdapter.TranSqlStmt(context.tid, SQL_ADD, SQL_KIND_NONE, startMs, endMs, statement);
  }

  /** Ends the call, after what was opened inside it. A second time it does nothing. */
  @Override
  public void close() {
    if (isMine()) context.end(this);
  }
}

package com.vexholm.tran;

import com.vexholm.tran.api.TranApiAdapter;
import com.vexholm.tran.api.TranLibrary;

/**
 * Traces the transactions of a Java server:
 *
 * <pre>{@code
 * try (Transaction tx = Tran.start(gid, svcId)) {
 *   try (Call call = tx.dbCall("dbPostLedger")) {
 *     ...
 *   }
 * }
 * }</pre>
 *
 * <p>What holds for all of it:
 *
 * <ul>
 *   <li><b>A guest.</b> Nothing here but {@link #init} throws, and nothing waits. Where the library
 *       is absent, or the agent not started, nothing is done.
 *   <li><b>Threads.</b> What a thread opens belongs to it: used by any other thread a {@link
 *       Transaction} or {@link Call} does nothing. A thread's number is the low 31 bits of {@link
 *       Thread#getId()}.
 *   <li><b>Nesting.</b> Up to ten transactions and 51 calls of a thread may be open. Of more
 *       transactions the oldest is given up, as left behind; more calls are not recorded. What is
 *       closed before something that was opened inside it ends that first.
 *   <li><b>No garbage.</b> The objects are the thread's own and used again: a reference is good
 *       until its {@code close}, and not to be kept.
 *   <li><b>Texts.</b> Identifiers and codes are ASCII; messages, SQL and the texts of {@link
 *       SttlParam} and {@link PtParam} are passed in the default charset. Too long ones are cut.
 * </ul>
 */
public final class Tran {

  /** What {@link #init} returns where the library is absent and that is to be ignored. */
  public static final int LIBRARY_ABSENT = -2;

  private static final boolean IS_LOADED = TranLibrary.isLoaded();

  private Tran() {}

  // ---- Start and stop ----

  /**
   * Starts the agent, once in a process; see {@link TranApiAdapter#Init}.
   *
   * @param containerName name of the server, 30 bytes
   * @return 0, or why the agent does not run; {@link #LIBRARY_ABSENT} where there is none
   * @throws com.vexholm.tran.api.TranLibraryException when the native library cannot be loaded,
   *     unless that is to be ignored
   */
  public static int init(String containerName) {
    return TranLibrary.load() ? TranApiAdapter.Init(containerName) : LIBRARY_ABSENT;
  }

  /** Stops the agent. */
  public static void done() {
    if (IS_LOADED) TranApiAdapter.Done();
  }

  /**
   * The version of the native library.
   *
   * @return its banner, or an empty string where there is none
   */
  public static String version() {
    return IS_LOADED ? TranApiAdapter.TranLibV() : "";
  }

  // ---- Transactions ----

  /**
   * Starts a transaction that has no more to tell than what it is.
   *
   * @param gid global transaction id (GID), 30 characters
   * @param svcId service id, 16 characters
   * @return the open transaction, to be closed
   */
  public static Transaction start(String gid, String svcId) {
    return transaction(gid, svcId).start();
  }

  /**
   * A transaction whose other texts are given before {@link Transaction#start}.
   *
   * @param gid global transaction id (GID), 30 characters
   * @param svcId service id, 16 characters
   * @return the transaction, not started
   */
  public static Transaction transaction(String gid, String svcId) {
    return IS_LOADED ? Context.current().describe(gid, svcId) : Transaction.NONE;
  }

  /**
   * Starts a transaction that a telegram's header describes.
   *
   * @param gid GID; that of the header when null or empty
   * @param svcId service id, 16 characters
   * @param telegram the whole telegram, for the log of whole telegrams; may be null
   * @param param the header's fields; null leaves a transaction that has none
   * @return the open transaction, to be closed
   */
  public static Transaction start(String gid, String svcId, byte[] telegram, SttlParam param) {
    if (!IS_LOADED) return Transaction.NONE;
    return Context.current().describe(gid, svcId).describeBy(telegram, param).start();
  }

  /**
   * Starts a partial transaction: one with five texts of the caller's own.
   *
   * @param gid GID, 30 characters
   * @param svcId service id, 16 characters
   * @param param the texts; null leaves a transaction that has none
   * @return the open transaction, to be closed
   */
  public static Transaction start(String gid, String svcId, PtParam param) {
    if (!IS_LOADED) return Transaction.NONE;
    return Context.current().describe(gid, svcId).describeBy(param).start();
  }

  /** Takes the current time as that of the thread's next outermost start or end. */
  public static void setTime() {
    if (IS_LOADED) TranApiAdapter.TranSetTime(Context.current().tid);
  }

  // ---- Calls ----

  /**
   * Opens a business call inside the thread's innermost transaction. Its name must not bear the
   * signature of database calls.
   *
   * @param name the function's name, 70 characters
   * @return the open call, to be closed
   */
  public static Call call(String name) {
    return call(name, null);
  }

  /**
   * The same with the place in the source.
   *
   * @param name the function's name, 70 characters
   * @param src the source file, 100 characters
   * @return the open call, to be closed
   */
  public static Call call(String name, String src) {
    return IS_LOADED ? Context.current().start(name, src, false) : Call.NONE;
  }

  /**
   * Opens a database call inside the thread's innermost transaction; one inside another is not
   * recorded. For its SQL to be recorded, its name must bear the configured signature ({@code
   * DBIO_FUNC}: "db" at its start, unless configured otherwise).
   *
   * @param name the function's name, 70 characters
   * @return the open call, to be closed
   */
  public static Call dbCall(String name) {
    return dbCall(name, null);
  }

  /**
   * The same with the place in the source.
   *
   * @param name the function's name, 70 characters
   * @param src the source file, 100 characters
   * @return the open call, to be closed
   */
  public static Call dbCall(String name, String src) {
    return IS_LOADED ? Context.current().start(name, src, true) : Call.NONE;
  }

  // ---- Notices ----

  /**
   * Sends an information record for the thread's innermost transaction.
   *
   * @param message message, 350 bytes
   */
  public static void info(String message) {
    if (!IS_LOADED) return;
    TranApiAdapter.TranInfo(
        Context.current().tid, null, null, null, null, null, null, null, message);
  }

  /**
   * Sends an extended information record; needs no open transaction.
   *
   * @param code code, 4 characters
   * @param text text, 350 characters of ASCII
   */
  public static void infoEx(String code, String text) {
    if (!IS_LOADED) return;
    TranApiAdapter.TranInfoEx(
        Context.current().tid, null, null, null, null, null, null, null, code, text);
  }

  /**
   * Sends an event record; needs no open transaction.
   *
   * @param code event code, 4 characters
   * @param message message, 512 bytes
   */
  public static void event(String code, String message) {
    event(null, null, code, null, null, message);
  }

  /**
   * Sends an event record; needs no open transaction.
   *
   * @param gid GID, or null
   * @param svcId service id, or null
   * @param code event code, 4 characters
   * @param recvSvcCd receive service code, 12 characters, or null
   * @param chnlClass channel class, 4 characters, or null
   * @param message message, 512 bytes
   */
  public static void event(
      String gid, String svcId, String code, String recvSvcCd, String chnlClass, String message) {
    if (!IS_LOADED) return;
    TranApiAdapter.TranEvent(
        Context.current().tid, null, null, gid, svcId, null, null, null, code, recvSvcCd, chnlClass,
        message);
  }

  /**
   * Sends an error-information record for the thread's innermost transaction, and leaves its result
   * as it is; {@link Transaction#error} makes it failed.
   *
   * @param code error code, 4 characters
   * @param message message, 350 bytes
   */
  public static void errorInfo(String code, String message) {
    if (!IS_LOADED) return;
    TranApiAdapter.TranErrorInfo(
        Context.current().tid, null, null, null, null, null, null, null, code, null, null, message);
  }
}

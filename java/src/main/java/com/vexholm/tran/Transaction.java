package com.vexholm.tran;

import com.vexholm.tran.api.TranApiAdapter;
import java.util.Arrays;

/**
 * A transaction: a service, from its start to {@link #close}. Made by {@link Tran#start} or {@link
 * Tran#transaction}; see {@link Tran} for what holds for all of it.
 *
 * <p>Its texts go with its start, and with its end and {@link #error} as they are by then. Those
 * that are never set stay blank.
 */
public final class Transaction implements AutoCloseable {

  private static final String FAILED = "9";

  /** Stands for one where nothing is traced. */
  static final Transaction NONE = new Transaction(null);

  private enum State {
    CLOSED,
    DESCRIBED,
    OPEN
  }

  private final Context context;
  private State state = State.CLOSED;
  int number;
  int callBase;

  // The texts, at the places of TranStart's parameters.
  private final String[] p = new String[31];

  // Where one of the two is given, the transaction is of that form.
  private SttlParam sttlParam;
  private PtParam ptParam;
  private byte[] telegram;

  Transaction(Context context) {
    this.context = context;
  }

  void describe(String gid, String svcId) {
    release();
    state = State.DESCRIBED;
    p[4] = gid;
    p[5] = svcId;
  }

  Transaction describeBy(byte[] telegram, SttlParam param) {
    this.telegram = telegram;
    sttlParam = param;
    return this;
  }

  Transaction describeBy(PtParam param) {
    ptParam = param;
    return this;
  }

  void release() {
    state = State.CLOSED;
    Arrays.fill(p, null);
    sttlParam = null;
    ptParam = null;
    telegram = null;
  }

  private boolean isMine() {
    return state != State.CLOSED && context.isCurrent();
  }

  private boolean isOpen() {
    return state == State.OPEN && context.isCurrent();
  }

  // ---- Texts ----

  private Transaction set(int place, String text) {
    if (isMine()) p[place] = text;
    return this;
  }

  /**
   * Sets the caller's two-character code.
   *
   * @param text the text, or null for none
   * @return this
   */
  public Transaction callerCd(String text) {
    return set(2, text);
  }

  /**
   * Sets the one-character flag.
   *
   * @param text the text, or null for none
   * @return this
   */
  public Transaction extFlag(String text) {
    return set(9, text);
  }

  /**
   * Sets the group-company code (2) and branch number (4).
   *
   * @param text the text, or null for none
   * @return this
   */
  public Transaction trscGrcoBr(String text) {
    return set(10, text);
  }

  /**
   * Sets the channel type, 3 characters; "ICT" and "ICC" are linked channels.
   *
   * @param text the text, or null for none
   * @return this
   */
  public Transaction chnlTypCd(String text) {
    return set(11, text);
  }

  /**
   * Sets the receive service code, 12 characters.
   *
   * @param text the text, or null for none
   * @return this
   */
  public Transaction recvSvcCd(String text) {
    return set(12, text);
  }

  /**
   * Sets the screen id, 9 characters.
   *
   * @param text the text, or null for none
   * @return this
   */
  public Transaction scrnId(String text) {
    return set(13, text);
  }

  /**
   * Sets the employee number, 7 characters.
   *
   * @param text the text, or null for none
   * @return this
   */
  public Transaction empNo(String text) {
    return set(14, text);
  }

  /**
   * Sets the processing-result code, 1 character: "0" or a blank for success.
   *
   * @param text the text, or null for none
   * @return this
   */
  public Transaction procRsltDvCd(String text) {
    return set(15, text);
  }

  /**
   * Sets the telegram error code, 9 characters.
   *
   * @param text the text, or null for none
   * @return this
   */
  public Transaction stdTmsgErrCd(String text) {
    return set(16, text);
  }

  /**
   * Sets the telegram length as text, 8 characters.
   *
   * @param text the text, or null for none
   * @return this
   */
  public Transaction stdTmsgLen(String text) {
    return set(17, text);
  }

  /**
   * Sets the IPv6 address as text, 39 characters.
   *
   * @param text the text, or null for none
   * @return this
   */
  public Transaction ipv6Adr(String text) {
    return set(18, text);
  }

  /**
   * Sets the first transmitting system, 3 characters.
   *
   * @param text the text, or null for none
   * @return this
   */
  public Transaction fstTrmsSysCd(String text) {
    return set(19, text);
  }

  /**
   * Sets the transmitting system, 3 characters.
   *
   * @param text the text, or null for none
   * @return this
   */
  public Transaction trmsSysCd(String text) {
    return set(20, text);
  }

  /**
   * Sets whether it is a request or a response, 1 character.
   *
   * @param text the text, or null for none
   * @return this
   */
  public Transaction rqstRspsDvCd(String text) {
    return set(21, text);
  }

  /**
   * Sets whether it is synchronous or asynchronous, 1 character.
   *
   * @param text the text, or null for none
   * @return this
   */
  public Transaction trscSyncDvCd(String text) {
    return set(22, text);
  }

  /**
   * Sets the service code that receives the result, 12 characters.
   *
   * @param text the text, or null for none
   * @return this
   */
  public Transaction rsltRecvSvcCd(String text) {
    return set(23, text);
  }

  /**
   * Sets the EAI interface id, 16 characters.
   *
   * @param text the text, or null for none
   * @return this
   */
  public Transaction eaiIntfId(String text) {
    return set(24, text);
  }

  /**
   * Sets the failing system, 3 characters.
   *
   * @param text the text, or null for none
   * @return this
   */
  public Transaction dsblSysCd(String text) {
    return set(25, text);
  }

  /**
   * Sets the outside institution, 4 characters.
   *
   * @param text the text, or null for none
   * @return this
   */
  public Transaction otsdInstCd(String text) {
    return set(26, text);
  }

  /**
   * Sets the outside business, 3 characters.
   *
   * @param text the text, or null for none
   * @return this
   */
  public Transaction otsdBizCd(String text) {
    return set(27, text);
  }

  /**
   * Sets the first-transmission medium, 39 characters.
   *
   * @param text the text, or null for none
   * @return this
   */
  public Transaction fstTrmsMdclCtt(String text) {
    return set(28, text);
  }

  /**
   * Sets the first free field, 1 character.
   *
   * @param text the text, or null for none
   * @return this
   */
  public Transaction spare1(String text) {
    return set(29, text);
  }

  /**
   * Sets the second free field, 1 character.
   *
   * @param text the text, or null for none
   * @return this
   */
  public Transaction spare2(String text) {
    return set(30, text);
  }

  // ---- From start to end ----

  /**
   * Starts the transaction. To be called once, on one that {@link Tran#transaction} made, before
   * the thread makes another.
   *
   * @return this
   */
  public Transaction start() {
    if (state == State.DESCRIBED && context.isCurrent()) context.start(this);
    return this;
  }

  void started(int number, int callBase) {
    this.number = number;
    this.callBase = callBase;
    state = State.OPEN;
    if (sttlParam != null) {
      TranApiAdapter.TranStartX(context.tid, p[4], p[5], telegram, sttlParam.bytes());
      telegram = null;
    } else if (ptParam != null) {
      TranApiAdapter.TranStartM(context.tid, p[4], p[5], ptParam.bytes());
    } else {
      TranApiAdapter.TranStart(
          context.tid, p[2], null, p[4], p[5], null, null, null, p[9], p[10], p[11], p[12], p[13],
          p[14], p[15], p[16], p[17], p[18], p[19], p[20], p[21], p[22], p[23], p[24], p[25], p[26],
          p[27], p[28], p[29], p[30]);
    }
  }

  /**
   * Opens a business call inside the transaction; as {@link Tran#call(String)}.
   *
   * @param name the function's name, 70 characters
   * @return the open call, to be closed
   */
  public Call call(String name) {
    return isOpen() ? context.start(name, null, false) : Call.NONE;
  }

  /**
   * Opens a database call inside the transaction; as {@link Tran#dbCall(String)}.
   *
   * @param name the function's name, 70 characters
   * @return the open call, to be closed
   */
  public Call dbCall(String name) {
    return isOpen() ? context.start(name, null, true) : Call.NONE;
  }

  /**
   * Reports an error of the transaction, while it is the innermost one, in a record of its own and
   * another with the code and the message. The result becomes "9" unless one is set.
   *
   * @param code error code, 4 characters
   * @param message message, 350 bytes
   */
  public void error(String code, String message) {
    if (!isOpen()) return;
    if (p[15] == null) p[15] = FAILED;
    if (!context.isInnermost(this)) return;
    TranApiAdapter.TranError(
        context.tid, p[2], null, p[4], p[5], null, null, null, p[9], p[10], p[11], p[12], p[13],
        p[14], p[15], p[16], p[17], p[18], p[19], p[20], p[21], p[22], p[23], p[24], p[25], p[26],
        p[27], p[28], p[29], p[30]);
    TranApiAdapter.TranErrorInfo(
        context.tid, p[2], null, p[4], p[5], null, null, null, code, p[12], channelClass(),
        message);
  }

  private String channelClass() {
    return "ICT".equals(p[11]) || "ICC".equals(p[11]) ? "C" : "O";
  }

  /**
   * Gives the response that ends a transaction which a telegram started. An error result in it is
   * reported by the end. Without a response the end carries what the start did.
   *
   * @param telegram the whole telegram, for the log of whole telegrams; may be null
   * @param param its header fields, the GID among them, as they are when the transaction is closed
   */
  public void response(byte[] telegram, SttlParam param) {
    if (!isMine() || sttlParam == null || param == null) return;
    this.telegram = telegram;
    sttlParam = param;
  }

  /**
   * Gives the texts that end a partial transaction. Without them the end carries those of the
   * start.
   *
   * @param param the texts, as they are when the transaction is closed
   */
  public void response(PtParam param) {
    if (isMine() && ptParam != null && param != null) ptParam = param;
  }

  /** Ends the transaction, after what was opened inside it. A second time it does nothing. */
  @Override
  public void close() {
    if (!isMine()) return;
    if (state == State.OPEN) {
      context.end(this);
    } else {
      release();
    }
  }

  void ended() {
    if (sttlParam != null) {
      TranApiAdapter.TranEndX(context.tid, p[4], p[5], telegram, sttlParam.bytes());
    } else if (ptParam != null) {
      TranApiAdapter.TranEndM(context.tid, p[4], p[5], ptParam.bytes());
    } else {
      TranApiAdapter.TranEnd(
          context.tid, p[2], null, p[4], p[5], null, null, null, p[9], p[10], p[11], p[12], p[13],
          p[14], p[15], p[16], p[17], p[18], p[19], p[20], p[21], p[22], p[23], p[24], p[25], p[26],
          p[27], p[28], p[29], p[30]);
    }
    release();
  }
}

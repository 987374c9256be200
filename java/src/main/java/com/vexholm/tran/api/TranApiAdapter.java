package com.vexholm.tran.api;

/**
 * The native methods of libvarn, which trace the transactions of a Java server. The friendlier way
 * to them is {@link com.vexholm.tran.Tran}.
 *
 * <p>What holds for all of them:
 *
 * <ul>
 *   <li><b>Thread identifiers.</b> The low 32 bits of {@code tid} count, as a signed number.
 *       Positive: an identity of the caller's choosing, which is used by one thread at a time;
 *       {@link Thread#getId()} is one. Negative: the calling native thread, of which no more than
 *       ten can be traced unless the environment has {@code VARN_THREAD_ID=kernel}. 0: the process.
 *   <li><b>Identifiers and codes</b> are passed as UTF-8 cut to as many bytes as the string has
 *       characters: ASCII passes whole. Null leaves the field blank. A longer text is cut to the
 *       field's length, a shorter one padded with blanks.
 *   <li><b>Messages</b> are passed as bytes of the virtual machine's default charset
 *       ({@code file.encoding}, as a rule EUC-KR), up to the first zero byte.
 *   <li><b>Parameters that are not read</b> are named {@code p} and their number; they may be null.
 *   <li><b>Before {@link #Init} and after {@link #Done}</b> nothing is converted and nothing done.
 *       No method throws, waits, or tells what became of the record; the agent's log does.
 * </ul>
 *
 * <p>The class loads the native library as {@link TranLibrary} does. Where that fails it says so in
 * one line on {@link System#err}, and every method throws an {@link UnsatisfiedLinkError}; ask
 * {@link TranLibrary#isLoaded()} first where the library may be absent.
 */
public final class TranApiAdapter {

  static {
    TranLibrary.loadOrReport();
  }

  private TranApiAdapter() {}

  // ---- Start and stop ----

  /**
   * Starts the agent in this process: reads the environment and the configuration file, attaches
   * the shared objects of the collector and announces the process, or with a name the container,
   * with event 1508. To be called once, before anything else; after a failure it may be called
   * again.
   *
   * @param containerName name of the server (WAS container), of which the first 30 bytes count;
   *     null leaves the one given before
   * @return 0; 104 when the agent is started already; 106 without the environment variables
   *     {@code TRAN_HOME}, {@code TRAN_AGT_HOME} and {@code TRAN_AGT_CFG_FILE}; 103 when the
   *     configuration or a shared object is not as it should be; 105, 107, 116 or 117 otherwise
   */
  public static native int Init(String containerName);

  /**
   * Stops the agent. Calls made from here on do nothing, until the next {@link #Init}.
   */
  public static native void Done();

  /**
   * The version of the native library.
   *
   * @return its banner, of one line
   */
  public static native String TranLibV();

  /**
   * Takes the current time as that of the thread's next outermost start or end.
   *
   * @param tid thread identifier
   */
  public static native void TranSetTime(long tid);

  // ---- Transactions ----

  /**
   * Opens a service on the thread, up to ten deep, and sends a start record. Inside an open
   * service another GID is reported as a linked transaction, unless the channel is "ICT" or
   * "ICC".
   *
   * @param tid thread identifier
   * @param callerCd caller's two-character code
   * @param p3 not read
   * @param gid global transaction id (GID), 32 characters, of which the first 30 count
   * @param svcId service id, 16 characters
   * @param p6 not read
   * @param p7 not read
   * @param p8 not read
   * @param extFlag one-character flag
   * @param trscGrcoBr group-company code (2) and branch number (4)
   * @param chnlTypCd channel type, 3 characters; "ICT" and "ICC" are linked channels
   * @param recvSvcCd receive service code, 12 characters
   * @param scrnId screen id, 9 characters
   * @param empNo employee number, 7 characters
   * @param procRsltDvCd processing-result code, 1 character: "0" or a blank for success
   * @param stdTmsgErrCd telegram error code, 9 characters
   * @param stdTmsgLen telegram length as text, 8 characters
   * @param ipv6Adr IPv6 address as text, 39 characters
   * @param fstTrmsSysCd first transmitting system, 3 characters
   * @param trmsSysCd transmitting system, 3 characters
   * @param rqstRspsDvCd request or response, 1 character
   * @param trscSyncDvCd synchronous or asynchronous, 1 character
   * @param rsltRecvSvcCd service code that receives the result, 12 characters
   * @param eaiIntfId EAI interface id, 16 characters
   * @param dsblSysCd failing system, 3 characters
   * @param otsdInstCd outside institution, 4 characters
   * @param otsdBizCd outside business, 3 characters
   * @param fstTrmsMdclCtt first-transmission medium, 39 characters
   * @param spare1 free, 1 character
   * @param spare2 free, 1 character
   */
  public static native void TranStart(
      long tid, String callerCd, String p3, String gid, String svcId, String p6, String p7,
      String p8, String extFlag, String trscGrcoBr, String chnlTypCd, String recvSvcCd,
      String scrnId, String empNo, String procRsltDvCd, String stdTmsgErrCd, String stdTmsgLen,
      String ipv6Adr, String fstTrmsSysCd, String trmsSysCd, String rqstRspsDvCd,
      String trscSyncDvCd, String rsltRecvSvcCd, String eaiIntfId, String dsblSysCd,
      String otsdInstCd, String otsdBizCd, String fstTrmsMdclCtt, String spare1, String spare2);

  /**
   * Closes the thread's innermost service and sends an end record with the GID and the service
   * id of its start; at the outermost level also with the response time and the statistics of
   * its calls.
   *
   * @param tid thread identifier
   * @param callerCd caller's two-character code
   * @param p3 not read
   * @param gid global transaction id (GID), 32 characters, of which the first 30 count
   * @param svcId service id, 16 characters
   * @param p6 not read
   * @param p7 not read
   * @param p8 not read
   * @param extFlag one-character flag
   * @param trscGrcoBr group-company code (2) and branch number (4)
   * @param chnlTypCd channel type, 3 characters; "ICT" and "ICC" are linked channels
   * @param recvSvcCd receive service code, 12 characters
   * @param scrnId screen id, 9 characters
   * @param empNo employee number, 7 characters
   * @param procRsltDvCd processing-result code, 1 character: "0" or a blank for success
   * @param stdTmsgErrCd telegram error code, 9 characters
   * @param stdTmsgLen telegram length as text, 8 characters
   * @param ipv6Adr IPv6 address as text, 39 characters
   * @param fstTrmsSysCd first transmitting system, 3 characters
   * @param trmsSysCd transmitting system, 3 characters
   * @param rqstRspsDvCd request or response, 1 character
   * @param trscSyncDvCd synchronous or asynchronous, 1 character
   * @param rsltRecvSvcCd service code that receives the result, 12 characters
   * @param eaiIntfId EAI interface id, 16 characters
   * @param dsblSysCd failing system, 3 characters
   * @param otsdInstCd outside institution, 4 characters
   * @param otsdBizCd outside business, 3 characters
   * @param fstTrmsMdclCtt first-transmission medium, 39 characters
   * @param spare1 free, 1 character
   * @param spare2 free, 1 character
   */
  public static native void TranEnd(
      long tid, String callerCd, String p3, String gid, String svcId, String p6, String p7,
      String p8, String extFlag, String trscGrcoBr, String chnlTypCd, String recvSvcCd,
      String scrnId, String empNo, String procRsltDvCd, String stdTmsgErrCd, String stdTmsgLen,
      String ipv6Adr, String fstTrmsSysCd, String trmsSysCd, String rqstRspsDvCd,
      String trscSyncDvCd, String rsltRecvSvcCd, String eaiIntfId, String dsblSysCd,
      String otsdInstCd, String otsdBizCd, String fstTrmsMdclCtt, String spare1, String spare2);

  /**
   * Sends an error record for the thread's innermost service, whose GID and service id it
   * carries. Closes nothing.
   *
   * @param tid thread identifier
   * @param callerCd caller's two-character code
   * @param p3 not read
   * @param gid global transaction id (GID), 32 characters, of which the first 30 count
   * @param svcId service id, 16 characters
   * @param p6 not read
   * @param p7 not read
   * @param p8 not read
   * @param extFlag one-character flag
   * @param trscGrcoBr group-company code (2) and branch number (4)
   * @param chnlTypCd channel type, 3 characters; "ICT" and "ICC" are linked channels
   * @param recvSvcCd receive service code, 12 characters
   * @param scrnId screen id, 9 characters
   * @param empNo employee number, 7 characters
   * @param procRsltDvCd processing-result code, 1 character: "0" or a blank for success
   * @param stdTmsgErrCd telegram error code, 9 characters
   * @param stdTmsgLen telegram length as text, 8 characters
   * @param ipv6Adr IPv6 address as text, 39 characters
   * @param fstTrmsSysCd first transmitting system, 3 characters
   * @param trmsSysCd transmitting system, 3 characters
   * @param rqstRspsDvCd request or response, 1 character
   * @param trscSyncDvCd synchronous or asynchronous, 1 character
   * @param rsltRecvSvcCd service code that receives the result, 12 characters
   * @param eaiIntfId EAI interface id, 16 characters
   * @param dsblSysCd failing system, 3 characters
   * @param otsdInstCd outside institution, 4 characters
   * @param otsdBizCd outside business, 3 characters
   * @param fstTrmsMdclCtt first-transmission medium, 39 characters
   * @param spare1 free, 1 character
   * @param spare2 free, 1 character
   */
  public static native void TranError(
      long tid, String callerCd, String p3, String gid, String svcId, String p6, String p7,
      String p8, String extFlag, String trscGrcoBr, String chnlTypCd, String recvSvcCd,
      String scrnId, String empNo, String procRsltDvCd, String stdTmsgErrCd, String stdTmsgLen,
      String ipv6Adr, String fstTrmsSysCd, String trmsSysCd, String rqstRspsDvCd,
      String trscSyncDvCd, String rsltRecvSvcCd, String eaiIntfId, String dsblSysCd,
      String otsdInstCd, String otsdBizCd, String fstTrmsMdclCtt, String spare1, String spare2);

  /**
   * Opens a service that a telegram's header describes, as {@link #TranStart}, and logs the
   * telegram where whole telegrams are logged.
   *
   * @param tid thread identifier
   * @param gid GID; that of the header when null or empty
   * @param svcId service id
   * @param telegram the whole telegram, for the log alone; may be null
   * @param sttlParam the header's fields packed into 531 bytes, see {@link
   *     com.vexholm.tran.SttlParam}; what a shorter array does not reach is zero, what a longer
   *     one has more is not read; with null nothing is traced
   */
  public static native void TranStartX(
      long tid, String gid, String svcId, byte[] telegram, byte[] sttlParam);

  /**
   * Closes the service as {@link #TranEnd}, with the telegram of the response. A result other
   * than '0' and blank is reported first: an error record, and error information with the
   * header's message, the code of which is 1105 for result '1', 1106 for '8', 1107 for '9' and
   * 9999 for any other. The error information is left out when the array does not have 531
   * bytes.
   *
   * @param tid thread identifier
   * @param gid GID; that of the header when null or empty
   * @param svcId service id
   * @param telegram the whole telegram, for the log alone; may be null
   * @param sttlParam as for {@link #TranStartX}
   */
  public static native void TranEndX(
      long tid, String gid, String svcId, byte[] telegram, byte[] sttlParam);

  /**
   * Opens a partial service: one with five texts of the caller's own in place of a telegram's.
   * Every other GID inside an open service is a linked transaction.
   *
   * @param tid thread identifier
   * @param gid GID
   * @param svcId service id
   * @param ptParam the five texts packed into 103 bytes, see {@link com.vexholm.tran.PtParam};
   *     shorter and longer arrays and null as for {@link #TranStartX}
   */
  public static native void TranStartM(long tid, String gid, String svcId, byte[] ptParam);

  /**
   * Closes a partial service. An end that the agent refuses leaves it open.
   *
   * @param tid thread identifier
   * @param gid GID
   * @param svcId service id
   * @param ptParam as for {@link #TranStartM}
   */
  public static native void TranEndM(long tid, String gid, String svcId, byte[] ptParam);

  // ---- Notices ----

  /**
   * Sends an information record. Without a GID or a service id it takes those of the innermost
   * open service.
   *
   * @param tid thread identifier
   * @param callerCd caller's two-character code
   * @param p3 not read
   * @param gid GID
   * @param svcId service id
   * @param p6 not read
   * @param p7 not read
   * @param p8 not read
   * @param msg message, 350 bytes in the default charset
   */
  public static native void TranInfo(
      long tid, String callerCd, String p3, String gid, String svcId, String p6, String p7,
      String p8, String msg);

  /**
   * Sends an extended information record; needs no open service. Without a GID it takes that of
   * the innermost one.
   *
   * @param tid thread identifier
   * @param callerCd caller's two-character code
   * @param p3 not read
   * @param gid GID
   * @param svcId service id
   * @param p6 not read
   * @param p7 not read
   * @param p8 not read
   * @param code code, 4 characters
   * @param text text of 350 bytes, passed as an identifier, not as a message: ASCII
   */
  public static native void TranInfoEx(
      long tid, String callerCd, String p3, String gid, String svcId, String p6, String p7,
      String p8, String code, String text);

  /**
   * Sends an event record; needs no open service.
   *
   * @param tid thread identifier
   * @param callerCd caller's two-character code
   * @param p3 not read
   * @param gid GID
   * @param svcId service id
   * @param p6 not read
   * @param p7 not read
   * @param p8 not read
   * @param code event code, 4 characters
   * @param field2 receive service code, 12 characters
   * @param field3 channel class, 4 characters
   * @param msg message, 512 bytes in the default charset
   */
  public static native void TranEvent(
      long tid, String callerCd, String p3, String gid, String svcId, String p6, String p7,
      String p8, String code, String field2, String field3, String msg);

  /**
   * Sends an error-information record for the innermost open service, whose GID and service id
   * it carries.
   *
   * @param tid thread identifier
   * @param callerCd caller's two-character code
   * @param p3 not read
   * @param gid GID
   * @param svcId service id
   * @param p6 not read
   * @param p7 not read
   * @param p8 not read
   * @param code error code, 4 characters
   * @param field2 receive service code, 12 characters
   * @param field3 channel class, 4 characters
   * @param msg message, 350 bytes in the default charset
   */
  public static native void TranErrorInfo(
      long tid, String callerCd, String p3, String gid, String svcId, String p6, String p7,
      String p8, String code, String field2, String field3, String msg);

  // ---- Calls and SQL ----

  /**
   * Opens a call of a function inside the thread's innermost service; sends nothing. It counts
   * as a database call, whose SQL may be reported, when its name bears the configured signature
   * ({@code DBIO_FUNC}). A database call cannot be opened inside another: such a start opens
   * nothing, and no end may be made for it.
   *
   * @param tid thread identifier
   * @param src source file, 100 characters
   * @param funcNm the function's name, 70 characters
   * @param dbio non-zero: the label is DBIO
   * @param status -1: how the call ends is of no interest (recorded as 99)
   */
  public static native void TranCallInfoS(
      long tid, String src, String funcNm, int dbio, int status);

  /**
   * Closes the innermost open call, whatever its name, and records it, as return code 88, when
   * it took at least the configured time (that of business calls). The SQL statements that were
   * reported are sent before it.
   *
   * @param tid thread identifier
   * @param p2 not read
   * @param p3 not read
   * @param dbio non-zero: the record's label is DBIO, otherwise METHOD
   */
  public static native void TranCallInfoF(long tid, String p2, String p3, int dbio);

  /**
   * Keeps an SQL identifier in the thread's shared entry, for those who look at it. Needs no
   * service.
   *
   * @param tid thread identifier
   * @param sqlId identifier, 200 bytes in the default charset
   */
  public static native void TranSqlId(long tid, String sqlId);

  /**
   * Reports an SQL statement of the innermost open call, a database call. Up to five different
   * statements are kept until the call ends, then those that took at least the configured time
   * are sent.
   *
   * @param tid thread identifier
   * @param mode 0: keep the statement; 1: send what is kept; any other: nothing
   * @param kind the caller's statement kind, 16 bits; 9999 where there is none
   * @param start when it began, in milliseconds since 1970
   * @param end when it ended, likewise
   * @param sql the statement, 8,192 bytes in the default charset
   */
  public static native void TranSqlStmt(
      long tid, int mode, int kind, long start, long end, String sql);
}

package com.vexholm.tran;

/**
 * The header fields of a telegram, packed into the 531 bytes that {@link Tran#start(String, String,
 * byte[], SttlParam)} and {@link Transaction#response(byte[], SttlParam)} take. Fields that are not
 * set are blank. Texts are in the default charset; one that is too long is cut behind its last
 * whole character that fits.
 *
 * <p>An object may be used again and again, by one thread at a time, but not changed between the
 * start that takes it and the end of that transaction, unless another is given for the end.
 */
public final class SttlParam {

  /** Bytes of the array. */
  public static final int LENGTH = 531;

  private static final int MESSAGE_AT = 219;

  private final PackedFields fields = new PackedFields(LENGTH);

  /** Makes one with all fields blank. */
  public SttlParam() {
    clear();
  }

  /**
   * Blanks all fields.
   *
   * @return this
   */
  public SttlParam clear() {
    set(0, MESSAGE_AT, null);
    return message(null);
  }

  private SttlParam set(int at, int width, String text) {
    fields.put(at, width, text, ' ');
    return this;
  }

  /**
   * Sets the global transaction id (GID), 32 characters.
   *
   * @param text the text, or null for none
   * @return this
   */
  public SttlParam gid(String text) {
    return set(0, 32, text);
  }

  /**
   * Sets the telegram length as text, 8 characters.
   *
   * @param text the text, or null for none
   * @return this
   */
  public SttlParam stdTmsgLen(String text) {
    return set(32, 8, text);
  }

  /**
   * Sets the IPv6 address as text, 39 characters.
   *
   * @param text the text, or null for none
   * @return this
   */
  public SttlParam ipv6Adr(String text) {
    return set(40, 39, text);
  }

  /**
   * Sets the first transmitting system, 3 characters.
   *
   * @param text the text, or null for none
   * @return this
   */
  public SttlParam fstTrmsSysCd(String text) {
    return set(79, 3, text);
  }

  /**
   * Sets the transmitting system, 3 characters.
   *
   * @param text the text, or null for none
   * @return this
   */
  public SttlParam trmsSysCd(String text) {
    return set(82, 3, text);
  }

  /**
   * Sets the request or response, 1 character.
   *
   * @param text the text, or null for none
   * @return this
   */
  public SttlParam rqstRspsDvCd(String text) {
    return set(85, 1, text);
  }

  /**
   * Sets the synchronous or asynchronous, 1 character.
   *
   * @param text the text, or null for none
   * @return this
   */
  public SttlParam trscSyncDvCd(String text) {
    return set(86, 1, text);
  }

  /**
   * Sets the receive service code, 12 characters.
   *
   * @param text the text, or null for none
   * @return this
   */
  public SttlParam recvSvcCd(String text) {
    return set(87, 12, text);
  }

  /**
   * Sets the service code that receives the result, 12 characters.
   *
   * @param text the text, or null for none
   * @return this
   */
  public SttlParam rsltRecvSvcCd(String text) {
    return set(99, 12, text);
  }

  /**
   * Sets the EAI interface id, 16 characters.
   *
   * @param text the text, or null for none
   * @return this
   */
  public SttlParam eaiIntfId(String text) {
    return set(111, 16, text);
  }

  /**
   * Sets the processing-result code, 1 character: "0" or a blank for success.
   *
   * @param text the text, or null for none
   * @return this
   */
  public SttlParam procRsltDvCd(String text) {
    return set(127, 1, text);
  }

  /**
   * Sets the failing system, 3 characters.
   *
   * @param text the text, or null for none
   * @return this
   */
  public SttlParam dsblSysCd(String text) {
    return set(128, 3, text);
  }

  /**
   * Sets the telegram error code, 9 characters.
   *
   * @param text the text, or null for none
   * @return this
   */
  public SttlParam stdTmsgErrCd(String text) {
    return set(131, 9, text);
  }

  /**
   * Sets the channel type, 3 characters; "ICT" and "ICC" are linked channels.
   *
   * @param text the text, or null for none
   * @return this
   */
  public SttlParam chnlTypCd(String text) {
    return set(140, 3, text);
  }

  /**
   * Sets the employee number, 7 characters.
   *
   * @param text the text, or null for none
   * @return this
   */
  public SttlParam empNo(String text) {
    return set(143, 7, text);
  }

  /**
   * Sets the group-company code (2) and branch number (4).
   *
   * @param text the text, or null for none
   * @return this
   */
  public SttlParam trscGrcoBr(String text) {
    return set(150, 6, text);
  }

  /**
   * Sets the screen id, 9 characters.
   *
   * @param text the text, or null for none
   * @return this
   */
  public SttlParam scrnId(String text) {
    return set(156, 9, text);
  }

  /**
   * Sets the outside institution, 4 characters.
   *
   * @param text the text, or null for none
   * @return this
   */
  public SttlParam otsdInstCd(String text) {
    return set(165, 4, text);
  }

  /**
   * Sets the outside business, 3 characters.
   *
   * @param text the text, or null for none
   * @return this
   */
  public SttlParam otsdBizCd(String text) {
    return set(169, 3, text);
  }

  /**
   * Sets the first-transmission medium, 39 characters.
   *
   * @param text the text, or null for none
   * @return this
   */
  public SttlParam fstTrmsMdclCtt(String text) {
    return set(172, 39, text);
  }

  /**
   * Sets the free, 1 character.
   *
   * @param text the text, or null for none
   * @return this
   */
  public SttlParam spare1(String text) {
    return set(212, 1, text);
  }

  /**
   * Sets the free, 1 character.
   *
   * @param text the text, or null for none
   * @return this
   */
  public SttlParam spare2(String text) {
    return set(213, 1, text);
  }

  /**
   * Sets the error message, 311 bytes, which a response with an error result carries.
   *
   * @param text the text, or null for none
   * @return this
   */
  public SttlParam message(String text) {
    // The agent reads it up to a zero byte.
    fields.put(MESSAGE_AT, LENGTH - 1 - MESSAGE_AT, text, '\0');
    return this;
  }

  /**
   * The array itself, for {@link com.vexholm.tran.api.TranApiAdapter#TranStartX}.
   *
   * @return the array, which shows later changes
   */
  public byte[] bytes() {
    return fields.bytes;
  }
}

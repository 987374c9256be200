package com.vexholm.tran;

/**
 * The five texts of a partial transaction, packed into the 103 bytes that {@link
 * Tran#start(String, String, PtParam)} and {@link Transaction#response(PtParam)} take. As {@link
 * SttlParam}.
 */
public final class PtParam {

  /** Bytes of the array. */
  public static final int LENGTH = 103;

  private final PackedFields fields = new PackedFields(LENGTH);

  /** Makes one with all texts blank. */
  public PtParam() {
    clear();
  }

  /**
   * Blanks all texts.
   *
   * @return this
   */
  public PtParam clear() {
    return set(0, LENGTH, null);
  }

  private PtParam set(int at, int width, String text) {
    fields.put(at, width, text, ' ');
    return this;
  }

  /**
   * Sets the first text, 30 bytes.
   *
   * @param text the text, or null for none
   * @return this
   */
  public PtParam ptParam1(String text) {
    return set(0, 30, text);
  }

  /**
   * Sets the second text, 20 bytes.
   *
   * @param text the text, or null for none
   * @return this
   */
  public PtParam ptParam2(String text) {
    return set(30, 20, text);
  }

  /**
   * Sets the third text, 20 bytes.
   *
   * @param text the text, or null for none
   * @return this
   */
  public PtParam ptParam3(String text) {
    return set(50, 20, text);
  }

  /**
   * Sets the fourth text, 30 bytes.
   *
   * @param text the text, or null for none
   * @return this
   */
  public PtParam ptParam4(String text) {
    return set(70, 30, text);
  }

  /**
   * Sets the fifth text, 3 bytes.
   *
   * @param text the text, or null for none
   * @return this
   */
  public PtParam ptParam5(String text) {
    return set(100, 3, text);
  }

  /**
   * The array itself, for {@link com.vexholm.tran.api.TranApiAdapter#TranStartM}.
   *
   * @return the array, which shows later changes
   */
  public byte[] bytes() {
    return fields.bytes;
  }
}

package bank;

import com.vexholm.tran.SttlParam;
import java.nio.charset.Charset;
import java.util.Arrays;

/** A standard telegram: a header of fields at fixed places, and behind it what it carries. */
final class Telegram {

  /** A field's place in bytes; the header's full table is in varn/sttl.h. */
  enum Field {
    STD_TMSG_LEN(0, 8),
    GLBL_ID(9, 32),
    TRMS_SYS_CD(96, 3),
    RQST_RSPS_DV_CD(104, 1),
    RECV_SVC_CD(132, 12),
    PROC_RSLT_DV_CD(188, 1),
    STD_TMSG_ERR_CD(195, 9),
    CHNL_TYP_CD(209, 3);

    private final int at;
    private final int width;

    Field(int at, int width) {
      this.at = at;
      this.width = width;
    }
  }

  private static final Charset EUC_KR = Charset.forName("EUC-KR");
  private static final int HEADER = 600;

  private final byte[] bytes;

  /** Of these bytes, which are not copied. */
  Telegram(byte[] bytes) {
    this.bytes = bytes;
  }

  /** With a blank header. */
  static Telegram carrying(String text) {
    final byte[] body = text.getBytes(EUC_KR);
    final Telegram telegram = new Telegram(new byte[HEADER + body.length]);
    Arrays.fill(telegram.bytes, 0, HEADER, (byte) ' ');
    System.arraycopy(body, 0, telegram.bytes, HEADER, body.length);
    return telegram.set(Field.STD_TMSG_LEN, String.format("%08d", telegram.bytes.length));
  }

  /** The answer to this one, with the same header but for the result. */
  Telegram answer(String text, String result, String code) {
    final Telegram answer = carrying(text);
    final String length = answer.get(Field.STD_TMSG_LEN);
    System.arraycopy(bytes, 0, answer.bytes, 0, HEADER);
    return answer
        .set(Field.STD_TMSG_LEN, length)
        .set(Field.RQST_RSPS_DV_CD, "R")
        .set(Field.PROC_RSLT_DV_CD, result)
        .set(Field.STD_TMSG_ERR_CD, code);
  }

  boolean isWhole() {
    return bytes.length >= HEADER
        && get(Field.STD_TMSG_LEN).equals(String.format("%08d", bytes.length));
  }

  String get(Field field) {
    return new String(bytes, field.at, field.width, EUC_KR).trim();
  }

  Telegram set(Field field, String text) {
    final byte[] value = text.getBytes(EUC_KR);
    Arrays.fill(bytes, field.at, field.at + field.width, (byte) ' ');
    System.arraycopy(value, 0, bytes, field.at, Math.min(value.length, field.width));
    return this;
  }

  String body() {
    return new String(bytes, HEADER, bytes.length - HEADER, EUC_KR);
  }

  byte[] bytes() {
    return bytes;
  }

  /** What a trace shows of the header. */
  SttlParam param() {
    return new SttlParam()
        .gid(get(Field.GLBL_ID))
        .stdTmsgLen(get(Field.STD_TMSG_LEN))
        .trmsSysCd(get(Field.TRMS_SYS_CD))
        .rqstRspsDvCd(get(Field.RQST_RSPS_DV_CD))
        .recvSvcCd(get(Field.RECV_SVC_CD))
        .procRsltDvCd(get(Field.PROC_RSLT_DV_CD))
        .stdTmsgErrCd(get(Field.STD_TMSG_ERR_CD))
        .chnlTypCd(get(Field.CHNL_TYP_CD));
  }
}

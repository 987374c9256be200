package bank;

/** What a customer is told when a request is not carried out. */
final class Refusal extends Exception {

  private static final long serialVersionUID = 1L;

  private final String code;

  Refusal(String code, String message) {
    super(message);
    this.code = code;
  }

  /** Nine characters, for the field of a record or telegram. */
  String code() {
    return code;
  }
}

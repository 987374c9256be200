package com.vexholm.tran.api;

/** The native library could not be loaded; the message says what was tried and why each failed. */
public final class TranLibraryException extends RuntimeException {

  private static final long serialVersionUID = 1L;

  TranLibraryException(String message) {
    super(message);
  }
}

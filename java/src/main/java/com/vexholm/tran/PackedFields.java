package com.vexholm.tran;

import java.nio.ByteBuffer;
import java.nio.CharBuffer;
import java.nio.charset.Charset;
import java.nio.charset.CharsetEncoder;
import java.nio.charset.CodingErrorAction;
import java.util.Arrays;

/** Texts side by side in an array of bytes, each in the default charset. */
final class PackedFields {

  final byte[] bytes;
  private final ByteBuffer buffer;
  private final CharsetEncoder encoder =
      Charset.defaultCharset()
          .newEncoder()
          .onMalformedInput(CodingErrorAction.REPLACE)
          .onUnmappableCharacter(CodingErrorAction.REPLACE);

  PackedFields(int length) {
    bytes = new byte[length];
    buffer = ByteBuffer.wrap(bytes);
  }

  /** As many of the text's characters as fit whole, padded; null leaves the padding alone. */
  void put(int at, int width, String text, char padding) {
    final int end = at + width;
    int written = at;
    if (text != null) {
      final int ascii = putAscii(at, end, text);
      written += ascii;
      if (ascii < text.length() && written < end) written = encode(written, end, text, ascii);
    }
    Arrays.fill(bytes, written, end, (byte) padding);
  }

  // Most fields are ASCII, which takes no buffers. Returns how many characters were.
  private int putAscii(int at, int end, String text) {
    int n = 0;
    while (n < text.length() && at + n < end && text.charAt(n) < 0x80) {
      bytes[at + n] = (byte) text.charAt(n);
      ++n;
    }
    return n;
  }

  private int encode(int at, int end, String text, int from) {
    buffer.limit(end).position(at);
    encoder.reset().encode(CharBuffer.wrap(text, from, text.length()), buffer, true);
    final int written = buffer.position();
    buffer.clear();
    return written;
  }
}

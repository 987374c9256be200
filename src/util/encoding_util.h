// How many bytes of a text may be kept without ending inside a Hangul character.
#pragma once

namespace varn {

enum Encoding : int { kEucKr = 0, kUtf8 = 1 };

// Bytes of `str` to keep under a limit of `cut_len`: 0 to `cut_len`, or `len` where the text is not
// longer. A negative `len` means zero-ended. Null, a limit below 1 and an unknown encoding keep
// nothing. A text that is cut is traced on standard output, unless VARN_CONSOLE=off.
int hcut(const char* str, int len, int cut_len, int enc_type);

// The rules of the two encodings, for a `cut_len` from 1 to below `len`: they look backwards from
// the last byte that the limit keeps.
int hangul_euckr(const char* str, int len, int cut_len);
int hangul_utf8(const char* str, int len, int cut_len);

}  // namespace varn

#include "util/encoding_util.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "util/cancel_guard.h"
#include "util/console.h"
#include "util/errno_guard.h"

namespace varn {
namespace {

[[gnu::format(printf, 1, 2)]] void trace(const char* format, ...) {
  if (console_is_off()) return;
  va_list arguments;
  va_start(arguments, format);
  std::vprintf(format, arguments);
  va_end(arguments);
}

unsigned byte_at(const char* str, int i) { return static_cast<unsigned char>(str[i]); }

void trace_byte(const char* str, int i) {
  trace("org_str[%d] = %x, (maskoff(%x) \n", i,
        static_cast<unsigned>(static_cast<signed char>(str[i])), byte_at(str, i) & 0xF0);
}

bool is_continuation(const char* str, int i) { return (byte_at(str, i) & 0xC0) == 0x80; }

}  // namespace

int hangul_euckr(const char* str, int, int cut_len) {
  for (int kept = cut_len; kept > 0; --kept) {
    const unsigned byte = byte_at(str, kept - 1);
    if (byte < 0xA1 || byte > 0xFE) return kept;
    trace_byte(str, kept - 1);
    const bool leads_hangul = byte >= 0xB0 && byte <= 0xC8;
    if (!leads_hangul) {
      trace("found hangul(euc-kr)\n");
      return kept;
    }
  }
  return 0;
}

int hangul_utf8(const char* str, int len, int cut_len) {
  for (int kept = cut_len; kept > 0; --kept) {
    const int i = kept - 1;
    const unsigned byte = byte_at(str, i);
    if (byte < 0x80) return kept;
    trace_byte(str, i);
    if ((byte & 0xF0) != 0xE0) continue;
    if (i + 2 < len && is_continuation(str, i + 1) && is_continuation(str, i + 2)) {
      trace("found hangul(utf-8)\n");
      return i + 3 <= cut_len ? i + 3 : i;
    }
    trace("<!> unknown type of language format \n");
  }
  return 0;
}

int hcut(const char* str, int len, int cut_len, int enc_type) {
  if (str == nullptr || cut_len <= 0) return 0;
  if (len < 0) len = static_cast<int>(std::strlen(str));
  if (cut_len >= len) return len;

  const CancelGuard not_cancelled;
  const ErrnoGuard errno_kept;
  trace("---------------------------------------------------\n");
  trace("org_len = %d \ncut_len = %d \nstd_len = %d \n", len, cut_len, cut_len);
  int kept = 0;
  if (enc_type == kEucKr)
    kept = hangul_euckr(str, len, cut_len);
  else if (enc_type == kUtf8)
    kept = hangul_utf8(str, len, cut_len);
  else
    trace("undefined encoding type");
  trace("dest = |%.*s|\n", kept, str);
  return kept;
}

}  // namespace varn

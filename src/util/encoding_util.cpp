#include "util/encoding_util.h"

#include <unistd.h>

#include <cstring>
#include <string_view>

#include "util/cancel_guard.h"
#include "util/console.h"
#include "util/errno_guard.h"

namespace varn {
namespace {

void trace(std::string_view text) {
  if (!console_is_off()) console_write(STDOUT_FILENO, text);
}

unsigned byte_at(const char* str, int i) { return static_cast<unsigned char>(str[i]); }

void trace_byte(const char* str, int i) {
  if (console_is_off()) return;
  console_printf(STDOUT_FILENO, "org_str[%d] = %x, (maskoff(%x) \n", i,
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
  if (!console_is_off())
    console_printf(STDOUT_FILENO, "org_len = %d \ncut_len = %d \nstd_len = %d \n", len, cut_len,
                   cut_len);
  int kept = 0;
  if (enc_type == kEucKr)
    kept = hangul_euckr(str, len, cut_len);
  else if (enc_type == kUtf8)
    kept = hangul_utf8(str, len, cut_len);
  else
    trace("undefined encoding type");
  trace("dest = |");
  trace({str, strnlen(str, static_cast<std::size_t>(kept))});
  trace("|\n");
  return kept;
}

}  // namespace varn

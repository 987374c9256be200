// TRAN_INIT, TRAN_DONE and the exported helpers.
#include <sys/stat.h>

#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <ctime>

#include "core/banner.h"
#include "core/call.h"
#include "core/tran_ex.h"
#include "util/errno_guard.h"
#include "util/log_printf.h"
#include "util/text.h"
#include "util/tuning.h"

using namespace varn;

extern "C" {

int TRAN_INIT(void) { return start_agent(); }

int TRAN_DONE(void) { return stop_agent(); }

int check_gvar(int rec_type) {
  return Call(log_flag_of(static_cast<char>(rec_type & 0xff))).code();
}

unsigned char get_log_flag_set(const char* letters) { return log_flags_of(letters); }

int set_fst_err_rc_set(const char* text) {
  const Announced announced(kInCall);
  if (announced.code() != 0) return TRAN_RC_FAILED;
  return set_err_rc_class(gvar.que_info->fst_err_rc_set, text);
}

int is_err_rc(tran_call_rc* call) {
  if (call == nullptr) return 0;
  if (call->status == -1) return error_class(*call);  // needs no segment
  const Announced announced(kInCall);
  return announced.code() == 0 ? error_class(*call) : 0;
}

void set_log_field(const char* src, int len, char* dst, int width, int copy) {
  if (dst == nullptr || width < 0) return;
  const auto field_width = static_cast<std::size_t>(width);
  const Text text(src, len);
  const std::size_t kept = copy != 0 ? 0 : text.size(field_width);
  put_padded(dst + kept, field_width - kept, copy != 0 ? text : Text{});
  dst[field_width] = ' ';
}

int read_config(void) {
  constexpr std::int64_t kLookEverySec = 60;
  static std::atomic<std::int64_t> last_look;
  static std::atomic<std::int64_t> last_change;  // 0: not looked yet
  const char* const path = secure_getenv("TRAN_AGT_CFG_FILE");
  const std::int64_t second = time(nullptr);
  std::int64_t looked = last_look.load();
  if (path == nullptr || second - looked < kLookEverySec ||
      !last_look.compare_exchange_strong(looked, second))
    return 0;
  struct stat file = {};
  const ErrnoGuard errno_kept;
  const bool has_file = stat(path, &file) == 0;
  if (!has_file) return 0;
  const std::int64_t before = last_change.exchange(file.st_mtime);
  if (before == 0 || before == file.st_mtime) return 0;
  const Announced announced(kInCall);
  if (announced.code() == 0) log_printf("@@@ Config-File 수정 확인\n");
  return 1;
}

void print_logo(void) {
  const ErrnoGuard errno_kept;
  show_banner();
}

}  // extern "C"

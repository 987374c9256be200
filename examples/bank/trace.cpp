#include "trace.h"

#include <iconv.h>

#include <atomic>
#include <cerrno>
#include <cstdio>

namespace bank::trace {
namespace {

constexpr std::string_view kOtherChannel = "O";

varn::Texts request_of(varn::Texts texts) {
  texts.rqst_rsps_dv_cd = "S";
  return texts;
}

struct Converter {
  const iconv_t handle = iconv_open("UHC", "UTF-8");  // EUC-KR and all its other syllables
  ~Converter() { iconv_close(handle); }
};

// The four digits that tell one error from another.
std::string_view short_code(std::string_view code) { return code.substr(code.size() - 4); }

// A thread that is not traced works on all the same, but somebody should know.
void tell_if_untraced(int rc) {
  static std::atomic_flag told;
  if (rc == TRAN_RC_NO_CONTEXT && !told.test_and_set())
    std::fprintf(stderr, "bank: more threads than the agent traces, see VARN_THREAD_ID\n");
}

}  // namespace

Service::Service(const varn::Texts& texts) : service_(request_of(texts)) {
  tell_if_untraced(service_.rc());
  service_.texts().rqst_rsps_dv_cd = "R";
  service_.texts().std_tmsg_err_cd = "BNK009999";  // should an exception leave the service
}

void Service::set_outcome(const Outcome& outcome) {
  service_.set_result(outcome.result, outcome.code);
}

int rc_of(const Outcome& outcome) {
  if (outcome.done()) return 0;
  return outcome.result == '1' ? 1 : varn::kFailedRc;
}

// A record kind that is switched off is asked about first: nothing is converted for nobody.
void info(std::string_view message) {
  if (check_gvar('I') == 0) varn::info(to_euc_kr(message));
}

void error_info(const Outcome& outcome) {
  if (check_gvar('E') == 0)
    varn::error_info({.code = short_code(outcome.code),
                      .message = to_euc_kr(outcome.message),
                      .chnl_class = kOtherChannel});
}

void event(std::string_view code, std::string_view gid, std::string_view svc_id,
           std::string_view message) {
  if (check_gvar('V') == 0)
    varn::event({.code = code,
                 .message = to_euc_kr(message),
                 .chnl_class = kOtherChannel,
                 .gid = gid,
                 .svc_id = svc_id});
}

std::string to_euc_kr(std::string_view utf8) {
  thread_local const Converter converter;
  std::string converted(utf8.size(), '\0');  // never longer than UTF-8
  auto* in = const_cast<char*>(utf8.data());
  std::size_t in_left = utf8.size();
  char* out = converted.data();
  std::size_t out_left = converted.size();
  while (iconv(converter.handle, &in, &in_left, &out, &out_left) == std::size_t(-1)) {
    if (errno == E2BIG || in_left == 0) break;
    *out++ = '?';
    --out_left;
    do {
      ++in;
      --in_left;
    } while (in_left > 0 && (*in & 0xC0) == 0x80);
  }
  converted.resize(converted.size() - out_left);
  return converted;
}

}  // namespace bank::trace

#include "trace.h"

#include <iconv.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <string>

// A pair: pointer and length, or null.
#define PAIR(text) (text).data(), static_cast<int>((text).size())
#define NONE nullptr, 0

namespace bank::trace {
namespace {

constexpr int kCallingThread = -1;
constexpr std::string_view kOtherChannel = "O";

using TransactionCall = int (*)(int TRAN_FIELD_PARAMETERS);

int call(TransactionCall tran, const Texts& texts) {
#define BANK_PAIR(name, width) , PAIR(texts.name)
  return tran(kCallingThread TRAN_FIELD_LIST(BANK_PAIR));
#undef BANK_PAIR
}

struct Converter {
  const iconv_t handle = iconv_open("UHC", "UTF-8");  // EUC-KR and all its other syllables
  ~Converter() { iconv_close(handle); }
};

// What has no place in EUC-KR becomes a question mark.
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

// The four digits that tell one error from another.
std::string_view short_code(std::string_view code) { return code.substr(code.size() - 4); }

// A thread that is not traced works on all the same, but somebody should know.
void tell_if_untraced(int rc) {
  static std::atomic_flag told;
  if (rc == TRAN_RC_NO_CONTEXT && !told.test_and_set())
    std::fprintf(stderr, "bank: more threads than the agent traces, see VARN_THREAD_ID\n");
}

}  // namespace

Service::Service(const Texts& texts) : texts_(texts) {
  texts_.rqst_rsps_dv_cd = "S";
  tell_if_untraced(call(TRAN_START, texts_));
  texts_.rqst_rsps_dv_cd = "R";
  texts_.std_tmsg_err_cd = "BNK009999";
}

Service::~Service() {
  texts_.proc_rslt_dv_cd = {&result_, 1};
  call(TRAN_END, texts_);
}

void Service::set_outcome(const Outcome& outcome) {
  result_ = outcome.result;
  texts_.std_tmsg_err_cd = outcome.code;
}

void Service::error() {
  texts_.proc_rslt_dv_cd = {&result_, 1};
  call(TRAN_ERROR, texts_);
}

// A record kind that is switched off is asked about first: nothing is converted for nobody.
void info(std::string_view message) {
  if (check_gvar('I') != 0) return;
  const std::string text = to_euc_kr(message);
  TRAN_INFO(kCallingThread, NONE, NONE, NONE, NONE, NONE, NONE, NONE, PAIR(text));
}

void error_info(const Outcome& outcome) {
  if (check_gvar('E') != 0) return;
  const std::string text = to_euc_kr(outcome.message);
  const std::string_view code = short_code(outcome.code);
  TRAN_ERRINFO(kCallingThread, NONE, NONE, NONE, NONE, NONE, NONE, NONE, PAIR(code), NONE,
               PAIR(kOtherChannel), PAIR(text));
}

void event(std::string_view code, std::string_view gid, std::string_view svc_id,
           std::string_view message) {
  if (check_gvar('V') != 0) return;
  const std::string text = to_euc_kr(message);
  TRAN_EVENT(kCallingThread, NONE, NONE, PAIR(gid), PAIR(svc_id), NONE, NONE, NONE, PAIR(code),
             NONE, PAIR(kOtherChannel), PAIR(text));
}

}  // namespace bank::trace

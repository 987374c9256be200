// TRAN_STARTX and TRAN_ENDX: services that whole telegrams describe.
#include <algorithm>
#include <array>
#include <cstdint>
#include <cstring>
#include <string_view>

#include "core/call.h"
#include "core/notice.h"
#include "core/service.h"
#include "core/service_text.h"
#include "layout/sttl.h"
#include "tong/tong.h"
#include "util/log_printf.h"
#include "util/message.h"

namespace varn {
namespace {

// What the host gave.
struct Arguments {
  int tid;
  Text hdr_cd;
  Text hdr_flag;
  Text gid;
  Text svc_id;
  Text sttl;
  bool is_standard;
  bool ext_on;
};

// A text as it is wherever its length is not what the host says: up to its zero byte, and no
// further than the host says.
Text up_to_its_end(Text text, std::size_t width) {
  if (!text.given()) return {};
  const std::size_t n = strnlen(text.ptr, text.len < 0 ? width : text.size(width));
  return {text.ptr, static_cast<std::int32_t>(n)};
}

bool begins_with(Text text, std::string_view prefix) {
  return text.clipped(prefix.size()) == prefix;
}
bool is_client_handler(Text svc_id) { return begins_with(svc_id, "CLH"); }
bool is_gateway(Text svc_id) { return begins_with(svc_id, "GW"); }

// Of a service id of twelve characters, nine tell the service.
Text service_of(Text svc_id) {
  const Text text = up_to_its_end(svc_id, kSvcId.width);
  return text.len == 12 ? Text{text.ptr, 9} : text;
}

// ---- Reading a telegram ----

// The bytes of a telegram, with an end that no reading passes.
class Telegram {
 public:
  explicit Telegram(const Arguments& args)
      : bytes_(args.sttl.ptr),
        size_(args.sttl.len < 0 ? std::strlen(args.sttl.ptr)
                                : static_cast<std::size_t>(args.sttl.len)),
        is_standard_(args.is_standard) {}

  bool is_standard() const { return is_standard_; }
  std::size_t size() const { return size_; }

  // As much of a field as there is; null where the telegram ends before it.
  Text at(std::size_t offset, std::size_t length) const {
    if (offset >= size_) return {};
    return {bytes_ + offset, static_cast<std::int32_t>(std::min(length, size_ - offset))};
  }
  Text field(tran_sttl_field field) const {
    return at(static_cast<std::size_t>(field.offset), static_cast<std::size_t>(field.length));
  }
  // Fields of the fixed layout are zero-ended texts.
  Text fixed_field(std::size_t offset, std::size_t width) const {
    return up_to_its_end(at(offset, width), width);
  }

  Text gid() const {
    return is_standard_ ? field(sttl::k_GLBL_ID) : fixed_field(kFixedGidAt, kGid.width);
  }

 private:
  const char* bytes_;
  std::size_t size_;
  bool is_standard_;
};

// The texts of the service call that a telegram stands for.
class TelegramTexts {
 public:
  TelegramTexts(const Arguments& args, const Telegram& telegram) {
    pairs_[kPair_hdr_cd] = args.hdr_cd;
    pairs_[kPair_hdr_flag] = args.hdr_flag;
    pairs_[kPair_ext_flag] = {args.ext_on ? "1" : "0", 1};
    for (const TelegramText& text : kTelegramTexts) {
      if (telegram.is_standard())
        pairs_[text.pair] = telegram.field(text.standard);
      else if (text.fixed_at >= 0)
        pairs_[text.pair] = telegram.fixed_field(static_cast<std::size_t>(text.fixed_at),
                                                 field_of_pair(text.pair).width);
    }
    if (!telegram.is_standard()) put_together(telegram);
  }
  TelegramTexts(const TelegramTexts&) = delete;
  TelegramTexts& operator=(const TelegramTexts&) = delete;

  Pairs of(Text gid, Text svc_id) {
    pairs_[kPair_gid] = gid;
    pairs_[kPair_svc_id] = svc_id;
    return pairs_;
  }

  Text operator[](Pair pair) const { return pairs_[pair]; }
  bool is_linked() const { return is_linked_channel(pairs_[kPair_chnl_typ_cd]); }
  // ' ' for a telegram that ends before it.
  char result() const {
    const std::string_view result = pairs_[kPair_proc_rslt_dv_cd].clipped(1);
    return result.empty() ? ' ' : result[0];
  }
  bool is_error() const { return result() != '0' && result() != ' '; }

 private:
  // What stands in two places of the fixed layout, or is no text there.
  void put_together(const Telegram& telegram) {
    put_padded(grco_br_, 2, telegram.fixed_field(kFixedGrcoCdAt, 2));
    put_padded(grco_br_ + 2, 4, telegram.fixed_field(kFixedBrNoAt, 4));
    pairs_[kPair_trsc_grco_br] = Text::of(grco_br_);

    const Text length = telegram.at(0, sizeof(std::int32_t));
    if (length.len != sizeof(std::int32_t)) return;
    std::int32_t number = 0;
    std::memcpy(&number, length.ptr, sizeof number);
    std_tmsg_len_.padded(std::clamp(number, -9'999'999, 99'999'999), 8);
    pairs_[kPair_std_tmsg_len] = std_tmsg_len_.text();
  }

  std::array<Text, kServicePairs> pairs_;
  char grco_br_[6];
  Message<8> std_tmsg_len_;
};

// The GID by which a service goes: its own telegram's when it comes over a linked channel.
Text gid_by_channel(const Arguments& args, const Telegram& telegram, const TelegramTexts& texts) {
  return texts.is_linked() ? telegram.gid() : up_to_its_end(args.gid, kGid.width);
}

Text given_gid(const Arguments& args, const Telegram& telegram) {
  return args.gid.given() ? args.gid : telegram.gid();
}

// ---- What a telegram is worth telling ----

void send_info(Call& call, int tid, Text gid, Text svc_id, Text message) {
  Text pairs[kHeadPairs + kInfoBody.size()];
  pairs[kPair_gid] = gid;
  pairs[kPair_svc_id] = svc_id;
  pairs[kHeadPairs] = message;
  call.step(kKind<'I'>, tid, [&](MTR_CXT_VAR& var) { return trace_info(var, pairs); });
}

// The host goes by one GID, the telegram by another: each is told of the other.
void announce_telegram_gid(Call& call, const Arguments& args, const Telegram& telegram,
                           bool is_linked) {
  const Text svc_id = service_of(args.svc_id);
  const Text host_gid = up_to_its_end(args.gid, kGid.width);
  Message<kInfoBody.back().width> created;
  created << (is_linked ? std::string_view("C/C") : std::string_view("New"))
          << " Transaction Created [ GID '" << printable(telegram.gid(), kComparedGid)
          << "', Service " << shown_svc_id(svc_id) << " ]";
  send_info(call, args.tid, host_gid, svc_id, created.text());
  Message<kInfoBody.back().width> exists;
  exists << "Linked " << (is_linked ? std::string_view("C/C ") : std::string_view())
         << "Main Service Transaction Exist [ GID '" << printable(host_gid, kComparedGid) << "' ]";
  const Text telegram_gid = telegram.gid();
  send_info(call, args.tid, telegram_gid.given() ? telegram_gid : Text{"", 0}, svc_id,
            exists.text());
}

void announce_changed_gid(Call& call, const Arguments& args, const Telegram& telegram,
                          const TelegramTexts& texts) {
  const Text host_gid = up_to_its_end(args.gid, kGid.width);
  const bool counts = telegram.is_standard() ? args.gid.given() : host_gid.len > 0;
  if (counts && !is_same_gid(host_gid, telegram.gid()))
    announce_telegram_gid(call, args, telegram, texts.is_linked());
}

// Goes through the error part piece by piece, as far as it is there.
class ErrorPartWalk {
 public:
  explicit ErrorPartWalk(const Telegram& telegram) : telegram_(telegram) {}

  // The next bytes; null from where the telegram ends on.
  const char* take(std::size_t length) {
    const Text bytes = telegram_.at(at_, length);
    is_cut_ = is_cut_ || static_cast<std::size_t>(bytes.len) != length;
    if (is_cut_) return nullptr;
    at_ += length;
    return bytes.ptr;
  }
  bool is_cut() const { return is_cut_; }

  // Two decimal digits; what is no number reads as zero.
  int take_count() {
    const char* const digits = take(2);
    if (digits == nullptr) return 0;
    int count = 0;
    for (int i = digits[0] == ' ' ? 1 : 0; i < 2 && digits[i] >= '0' && digits[i] <= '9'; ++i)
      count = count * 10 + (digits[i] - '0');
    return count;
  }

 private:
  const Telegram& telegram_;
  std::size_t at_ = static_cast<std::size_t>(sttl::k_ERR_ORGN_ITEM_REPT_TCNT.offset);
  bool is_cut_ = false;
};

constexpr std::size_t length_of(tran_sttl_field field) {
  return static_cast<std::size_t>(field.length);
}
constexpr std::size_t kMsgCd = length_of(sttl::k_MSG_CD);
constexpr std::size_t kRspsMsg = length_of(sttl::k_RSPS_MSG_CTT);
constexpr std::size_t kAdtnMsg = length_of(sttl::k_ADTN_MSG);

// "[CODE] TEXT" of an entry of the error part.
template <std::size_t kText>
auto entry_text(const char* entry) {
  Message<kMsgCd + kText + 3> text;
  return text << '[' << std::string_view(entry, kMsgCd) << "] "
              << std::string_view(entry + kMsgCd, kText);
}

void send_errinfo(Call& call, const Arguments& args, const TelegramTexts& texts, Text message) {
  // GID and service id are those of the open service.
  Text pairs[kHeadPairs + kErrInfoBody.size()];
  pairs[kHeadPairs] = {error_code_of(texts.result()), -1};
  pairs[kHeadPairs + 1] = texts[kPair_recv_svc_cd];
  pairs[kHeadPairs + 2] = {texts.is_linked() ? "C" : "O", 1};
  pairs[kHeadPairs + 3] = message;
  call.step(kKind<'E'>, args.tid, [&](MTR_CXT_VAR& var) { return trace_errinfo(var, pairs); });
}

void report_error_part(Call& call, const Arguments& args, const Telegram& telegram,
                       const TelegramTexts& texts) {
  ErrorPartWalk walk(telegram);
  for (int items = walk.take_count(); items > 0; --items)
    walk.take(length_of(sttl::k_ERR_ORGN_ITEM_NM));

  const int messages = walk.take_count();
  for (int i = 0; i < messages; ++i) {
    const char* const entry = walk.take(kMsgCd + kRspsMsg);
    if (entry != nullptr && i == 0)
      send_errinfo(call, args, texts, entry_text<kRspsMsg>(entry).text());
  }
  for (int i = walk.take_count(); i > 0; --i) {
    const char* const entry = walk.take(kMsgCd + kAdtnMsg);
    if (entry != nullptr) send_info(call, args.tid, {}, {}, entry_text<kAdtnMsg>(entry).text());
  }
  if (walk.is_cut()) {
    const std::string_view gid = printable(telegram.gid(), kGid.width);
    VARN_LOG_LIMITED(
        "<!> TRAN_ENDX error part runs past the end of the telegram (%d byte), GID |%.*s|",
        static_cast<int>(telegram.size()), VARN_SV(gid));
  }
}

bool has_error_part(const Telegram& telegram) {
  constexpr std::size_t kLongestWithout = 1084;
  return telegram.is_standard() && telegram.size() > kLongestWithout &&
         telegram.field(sttl::k_STD_TMSG_DAT_KIND_CD).clipped(2) == "EM";
}

// ---- The two calls ----

// 0, or 124.
int log_telegram(const Arguments& args, ApiType api_type) {
  const bool is_logged = args.sttl.given() && args.is_standard && !is_client_handler(args.svc_id) &&
                         !begins_with(args.svc_id, "SPFMIPPR");
  return is_logged ? save_tong_log4c(args.tid, args.sttl.ptr, args.sttl.len, api_type) : 0;
}

// The texts of a service without a telegram.
std::array<Text, kServicePairs> own_texts(const Arguments& args) {
  std::array<Text, kServicePairs> pairs;
  pairs[kPair_hdr_cd] = args.hdr_cd;
  pairs[kPair_hdr_flag] = args.hdr_flag;
  pairs[kPair_gid] = args.gid;
  pairs[kPair_svc_id] = args.svc_id;
  return pairs;
}

int start_plain(Call& call, int tid, Pairs pairs) {
  return call.step(
      kPlainForm.start, tid,
      [&](MTR_CXT_VAR& var) { return start_service(var, kPlainForm, tid, pairs); }, "TRAN_START");
}
int start_client_handler(Call& call, int tid, Pairs pairs) {
  return call.step(
      kClhForm.start, tid, [&](MTR_CXT_VAR& var) { return start_flat(var, kClhForm, pairs); },
      "TRAN_CLH_START");
}
int end_plain(Call& call, int tid, Pairs pairs) {
  return call.step(kPlainForm.end, tid,
                   [&](MTR_CXT_VAR& var) { return end_service(var, kPlainForm, tid, pairs); });
}
int end_client_handler(Call& call, int tid, Pairs pairs) {
  return call.step(kClhForm.end, tid,
                   [&](MTR_CXT_VAR& var) { return end_flat(var, kClhForm, pairs); });
}

int start_by_telegram(const Arguments& args) {
  if (load_acquire(gvar.init_mark) == kNeverStarted) {
    const int rc = start_agent();
    log_printf("<!> forced TRAN_INIT...API called, ret : %d", rc);
  }
  Call call;
  if (call.code() != TRAN_RC_OK) return call.code();
  if (const int rc = log_telegram(args, kStartApi); rc != 0) return rc;
  if (!args.sttl.given()) return start_plain(call, args.tid, own_texts(args));

  const Telegram telegram(args);
  TelegramTexts texts(args, telegram);
  announce_changed_gid(call, args, telegram, texts);
  if (is_client_handler(args.svc_id))
    return start_client_handler(call, args.tid, texts.of(given_gid(args, telegram), args.svc_id));
  return start_plain(call, args.tid,
                     texts.of(gid_by_channel(args, telegram, texts), service_of(args.svc_id)));
}

int end_by_telegram(const Arguments& args) {
  Call call;
  if (call.code() != TRAN_RC_OK) return call.code();
  if (const int rc = log_telegram(args, kEndApi); rc != 0) return rc;
  const bool is_flat = is_client_handler(args.svc_id) ||
                       (is_gateway(args.svc_id) && !(args.sttl.given() && args.is_standard));
  if (!args.sttl.given()) {
    const auto pairs = own_texts(args);
    return is_flat ? end_client_handler(call, args.tid, pairs) : end_plain(call, args.tid, pairs);
  }

  const Telegram telegram(args);
  TelegramTexts texts(args, telegram);
  if (is_flat)
    return end_client_handler(call, args.tid, texts.of(given_gid(args, telegram), args.svc_id));

  const Pairs pairs = texts.of(gid_by_channel(args, telegram, texts), service_of(args.svc_id));
  if (texts.is_error()) {
    call.step(kKind<'9'>, args.tid, [&](MTR_CXT_VAR& var) { return report_error(var, pairs); });
    if (has_error_part(telegram)) report_error_part(call, args, telegram, texts);
  }
  return end_plain(call, args.tid, pairs);
}

}  // namespace
}  // namespace varn

using namespace varn;

extern "C" {

#define VARN_TELEGRAM_ARGUMENTS                                                                \
  {                                                                                            \
    tid, {hdr_cd, hdr_cd_len}, {hdr_flag, hdr_flag_len}, {gid, gid_len}, {svc_id, svc_id_len}, \
        {sttl, sttl_len}, std_layout != 0, ext_on != 0                                         \
  }

int TRAN_STARTX(int tid, const char* hdr_cd, int hdr_cd_len, const char* hdr_flag, int hdr_flag_len,
                const char* gid, int gid_len, const char* svc_id, int svc_id_len, const char* sttl,
                int sttl_len, int std_layout, int ext_on) {
  return start_by_telegram(VARN_TELEGRAM_ARGUMENTS);
}

int TRAN_ENDX(int tid, const char* hdr_cd, int hdr_cd_len, const char* hdr_flag, int hdr_flag_len,
              const char* gid, int gid_len, const char* svc_id, int svc_id_len, const char* sttl,
              int sttl_len, int std_layout, int ext_on) {
  return end_by_telegram(VARN_TELEGRAM_ARGUMENTS);
}

}  // extern "C"

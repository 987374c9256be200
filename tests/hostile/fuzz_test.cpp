// Every exported call with arguments that make no sense: it returns one of its codes, keeps to
// their memory, and what arrives is a record.
#include <climits>
#include <tuple>

#include "hostile/guarded_segments.h"
#include "hostile/outcomes.h"
#include "hostile/seed.h"
#include "hostile/whole.h"
#include "layout/sttl.h"
#include "process/calls.h"

namespace varn::test {
namespace {

constexpr std::int64_t kExecutions = 100'000 / kOneInAlone;
constexpr std::int64_t kLongExecutions = 5'000'000;

// ---- Arguments ----

// Memory for one argument, with none before and behind it.
class Pages {
 public:
  static constexpr std::size_t kSize = 16'384;

  Pages() {
    const auto guard = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
    char* const all = static_cast<char*>(mmap(nullptr, kSize + 2 * guard, PROT_READ | PROT_WRITE,
                                              MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
    mprotect(all, guard, PROT_NONE);
    mprotect(all + guard + kSize, guard, PROT_NONE);
    base_ = all + guard;
  }
  char* at_edge(std::size_t size, bool front) const { return front ? base_ : base_ + kSize - size; }

 private:
  char* base_;
};

constexpr std::string_view kWords[] = {kGidA,          kService,
                                       "GID-B",        "CLH00001",
                                       "GW",           "SPFMIPPR1",
                                       "SPFMIPPR0001", "ICT",
                                       "ICC",          "db_select",
                                       "db_update",    "db_x",
                                       "check",        "%n%s%x%n",
                                       "20240230",     "-5,1",
                                       "128,2",        "SEVBCIXQ",
                                       "METHOD",       "9000",
                                       "\xb0",         "\xc7\xd1\xb1\xdb\xc7"};
constexpr int kOddNumbers[] = {0,  1,    -1,   2,       16,      127,       128,       1403,
                               17, 9999, -900, INT_MAX, INT_MIN, INT16_MAX, INT16_MIN, 1'000'000};

class Arguments {
 public:
  explicit Arguments(std::uint64_t seed) : random_(seed) {}

  Random& random() { return random_; }

  void begin(std::span<const TextArgument> texts, bool has_tid) {
    texts_ = texts;
    next_is_tid_ = has_tid;
    used_ = 0;
  }

  char* memory(std::size_t size) { return pages_[used_++].at_edge(size, random_.one_in(4)); }

  long number() {
    if (std::exchange(next_is_tid_, false)) return tid();
    if (std::exchange(next_is_length_, false)) return length_;
    return last_number_ =
               random_.one_in(4) ? static_cast<int>(random_.bits()) : random_.of(kOddNumbers);
  }

  // Of milliseconds it is one word.
  const std::int64_t* time() {
    if (random_.one_in(3)) return nullptr;
    const std::size_t size = last_number_ == TRAN_SQL_KIND_MS ? 8 : 16;
    auto* const words = reinterpret_cast<std::int64_t*>(memory(size));
    for (std::size_t i = 0; i < size / 8; ++i)
      words[i] = random_.one_in(2) ? static_cast<std::int64_t>(random_.bits())
                                   : 1'790'000'000 + random_.below(1000);
    return words;
  }

  void* address() { return reinterpret_cast<void*>(0x1000UL + random_.below(32)); }

  const char* text(bool has_len) {
    const int width = texts_.empty() ? -1 : texts_.front().width;
    if (width >= 0) texts_ = texts_.subspan(1);
    next_is_length_ = has_len;
    length_ = random_.of(kOddNumbers);
    if (random_.one_in(8)) return nullptr;

    const std::string_view word = random_.of(kWords);
    std::size_t size = random_.one_in(3) ? word.size() : some_size(width);
    // So much is read at most, whatever the length says, and where there is no zero byte.
    const bool cut = width >= 0 && random_.one_in(4);
    if (cut) size = static_cast<std::size_t>(width);
    const bool zero_ended = !cut && (!has_len || random_.one_in(2));
    char* const bytes = memory(size + zero_ended);
    fill(bytes, size, word);
    if (width < 0 && size > 600) make_telegram(bytes, size);
    if (zero_ended) bytes[size] = '\0';
    if (cut)
      length_ = random_.of({width, width + 1, INT_MAX, -1, INT_MIN});
    else
      length_ = zero_ended ? -1 - random_.below(2) * 7 : static_cast<int>(size);
    return bytes;
  }

 private:
  int tid() {
    if (random_.one_in(1000)) return static_cast<int>(random_.bits());
    return random_.below(4) - 1;
  }

  std::size_t some_size(int width) {
    const auto least = static_cast<std::size_t>(std::max(width, 0));
    switch (random_.below(6)) {
      case 0:
        return least;
      case 1:
        return least + 1;
      case 2:
        return static_cast<std::size_t>(random_.below(600));
      case 3:
        return static_cast<std::size_t>(random_.below(width < 0 ? 9'000 : 1'100));
      default:
        return static_cast<std::size_t>(random_.below(least + 2));
    }
  }

  void fill(char* bytes, std::size_t size, std::string_view word) {
    const int kind = random_.below(8);
    for (std::size_t i = 0; i < size; ++i) {
      const std::uint64_t bits = kind < 4 && kind != 0 ? random_.bits() : 0;
      bytes[i] = static_cast<char>(kind == 1         ? bits
                                   : kind == 2       ? 0xA1 + bits % 94
                                   : kind == 3       ? '0' + bits % 10
                                   : kind == 4       ? word[i % word.size()]
                                   : i < word.size() ? word[i]
                                                     : ' ');
    }
  }

  // With an error part whose counts promise anything.
  void make_telegram(char* bytes, std::size_t size) {
    std::memcpy(bytes + sttl::k_STD_TMSG_DAT_KIND_CD.offset, "EM", 2);
    const auto count_at = static_cast<std::size_t>(sttl::k_ERR_ORGN_ITEM_REPT_TCNT.offset);
    const int items = random_.below(random_.one_in(8) ? 100 : 4);
    const auto digits = std::to_string(items + 100);
    for (const std::size_t at : {count_at, count_at + 2 + std::size_t(items) * 20})
      if (at + 2 <= size) std::memcpy(bytes + at, digits.data() + 1, 2);
    bytes[sttl::k_PROC_RSLT_DV_CD.offset] = random_.of({'0', '1', '8', '9', '\xb0'});
  }

  Random random_;
  Pages pages_[80];
  std::size_t used_ = 0;
  std::span<const TextArgument> texts_;
  bool next_is_tid_ = false;
  bool next_is_length_ = false;
  int length_ = 0;
  int last_number_ = 0;
};

// ---- Calls ----

struct Nothing;

template <typename T, typename Next>
T random_argument(Arguments& args) {
  if constexpr (std::is_same_v<T, const char*>)
    return args.text(std::is_same_v<Next, int>);
  else if constexpr (std::is_same_v<T, const std::int64_t*>)
    return args.time();
  else if constexpr (std::is_pointer_v<T>)
    return args.address();
  else
    return static_cast<T>(args.number());
}

template <typename... A, std::size_t... kAt, typename R>
int call_with(R (*call)(A...), Arguments& args, std::index_sequence<kAt...>) {
  using Types = std::tuple<A..., Nothing*>;
  std::tuple<A...> values{random_argument<A, std::tuple_element_t<kAt + 1, Types>>(args)...};
  if constexpr (std::is_void_v<R>) {
    std::apply(call, values);
    return 0;
  } else {
    return static_cast<int>(std::apply(call, values));
  }
}
template <typename... A, typename R>
int call_randomly(R (*call)(A...), Arguments& args) {
  return call_with(call, args, std::index_sequence_for<A...>());
}
template <auto kCall>
int call_randomly(Arguments& args) {
  return call_randomly(kCall, args);
}

template <>
int call_randomly<set_log_field>(Arguments& args) {
  const int width = args.random().below(19) - 2;
  const char* const src = args.text(true);
  const int len = static_cast<int>(args.number());
  char* const dst = args.memory(static_cast<std::size_t>(std::max(width, 0)) + 1);
  set_log_field(src, len, dst, width, args.random().below(2));
  return 0;
}
template <>
int call_randomly<is_err_rc>(Arguments& args) {
  auto* const ended = reinterpret_cast<tran_call_rc*>(args.memory(sizeof(tran_call_rc)));
  *ended = {static_cast<int>(args.number()), static_cast<int>(args.number())};
  return is_err_rc(args.random().one_in(5) ? nullptr : ended);
}

struct FuzzedCall {
  std::string_view name;
  int (*make)(Arguments&);
  std::size_t one_in = 1;  // how seldom, so that there is something to call it on
};

#define VARN_TEST_CALL_OF(name) \
  { #name, call_randomly < name> }
#define VARN_TEST_RARE_CALL_OF(name, one_in) \
  { #name, call_randomly < name>, one_in }
constexpr FuzzedCall kFuzzedCalls[] = {
    VARN_TEST_RARE_CALL_OF(TRAN_INIT, 8),
    VARN_TEST_RARE_CALL_OF(TRAN_DONE, 64),
    VARN_TEST_RARE_CALL_OF(TRAN_SET_SVCTIMEOUT, 32),
    VARN_TEST_CALL_OF(TRAN_START),
    VARN_TEST_CALL_OF(TRAN_END),
    VARN_TEST_CALL_OF(TRAN_ERROR),
    VARN_TEST_CALL_OF(TRAN_STARTX),
    VARN_TEST_CALL_OF(TRAN_ENDX),
    VARN_TEST_CALL_OF(TRAN_PT_START),
    VARN_TEST_CALL_OF(TRAN_PT_END),
    VARN_TEST_RARE_CALL_OF(TRAN_CLH_START, 4),
    VARN_TEST_RARE_CALL_OF(TRAN_CLH_END, 4),
    VARN_TEST_CALL_OF(TRAN_CLH_ERROR),
    VARN_TEST_RARE_CALL_OF(TRAN_WEB_START, 4),
    VARN_TEST_RARE_CALL_OF(TRAN_WEB_END, 4),
    VARN_TEST_RARE_CALL_OF(TRAN_FEP_START, 4),
    VARN_TEST_RARE_CALL_OF(TRAN_FEP_END, 4),
    VARN_TEST_CALL_OF(TRAN_INFO),
    VARN_TEST_CALL_OF(TRAN_INFO_EX),
    VARN_TEST_CALL_OF(TRAN_EVENT),
    VARN_TEST_CALL_OF(TRAN_ERRINFO),
    VARN_TEST_CALL_OF(TRAN_CALLINFO_S),
    VARN_TEST_CALL_OF(TRAN_CALLINFO_F),
    VARN_TEST_CALL_OF(TRAN_SQL_ID),
    VARN_TEST_CALL_OF(TRAN_SQL_STMT),
    VARN_TEST_CALL_OF(TRAN_SET_TIME),
    VARN_TEST_CALL_OF(TRAN_CHECK_SQL_TIME),
    VARN_TEST_CALL_OF(TRAN_GET_HASH_CODE),
    VARN_TEST_CALL_OF(TRAN_SET_DBIO_STS),
    VARN_TEST_CALL_OF(TRAN_SET_SQLCA_INFO),
    VARN_TEST_CALL_OF(TRAN_SET_DBCONN_INFO),
    VARN_TEST_CALL_OF(TRAN_SET_FETCH_INFO),
    VARN_TEST_CALL_OF(TRAN_ADD_PROFILE),
    VARN_TEST_CALL_OF(TRAN_DEL_PROFILE),
    VARN_TEST_CALL_OF(__cyg_profile_func_enter),
    VARN_TEST_CALL_OF(__cyg_profile_func_exit),
    VARN_TEST_CALL_OF(check_gvar),
    VARN_TEST_CALL_OF(get_log_flag_set),
    VARN_TEST_CALL_OF(set_fst_err_rc_set),
    VARN_TEST_CALL_OF(is_err_rc),
    VARN_TEST_CALL_OF(set_log_field),
    VARN_TEST_CALL_OF(read_config),
    VARN_TEST_CALL_OF(print_logo),
};

// Of the texts that notices take, these two have fewer than the list says.
constexpr auto kInfoTexts = [] {
  std::array<TextArgument, 8> texts;
  std::copy_n(kNoticeTexts, 7, texts.begin());
  texts.back() = kNoticeTexts[10];
  return texts;
}();
constexpr auto kInfoExTexts = [] {
  std::array<TextArgument, 9> texts;
  std::copy_n(kNoticeTexts, 8, texts.begin());
  texts.back() = kNoticeTexts[10];
  return texts;
}();

// What is read of each at most; those that are not listed end at their zero byte or length.
std::span<const TextArgument> texts_of(std::string_view name) {
  if (name == "TRAN_INFO") return kInfoTexts;
  if (name == "TRAN_INFO_EX") return kInfoExTexts;
  for (const ExportedCall& call : kExportedCalls)
    if (call.name == name) return call.texts;
  ADD_FAILURE() << name << " is no exported call";
  return {};
}

// ---- Runs ----

struct Progress {
  std::int64_t execution;
  std::string_view name;  // in the program's own constants
};

class Fuzzer {
 public:
  Fuzzer(FakeCollector& collector, std::uint64_t seed) : collector_(collector), args_(seed) {}

  void run(Progress& progress, std::int64_t executions) {
    for (std::int64_t n = 0; n < executions && !testing::Test::HasFailure();) {
      const FuzzedCall& call = args_.random().of(kFuzzedCalls);
      if (!args_.random().one_in(call.one_in)) continue;
      if (++n % 1000 == 0) tune();
      progress = {n, call.name};
      SCOPED_TRACE(testing::Message() << call.name << ", execution " << n);
      make(call);
    }
  }

 private:
  // What a collector may set while processes run.
  void tune() {
    TRAN_LOGF_QUE_INFO& info = collector_.que_info();
    Random& random = args_.random();
    info.log_flag_set = random.one_in(4) ? static_cast<std::uint8_t>(random.bits()) : 0xFF;
    info.svc_filtering = static_cast<std::uint8_t>(random.one_in(3) ? random.below(3) : 0);
    info.tong_log_flag = random.of({'0', '1'});
    info.call_trc_depth = static_cast<std::uint32_t>(random.below(60));
    info.call_trc_limit = info.sql_trc_limit = static_cast<std::uint64_t>(random.below(2)) * 100;
  }

  void make(const FuzzedCall& call) {
    const Outcome& outcome = outcome_of(call.name);
    args_.begin(texts_of(call.name), call.name.starts_with("TRAN_"));
    errno = 4242;
    const int result = call.make(args_);
    EXPECT_EQ(errno, 4242);
    EXPECT_TRUE(is_documented(outcome, result)) << result;
    int arrived = 0;
    for (const Record& record : collector_.read_all()) {
      ++arrived;
      EXPECT_TRUE(is_well_formed(record));
    }
    EXPECT_LE(arrived, outcome.most_records);
    const bool sends_one = (outcome.codes & kQueueNumber) != 0 && outcome.most_records == 1;
    EXPECT_TRUE(!sends_one || arrived == is_sent(result)) << result;
    EXPECT_TRUE(segment_tails_are_whole());
    if (result == TRAN_RC_SVCTIMEOUT || result == TRAN_RC_NOT_STARTED) {
      TRAN_DONE();
      EXPECT_EQ(TRAN_INIT(), 0);
      collector_.read_all();
    }
  }

  FakeCollector& collector_;
  Arguments args_;
};

TEST(Fuzz, CallsWithRandomArgumentsReturnACodeAndSendWholeRecords) {
  const std::uint64_t seed = first_seed();
  FakeCollector collector;
  collector.add_service(kService);
  Shared<Progress> progress;
  EXPECT_TRUE(collector.run(
      [&] {
        ASSERT_EQ(TRAN_INIT(), 0);
        collector.read_all();
        Fuzzer(collector, seed).run(*progress, is_long_run() ? kLongExecutions : kExecutions);
      },
      is_long_run() ? 3600s : 300s))
      << progress->name << " was execution " << progress->execution << "; VARN_SEED=" << seed
      << " replays it";
}

}  // namespace
}  // namespace varn::test

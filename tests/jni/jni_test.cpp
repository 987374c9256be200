// The native methods of the Java adapter, called as a virtual machine calls them: what reaches the
// calls they stand for, and what they leave behind in the machine.
#include "jni/tran_jni.h"

#include <malloc.h>
#include <sys/prctl.h>

#include <atomic>
#include <latch>
#include <optional>
#include <thread>

#include "jni/java.h"

namespace varn::test {
namespace {

using namespace std::string_literals;
namespace fs = std::filesystem;

constexpr jlong kTid = (jlong{7} << 32) | kThread;  // its low half counts

// Of the thread.
thread_local JNIEnv* env = nullptr;
thread_local jlong tid = kTid;
#define CALL(name, ...) NATIVE(name)(env, nullptr, tid __VA_OPT__(, ) __VA_ARGS__)

constexpr char kVersion[] = "libvarn v13.5(2018.05.18) for Vexholm Quorlen UI Project";
constexpr S kNull = nullptr;

// A string, and what is to become of it.
struct Form {
  S java = nullptr;
  Arg identifier = {};
  Arg message = identifier;
};

// clang-format off
constexpr std::size_t kSttlParam = 531;
constexpr struct {
  Arg ServiceArgs::*text;
  std::size_t at;
  int size;
} kSttlFields[] = {
    {&ServiceArgs::std_tmsg_len,       32,  8}, {&ServiceArgs::ipv6_adr,         40, 39},
    {&ServiceArgs::fst_trms_sys_cd,    79,  3}, {&ServiceArgs::trms_sys_cd,      82,  3},
    {&ServiceArgs::rqst_rsps_dv_cd,    85,  1}, {&ServiceArgs::trsc_sync_dv_cd,  86,  1},
    {&ServiceArgs::recv_svc_cd,        87, 12}, {&ServiceArgs::rslt_recv_svc_cd, 99, 12},
    {&ServiceArgs::eai_intf_id,       111, 16}, {&ServiceArgs::proc_rslt_dv_cd, 127,  1},
    {&ServiceArgs::dsbl_sys_cd,       128,  3}, {&ServiceArgs::std_tmsg_err_cd, 131,  9},
    {&ServiceArgs::chnl_typ_cd,       140,  3}, {&ServiceArgs::emp_no,          143,  7},
    {&ServiceArgs::trsc_grco_br,      150,  6}, {&ServiceArgs::scrn_id,         156,  9},
    {&ServiceArgs::otsd_inst_cd,      165,  4}, {&ServiceArgs::otsd_biz_cd,     169,  3},
    {&ServiceArgs::fst_trms_mdcl_ctt, 172, 39}, {&ServiceArgs::spare1,          212,  1},
    {&ServiceArgs::spare2,            213,  1},
};
// clang-format on

// Each byte tells its place.
std::string patterned(std::size_t size) {
  std::string bytes;
  for (std::size_t i = 0; i < size; ++i) bytes += static_cast<char>('A' + i * 7 % 53);
  return bytes;
}

std::string sttl_param(char result, const char* channel, std::size_t size = kSttlParam) {
  return patterned(size).replace(127, 1, 1, result).replace(140, 3, channel);
}

class Jni : public testing::Test {
 protected:
  // In a traced process with a virtual machine, its clock standing still.
  void in_java(const std::function<void()>& body) {
    collector.environment["TZ"] = "UTC0";
    const auto with_java = [&] {
      tzset();
      set_clock(kMorning);
      env = create_java();
      make_objects();
      body();
      destroy_java(env);
    };
    EXPECT_TRUE(collector.run(with_java, 100s));
  }
  void trace(const std::function<void()>& body) {
    in_java([&] {
      ASSERT_EQ(NATIVE(Init)(env, nullptr, nullptr), 0);
      collector.read_all();
      body();
    });
  }
  void make_objects() {
    some = static_cast<S>(env->NewGlobalRef(text(u"dbSelect")));
    some_bytes = static_cast<B>(env->NewGlobalRef(bytes(sttl_param('1', "ICT"))));
  }
  void log_telegrams() {
    fs::create_directory(tong_dir);
    collector.set_key(kTongLogHome, tong_dir);
    collector.que_info().tong_log_flag = '1';
  }

  S text(std::u16string_view units) {
    return env->NewString(reinterpret_cast<const jchar*>(units.data()),
                          static_cast<jsize>(units.size()));
  }
  S text(const std::string& ascii) { return env->NewStringUTF(ascii.c_str()); }
  B bytes(const std::string& of) {
    const auto size = static_cast<jsize>(of.size());
    const B array = env->NewByteArray(size);
    env->SetByteArrayRegion(array, 0, size, reinterpret_cast<const jbyte*>(of.data()));
    return array;
  }

  std::vector<Record> sent(const std::function<void()>& body) {
    set_clock(kMorning);
    body();
    return collector.read_all();
  }
  // What the natives send, byte for byte what the calls send.
  std::vector<Record> same(const std::function<void()>& natives,
                           const std::function<void()>& calls) {
    auto records = sent(natives);
    const auto expected = sent(calls);
    EXPECT_EQ(types_of(records), types_of(expected));
    for (std::size_t i = 0; i < std::min(records.size(), expected.size()); ++i) {
      EXPECT_EQ(records[i].length, expected[i].length);
      EXPECT_EQ(std::string(records[i].view, 780), std::string(expected[i].view, 780));
    }
    return records;
  }

  template <std::size_t... kPair>
  void plain(decltype(NATIVE(TranStart))* native, const S (&of)[29],
             std::index_sequence<kPair...>) {
    native(env, nullptr, tid, of[kPair]...);
  }
  // Start, error and end.
  void plain_service(const S (&of)[29]) {
    for (auto* const native : {NATIVE(TranStart), NATIVE(TranError), NATIVE(TranEnd)})
      plain(native, of, std::make_index_sequence<29>());
  }
  // Caller code, GID, service, code, second and third field, message.
  static NoticeArgs args_of(const Form (&of)[7]) {
    NoticeArgs args = {.hdr_cd = of[0].identifier, .gid = of[1].identifier};
    args.svc_id = of[2].identifier;
    args.code = of[3].identifier;
    args.recv_svc_cd = of[4].identifier;
    args.chnl_class = of[5].identifier;
    args.message = of[6].message;
    return args;
  }
  void notices(const Form (&of)[7]) {
    env->PushLocalFrame(1);
    const S x = text(u"NOT READ");
    const auto call = [&](auto native, auto... more) {
      native(env, nullptr, tid, of[0].java, x, of[1].java, of[2].java, x, x, x, more...);
    };
    call(NATIVE(TranInfo), of[6].java);
    call(NATIVE(TranInfoEx), of[3].java, of[6].java);
    for (auto* const native : {NATIVE(TranEvent), NATIVE(TranErrorInfo)})
      call(native, of[3].java, of[4].java, of[5].java, of[6].java);
    env->PopLocalFrame(nullptr);
  }
  void every_native() {
    S texts[29];
    std::fill(std::begin(texts), std::end(texts), some);
    plain_service(texts);
    CALL(TranStartM, some, some, some_bytes);
    notices({{some}, {some}, {some}, {some}, {some}, {some}, {some}});
    CALL(TranCallInfoS, some, some, 1, 0);
    CALL(TranSqlId, some);
    CALL(TranSqlStmt, 0, 1, 2000, 3000, some);
    CALL(TranCallInfoF, some, some, 1);
    CALL(TranEndM, some, some, some_bytes);
    CALL(TranStartX, some, some, some_bytes, some_bytes);
    CALL(TranEndX, some, some, some_bytes, some_bytes);
  }
  static constexpr char kTypesOfEvery[] = "1921IXVEQCI219E2";  // I: of the call, at the end

  void expect_nothing_left() {
    EXPECT_FALSE(env->ExceptionCheck());
    EXPECT_EQ(watched.got[kFindClass] + watched.got[kGetBytes], watched.deleted_refs);
    EXPECT_EQ(watched.got[kGetStringChars], watched.released_strings);
    EXPECT_EQ(watched.got[kGetArrayElements], watched.released_arrays);
  }

  FakeCollector collector{{.queues = 1}};
  S some = nullptr;  // for every string, an identifier of a database call; usable in any thread
  B some_bytes = nullptr;
  fs::path tong_dir = collector.home() / "tong";
};

// ---- Start and stop ----

TEST_F(Jni, AStartIsAnnouncedUnderTheNameOfTheContainerOrOfTheProcess) {
  struct {
    std::string process;
    std::optional<std::u16string> given;
    std::string cont_nm;
    bool is_container;
  } const cases[] = {
      {"java", {}, "", false},
      {"javaw", {}, "NEXT", true},  // what the refused start before it gave
      {"bank", u"WAS1", "WAS1", false},
      {"java", std::u16string(40, u'W'), std::string(30, 'W'), true},
      {"jav", {}, "NEXT", false},
      {"java", u"가나다라마바사아자차카타", "가나다라마바사아자차", true},
      {"java2", u"", "", false},
  };
  in_java([&] {
    for (const auto& c : cases) {
      SCOPED_TRACE(&c - cases);
      const auto& [process, given, cont_nm, is_container] = c;
      prctl(PR_SET_NAME, process.c_str());
      const std::string message =
          euc_kr(is_container ? "거래추적 대상 WAS컨테이너(" : "거래추적 대상 프로세스(") +
          (is_container ? cont_nm : process) + euc_kr(")가 기동되었습니다.");
      const S name = given ? text(*given) : nullptr;
      const auto records = same([&] { ASSERT_EQ(NATIVE(Init)(env, nullptr, name), 0); },
                                [&] { event({.code = "1508", .message = message.c_str()}, 0); });
      ASSERT_EQ(types_of(records), "V");
      EXPECT_EQ(field_of(records[0], kProcNm),
                padded(cont_nm.empty() ? process : cont_nm.substr(0, 15), 15));
      const std::string told = euc_kr(">> 프로세스 기동 이벤트 생성 ret : 0, 내용 : ");
      EXPECT_TRUE(collector.logged(told + message + " "));
      EXPECT_TRUE(collector.logged("JNI Process ("s.append(process + " / ").append(cont_nm)));
      EXPECT_EQ(NATIVE(Init)(env, nullptr, text(u"NEXT")), 104);
      EXPECT_TRUE(collector.read_all().empty());
      NATIVE(Done)(env, nullptr);
    }
  });
  EXPECT_EQ(collector.count_logged(euc_kr("<!> TRAN_INIT실패..Lib버전 [") + kVersion + "]"),
            std::ssize(cases));
}

TEST_F(Jni, MethodsOfAnAgentThatIsNotStartedAskNothingOfTheMachine) {
  in_java([&] {
    const auto expect_nothing = [&] {
      watch_java(env);
      every_native();
      CALL(TranSetTime);
      for (const int calls : watched.calls) EXPECT_EQ(calls, 0);
      EXPECT_TRUE(collector.read_all().empty());
      EXPECT_STREQ(env->GetStringUTFChars(NATIVE(TranLibV)(env, nullptr), nullptr), kVersion);
    };
    expect_nothing();
    unsetenv("TRAN_HOME");
    EXPECT_EQ(NATIVE(Init)(env, nullptr, nullptr), 106);
    expect_nothing();
    setenv("TRAN_HOME", "/", 1);
    EXPECT_EQ(NATIVE(Init)(env, nullptr, nullptr), 0);
    every_native();
    EXPECT_EQ(types_of(collector.read_all()), "V"s + kTypesOfEvery);
    NATIVE(Done)(env, nullptr);
    expect_nothing();
  });
  EXPECT_FALSE(collector.logged("API arg error"));
}

// ---- Arguments ----

TEST_F(Jni, TextsOfEveryFormReachTheCallsAndEachItsPlace) {
  trace([&] {
    const std::string korean = euc_kr("가나다라마 AB"), many(600, 'm');
    const Form forms[] = {
        {nullptr, {}, {nullptr, -1}},
        {text(u""), {"", 0}},
        {text(u"A1"), {"A1", 2}},
        {text(u"가나다라마 AB"), {"가나다라마 AB", 8}, korean.c_str()},  // units, of more bytes
        {text({u"a\0b", 3}), {"a\300\200b", 3}, "a"},
        {text(u"x\U0001D11Ey"), {"x\xED\xA0\xB4\xED\xB4\x9Ey", 4}, "x?y"},
        {text(many), {many.c_str(), 600}},
    };
    const auto compare = [&](const Form(&of)[7]) {
      const NoticeArgs args = args_of(of);
      NoticeArgs ex = args;
      ex.message = of[6].identifier;
      const auto calls = [&] {
        for (const int rc : {info(args), info_ex(ex), event(args), errinfo(args)}) EXPECT_EQ(rc, 0);
      };
      const auto records = same([&] { notices(of); }, calls);
      EXPECT_EQ(types_of(records), "IXVE");
      return records[2];
    };
    start({.gid = "GID", .svc_id = "SVC"});
    const PTRC_HASH_ENT& entry = *collector.entry_of(getpid(), kThread);
    collector.read_all();
    for (const Form& of : forms) {
      SCOPED_TRACE(&of - forms);
      compare({of, of, of, of, of, of, of});
      CALL(TranSqlId, of.java);
      const std::string kept = entry.sql_id;
      TRAN_SQL_ID(kThread, of.message.text, -1);
      EXPECT_EQ(kept, entry.sql_id);
    }
    char* const chars = jbyteArray2cstr(env, javaGetBytes(env, forms[4].java));
    EXPECT_EQ(std::string(chars, 4), "a\0\0\0"s) << "zeros behind the first";
    std::free(chars);
    const std::string word = euc_kr("메시지");
    const Record distinct = compare({{text(u"HH"), {"HH", 2}},
                                     {text(u"GID-1"), {"GID-1", 5}},
                                     {text(u"SVC-1"), {"SVC-1", 5}},
                                     {text(u"CODE"), {"CODE", 4}},
                                     {text(u"FIELD2"), {"FIELD2", 6}},
                                     {text(u"F3"), {"F3", 2}},
                                     {text(u"메시지"), {"메시지", 3}, word.c_str()}});
    EXPECT_EQ(body_field(distinct, "message"), word);
  });
}

TEST_F(Jni, AThreadIsNamedByItsLowHalfOrIsTheCallingOne) {
  trace([&] {
    const std::pair<jlong, int> cases[] = {
        {kTid, kThread}, {-1, -1}, {0xFFFFFFFF, -1}, {0x80000000, -1}, {-(jlong{1} << 32), 0}};
    for (const auto& [java_tid, thread] : cases) {
      tid = java_tid;
      const auto native = [&] {
        CALL(TranInfoEx, kNull, kNull, kNull, kNull, kNull, kNull, kNull, some, kNull);
      };
      EXPECT_EQ(types_of(same(native, [&, n = thread] { info_ex({.code = "dbSelect"}, n); })), "X");
    }
    tid = kTid;
    const auto records = sent([&] {
      CALL(TranSetTime);
      advance_clock(5'000'000);
      start({.svc_id = "SVC"});
    });
    ASSERT_EQ(types_of(records), "1");
    EXPECT_EQ(text_of(records[0], kTime), "141320000000") << "that of the thread's next start";
  });
}

TEST_F(Jni, EveryPairOfAPlainTransactionStandsAtItsPlace) {
  trace([&] {
    for (const int more : {-100, -1, 0, 3}) {  // than the field is wide; the least is no text
      std::string texts[29];
      S java[29];
      ServiceArgs args;
      int n = 0;
#define VARN_TEST_FILL(name, width)                                      \
  texts[n].resize(static_cast<std::size_t>(std::max(0, (width) + more)), \
                  static_cast<char>('A' + n));                           \
  java[n] = text(texts[n]);                                              \
  args.name = {texts[n].c_str(), static_cast<int>(texts[n].size())};     \
  ++n;
      TRAN_FIELD_LIST(VARN_TEST_FILL)
      args.hdr_flag = args.pid_str = args.date_str = args.time_str = {};
      const auto calls = [&] {
        for (const int rc : {start(args), error(args), end(args)}) EXPECT_EQ(rc, 0);
      };
      EXPECT_EQ(types_of(same([&] { plain_service(java); }, calls)), "192");
    }
  });
}

// ---- Packed parameters ----

TEST_F(Jni, ParametersOfAnyLengthAreReadAsFarAsTheyGo) {
  trace([&] {
    for (std::size_t n = 0; n <= 600; ++n) {
      SCOPED_TRACE(n);
      env->PushLocalFrame(10);
      std::string param = patterned(n);
      const B array = bytes(param);
      const S svc_id = text(u"SVC");
      const S gid = n % 3 == 0 ? nullptr : text(n % 3 == 1 ? u"" : u"GID OF 20 CHARACTERS");
      param.resize(kSttlParam);
      const Arg given = n % 3 == 2 ? Arg("GID OF 20 CHARACTERS") : Arg();
      ServiceArgs args = {.gid = n % 3 == 2 ? given : Arg(param.data(), 32), .svc_id = "SVC"};
      for (const auto& field : kSttlFields)
        args.*field.text = {param.data() + field.at, field.size};
      const auto telegram_natives = [&] {
        CALL(TranStartX, gid, svc_id, nullptr, array);
        CALL(TranEndX, gid, svc_id, nullptr, array);
      };
      const auto telegram_calls = [&] {
        start(args);
        error(args);
        if (n == kSttlParam)
          errinfo({.code = "9999",
                   .recv_svc_cd = args.recv_svc_cd,
                   .chnl_class = "O",
                   .message = param.data() + 219});
        end(args);
      };
      ASSERT_EQ(types_of(same(telegram_natives, telegram_calls)), n == kSttlParam ? "19E2" : "192");

      PartialArgs partial = {.gid = given, .svc_id = "SVC"};
      partial.pt_param_1 = {param.data(), 30};
      partial.pt_param_2 = {param.data() + 30, 20};
      partial.pt_param_3 = {param.data() + 50, 20};
      partial.pt_param_4 = {param.data() + 70, 30};
      partial.pt_param_5 = {param.data() + 100, 3};
      const auto partial_natives = [&] {
        CALL(TranStartM, gid, svc_id, array);
        CALL(TranEndM, gid, svc_id, array);
      };
      const auto partial_calls = [&] {
        for (const int rc : {pt_start(partial), pt_end(partial)}) EXPECT_EQ(rc, 0);
      };
      ASSERT_EQ(types_of(same(partial_natives, partial_calls)), "12");
      env->PopLocalFrame(nullptr);
    }
  });
}

TEST_F(Jni, AFailedTelegramIsReportedByItsResultAndChannel) {
  struct {
    char result;
    const char* channel;
    std::size_t size;
    std::string types, code_and_class;
  } const cases[] = {
      {'0', "ICT", 531, "12", ""},         {' ', "ICC", 531, "12", ""},
      {'1', "ICT", 531, "19E2", "1105C"},  {'8', "ICC", 531, "19E2", "1106C"},
      {'9', "WEB", 531, "19E2", "1107O"},  {'5', "ICX", 531, "19E2", "9999O"},
      {'\0', "ict", 531, "19E2", "9999O"}, {'5', "ICT", 530, "192", ""},
      {'1', "ICT", 600, "192", ""},        {'0', "ICT", 530, "12", ""},
  };
  trace([&] {
    for (const auto& c : cases) {
      SCOPED_TRACE(&c - cases);
      const B array = bytes(sttl_param(c.result, c.channel, c.size));
      CALL(TranStartX, kNull, kNull, nullptr, array);
      CALL(TranEndX, kNull, kNull, nullptr, array);
      const auto records = collector.read_all();
      ASSERT_EQ(types_of(records), c.types);
      if (c.types != "19E2") continue;
      EXPECT_EQ(body_field(records[2], "code") + body_field(records[2], "chnl_class"),
                c.code_and_class);
    }
    some = nullptr;
    some_bytes = nullptr;
    every_native();
  });
  const std::string told = "<!> TRAN_ERROR STTL_PARAM length error (arrlen : ";
  EXPECT_EQ(collector.count_logged(told), 2);
  for (const char* const length : {"530", "600"})
    EXPECT_TRUE(collector.logged(told + length + ", STTL_PARAM : 531) GID : " + patterned(32)));
  for (const char* const name :
       {"TranStartX] STTL", "TranEndX] STTL", "TranStartM] PT_PARAM", "TranEndM] PT_PARAM"})
    EXPECT_EQ(collector.count_logged("<!> API arg error, ["s + name + " ByteArray is null"), 1);
}

TEST_F(Jni, WholeTelegramsOfAnyLengthAreLogged) {
  log_telegrams();
  trace([&] {
    const B param = bytes(sttl_param('0', "WEB"));
    char host[256];
    gethostname(host, sizeof host);
    std::string expected;
    for (const std::size_t size : {0, 5, 9, 20, 39, 511, 600}) {
      std::string telegram = patterned(size), digits = std::to_string(size);
      if (size > 20) telegram[20] = '\0';
      const std::string head = padded(size > 9 ? telegram.substr(9, 30) : "", 30) +
                               "1790000000000000" + padded(std::string(host).substr(0, 15), 15);
      const std::string rest = digits.insert(0, 6 - digits.size(), '0') + telegram + "\n";
      for (const char* const direction : {"S", "F"}) expected.append(head + direction).append(rest);
      CALL(TranStartX, kNull, kNull, bytes(telegram), param);
      CALL(TranEndX, kNull, kNull, bytes(telegram), param);
    }
    CALL(TranStartX, kNull, kNull, nullptr, param);
    CALL(TranStartX, kNull, kNull, param, nullptr);
    CALL(TranEndX, kNull, kNull, param, nullptr);
    collector.que_info().tong_log_flag = '0';
    CALL(TranStartX, kNull, kNull, param, param);
    NATIVE(Done)(env, nullptr);
    EXPECT_TRUE(read_file(*fs::directory_iterator(tong_dir)) == expected);
  });
  EXPECT_TRUE(collector.logged("(I) tong log: 14 written, 0 dropped"));
}

// ---- Calls and SQL ----

TEST_F(Jni, CallsAndStatementsAreRecordedAsWhatTheyStandForRecordsThem) {
  trace([&] {
    const S src = text(u"Bank.java"), java_sql = text(u"SELECT 1 FROM 계좌");
    const std::string sql = euc_kr("SELECT 1 FROM 계좌");
    struct {
      int dbio, status, kind;
      const char* name;
    } const cases[] = {
        {0, 0, 9999, "dbSelect"}, {256, -1, 1, "dbSelect"},         {-7, 5, 0, "dbSelect"},
        {0, 0, -1, "transfer"},   {1, 0, 65536 + 9999, "dbSelect"}, {1, 0, 9999, nullptr},
    };
    for (const auto& c : cases) {
      SCOPED_TRACE(&c - cases);
      const jlong begun = 1'700'000'000'123, ended = 1'700'000'001'999;
      const bool is_one_word = c.kind == TRAN_SQL_KIND_MS;
      const std::int64_t from[] = {is_one_word ? begun : begun / 1000, begun % 1000 * 1000};
      const std::int64_t to[] = {is_one_word ? ended : ended / 1000, ended % 1000 * 1000};
      const Arg label = c.dbio != 0 ? Arg("DBIO", 4) : Arg();
      const S func_nm = c.name != nullptr ? text(std::string(c.name)) : nullptr;
      const auto natives = [&] {
        start({.svc_id = "SVC"});
        CALL(TranCallInfoS, src, func_nm, c.dbio, c.status);
        for (const auto& [mode, text] : {std::pair{0, java_sql}, {0, kNull}, {1, kNull}})
          CALL(TranSqlStmt, mode, c.kind, begun, ended, text);
        CALL(TranCallInfoF, src, src, c.dbio);
        end({.svc_id = "SVC"});
      };
      const auto calls = [&] {
        start({.svc_id = "SVC"});
        call_start(
            {.call_src = {"Bank.java", 9}, .status = c.status, .func_nm = c.name, .label = label});
        for (const auto& [mode, text] : {std::pair{0, sql.c_str()}, {0, nullptr}, {1, nullptr}})
          TRAN_SQL_STMT(kThread, mode, nullptr, 0, nullptr, 0, c.kind, from, to, text);
        call_end({.status = 88, .label = label});
        end({.svc_id = "SVC"});
      };
      const auto records = same(natives, calls);
      const bool is_dbio = c.name != nullptr && *c.name == 'd';
      ASSERT_EQ(types_of(records), is_dbio ? "1QQCI2" : "1CI2");
      EXPECT_EQ(body_field(records[1], "text").find(",1.876000,") != std::string::npos, is_dbio);
      const std::string call = body_field(records[records.size() - 3], "text");
      const std::string shown = (c.dbio != 0 ? "[DBIO][" : "[METHOD][") +
                                std::string(c.name ? c.name : "") +
                                " at  (Bank.java::00000){1}]#RC " + (c.status == -1 ? "99" : "88");
      EXPECT_TRUE(call.ends_with(shown)) << call;
    }
  });
}

// ---- Failures ----

TEST_F(Jni, WhatTheMachineCannotGiveIsNullAndNothingIsLeft) {
  log_telegrams();
  trace([&] {
    const auto event_lacks = [&](int lacking, S message) {
      const Form given = {some, {"dbSelect", 8}};
      Form of[] = {given, given, given, given, given, given, {message, {}, "dbSelect"}};
      if (lacking >= 0) of[lacking] = {};
      const auto native = [&] {
        CALL(TranEvent, some, some, some, some, some, some, some, some, some, some, message);
        expect_nothing_left();
      };
      same(native, [&] { event(args_of(of)); });
    };
    // The lookups: tried again by the next call, and not again once they succeeded.
    for (const Step step : {kFindClass, kNewGlobalRef, kGetMethodId}) {
      watch_java(env, step, 1);
      event_lacks(6, some);
      EXPECT_EQ(watched.calls[step], 1);
    }
    for (const int lookups : {1, 0}) {
      watch_java(env);
      event_lacks(-1, some);
      EXPECT_EQ(watched.calls[kGetMethodId], lookups);
      EXPECT_EQ(watched.calls[kFindClass] + watched.calls[kNewGlobalRef], 0);
    }
    for (int i = 0; i < 6; ++i) {
      watch_java(env, kGetStringChars, i + 1);
      event_lacks(i, some);
    }
    const S refused = text(std::string(4567, 'x'));
    watch_java(env);
    refuse_allocation(4568);
    event_lacks(6, refused);
    EXPECT_EQ(watched.got[kGetArrayElements], 1);

    watch_java(env);
    every_native();
    const Watched all = watched;
    EXPECT_EQ(types_of(collector.read_all()), kTypesOfEvery);
    for (const Step step : {kGetBytes, kGetStringChars, kGetArrayElements, kGetArrayRegion}) {
      EXPECT_GE(all.calls[step], 4);
      for (int nth = 1; nth <= all.calls[step]; ++nth) {
        watch_java(env, step, nth);
        every_native();
        expect_nothing_left();
        EXPECT_EQ(watched.calls[step], all.calls[step]);
        collector.read_all();
      }
    }
  });
}

TEST_F(Jni, AMillionCallsFromOneNativeFrameLeaveNothing) {
  collector.que_info().log_flag_set = 0;
  trace([&] {
    watch_java(env);
    env->PushLocalFrame(16);  // more references are told of
    const std::size_t allocated = mallinfo2().uordblks;
    for (int i = 0; i < 1'000'000; ++i) CALL(TranSqlId, some);
    EXPECT_LT(mallinfo2().uordblks, allocated + 10'000'000);
    expect_nothing_left();
    EXPECT_EQ(watched.got[kGetBytes], 1'000'000);
  });
}

TEST_F(Jni, ThreadsThatMeetAtTheFirstMessageAllSendTheirs) {
  trace([&] {
    JavaVM* vm = nullptr;
    env->GetJavaVM(&vm);
    std::latch all_are_here(4);
    std::vector<std::thread> threads;
    for (jlong n = 1; n <= 4; ++n)
      threads.emplace_back([&, n] {
        tid = n;
        vm->AttachCurrentThread(reinterpret_cast<void**>(&env), nullptr);
        all_are_here.arrive_and_wait();
        for (int i = 0; i < 10; ++i) every_native();
        vm->DetachCurrentThread();
      });
    for (std::thread& thread : threads) thread.join();
    const auto events = collector.read_all('V');
    EXPECT_FALSE(events.empty());
    for (const Record& event : events) EXPECT_EQ(body_field(event, "message"), "dbSelect");
  });
}

TEST_F(Jni, AMachineKilledInATransactionLeavesTheSharedTableUsable) {
  for (const int rounds_until_killed : {1, 10, 100}) {
    const Shared<std::atomic<int>> rounds;
    const auto body = [&] {
      env = create_java();
      make_objects();
      NATIVE(Init)(env, nullptr, nullptr);
      CALL(TranStartM, some, some, some_bytes);
      for (;; ++*rounds) {
        every_native();
        collector.read_all();
      }
    };
    const auto child = collector.start(body);
    EXPECT_TRUE(wait_until([&] { return *rounds >= rounds_until_killed; }));
    child->kill(SIGKILL);
    EXPECT_FALSE(child->wait()) << "it was not killed";
    collector.read_all();
    trace([&] {
      every_native();
      EXPECT_EQ(types_of(collector.read_all()), kTypesOfEvery);
    });
  }
}

}  // namespace
}  // namespace varn::test

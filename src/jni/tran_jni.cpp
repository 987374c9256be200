// The native methods of com.vexholm.tran.api.TranApiAdapter. Each converts its arguments, makes one
// exported call or a few, and gives back what it converted; their results stay here.
#include "jni/tran_jni.h"

#include <cstdint>
#include <cstdio>
#include <string_view>

#include "core/call.h"
#include "core/gvar.h"
#include "core/service.h"
#include "core/tran_ex.h"
#include "jni/java_text.h"
#include "layout/api_type.h"
#include "layout/record.h"
#include "layout/sttl.h"
#include "tong/tong.h"
#include "util/log_printf.h"
#include "util/message.h"
#include "util/shared_word.h"

namespace varn {
namespace {

// The thread number is the identifier's low half, so that -1 is the calling thread.
int thread_number(jlong tid) { return static_cast<std::int32_t>(tid); }

#define VARN_NO_TEXT nullptr, 0
#define VARN_NO_HEAD_TIMES VARN_NO_TEXT, VARN_NO_TEXT, VARN_NO_TEXT
#define VARN_TEXT(text) (text).ptr, (text).len

// The texts of a transaction, and handing them to one of the calls that take them.
struct ServiceTexts {
  Text of[kServicePairs];
};
#define VARN_GIVEN_PAIR(name, width) , VARN_TEXT(given.of[kPair_##name])
using ServiceCall = decltype(&TRAN_START);
void make(ServiceCall call, jlong tid, const ServiceTexts& given) {
  call(thread_number(tid) TRAN_FIELD_LIST(VARN_GIVEN_PAIR));
}

// The texts that every notice begins with, of which Java gives three.
class JavaHead {
 public:
  JavaHead(JNIEnv* env, jstring hdr_cd, jstring gid, jstring svc_id)
      : hdr_cd_(env, hdr_cd), gid_(env, gid), svc_id_(env, svc_id) {}

  Text hdr_cd() const { return hdr_cd_.text(); }
  Text gid() const { return gid_.text(); }
  Text svc_id() const { return svc_id_.text(); }

 private:
  JavaText hdr_cd_;
  JavaText gid_;
  JavaText svc_id_;
};
#define VARN_JAVA_HEAD(head)                                                                     \
  VARN_TEXT((head).hdr_cd()), VARN_NO_TEXT, VARN_TEXT((head).gid()), VARN_TEXT((head).svc_id()), \
      VARN_NO_HEAD_TIMES

// Events and error information.
using FieldsCall = decltype(&TRAN_EVENT);

void call_with_fields(FieldsCall call, JNIEnv* env, jlong tid, jstring caller_cd, jstring gid,
                      jstring svc_id, jstring code, jstring field2, jstring field3,
                      jstring message) {
  if (!is_started()) return;
  const JavaHead head(env, caller_cd, gid, svc_id);
  const JavaText java_code(env, code);
  const JavaText java_field2(env, field2);
  const JavaText java_field3(env, field3);
  const JavaMessage text(env, message);
  call(thread_number(tid), VARN_JAVA_HEAD(head), VARN_TEXT(java_code.text()),
       VARN_TEXT(java_field2.text()), VARN_TEXT(java_field3.text()), text.bytes(), -1);
}

// ---- The plain form ----

// The strings of a transaction, most of which are null: only what is borrowed costs something, for
// these are the busiest of the calls.
class JavaTexts {
 public:
  explicit JavaTexts(JNIEnv* env) : env_(env) {}
  ~JavaTexts() {
    for (int i = 0; i < count_; ++i)
      env_->ReleaseStringUTFChars(borrowed_[i].string, borrowed_[i].chars);
  }
  JavaTexts(const JavaTexts&) = delete;
  JavaTexts& operator=(const JavaTexts&) = delete;

  // The texts at the places of hdr_flag and of process id, date and time are not read.
  Text borrow(Pair pair, jstring string) {
    if (string == nullptr || pair == kPair_hdr_flag ||
        (pair >= kPair_pid_str && pair <= kPair_time_str))
      return {};
    const char* const chars = env_->GetStringUTFChars(string, nullptr);
    if (chars == nullptr) {
      clear_exception(env_);
      return {};
    }
    borrowed_[count_++] = {string, chars};
    return {chars, env_->GetStringLength(string)};
  }

 private:
  struct Borrowed {
    jstring string;
    const char* chars;
  };
  JNIEnv* env_;
  int count_ = 0;
  Borrowed borrowed_[kServicePairs];  // the first count_ of them
};

// ---- The telegram form ----

// STTL_PARAM: a telegram's header fields, packed. What the table leaves out is not used.
constexpr std::size_t kSttlParam = 531;
constexpr std::size_t kSttlRecvSvcCdAt = 87;
constexpr std::size_t kSttlResultAt = 127;
constexpr std::size_t kSttlChnlTypCdAt = 140;
constexpr std::size_t kSttlMessageAt = 219;

struct ParamField {
  Pair pair;
  std::size_t at;
  std::int32_t length;
};
// clang-format off
constexpr ParamField kSttlFields[] = {
    {kPair_std_tmsg_len,       32,  8}, {kPair_ipv6_adr,          40, 39},
    {kPair_fst_trms_sys_cd,    79,  3}, {kPair_trms_sys_cd,       82,  3},
    {kPair_rqst_rsps_dv_cd,    85,  1}, {kPair_trsc_sync_dv_cd,   86,  1},
    {kPair_recv_svc_cd, kSttlRecvSvcCdAt, 12}, {kPair_rslt_recv_svc_cd, 99, 12},
    {kPair_eai_intf_id,       111, 16}, {kPair_proc_rslt_dv_cd,  kSttlResultAt, 1},
    {kPair_dsbl_sys_cd,       128,  3}, {kPair_std_tmsg_err_cd,  131,  9},
    {kPair_chnl_typ_cd, kSttlChnlTypCdAt, 3}, {kPair_emp_no,     143,  7},
    {kPair_trsc_grco_br,      150,  6}, {kPair_scrn_id,          156,  9},
    {kPair_otsd_inst_cd,      165,  4}, {kPair_otsd_biz_cd,      169,  3},
    {kPair_fst_trms_mdcl_ctt, 172, 39}, {kPair_spare1,           212,  1},
    {kPair_spare2,            213,  1},
};
// clang-format on

using SttlParam = JavaBytes<kSttlParam>;

ServiceTexts texts_of(const SttlParam& param, Text gid, Text svc_id) {
  ServiceTexts texts;
  texts.of[kPair_gid] = gid.len == 0 ? param.at(0, kGid.width) : gid;
  texts.of[kPair_svc_id] = svc_id;
  for (const ParamField& field : kSttlFields)
    texts.of[field.pair] = param.at(field.at, field.length);
  return texts;
}

void send_errinfo(jlong tid, const SttlParam& param, const ServiceTexts& given) {
  if (param.array_size() != static_cast<int>(kSttlParam)) {
    VARN_LOG_LIMITED(
        "<!> TRAN_ERROR STTL_PARAM length error (arrlen : %d, STTL_PARAM : %d) GID : %-*.*s",
        param.array_size(), static_cast<int>(kSttlParam), kGid.width, kGid.width,
        param.at(0, 0).ptr);
    return;
  }
  const bool is_linked = is_linked_channel(given.of[kPair_chnl_typ_cd]);
  TRAN_ERRINFO(thread_number(tid), VARN_NO_TEXT, VARN_NO_TEXT, VARN_TEXT(given.of[kPair_gid]),
               VARN_TEXT(given.of[kPair_svc_id]), VARN_NO_HEAD_TIMES,
               error_code_of(param[kSttlResultAt]), 4, VARN_TEXT(given.of[kPair_recv_svc_cd]),
               is_linked ? "C" : "O", 1, param.at(kSttlMessageAt, 0).ptr, -1);
}

// The same as save_tong_log4c, for a telegram of any length in an array.
void save_tong_log4j(JNIEnv* env, jlong tid, jbyteArray telegram, int kind) {
  const Announced announced(kInCall);
  if (announced.code() != 0 || telegram == nullptr || !is_tong_logged()) return;
  const auto size = static_cast<std::size_t>(env->GetArrayLength(telegram));
  if (is_telegram_too_long(tid, size)) return;
  jbyte* const bytes = env->GetByteArrayElements(telegram, nullptr);
  if (bytes == nullptr) {
    clear_exception(env);
    return;
  }
  queue_telegram(tid, "put_deffered", reinterpret_cast<const char*>(bytes), size, kind);
  env->ReleaseByteArrayElements(telegram, bytes, JNI_ABORT);
}

void start_by_param(JNIEnv* env, jlong tid, jstring gid, jstring svc_id, jbyteArray telegram,
                    jbyteArray sttl_param) {
  if (!is_started()) return;
  if (sttl_param == nullptr) {
    VARN_LOG_LIMITED("<!> API arg error, [TranStartX] STTL ByteArray is null");
    return;
  }
  save_tong_log4j(env, tid, telegram, kStartApi);
  const SttlParam param(env, sttl_param);
  const JavaText java_gid(env, gid);
  const JavaText java_svc_id(env, svc_id);
  make(TRAN_START, tid, texts_of(param, java_gid.text(), java_svc_id.text()));
}

void end_by_param(JNIEnv* env, jlong tid, jstring gid, jstring svc_id, jbyteArray telegram,
                  jbyteArray sttl_param) {
  if (!is_started()) return;
  if (sttl_param == nullptr) {
    VARN_LOG_LIMITED("<!> API arg error, [TranEndX] STTL ByteArray is null");
    return;
  }
  save_tong_log4j(env, tid, telegram, kEndApi);
  const SttlParam param(env, sttl_param);
  const JavaText java_gid(env, gid);
  const JavaText java_svc_id(env, svc_id);
  const ServiceTexts texts = texts_of(param, java_gid.text(), java_svc_id.text());
  if (param[kSttlResultAt] != '0' && param[kSttlResultAt] != ' ') {
    make(TRAN_ERROR, tid, texts);
    send_errinfo(tid, param, texts);
  }
  make(TRAN_END, tid, texts);
}

// ---- The partial form ----

constexpr std::size_t kPtParam = 103;

using PartialCall = decltype(&TRAN_PT_START);

void call_with_pt_param(PartialCall call, const char* name, JNIEnv* env, jlong tid, jstring gid,
                        jstring svc_id, jbyteArray pt_param) {
  if (!is_started()) return;
  if (pt_param == nullptr) {
    VARN_LOG_LIMITED("<!> API arg error, [%s] PT_PARAM ByteArray is null", name);
    return;
  }
  const JavaBytes<kPtParam> param(env, pt_param);
  const JavaText java_gid(env, gid);
  const JavaText java_svc_id(env, svc_id);
  call(thread_number(tid), VARN_NO_TEXT, VARN_NO_TEXT, VARN_TEXT(java_gid.text()),
       VARN_TEXT(java_svc_id.text()), VARN_NO_HEAD_TIMES, VARN_NO_TEXT, VARN_NO_TEXT, VARN_NO_TEXT,
       VARN_NO_TEXT, VARN_NO_TEXT, VARN_NO_TEXT, VARN_NO_TEXT, VARN_NO_TEXT,
       VARN_TEXT(param.at(0, 30)), VARN_TEXT(param.at(30, 20)), VARN_TEXT(param.at(50, 20)),
       VARN_TEXT(param.at(70, 30)), VARN_TEXT(param.at(100, 3)));
}

// ---- Calls and SQL ----

constexpr int kJavaCallRc = 88;  // Java does not tell how a call ended

#define VARN_NO_CALL_HEAD \
  VARN_NO_TEXT, VARN_NO_TEXT, VARN_NO_TEXT, VARN_NO_TEXT, VARN_NO_HEAD_TIMES, VARN_NO_TEXT
#define VARN_CALL_LABEL(dbio) (dbio) != 0 ? "DBIO" : nullptr, (dbio) != 0 ? 4 : 0

// Milliseconds since 1970 in the form that the statement's kind wants.
struct SqlTime {
  SqlTime(jlong ms, bool is_one_word) : words{ms, 0} {
    if (is_one_word) return;
    words[0] = ms / 1000;
    words[1] = ms % 1000 * 1000;
  }
  std::int64_t words[2];
};

// ---- Start ----

void announce_start() {
  const bool is_container =
      std::string_view(gvar.proc_nm).starts_with("java") && gvar.cont_nm[0] != '\0';
  char message[128];
  std::snprintf(message, sizeof message,
                is_container ? "거래추적 대상 WAS컨테이너(%s)가 기동되었습니다."
                             : "거래추적 대상 프로세스(%s)가 기동되었습니다.",
                is_container ? gvar.cont_nm : gvar.proc_nm);
  const int rc =
      TRAN_EVENT(0, VARN_NO_TEXT, VARN_NO_TEXT, VARN_NO_TEXT, VARN_NO_TEXT, VARN_NO_HEAD_TIMES,
                 "1508", -1, VARN_NO_TEXT, VARN_NO_TEXT, message, -1);
  log_printf(">> 프로세스 기동 이벤트 생성 ret : %d, 내용 : %s ", rc, message);
}

}  // namespace
}  // namespace varn

using namespace varn;

#define VARN_NATIVE(type, name) \
  JNIEXPORT type JNICALL Java_com_vexholm_tran_api_TranApiAdapter_##name

extern "C" {

// ---- Start and stop ----

VARN_NATIVE(jint, Init)(JNIEnv* env, jclass, jstring container_name) {
  {
    const JavaText name(env, container_name);
    // Its bytes, however many UTF-16 units they were.
    if (name.text().given()) store_text(init_cont_nm, Text(name.text().ptr, -1).clipped(30));
  }
  jni_init_flag = 1;
  const int rc = TRAN_INIT();
  if (rc == TRAN_RC_OK)
    announce_start();
  else
    log_printf("<!> TRAN_INIT실패..Lib버전 [%s]", kVersionText);
  return rc;
}

VARN_NATIVE(void, Done)(JNIEnv*, jclass) { TRAN_DONE(); }

VARN_NATIVE(jstring, TranLibV)(JNIEnv* env, jclass) { return env->NewStringUTF(kVersionText); }

VARN_NATIVE(void, TranSetTime)(JNIEnv*, jclass, jlong tid) { TRAN_SET_TIME(thread_number(tid)); }

// ---- Notices ----

VARN_NATIVE(void, TranInfo)
(JNIEnv* env, jclass, jlong tid, jstring caller_cd, jstring, jstring gid, jstring svc_id, jstring,
 jstring, jstring, jstring message) {
  if (!is_started()) return;
  const JavaHead head(env, caller_cd, gid, svc_id);
  const JavaMessage text(env, message);
  TRAN_INFO(thread_number(tid), VARN_JAVA_HEAD(head), text.bytes(), -1);
}

VARN_NATIVE(void, TranInfoEx)
(JNIEnv* env, jclass, jlong tid, jstring caller_cd, jstring, jstring gid, jstring svc_id, jstring,
 jstring, jstring, jstring code, jstring message) {
  if (!is_started()) return;
  const JavaHead head(env, caller_cd, gid, svc_id);
  const JavaText java_code(env, code);
  const JavaText text(env, message);
  TRAN_INFO_EX(thread_number(tid), VARN_JAVA_HEAD(head), VARN_TEXT(java_code.text()),
               VARN_TEXT(text.text()));
}

VARN_NATIVE(void, TranEvent)
(JNIEnv* env, jclass, jlong tid, jstring caller_cd, jstring, jstring gid, jstring svc_id, jstring,
 jstring, jstring, jstring code, jstring field2, jstring field3, jstring message) {
  call_with_fields(TRAN_EVENT, env, tid, caller_cd, gid, svc_id, code, field2, field3, message);
}

VARN_NATIVE(void, TranErrorInfo)
(JNIEnv* env, jclass, jlong tid, jstring caller_cd, jstring, jstring gid, jstring svc_id, jstring,
 jstring, jstring, jstring code, jstring field2, jstring field3, jstring message) {
  call_with_fields(TRAN_ERRINFO, env, tid, caller_cd, gid, svc_id, code, field2, field3, message);
}

// ---- Calls and SQL ----

VARN_NATIVE(void, TranCallInfoS)
(JNIEnv* env, jclass, jlong tid, jstring src, jstring func_nm, jint dbio, jint status) {
  if (!is_started()) return;
  const JavaText java_src(env, src);
  const JavaText java_func_nm(env, func_nm);
  TRAN_CALLINFO_S(thread_number(tid), VARN_NO_CALL_HEAD, VARN_TEXT(java_src.text()), 0, status,
                  VARN_TEXT(java_func_nm.text()), VARN_CALL_LABEL(dbio));
}

VARN_NATIVE(void, TranCallInfoF)(JNIEnv*, jclass, jlong tid, jstring, jstring, jint dbio) {
  if (!is_started()) return;
  TRAN_CALLINFO_F(thread_number(tid), VARN_NO_CALL_HEAD, VARN_NO_TEXT, 0, kJavaCallRc, VARN_NO_TEXT,
                  VARN_CALL_LABEL(dbio));
}

VARN_NATIVE(void, TranSqlId)(JNIEnv* env, jclass, jlong tid, jstring sql_id) {
  if (!is_started()) return;
  const JavaMessage text(env, sql_id);
  TRAN_SQL_ID(thread_number(tid), text.bytes(), -1);
}

VARN_NATIVE(void, TranSqlStmt)
(JNIEnv* env, jclass, jlong tid, jint mode, jint kind, jlong start, jlong end, jstring sql) {
  if (!is_started()) return;
  const JavaMessage text(env, sql);
  // With this kind a time is one word of milliseconds, otherwise two of seconds and microseconds.
  const bool is_one_word = kind == TRAN_SQL_KIND_MS;
  const SqlTime start_time(start, is_one_word);
  const SqlTime end_time(end, is_one_word);
  TRAN_SQL_STMT(thread_number(tid), mode, VARN_NO_TEXT, VARN_NO_TEXT, kind, start_time.words,
                end_time.words, text.bytes());
}

// ---- Transactions ----

#define VARN_JAVA_PARAMETER(name, width) , jstring name
#define VARN_JAVA_TEXT(name, width) const Text name##_text = texts.borrow(kPair_##name, name);
#define VARN_JAVA_PAIR(name, width) , VARN_TEXT(name##_text)
#define VARN_SERVICE_NATIVE(name, function)                                                       \
  VARN_NATIVE(void, name)(JNIEnv * env, jclass, jlong tid TRAN_FIELD_LIST(VARN_JAVA_PARAMETER)) { \
    if (!is_started()) return;                                                                    \
    JavaTexts texts(env);                                                                         \
    TRAN_FIELD_LIST(VARN_JAVA_TEXT)                                                               \
    function(thread_number(tid) TRAN_FIELD_LIST(VARN_JAVA_PAIR));                                 \
  }
VARN_SERVICE_NATIVE(TranStart, TRAN_START)
VARN_SERVICE_NATIVE(TranEnd, TRAN_END)
VARN_SERVICE_NATIVE(TranError, TRAN_ERROR)

VARN_NATIVE(void, TranStartX)
(JNIEnv* env, jclass, jlong tid, jstring gid, jstring svc_id, jbyteArray telegram,
 jbyteArray sttl_param) {
  start_by_param(env, tid, gid, svc_id, telegram, sttl_param);
}

VARN_NATIVE(void, TranEndX)
(JNIEnv* env, jclass, jlong tid, jstring gid, jstring svc_id, jbyteArray telegram,
 jbyteArray sttl_param) {
  end_by_param(env, tid, gid, svc_id, telegram, sttl_param);
}

VARN_NATIVE(void, TranStartM)
(JNIEnv* env, jclass, jlong tid, jstring gid, jstring svc_id, jbyteArray pt_param) {
  call_with_pt_param(TRAN_PT_START, "TranStartM", env, tid, gid, svc_id, pt_param);
}

VARN_NATIVE(void, TranEndM)
(JNIEnv* env, jclass, jlong tid, jstring gid, jstring svc_id, jbyteArray pt_param) {
  call_with_pt_param(TRAN_PT_END, "TranEndM", env, tid, gid, svc_id, pt_param);
}

}  // extern "C"

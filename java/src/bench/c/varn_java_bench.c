/* The native methods that the adapter's are measured against. */
#include <jni.h>
#include <stddef.h>
#include <time.h>
#include <varn/tran.h>

#define METHOD(type, name) JNIEXPORT type JNICALL Java_com_vexholm_tran_bench_TranBench_##name

METHOD(void, empty)(JNIEnv* env, jclass type) {
  (void)env;
  (void)type;
}

METHOD(void, emptyStart)(JNIEnv* env, jclass type) { /* reads none of its arguments */
  (void)env;
  (void)type;
}

/* Three strings, borrowed: what any native method that reads them has to do. */
struct texts {
  jstring strings[3];
  const char* chars[3];
  volatile jsize lengths[3];
};

static void borrow_texts(JNIEnv* env, struct texts* texts, jstring a, jstring b, jstring c) {
  int i;
  texts->strings[0] = a;
  texts->strings[1] = b;
  texts->strings[2] = c;
  for (i = 0; i < 3; ++i) {
    texts->chars[i] = (*env)->GetStringUTFChars(env, texts->strings[i], NULL);
    texts->lengths[i] = (*env)->GetStringLength(env, texts->strings[i]);
  }
}

static void release_texts(JNIEnv* env, const struct texts* texts) {
  int i;
  for (i = 0; i < 3; ++i) (*env)->ReleaseStringUTFChars(env, texts->strings[i], texts->chars[i]);
}

METHOD(void, borrow)
(JNIEnv* env, jclass type, jlong tid, jstring code, jstring gid, jstring svc_id) {
  struct texts texts;
  (void)type;
  (void)tid;
  borrow_texts(env, &texts, code, gid, svc_id);
  release_texts(env, &texts);
}

#define NONE NULL, 0
#define TEXT(text) (const char*)text, text##_len
#define BORROWED(i) texts.chars[i], texts.lengths[i]
#define NO_TELEGRAM                                                                               \
  NONE, NONE, NONE, NONE, NONE, NONE, NONE, NONE, NONE, NONE, NONE, NONE, NONE, NONE, NONE, NONE, \
      NONE, NONE, NONE, NONE, NONE, NONE

METHOD(void, bareStart)
(JNIEnv* env, jclass type, jlong tid, jstring code, jstring gid, jstring svc_id) {
  struct texts texts;
  (void)type;
  borrow_texts(env, &texts, code, gid, svc_id);
  TRAN_START((int)tid, BORROWED(0), NONE, BORROWED(1), BORROWED(2), NONE, NONE, NONE, NO_TELEGRAM);
  release_texts(env, &texts);
}

METHOD(void, bareEnd)
(JNIEnv* env, jclass type, jlong tid, jstring code, jstring gid, jstring svc_id) {
  struct texts texts;
  (void)type;
  borrow_texts(env, &texts, code, gid, svc_id);
  TRAN_END((int)tid, BORROWED(0), NONE, BORROWED(1), BORROWED(2), NONE, NONE, NONE, NO_TELEGRAM);
  release_texts(env, &texts);
}

static jlong now_ns(void) {
  struct timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return (jlong)now.tv_sec * 1000000000 + now.tv_nsec;
}

METHOD(jlong, nativePairs)
(JNIEnv* env, jclass type, jint pairs, jint tid, jbyteArray code_bytes, jbyteArray gid_bytes,
 jbyteArray svc_id_bytes) {
  const jsize code_len = (*env)->GetArrayLength(env, code_bytes);
  const jsize gid_len = (*env)->GetArrayLength(env, gid_bytes);
  const jsize svc_id_len = (*env)->GetArrayLength(env, svc_id_bytes);
  jbyte* const code = (*env)->GetByteArrayElements(env, code_bytes, NULL);
  jbyte* const gid = (*env)->GetByteArrayElements(env, gid_bytes, NULL);
  jbyte* const svc_id = (*env)->GetByteArrayElements(env, svc_id_bytes, NULL);
  const jlong start = now_ns();
  jlong elapsed;
  jint i;
  (void)type;
  for (i = 0; i < pairs; ++i) {
    TRAN_START(tid, TEXT(code), NONE, TEXT(gid), TEXT(svc_id), NONE, NONE, NONE, NO_TELEGRAM);
    TRAN_END(tid, TEXT(code), NONE, TEXT(gid), TEXT(svc_id), NONE, NONE, NONE, NO_TELEGRAM);
  }
  elapsed = now_ns() - start;
  (*env)->ReleaseByteArrayElements(env, svc_id_bytes, svc_id, JNI_ABORT);
  (*env)->ReleaseByteArrayElements(env, gid_bytes, gid, JNI_ABORT);
  (*env)->ReleaseByteArrayElements(env, code_bytes, code, JNI_ABORT);
  return elapsed;
}

// A virtual machine in the traced process, the native methods as it calls them, and a watch over
// what they ask of it.
#pragma once

#include <jni.h>

#include "records/calls.h"

#define NATIVE(name) Java_com_vexholm_tran_api_TranApiAdapter_##name
#define VARN_NATIVE(type, name, ...) \
  JNIEXPORT type JNICALL NATIVE(name)(JNIEnv*, jclass __VA_OPT__(, ) __VA_ARGS__)
#define VARN_JAVA_STRING(name, width) , jstring

namespace varn::test {

extern "C" {
using S = jstring;
using B = jbyteArray;
VARN_NATIVE(jint, Init, S);
VARN_NATIVE(void, Done);
VARN_NATIVE(S, TranLibV);
VARN_NATIVE(void, TranSetTime, jlong);
VARN_NATIVE(void, TranInfo, jlong, S, S, S, S, S, S, S, S);
VARN_NATIVE(void, TranInfoEx, jlong, S, S, S, S, S, S, S, S, S);
VARN_NATIVE(void, TranEvent, jlong, S, S, S, S, S, S, S, S, S, S, S);
VARN_NATIVE(void, TranErrorInfo, jlong, S, S, S, S, S, S, S, S, S, S, S);
VARN_NATIVE(void, TranCallInfoS, jlong, S, S, jint, jint);
VARN_NATIVE(void, TranCallInfoF, jlong, S, S, jint);
VARN_NATIVE(void, TranSqlId, jlong, S);
VARN_NATIVE(void, TranSqlStmt, jlong, jint, jint, jlong, jlong, S);
VARN_NATIVE(void, TranStart, jlong TRAN_FIELD_LIST(VARN_JAVA_STRING));
VARN_NATIVE(void, TranEnd, jlong TRAN_FIELD_LIST(VARN_JAVA_STRING));
VARN_NATIVE(void, TranError, jlong TRAN_FIELD_LIST(VARN_JAVA_STRING));
VARN_NATIVE(void, TranStartX, jlong, S, S, B, B);
VARN_NATIVE(void, TranEndX, jlong, S, S, B, B);
VARN_NATIVE(void, TranStartM, jlong, S, S, B);
VARN_NATIVE(void, TranEndM, jlong, S, S, B);
}

// The process's one virtual machine; an exit while its threads run may be told of.
JNIEnv* create_java();
void destroy_java(JNIEnv* env);

// Functions of the virtual machine that the native methods use and that may fail.
enum Step {
  kFindClass,
  kNewGlobalRef,
  kGetMethodId,
  kGetBytes,
  kGetStringChars,
  kGetArrayElements,
  kGetArrayRegion,
  kSteps
};

// What the native methods asked of the virtual machine since watch_java().
struct Watched {
  int calls[kSteps];
  int got[kSteps];  // calls that did not fail
  int deleted_refs, released_strings, released_arrays;
};
extern Watched watched;

// Watches from now on. Of the calls of `failing`, the `nth` fails with an OutOfMemoryError.
void watch_java(JNIEnv* env, Step failing = kSteps, int nth = 0);

// The next allocation of so many bytes fails.
void refuse_allocation(std::size_t bytes);

}  // namespace varn::test

#include "jni/java_text.h"

#include <atomic>
#include <cstring>

#include "jni/tran_jni.h"

namespace {

// Looked up once, by whichever threads come first; each finds the same.
std::atomic<jclass> class_String;
std::atomic<jmethodID> mid_getBytes;

jmethodID find_getBytes(JNIEnv* env) {
  if (class_String.load() == nullptr) {
    const jclass found = env->FindClass("java/lang/String");
    if (found == nullptr) return nullptr;
    class_String.store(static_cast<jclass>(env->NewGlobalRef(found)));
    env->DeleteLocalRef(found);
    if (class_String.load() == nullptr) return nullptr;
  }
  mid_getBytes.store(env->GetMethodID(class_String.load(), "getBytes", "()[B"));
  return mid_getBytes.load();
}

}  // namespace

jbyteArray javaGetBytes(JNIEnv* env, jstring str) {
  jmethodID get_bytes = mid_getBytes.load();
  if (get_bytes == nullptr) get_bytes = find_getBytes(env);
  if (varn::clear_exception(env) || get_bytes == nullptr) return nullptr;
  const jobject bytes = env->CallObjectMethod(str, get_bytes);
  return varn::clear_exception(env) ? nullptr : static_cast<jbyteArray>(bytes);
}

char* jbyteArray2cstr(JNIEnv* env, jbyteArray arr) {
  const auto n = static_cast<std::size_t>(env->GetArrayLength(arr));
  jbyte* const elements = env->GetByteArrayElements(arr, nullptr);
  if (elements == nullptr) {
    varn::clear_exception(env);
    return nullptr;
  }
  char* const text = static_cast<char*>(std::malloc(n + 1));
  if (text != nullptr) {
    std::strncpy(text, reinterpret_cast<const char*>(elements), n);
    text[n] = '\0';
  }
  env->ReleaseByteArrayElements(arr, elements, JNI_ABORT);
  return text;
}

namespace varn {

JavaMessage::JavaMessage(JNIEnv* env, jstring string) {
  if (string == nullptr) return;
  const jbyteArray bytes = javaGetBytes(env, string);
  if (bytes == nullptr) return;
  bytes_ = jbyteArray2cstr(env, bytes);
  env->DeleteLocalRef(bytes);
}

}  // namespace varn

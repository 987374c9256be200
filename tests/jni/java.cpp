#include "jni/java.h"

#include <dlfcn.h>

#include <cstdint>

namespace {
std::size_t refused_bytes = SIZE_MAX;
}  // namespace

// Takes the place of the C library's for everything in the process, from its first instruction on,
// where sanitizers are not ready yet.
extern "C" [[gnu::visibility("default"), gnu::no_sanitize("address", "thread", "undefined")]] void*
malloc(std::size_t bytes) {
  static void* (*real_malloc)(std::size_t) = nullptr;
  if (real_malloc == nullptr)
    real_malloc = reinterpret_cast<void* (*)(std::size_t)>(dlsym(RTLD_NEXT, "malloc"));
  std::size_t refused = bytes;
  const bool is_refused = __atomic_compare_exchange_n(&refused_bytes, &refused, SIZE_MAX, false,
                                                      __ATOMIC_RELAXED, __ATOMIC_RELAXED);
  return is_refused ? nullptr : real_malloc(bytes);
}

namespace varn::test {

Watched watched;

namespace {

const JNINativeInterface_* real;  // the virtual machine's, which checks
jclass out_of_memory;
Step failing_step = kSteps;
int calls_until_failure = 0;

bool fails(JNIEnv* env, Step step) {
  ++watched.calls[step];
  if (step == failing_step && --calls_until_failure == 0) {
    real->ThrowNew(env, out_of_memory, "injected");
    return true;
  }
  ++watched.got[step];
  return false;
}

JNINativeInterface_ watching_table() {
  JNINativeInterface_ table = *real;
#define VARN_WATCH(function, step)                                     \
  table.function = [](JNIEnv* env, auto... args) {                     \
    using Result = decltype(real->function(env, args...));             \
    return fails(env, step) ? Result() : real->function(env, args...); \
  }
  VARN_WATCH(FindClass, kFindClass);
  VARN_WATCH(NewGlobalRef, kNewGlobalRef);
  VARN_WATCH(GetMethodID, kGetMethodId);
  VARN_WATCH(CallObjectMethodV, kGetBytes);
  VARN_WATCH(GetStringUTFChars, kGetStringChars);
  VARN_WATCH(GetByteArrayElements, kGetArrayElements);
  VARN_WATCH(GetByteArrayRegion, kGetArrayRegion);
  table.DeleteLocalRef = [](JNIEnv* env, jobject ref) {
    ++watched.deleted_refs;
    real->DeleteLocalRef(env, ref);
  };
  table.ReleaseStringUTFChars = [](JNIEnv* env, jstring string, const char* got) {
    ++watched.released_strings;
    real->ReleaseStringUTFChars(env, string, got);
  };
  table.ReleaseByteArrayElements = [](JNIEnv* env, jbyteArray array, jbyte* got, jint mode) {
    if (mode == JNI_ABORT) ++watched.released_arrays;  // others copy back
    real->ReleaseByteArrayElements(env, array, got, mode);
  };
  return table;
}

}  // namespace

JNIEnv* create_java() {
  const char* const options[] = {"-Xcheck:jni", "-Xrs", "-Dfile.encoding=EUC-KR",
                                 "-XX:+UseSerialGC", "-Xmx64m"};
  JavaVMOption given[std::size(options)] = {};
  for (std::size_t i = 0; i < std::size(options); ++i)
    given[i].optionString = const_cast<char*>(options[i]);
  JavaVMInitArgs args = {JNI_VERSION_1_8, std::size(options), given, JNI_FALSE};
  JavaVM* vm = nullptr;
  JNIEnv* env = nullptr;
  if (JNI_CreateJavaVM(&vm, reinterpret_cast<void**>(&env), &args) != JNI_OK)
    throw std::runtime_error("no virtual machine");
  env->EnsureLocalCapacity(1000);  // for the tests' own
  real = env->functions;
  out_of_memory =
      static_cast<jclass>(env->NewGlobalRef(env->FindClass("java/lang/OutOfMemoryError")));
  return env;
}

void destroy_java(JNIEnv* env) {
  JavaVM* vm = nullptr;
  env->GetJavaVM(&vm);
  vm->DestroyJavaVM();
}

void watch_java(JNIEnv* env, Step failing, int nth) {
  static const JNINativeInterface_ table = watching_table();
  watched = {};
  failing_step = failing;
  calls_until_failure = nth;
  env->functions = &table;
}

void refuse_allocation(std::size_t bytes) {
  __atomic_store_n(&refused_bytes, bytes, __ATOMIC_RELAXED);
}

}  // namespace varn::test

// Java strings and arrays as the exported calls take texts: borrowed for the time of one call. What
// cannot be had, for want of memory say, is null; the Java exception that tells of it is cleared,
// for it is not the application's.
#pragma once

#include <jni.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>

#include "util/text.h"

namespace varn {

// Whether the last call into the virtual machine failed. Nothing else may be called while its
// exception is pending.
inline bool clear_exception(JNIEnv* env) {
  if (env->ExceptionCheck() == JNI_FALSE) return false;
  env->ExceptionClear();
  return true;
}

// A string's modified UTF-8, its length that of the string in UTF-16 units; null for null.
class JavaText {
 public:
  JavaText() = default;
  JavaText(JNIEnv* env, jstring string) { borrow(env, string); }
  ~JavaText() {
    if (text_.ptr != nullptr) env_->ReleaseStringUTFChars(string_, text_.ptr);
  }
  JavaText(const JavaText&) = delete;
  JavaText& operator=(const JavaText&) = delete;

  void borrow(JNIEnv* env, jstring string) {
    if (string == nullptr) return;
    env_ = env;
    string_ = string;
    text_.ptr = env->GetStringUTFChars(string, nullptr);
    if (text_.ptr == nullptr)
      clear_exception(env);
    else
      text_.len = env->GetStringLength(string);
  }
  Text text() const { return text_; }

 private:
  JNIEnv* env_ = nullptr;
  jstring string_ = nullptr;
  Text text_;
};

// A string's bytes in the virtual machine's default charset, zero-ended; null for null.
class JavaMessage {
 public:
  JavaMessage(JNIEnv* env, jstring string);
  ~JavaMessage() { std::free(bytes_); }
  JavaMessage(const JavaMessage&) = delete;
  JavaMessage& operator=(const JavaMessage&) = delete;

  const char* bytes() const { return bytes_; }

 private:
  char* bytes_ = nullptr;
};

// An array cut to a buffer, the rest of which is zero.
template <std::size_t kSize>
class JavaBytes {
 public:
  JavaBytes(JNIEnv* env, jbyteArray array) : array_size_(env->GetArrayLength(array)) {
    const jsize n = array_size_ < static_cast<jsize>(kSize) ? array_size_ : jsize{kSize};
    env->GetByteArrayRegion(array, 0, n, reinterpret_cast<jbyte*>(bytes_));
    clear_exception(env);
  }

  int array_size() const { return array_size_; }
  Text at(std::size_t offset, std::int32_t length) const { return {bytes_ + offset, length}; }
  char operator[](std::size_t offset) const { return bytes_[offset]; }

 private:
  int array_size_;
  char bytes_[kSize + 1] = {};
};

}  // namespace varn

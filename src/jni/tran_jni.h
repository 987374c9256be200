// What the Java binding exports beside its native methods: the two conversions of a message.
#pragma once

#include <jni.h>

#include "varn/tran.h"

extern "C" {

// The bytes of a string that is not null in the virtual machine's default charset, as a local
// reference; null when they cannot be had.
VARN_API jbyteArray javaGetBytes(JNIEnv* env, jstring str);

// The bytes of an array that is not null, up to its first zero byte, zero-ended, in memory that the
// caller frees with free(); null when there is none.
VARN_API char* jbyteArray2cstr(JNIEnv* env, jbyteArray arr);

}  // extern "C"

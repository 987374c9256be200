// Fixes the place of a field that other processes read.
#pragma once

#include <cstddef>

#define VARN_PIN(type, field, at) \
  static_assert(offsetof(type, field) == (at), #type "::" #field " has moved")

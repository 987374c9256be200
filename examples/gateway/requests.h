// What the client sends, and what it expects to get for it.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "telegram.h"

namespace gateway {

// A count in an error part that does not say how many there are.
struct Lie {
  tran_sttl_field count;
  std::string_view text;
};

struct BusinessData {
  std::string_view account;
  std::string_view counter_account = {};
  std::string_view amount = {};
  std::string_view counter_bank = {};
};

struct Expected {
  char result = '0';
  std::size_t messages = 0;
  std::size_t additional = 0;
  std::string_view holder = {};
};

struct RequestKind {
  const char* name;
  std::string_view service;
  std::string_view channel;
  std::optional<BusinessData> data;  // without it: an error of another system, to be passed on
  Expected expected;
  std::optional<Lie> lie = {};
};

const std::vector<RequestKind>& request_kinds();

Telegram request_of(const RequestKind& kind, const std::string& gid);

// What is wrong with an answer, or nothing.
std::string fault_in(const Telegram& answer, const RequestKind& kind, const Telegram& request);

// Bytes that are no telegram. They are answered with an error, and the connection is closed.
struct BrokenTelegram {
  const char* name;
  std::string bytes;
};

std::vector<BrokenTelegram> broken_telegrams();

// The length is right, but there is less than a header. Answered with an error.
Telegram short_telegram();

// What is wrong with the answer to one of those, or nothing.
std::string fault_in_refusal(const Telegram& answer, std::string_view code);

}  // namespace gateway

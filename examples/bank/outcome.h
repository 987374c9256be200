// How a service, or a step of one, ended.
#pragma once

#include <string>
#include <string_view>

namespace bank {

struct Outcome {
  char result = '0';           // '0' done, '1' refused, '9' failed
  std::string_view code = {};  // nine characters, as the telegram carries it; empty when done
  std::string message = {};    // Korean, UTF-8; empty when done

  bool done() const { return result == '0'; }
};

}  // namespace bank

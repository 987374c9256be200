// The SQL statements of a thread's innermost database call: kept in its shared entry while the call
// runs, sent in pieces when it ends.
#pragma once

#include <cstdint>

#include "layout/gvar.h"
#include "util/text.h"

namespace varn {

struct Statement {
  Text date_str;
  Text time_str;
  std::int16_t kind = 0;
  TimeVal start = {};
  TimeVal end = {};
  const char* text = nullptr;  // zero-ended
};

// Keeps a statement of `call`, or counts it when it is the same as the last: 0, or 100, 102, 112,
// 113, 116, 118, 121.
int add_statement(MTR_CXT_VAR& var, const SvcLevel& level, const CallEntry& call,
                  const Statement& statement);

// Sends the statements that took at least the service's limit: the result of the last send, 0 when
// there was none. They stay kept.
int flush_statements(MTR_CXT_VAR& var);

}  // namespace varn

// The texts of call and SQL records taken apart.
#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

namespace varn {

// What only a database call that made no calls tells. Texts lie in the record's.
struct DbOutcome {
  std::int64_t sqlcode = 0;
  std::int64_t line = 0;
  std::int64_t rows = 0;
  std::int64_t fetch_us = 0;
  std::string_view connection;  // USER/INSTANCE
};

// A business or database call. Of a text that was cut, what was cut is empty. Texts lie in the
// record's. Times are negative where the traced host's clock was set back.
struct CallText {
  int level = 0;        // open calls of the thread, this one included
  int trace_depth = 0;  // to which business calls are traced
  std::int64_t total_us = 0;
  std::int64_t own_us = 0;
  std::int64_t business_us = 0;  // in the calls that it made
  std::int64_t database_us = 0;
  std::int64_t start_us = 0;  // since 1970
  std::int64_t end_us = 0;
  std::string_view label;
  std::string_view function;
  std::string_view place;
  std::string_view source;
  std::optional<std::int64_t> line;
  std::optional<std::int64_t> number;  // in its service
  std::optional<std::int64_t> rc;
  std::optional<DbOutcome> db;
};

// Nothing when the text does not begin as a call's.
std::optional<CallText> parse_call(std::string_view text);

// A piece of an SQL statement; all but the numbers of the statement and `text` are of a first one.
struct SqlText {
  std::int64_t statement = 0;
  std::int64_t statements = 0;
  std::int64_t piece = 0;
  std::int64_t executions = 0;
  std::int64_t elapsed_us = 0;
  std::int64_t kind = 0;
  std::string_view function;
  std::string_view text;
};

std::optional<SqlText> parse_sql(std::string_view text);

}  // namespace varn

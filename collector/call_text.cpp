#include "collector/call_text.h"

#include <charconv>
#include <limits>
#include <system_error>

namespace varn {
namespace {

// What is left of a text, taken from its front. A take that does not find what it looks for makes
// all later ones fail, too.
struct Rest {
  std::string_view text;
  bool good = true;

  bool fail() { return good = false; }

  bool skip(std::string_view expected) {
    if (!good || !text.starts_with(expected)) return fail();
    text.remove_prefix(expected.size());
    return true;
  }

  std::string_view until(std::string_view end) {
    const std::size_t at = good ? text.find(end) : text.npos;
    if (at == text.npos) return fail(), std::string_view();
    const std::string_view taken = text.substr(0, at);
    text.remove_prefix(at + end.size());
    return taken;
  }

  template <typename T>
  void number(T& out) {
    const auto [at, fault] = std::from_chars(text.data(), text.data() + text.size(), out);
    if (!good || fault != std::errc()) return void(fail());
    text.remove_prefix(static_cast<std::size_t>(at - text.data()));
  }

  // Whole units and the rest, each with a sign of its own: "1.000250" with a unit of a million.
  void two_parts(std::int64_t unit, std::int64_t& out) {
    std::int64_t whole = 0;
    std::int64_t part = 0;
    number(whole);
    skip(".");
    number(part);
    const std::int64_t most = std::numeric_limits<std::int64_t>::max() / unit - 1;
    if (part <= -unit || part >= unit || whole < -most || whole > most) fail();
    if (good) out = whole * unit + part;
  }

  void seconds(std::int64_t& out) { two_parts(1'000'000, out); }
};

// Like until(), from the end of the text: what stands behind the last `begin` is taken off.
std::optional<std::string_view> take_last(std::string_view& text, std::string_view begin) {
  const std::size_t at = text.rfind(begin);
  if (at == text.npos) return std::nullopt;
  const std::string_view taken = text.substr(at + begin.size());
  text = text.substr(0, at);
  return taken;
}

std::optional<std::int64_t> whole_number(std::string_view text) {
  std::int64_t number = 0;
  const auto [at, fault] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (text.empty() || fault != std::errc() || at != text.data() + text.size()) return std::nullopt;
  return number;
}

// "SQLCODE CODE, #RC CODE (line LINE) fetch ROWS rows (MS.US ms) DB USER/INSTANCE"
void parse_db_outcome(std::string_view outcome, CallText& call) {
  Rest rest{outcome};
  DbOutcome db;
  std::int64_t rc = 0;
  rest.skip("SQLCODE ");
  rest.number(db.sqlcode);
  rest.skip(", #RC ");
  rest.number(rc);
  if (!rest.good) return;
  call.rc = rc;
  rest.skip(" (line ");
  rest.number(db.line);
  rest.skip(") fetch ");
  rest.number(db.rows);
  rest.skip(" rows");
  if (rest.text.starts_with(' ')) rest.skip(" ");
  rest.skip("(");
  rest.two_parts(1000, db.fetch_us);
  rest.skip(" ms) DB ");
  if (rest.good) db.connection = rest.text;
  call.db = db;
}

void parse_outcome(std::string_view outcome, CallText& call) {
  if (outcome.starts_with("SQLCODE ")) return parse_db_outcome(outcome, call);
  if (outcome.starts_with("RC ")) call.rc = whole_number(outcome.substr(3));
}

// "FUNCTION at PLACE (SOURCE::LINE){NUMBER}]#OUTCOME". The function's name may hold any character,
// so what follows it is looked for from the end.
void parse_function(std::string_view text, CallText& call) {
  const std::size_t end = text.rfind("}]#");
  if (end == text.npos) {  // the text was cut
    call.function = text.substr(0, text.rfind(" at "));
    return;
  }
  parse_outcome(text.substr(end + 3), call);
  text = text.substr(0, end);
  if (const auto number = take_last(text, "){")) call.number = whole_number(*number);
  if (const auto line = take_last(text, "::")) call.line = whole_number(*line);
  if (const auto source = take_last(text, " (")) call.source = *source;
  if (const auto place = take_last(text, " at ")) call.place = *place;
  call.function = text;
}

}  // namespace

std::optional<CallText> parse_call(std::string_view text) {
  CallText call;
  Rest rest{text};
  rest.number(call.level);
  rest.skip(",");
  rest.number(call.trace_depth);
  rest.skip(",");
  for (std::int64_t* const us : {&call.total_us, &call.own_us, &call.business_us, &call.database_us,
                                 &call.start_us, &call.end_us}) {
    rest.seconds(*us);
    rest.skip(",");
  }
  rest.skip("[");
  if (!rest.good) return std::nullopt;
  call.label = rest.until("][");
  if (rest.good) parse_function(rest.text, call);
  return call;
}

std::optional<SqlText> parse_sql(std::string_view text) {
  SqlText sql;
  Rest rest{text};
  for (std::int64_t* const number : {&sql.statement, &sql.statements, &sql.piece}) {
    rest.number(*number);
    rest.skip(",");
  }
  if (rest.good && sql.piece == 1) {
    rest.number(sql.executions);
    rest.skip(",");
    rest.seconds(sql.elapsed_us);
    rest.skip(",");
    rest.number(sql.kind);
    rest.skip(",");
    sql.function = rest.until(",");
  }
  if (!rest.good) return std::nullopt;
  sql.text = rest.text;
  return sql;
}

}  // namespace varn

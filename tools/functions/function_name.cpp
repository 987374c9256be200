#include "tools/functions/function_name.h"

#include <cxxabi.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <string_view>

namespace varn {
namespace {

// Longer ones the demangler refuses, or takes long for.
constexpr std::size_t kMostMangledBytes = 1024;
constexpr std::string_view kCut = "...";

char* demangled(const char* symbol) {
  if (std::strncmp(symbol, "_Z", 2) != 0) return nullptr;
  if (strnlen(symbol, kMostMangledBytes + 1) > kMostMangledBytes) return nullptr;
  int status = 0;
  return abi::__cxa_demangle(symbol, nullptr, nullptr, &status);
}

bool is_word(char c) {
  return c == '_' || (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}

// What the compiler made several of: "f(int) [clone .constprop.0]".
std::string_view without_clone(std::string_view name) {
  return name.substr(0, name.find(" [clone "));
}

// "f(int) const" gives "f".
std::string_view without_parameters(std::string_view name) {
  const std::size_t end = name.rfind(')');
  int depth = 0;
  for (std::size_t i = end + 1; end != name.npos && i-- > 0;) {
    if (name[i] == ')') ++depth;
    if (name[i] == '(' && --depth == 0) return name.substr(0, i);
  }
  return name;
}

// Where an operator's own name begins, whose brackets and blanks are no others; npos without one.
std::size_t find_operator(std::string_view name) {
  constexpr std::string_view kOperator = "operator";
  for (std::size_t at = name.find(kOperator); at != name.npos; at = name.find(kOperator, at + 1)) {
    const std::size_t end = at + kOperator.size();
    if ((at == 0 || !is_word(name[at - 1])) && end < name.size() && !is_word(name[end])) return at;
  }
  return name.npos;
}

int depth_change(char c) {
  if (std::strchr("<([{", c) != nullptr) return 1;
  return std::strchr(">)]}", c) != nullptr ? -1 : 0;
}

// Only functions made from templates show one: "int largest<int>" gives "largest<int>".
std::string_view without_return_type(std::string_view name) {
  const std::size_t end = std::min(find_operator(name), name.size());
  std::size_t begin = 0;
  int depth = 0;
  for (std::size_t i = 0; i < end; ++i) {
    depth += depth_change(name[i]);
    if (name[i] == ' ' && depth == 0) begin = i + 1;
  }
  return name.substr(begin);
}

// Whether brackets here belong to an operator's name: "operator<<", "operator->".
bool is_operators(std::string_view name, std::size_t operator_at, std::size_t i) {
  constexpr std::size_t kWord = std::string_view("operator").size();
  return operator_at != name.npos && i >= operator_at + kWord &&
         name.find_first_not_of("<=>-", operator_at + kWord) > i;
}

// In place: "Map<int, Set<int> >::at" gives "Map<>::at".
std::string_view without_template_arguments(char* text, std::string_view name) {
  const std::size_t operator_at = find_operator(name);
  std::size_t kept = 0;
  int depth = 0;
  for (std::size_t i = 0; i < name.size(); ++i) {
    const char c = name[i];
    const bool is_bracket = !is_operators(name, operator_at, i);
    if (is_bracket && c == '>') --depth;
    if (depth <= 0) text[kept++] = c;
    if (is_bracket && c == '<') ++depth;
  }
  return {text, kept};
}

FunctionName copied(std::string_view name) {
  FunctionName copy;
  copy.text[name.copy(copy.text, kMostNameBytes)] = '\0';
  return copy;
}

// The end of a qualified name tells most.
FunctionName with_start_cut(std::string_view name) {
  const std::string_view rest = name.substr(name.size() - (kMostNameBytes - kCut.size()));
  FunctionName cut = copied(kCut);
  const std::size_t scope = rest.find("::");
  const std::string_view shown = rest.substr(scope == rest.npos ? 0 : scope);
  cut.text[kCut.size() + shown.copy(cut.text + kCut.size(), shown.size())] = '\0';
  return cut;
}

}  // namespace

FunctionName function_name(const char* symbol) {
  char* const text = demangled(symbol);
  if (text == nullptr) return copied(symbol);
  std::string_view name = without_return_type(without_parameters(without_clone(text)));
  if (name.size() > kMostNameBytes)
    name = without_template_arguments(text + (name.data() - text), name);
  const FunctionName shortened = name.size() > kMostNameBytes ? with_start_cut(name) : copied(name);
  std::free(text);
  return shortened;
}

}  // namespace varn

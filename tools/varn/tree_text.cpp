#include "tools/varn/tree_text.h"

#include <algorithm>
#include <span>
#include <string_view>

#include "collector/describe.h"
#include "tools/varn/text_line.h"

namespace varn {
namespace {

constexpr std::size_t kTimeWidth = 10;

std::string cell(std::string_view text) {
  return padding(text, kTimeWidth) + std::string(text) + ' ';
}

std::string cell(std::optional<std::int64_t> us) { return cell(us ? milliseconds_text(*us) : ""); }

// A statement's text on one line, however its program laid it out.
std::string on_one_line(std::string_view text) {
  std::string line;
  for (const char c : text) {
    const bool blank = c == ' ' || (c >= '\t' && c <= '\r');
    if (!blank)
      line += c;
    else if (!line.empty() && line.back() != ' ')
      line += ' ';
  }
  return line;
}

std::string text_of(const TreeNode& node) {
  std::string text =
      node.kind == NodeKind::kStatement ? utf8_from_uhc(on_one_line(node.text)) : node.text;
  if (!node.outcome.empty()) text += "  " + node.outcome;
  if (!node.start_seen) text += "  (its start was not seen)";
  if (!node.end_seen) text += "  (its end was not seen)";
  return text;
}

// Calls that differ in nothing but their times.
bool alike(const TreeNode& a, const TreeNode& b) {
  return a.kind == NodeKind::kCall && b.kind == NodeKind::kCall && a.children.empty() &&
         b.children.empty() && a.text == b.text && a.outcome == b.outcome;
}

void add(std::optional<std::int64_t>& sum, std::optional<std::int64_t> us) {
  if (sum && us) *sum += *us;
}

// The sum of calls that are alike.
TreeNode sum_of(std::span<const TreeNode> calls) {
  TreeNode sum = calls.front();
  for (const TreeNode& call : calls.subspan(1)) {
    add(sum.total_us, call.total_us);
    add(sum.own_us, call.own_us);
    sum.database_us += call.database_us;
  }
  sum.text = std::to_string(calls.size()) + " x " + sum.text;
  return sum;
}

struct Indent {
  std::string line;      // before the node's own text
  std::string children;  // before its children's
};

void append_node(const TreeNode& node, const Indent& indent, std::string& out);

void append_children(std::span<const TreeNode> nodes, const std::string& indent, std::string& out) {
  while (!nodes.empty()) {
    const auto end = std::ranges::find_if_not(
        nodes.subspan(1), [&](const TreeNode& node) { return alike(nodes.front(), node); });
    const auto count = static_cast<std::size_t>(end - nodes.begin());
    const bool last = count == nodes.size();
    const Indent own = {indent + (last ? "└─ " : "├─ "), indent + (last ? "   " : "│  ")};
    append_node(count > 1 ? sum_of(nodes.first(count)) : nodes.front(), own, out);
    nodes = nodes.subspan(count);
  }
}

void append_node(const TreeNode& node, const Indent& indent, std::string& out) {
  const bool in_database = node.database_us != 0;
  out += cell(node.total_us) + cell(node.own_us) +
         cell(in_database ? std::optional(node.database_us) : std::nullopt);
  out += indent.line + text_of(node) + '\n';
  append_children(node.children, indent.children, out);
}

std::string origin(const TraceTree& tree) {
  return tree.time + ' ' + tree.process + '(' + tree.pid + ") thread " + tree.tid;
}

}  // namespace

std::string tree_text(const TraceTree& tree) {
  if (tree.root.kind == NodeKind::kNotice)
    return origin(tree) + ' ' + (tree.gid.empty() ? "" : tree.gid + ' ') + tree.root.text + "\n\n";
  std::string out =
      cell("total ms") + cell("own ms") + cell("db ms") + tree.gid + "  " + origin(tree) + '\n';
  append_node(tree.root, {}, out);
  return out + '\n';
}

}  // namespace varn

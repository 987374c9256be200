#include "collector/tree.h"

#include <algorithm>
#include <ctime>
#include <iterator>

#include "collector/describe.h"
#include "layout/ptrc_hash_tbl.h"

namespace varn {
namespace {

constexpr std::size_t kMostTrees = 10'000;
constexpr std::size_t kMostNodes = 200'000;  // of a tree
constexpr std::size_t kMostNodesInAll = 1'000'000;
constexpr std::int64_t kUsPerSecond = 1'000'000;

std::int64_t number_at(std::string_view digits, std::size_t at, std::size_t count) {
  return static_cast<std::int64_t>(digits_of(digits.substr(at, count)).value_or(0));
}

// The header's date and time; nothing where the caller gave texts of his own.
std::optional<std::int64_t> stamp_us(const DecodedRecord& record) {
  const std::string_view date = field_of(record, kDate.name);
  const std::string_view time = field_of(record, kTime.name);
  if (date.size() != kDate.width || time.size() != kTime.width || !digits_of(date) ||
      !digits_of(time))
    return std::nullopt;
  std::tm tm = {};
  tm.tm_year = static_cast<int>(number_at(date, 0, 4)) - 1900;
  tm.tm_mon = static_cast<int>(number_at(date, 4, 2)) - 1;
  tm.tm_mday = static_cast<int>(number_at(date, 6, 2));
  tm.tm_hour = static_cast<int>(number_at(time, 0, 2));
  tm.tm_min = static_cast<int>(number_at(time, 2, 2));
  tm.tm_sec = static_cast<int>(number_at(time, 4, 2));
  return timegm(&tm) * kUsPerSecond + number_at(time, 6, 6);
}

// What stamp_us() gives for a time since 1970.
std::optional<std::int64_t> local_us(std::int64_t us) {
  const std::time_t seconds = us / kUsPerSecond;
  std::tm tm = {};
  if (localtime_r(&seconds, &tm) == nullptr) return std::nullopt;
  return timegm(&tm) * kUsPerSecond + us % kUsPerSecond;
}

std::string key_of(const DecodedRecord& record) {
  std::string key(field_of(record, kPid.name));
  key.append("/").append(field_of(record, kTid.name)).append("/");
  return key.append(field_of(record, kGid.name));
}

TraceTree tree_of(const DecodedRecord& record) {
  return {.date = utf8_from_uhc(field_of(record, kDate.name)),
          .time = time_text(field_of(record, kTime.name)),
          .process = utf8_from_uhc(field_of(record, kProcNm.name)),
          .pid = id_text(field_of(record, kPid.name)),
          .tid = id_text(field_of(record, kTid.name)),
          .gid = utf8_from_uhc(field_of(record, kGid.name))};
}

TreeNode service_node(const DecodedRecord& record, int depth) {
  return {.kind = NodeKind::kService,
          .level = depth,
          .start_us = stamp_us(record),
          .text = utf8_from_uhc(field_of(record, kSvcId.name)),
          .outcome = service_text(record),
          .end_seen = false};
}

// A service that was under way when its first record came.
TreeNode service_without_start(const DecodedRecord& record) {
  return {.kind = NodeKind::kService,
          .text = utf8_from_uhc(field_of(record, kSvcId.name)),
          .start_seen = false,
          .end_seen = false};
}

bool takes_time(const TreeNode& node) {
  return node.kind == NodeKind::kService || node.kind == NodeKind::kCall;
}

// An outermost end tells the service's time and its database time; of another one they follow from
// its records.
void settle_times(TreeNode& service, const DecodedRecord& end) {
  const auto elapsed =
      static_cast<std::int64_t>(digits_of(field_of(end, kElapsed.name)).value_or(0));
  const std::optional<std::int64_t> end_us = stamp_us(end);
  if (elapsed > 0)
    service.total_us = elapsed;
  else if (service.start_us && end_us && service.start_seen)
    service.total_us = *end_us - *service.start_us;

  std::int64_t in_children = 0;
  for (const TreeNode& child : service.children) {
    if (!takes_time(child)) continue;
    in_children += child.total_us.value_or(0);
    service.database_us += child.database_us;
  }
  if (service.total_us) service.own_us = *service.total_us - in_children;
  if (const auto told = digits_of(field_of(end, kDbioElapsed.name)); told.value_or(0) > 0)
    service.database_us = static_cast<std::int64_t>(*told);
}

TreeNode call_node(const CallText& call) {
  return {.kind = NodeKind::kCall,
          .level = call.level,
          .start_us = local_us(call.start_us),
          .total_us = call.total_us,
          .own_us = call.own_us,
          .database_us = call.db ? call.total_us : call.database_us,
          .text = call_text(call),
          .outcome = outcome_text(call)};
}

bool happened_in(const TreeNode& node, const TreeNode& call) {
  if (node.kind == NodeKind::kCall && node.level <= call.level) return false;
  return !node.start_us || !call.start_us || *node.start_us >= *call.start_us;
}

// What went before a call's record and happened in the call becomes its own.
void take_over(std::vector<TreeNode>& nodes, TreeNode& call) {
  auto first = nodes.end();
  while (first != nodes.begin() && happened_in(*std::prev(first), call)) --first;
  call.children.assign(std::move_iterator(first), std::move_iterator(nodes.end()));
  nodes.erase(first, nodes.end());
}

// Blanks at a piece's end look like padding. All but the last piece of a statement are full, give
// or take a character that was not to be cut.
void restore_blanks(std::string& statement, std::size_t piece_size) {
  constexpr std::size_t kFull = kCallBody.back().width - 1;
  if (piece_size < kFull) statement.append(kFull - piece_size, ' ');
}

}  // namespace

TraceTrees::Growing& TraceTrees::growing(const DecodedRecord& record) {
  if (trees_.size() >= kMostTrees || nodes_ >= kMostNodesInAll) hand_on_oldest();
  Growing& tree = trees_[key_of(record)];
  tree.last_use = ++uses_;
  if (tree.nodes >= kMostNodes) hand_on(tree);
  return tree;
}

void TraceTrees::open_service(Growing& growing, const DecodedRecord& record, TreeNode&& service) {
  if (growing.services.empty()) growing.tree = tree_of(record);
  growing.services.push_back(std::move(service));
  count_node(growing);
}

void TraceTrees::count_node(Growing& growing) {
  ++growing.nodes;
  ++nodes_;
}

// The service that a record belongs to. Makes one for records whose service's start was not seen.
TreeNode& TraceTrees::innermost(Growing& growing, const DecodedRecord& record) {
  if (growing.services.empty()) open_service(growing, record, service_without_start(record));
  count_node(growing);
  return growing.services.back();
}

void TraceTrees::start_service(const DecodedRecord& record, int depth) {
  Growing& tree = growing(record);
  close_to(tree, depth);
  open_service(tree, record, service_node(record, depth));
}

void TraceTrees::end_service(const DecodedRecord& record, int depth) {
  Growing& tree = growing(record);
  close_to(tree, depth + 1);
  if (tree.services.empty() ||
      (tree.services.back().start_seen && tree.services.back().level < depth))
    open_service(tree, record, service_without_start(record));
  TreeNode& service = tree.services.back();
  service.level = depth;
  service.end_seen = true;
  service.outcome = service_text(record);
  settle_times(service, record);
  close_service(tree);
  if (tree.services.empty()) trees_.erase(key_of(record));
}

void TraceTrees::add_call(const DecodedRecord& record, const CallText& call) {
  TreeNode& service = innermost(growing(record), record);
  TreeNode node = call_node(call);
  take_over(service.children, node);
  service.children.push_back(std::move(node));
}

void TraceTrees::add_piece(const DecodedRecord& record, const SqlText& sql) {
  Growing& tree = growing(record);
  std::vector<TreeNode>& nodes = innermost(tree, record).children;
  const bool first = sql.piece == 1;
  if (first || nodes.empty() || nodes.back().kind != NodeKind::kStatement)
    nodes.push_back({.kind = NodeKind::kStatement, .start_us = stamp_us(record)});
  TreeNode& node = nodes.back();
  if (first) node.total_us = sql.elapsed_us;
  if (sql.executions > 1) node.outcome = "executed=" + std::to_string(sql.executions);
  if (!node.text.empty()) restore_blanks(node.text, tree.piece_size);
  node.text += sql.text;
  tree.piece_size = field_of(record, "text").size();
}

void TraceTrees::add_notice(const DecodedRecord& record) {
  const std::string said = record.rec_type == '9' ? service_text(record) : notice_text(record);
  TreeNode node = {.start_us = stamp_us(record), .text = kind_text(record) + ' ' + said};
  if (trees_.contains(key_of(record)))
    return innermost(growing(record), record).children.push_back(std::move(node));
  TraceTree tree = tree_of(record);
  tree.root = std::move(node);
  sink_(tree);
}

void TraceTrees::add(const DecodedRecord& record) {
  const auto depth = static_cast<int>(
      std::min<std::uint64_t>(digits_of(field_of(record, kDepth.name)).value_or(0), 99));
  if (depth > 0 && record.rec_type == '1') return start_service(record, depth);
  if (depth > 0 && record.rec_type == '2') return end_service(record, depth);
  const std::string_view text = field_of(record, "text");
  if (record.rec_type == 'B' || record.rec_type == 'C')
    if (const auto call = parse_call(text); call && call->level > 0 && call->level <= kMaxCallDepth)
      return add_call(record, *call);
  if (record.rec_type == 'Q')
    if (const auto sql = parse_sql(text)) return add_piece(record, *sql);
  add_notice(record);
}

// The innermost service goes into the one around it.
void TraceTrees::close_service(Growing& growing) {
  TreeNode service = std::move(growing.services.back());
  growing.services.pop_back();
  if (!growing.services.empty()) {
    growing.services.back().children.push_back(std::move(service));
    return;
  }
  growing.tree.root = std::move(service);
  sink_(growing.tree);
  nodes_ -= growing.nodes;
  growing.nodes = 0;
}

// Closes the services at a depth and below it.
void TraceTrees::close_to(Growing& growing, int depth) {
  while (!growing.services.empty() && growing.services.back().level >= depth)
    close_service(growing);
}

void TraceTrees::hand_on(Growing& growing) {
  while (!growing.services.empty()) close_service(growing);
}

void TraceTrees::hand_on_oldest() {
  std::vector<Trees::iterator> by_use;
  for (auto at = trees_.begin(); at != trees_.end(); ++at) by_use.push_back(at);
  const auto half = by_use.begin() + static_cast<std::ptrdiff_t>(by_use.size() / 2);
  std::ranges::nth_element(by_use, half, {},
                           [](Trees::iterator at) { return at->second.last_use; });
  for (auto at = by_use.begin(); at != half; ++at) {
    hand_on((*at)->second);
    trees_.erase(*at);
  }
}

void TraceTrees::finish() {
  for (auto& [key, growing] : trees_) hand_on(growing);
  trees_.clear();
}

}  // namespace varn

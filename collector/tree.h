// Transactions put together from their records: services, the calls in them by level, the SQL of a
// call, and what was reported on the way.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "collector/call_text.h"
#include "collector/decode.h"

namespace varn {

enum class NodeKind { kService, kCall, kStatement, kNotice };

// One service, call, statement or notice, with what happened during it, in time's order. Texts are
// UTF-8 but for a statement's, which are bytes as sent: a character may be split between pieces.
struct TreeNode {
  NodeKind kind = NodeKind::kNotice;
  int level = 0;                              // of a service its depth, of a call its level
  std::optional<std::int64_t> start_us = {};  // local time
  std::optional<std::int64_t> total_us = {};
  std::optional<std::int64_t> own_us = {};
  std::int64_t database_us = 0;
  std::string text = {};
  std::string outcome = {};
  bool start_seen = true;  // of a service, as the next
  bool end_seen = true;
  std::vector<TreeNode> children = {};
};

// An outermost service or one with a GID of its own, or a notice outside of any.
struct TraceTree {
  std::string date, time, process, pid, tid, gid;
  TreeNode root = {};
};

// Takes records in the order in which their queue held them, and hands on each tree when its
// outermost service has ended. A call's record comes when the call ends, so it takes the calls
// before it that are of a higher level and began later for its own. Records are another process's
// word: trees are bounded in size and number; what goes beyond is handed on unfinished.
class TraceTrees {
 public:
  using Sink = std::function<void(const TraceTree&)>;
  explicit TraceTrees(Sink sink) : sink_(std::move(sink)) {}

  void add(const DecodedRecord& record);

  // Hands on what has not ended.
  void finish();

 private:
  // A tree that grows: its services that have not ended, the outermost first.
  struct Growing {
    TraceTree tree;
    std::vector<TreeNode> services;
    std::size_t nodes = 0;
    std::size_t piece_size = 0;  // of the last piece of a statement, as sent
    std::uint64_t last_use = 0;
  };
  using Trees = std::map<std::string, Growing, std::less<>>;

  Growing& growing(const DecodedRecord& record);
  TreeNode& innermost(Growing& growing, const DecodedRecord& record);
  void open_service(Growing& growing, const DecodedRecord& record, TreeNode&& service);
  void count_node(Growing& growing);
  void start_service(const DecodedRecord& record, int depth);
  void end_service(const DecodedRecord& record, int depth);
  void add_call(const DecodedRecord& record, const CallText& call);
  void add_piece(const DecodedRecord& record, const SqlText& sql);
  void add_notice(const DecodedRecord& record);
  void close_service(Growing& growing);
  void close_to(Growing& growing, int depth);
  void hand_on(Growing& growing);
  void hand_on_oldest();

  Sink sink_;
  Trees trees_;            // by process, thread and GID
  std::size_t nodes_ = 0;  // of all trees
  std::uint64_t uses_ = 0;
};

}  // namespace varn

// One exported call, from its admission to its return.
#pragma once

#include "core/caller.h"
#include "core/context.h"
#include "core/tran_ex.h"
#include "util/fence.h"

namespace varn {

// Announces the calling thread as inside a call of a started agent (kInCall), or of one that is
// being started or stopped (kInStartStop), so that neither a stop nor another thread's claim takes
// away what it works on. A call made inside a call, from a signal handler say, is refused before it
// touches anything.
class [[nodiscard]] Announced {
 public:
  explicit Announced(CallerState state) {
    if (!may_enter(state)) return;
    Caller* const caller = this_caller();
    if (caller == nullptr) [[unlikely]] {
      code_ = TRAN_RC_NO_CONTEXT;
    } else if (caller->state.load(std::memory_order_relaxed) != kOutside) [[unlikely]] {
      code_ = TRAN_RC_NOT_SENT;
    } else {
      caller_ = caller;
      caller->state.store(state, std::memory_order_relaxed);
      light_fence();
      may_enter(state);  // a stop may have begun before it could see this thread
    }
  }
  ~Announced() {
    if (caller_ != nullptr) caller_->state.store(kOutside, std::memory_order_release);
  }
  Announced(const Announced&) = delete;
  Announced& operator=(const Announced&) = delete;

  int code() const { return code_; }  // 0 when announced
  Caller& caller() { return *caller_; }

 private:
  bool may_enter(CallerState state) {
    if (state == kInCall && !is_started()) code_ = TRAN_RC_NOT_STARTED;
    return code_ == TRAN_RC_OK;
  }

  Caller* caller_ = nullptr;
  int code_ = TRAN_RC_OK;
};

// A traced call: announced, admitted for its record kind where it has one, and in its thread's
// context.
class [[nodiscard]] Call {
 public:
  Call() : announced_(kInCall), code_(announced_.code()) {}
  explicit Call(std::uint8_t log_flag) : Call() { admit_for(log_flag); }

  void admit_for(std::uint8_t log_flag) {
    if (code_ == TRAN_RC_OK) code_ = admit(log_flag);
  }

  int code() const { return code_; }  // 0 when admitted

  int find_context(int tid, MTR_CXT_VAR** out) {
    return get_mtr_cxt_var(announced_.caller(), tid, out);
  }

  // What `work` returns of the context, or why it was not reached. The calls that open a service
  // give their name: that they found no context is told in the log.
  template <typename Work>
  int in_context(int tid, Work work, const char* opening = nullptr) {
    if (code_ != TRAN_RC_OK) return code_;
    MTR_CXT_VAR* var = nullptr;
    if (const int rc = find_context(tid, &var); rc != 0) [[unlikely]] {
      if (opening != nullptr) log_no_context(opening, rc, tid);
      return rc;
    }
    return work(*var);
  }

  // The same of one of several records that a call sends, admitted for its own kind.
  template <typename Work>
  int step(const RecordKind& kind, int tid, Work work, const char* opening = nullptr) {
    if (const int rc = admit(kind.log_flag); rc != 0) return rc;
    return in_context(tid, work, opening);
  }

 private:
  Announced announced_;
  int code_;
};

}  // namespace varn

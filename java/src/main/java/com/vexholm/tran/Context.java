package com.vexholm.tran;

import com.vexholm.tran.api.TranApiAdapter;

/**
 * What a thread has open, and the objects that stand for it, which are made once and used again.
 *
 * <p>Transactions and calls end in the reverse order in which they began, for the agent ends
 * whatever is innermost. Where an outer one is closed first, what was opened inside it is ended
 * before it. So an end never meets anything but its own start, or nothing at all: an agent that
 * lets go of open transactions, of those left behind for too long say, lets go of all that the
 * thread has.
 */
final class Context {

  // As many as the agent has room for.
  private static final int MAX_TRANSACTIONS = 10;
  private static final int MAX_CALLS = 51;

  private static final ThreadLocal<Context> OF_THREAD = ThreadLocal.withInitial(Context::new);

  // Never negative, which would mean the native thread.
  final long tid = Thread.currentThread().getId() & Integer.MAX_VALUE;
  private final Thread thread = Thread.currentThread();

  // The open ones are numbered from bottom up to top, and stand at their number modulo the length.
  private final Transaction[] transactions = new Transaction[MAX_TRANSACTIONS];
  private final Call[] calls = new Call[MAX_CALLS];
  private int bottom;
  private int top;
  private int callBottom;
  private int callTop;

  static Context current() {
    return OF_THREAD.get();
  }

  boolean isCurrent() {
    return Thread.currentThread() == thread;
  }

  // ---- Transactions ----

  Transaction describe(String gid, String svcId) {
    if (top - bottom == MAX_TRANSACTIONS) dropOldest();
    final int slot = top % MAX_TRANSACTIONS;
    if (transactions[slot] == null) transactions[slot] = new Transaction(this);
    transactions[slot].describe(gid, svcId);
    return transactions[slot];
  }

  // So many do not nest: it was left behind. The agent lets go of it, too.
  private void dropOldest() {
    transactions[bottom++ % MAX_TRANSACTIONS].release();
    final int firstCall = transactions[bottom % MAX_TRANSACTIONS].callBase;
    while (callBottom < firstCall) calls[callBottom++ % MAX_CALLS].release();
  }

  void start(Transaction transaction) {
    // Others may have ended since it was described.
    if (transactions[top % MAX_TRANSACTIONS] != transaction) return;
    transaction.started(top++, callTop);
  }

  boolean isInnermost(Transaction transaction) {
    return top > bottom && innermost() == transaction;
  }

  private Transaction innermost() {
    return transactions[(top - 1) % MAX_TRANSACTIONS];
  }

  void end(Transaction transaction) {
    while (top > transaction.number) endInnermost();
  }

  private void endInnermost() {
    final Transaction transaction = innermost();
    while (callTop > transaction.callBase) endInnermostCall();
    --top;
    transaction.ended();
  }

  // ---- Calls ----

  Call start(String name, String src, boolean isDbCall) {
    if (top == bottom || callTop - callBottom == MAX_CALLS) return Call.NONE;
    if (isDbCall && callTop > callBottom && innermostCall().isDbCall) return Call.NONE;
    final int slot = callTop % MAX_CALLS;
    if (calls[slot] == null) calls[slot] = new Call(this);
    calls[slot].started(callTop++, isDbCall);
    TranApiAdapter.TranCallInfoS(tid, src, name, isDbCall ? 1 : 0, 0);
    return calls[slot];
  }

  boolean isInnermost(Call call) {
    return callTop > callBottom && innermostCall() == call;
  }

  private Call innermostCall() {
    return calls[(callTop - 1) % MAX_CALLS];
  }

  void end(Call call) {
    while (innermost().callBase > call.number) endInnermost();
    while (callTop > call.number) endInnermostCall();
  }

  private void endInnermostCall() {
    final Call call = innermostCall();
    --callTop;
    call.release();
    TranApiAdapter.TranCallInfoF(tid, null, null, call.isDbCall ? 1 : 0);
  }
}

package com.vexholm.tran.bench;

import com.vexholm.tran.api.TranApiAdapter;
import java.util.Arrays;

/**
 * What the adapter adds to the native calls that it makes, beside the least that a native method
 * with the same three strings can cost. Rounds of all rows are run in turn; each row's median is
 * told.
 */
final class TranBench {

  static {
    System.loadLibrary("varn_java_bench");
  }

  private static final int ROUNDS = 301;
  private static final int PAIRS = 500; // of a round; their records fit into a queue
  private static final int WARM_UP_ROUNDS = 200; // enough for the compiler
  private static final int PAUSE_MS = 3; // in which the collector takes a round's records

  private static final String CODE = "AB";
  private static final String GID = "202611220930WEB01000000000001";
  private static final String SVC_ID = "XFER0001";

  private TranBench() {}

  // A native method that does nothing, one with the parameters of TranStart, and one that borrows
  // its three strings, takes their lengths and gives them back.
  private static native void empty();

  private static native void emptyStart(
      long tid, String p2, String p3, String p4, String p5, String p6, String p7, String p8,
      String p9, String p10, String p11, String p12, String p13, String p14, String p15, String p16,
      String p17, String p18, String p19, String p20, String p21, String p22, String p23,
      String p24, String p25, String p26, String p27, String p28, String p29, String p30);

  private static native void borrow(long tid, String code, String gid, String svcId);

  // The least of a TranStart and a TranEnd: that around the calls.
  private static native void bareStart(long tid, String code, String gid, String svcId);

  private static native void bareEnd(long tid, String code, String gid, String svcId);

  // So many TRAN_STARTs and TRAN_ENDs with the three texts; nanoseconds that they took.
  private static native long nativePairs(int pairs, int tid, byte[] code, byte[] gid, byte[] svcId);

  private interface Row {
    // Nanoseconds for so many pairs.
    long run(int pairs, long tid);
  }

  private static long emptyPairs(int pairs, long tid) {
    final long start = System.nanoTime();
    for (int i = 0; i < pairs; ++i) {
      empty();
      empty();
    }
    return System.nanoTime() - start;
  }

  private static long emptyStartPairs(int pairs, long tid) {
    final long start = System.nanoTime();
    for (int i = 0; i < pairs; ++i) {
      emptyStart(
          tid, CODE, null, GID, SVC_ID, null, null, null, null, null, null, null, null, null, null,
          null, null, null, null, null, null, null, null, null, null, null, null, null, null, null);
      emptyStart(
          tid, CODE, null, GID, SVC_ID, null, null, null, null, null, null, null, null, null, null,
          null, null, null, null, null, null, null, null, null, null, null, null, null, null, null);
    }
    return System.nanoTime() - start;
  }

  private static long borrowPairs(int pairs, long tid) {
    final long start = System.nanoTime();
    for (int i = 0; i < pairs; ++i) {
      borrow(tid, CODE, GID, SVC_ID);
      borrow(tid, CODE, GID, SVC_ID);
    }
    return System.nanoTime() - start;
  }

  private static long barePairs(int pairs, long tid) {
    final long start = System.nanoTime();
    for (int i = 0; i < pairs; ++i) {
      bareStart(tid, CODE, GID, SVC_ID);
      bareEnd(tid, CODE, GID, SVC_ID);
    }
    return System.nanoTime() - start;
  }

  private static long adapterPairs(int pairs, long tid) {
    final long start = System.nanoTime();
    for (int i = 0; i < pairs; ++i) {
      TranApiAdapter.TranStart(
          tid, CODE, null, GID, SVC_ID, null, null, null, null, null, null, null, null, null, null,
          null, null, null, null, null, null, null, null, null, null, null, null, null, null, null);
      TranApiAdapter.TranEnd(
          tid, CODE, null, GID, SVC_ID, null, null, null, null, null, null, null, null, null, null,
          null, null, null, null, null, null, null, null, null, null, null, null, null, null, null);
    }
    return System.nanoTime() - start;
  }

  /** The median nanoseconds of one call for each row. */
  private static double[] measure(Row... rows) throws InterruptedException {
    final long tid = Thread.currentThread().getId();
    final double[][] calls = new double[rows.length][ROUNDS];
    for (int round = -WARM_UP_ROUNDS; round < ROUNDS; ++round) {
      for (int i = 0; i < rows.length; ++i) {
        Thread.sleep(PAUSE_MS);
        rows[i].run(PAIRS / 10, tid); // awake again
        final double ns = (double) rows[i].run(PAIRS, tid) / (2 * PAIRS);
        if (round >= 0) calls[i][round] = ns;
      }
    }
    final double[] medians = new double[rows.length];
    for (int i = 0; i < rows.length; ++i) {
      Arrays.sort(calls[i]);
      medians[i] = calls[i][ROUNDS / 2];
    }
    return medians;
  }

  private static void tell(String row, double ns) {
    System.out.printf("%-54s %8.1f ns a call%n", row, ns);
  }

  public static void main(String[] args) throws InterruptedException {
    final double[] before =
        measure(TranBench::emptyPairs, TranBench::emptyStartPairs, TranBench::adapterPairs);
    tell("empty native method", before[0]);
    tell("empty native method with TranStart's parameters", before[1]);
    tell("TranStart, TranEnd before Init", before[2]);
    System.out.printf("  TranStart before Init / empty: %.2f%n%n", before[2] / before[1]);

    final int rc = TranApiAdapter.Init("bench");
    if (rc != 0) throw new IllegalStateException("Init returned " + rc);
    final byte[] code = CODE.getBytes();
    final byte[] gid = GID.getBytes();
    final byte[] svcId = SVC_ID.getBytes();
    final double[] started =
        measure(
            TranBench::borrowPairs,
            (pairs, tid) -> nativePairs(pairs, (int) tid, code, gid, svcId),
            TranBench::adapterPairs,
            TranBench::barePairs);
    tell("a  native method that borrows three strings", started[0]);
    tell("b  TRAN_START, TRAN_END from C", started[1]);
    tell("c  TranStart, TranEnd", started[2]);
    tell("d  native method that borrows them around the calls", started[3]);
    final double added = started[2] - started[1];
    System.out.printf("  (c - b) / a: %.2f%n", added / started[0]);
    System.out.printf("  (c - b) / (d - b): %.2f%n", added / (started[3] - started[1]));
    TranApiAdapter.Done();
  }
}

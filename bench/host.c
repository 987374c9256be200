/* A small process that is traced, or, not linked with the agent, one that is not. It shows what
 * starting the agent takes, what memory it adds, and what an instrumented function costs. */
#define _GNU_SOURCE
#include <sched.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include "varn/tran.h"

/* Absent where the agent is not linked. */
#pragma weak TRAN_INIT
#pragma weak TRAN_START
#pragma weak TRAN_CALLINFO_S
#pragma weak TRAN_CALLINFO_F

/* All but the function that is measured. */
#define PLAIN __attribute__((no_instrument_function))
#define NO_TEXT NULL, 0
#define NO_PAIR(name, width) , NO_TEXT
#define NO_HEAD NO_TEXT, NO_TEXT, NO_TEXT, NO_TEXT, NO_TEXT, NO_TEXT, NO_TEXT
#define CALL -1, NO_HEAD, NO_TEXT, NO_TEXT, 0, 0, "count", 5, NO_TEXT

enum { BATCHES = 1001, BATCH = 500 };

PLAIN static double now_ns(void) {
  struct timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return (double)now.tv_sec * 1e9 + (double)now.tv_nsec;
}

PLAIN static void fail(const char* what) {
  fprintf(stderr, "%s\n", what);
  exit(EXIT_FAILURE);
}

PLAIN static void start_agent(void) {
  if (TRAN_INIT == NULL || TRAN_INIT() != 0) fail("the agent does not start");
}

/* ---- Memory ---- */

PLAIN static long resident_kb(void) {
  FILE* const status = fopen("/proc/self/status", "r");
  if (status == NULL) fail("no /proc/self/status");
  long sum = 0;
  for (char line[256]; fgets(line, sizeof line, status) != NULL;) {
    long kb = 0;
    if (sscanf(line, "RssAnon: %ld", &kb) == 1 || sscanf(line, "RssFile: %ld", &kb) == 1 ||
        sscanf(line, "RssShmem: %ld", &kb) == 1)
      sum += kb;
  }
  fclose(status);
  return sum;
}

/* ---- Functions ---- */

static volatile int last;

__attribute__((noinline)) static void count(int n) { last = n; }

PLAIN __attribute__((noinline)) static void count_plainly(int n) { last = n; }

PLAIN static int compare(const void* a, const void* b) {
  const double difference = *(const double*)a - *(const double*)b;
  return difference < 0 ? -1 : difference > 0;
}

/* Nanoseconds that the hooks add to a call. */
PLAIN static double hooks_ns(void) {
  static double costs[BATCHES];
  for (int batch = 0; batch < BATCHES; ++batch) {
    const double start = now_ns();
    for (int n = 0; n < BATCH; ++n) count(n);
    const double middle = now_ns();
    for (int n = 0; n < BATCH; ++n) count_plainly(n);
    costs[batch] = (2 * middle - start - now_ns()) / BATCH;
  }
  qsort(costs, BATCHES, sizeof costs[0], compare);
  return costs[BATCHES / 2];
}

PLAIN static void open_service(void) {
  start_agent();
  if (TRAN_START(-1 TRAN_FIELD_LIST(NO_PAIR)) < 0) fail("no service opened");
}

PLAIN static void check_nothing_recorded(void) {
  if (TRAN_CALLINFO_S(CALL) != 0 || TRAN_CALLINFO_F(CALL) != TRAN_RC_CALL_SHORT)
    fail("calls are not traced, or recorded");
}

PLAIN static void run_on_first_processor(void) {
  cpu_set_t set;
  CPU_ZERO(&set);
  CPU_SET(0, &set);
  sched_setaffinity(0, sizeof set, &set);
}

/* host start|memory|hooks */
PLAIN int main(int argc, char** argv) {
  const char* const what = argc > 1 ? argv[1] : "";
  const int is_linked = TRAN_INIT != NULL;
  run_on_first_processor();
  if (strcmp(what, "start") == 0) {
    const double start = now_ns();
    start_agent();
    printf("%f\n", (now_ns() - start) / 1e6);
  } else if (strcmp(what, "memory") == 0) {
    resident_kb(); /* once, for what looking itself takes */
    const long before = resident_kb();
    if (is_linked) start_agent();
    const long after = resident_kb();
    printf("%ld %ld\n", before, after);
  } else if (strcmp(what, "hooks") == 0) {
    if (is_linked) open_service();
    printf("%f\n", hooks_ns());
    if (is_linked) check_nothing_recorded();
  } else {
    fail("Usage: host start|memory|hooks");
  }
  return EXIT_SUCCESS;
}

/* What two tracepoints with the texts of a service cost, in nanoseconds. */
#define _GNU_SOURCE
#define LTTNG_UST_TRACEPOINT_CREATE_PROBES
#define LTTNG_UST_TRACEPOINT_DEFINE
#include "bench/tracepoints.h"

#include <sched.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

enum { BATCHES = 300, BATCH = 32 };

static double now_ns(void) {
  struct timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return (double)now.tv_sec * 1e9 + (double)now.tv_nsec;
}

static int compare(const void* a, const void* b) {
  const double difference = *(const double*)a - *(const double*)b;
  return difference < 0 ? -1 : difference > 0;
}

int main(void) {
  static double costs[BATCHES];
  struct service_texts texts;
  cpu_set_t set;
  CPU_ZERO(&set);
  CPU_SET(0, &set);
  sched_setaffinity(0, sizeof set, &set);
  memset(&texts, 'A', sizeof texts);
  for (int batch = 0; batch < BATCHES; ++batch) {
    const double start = now_ns();
    for (int n = 0; n < BATCH; ++n) {
      lttng_ust_tracepoint(varn_bench, service_start, &texts);
      lttng_ust_tracepoint(varn_bench, service_end, &texts);
    }
    costs[batch] = (now_ns() - start) / BATCH;
  }
  if (!lttng_ust_tracepoint_enabled(varn_bench, service_start)) {
    fputs("the tracepoints are not recorded\n", stderr);
    return EXIT_FAILURE;
  }
  qsort(costs, BATCHES, sizeof costs[0], compare);
  printf("%f\n", costs[BATCHES / 2]);
  return EXIT_SUCCESS;
}

/* The start and the end of a service as tracepoints of LTTng-UST, with the texts of TRAN_START at
 * their full widths. */
#undef LTTNG_UST_TRACEPOINT_PROVIDER
#define LTTNG_UST_TRACEPOINT_PROVIDER varn_bench

#undef LTTNG_UST_TRACEPOINT_INCLUDE
#define LTTNG_UST_TRACEPOINT_INCLUDE "bench/tracepoints.h"

#if !defined(BENCH_TRACEPOINTS_H) || defined(LTTNG_UST_TRACEPOINT_HEADER_MULTI_READ)
#define BENCH_TRACEPOINTS_H

#include <lttng/tracepoint.h>

#include "varn/tran.h"

#ifndef BENCH_TRACEPOINT_TEXTS
#define BENCH_TRACEPOINT_TEXTS
#define BENCH_TEXT(name, width) char name[width];
struct service_texts {
  TRAN_FIELD_LIST(BENCH_TEXT)
};
#define BENCH_FIELD(name, width) lttng_ust_field_array_text(char, name, texts->name, width)
#endif

LTTNG_UST_TRACEPOINT_EVENT(varn_bench, service_start,
                           LTTNG_UST_TP_ARGS(const struct service_texts*, texts),
                           LTTNG_UST_TP_FIELDS(TRAN_FIELD_LIST(BENCH_FIELD)))
LTTNG_UST_TRACEPOINT_EVENT(varn_bench, service_end,
                           LTTNG_UST_TP_ARGS(const struct service_texts*, texts),
                           LTTNG_UST_TP_FIELDS(TRAN_FIELD_LIST(BENCH_FIELD)))

#endif

#include <lttng/tracepoint-event.h>

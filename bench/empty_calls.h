/* Empty functions in a shared library: what a call into one costs. */
#ifndef BENCH_EMPTY_CALLS_H
#define BENCH_EMPTY_CALLS_H

#include "varn/tran.h"

#ifdef __cplusplus
extern "C" {
#endif

VARN_API void empty_func_enter(void* this_fn, void* call_site);
VARN_API void empty_func_exit(void* this_fn, void* call_site);
VARN_API int empty_info(TRAN_HEAD_PARAMETERS, const char* message, int message_len);
VARN_API int empty_start(int tid TRAN_FIELD_PARAMETERS);

#ifdef __cplusplus
}
#endif

#endif

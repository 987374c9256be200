#include "bench/empty_calls.h"

void empty_func_enter(void* this_fn, void* call_site) {
  (void)this_fn;
  (void)call_site;
}

void empty_func_exit(void* this_fn, void* call_site) {
  (void)this_fn;
  (void)call_site;
}

#define UNUSED(name, width) (void)name, (void)name##_len;

int empty_info(TRAN_HEAD_PARAMETERS, const char* message, int message_len) {
  UNUSED(hdr_cd, 0)
  UNUSED(hdr_flag, 0)
  UNUSED(gid, 0)
  UNUSED(svc_id, 0)
  UNUSED(pid_str, 0)
  UNUSED(date_str, 0)
  UNUSED(time_str, 0)
  UNUSED(message, 0)
  return tid;
}

int empty_start(int tid TRAN_FIELD_PARAMETERS) {
  TRAN_FIELD_LIST(UNUSED)
  return tid;
}

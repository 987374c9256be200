/* A program that starts the agent and its service itself, and ends neither. */
#include <stddef.h>

#include "varn/tran.h"

struct texts {
#define MEMBER(name, width) const char* name;
  TRAN_FIELD_LIST(MEMBER)
};

__attribute__((no_instrument_function)) static int call(int (*tran)(int TRAN_FIELD_PARAMETERS)) {
  const struct texts texts = {.gid = "20260801093000000HQ0001A000001", .svc_id = "OWN"};
#define ARGUMENT(name, width) , texts.name, -1
  return tran(-1 TRAN_FIELD_LIST(ARGUMENT));
}

static void work(void) {}

int main(void) {
  if (TRAN_INIT() != TRAN_RC_OK) return 1;
  call(TRAN_START);
  work();
  return 0;
}

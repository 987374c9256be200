/* One traced service in plain C. */
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include "varn/tran.h"

/* The 29 texts of a transaction by name; those left out are null and go out as blanks. */
struct texts {
#define MEMBER(name, width) const char* name;
  TRAN_FIELD_LIST(MEMBER)
};

/* TRAN_START, TRAN_END or TRAN_ERROR for the calling thread; every text is zero-ended. */
static int call(int (*tran)(int TRAN_FIELD_PARAMETERS), const struct texts* texts) {
#define ARGUMENT(name, width) , texts->name, -1
  return tran(-1 TRAN_FIELD_LIST(ARGUMENT));
}

#define NONE NULL, 0
#define NO_HEAD NONE, NONE, NONE, NONE, NONE, NONE, NONE

int main(void) {
  const struct texts request = {.gid = "20260801093000000HQ0001A000001",
                                .svc_id = "HELLO001",
                                .chnl_typ_cd = "WEB",
                                .recv_svc_cd = "HELLO001"};
  const char message[] = "half way there";
  int rc = TRAN_INIT();
  if (rc != TRAN_RC_OK) {
    fprintf(stderr, "c_basic: TRAN_INIT returned %d\n", rc);
    return 1;
  }
  /* A call that sent its record returns the queue's number, otherwise a code of 99 or more. */
  printf("TRAN_START %d\n", call(TRAN_START, &request));
  usleep(2000);
  printf("TRAN_INFO  %d\n", TRAN_INFO(-1, NO_HEAD, message, (int)strlen(message)));
  printf("TRAN_END   %d\n", call(TRAN_END, &request));
  return TRAN_DONE() == 0 ? 0 : 1;
}

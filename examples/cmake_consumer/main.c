/* Reports one event: the least that a program can do with the library. */
#include <stdio.h>
#include <varn/tran.h>

#define NONE NULL, 0
#define TEXT(s) s, -1

int main(void) {
  int rc = TRAN_INIT();
  if (rc != TRAN_RC_OK) {
    fprintf(stderr, "consumer: TRAN_INIT returned %d\n", rc);
    return 1;
  }
  rc = TRAN_EVENT(-1, NONE, NONE, NONE, NONE, NONE, NONE, NONE, /* header */
                  TEXT("0001"), NONE, NONE, TEXT("built against the installed library"));
  TRAN_DONE();
  return rc < 16 ? 0 : 1; /* below 16: the queue that took the record */
}

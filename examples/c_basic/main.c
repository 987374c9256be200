/* One traced service in plain C: a business call, and in it a database call with its SQL. */
#include <stdio.h>
#include <string.h>
#include <sys/time.h>
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

/* Opens or closes a call of `function`, made where this stands; `rc` is its return code at the end.
 * A name that begins with "db" is that of a database call, unless configured otherwise. */
#define CALL_START(function) \
  TRAN_CALLINFO_S(-1, NO_HEAD, __func__, -1, "main.c", -1, __LINE__, 0, function, -1, NONE)
#define CALL_END(function, rc) \
  TRAN_CALLINFO_F(-1, NO_HEAD, __func__, -1, NONE, __LINE__, rc, function, -1, NONE)

/* As TRAN_SQL_STMT takes a time: seconds and microseconds. */
static void take_time(int64_t time[2]) {
  struct timeval now;
  gettimeofday(&now, NULL);
  time[0] = now.tv_sec;
  time[1] = now.tv_usec;
}

/* Where the database would be asked. */
static void select_greeting(void) {
  int64_t start[2], end[2];
  take_time(start);
  usleep(1000);
  take_time(end);
  TRAN_SQL_STMT(-1, TRAN_SQL_ADD, NONE, NONE, 0, start, end,
                "SELECT text FROM greetings WHERE language = 'ko'");
  TRAN_SET_SQLCA_INFO(-1, 0, NULL, __LINE__); /* no error */
  /* One row, in so many microseconds. */
  TRAN_SET_FETCH_INFO(-1, 1, (end[0] - start[0]) * 1000000 + end[1] - start[1], __LINE__);
}

static void greet(void) {
  const char message[] = "half way there";
  printf("TRAN_CALLINFO_S %d\n", CALL_START("db_select_greeting"));
  select_greeting();
  printf("TRAN_CALLINFO_F %d\n", CALL_END("db_select_greeting", 0));
  usleep(1000);
  printf("TRAN_INFO  %d\n", TRAN_INFO(-1, NO_HEAD, message, (int)strlen(message)));
}

int main(void) {
  const struct texts request = {.gid = "20260801093000000HQ0001A000001",
                                .svc_id = "HELLO001",
                                .chnl_typ_cd = "WEB",
                                .recv_svc_cd = "HELLO001"};
  int rc = TRAN_INIT();
  if (rc != TRAN_RC_OK) {
    fprintf(stderr, "c_basic: TRAN_INIT returned %d\n", rc);
    return 1;
  }
  /* A call that sent its record returns the queue's number, otherwise a code of 99 or more. */
  printf("TRAN_START %d\n", call(TRAN_START, &request));
  CALL_START("greet");
  greet();
  CALL_END("greet", 0);
  printf("TRAN_END   %d\n", call(TRAN_END, &request));
  return TRAN_DONE() == 0 ? 0 : 1;
}

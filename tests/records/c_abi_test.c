/* The header and the library as a program in plain C uses them. Called by golden_test.cpp in a
 * traced process; null when all went well, else what did not. */
#include <string.h>

#include "varn/tran.h"

#define STRINGIFY(x) #x
#define LINE_TEXT(x) STRINGIFY(x)
#define CHECK(condition) \
  if (!(condition)) return LINE_TEXT(__LINE__) ": " #condition

typedef int (*service_call)(int TRAN_FIELD_PARAMETERS);
#define NULL_PAIR(name, width) , NULL, 0

const char* trace_from_c(void);

const char* trace_from_c(void) {
  char field[4] = {'?', '?', '?', '?'};
  tran_call_rc result = {0, -5};
  service_call const calls[] = {TRAN_START, TRAN_ERROR, TRAN_END};
  size_t i;

  CHECK(check_gvar('I') == TRAN_RC_NOT_STARTED);
  CHECK(TRAN_INIT() == TRAN_RC_OK);
  CHECK(TRAN_INIT() == TRAN_RC_ALREADY_STARTED);
  for (i = 0; i < sizeof calls / sizeof calls[0]; ++i)
    CHECK(calls[i](7, "C1", 2, "F", 1, "GID-FROM-C", -1, "SVC-FROM-C", -1, NULL, 0, NULL, 0,
                   "123456000007", 12, "1", 1, "AA0001", 6, "WEB", 3, "RECV", 4, "SCRN", 4, "EMP",
                   3, "0", 1, "ERRCD", 5, "00000100", 8, "::1", 3, "FST", 3, "TRM", 3, "S", 1, "A",
                   1, "RSLT", 4, "EAI", 3, "DSB", 3, "INST", 4, "BIZ", 3, "MEDIUM", 6, "x", 1, "y",
                   1) == 0);
  CHECK(TRAN_END(7 TRAN_FIELD_LIST(NULL_PAIR)) == TRAN_RC_DEPTH);
  CHECK(TRAN_INFO(7, NULL, 0, NULL, 0, "G", 1, "S", 1, NULL, 0, NULL, 0, NULL, 0, "in C", -1) == 0);
  CHECK(set_fst_err_rc_set("-5,2") == TRAN_RC_OK);
  CHECK(is_err_rc(&result) == 2);
  CHECK(get_log_flag_set("SEQ") == 0x83);
  set_log_field("ab", 2, field, 3, 1);
  CHECK(memcmp(field, "ab  ", sizeof field) == 0);
  CHECK(TRAN_DONE() == TRAN_RC_OK);
  CHECK(TRAN_SET_SVCTIMEOUT(7) == TRAN_RC_NOT_STARTED);
  return NULL;
}

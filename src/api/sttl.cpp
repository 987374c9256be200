// The exported table of a standard telegram's fields.
#include "layout/sttl.h"

// NOLINTBEGIN(bugprone-reserved-identifier): the table's published names
#define VARN_STTL_DEFINE(name, offset, length) const tran_sttl_field name = {offset, length};
TRAN_STTL_FIELD_LIST(VARN_STTL_DEFINE)
// NOLINTEND(bugprone-reserved-identifier)

// The bank's services. Each is traced from its start to its end; those that a transfer calls are
// nested in it.
#pragma once

#include "db.h"
#include "outcome.h"
#include "request.h"

namespace bank {

// XFER0001: moves an amount from one account to another, or refuses to and changes nothing.
Outcome transfer(Database& db, const Request& request);

}  // namespace bank

// The configuration step of a start.
#pragma once

#include <cstdint>

namespace varn {

// Reads the environment and the configuration file, opens the log, attaches what the collector has
// made and sets up the ring of telegrams: 0, or 103, 104 or 106. What was attached before a failure
// stays attached; the next start takes it up.
int tran_init();

// The process's name from its stat file into `proc_nm` (31 characters), the container's name given
// beforehand into `cont_nm` (31).
void set_proc_nm(char* proc_nm, char* cont_nm, std::int32_t pid);

}  // namespace varn

// The process-wide state of the agent.
#pragma once

#include <cstdint>

#include "layout/gvar.h"

namespace varn {

inline constexpr char kVersionText[] = "libvarn v13.5(2018.05.18) for Vexholm Quorlen UI Project";

extern Gvar gvar;

// 0 until gvar has been zeroed, 1 after the start that zeroed it, 2 after a later one; 0 again
// after a release.
extern std::int32_t gvar_cleared;

extern std::int32_t jni_init_flag;  // 1: started from Java
extern char init_cont_nm[31];       // given before the start, as the two below
extern char init_db_user[11];
extern char init_db_sid[11];

extern char log_home_dir[512];
extern char tong_log_home_dir[512];

// The part of the GID whose hash chooses the queue.
extern std::int32_t write_qidx_idx_gid_rng_pos;
extern std::int32_t write_qidx_idx_gid_rng_siz;

// VARN_THREAD_ID=kernel: the calling thread's id is the kernel's, not the POSIX one.
extern bool use_kernel_tid;

}  // namespace varn

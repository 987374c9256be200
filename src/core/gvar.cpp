#include "core/gvar.h"

namespace varn {

Gvar gvar;
std::int32_t gvar_cleared;
std::int32_t jni_init_flag;
char init_cont_nm[31];
char init_db_user[11];
char init_db_sid[11];
char log_home_dir[512];
char tong_log_home_dir[512];
std::int32_t write_qidx_idx_gid_rng_pos;
std::int32_t write_qidx_idx_gid_rng_siz;
bool use_kernel_tid;

}  // namespace varn

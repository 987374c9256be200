#include "hostile/guarded_segments.h"

#include <sys/mman.h>
#include <sys/shm.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <iterator>

namespace varn::test {
namespace {

constexpr std::size_t kPage = 4096;
constexpr std::size_t kGuardBefore = std::size_t{1} << 30;
constexpr std::size_t kGuardBehind = std::size_t{1} << 34;  // a 32-bit index of words ends in it
constexpr char kTail = 0x5C;

struct Attached {
  char* base;  // null: free
  std::size_t size;

  std::size_t mapped() const { return (size + kPage - 1) & ~(kPage - 1); }
  char* guard() const { return base - kGuardBefore; }
  std::size_t guarded() const { return kGuardBefore + mapped() + kGuardBehind; }
};
Attached attached[64];

// Not mmap(): a sanitizer would note each of the guards' bytes.
char* reserve(std::size_t size) {
  return reinterpret_cast<char*>(syscall(SYS_mmap, nullptr, size, PROT_NONE,
                                         MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0));
}

void* attach(int id, int flags) {
  shmid_ds segment = {};
  Attached* const place = std::find_if(std::begin(attached), std::end(attached),
                                       [](const Attached& a) { return a.base == nullptr; });
  if (place == std::end(attached) || shmctl(id, IPC_STAT, &segment) != 0)
    return reinterpret_cast<void*>(-1);
  Attached made = {nullptr, segment.shm_segsz};
  char* const guard = reserve(made.guarded());
  made.base = guard + kGuardBefore;
  if (syscall(SYS_shmat, id, made.base, flags | SHM_REMAP) == -1) {
    syscall(SYS_munmap, guard, made.guarded());
    return reinterpret_cast<void*>(-1);
  }
  // Not again where another process may have written since.
  if (made.base[made.size] == 0)
    std::memset(made.base + made.size, kTail, made.mapped() - made.size);
  *place = made;
  return made.base;
}

}  // namespace

bool segment_tails_are_whole() {
  return std::all_of(std::begin(attached), std::end(attached), [](const Attached& a) {
    return a.base == nullptr || std::all_of(a.base + a.size, a.base + a.mapped(),
                                            [](char byte) { return byte == kTail; });
  });
}

}  // namespace varn::test

using namespace varn::test;

// Take the places of the C library's for everything in the process.
extern "C" [[gnu::visibility("default")]] void* shmat(int id, const void* at, int flags) noexcept {
  if (at != nullptr) return reinterpret_cast<void*>(syscall(SYS_shmat, id, at, flags));
  return attach(id, flags);
}

extern "C" [[gnu::visibility("default")]] int shmdt(const void* at) noexcept {
  Attached* const place = std::find_if(std::begin(attached), std::end(attached),
                                       [at](const Attached& a) { return a.base == at; });
  const int rc = static_cast<int>(syscall(SYS_shmdt, at));
  if (rc != 0 || place == std::end(attached)) return rc;
  syscall(SYS_munmap, place->guard(), place->guarded());
  place->base = nullptr;
  return 0;
}

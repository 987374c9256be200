#include "faults/imports.h"

#include <elf.h>
#include <link.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <stdexcept>
#include <utility>

namespace varn::test {
namespace {

using enum Kind;

constexpr Import kImports[] = {
    {"__isoc99_fscanf", kPlain, -1, EIO},
    {"__register_atfork", kReturns, 0, ENOMEM},
    {"__vsnprintf_chk", kPlain, -1, EOVERFLOW},
    {"calloc", kAllocates, 0, ENOMEM},
    {"clock_gettime", kQuiet, -1, 0},
    {"close", kReleases, -1, EIO},
    {"dup3", kPlain, -1, EBUSY},
    {"fchmod", kPlain, -1, EPERM},
    {"fclose", kReleases, -1, EIO},
    {"fcntl", kPlain, -1, EMFILE},
    {"fdopen", kPlain, 0, ENOMEM},
    {"fgets", kPlain, 0, EIO},
    {"fopen", kPlain, 0, EMFILE},
    {"free", kFrees, 0, 0},
    {"fstat", kStale, -1, EBADF, true},
    {"ftruncate", kPlain, -1, EIO},
    {"gethostname", kPlain, -1, ENAMETOOLONG},
    {"gettimeofday", kQuiet, -1, 0},
    {"localtime_r", kPlain, 0, EOVERFLOW},
    {"lseek", kPlain, -1, ESPIPE},
    {"malloc", kAllocates, 0, ENOMEM},
    {"msgctl", kPlain, -1, EIDRM},
    {"msgget", kPlain, -1, ENOENT},
    {"msgrcv", kPlain, -1, EIDRM},
    {"open", kPlain, -1, EMFILE},
    {"poll", kPlain, -1, EINTR},
    {"pthread_attr_init", kReturns, 0, ENOMEM},
    {"pthread_attr_setstacksize", kReturns, 0, EINVAL},
    {"pthread_cond_clockwait", kReturns, 0, EINVAL},
    {"pthread_cond_init", kReturns, 0, ENOMEM},
    {"pthread_create", kReturns, 0, EAGAIN},
    {"pthread_join", kEnds, 0, EDEADLK},
    {"pthread_mutex_destroy", kEnds, 0, EBUSY},
    {"pthread_mutex_lock", kCertain, 0, 0},
    {"pthread_mutex_unlock", kCertain, 0, 0},
    {"pthread_mutex_init", kReturns, 0, ENOMEM},
    {"pthread_setname_np", kReturns, 0, ERANGE},
    {"read", kPlain, -1, EIO},
    {"secure_getenv", kQuiet, 0, 0},
    {"semctl", kPlain, -1, EIDRM},
    {"semget", kPlain, -1, ENOENT},
    {"semop", kPlain, -1, EINTR, true},
    {"semtimedop", kPlain, -1, EINTR},
    {"shmat", kPlain, -1, ENOMEM},
    {"shmdt", kPlain, -1, EINVAL},
    {"shmget", kPlain, -1, ENOENT},
    {"sigpending", kPlain, -1, EFAULT},
    {"sigtimedwait", kReleases, -1, EAGAIN},
    {"stat", kPlain, -1, ENOENT},
    {"strdup", kAllocates, 0, ENOMEM},
    {"strftime", kPlain, 0, ERANGE},
    {"syscall", kPlain, -1, EAGAIN},
    {"tgkill", kPlain, -1, EPERM},
    {"time", kQuiet, -1, 0},
    {"usleep", kPlain, -1, EINTR},
    {"vsnprintf", kPlain, -1, EOVERFLOW},
    {"write", kPlain, -1, ENOSPC},
};
constexpr std::size_t kCount = std::size(kImports);

// Reviewed. A mutex, condition, mask or set of signals that is valid is locked, told, changed or
// asked; formats without floating point into a place of the caller's always succeed.
constexpr std::string_view kCannotFail[] = {
    "__errno_location",
    "__libc_single_threaded",
    "__memset_chk",
    "__snprintf_chk",
    "__stack_chk_fail",
    "__tls_get_addr",
    "__memcpy_chk",
    "__memmove_chk",
    "__strcpy_chk",
    "__strncpy_chk",
    "bsearch",
    "geteuid",
    "getpid",
    "gettid",
    "memchr",
    "memcmp",
    "memcpy",
    "memmove",
    "memset",
    "pthread_attr_destroy",
    "pthread_cond_signal",
    "pthread_self",
    "pthread_setcancelstate",
    "pthread_sigmask",
    "qsort",
    "rewind",
    "sched_yield",
    "sigaddset",
    "sigdelset",
    "sigemptyset",
    "sigfillset",
    "sigismember",
    "snprintf",
    "strchr",
    "strcmp",
    "strcpy",
    "strerror",
    "strlen",
    "strncpy",
    "strnlen",
    "strspn",
    "strstr",
    "strtoll",
    "strtoul",
};

// Of the compiler: the run-time parts of sanitizers and of C++, and the weak hooks of start-up
// files.
bool is_compilers(std::string_view name) {
  for (const std::string_view prefix :
       {"__asan_", "__lsan_", "__ubsan_", "__tsan_", "__sanitizer_", "__cxa_", "__gxx_", "_ITM_",
        "__gmon_start__", "__gcov_", "_Unwind_", "_Z", "__dynamic_cast"})
    if (name.starts_with(prefix)) return true;
  return false;
}

using Function = long (*)(long, long, long, long, long, long);
Function real[kCount];
std::atomic<OnImport> on_import;
std::atomic<long> blocks;

int asked_to_fail(std::size_t n) {
  const OnImport ask = on_import.load(std::memory_order_relaxed);
  if (ask == nullptr) return 0;
  const int saved_errno = errno;
  const int error = ask(n);
  errno = saved_errno;
  return error;
}

// Stands in an import's place. All of them take up to six integers or pointers, and return one.
template <std::size_t kN>
long stand_in(long a, long b, long c, long d, long e, long f) {
  constexpr Import kSelf = kImports[kN];
  const int error = asked_to_fail(kN);
  if constexpr (kSelf.kind == kFrees)
    if (a != 0) --blocks;
  if (error == 0 || kSelf.kind == kFrees || kSelf.kind == kCertain) {
    const long result = real[kN](a, b, c, d, e, f);
    if constexpr (kSelf.kind == kAllocates)
      if (result != 0) ++blocks;
    return result;
  }
  if constexpr (kSelf.kind == kReleases || kSelf.kind == kEnds) real[kN](a, b, c, d, e, f);
  if constexpr (kSelf.kind == kStale) close(static_cast<int>(a));
  if constexpr (kSelf.kind == kQuiet) return kSelf.failed;
  if constexpr (kSelf.kind == kReturns || kSelf.kind == kEnds) return error;
  errno = error;
  return kSelf.failed;
}

template <std::size_t... kN>
constexpr std::array<Function, sizeof...(kN)> stand_ins(std::index_sequence<kN...>) {
  return {stand_in<kN>...};
}
constexpr auto kStandIns = stand_ins(std::make_index_sequence<kCount>());

// The library's own tables, as the dynamic linker has loaded them.
struct Library {
  std::uintptr_t base = 0;
  const Elf64_Sym* symbols = nullptr;
  const char* strings = nullptr;
  const std::uint32_t* hash = nullptr;
  std::span<const Elf64_Rela> relocations[2];
};

int look(dl_phdr_info* info, std::size_t, void* out) {
  Library& library = *static_cast<Library*>(out);
  if (std::string_view(info->dlpi_name).find("libvarn.so") == std::string_view::npos) return 0;
  library.base = info->dlpi_addr;
  const auto headers = std::span(info->dlpi_phdr, info->dlpi_phnum);
  const auto dynamic = std::ranges::find(headers, PT_DYNAMIC, &Elf64_Phdr::p_type);
  std::uintptr_t at[2] = {}, size[2] = {};
  for (const auto* entry = reinterpret_cast<const Elf64_Dyn*>(library.base + dynamic->p_vaddr);
       entry->d_tag != DT_NULL; ++entry) {
    const std::uintptr_t value = entry->d_un.d_val;
    if (entry->d_tag == DT_SYMTAB) library.symbols = reinterpret_cast<const Elf64_Sym*>(value);
    if (entry->d_tag == DT_STRTAB) library.strings = reinterpret_cast<const char*>(value);
    if (entry->d_tag == DT_GNU_HASH) library.hash = reinterpret_cast<const std::uint32_t*>(value);
    if (entry->d_tag == DT_RELA) at[0] = value;
    if (entry->d_tag == DT_RELASZ) size[0] = value;
    if (entry->d_tag == DT_JMPREL) at[1] = value;
    if (entry->d_tag == DT_PLTRELSZ) size[1] = value;
  }
  for (const int i : {0, 1})
    library.relocations[i] = {reinterpret_cast<const Elf64_Rela*>(at[i]),
                              size[i] / sizeof(Elf64_Rela)};
  return 1;
}

Library find_library() {
  Library library;
  if (dl_iterate_phdr(look, &library) == 0) throw std::runtime_error("the library is not loaded");
  return library;
}

std::string_view name_of(const Library& library, std::uint64_t symbol) {
  return library.strings + library.symbols[symbol].st_name;
}

void redirect(std::uintptr_t place, std::size_t n) {
  const auto page = static_cast<std::uintptr_t>(sysconf(_SC_PAGESIZE));
  if (mprotect(reinterpret_cast<void*>(place & ~(page - 1)), page, PROT_READ | PROT_WRITE) != 0)
    throw std::runtime_error("the library's table cannot be changed");
  auto* const slot = reinterpret_cast<Function*>(place);
  if (*slot == kStandIns[n]) return;
  real[n] = *slot;
  *slot = kStandIns[n];
}

}  // namespace

std::span<const Import> imports() { return kImports; }

std::vector<std::string_view> redirect_imports() {
  const Library library = find_library();
  std::vector<std::string_view> unknown;
  for (const auto& relocations : library.relocations) {
    for (const Elf64_Rela& relocation : relocations) {
      const std::uint64_t type = ELF64_R_TYPE(relocation.r_info);
      if (type != R_X86_64_JUMP_SLOT && type != R_X86_64_GLOB_DAT && type != R_X86_64_64) continue;
      const std::uint64_t symbol = ELF64_R_SYM(relocation.r_info);
      if (library.symbols[symbol].st_shndx != SHN_UNDEF) continue;
      const std::string_view name = name_of(library, symbol);
      const auto* const found = std::ranges::find(kImports, name, &Import::name);
      if (found != std::end(kImports))
        redirect(library.base + relocation.r_offset, static_cast<std::size_t>(found - kImports));
      else if (!is_compilers(name) && std::ranges::count(kCannotFail, name) == 0)
        unknown.push_back(name);
    }
  }
  return unknown;
}

bool is_imported(std::size_t import) { return real[import] != nullptr; }

std::vector<std::string_view> exported_names() {
  const Library library = find_library();
  // Defined symbols stand behind the others, chain by chain of the hash table.
  const std::uint32_t buckets = library.hash[0], first = library.hash[1], words = library.hash[2];
  const std::uint32_t* const heads = library.hash + 4 + std::size_t{2} * words;
  const std::uint32_t* const chains = heads + buckets;
  std::vector<std::string_view> names;
  for (const std::uint32_t head : std::span(heads, buckets)) {
    for (std::uint32_t n = head; n >= first; ++n) {
      const std::string_view name = name_of(library, n);
      const bool is_java =
          name.starts_with("Java_") || name == "javaGetBytes" || name == "jbyteArray2cstr";
      if (ELF64_ST_TYPE(library.symbols[n].st_info) == STT_FUNC && !is_java) names.push_back(name);
      if ((chains[n - first] & 1) != 0) break;
    }
  }
  return names;
}

void set_on_import(OnImport ask) { on_import.store(ask); }

long allocations_left() { return blocks.load(); }

}  // namespace varn::test

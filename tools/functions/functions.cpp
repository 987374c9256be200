// Traces a program compiled with -finstrument-functions, without any change to it: names its
// functions, starts the agent, and takes all that its main thread does for one service, so that
// each call of a function in it is recorded.
//
// What it leaves alone: a process without instrumented code, so that the shells and compilers that
// a traced program starts run as ever; one that `varn run` did not prepare; one with hooks of its
// own. A program that uses libvarn itself starts the agent and its services itself, and gets names
// only.
//
// What it does not see: calls on other threads, where no service is open; those in a forked child
// until it executes a program; the names of libraries opened later (they show as "?"). A program
// that ends by a signal, _exit(), quick_exit() or exec leaves its service unfinished.
#include <dlfcn.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <ctime>

#include "tools/functions/function_name.h"
#include "tools/functions/loaded_object.h"
#include "tools/functions/symbol_table.h"
#include "varn/tran.h"

namespace varn {
namespace {

constexpr std::string_view kHook = "__cyg_profile_func_enter";
constexpr int kCallingThread = -1;

using Hook = void (*)(void* this_fn, void* call_site);

void ignore_call(void*, void*) {}

// libvarn's hooks, once there is something to trace: called before, they would print.
std::atomic<Hook> enter_hook{ignore_call};
std::atomic<Hook> exit_hook{ignore_call};

// Entered and not left since the service began.
thread_local int open_calls;

// The process whose service is open; a forked child is another.
pid_t traced_process;

// ---- The hooks ----

// Asked for by version: without one, the C library's empty hook could come first.
Hook find_hook(const char* name) {
  return reinterpret_cast<Hook>(dlvsym(RTLD_NEXT, name, "VARN_1.0"));
}

void forward_hooks() {
  const Hook enter = find_hook("__cyg_profile_func_enter");
  const Hook exit = find_hook("__cyg_profile_func_exit");
  if (enter == nullptr || exit == nullptr) return;
  enter_hook.store(enter, std::memory_order_relaxed);
  exit_hook.store(exit, std::memory_order_relaxed);
}

// By where they lie: the loader gives this library, too, the program's hooks in place of its own.
bool are_hooks_the_programs_own() {
  Dl_info hook;
  Dl_info own;
  return dladdr(dlsym(RTLD_DEFAULT, kHook.data()), &hook) == 0 ||
         dladdr(&traced_process, &own) == 0 || hook.dli_fbase != own.dli_fbase;
}

// ---- The program's objects ----

struct Process {
  bool instrumented = false;
  bool uses_libvarn = false;
};

int look_at_object(LoadedObject* object, std::size_t, void* found) {
  const bool is_this_library = holds(*object, reinterpret_cast<ElfW(Addr)>(&traced_process), 1);
  if (is_this_library) return 0;
  Process& process = *static_cast<Process*>(found);
  process.instrumented = process.instrumented || imports(*object, kHook);
  process.uses_libvarn = process.uses_libvarn || imports(*object, "TRAN_INIT");
  return 0;
}

Process look_at_process() {
  Process process;
  dl_iterate_phdr(look_at_object, &process);
  return process;
}

int name_functions_of(LoadedObject* object, std::size_t, void*) {
  SymbolTable table;
  if (!imports(*object, kHook) || !read_symbol_table(*object, table)) return 0;
  for (std::size_t i = 0; i < table.count(); ++i) {
    ElfW(Addr) value = 0;
    const char* const symbol = table.function_name(i, value);
    if (symbol != nullptr) TRAN_ADD_PROFILE(object->dlpi_addr + value, function_name(symbol).text);
  }
  return 0;
}

void name_functions() { dl_iterate_phdr(name_functions_of, nullptr); }

// ---- The service ----

// The texts of a transaction by name; those left out are null and go out as blanks.
struct Texts {
#define VARN_MEMBER(name, width) const char* name = nullptr;
  TRAN_FIELD_LIST(VARN_MEMBER)
#undef VARN_MEMBER
};

int call(int (*tran)(int TRAN_FIELD_PARAMETERS), const Texts& texts) {
#define VARN_ARGUMENT(name, width) , texts.name, -1
  return tran(kCallingThread TRAN_FIELD_LIST(VARN_ARGUMENT));
#undef VARN_ARGUMENT
}

// Date, time and milliseconds, three letters, the process id and the microseconds.
void start_service() {
  const auto now = std::chrono::system_clock::now().time_since_epoch();
  const auto us = std::chrono::duration_cast<std::chrono::microseconds>(now).count();
  const std::time_t second = us / 1'000'000;
  std::tm local = {};
  localtime_r(&second, &local);
  char date_and_time[16] = "";
  std::strftime(date_and_time, sizeof date_and_time, "%Y%m%d%H%M%S", &local);
  char gid[40];
  std::snprintf(gid, sizeof gid, "%s%03dFNC%07d%03d", date_and_time,
                static_cast<int>(us / 1000 % 1000), getpid(), static_cast<int>(us % 1000));

  Texts texts;
  texts.gid = gid;
  texts.svc_id = program_invocation_short_name;
  call(TRAN_START, texts);
}

// A program that calls exit() leaves the functions around it open; their time ends here.
void close_open_calls() {
#define VARN_NONE nullptr, 0
  for (; open_calls > 0; --open_calls)
    TRAN_CALLINFO_F(kCallingThread, VARN_NONE, VARN_NONE, VARN_NONE, VARN_NONE, VARN_NONE,
                    VARN_NONE, VARN_NONE, VARN_NONE, VARN_NONE, 0, 0, VARN_NONE, "DYCALL", 6);
#undef VARN_NONE
}

bool is_main_thread() { return gettid() == getpid(); }

// The destructors of libraries that were there before this one run later, and are not traced.
[[gnu::destructor]] void end_tracing() {
  if (traced_process != getpid()) return;
  traced_process = 0;
  if (is_main_thread()) {
    close_open_calls();
    call(TRAN_END, {});
  }
  TRAN_DONE();
}

bool is_configured() { return std::getenv("TRAN_AGT_CFG_FILE") != nullptr; }

bool start_agent() {
  const int rc = TRAN_INIT();
  if (rc != TRAN_RC_OK)
    std::fprintf(stderr, "varn: %s is not traced, TRAN_INIT returned %d\n",
                 program_invocation_short_name, rc);
  return rc == TRAN_RC_OK;
}

[[gnu::constructor]] void start_tracing() {
  const Process process = look_at_process();
  if (!process.instrumented || are_hooks_the_programs_own()) return;
  if (!process.uses_libvarn && !is_configured()) return;
  name_functions();  // before the agent starts a thread: with more than one, each name costs more
  if (!process.uses_libvarn && !start_agent()) return;
  forward_hooks();
  if (process.uses_libvarn) return;
  open_calls = 0;
  traced_process = getpid();
  start_service();
}

}  // namespace
}  // namespace varn

extern "C" {

// NOLINTBEGIN(bugprone-reserved-identifier): the compiler's names
void __cyg_profile_func_enter(void* this_fn, void* call_site) {
  ++varn::open_calls;
  varn::enter_hook.load(std::memory_order_relaxed)(this_fn, call_site);
}

void __cyg_profile_func_exit(void* this_fn, void* call_site) {
  --varn::open_calls;
  varn::exit_hook.load(std::memory_order_relaxed)(this_fn, call_site);
}
// NOLINTEND(bugprone-reserved-identifier)

}  // extern "C"

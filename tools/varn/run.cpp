// varn run: traces one command with objects of its own, and leaves nothing behind.
#include <spawn.h>
#include <sys/signalfd.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <filesystem>
#include <fstream>

#include "collector/decode.h"
#include "layout/config_keys.h"
#include "tools/varn/collecting.h"
#include "tools/varn/verbs.h"
#include "util/readcfg.h"

extern char** environ;

namespace varn {
namespace {

constexpr std::size_t kMostFaultLines = 5;

struct RunOptions {
  std::string config;  // empty: the sample values
  std::string tong;    // directory for whole telegrams; empty: none are logged
  bool functions = false;
  OutputOptions output{.format = "tree"};
};

// Telegrams hold customers' data: a new directory is this user's alone.
std::string made_tong_dir(const std::string& dir) {
  std::error_code fault;
  if (std::filesystem::create_directories(dir, fault))
    std::filesystem::permissions(dir, std::filesystem::perms::owner_all, fault);
  if (!fault && access(dir.c_str(), W_OK | X_OK) != 0) fault.assign(errno, std::generic_category());
  if (fault) throw Failure("whole telegrams cannot be kept in " + dir + ": " + fault.message());
  return std::filesystem::absolute(dir);
}

using Variables = std::vector<std::pair<std::string, std::string>>;

// A directory of the run's own, with the configuration file, the log directory and the way to that
// of whole telegrams, which keeps its name short and free of blanks.
struct Home {
  std::string dir;

  explicit Home(const std::string& tong) {
    const std::string target = tong.empty() ? "" : made_tong_dir(tong);
    const char* const tmpdir = std::getenv("TMPDIR");
    if (!make_under(tmpdir != nullptr && *tmpdir == '/' ? tmpdir : "/tmp") && !make_under("/tmp"))
      throw Failure(std::string("cannot make a temporary directory: ") + std::strerror(errno));
    std::filesystem::create_directories(log_dir());
    if (target.empty()) {
      std::filesystem::create_directory(tong_dir());
    } else {
      std::filesystem::create_symlink(target, tong_dir());
    }
  }
  ~Home() {
    std::error_code ignored;
    std::filesystem::remove_all(dir, ignored);
  }
  Home(const Home&) = delete;
  Home& operator=(const Home&) = delete;

  std::string config() const { return dir + "/varn.cfg"; }
  std::string log_dir() const { return dir + "/log/proc/libvarn"; }
  std::string tong_dir() const { return dir + "/tong"; }

 private:
  // The paths are written into the file, where a token is short and has no blanks.
  bool make_under(const std::string& parent) {
    dir = parent + "/varn-run-XXXXXX";
    if (tong_dir().size() > kMaxConfigToken ||
        dir.find_first_of(" \t\r\n\v\f") != std::string::npos)
      return false;
    return mkdtemp(dir.data()) != nullptr;
  }
};

struct PrivateObjects {
  CollectorSettings settings;
  SharedObjects objects;

  PrivateObjects(const std::string& config, bool tong_log) {
    std::string error;
    if (!read_settings(config, settings, error)) throw Failure(error);
    settings.tong_log_flag = tong_log ? 1 : 0;
    if (!create_private_objects(settings, objects, error)) throw Failure(error);
  }
  ~PrivateObjects() {
    detach_objects(objects);
    Removed removed;
    std::string error;
    if (!remove_objects(settings, removed, error))
      std::fprintf(stderr, "varn: %s\n", error.c_str());
  }
  PrivateObjects(const PrivateObjects&) = delete;
  PrivateObjects& operator=(const PrivateObjects&) = delete;
};

void write_config(const std::string& path, const ConfigValues& values) {
  std::ofstream file(path);
  file << config_text(values) << std::flush;
  if (!file) throw Failure("cannot write " + path);
}

ConfigValues values_for(const CollectorSettings& settings, const Home& home, ConfigValues values) {
  values[kLogHome.key] = "log";
  values[kTongLogHome.key] = home.tong_dir();
  values[kTongLogFlag.key] = std::to_string(settings.tong_log_flag);
  values[kQueInfoShmKey.key] = std::to_string(settings.que_info_shmkey);
  values[kSvcHashTblShmKey.key] = std::to_string(settings.svc_hash_tbl_shmkey);
  values[kPtrcHashTblShmKey.key] = std::to_string(settings.ptrc_hash_tbl_shmkey);
  values[kSvcHashTblSemKey.key] = std::to_string(settings.svc_hash_tbl_semkey);
  values[kPtrcHashTblSemKey.key] = std::to_string(settings.ptrc_hash_tbl_semkey);
  values[kTranLogfMsgqKey.key] = std::to_string(settings.tran_logf_msgqkey);
  return values;
}

// The library that traces a program's functions: beside the tool as it is built, or where both are
// installed.
std::string functions_library() {
  std::error_code fault;
  const auto tool_dir = std::filesystem::read_symlink("/proc/self/exe", fault).parent_path();
  for (const char* const dir : {"../functions", VARN_LIBDIR_FROM_BINDIR}) {
    const auto path = (tool_dir / dir / "libvarn-functions.so").lexically_normal();
    if (fault || !std::filesystem::exists(path, fault)) continue;
    if (path.string().find_first_of(" :") != std::string::npos)
      throw Failure(path.string() + ": with a blank or a colon in its path it cannot be preloaded");
    return path;
  }
  throw Failure("libvarn-functions.so is not there, neither in " +
                (tool_dir / VARN_LIBDIR_FROM_BINDIR).lexically_normal().string() +
                " nor beside a tool that has not been installed");
}

// Every function counts, whatever its name: none is a database call, and a program may make many.
void set_values_for_functions(ConfigValues& values) {
  values[kCallTrcDepth.key] = "50";
  values[kCallTrcLimit.key] = "0";
  values[kInfiniteLoopBaseCnt.key] = "10000000";
  values[kDbioFunc.key] = "-1 db";
}

Variables variables_for(const RunOptions& options, const Home& home) {
  Variables variables = {{"TRAN_HOME", home.dir},
                         {"TRAN_AGT_HOME", home.dir},
                         {"TRAN_AGT_CFG_FILE", home.config()},
                         {"VARN_THREAD_ID", "kernel"}};
  if (!options.functions) return variables;
  const char* const preloaded = std::getenv("LD_PRELOAD");
  const std::string others = preloaded == nullptr ? "" : std::string(":") + preloaded;
  variables.emplace_back("LD_PRELOAD", functions_library() + others);
  variables.emplace_back("VARN_CONSOLE", "off");  // a line for each function is printed otherwise
  return variables;
}

// This process's environment with variables of the command's own.
std::vector<std::string> environment_with(const Variables& own) {
  std::vector<std::string> variables;
  for (char** at = environ; *at != nullptr; ++at) {
    const std::string variable = *at;
    const std::string name = variable.substr(0, variable.find('='));
    if (std::ranges::none_of(own, [&](const auto& each) { return each.first == name; }))
      variables.push_back(variable);
  }
  for (const auto& [name, value] : own)
    variables.push_back(std::string(name).append("=").append(value));
  return variables;
}

std::vector<char*> pointers_to(std::vector<std::string>& texts) {
  std::vector<char*> pointers;
  pointers.reserve(texts.size() + 1);
  for (std::string& text : texts) pointers.push_back(text.data());
  pointers.push_back(nullptr);
  return pointers;
}

// 0, or the error number.
int start(std::vector<std::string> command, const Variables& own, const sigset_t& mask,
          pid_t& pid) {
  std::vector<std::string> variables = environment_with(own);
  posix_spawnattr_t attributes;
  posix_spawnattr_init(&attributes);
  posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK);
  posix_spawnattr_setsigmask(&attributes, &mask);
  const int fault = posix_spawnp(&pid, command[0].c_str(), nullptr, &attributes,
                                 pointers_to(command).data(), pointers_to(variables).data());
  posix_spawnattr_destroy(&attributes);
  return fault;
}

// A key pressed at the terminal reaches the command by itself, unless it left the process group.
bool reached_command(const signalfd_siginfo& signal, pid_t pid) {
  return signal.ssi_code == SI_KERNEL && getpgid(pid) == getpgrp();
}

// Passes signals on until the command has ended; its status as the shell gives it.
int wait_for(pid_t pid, const SignalQueue& signals) {
  for (;;) {
    signalfd_siginfo signal;
    if (read(signals.fd(), &signal, sizeof signal) != sizeof signal) continue;
    if (static_cast<int>(signal.ssi_signo) != SIGCHLD) {
      if (!reached_command(signal, pid)) kill(pid, static_cast<int>(signal.ssi_signo));
      continue;
    }
    int status = 0;
    if (waitpid(pid, &status, WNOHANG) != pid) continue;
    return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
  }
}

// The last fault lines of the agent's log.
std::deque<std::string> fault_lines(const std::string& log_dir) {
  std::vector<std::filesystem::path> files;
  for (const auto& entry : std::filesystem::directory_iterator(log_dir))
    files.push_back(entry.path());
  std::ranges::sort(files);  // by day
  std::deque<std::string> faults;
  for (const auto& path : files) {
    std::ifstream file(path);
    for (std::string line; std::getline(file, line);) {
      if (line.find("<!>") == std::string::npos) continue;
      faults.push_back(utf8_from_uhc(line));
      if (faults.size() > kMostFaultLines) faults.pop_front();
    }
  }
  return faults;
}

void print_end(const Collecting& collecting, const Home& home) {
  std::FILE* const stream = collecting.summary_stream();
  const std::deque<std::string> faults = fault_lines(home.log_dir());
  if (!faults.empty()) std::fprintf(stream, "---- last faults in the agent log ----\n");
  for (const std::string& line : faults) std::fprintf(stream, "%s\n", line.c_str());
  collecting.print_summary();
  if (collecting.records() == 0)
    std::fprintf(stream, "no record came: was TRAN_INIT called, and did it return 0?\n");
}

int run(const RunOptions& options, const std::vector<std::string>& command) {
  const SignalQueue signals({SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGCHLD});
  std::signal(SIGCHLD, SIG_DFL);  // ignored, it would take the command's status with it

  const Home home(options.tong);
  const Variables variables = variables_for(options, home);
  ConfigValues values;
  if (options.functions) set_values_for_functions(values);
  std::string error;
  if (!options.config.empty() && !read_config_values(options.config, values, error))
    throw Failure(error);
  if (options.config.empty()) write_config(home.config(), values);
  const PrivateObjects own(options.config.empty() ? home.config() : options.config,
                           !options.tong.empty());
  write_config(home.config(), values_for(own.settings, home, values));
  for (const std::string& note : queue_notes(own.objects))
    std::fprintf(stderr, "varn: %s\n", note.c_str());

  Collecting collecting(own.objects, options.output);
  pid_t pid = -1;
  const int fault = start(command, variables, signals.mask_before(), pid);
  if (fault != 0) {
    std::fprintf(stderr, "varn: %s: %s\n", command[0].c_str(), std::strerror(fault));
    return fault == ENOENT ? kExitNotFound : kExitNotExecutable;
  }
  const int status = wait_for(pid, signals);
  collecting.stop();
  print_end(collecting, home);
  return status;
}

}  // namespace

void add_run(CLI::App& app, const std::vector<std::string>& command, int& status) {
  const auto options = std::make_shared<RunOptions>();
  CLI::App* const verb = app.add_subcommand(
      "run", "Runs a command and shows its records:  varn run [OPTIONS] -- COMMAND...");
  verb->footer(
      "The command gets shared objects, a configuration file and log directories of its own,\n"
      "which are removed when it has ended. Signals are passed on to it. The exit status is the\n"
      "command's; 128 plus the signal that ended it; 127 when it was not found; 126 when it\n"
      "could not be executed; 125 when it was not started for another reason.");
  verb->add_option("-c,--config", options->config,
                   "Configuration file whose tuning values to use (keys and directories are the "
                   "run's own)")
      ->type_name("FILE");
  verb->add_option("--tong", options->tong,
                   "Log whole telegrams, and keep their files in this directory")
      ->check([](const std::string& dir) { return dir.empty() ? "names no directory" : ""; })
      ->type_name("DIR");
  verb->add_flag("--functions", options->functions,
                 "Trace every function of a program compiled with -finstrument-functions");
  add_output_options(*verb, options->output);
  verb->callback([options, &command, &status] {
    if (command.empty()) throw CLI::RequiredError("-- COMMAND");
    status = run(*options, command);
  });
}

}  // namespace varn

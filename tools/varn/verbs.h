// The tool's verbs: each adds its subcommand, which leaves the process's exit status in `status`.
#pragma once

#include <CLI/CLI.hpp>
#include <stdexcept>
#include <string>
#include <vector>

namespace varn {

void add_init(CLI::App& app, int& status);
void add_up(CLI::App& app, int& status);
void add_down(CLI::App& app, int& status);
void add_collect(CLI::App& app, int& status);
void add_run(CLI::App& app, const std::vector<std::string>& command, int& status);
void add_tong(CLI::App& app, int& status);

inline constexpr int kExitFailed = 1;
inline constexpr int kExitUsage = 2;
// Of `run`, whose status is otherwise the command's; as other programs that start a command use
// them.
inline constexpr int kExitRunFailed = 125;
inline constexpr int kExitNotExecutable = 126;
inline constexpr int kExitNotFound = 127;

// What a verb cannot go on from; main() prints it.
struct Failure : std::runtime_error {
  using std::runtime_error::runtime_error;
};

// The option -c of the verbs that work on an installation.
inline void add_config_option(CLI::App& verb, std::string& path) {
  verb.add_option("-c,--config", path, "Configuration file")
      ->envname("TRAN_AGT_CFG_FILE")
      ->required()
      ->type_name("FILE");
}

}  // namespace varn

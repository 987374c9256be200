// varn up: makes the shared objects, and the directories of the agent log and of whole telegrams.
#include <sys/stat.h>

#include <cstdlib>
#include <filesystem>
#include <iostream>

#include "collector/objects.h"
#include "tools/varn/verbs.h"

namespace varn {
namespace {

// Where TRAN_AGT_HOME is not set here, traced processes are taken to have it as `varn init` says.
std::string log_dir_of(const CollectorSettings& settings) {
  const char* const home = std::getenv("TRAN_AGT_HOME");
  const std::filesystem::path file = std::filesystem::absolute(settings.path).lexically_normal();
  return agent_log_dir(settings, home != nullptr ? home : file.parent_path().string());
}

using Access = std::filesystem::perms;

// The sticky bit keeps the files of different users apart.
void make_dir(const std::string& what, const std::string& dir, Access access) {
  std::error_code fault;
  if (std::filesystem::create_directories(dir, fault))
    std::filesystem::permissions(dir, access | Access::sticky_bit, fault);
  if (fault)
    throw Failure("the directory of " + what + ", " + dir + ", cannot be made: " + fault.message());
}

// Telegrams hold customers' data, and their files everybody may read who gets to them.
void print_tong_dir(const std::string& dir) {
  std::cout << "whole telegrams: " << dir << '\n';
  std::error_code unknown;
  const Access access = std::filesystem::status(dir, unknown).permissions();
  if (!unknown && (access & Access::others_exec) != Access::none)
    std::cout << "note: " << dir << " is open to all users, who can read the telegrams there\n";
}

void up(const std::string& path) {
  CollectorSettings settings;
  SharedObjects objects;
  std::string error;
  if (!read_settings(path, settings, error)) throw Failure(error);
  const std::string log_dir = log_dir_of(settings);
  const bool tong_log = settings.tong_log_flag == 1;
  make_dir("the agent log", log_dir, Access::all);
  if (tong_log)
    make_dir("whole telegrams", tong_log_dir(settings), Access::owner_all | Access::group_all);
  if (!create_objects(settings, objects, error)) throw Failure(error);

  std::cout << objects.created << " of " << 5 + objects.msgq_ids.size()
            << " shared objects made, the others were there; " << settings.que_cnt
            << (settings.que_cnt == 1 ? " queue" : " queues") << " of "
            << queue_records(objects.msgq_ids.front()) << " records in use\n"
            << "agent log: " << log_dir << '\n';
  if (tong_log) print_tong_dir(tong_log_dir(settings));
  for (const std::string& note : queue_notes(objects)) std::cout << "note: " << note << '\n';
  detach_objects(objects);
}

}  // namespace

void add_up(CLI::App& app, int&) {
  const auto path = std::make_shared<std::string>();
  CLI::App* const verb =
      app.add_subcommand("up", "Makes the shared objects that traced processes attach to");
  verb->footer(
      "Objects that are there already are kept and get the file's tuning values. Run it again\n"
      "after changing those; keys and MAX_QUE_CNT are read by a traced process when it starts.");
  add_config_option(*verb, *path);
  verb->callback([path] { up(*path); });
}

}  // namespace varn

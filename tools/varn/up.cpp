// varn up: makes the shared objects, and the directory of the agent log.
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

// Processes of all users write there; the sticky bit keeps their files apart.
void make_log_dir(const std::string& dir) {
  std::error_code fault;
  if (std::filesystem::create_directories(dir, fault))
    std::filesystem::permissions(
        dir, std::filesystem::perms::all | std::filesystem::perms::sticky_bit, fault);
  if (fault)
    throw Failure("the directory of the agent log, " + dir +
                  ", cannot be made: " + fault.message());
}

void up(const std::string& path) {
  CollectorSettings settings;
  SharedObjects objects;
  std::string error;
  if (!read_settings(path, settings, error)) throw Failure(error);
  const std::string log_dir = log_dir_of(settings);
  make_log_dir(log_dir);
  if (!create_objects(settings, objects, error)) throw Failure(error);

  std::cout << objects.created << " of " << 5 + objects.msgq_ids.size()
            << " shared objects made, the others were there; " << settings.que_cnt
            << (settings.que_cnt == 1 ? " queue" : " queues") << " of "
            << queue_records(objects.msgq_ids.front()) << " records in use\n"
            << "agent log: " << log_dir << '\n';
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

// varn down: removes the shared objects.
#include <iostream>

#include "collector/objects.h"
#include "tools/varn/verbs.h"

namespace varn {
namespace {

void down(const std::string& path) {
  CollectorSettings settings;
  std::string error;
  if (!read_settings(path, settings, error)) throw Failure(error);
  Removed removed;
  const bool done = remove_objects(settings, removed, error);
  std::cout << removed.objects << " shared objects removed";
  if (removed.records > 0)
    std::cout << ", and " << removed.records << " records nobody had collected";
  std::cout << std::endl;
  if (!done) throw Failure(error);
}

}  // namespace

void add_down(CLI::App& app, int&) {
  const auto path = std::make_shared<std::string>();
  CLI::App* const verb = app.add_subcommand("down", "Removes the shared objects");
  add_config_option(*verb, *path);
  verb->callback([path] { down(*path); });
}

}  // namespace varn

// varn collect: shows the records of an installation until a signal.
#include <poll.h>

#include <cerrno>
#include <csignal>

#include "tools/varn/collecting.h"
#include "tools/varn/verbs.h"

namespace varn {
namespace {

int collect(const std::string& path, const OutputOptions& output) {
  CollectorSettings settings;
  SharedObjects objects;
  std::string error;
  if (!read_settings(path, settings, error)) throw Failure(error);
  if (!open_objects(settings, objects, error))
    throw Failure(error + "; `varn up -c " + path + "` makes the shared objects");

  const SignalQueue signals({SIGINT, SIGTERM, SIGHUP});
  Collecting collecting(objects, output);
  std::fprintf(stderr, "varn: collecting from %zu queues until SIGINT or SIGTERM\n",
               objects.msgq_ids.size());
  pollfd waited[] = {{signals.fd(), POLLIN, 0},
                     {collecting.ended_fd(), POLLIN, 0},
                     {collecting.output_fd(), 0, 0}};
  while (poll(waited, std::size(waited), -1) < 0 && errno == EINTR) {
  }
  collecting.stop();
  collecting.print_summary();
  detach_objects(objects);
  return collecting.ended_early() ? kExitFailed : 0;
}

}  // namespace

void add_collect(CLI::App& app, int& status) {
  struct Options {
    std::string path;
    OutputOptions output;
  };
  const auto options = std::make_shared<Options>();
  CLI::App* const verb = app.add_subcommand("collect", "Shows records until SIGINT or SIGTERM");
  verb->footer(
      "What the queues hold when the signal comes is still shown. The summary follows the\n"
      "records on standard output, or, with --out or JSON, goes to standard error.");
  add_config_option(*verb, options->path);
  add_output_options(*verb, options->output);
  verb->callback([options, &status] { status = collect(options->path, options->output); });
}

}  // namespace varn

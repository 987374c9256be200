// varn: makes the objects that traced processes attach to, collects their records and shows them.
#include <algorithm>
#include <cstdio>
#include <exception>
#include <string>
#include <string_view>
#include <vector>

#include "tools/varn/verbs.h"

int main(int argc, char** argv) {  // NOLINT(bugprone-exception-escape): out of memory ends it
  CLI::App app{"Collects the traces of transactions on this host and shows them."};
  app.name("varn");
  app.set_version_flag("--version", "varn " VARN_VERSION);
  app.require_subcommand(1);
  app.footer(
      "Trace one program, with everything it needs made and removed around it:\n"
      "  varn run -- ./server --port 8080\n"
      "Trace an installation:\n"
      "  varn init varn.cfg; varn up -c varn.cfg; varn collect -c varn.cfg\n"
      "'varn VERB --help' tells more of each.");
  // Everything behind the first "--" of `run` is the command's, whatever it looks like.
  const bool run = argc > 1 && std::string_view(argv[1]) == "run";
  char** const end = argv + argc;
  char** const own_end = run ? std::find(argv, end, std::string_view("--")) : end;
  const std::vector<std::string> command(own_end == end ? end : own_end + 1, end);
  int status = 0;
  varn::add_init(app, status);
  varn::add_up(app, status);
  varn::add_down(app, status);
  varn::add_collect(app, status);
  varn::add_run(app, command, status);
  varn::add_tong(app, status);
  try {
    app.parse(static_cast<int>(own_end - argv), argv);
  } catch (const CLI::ParseError& error) {
    if (app.exit(error) == 0) return 0;
    return run ? varn::kExitRunFailed : varn::kExitUsage;
  } catch (const std::exception& error) {
    std::fprintf(stderr, "varn: %s\n", error.what());
    return run ? varn::kExitRunFailed : varn::kExitFailed;
  }
  return status;
}

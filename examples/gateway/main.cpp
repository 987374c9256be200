// A gateway between the channels and a bank: it takes standard telegrams from TCP connections and
// answers them. Each one is traced with two calls, TRAN_STARTX and TRAN_ENDX, see answer.cpp.
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <asio.hpp>

#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <string>
#include <system_error>

#include "client.h"
#include "server.h"
#include "varn/tran.h"

namespace {

struct Options {
  std::uint16_t port = 0;
  int requests = 32;
};

// A gateway that cannot be traced serves all the same.
struct Tracing {
  Tracing() {
    setenv("VARN_CONSOLE", "off", 0);  // standard output is for what the gateway has to say
    if (const int rc = TRAN_INIT(); rc != TRAN_RC_OK)
      std::fprintf(stderr, "gateway: not traced, TRAN_INIT returned %d\n", rc);
  }
  ~Tracing() { TRAN_DONE(); }
  Tracing(const Tracing&) = delete;
  Tracing& operator=(const Tracing&) = delete;
};

int serve(const Options& options) {
  const Tracing tracing;
  asio::io_context io;
  gateway::Server server(io, options.port);
  asio::signal_set stopping(io, SIGINT, SIGTERM);
  stopping.async_wait([&](std::error_code, int) { server.stop(); });
  std::printf("gateway: listening on 127.0.0.1:%u\n", unsigned{server.port()});
  std::fflush(stdout);
  io.run();
  return EXIT_SUCCESS;
}

int send(const Options& options) {
  return gateway::send_all(options.port, options.requests) ? EXIT_SUCCESS : EXIT_FAILURE;
}

// This program again, as a client of the server on that port.
pid_t start_client(std::uint16_t port, int requests) {
  std::string words[] = {
      "gateway", "send", "--port", std::to_string(port), "-n", std::to_string(requests)};
  char* arguments[std::size(words) + 1] = {};
  for (std::size_t i = 0; i < std::size(words); ++i) arguments[i] = words[i].data();
  pid_t pid = 0;
  if (const int fault = posix_spawn(&pid, "/proc/self/exe", nullptr, nullptr, arguments, environ);
      fault != 0)
    throw std::system_error(fault, std::generic_category(), "cannot start the client");
  return pid;
}

int status_of(pid_t client) {
  int status = 0;
  waitpid(client, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : EXIT_FAILURE;
}

// Serves one client, until it has ended or is told to.
int serve_client(const Options& options) {
  const Tracing tracing;
  asio::io_context io;
  gateway::Server server(io, options.port);
  asio::signal_set signals(io, SIGCHLD, SIGINT, SIGTERM);
  const pid_t client = start_client(server.port(), options.requests);
  signals.async_wait([&](std::error_code, int signal) {
    if (signal != SIGCHLD) kill(client, SIGTERM);
    server.stop();
  });
  io.run();
  return status_of(client);
}

int parse_and_run(int argc, char** argv) {
  Options options;
  int (*run)(const Options&) = serve_client;
  CLI::App app("A gateway for standard telegrams, and a channel that sends them.");
  app.require_subcommand(0, 1);
  app.fallthrough();
  app.add_option("-p,--port", options.port, "Port of 127.0.0.1; 0 serves on any free one")
      ->capture_default_str();
  app.add_option("-n,--requests", options.requests, "Requests to send")
      ->capture_default_str()
      ->check(CLI::Range(1, 1'000'000));
  app.add_subcommand("serve", "Serves until it is told to stop")->callback([&] { run = serve; });
  app.add_subcommand("send", "Sends requests and looks at the answers")->callback([&] {
    if (options.port == 0) throw CLI::RequiredError("--port");
    run = send;
  });
  app.add_subcommand("demo", "Serves, and sends from a second process; so it does by default");
  CLI11_PARSE(app, argc, argv);
  return run(options);
}

}  // namespace

int main(int argc, char** argv) {
  try {
    return parse_and_run(argc, argv);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "gateway: %s\n", error.what());
    return EXIT_FAILURE;
  }
}

// varn init: a configuration file that works as it is.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <iostream>

#include "collector/settings.h"
#include "tools/varn/verbs.h"

namespace varn {
namespace {

// For a shell, whatever the path is made of.
std::string quoted(const std::string& text) {
  constexpr char kPlain[] =
      "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789/._-+=:,@%";
  if (!text.empty() && text.find_first_not_of(kPlain) == std::string::npos) return text;
  std::string out = "'";
  for (const char c : text) {
    if (c == '\'') {
      out += "'\\''";
    } else {
      out += c;
    }
  }
  return out + "'";
}

void write_file(const std::string& path, const std::string& text, bool force) {
  const int fd =
      open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC | (force ? O_TRUNC : O_EXCL), 0644);
  if (fd < 0 && errno == EEXIST) throw Failure(path + " is there already; --force overwrites it");
  bool written = fd >= 0;
  for (std::size_t at = 0; written && at < text.size();) {
    const ssize_t n = write(fd, text.data() + at, text.size() - at);
    written = n > 0 || (n < 0 && errno == EINTR);
    if (n > 0) at += static_cast<std::size_t>(n);
  }
  const int fault = errno;
  if (fd >= 0 && close(fd) < 0) written = false;
  if (!written) throw Failure("cannot write " + path + ": " + std::strerror(fault));
}

void init(const std::string& path, bool force) {
  write_file(path, config_text({}), force);
  const std::filesystem::path whole = std::filesystem::absolute(path).lexically_normal();
  const std::string home = quoted(whole.parent_path());
  std::cout << "wrote " << path << "; traced processes find it through\n"
            << "  export TRAN_HOME=" << home << '\n'
            << "  export TRAN_AGT_HOME=" << home << '\n'
            << "  export TRAN_AGT_CFG_FILE=" << quoted(whole) << '\n';
}

}  // namespace

void add_init(CLI::App& app, int&) {
  struct Options {
    std::string path = "./varn.cfg";
    bool force = false;
  };
  const auto options = std::make_shared<Options>();
  CLI::App* const verb = app.add_subcommand("init", "Writes a commented configuration file");
  verb->add_option("FILE", options->path, "File to write")->capture_default_str();
  verb->add_flag("--force", options->force, "Overwrite a file that is there");
  verb->callback([options] { init(options->path, options->force); });
}

}  // namespace varn

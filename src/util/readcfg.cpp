#include "util/readcfg.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string_view>

#include "util/console.h"

namespace varn {
namespace {

constexpr char kBlanks[] = " \t\r\n\v\f";
constexpr int kLineBuffer = kMaxConfigLine + 2;  // newline and zero byte

enum class Line { kRead, kEnd, kTooLong };

Line read_line(std::FILE* file, char (&line)[kLineBuffer]) {
  if (std::fgets(line, kLineBuffer, file) == nullptr) return Line::kEnd;
  const std::size_t n = std::strlen(line);
  const bool whole = n < kLineBuffer - 1 || line[n - 1] == '\n';
  return whole ? Line::kRead : Line::kTooLong;
}

std::string_view next_word(std::string_view& rest) {
  const std::size_t begin = rest.find_first_not_of(kBlanks);
  if (begin == std::string_view::npos) {
    rest = {};
    return {};
  }
  const std::size_t end = std::min(rest.find_first_of(kBlanks, begin), rest.size());
  const std::string_view word(rest.data() + begin, end - begin);
  rest.remove_prefix(end);
  return word;
}

// Faults that say where they are carry the file's name, which only the outermost call knows.
constexpr int kLineTooLong = -2;

int find_section(std::FILE* file, const char* section, int* lines) {
  std::rewind(file);
  char line[kLineBuffer];
  for (*lines = 1;; ++*lines) {
    switch (read_line(file, line)) {
      case Line::kEnd:
        return -1;
      case Line::kTooLong:
        return kLineTooLong;
      case Line::kRead:
        if (line[0] == '[' && std::strstr(line, section) != nullptr) return *lines;
    }
  }
}

int find_keyword(std::FILE* file, const char* keyword, char* out, int* lines) {
  char line[kLineBuffer];
  for (*lines = 1;; ++*lines) {
    const Line got = read_line(file, line);
    if (got == Line::kTooLong) return kLineTooLong;
    if (got == Line::kEnd || line[0] == '[') return -1;
    if (line[0] == '#' || line[0] == '\n') continue;
    std::string_view rest = line;
    if (next_word(rest) != keyword) continue;
    const char* equals = std::strchr(line, '=');
    const char* value = equals == nullptr ? "" : equals + 1;
    std::strcpy(out, value + std::strspn(value, kBlanks));
    return *lines;
  }
}

constexpr off_t kMostConfigBytes = 1 << 20;

// A plain file of a sensible size: opening a pipe would wait for its writer, and reading a device
// might never end.
std::FILE* open_config(const char* path) {
  const int fd = open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
  if (fd < 0) return nullptr;
  struct stat status = {};
  int fault = fstat(fd, &status) != 0 ? errno : 0;
  if (fault == 0 && !S_ISREG(status.st_mode)) fault = S_ISDIR(status.st_mode) ? EISDIR : EINVAL;
  if (fault == 0 && status.st_size > kMostConfigBytes) fault = EFBIG;
  std::FILE* const file = fault == 0 ? fdopen(fd, "r") : nullptr;
  if (file != nullptr) return file;
  if (fault == 0) fault = errno;
  close(fd);
  errno = fault;
  return nullptr;
}

struct OpenFile {
  std::FILE* file;
  explicit OpenFile(const char* path) : file(open_config(path)) {}
  ~OpenFile() {
    if (file != nullptr) std::fclose(file);
  }
  OpenFile(const OpenFile&) = delete;
  OpenFile& operator=(const OpenFile&) = delete;
};

int split_tokens(std::string_view rest, const char* path, ConfigValue* out) {
  out->count = 0;
  while (out->count < kMaxConfigTokens) {
    const std::string_view word = next_word(rest);
    if (word.empty()) break;
    if (word.size() > kMaxConfigToken) {
      console_printf(STDERR_FILENO,
                     "[get_nth_token_in_file_section] token over %d characters; file=%s, lnum=%d\n",
                     kMaxConfigToken, path, out->line);
      return -1;
    }
    char* token = out->token[out->count++];
    std::memcpy(token, word.data(), word.size());
    token[word.size()] = '\0';
  }
  return 1;
}

int refuse_long_line(const char* path, int line) {
  console_printf(STDERR_FILENO,
                 "[get_nth_token_in_file_section] line over %d characters; file=%s, lnum=%d\n",
                 kMaxConfigLine, path, line);
  return -1;
}

}  // namespace

int seek_section(std::FILE* file, const char* section) {
  int lines = 0;
  const int at = find_section(file, section, &lines);
  if (at > 0) return at;
  console_printf(STDERR_FILENO, "[seek_section] not found section[%s]\n", section);
  return -1;
}

int get_string_in_section(std::FILE* file, const char* keyword, char* out) {
  int lines = 0;
  const int count = find_keyword(file, keyword, out, &lines);
  if (count > 0) return count;
  console_printf(STDERR_FILENO, "[get_string_in_section] not found keyword[%s]\n", keyword);
  return -1;
}

int get_tokens_in_file_section(const char* path, const char* section, const char* keyword,
                               ConfigValue* out) {
  const OpenFile open(path);
  if (open.file == nullptr) {
    console_printf(STDERR_FILENO, "[get_nth_token_in_file_section] fopen fail[%s]; errno=%d(%s)\n",
                   path, errno, std::strerror(errno));
    return -1;
  }
  int header = 0;
  const int at = find_section(open.file, section, &header);
  if (at == kLineTooLong) return refuse_long_line(path, header);
  if (at < 0) {
    console_printf(STDERR_FILENO, "[seek_section] not found section[%s]\n", section);
    console_printf(STDERR_FILENO, "[seek_section] not found section[%s] in file[%s]\n", section,
                   path);
    return -1;
  }
  int lines = 0;
  char value[kLineBuffer];
  const int found = find_keyword(open.file, keyword, value, &lines);
  if (found == kLineTooLong) return refuse_long_line(path, header + lines);
  if (found < 0) {
    console_printf(STDERR_FILENO, "[get_string_in_section] not found keyword[%s]\n", keyword);
    console_printf(STDERR_FILENO,
                   "[get_string_in_section] not found keyword[%s]; file=%s, section=%s\n", keyword,
                   path, section);
    return -1;
  }
  out->line = header + lines;
  return split_tokens(value, path, out);
}

int get_nth_token_in_file_section(const char* path, const char* section, const char* keyword, int n,
                                  char* out) {
  ConfigValue value;
  if (get_tokens_in_file_section(path, section, keyword, &value) < 0) return -1;
  if (n < 1 || n > value.count) {
    console_printf(
        STDERR_FILENO,
        "[get_nth_token_in_file_section] can't found nth(%d) token; file=%s, section=%s, "
        "keyword=%s, lnum=%d\n",
        n, path, section, keyword, value.line);
    return -1;
  }
  std::strcpy(out, value.token[n - 1]);
  return 1;
}

}  // namespace varn

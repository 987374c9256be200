#include "util/readcfg.h"

#include <cstdio>
#include <cstring>
#include <string>

#include "support/support.h"

namespace varn::test {
namespace {

class ConfigFile : public testing::Test {
 protected:
  std::string path() const { return dir_ / "a.cfg"; }
  void write(std::string_view content) { write_file(path(), content); }

  // Token `n`, or what was written to standard error in its place, with "PATH" for the file's name.
  std::string token(const char* section, const char* keyword, int n) {
    char out[64] = "untouched";
    testing::internal::CaptureStderr();
    const int rc = get_nth_token_in_file_section(path().c_str(), section, keyword, n, out);
    std::string errors = testing::internal::GetCapturedStderr();
    for (std::size_t at; (at = errors.find(path())) != errors.npos;)
      errors.replace(at, path().size(), "PATH");
    if (rc == 1) return errors + out;
    EXPECT_EQ(rc, -1);
    EXPECT_STREQ(out, "untouched") << "a failure must leave the buffer as it was";
    EXPECT_FALSE(errors.empty()) << "a failure without a message";
    return errors;
  }

 private:
  TempDir dir_;
};

const std::string kNoKey =
    "[get_string_in_section] not found keyword[KEY]\n"
    "[get_string_in_section] not found keyword[KEY]; file=PATH, section=S\n";

std::string no_token(int n, int line) {
  return "[get_nth_token_in_file_section] can't found nth(" + std::to_string(n) +
         ") token; file=PATH, section=S, keyword=KEY, lnum=" + std::to_string(line) + "\n";
}

TEST_F(ConfigFile, FindsTokensAsTheSyntaxSays) {
  const struct {
    const char* name;
    std::string content;
    int n;
    std::string expected;
  } cases[] = {
      {"first token", "[S]\nKEY = 300 1\n", 1, "300"},
      {"second token", "[S]\nKEY = 300 1\n", 2, "1"},
      {"no third token", "[S]\nKEY = 300 1\n", 3, no_token(3, 2)},
      {"tokens count from one", "[S]\nKEY = 300 1\n", 0, no_token(0, 2)},
      {"no blank before the sign", "[S]\nKEY=a\n", 1, kNoKey},
      {"no blank behind the sign", "[S]\nKEY =a\n", 1, "a"},
      {"blanks before the keyword, tabs", "[S]\n \tKEY\t=\t a\tb\n", 2, "b"},
      {"further signs belong to the value", "[S]\nKEY = a=b = c\n", 1, "a=b"},
      {"no sign: empty value", "[S]\n\nKEY a b\n", 1, no_token(1, 3)},
      {"empty value", "[S]\nKEY =\n", 1, no_token(1, 2)},
      {"first line of a keyword wins", "[S]\nKEY = a\nKEY = b\n", 1, "a"},
      {"keywords match exactly", "[S]\nKEYS = a\nkey = b\nKE = c\n", 1, kNoKey},
      {"comment", "[S]\n#KEY = a\n# KEY = b\nKEY = c\n", 1, "c"},
      {"an indented comment is none", "[S]\n # = a\n #KEY = b\nKEY = c\n", 1, "c"},
      {"keyword before its section", "KEY = a\n[S]\n", 1, kNoKey},
      {"keyword in another section", "[S]\n[T]\nKEY = a\n", 1, kNoKey},
      {"part of a header is enough, the first counts", "[T]\n[XSY]\nKEY = a\n[S]\nKEY = b\n", 1,
       "a"},
      {"the first section counts even without the keyword", "[XS]\n[S]\nKEY = b\n", 1, kNoKey},
      {"a header stands in the first column", " [S]\nKEY = a\n[S]\nKEY = b\n", 1, "b"},
      {"lines that end with carriage return", "[S]\r\n\r\nKEY = a b\r\n", 2, "b"},
      {"last line without newline", "[S]\nKEY = a", 1, "a"},
      {"no section", "[T]\nKEY = a\n", 1,
       "[seek_section] not found section[S]\n"
       "[seek_section] not found section[S] in file[PATH]\n"},
      {"sixteen tokens", "[S]\nKEY = 1 2 3 4 5 6 7 8 9 10 11 12 13 14 15 16 17\n", 16, "16"},
      {"no seventeenth", "[S]\nKEY = 1 2 3 4 5 6 7 8 9 10 11 12 13 14 15 16 17\n", 17,
       no_token(17, 2)},
      {"a token of 63 characters", "[S]\nKEY = " + std::string(63, 'x') + "\n", 1,
       std::string(63, 'x')},
      {"a line of 255 characters", "[S]\nKEY = a" + std::string(247, ' ') + "b\n", 2, "b"},
      {"and the last one so, without newline", "[S]\nKEY = a" + std::string(247, ' ') + "b", 2,
       "b"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    write(c.content);
    EXPECT_EQ(token("S", "KEY", c.n), c.expected);
  }
}

TEST_F(ConfigFile, AnIndentedCommentIsAKeywordLikeAnyOther) {
  write("[S]\n #KEY = a\n");
  EXPECT_EQ(token("S", "#KEY", 1), "a");
}

TEST_F(ConfigFile, RefusesWhatDoesNotFitNamingFileLineAndLimit) {
  const struct {
    const char* name;
    std::string content;
    const char* limit;
    const char* line;
  } cases[] = {
      {"a token of 64", "[S]\n\nKEY = " + std::string(64, 'x') + "\n", "63", "lnum=3"},
      {"the token behind the wanted one", "[S]\nKEY = a " + std::string(64, 'x') + "\n", "63",
       "lnum=2"},
      {"a line of 256", "[S]\nKEY = a" + std::string(248, ' ') + "b\n", "255", "lnum=2"},
      {"the last line, without newline", "[S]\nKEY = a" + std::string(248, ' ') + "b", "255",
       "lnum=2"},
      {"a line before the section", "#" + std::string(256, 'x') + "\n[S]\nKEY = a\n", "255",
       "lnum=1"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    write(c.content);
    const std::string errors = token("S", "KEY", 1);
    for (const char* part : {"PATH", c.limit, c.line})
      EXPECT_NE(errors.find(part), errors.npos) << part << " in: " << errors;
  }
}

TEST_F(ConfigFile, AMissingFileIsReportedWithItsError) {
  EXPECT_EQ(token("S", "KEY", 1), "[get_nth_token_in_file_section] fopen fail[PATH]; errno=2(" +
                                      std::string(std::strerror(ENOENT)) + ")\n");
}

TEST_F(ConfigFile, SeekingCountsLines) {
  write("# one\n[T]\n[S]\n# four\n\nKEY =  a b\n[U]\nLATE = c\n");
  std::FILE* const file = std::fopen(path().c_str(), "r");
  char out[256];
  EXPECT_EQ(seek_section(file, "S"), 3);
  EXPECT_EQ(get_string_in_section(file, "KEY", out), 3);
  EXPECT_STREQ(out, "a b\n");
  EXPECT_EQ(seek_section(file, "T"), 2) << "searches from the top";
  testing::internal::CaptureStderr();
  EXPECT_EQ(get_string_in_section(file, "LATE", out), -1);
  EXPECT_EQ(seek_section(file, "V"), -1);
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "[get_string_in_section] not found keyword[LATE]\n"
            "[seek_section] not found section[V]\n");
  std::fclose(file);
}

}  // namespace
}  // namespace varn::test

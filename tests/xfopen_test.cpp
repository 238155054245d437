// Names to streams.
#include "fileio/xfopen.h"

#include <gtest/gtest.h>
#include <sys/wait.h>

#include <filesystem>
#include <fstream>

namespace {

namespace fs = std::filesystem;

// Each test runs in an empty folder of its own.
class Files : public testing::Test {
 protected:
  Files() {
    char folder[] = "/tmp/vqpack_files_XXXXXX";
    folder_ = mkdtemp(folder);
    fs::current_path(folder_);
  }
  ~Files() override {
    fs::current_path("/");
    fs::remove_all(folder_);
  }

  static int write(const std::string& name, const char* text, const char* mode = "w") {
    FILE* const file = xfopen(name.c_str(), mode);
    if (!file) return -2;
    std::fputs(text, file);
    return xfclose(file);
  }
  // The first line; "null" when the file cannot be opened.
  static std::string read(const std::string& name,
                          FILE* (*open)(const char*, const char*) = xfopen) {
    FILE* const file = open(name.c_str(), "r");
    if (!file) return "null";
    char line[100] = "";
    const bool read = std::fgets(line, sizeof line, file);
    xfclose(file);
    return read ? line : "empty";
  }

 private:
  std::string folder_;
};

TEST_F(Files, ReadingTriesOtherNames) {
  write("both.bz2", "bzip2");
  EXPECT_EQ(read("both"), "bzip2");
  write("both.gz", "gzip");
  EXPECT_EQ(read("both"), "gzip");
  EXPECT_EQ(read("both", xfopen_simple), "null");
  write("both", "plain");
  EXPECT_EQ(read("both"), "plain");
  EXPECT_EQ(read("none"), "null");
  write("none.gz.gz", "another");
  write("none.bz2.gz", "another");
  EXPECT_EQ(read("none.gz"), "null");
  EXPECT_EQ(read("none.bz2"), "null");
}

TEST_F(Files, ClosingReportsFailures) {
  const int status = write("|cat >copy; exit 3", "text");
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 3) << status;
  EXPECT_EQ(write("/dev/full", "text"), EOF);
  std::ofstream("damaged.gz") << "not compressed";
  FILE* const file = xfopen("damaged.gz", "r");
  EXPECT_EQ(std::fgetc(file), EOF);
  EXPECT_NE(xfclose(file), 0);
}

TEST_F(Files, ProcessesThatCannotStart) {
  EXPECT_EQ(xfopen(('|' + std::string(1 << 18, 'x')).c_str(), "w"), nullptr);
  setenv("TOO_LONG", std::string(1 << 18, 'x').c_str(), 1);
  EXPECT_EQ(write("a.gz", "text"), -2);
  EXPECT_EQ(read("true|"), "null");
  unsetenv("TOO_LONG");
  EXPECT_EQ(write("a.gz", "text"), 0);
}

TEST_F(Files, ModesOfCompressedFiles) {
  EXPECT_EQ(write("a.gz", "one"), 0);
  EXPECT_EQ(write("a.gz", "two", "a"), 0);
  EXPECT_EQ(read("a.gz"), "onetwo");
  EXPECT_EQ(write("a.gz", "new"), 0);
  EXPECT_EQ(read("a.gz"), "new");
  EXPECT_EQ(xfopen("a.gz", "x"), nullptr);
  EXPECT_EQ(write("missing/a.gz", "text"), -2);
}

TEST_F(Files, SeveralPipesAtOnce) {
  FILE* const first = xfopen("first.gz", "w");
  FILE* const second = xfopen("second.gz", "w");
  FILE* const third = xfopen("third", "w");
  for (FILE* const file : {first, second, third}) std::fputs("text", file);
  for (FILE* const file : {second, third, first}) EXPECT_EQ(xfclose(file), 0);
  for (const char* const name : {"first", "second", "third"}) EXPECT_EQ(read(name), "text") << name;
}

}  // namespace

// The C interface: what it reads and writes, where it fails, and what it leaves.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "c/vqpack.h"

namespace fs = std::filesystem;

static_assert(sizeof(vqpack_transaction) == 24 && sizeof(vqpack_error) == 40 &&
              sizeof(vqpack_sensitivity) == 28 && sizeof(vqpack_metadata) == 88 &&
              sizeof(vqpack_summary) == 24);

namespace {

struct closer {
  void operator()(vqpack_reader* reader) const { vqpack_reader_close(reader); }
  void operator()(vqpack_writer* writer) const { vqpack_writer_close(writer); }
};
using reader_ptr = std::unique_ptr<vqpack_reader, closer>;
using writer_ptr = std::unique_ptr<vqpack_writer, closer>;
using transactions = std::vector<vqpack_transaction>;

transactions make_trace(std::size_t size) {
  transactions trace(size);
  for (std::size_t i = 0; i < size; ++i)
    trace[i] = {static_cast<int64_t>(i * i % 4096 * 64), int32_t(i % 3), uint32_t(i % 5), 28, {}};
  return trace;
}

vqpack_metadata metadata_for(int file_type) {
  vqpack_metadata metadata;
  vqpack_metadata_init(&metadata, file_type);
  return metadata;
}

writer_ptr create(const std::string& name, const vqpack_metadata& metadata = metadata_for(1)) {
  return writer_ptr(vqpack_create(name.c_str(), &metadata, VQPACK_WINDOW));
}

int write(const writer_ptr& writer, const transactions& trace) {
  return vqpack_write(writer.get(), trace.data(), trace.size());
}

int finish(const writer_ptr& writer) { return vqpack_finish(writer.get(), nullptr); }

// As text, which is easily compared.
std::string text_of(const transactions& trace, bool counted) {
  std::ostringstream text;
  for (const vqpack_transaction& t : trace)
    text << vqpack_type_name(t.type) << ' ' << t.address << ' ' << t.agent << ' '
         << (counted ? t.count : 1) << '\n';
  return text.str();
}

transactions read_all(vqpack_reader* reader, std::size_t batch) {
  transactions all, part(batch);
  for (int64_t got; (got = vqpack_read(reader, part.data(), batch)) > 0;)
    all.insert(all.end(), part.begin(), part.begin() + got);
  return all;
}

// A folder of its own.
class c_interface : public testing::Test {
 protected:
  c_interface() { fs::create_directories(folder_); }
  ~c_interface() override { fs::remove_all(folder_); }

  std::string path(const std::string& name) const { return folder_ / name; }
  std::size_t files() const {
    return std::size_t(std::distance(fs::directory_iterator(folder_), fs::directory_iterator()));
  }
  std::string put(const std::string& name, const std::string& content) const {
    std::ofstream(path(name), std::ios::binary) << content;
    return path(name);
  }
  static std::string content(const std::string& name) {
    std::ostringstream all;
    all << std::ifstream(name, std::ios::binary).rdbuf();
    return all.str();
  }

 private:
  fs::path folder_ = fs::temp_directory_path() / ("vqpack_c_test." + std::to_string(getpid()));
};

TEST_F(c_interface, what_is_written_is_read_back) {
  const transactions trace = make_trace(10000);
  const vqpack_sensitivity point{1, 2, 3, 4, 5, 6, 7};
  for (int type = 0; type < 6; ++type)
    for (const char* const name : {"run.qu", "run.qu.gz", "run.qu.bz2"}) {
      SCOPED_TRACE(std::to_string(type) + " " + name);
      vqpack_metadata metadata = metadata_for(type);
      metadata.transactions = int64_t(trace.size());
      metadata.sensitivity = &point;
      metadata.sensitivity_count = 1;
      metadata.comment = "a comment";
      const writer_ptr writer = create(path(name), metadata);
      EXPECT_EQ(vqpack_write(writer.get(), trace.data(), 3), 0);
      EXPECT_EQ(vqpack_write(writer.get(), trace.data() + 3, trace.size() - 3), 0);
      vqpack_summary summary;
      ASSERT_EQ(vqpack_finish(writer.get(), &summary), 0)
          << vqpack_writer_error(writer.get())->text;
      EXPECT_EQ(summary.transactions, int64_t(trace.size()));
      EXPECT_EQ(vqpack_write(writer.get(), trace.data(), 1), -1);
      EXPECT_EQ(vqpack_writer_error(writer.get())->code, VQPACK_MISUSE);

      const reader_ptr reader(vqpack_open(path(name).c_str()));
      const vqpack_metadata* const read = vqpack_reader_metadata(reader.get());
      ASSERT_NE(read, nullptr) << vqpack_reader_error(reader.get())->text;
      EXPECT_EQ(read->file_type, type);
      EXPECT_EQ(read->context_coded, type != 0);
      EXPECT_EQ(read->sensitivity_count, type >= 2);
      EXPECT_STREQ(read->comment, type >= 4 ? "a comment" : nullptr);
      const bool counted = type == 3 || type == 5;
      EXPECT_EQ(text_of(read_all(reader.get(), 777), true), text_of(trace, counted));
      EXPECT_EQ(vqpack_reader_error(reader.get())->code, VQPACK_OK);
      EXPECT_EQ(vqpack_read(reader.get(), nullptr, 5), 0);
    }
}

TEST_F(c_interface, what_cannot_be_read_is_an_error) {
  const std::string good = put("good.velk", "MEMRD 8 0\n");
  ASSERT_EQ(std::system(("gzip -k " + good).c_str()), 0);
  std::string damaged = content(good + ".gz");
  damaged.resize(damaged.size() - 6);
  put("damaged.gz", damaged);
  put("short.qu", "QU\1");
  put("bad.velk", "MEMRD 8 0\nMEMRD 8\n");
  const struct {
    std::string name;
    int code, system_error;
  } cases[] = {
      {path("none"), VQPACK_CANNOT_OPEN, ENOENT},   {path("none.gz"), VQPACK_CANNOT_OPEN, ENOENT},
      {path(""), VQPACK_CANNOT_OPEN, EISDIR},       {"", VQPACK_CANNOT_OPEN, ENOENT},
      {"|cat " + good, VQPACK_CANNOT_OPEN, ENOENT}, {path("damaged.gz"), VQPACK_CANNOT_READ, 0},
      {path("short.qu"), VQPACK_BAD_INPUT, 0},      {path("bad.velk"), VQPACK_BAD_INPUT, 0},
  };
  for (const auto& each : cases) {
    SCOPED_TRACE(each.name);
    const reader_ptr reader(vqpack_open(each.name.c_str()));
    read_all(reader.get(), 10);
    EXPECT_EQ(vqpack_read(reader.get(), nullptr, 0), -1);  // it stays that way
    EXPECT_EQ(vqpack_reader_error(reader.get())->code, each.code);
    EXPECT_EQ(vqpack_reader_error(reader.get())->system_error, each.system_error);
  }
  const reader_ptr reader(vqpack_open_descriptor(-1));
  EXPECT_EQ(vqpack_reader_error(reader.get())->system_error, EBADF);
  EXPECT_EQ(vqpack_reader_error(nullptr)->code, VQPACK_NO_MEMORY);
  EXPECT_EQ(vqpack_read(nullptr, nullptr, 0), -1);
}

TEST_F(c_interface, a_name_changes_hands_when_the_file_is_whole) {
  const std::string target = put("old", "kept"), link = path("link");
  fs::create_symlink("old", link);
  fs::permissions(target, fs::perms(0640));
  transactions refused = make_trace(3);
  refused[1].address = 3;
  writer_ptr writer = create(link);
  EXPECT_EQ(write(writer, make_trace(100000)), 0);
  EXPECT_EQ(files(), 3u);
  writer = create(target);
  EXPECT_EQ(write(writer, refused), -1);
  EXPECT_EQ(vqpack_writer_error(writer.get())->code, VQPACK_REFUSED);
  EXPECT_EQ(vqpack_writer_error(writer.get())->record, 2);
  EXPECT_EQ(finish(writer), -1);
  writer.reset();
  EXPECT_EQ(content(target), "kept");
  EXPECT_EQ(files(), 2u);
  EXPECT_EQ(finish(create(link)), 0);
  EXPECT_EQ(files(), 2u);
  EXPECT_TRUE(fs::is_symlink(link));
  EXPECT_EQ(content(target).substr(0, 3), "QU\1");
  EXPECT_EQ(fs::status(target).permissions(), fs::perms(0640));
}

TEST_F(c_interface, what_cannot_be_written_is_an_error) {
  signal(SIGPIPE, SIG_DFL);
  int ends[2];
  ASSERT_EQ(pipe(ends), 0);
  close(ends[0]);
  const vqpack_metadata good = metadata_for(1);
  vqpack_metadata wide = metadata_for(2), negative = metadata_for(3), without_points = good;
  wide.threads = 1 << 16;
  negative.instructions = -1;
  without_points.sensitivity_count = 1;
  const auto failure = [](const writer_ptr& writer) {
    write(writer, make_trace(200000));
    EXPECT_EQ(finish(writer), -1);
    return vqpack_writer_error(writer.get())->code;
  };
  EXPECT_EQ(failure(create("/dev/full")), VQPACK_CANNOT_WRITE);
  fs::create_symlink("/dev/full", path("full.gz"));
  EXPECT_EQ(finish(create(path("full.gz"))), -1);  // gzip alone notices
  EXPECT_EQ(failure(create(path("no/where"))), VQPACK_CANNOT_OPEN);
  EXPECT_EQ(failure(create(path(""))), VQPACK_CANNOT_OPEN);
  EXPECT_EQ(failure(create(path("x"), metadata_for(6))), VQPACK_MISUSE);
  EXPECT_EQ(failure(create(path("x"), wide)), VQPACK_REFUSED);
  EXPECT_EQ(failure(create(path("x"), negative)), VQPACK_REFUSED);
  EXPECT_EQ(failure(create(path("x"), without_points)), VQPACK_MISUSE);
  EXPECT_EQ(failure(writer_ptr(vqpack_create(nullptr, nullptr, 0))), VQPACK_MISUSE);
  EXPECT_EQ(failure(writer_ptr(vqpack_create_descriptor(ends[1], &good, VQPACK_WINDOW))),
            VQPACK_CANNOT_WRITE);
  EXPECT_EQ(files(), 1u);
  close(ends[1]);
}

// Signals while a pipe is full, and a file that may not grow.
TEST_F(c_interface, signals_do_not_matter) {
  struct sigaction caught {};
  caught.sa_handler = [](int) {};
  sigaction(SIGALRM, &caught, nullptr);
  const itimerval often{{0, 500}, {0, 500}}, never{};
  const transactions trace = make_trace(300000);
  setitimer(ITIMER_REAL, &often, nullptr);
  const writer_ptr packed = create(path("run.gz"), metadata_for(0));
  EXPECT_EQ(write(packed, trace), 0);
  EXPECT_EQ(finish(packed), 0) << vqpack_writer_error(packed.get())->text;
  const reader_ptr reader(vqpack_open(path("run").c_str()));
  EXPECT_EQ(read_all(reader.get(), 1000).size(), trace.size());
  setitimer(ITIMER_REAL, &never, nullptr);

  rlimit before;
  getrlimit(RLIMIT_FSIZE, &before);
  const rlimit small{100000, before.rlim_max};
  setrlimit(RLIMIT_FSIZE, &small);
  writer_ptr writer = create(path("run.qu"), metadata_for(0));
  EXPECT_EQ(write(writer, trace), -1);
  EXPECT_EQ(vqpack_writer_error(writer.get())->system_error, EFBIG);
  writer.reset();
  setrlimit(RLIMIT_FSIZE, &before);
  EXPECT_EQ(files(), 1u);
}

TEST_F(c_interface, names_of_all_kinds_are_written) {
  fs::create_symlink("target", path("dangling"));
  fs::create_directory(path("elsewhere"));
  const fs::path here = fs::current_path();
  fs::current_path(path(""));
  for (const std::string& name :
       {std::string("relative"), std::string("dangling"), std::string(255, 'x')}) {
    const writer_ptr writer = create(name);
    fs::current_path(path("elsewhere"));
    EXPECT_EQ(finish(writer), 0) << vqpack_writer_error(writer.get())->text;
    fs::current_path(path(""));
    EXPECT_EQ(content(name).substr(0, 3), "QU\1");
  }
  fs::current_path(here);
  EXPECT_TRUE(fs::is_symlink(path("dangling")) && fs::is_regular_file(path("target")));
  EXPECT_EQ(files(), 5u);
}

// Where nobody reads the pipe, it would wait forever.
TEST_F(c_interface, what_is_not_finished_is_not_written) {
  int ends[2];
  ASSERT_EQ(pipe(ends), 0);
  fcntl(ends[0], F_SETFL, O_NONBLOCK);
  const vqpack_metadata metadata = metadata_for(1);
  writer_ptr writer(vqpack_create_descriptor(ends[1], &metadata, VQPACK_WINDOW));
  EXPECT_EQ(write(writer, make_trace(100)), 0);
  writer.reset();
  char byte;
  EXPECT_EQ(read(ends[0], &byte, 1), -1);
  for (const int end : ends) close(end);
}

TEST(c_interface_types, have_names_and_codes) {
  for (unsigned code = 0; code < 68; ++code)
    EXPECT_EQ(vqpack_type_code(vqpack_type_name(code)), int(code));
  EXPECT_EQ(vqpack_type_name(68), nullptr);
  EXPECT_EQ(vqpack_type_code("MEMRD64"), -1);
  EXPECT_EQ(vqpack_type_code(nullptr), -1);
}

}  // namespace

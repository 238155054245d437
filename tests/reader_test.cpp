// The reader: lines of text, and how much a trace holds.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>

#include "coder/line_scan.h"
#include "support.h"

namespace {

// A file that can seek, at its start.
file_ptr file_of(const std::string& text) {
  file_ptr file(std::tmpfile());
  std::fwrite(text.data(), 1, text.size(), file.get());
  std::rewind(file.get());
  return file;
}

// A pipe's reading end, with all of the text (at most 64 KiB) inside.
file_ptr pipe_of(const std::string& text) {
  int ends[2];
  if (pipe(ends) != 0 || write(ends[1], text.data(), text.size()) != ssize_t(text.size()))
    return {};
  close(ends[1]);
  return file_ptr(fdopen(ends[0], "r"));
}

// What reading gives: "code address agent count" a transaction, then the error.
std::string read_lines(const std::string& text) {
  const decoded read = read_all(file_of(text).get());
  std::ostringstream result;
  for (const transaction& t : read.transactions)
    result << std::hex << int(t.trans) << ' ' << t.addr << ' ' << t.agent << ' ' << t.count << '|';
  return result.str() + read.error;
}

TEST(Reader, Lines) {
  using namespace std::string_literals;
  const std::string bad = "Bad input line, at record 1",
                    unknown = "Unknown transaction, at record 1",
                    third = "Bad input line, at record 3", blanks(90, ' ');
  const struct {
    const char* what;
    std::string text, result;
  } rows[] = {
      {"as they are printed", "  MEMRD64B 00001040 1f 2\n", "1c 1040 1f 2|"},
      {"no newline at the end", "MEMRD 8 1\nIORD 8 1 2", "4 8 1 1|2 8 1 2|"},
      {"a carriage return after the count", "MEMRD 8 1 5\r\n", bad},
      {"a carriage return without a count", "MEMRD 8 1\r\n", "4 8 1 1|"},
      {"an unknown name", "MEMRDX 8 1\n", unknown},
      {"a NUL after the count", "MEMRD 8 1 5\0x\n"s, "4 8 1 5|"},
      {"two lines on", "IORD 8 1\nIORD 8 1\nIORD 8\n", "2 8 1 1|2 8 1 1|" + third},
      {"the 100th character", "IORD 8 1" + blanks + " IORD 8 2\n", "2 8 1 1|2 8 2 1|"},
      {"a newline as the 99th character", "IORD 8 1" + blanks + "\nIORD 8 2\n", "2 8 1 1|2 8 2 1|"},
      {"looks like a QUBIX", "QMEMRD 8 1\n", "No magic number; is this a QUBIX?"},
  };
  for (const auto& row : rows) EXPECT_EQ(read_lines(row.text), row.result) << row.what;
}

TEST(Reader, UsualLinesTakeTheFastScan) {
  std::string text;
  for (int i = 0; i < 68; ++i) {
    char line[100];
    std::snprintf(line, sizeof line, "%10s %08llX %x%s\n", VQcomp::FSB_transactions[i],
                  ~0ULL >> i % 64, ~0u >> i % 32, i % 3 ? i % 2 ? " 12345678" : " 0 more" : "");
    text += line;
  }
  const std::string padded = std::string(16, ' ') + text + std::string(64, ' ');
  const char* at = padded.data() + 16;
  VQtransaction taken[68];
  EXPECT_EQ(vqpack::detail::line_scan::scan_usual_lines(at, at + text.size(), taken, 68), 68u);
  EXPECT_EQ(taken[67].trans, 67);
}

TEST(Reader, NeedsAFile) {
  velk_reader reader(nullptr, nullptr);
  transaction t;
  EXPECT_EQ(error_of([&] { reader.length(); }), "No input file open");
  EXPECT_EQ(error_of([&] { reader.read(t.trans, t.addr, t.agent); }), "No input file open");
}

// Delivers some bytes, a few at a time and interrupted by signals; then the stream ends or fails.
struct unsteady_input {
  bytes data;
  int last_error;  // 0: none
  std::size_t taken = 0;
  bool interrupted = false;

  static ssize_t read(void* cookie, char* to, std::size_t size) {
    auto& input = *static_cast<unsteady_input*>(cookie);
    const std::size_t left = std::min({size, std::size_t(700), input.data.size() - input.taken});
    input.interrupted = !input.interrupted;
    errno = input.interrupted ? EINTR : input.last_error;
    if (input.interrupted || (left == 0 && input.last_error)) return -1;
    std::copy_n(input.data.begin() + ssize_t(input.taken), left, to);
    input.taken += left;
    return ssize_t(left);
  }
  file_ptr open() { return file_ptr(fopencookie(this, "r", {read, nullptr, nullptr, nullptr})); }
};

decoded read_unsteadily(const bytes& data, int last_error) {
  unsteady_input input{data, last_error};
  return read_all(input.open().get());
}

TEST(Reader, ABadHeaderStaysBad) {
  const bytes file = encode({}, {5, true});
  for (const std::size_t size : {std::size_t(20), file.size()}) {
    bytes damaged(file.begin(), file.begin() + ssize_t(size));
    damaged[10] ^= 1;
    const file_ptr stream = open_bytes(damaged);
    velk_reader reader(stream.get(), nullptr);
    EXPECT_NE(error_of([&] { delete reader.pruv_header(false); }), "no error");
    transaction t;
    EXPECT_NE(error_of([&] { reader.read(t.trans, t.addr, t.agent, t.count); }), "no error");
  }
}

TEST(Reader, AFailedReadIsNotTheEnd) {
  const transaction first{4, 8, 1, 1}, second{4, 8, 1, 11006};
  const struct {
    std::string text;
    decoded cut;
    trace whole;
  } rows[] = {
      {"MEMRD 8 1\nMEMRD 8 1 11006", {{first}, "Can't read input, at record 2"}, {first, second}},
      {"MEMRD 8 1\n", {{first}, "Can't read input, at record 2"}, {first}},
      {"", {{}, "Can't read input"}, {}}};
  for (const auto& row : rows) {
    const bytes text(row.text.begin(), row.text.end());
    EXPECT_TRUE(read_unsteadily(text, EIO) == row.cut) << row.text;
    EXPECT_TRUE(read_unsteadily(text, 0) == (decoded{row.whole, ""})) << row.text;
  }
  for (const coding c : all_codings) {
    const trace transactions = random_trace(4, 400, c);
    const bytes file = encode(transactions, c);
    EXPECT_TRUE(read_unsteadily(file, 0) == (decoded{transactions, ""})) << c;
    for (std::size_t size : {std::size_t(3), std::size_t(10), file.size() / 2, file.size()}) {
      const bytes cut(file.begin(), file.begin() + ssize_t(size));
      const decoded read = read_unsteadily(cut, EAGAIN);
      EXPECT_TRUE(read.transactions == decode(cut).transactions) << c << ' ' << size;
      EXPECT_TRUE(read.error.starts_with("Can't read input")) << c << ' ' << size << read.error;
    }
  }
}

TEST(Reader, CountsLinesInPieces) {
  std::string long_text;
  for (int i = 0; i < 3000; ++i) long_text += std::string(std::size_t(90 + i % 10), 'x') + '\n';
  const std::pair<std::string, long long> rows[] = {{"", 0},
                                                    {"x\n\ny", 3},
                                                    {std::string(97, 'x') + "\n", 1},
                                                    {std::string(98, 'x') + "\n", 2},
                                                    {long_text, 3600}};
  for (const auto& [text, lines] : rows) {
    const file_ptr file = file_of(text);
    velk_reader reader(file.get(), nullptr);
    const std::unique_ptr<PRUV_header_t> header(reader.pruv_header(true));
    EXPECT_EQ(header->trans_count, lines);
    EXPECT_EQ(header->cycle_count, lines);
    EXPECT_EQ(reader.needs_rewind(), lines > 0);
    EXPECT_TRUE(reader.is_text());
  }
}

// The trailer is the last four bytes, wherever a chunk of 1024 bytes ends.
TEST(Reader, FindsTheCountTrailer) {
  for (std::size_t size = 11; size < 3080; size += (size % 1024 < 8 || size % 1024 > 1020) ? 1 : 7)
    for (const auto open : {file_of, pipe_of}) {
      const file_ptr file =
          open("QU\1\xFF\xFF\xFF\xFF" + std::string(size - 11, 'x') + "\4\3\2\x81");
      velk_reader reader(file.get(), nullptr);
      ASSERT_EQ(reader.length(), 0x81020304u) << size;
      EXPECT_TRUE(reader.needs_rewind());
      EXPECT_TRUE(reader.is_text());
    }
}

TEST(Reader, CountOfThePreambleNeedsNoRewind) {
  const coding c{4, true};
  const trace transactions = random_trace(1, 900, c);
  const bytes data = encode(transactions, c);
  const file_ptr file = open_bytes(data);
  velk_reader reader(file.get(), nullptr);
  const std::unique_ptr<PRUV_header_t> header(reader.pruv_header(true));
  EXPECT_EQ(header->trans_count, static_cast<long long>(transactions.size()));
  EXPECT_EQ(header->trans_name_count, 68);
  EXPECT_FALSE(reader.needs_rewind());
  EXPECT_EQ(reader.length(), transactions.size());
  EXPECT_EQ(error_of([&] { reader.pruv_header(false); }), "PRUV header has already been taken");
}

}  // namespace

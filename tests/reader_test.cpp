// The reader: lines of text, and how much a trace holds.
#include <gtest/gtest.h>

#include <cerrno>

#include "coder/line_scan.h"
#include "support.h"

namespace {

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
    const file_ptr stream = file_of(damaged);
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
    for (const bool seeks : {true, false}) {
      const std::string text = "QU\1\xFF\xFF\xFF\xFF" + std::string(size - 11, 'x') + "\4\3\2\x81";
      unsteady_input input{{text.begin(), text.end()}, 0};
      const file_ptr file = seeks ? file_of(text) : input.open();
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
  const file_ptr file = file_of(data);
  velk_reader reader(file.get(), nullptr);
  const std::unique_ptr<PRUV_header_t> header(reader.pruv_header(true));
  EXPECT_EQ(header->trans_count, static_cast<long long>(transactions.size()));
  EXPECT_EQ(header->trans_name_count, 68);
  EXPECT_FALSE(reader.needs_rewind());
  EXPECT_EQ(reader.length(), transactions.size());
  EXPECT_EQ(error_of([&] { reader.pruv_header(false); }), "PRUV header has already been taken");
}

}  // namespace

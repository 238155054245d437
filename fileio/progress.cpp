#include "fileio/progress.h"

#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <iostream>
#include <utility>

namespace {

constexpr std::chrono::seconds patience(2);
constexpr std::chrono::milliseconds period(250);
// Transactions between two looks at the clock. One look takes a thousandth of their time.
constexpr unsigned long long look_interval = 1024;

// The columns that a line may fill: all but the last, after which some terminals wrap.
std::size_t usable_width() {
  winsize window;
  const bool known = ioctl(STDERR_FILENO, TIOCGWINSZ, &window) == 0 && window.ws_col > 0;
  return known ? window.ws_col - 1U : 79;
}

// A background job must leave the terminal to the shell.
bool in_background() {
  const pid_t foreground = tcgetpgrp(STDERR_FILENO);
  return foreground != -1 && foreground != getpgrp();
}

template <class... Values>
std::string formatted(const char* format, Values... values) {
  char text[64];
  std::snprintf(text, sizeof text, format, values...);
  return text;
}

// "9999", "10.0 k", "12.3 M"
std::string amount(double n) {
  if (n < 10000) return formatted("%.0f", std::floor(n));
  const char* unit = " kMGTPE";
  while (n >= 999.95) {
    n /= 1000;
    ++unit;
  }
  return formatted("%.1f %c", n, *unit);
}

// "0:07", "12:34:56"
std::string duration(double seconds) {
  const double minutes = std::floor(seconds / 60), hours = std::floor(minutes / 60);
  const int s = int(seconds - 60 * minutes), m = int(minutes - 60 * hours);
  return hours > 0 ? formatted("%.0f:%02d:%02d", hours, m, s) : formatted("%d:%02d", m, s);
}

}  // namespace

progress_line::progress_line(FILE* input)
    : input_(input), next_show_(start_ + patience), start_offset_(ftello(input)) {}

progress_line::~progress_line() {
  if (shown_ == 0 || in_background()) return;
  show("", usable_width());
  std::cerr << '\r' << std::flush;
}

void progress_line::count(std::size_t transactions) {
  transactions_ += transactions;
  if (transactions_ < next_look_) return;
  next_look_ = transactions_ + look_interval;
  const clock::time_point now = clock::now();
  if (now < next_show_ || in_background()) return;
  next_show_ = now + period;
  const std::size_t width = usable_width();
  show(text(std::chrono::duration<double>(now - start_).count(), width), width);
}

// The first parts matter most; those that do not fit are left out. Once the whole file has been
// read into buffers, its size no longer says how much is left: a few bytes of QUBIX may stand for
// very many transactions.
std::string progress_line::text(double seconds, std::size_t width) const {
  std::string words;
  const auto add = [&](const std::string& part) {
    const std::string separator = words.empty() ? "" : ", ";
    if (words.size() + separator.size() + part.size() <= width) words += separator + part;
  };
  struct stat status;  // asked for each time: the file may be growing
  const off_t offset = ftello(input_);
  if (offset > start_offset_ && fstat(fileno(input_), &status) == 0 && S_ISREG(status.st_mode) &&
      offset < status.st_size) {
    const double done = double(offset - start_offset_), left = double(status.st_size - offset);
    add(formatted("%d%%", int(100 * double(offset) / double(status.st_size))));
    add(duration(std::ceil(seconds * left / done)) + " left");
  }
  add(amount(double(transactions_)) + " transactions");
  add(amount(double(transactions_) / seconds) + "/s");
  return words;
}

// Overwrites the rest of the old line with blanks, which works on every terminal.
void progress_line::show(std::string words, std::size_t width) {
  const std::size_t before = std::exchange(shown_, words.size());
  words.resize(std::max(words.size(), std::min(before, width)), ' ');
  std::cerr << '\r' + words << std::flush;
}

// A line on the terminal that shows how far a long conversion is.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <cstdio>
#include <string>

// Shows on standard error, which must be a terminal, the part of the input that has been read, the
// time that the rest takes, the number of transactions and their rate. The line appears two seconds
// after the object was made and changes at most four times a second. The destructor wipes it; until
// then nothing else may be written to the terminal.
//
// Only count() looks at the clock: a timer's signals could interrupt a read, which would look like
// the end of the input. While an input keeps the program waiting, the line stays as it is.
class progress_line {
 public:
  // Measures from the position of `input`, which the caller reads and which must outlive the line.
  explicit progress_line(FILE* input);
  ~progress_line();
  progress_line(const progress_line&) = delete;
  progress_line& operator=(const progress_line&) = delete;

  // Adds transactions that have been read, and shows or renews the line when it is time.
  void count(std::size_t transactions);

 private:
  using clock = std::chrono::steady_clock;

  std::string text(double seconds, std::size_t width) const;
  void show(std::string words, std::size_t width);

  FILE* input_;
  clock::time_point start_ = clock::now();
  clock::time_point next_show_;
  off_t start_offset_;
  unsigned long long transactions_ = 0;
  unsigned long long next_look_ = 0;  // the count at which to look at the clock again
  std::size_t shown_ = 0;             // columns on the terminal
};

// How far a long conversion is, told by one line on the terminal.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <cstdio>
#include <string>

#include "coder/vqcomp.h"

// A reader that shows on standard error, which must be a terminal, how far it has come: what part
// of the input, when the rest will be done, how many transactions, how fast. The line appears two
// seconds after the reader was made, is renewed four times a second while transactions come, and is
// wiped when read() delivers the last one or throws, and by the destructor. Until then nothing else
// may be written to the terminal.
//
// The clock is looked at between two reads: no signal disturbs them, which could make an input seem
// to end, and an input that keeps us waiting lets the line stand as it is. length() shows nothing.
class watched_reader : public velk_reader {
 public:
  // Watches from where `input` stands, as part of the whole file if it is a regular one.
  explicit watched_reader(FILE* input);
  ~watched_reader() override;

  using velk_reader::read;
  std::size_t read(VQtransaction* transactions, std::size_t size) override;

 private:
  using clock = std::chrono::steady_clock;

  void count(std::size_t transactions);
  std::string line(double seconds, std::size_t width) const;
  void show(std::string words, std::size_t width);
  void wipe();

  clock::time_point start_ = clock::now();
  clock::time_point next_show_;
  off_t start_offset_;
  unsigned long long transactions_ = 0;
  unsigned long long next_look_ = 0;  // at the clock
  std::size_t shown_ = 0;             // columns on the terminal
};

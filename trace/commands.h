// The sub-commands: what their arguments say, and what runs them. Each returns the exit status, as
// vqpack(1) has it: 0; 1 for a fault in an input, after which an output is whole and holds what
// came before; each throws `command_error` for the rest.
#pragma once

#include <cstdint>
#include <limits>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace vqtrace {

struct info_settings {
  std::vector<std::string> files;
  unsigned line = 64;  // bytes, a power of two from 8 on
  bool json = false;
  bool quiet = false;
};
int run_info(const info_settings& settings);

struct test_settings {
  std::vector<std::string> files;
  bool quiet = false;
};
int run_test(const test_settings& settings);

struct split_settings {
  std::uint64_t size = 0;  // transactions a part
  std::string in, pattern;
  std::optional<int> version;  // file type, -1: text; not given: that of the input. Likewise below
  bool quiet = false;
};
int run_split(const split_settings& settings);

struct cat_settings {
  std::vector<std::string> files;  // the last is the output
  std::optional<int> version;
  bool quiet = false;
};
int run_cat(const cat_settings& settings);

struct filter_settings {
  std::string in, out;
  std::set<int> agents;         // empty: all
  std::set<std::string> types;  // names, "read" and "write" among them; empty: all
  std::uint64_t low = 0;        // of the byte addresses, both inclusive
  std::uint64_t high = std::numeric_limits<std::uint64_t>::max();
  std::uint64_t begin = 0;  // of the 0-based positions in the input
  std::uint64_t end = std::numeric_limits<std::uint64_t>::max();  // exclusive
  std::uint64_t every = 1;
  std::optional<int> version;
  bool quiet = false;
};
int run_filter(const filter_settings& settings);

struct import_settings {
  std::string format;
  std::vector<std::string> files;    // the last is the output
  std::optional<std::string> cache;  // levels, as parse_caches() takes them
  unsigned line = 64;                // bytes, a power of two from 8 to 4096
  std::uint64_t period = 1;          // units of the input's time that are one of the count
  int version = 5;
  bool skip_bad = false;
  bool quiet = false;
};
int run_import(const import_settings& settings);

struct export_settings {
  std::string format;
  std::string in, out;
  std::uint64_t period = 1;
  bool quiet = false;
};
int run_export(const export_settings& settings);

}  // namespace vqtrace

#include "driver/arguments.h"

#include <charconv>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <string>
#include <string_view>
#include <system_error>

#include "coder/vqcomp.h"

namespace {

constexpr int last_version = 5;

// The header's `compression` by output file type and compression_choice; -1: impossible.
constexpr int compress_ok[last_version + 1][3] = {{0, -1, 0}, {-1, 1, 1}, {0, 1, 1},
                                                  {0, 1, 1},  {0, 1, 1},  {0, 1, 1}};

// A switch as it stands on the command line.
struct given_switch {
  const char* letters;        // what follows the '-'
  const char* text;           // the value; null if it takes none ...
  unsigned long long number;  // ... the same as a number, if it takes one
};

refusal refused_switch(std::string_view name, const char* fault) {
  return {std::string("-").append(name).append(" ").append(fault)};
}

refusal unknown_switch(std::string_view letters, std::size_t significant) {
  return refused_switch(letters.substr(0, significant), "unknown switch");
}

void set_version(run_settings& run, const given_switch& given) {
  if (given.number > last_version) throw refusal{"Version (-v) must be 0 - 5\n"};
  run.version = int(given.number);
}

void set_metadata(run_settings& run, const given_switch& given) {
  const metadata_field* const field = find_metadata_field(given.letters[1]);
  if (!field) throw unknown_switch(given.letters, 2);
  run.edits.metadata.push_back({field, given.number});
}

void open_sensitivity(run_settings& run, const given_switch& given) {
  run.edits.sensitivity.reset(std::fopen(given.text, "r"));
  if (!run.edits.sensitivity) throw refusal{unreadable_sensitivity};
}

void merge_sensitivity(run_settings& run, const given_switch& given) {
  run.edits.merge_sensitivity = true;
  open_sensitivity(run, given);
}

void drop_comment(run_settings& run, const given_switch&) {
  run.edits.drop_comment = true;
  run.edits.comment = nullptr;
}

enum class value_kind { none, text, number };

struct option {
  std::string_view name;  // the letters that count; what follows them in a switch is ignored
  value_kind value;
  void (*act)(run_settings& run, const given_switch& given);
};

using enum value_kind;

constexpr option options[] = {
    {"v", number, set_version},
    {"c", none, [](auto& run, auto&) { run.compression = compression_choice::context; }},
    {"nc", none, [](auto& run, auto&) { run.compression = compression_choice::raw; }},
    {"b", number, [](auto& run, auto& given) { run.begin = given.number; }},
    {"e", number, [](auto& run, auto& given) { run.end = given.number; }},
    {"d", number, [](auto& run, auto& given) { run.window = unsigned(given.number); }},
    {"C", number, [](auto& run, auto& given) { run.max_contexts = unsigned(given.number); }},
    {"m", number, set_metadata},
    {"p", none, [](auto& run, auto&) { run.show_metadata = true; }},
    {"np", none, [](auto& run, auto&) { run.show_metadata = false; }},
    {"q", none, [](auto& run, auto&) { run.quiet = true; }},
    {"nq", none, [](auto& run, auto&) { run.quiet = false; }},
    {"t", text, [](auto& run, auto& given) { run.edits.comment = given.text; }},
    {"nt", none, drop_comment},
    {"s", text, open_sensitivity},
    {"S", text, merge_sensitivity},
    {"h", none, [](auto&, auto&) { throw help_request{}; }},
};

const option& find_option(std::string_view letters) {
  for (const option& candidate : options)
    if (letters.starts_with(candidate.name)) return candidate;
  throw unknown_switch(letters, letters.starts_with('n') ? 2 : 1);
}

// A number as options take it: hexadecimal after 0x, octal after 0, else decimal; at most 64 bits.
// White space may follow it, nothing may precede it.
unsigned long long parse_number(std::string_view digits, const option& taker) {
  digits = digits.substr(0, digits.find_last_not_of(" \t\n\v\f\r") + 1);
  int base = 10;
  if (digits.starts_with("0x") || digits.starts_with("0X")) {
    base = 16;
    digits.remove_prefix(2);
  } else if (digits.starts_with('0')) {
    base = 8;
  }
  unsigned long long value;
  const char* const end = digits.data() + digits.size();
  const auto [stop, error] = std::from_chars(digits.data(), end, value, base);
  if (error != std::errc() || stop != end)
    throw refused_switch(taker.name, "takes a non-negative number without spurious text");
  return value;
}

// Takes the name of a file, or "-", which only an input can be.
void take_name(const char* name, run_settings& run) {
  if (run.infile && std::strcmp(name, "-") == 0) throw refusal{"Multiple inputs specified"};
  if (run.outfile) throw refusal{"Multiple outputs specified"};
  (run.infile ? run.outfile : run.infile) = name;
}

}  // namespace

bool run_settings::from_stdin() const { return !infile || std::strcmp(infile, "-") == 0; }

bool run_settings::stores_header() const {
  return version != -1 && VQcomp::hdr_type_for_version[version] != 0;
}

int run_settings::compression_flag() const {
  return version == -1 ? 1 : compress_ok[version][static_cast<int>(compression)];
}

void scan_arguments(int argc, char** argv, run_settings& run) {
  for (int i = 1; i < argc; ++i) {
    const std::string_view argument = argv[i];
    if (!argument.starts_with('-') || argument == "-") {
      take_name(argv[i], run);
      continue;
    }
    given_switch given{argv[i] + 1, nullptr, 0};
    const option& found = find_option(given.letters);
    if (found.value != none) {
      if (++i == argc) throw refused_switch(found.name, "requires a value");
      given.text = argv[i];
    }
    if (found.value == number) given.number = parse_number(given.text, found);
    found.act(run, given);
  }
}

// vqtrace split: a trace cut into parts.
#include <algorithm>
#include <charconv>
#include <optional>

#include "fileio/program.h"
#include "trace/command_error.h"
#include "trace/commands.h"
#include "trace/input.h"
#include "trace/output.h"

namespace vqtrace {

namespace {

// A pattern for names, in which %d or %0Wd stands for a number, of at least W digits, and %% for %.
class name_pattern {
 public:
  explicit name_pattern(const std::string& pattern) {
    bool has_number = false;
    for (std::size_t i = 0; i < pattern.size(); ++i) {
      std::string& part = has_number ? after_ : before_;
      if (pattern[i] != '%') {
        part += pattern[i];
      } else if (pattern.compare(i, 2, "%%") == 0) {
        part += pattern[++i];
      } else {
        const std::size_t end = number_at(pattern, i + 1);
        if (has_number || end == 0)
          throw command_error(pattern, "Not one %d, or %04d, in the pattern");
        has_number = true;
        i = end;
      }
    }
    if (!has_number) throw command_error(pattern, "Not one %d, or %04d, in the pattern");
  }

  std::string name(std::uint64_t number) const {
    const std::string digits = std::to_string(number);
    const std::size_t zeros = digits.size() < width_ ? width_ - digits.size() : 0;
    return before_ + std::string(zeros, '0') + digits + after_;
  }

 private:
  // Takes "d" or "0Wd" at a position; returns that of its end, 0 if it is neither.
  std::size_t number_at(const std::string& pattern, std::size_t at) {
    const std::size_t end = pattern.find('d', at);
    if (end == std::string::npos) return 0;
    if (end == at) return end;
    const char* const last = pattern.data() + end;
    const auto read = std::from_chars(pattern.data() + at, last, width_);
    return pattern[at] == '0' && read.ptr == last && width_ <= 20 ? end : 0;
  }

  std::string before_, after_;
  std::size_t width_ = 0;
};

// The parts, one open at a time.
class parts {
 public:
  parts(const split_settings& settings, input& trace)
      : settings_(settings),
        trace_(trace),
        pattern_(settings.pattern),
        form_(form_for(trace, settings.version)),
        counts_(counts_for(trace)),
        transactions_(trace.header().trans_count),
        instructions_(trace.header().inst_count),
        cycles_(trace.header().cycle_count) {}

  void put(std::span<VQtransaction> transactions) {
    while (!transactions.empty()) {
      if (!part_ || left_ == 0) open_next();
      const auto size = std::size_t(std::min<std::uint64_t>(transactions.size(), left_));
      part_->put(transactions.first(size));
      left_ -= size;
      transactions = transactions.subspan(size);
    }
  }

  // Ends the last part. A trace without transactions has one part.
  void finish() {
    if (!part_) open_next();
    part_->finish();
  }

 private:
  void open_next() {
    if (part_) part_->finish();
    const std::string name = pattern_.name(number_);
    refuse_same_file(settings_.in, name);
    const std::uint64_t begin = number_ * settings_.size, end = begin + settings_.size;
    PRUV_header_t& header = trace_.header();
    header.inst_count = share(instructions_, end) - share(instructions_, begin);
    header.cycle_count = share(cycles_, end) - share(cycles_, begin);
    part_.emplace(name, form_, header, counts_);
    left_ = settings_.size;
    ++number_;
  }

  // What of a total belongs to the transactions below `position`: a share in proportion. Where it
  // is not known how many there are, the first part gets all.
  long long share(long long total, std::uint64_t position) const {
    if (position == 0) return 0;
    if (transactions_ <= 0 || position >= std::uint64_t(transactions_)) return total;
    return static_cast<long long>(static_cast<wide>(total) * position / transactions_);
  }

  __extension__ using wide = __int128;

  const split_settings& settings_;
  input& trace_;
  name_pattern pattern_;
  trace_form form_;
  vqpack::detail::velk_counts counts_;
  long long transactions_, instructions_, cycles_;  // of the whole trace
  std::optional<output> part_;
  std::uint64_t left_ = 0;    // transactions that the part still takes
  std::uint64_t number_ = 0;  // of the next part
};

}  // namespace

int run_split(const split_settings& settings) {
  input trace(settings.in, !settings.quiet);
  parts all(settings, trace);
  const bool is_whole =
      for_each_batch(trace, [&](std::span<VQtransaction> batch) { all.put(batch); });
  all.finish();
  return is_whole ? success : closed_failure;
}

}  // namespace vqtrace

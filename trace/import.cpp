// vqtrace import: traces of other tools to one of ours.
#include <algorithm>
#include <cstring>
#include <iostream>
#include <limits>
#include <memory>
#include <optional>
#include <vector>

#include "fileio/program.h"
#include "trace/cache.h"
#include "trace/command_error.h"
#include "trace/commands.h"
#include "trace/foreign_input.h"
#include "trace/input.h"
#include "trace/output.h"

namespace vqtrace {

namespace {

// The code of a family of transactions, "MEMRD" for example, that move lines of so many bytes.
velk_trans_class type_for(std::string family, unsigned line) {
  if (line > 64) {
    family += '?';
  } else if (line > 8) {
    family += std::to_string(line) + 'B';
  }
  return velk_trans_str2num_type1(family.c_str());
}

// Collects the transactions of an import.
class import_output {
 public:
  import_output(output& out, const import_settings& settings)
      : out_(out), period_(settings.period) {}

  // A transaction at some time of the input. Its count is what has passed since the one before.
  void put(velk_trans_class type, std::uint64_t address, int agent, std::uint64_t time) {
    constexpr std::uint64_t most = std::numeric_limits<unsigned>::max();
    const std::uint64_t now = time / period_;
    const std::uint64_t passed = now - std::exchange(time_, now);
    long_gaps_ += passed > most;
    batch_[size_++] = {static_cast<long long>(address), agent, unsigned(std::min(passed, most)),
                       type};
    if (size_ == std::size(batch_)) flush();
  }

  void flush() { out_.put(std::span(batch_, std::exchange(size_, 0))); }

  // Transactions before which more time passed than a count holds.
  std::uint64_t long_gaps() const { return long_gaps_; }

 private:
  output& out_;
  std::uint64_t period_;
  std::uint64_t time_ = 0;  // of the latest
  std::uint64_t long_gaps_ = 0;
  std::size_t size_ = 0;
  VQtransaction batch_[256];
};

// What of the accesses of one input comes to the bus.
class bus_agent {
 public:
  bus_agent(int agent, const import_settings& settings,
            const std::vector<cache_level::shape>& caches)
      : agent_(agent), line_(settings.line) {
    fetch_ = type_for("CDRD", line_);
    load_ = type_for("MEMRD", line_);
    store_ = type_for(caches.empty() ? "MEMWR" : "RDINV", line_);
    write_back_ = type_for("LNWR", line_);
    if (!caches.empty()) caches_.emplace(caches, settings.line);
  }

  void take(const memory_access& one, import_output& out) {
    const std::uint64_t first = one.address / line_, last = (one.address + (one.size - 1)) / line_;
    const auto put = [&](velk_trans_class type, std::uint64_t line) {
      out.put(type, line * line_, agent_, one.time);
    };
    fetches_ += one.kind == access_kind::fetch;
    if (caches_) {
      const velk_trans_class read = reading(one.kind);
      caches_->use(
          one.kind, first, last, [&](std::uint64_t line) { put(read, line); },
          [&](std::uint64_t line) { put(write_back_, line); });
      return;
    }
    for (std::uint64_t line = first; line <= last; ++line) {
      if (one.kind == access_kind::modify) put(load_, line);
      put(reading(one.kind), line);
    }
  }

  std::uint64_t fetches() const { return fetches_; }
  std::string statistics() const { return caches_ ? caches_->statistics() : ""; }

 private:
  velk_trans_class reading(access_kind kind) const {
    return kind == access_kind::fetch ? fetch_ : kind == access_kind::load ? load_ : store_;
  }

  int agent_;
  unsigned line_;
  velk_trans_class fetch_, load_, store_, write_back_;
  std::optional<cache_hierarchy> caches_;
  std::uint64_t fetches_ = 0;
};

struct source {
  foreign_input input;
  bus_agent agent;
};

// The source whose next access is the earliest, the first of several; null where all have ended.
// Throws what foreign_input::next() does.
source* earliest(const std::vector<std::unique_ptr<source>>& sources) {
  source* found = nullptr;
  std::uint64_t time = 0;
  for (const auto& one : sources) {
    const memory_access* const next = one->input.next();
    if (!next || (found && next->time >= time)) continue;
    found = one.get();
    time = next->time;
  }
  return found;
}

// The caches between the accesses and the bus, as the user writes them.
std::string caches_for(const import_settings& settings, const foreign_format& format) {
  if (format.of_processor) return settings.cache.value_or("32K:8,1M:16");
  if (settings.cache)
    throw command_error("--cache", settings.format + " records what has passed the caches");
  return "none";
}

// Sets what is known of a trace without looking at it.
void describe(PRUV_header_t& header, const import_settings& settings, const std::string& caches,
              const std::vector<cache_level::shape>& levels) {
  if (!levels.empty()) header.cache_size_kib = unsigned(levels.back().size / 1024);
  header.line_size = settings.line;
  const std::string comment = "vqtrace import " + settings.format + " --cache " + caches;
  header.comment = new char[comment.size() + 1];
  std::strcpy(header.comment, comment.c_str());
}

void report(const std::vector<std::unique_ptr<source>>& sources, const import_output& out) {
  for (const auto& one : sources) {
    if (sources.size() > 1 && !one->agent.statistics().empty())
      std::cerr << one->input.name() << '\n';
    std::cerr << one->agent.statistics();
    if (one->input.skipped() > 0)
      std::cerr << one->input.name() << ": lines left out: " << one->input.skipped() << '\n';
  }
  if (out.long_gaps() > 0)
    std::cerr << "Times longer than a count holds: " << out.long_gaps() << '\n';
}

}  // namespace

int run_import(const import_settings& settings) {
  const foreign_format& format = find_format(settings.format);
  const std::string caches = caches_for(settings, format);
  const std::vector<cache_level::shape> levels = parse_caches(caches, settings.line);
  const std::string& out_name = settings.files.back();
  const std::span names(settings.files.begin(), settings.files.end() - 1);
  std::vector<std::unique_ptr<source>> sources;
  for (const std::string& name : names) {
    refuse_same_file(name, out_name);
    const bool watched = names.size() == 1 && shows_progress(settings.quiet, out_name);
    sources.emplace_back(new source{foreign_input(name, format, settings.skip_bad, watched),
                                    bus_agent(int(sources.size()), settings, levels)});
  }

  PRUV_header_t header;
  header.use_default_trans_names();
  describe(header, settings, caches, levels);
  output trace(out_name, {settings.version, settings.version != 0}, header,
               vqpack::detail::velk_counts::all);
  import_output out(trace, settings);
  int status = success;
  try {
    while (source* const next = earliest(sources)) {
      next->agent.take(*next->input.next(), out);
      next->input.pop();
    }
  } catch (const foreign_input::fault& fault) {
    std::cerr << fault.message << '\n';
    status = closed_failure;
  }
  out.flush();
  std::uint64_t instructions = 0;
  for (const auto& one : sources) instructions += one->agent.fetches();
  const bool has_narrow_totals = settings.version == 2 || settings.version == 3;
  if (!has_narrow_totals || instructions <= std::numeric_limits<std::uint32_t>::max())
    header.inst_count = static_cast<long long>(instructions);
  trace.finish();
  if (!settings.quiet) report(sources, out);
  return status;
}

}  // namespace vqtrace

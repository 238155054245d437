// vqtrace filter: some of the transactions of a trace.
#include <algorithm>
#include <string_view>

#include "fileio/program.h"
#include "trace/command_error.h"
#include "trace/commands.h"
#include "trace/input.h"
#include "trace/output.h"

namespace vqtrace {

namespace {

// Which transactions are wanted.
class selection {
 public:
  // Throws `command_error` for a type that the header has no name of.
  selection(const filter_settings& settings, const PRUV_header_t& header) : settings_(settings) {
    const bool all = settings.types.empty();
    std::fill(std::begin(wanted_), std::end(wanted_), all);
    for (const std::string& type : settings.types) add_type(type, header);
  }

  // Keeps of the next transactions those that are wanted, at the front; returns how many.
  std::size_t keep(std::span<VQtransaction> transactions) {
    VQtransaction* to = transactions.data();
    for (const VQtransaction& t : transactions)
      if (takes(t)) *to++ = t;
    return std::size_t(to - transactions.data());
  }

 private:
  void add_type(std::string_view type, const PRUV_header_t& header) {
    bool is_known = false;
    for (int code = 0; code < header.trans_name_count; ++code) {
      const velk_access access = velk_trans_access(velk_trans_class(code));
      const bool is_meant = type == header.trans_names[code] ||
                            (type == "read" && access == velk_access::read) ||
                            (type == "write" && access == velk_access::write);
      wanted_[code] |= is_meant;
      is_known |= is_meant;
    }
    if (!is_known) throw command_error(std::string(type) + ": no such type");
  }

  bool takes(const VQtransaction& t) {
    const std::uint64_t position = position_++;
    if (position < settings_.begin || position >= settings_.end) return false;
    const auto address = static_cast<std::uint64_t>(t.addr);
    if (!wanted_[t.trans] || address < settings_.low || address > settings_.high) return false;
    if (!settings_.agents.empty() && !settings_.agents.contains(t.agent)) return false;
    return passed_++ % settings_.every == 0;
  }

  const filter_settings& settings_;
  bool wanted_[256];            // by type code
  std::uint64_t position_ = 0;  // of the next transaction
  std::uint64_t passed_ = 0;    // of which every so many are taken
};

}  // namespace

int run_filter(const filter_settings& settings) {
  refuse_same_file(settings.in, settings.out);
  input trace(settings.in, shows_progress(settings.quiet, settings.out));
  selection wanted(settings, trace.header());
  output out(settings.out, form_for(trace, settings.version), trace.header(), counts_for(trace));
  const bool is_whole = for_each_batch(
      trace, [&](std::span<VQtransaction> batch) { out.put(batch.first(wanted.keep(batch))); });
  out.finish();
  return is_whole ? success : closed_failure;
}

}  // namespace vqtrace

// vqtrace cat: traces joined into one.
#include <cstdint>
#include <limits>
#include <span>

#include "fileio/program.h"
#include "trace/command_error.h"
#include "trace/commands.h"
#include "trace/input.h"
#include "trace/output.h"

namespace vqtrace {

namespace {

// Adds to a total that of a trace that is appended. Returns whether a file of that type holds it.
bool add_total(long long& total, long long more, int version) {
  const bool is_narrow = version == 2 || version == 3;
  const bool overflows = __builtin_add_overflow(total, more, &total);
  return !overflows && !(is_narrow && total > std::numeric_limits<std::uint32_t>::max());
}

}  // namespace

int run_cat(const cat_settings& settings) {
  const std::string& out = settings.files.back();
  const std::span names(settings.files.begin(), settings.files.end() - 1);
  for (const std::string& name : names) refuse_same_file(name, out);

  const bool watched = shows_progress(settings.quiet, out);
  input first(names.front(), watched);
  PRUV_header_t& header = first.header();
  const trace_form form = form_for(first, settings.version);
  output joined(out, form, header, counts_for(first));
  const auto append = [&](input& trace) {
    return for_each_batch(trace, [&](std::span<VQtransaction> batch) { joined.put(batch); });
  };
  bool is_whole = append(first);
  for (const std::string& name : names.subspan(1)) {
    if (!is_whole) break;
    input next(name, watched);
    if (!settings.version && next.version() != first.version())
      throw command_error(name,
                          "has another file type than " + names.front() + "; choose one with -v");
    if (!add_total(header.inst_count, next.header().inst_count, form.version) ||
        !add_total(header.cycle_count, next.header().cycle_count, form.version))
      throw command_error(name, "the totals become too large for the file type");
    is_whole = append(next);
  }
  joined.finish();
  return is_whole ? success : closed_failure;
}

}  // namespace vqtrace

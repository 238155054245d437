// vqtrace cat: traces joined into one.
#include <span>

#include "fileio/program.h"
#include "trace/command_error.h"
#include "trace/commands.h"
#include "trace/input.h"
#include "trace/output.h"

namespace vqtrace {

namespace {

// Adds the totals of a trace that is appended.
void add_totals(PRUV_header_t& to, const PRUV_header_t& from) {
  to.inst_count += from.inst_count;
  to.cycle_count += from.cycle_count;
}

}  // namespace

int run_cat(const cat_settings& settings) {
  const std::string& out = settings.files.back();
  const std::span names(settings.files.begin(), settings.files.end() - 1);
  for (const std::string& name : names) refuse_same_file(name, out);

  const bool watched = shows_progress(settings.quiet, out);
  input first(names.front(), watched);
  PRUV_header_t& header = first.header();
  output joined(out, form_for(first, settings.version), header, counts_for(first));
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
    add_totals(header, next.header());
    is_whole = append(next);
  }
  joined.finish();
  return is_whole ? success : closed_failure;
}

}  // namespace vqtrace

// vqtrace export: a trace as other tools read it.
#include <iostream>
#include <span>

#include "fileio/program.h"
#include "trace/command_error.h"
#include "trace/commands.h"
#include "trace/formats/formats.h"
#include "trace/input.h"
#include "trace/output.h"

namespace vqtrace {

namespace {

// Transactions to accesses, and those to a file.
class export_output {
 public:
  export_output(output_file& file, const export_settings& settings)
      : file_(file), writer_(find_format(settings.format).writer()), period_(settings.period) {}

  void put(const VQtransaction& t) {
    time_ += t.count;
    const velk_access what = velk_trans_access(t.trans);
    if (what == velk_access::none) {
      ++left_out_;
      return;
    }
    if (sizeof block_ - used_ < access_writer::longest) flush();
    std::uint64_t time = 0;
    if (__builtin_mul_overflow(time_, period_, &time))
      throw command_error("--period", "a time does not fit into 64 bits");
    const memory_access one{static_cast<std::uint64_t>(t.addr), time, size_of(t.trans),
                            what == velk_access::write ? access_kind::store
                            : is_code_read(t.trans)    ? access_kind::fetch
                                                       : access_kind::load};
    used_ = std::size_t(writer_->put(block_ + used_, one) - block_);
  }

  void finish() {
    flush();
    used_ = std::size_t(writer_->finish(block_) - block_);
    flush();
  }

  // Transactions that have no place in the format.
  std::uint64_t left_out() const { return left_out_ + writer_->left_out(); }

 private:
  static bool is_code_read(velk_trans_class trans) { return trans < 40 && trans % 8 == 0; }

  // In bytes.
  static std::uint32_t size_of(velk_trans_class trans) {
    return 8U << velk_line_shifts[trans >> 3];
  }

  void flush() { file_.write(block_, std::exchange(used_, 0)); }

  output_file& file_;
  std::unique_ptr<access_writer> writer_;
  std::uint64_t period_;
  std::uint64_t time_ = 0;  // of the latest transaction, in counts
  std::uint64_t left_out_ = 0;
  std::size_t used_ = 0;
  char block_[1 << 16];
};

}  // namespace

int run_export(const export_settings& settings) {
  refuse_same_file(settings.in, settings.out);
  input trace(settings.in, shows_progress(settings.quiet, settings.out));
  output_file file(settings.out);
  export_output out(file, settings);
  const bool is_whole = for_each_batch(trace, [&](std::span<const VQtransaction> batch) {
    for (const VQtransaction& t : batch) out.put(t);
  });
  out.finish();
  file.commit();
  if (!settings.quiet && out.left_out() > 0)
    std::cerr << "Transactions left out, for which " << settings.format
              << " has no place: " << out.left_out() << '\n';
  return is_whole ? success : closed_failure;
}

}  // namespace vqtrace

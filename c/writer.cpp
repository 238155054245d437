// The C interface: writers.
#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <ctime>
#include <memory>
#include <optional>
#include <utility>

#include "c/object.h"
#include "coder/errors.h"
#include "coder/stdio_bytes.h"
#include "fileio/new_file.h"

using namespace vqpack::detail;

namespace {

// While it lives, writes of this thread fail, and do not end the process, where a pipe has been
// closed at its other end or a file would become longer than it may.
class signal_guard {
 public:
  signal_guard() {
    sigemptyset(&signals_);
    for (const int signal : {SIGPIPE, SIGXFSZ}) sigaddset(&signals_, signal);
    sigset_t pending;
    sigpending(&pending);
    for (const int signal : {SIGPIPE, SIGXFSZ})
      if (sigismember(&pending, signal) == 1) sigdelset(&signals_, signal);
    pthread_sigmask(SIG_BLOCK, &signals_, &before_);
  }
  ~signal_guard() {
    const timespec at_once{};
    while (sigtimedwait(&signals_, nullptr, &at_once) > 0) continue;
    pthread_sigmask(SIG_SETMASK, &before_, nullptr);
  }
  signal_guard(const signal_guard&) = delete;
  signal_guard& operator=(const signal_guard&) = delete;

 private:
  sigset_t signals_;  // those that are not pending already, and so blocked
  sigset_t before_;
};

void fill_header(PRUV_header_t& header, const vqpack_metadata& metadata) {
  header.threads = metadata.threads;
  header.cache_size_kib = metadata.cache_size_kib;
  header.line_size = metadata.line_size;
  header.address_length = metadata.address_length;
  header.trans_count = std::max<int64_t>(metadata.transactions, 0);
  header.inst_count = metadata.instructions;
  header.cycle_count = metadata.cycles;
  header.compression = metadata.context_coded != 0;
  header.max_contexts = metadata.context_limit;
  const bool has_narrow_totals = metadata.file_type == 2 || metadata.file_type == 3;
  if (has_narrow_totals && (metadata.instructions < 0 || metadata.cycles < 0))
    fail(VQfault::refused, "Negative total");
  const unsigned points = metadata.sensitivity_count;
  if (points > 0 && !metadata.sensitivity) fail(VQfault::misuse, "No sensitivity points");
  if (points > 255) fail(VQfault::refused, "More than 255 sensitivity points");
  if (points > 0) header.sensitivity = new sensitivity_point_t[points];
  for (; unsigned(header.sensitivity_count) < points; ++header.sensitivity_count) {
    const vqpack_sensitivity& p = metadata.sensitivity[header.sensitivity_count];
    header.sensitivity[header.sensitivity_count] = {p.config_type,  p.mlc_size, p.llc_size,
                                                    p.instructions, p.cycles,   p.llc_references,
                                                    p.llc_misses};
  }
  if (!metadata.comment) return;
  const std::size_t size = std::strlen(metadata.comment) + 1;
  header.comment = new char[size];
  std::copy_n(metadata.comment, size, header.comment);
}

static_assert(int(VQtotals::in_place) == VQPACK_TOTALS_IN_PLACE &&
              int(VQtotals::count_at_end) == VQPACK_TOTALS_AT_END &&
              int(VQtotals::count_differs) == VQPACK_TOTALS_DIFFER &&
              int(VQtotals::address_length_differs) == VQPACK_ADDRESS_LENGTH_DIFFERS);

}  // namespace

struct vqpack_writer {
 public:
  // `file` is what to write to: a name or a descriptor.
  template <class File>
  vqpack_writer(File file, const vqpack_metadata* metadata, int64_t window) {
    state_.attempt(VQPACK_CANNOT_OPEN, false, [&] {
      if (!metadata) fail(VQfault::misuse, "No metadata");
      fill_header(header_, *metadata);
      coder_.emplace(nullptr, metadata->file_type, &header_, block_size, window);
      file_.emplace(file());
      return true;
    });
  }

  ~vqpack_writer() {
    const signal_guard guard;
    if (coder_) coder_->aborted = true;
    coder_.reset();
    file_.reset();
  }

  int write(const vqpack_transaction* transactions, std::size_t size) {
    return state_.attempt(VQPACK_CANNOT_WRITE, -1, [&] {
      const signal_guard guard;
      require_open();
      if (size > 0 && !transactions) fail(VQfault::misuse, "No transactions");
      while (size > 0) {
        // A copy, as the coder cuts addresses of deferred replies.
        VQtransaction batch[256];
        const std::size_t taken = std::min(size, std::size(batch));
        std::memcpy(static_cast<void*>(batch), transactions, taken * sizeof *batch);
        for (std::size_t done = 0; done < taken;) {
          done += coder_->record(batch + done, taken - done);
          write_block();
        }
        transactions += taken;
        size -= taken;
      }
      return 0;
    });
  }

  int finish(vqpack_summary* summary) {
    return state_.attempt(VQPACK_CANNOT_WRITE, -1, [&] {
      const signal_guard guard;
      require_open();
      const VQcomp_summary result = coder_->finish(file_->stream(), &header_);
      coder_.reset();
      file_->commit();
      file_.reset();
      if (summary)
        *summary = {result.transactions, result.contexts, result.avg_distance,
                    result.address_length, int32_t(result.totals)};
      return 0;
    });
  }

  const vqpack_error& error() const { return state_.error(); }

 private:
  static constexpr int block_size = 1 << 16;

  void write_block() {
    const auto bytes = std::size_t(coder_->ready());
    if (bytes == 0) return;
    if (!write_bytes(file_->stream(), coder_->buffer.get(), bytes))
      throw std::system_error(errno, std::generic_category());
    coder_->reset_buffer();
  }

  void require_open() const {
    if (!file_) fail(VQfault::misuse, "Output has already been finished");
  }

  failure_state state_;
  PRUV_header_t header_;
  std::optional<new_file> file_;
  std::optional<VQcomp> coder_;
};

vqpack_writer* vqpack_create(const char* name, const vqpack_metadata* metadata, int64_t window) {
  return new (std::nothrow)
      vqpack_writer([name] { return std::string(name ? name : ""); }, metadata, window);
}

vqpack_writer* vqpack_create_descriptor(int fd, const vqpack_metadata* metadata, int64_t window) {
  return new (std::nothrow) vqpack_writer([fd] { return duplicate(fd); }, metadata, window);
}

void vqpack_metadata_init(vqpack_metadata* metadata, int file_type) {
  *metadata = {};
  metadata->file_type = file_type;
  metadata->context_coded = file_type != 0;
  metadata->context_limit = 16383;
}

int vqpack_write(vqpack_writer* writer, const vqpack_transaction* transactions, size_t size) {
  return writer ? writer->write(transactions, size) : -1;
}

int vqpack_finish(vqpack_writer* writer, vqpack_summary* summary) {
  return writer ? writer->finish(summary) : -1;
}

const vqpack_error* vqpack_writer_error(const vqpack_writer* writer) {
  return writer ? &writer->error() : &out_of_memory;
}

void vqpack_writer_close(vqpack_writer* writer) { delete writer; }

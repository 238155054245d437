// The C interface: versions, types, and readers.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstddef>
#include <cstdio>
#include <iterator>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "c/object.h"
#include "coder/errors.h"
#include "coder/version.h"
#include "fileio/process.h"

using namespace vqpack::detail;

const char* vqpack_version(void) { return version_text; }

const char* vqpack_type_name(unsigned type) {
  return type < std::size(velk_trans_names) ? velk_trans_names[type] : nullptr;
}

int vqpack_type_code(const char* name) {
  int code = 0;
  for (const std::string_view known : velk_trans_names) {
    if (name && known == name) return code;
    ++code;
  }
  return -1;
}

// Callers' arrays are filled as those of the coder.
static_assert(sizeof(vqpack_transaction) == sizeof(VQtransaction) &&
              offsetof(vqpack_transaction, address) == offsetof(VQtransaction, addr) &&
              offsetof(vqpack_transaction, agent) == offsetof(VQtransaction, agent) &&
              offsetof(vqpack_transaction, count) == offsetof(VQtransaction, count) &&
              offsetof(vqpack_transaction, type) == offsetof(VQtransaction, trans));

struct vqpack_reader {
 public:
  template <class Open>
  explicit vqpack_reader(Open open) {
    state_.attempt(VQPACK_CANNOT_OPEN, false, [&] {
      input_ = open();
      if (!input_.stream) throw std::system_error(errno, std::generic_category());
      std::setvbuf(input_.stream, buffer_.get(), _IOFBF, buffer_size);
      reader_.emplace(input_.stream, nullptr);
      header_.reset(reader_->pruv_header(false));
      describe();
      return is_open_ = true;
    });
  }

  ~vqpack_reader() {
    reader_.reset();
    if (input_.stream) std::fclose(input_.stream);
    if (!input_.process) return;
    kill(input_.process, SIGTERM);  // it may be waiting for input
    wait_for(input_.process);
  }

  int64_t read(vqpack_transaction* transactions, std::size_t size) {
    auto* const to = reinterpret_cast<VQtransaction*>(transactions);
    int64_t done = 0;
    const int64_t all = state_.attempt(VQPACK_CANNOT_READ, int64_t{-1}, [&] {
      while (std::size_t(done) < size && !ended_) {
        const std::size_t got = reader_->read(to + done, size - std::size_t(done));
        done += static_cast<int64_t>(got);
        if (got == 0) end_input();
      }
      return done;
    });
    return done > 0 ? done : all;
  }

  const vqpack_metadata* metadata() const { return is_open_ ? &metadata_ : nullptr; }
  const vqpack_error& error() const { return state_.error(); }

 private:
  // The end is that of a whole input only if the process that feeds it agrees.
  void end_input() {
    ended_ = true;
    const pid_t process = std::exchange(input_.process, 0);
    if (process && wait_for(process) != 0) fail(VQfault::cannot_read, cannot_read);
  }

  void describe() {
    const PRUV_header_t& header = *header_;
    for (int i = 0; i < header.sensitivity_count; ++i) {
      const sensitivity_point_t& p = header.sensitivity[i];
      points_.push_back({p.config_type, p.mlc_size, p.llc_size, p.instructions, p.cycles,
                         p.llc_refs, p.llc_misses});
    }
    metadata_ = {.file_type = header.version,
                 .context_coded = header.compression != 0,
                 .transactions = header.trans_count,
                 .instructions = header.inst_count,
                 .cycles = header.version < 2 ? 0 : header.cycle_count,
                 .threads = header.threads,
                 .cache_size_kib = header.cache_size_kib,
                 .line_size = header.line_size,
                 .address_length = header.address_length,
                 .context_limit = header.max_contexts,
                 .sensitivity_count = unsigned(points_.size()),
                 .sensitivity = points_.data(),
                 .comment = header.comment,
                 .type_names = header.trans_names,
                 .type_name_count = unsigned(header.trans_name_count),
                 .reserved = 0};
  }

  static constexpr std::size_t buffer_size = 1 << 16;

  failure_state state_;
  std::unique_ptr<char[]> buffer_{new (std::nothrow) char[buffer_size]};
  process_stream input_;
  std::optional<velk_reader> reader_;
  std::unique_ptr<PRUV_header_t> header_;
  std::vector<vqpack_sensitivity> points_;
  vqpack_metadata metadata_{};
  bool is_open_ = false;
  bool ended_ = false;
};

namespace {

process_stream open_file(const std::string& name) {
  for (const char* const suffix : {"", ".gz", ".bz2"}) {
    const std::string file = name + suffix;
    descriptor fd(open(file.c_str(), O_RDONLY | O_CLOEXEC));
    if (!fd && errno == ENOENT) continue;
    struct stat status;
    if (!fd || fstat(fd.get(), &status) != 0) return {};
    if (S_ISDIR(status.st_mode)) {
      errno = EISDIR;
      return {};
    }
    if (const char* const program = compressor_of(file))
      return open_compressor(program, true, fd, true);
    return {fd.make_stream("r"), 0};
  }
  return {};
}

}  // namespace

vqpack_reader* vqpack_open(const char* name) {
  return new (std::nothrow) vqpack_reader([name] { return open_file(name ? name : ""); });
}

vqpack_reader* vqpack_open_descriptor(int fd) {
  return new (std::nothrow) vqpack_reader([fd] {
    return process_stream{duplicate(fd).make_stream("r"), 0};
  });
}

int64_t vqpack_read(vqpack_reader* reader, vqpack_transaction* transactions, size_t size) {
  return reader ? reader->read(transactions, size) : -1;
}

const vqpack_metadata* vqpack_reader_metadata(vqpack_reader* reader) {
  return reader ? reader->metadata() : nullptr;
}

const vqpack_error* vqpack_reader_error(const vqpack_reader* reader) {
  return reader ? &reader->error() : &out_of_memory;
}

void vqpack_reader_close(vqpack_reader* reader) { delete reader; }

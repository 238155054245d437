// The C interface: any bytes, read through it, give what the reader in C++ finds, and whatever it
// writes without a failure comes back.
#include <sys/mman.h>
#include <unistd.h>

#include "c/vqpack.h"
#include "fuzz.h"

namespace {

constexpr std::size_t most = 1 << 12;  // as for `decode`

// A file in memory.
class memory_file {
 public:
  explicit memory_file(const bytes& content) {
    require(write(fd_, content.data(), content.size()) == ssize_t(content.size()), "room");
    rewind();
  }
  ~memory_file() { close(fd_); }
  memory_file(const memory_file&) = delete;
  memory_file& operator=(const memory_file&) = delete;

  int fd() const { return fd_; }
  void rewind() const { lseek(fd_, 0, SEEK_SET); }

 private:
  int fd_ = memfd_create("fuzz", MFD_CLOEXEC);
};

decoded read_by_c(const memory_file& file, std::size_t batch) {
  decoded result;
  vqpack_reader* const reader = vqpack_open_descriptor(file.fd());
  std::vector<vqpack_transaction> part(batch);
  while (result.transactions.size() <= most) {
    const std::size_t wanted = std::min(batch, most + 1 - result.transactions.size());
    const int64_t got = vqpack_read(reader, part.data(), wanted);
    for (int64_t i = 0; i < got; ++i) {
      const vqpack_transaction& t = part[std::size_t(i)];
      result.transactions.push_back({t.type, t.address, t.agent, t.count});
    }
    result.error = got > 0 ? "too many transactions" : vqpack_reader_error(reader)->text;
    if (got <= 0) break;
  }
  require(vqpack_reader_metadata(reader) || !result.error.empty(), "metadata or a reason");
  vqpack_reader_close(reader);
  return result;
}

void read_any(fuzz_input& input) {
  const std::size_t batch = input.number(2) % 300 + 1;
  const bytes content = input.rest();
  const memory_file file(content);
  const file_ptr stream = open_bytes(content);
  require(read_by_c(file, batch) == read_all(stream.get(), batch, most), "both find the same");
}

void write_any(fuzz_input& input) {
  vqpack_metadata metadata;
  vqpack_metadata_init(&metadata, int(input.byte() % 7));
  metadata.context_coded = int(input.byte() & 1);
  metadata.context_limit = unsigned(input.number(2));
  metadata.threads = unsigned(input.number(3));
  metadata.transactions = static_cast<int64_t>(input.number(1)) - 1;
  const vqpack_sensitivity point{unsigned(input.number(1)), 2, 3, 4, 5, 6, 7};
  metadata.sensitivity = &point;
  metadata.sensitivity_count = input.byte() & 1;
  metadata.comment = input.byte() & 1 ? "comment" : nullptr;
  const memory_file file({});
  vqpack_writer* const writer =
      vqpack_create_descriptor(file.fd(), &metadata, static_cast<int64_t>(input.number(4)));
  trace given;
  while (!input.empty()) {
    vqpack_transaction t{static_cast<int64_t>(input.number(8)) & ~int64_t{7},
                         int(input.byte()),
                         unsigned(input.number(2)),
                         static_cast<uint8_t>(input.byte() % 69),
                         {}};
    if (vqpack_write(writer, &t, 1) != 0) break;
    const bool deferred = t.type == 47 || t.type == 48;
    const bool counted = metadata.file_type == 3 || metadata.file_type == 5;
    given.push_back(
        {t.type, deferred ? t.address & 0xFF0000 : t.address, t.agent, counted ? t.count : 1});
  }
  const bool finished = vqpack_finish(writer, nullptr) == 0;
  require(finished == (vqpack_writer_error(writer)->code == VQPACK_OK), "a reason");
  vqpack_writer_close(writer);
  file.rewind();
  if (finished) require(read_by_c(file, 100) == decoded{given, ""}, "it comes back");
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  fuzz_input to_read(data, size), to_write(data, size);
  read_any(to_read);
  write_any(to_write);
  return 0;
}

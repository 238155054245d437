// The stages of packing and unpacking a trace, each by itself, in nanoseconds a transaction.
//
//   parts TRACE...     text, without header; the whole trace is kept in memory

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <iterator>
#include <memory>
#include <string>
#include <vector>

#include "coder/checksum.h"
#include "coder/context_list.h"
#include "coder/inslist.h"
#include "coder/line_format.h"
#include "coder/line_scan.h"
#include "coder/record_format.h"
#include "coder/stdio_bytes.h"
#include "coder/vqcomp.h"

using namespace vqpack::detail;

namespace {

constexpr int runs = 11;
constexpr std::size_t batch = 256;        // transactions that the program handles at once
constexpr std::size_t piece = 1 << 16;    // bytes that it reads and writes at once
constexpr unsigned max_contexts = 16383;  // the program's defaults
constexpr long long window = 65535;

struct closer {
  void operator()(FILE* file) const { std::fclose(file); }
};
using open_file = std::unique_ptr<FILE, closer>;

// Keeps the compiler from leaving out what `value` comes from.
template <class T>
void use(const T& value) {
  asm volatile("" : : "r"(&value) : "memory");
}

// Calls `take` with each `size` of `all`, or what is left.
template <class T, class Take>
void in_batches(T& all, std::size_t size, Take take) {
  for (std::size_t done = 0; done < all.size(); done += size)
    take(all.data() + done, std::min(size, all.size() - done));
}

// A trace in all the forms that the stages take.
class trace {
 public:
  explicit trace(const char* name) : name_(name) {
    const open_file file = open();
    velk_reader reader(file.get(), nullptr);
    VQtransaction read[batch];
    while (const std::size_t got = reader.read(read, batch))
      transactions.insert(transactions.end(), read, read + got);
    text = std::string(line_scan::readable_before, ' ');
    std::vector<char> line(format.max_line());
    for (const VQtransaction& t : transactions)
      text.append(line.data(), format.put(line.data(), t));
    text_bytes = text.size() - line_scan::readable_before;
    text.append(line_scan::readable_after, '\0');
    pack();
    positions.resize(transactions.size());
    find_contexts(positions.data());
  }

  open_file open() const { return open_file(std::fopen(name_, "r")); }

  // Stores the position of each transaction's context, or -1 for a new one.
  void find_contexts(int* to) {
    constexpr std::size_t at_once = 64;
    context_list contexts(max_contexts, window >> 3);
    unsigned uses[at_once];
    const auto context_of = [](const VQtransaction& t) {
      return VQcontext{t.addr >> address_unit_shift<false>(t.trans), t.agent, t.trans};
    };
    for (std::size_t done = 0; done < transactions.size();) {
      const std::size_t most = std::min({transactions.size() - done, at_once, contexts.room()});
      std::size_t known = 0;
      long long prev;
      while (known < most &&
             contexts.find(context_of(transactions[done + known]), prev, uses[known]))
        ++known;
      contexts.settle(uses, known, to + done);
      done += known;
      if (known == most) continue;
      contexts.insert(context_of(transactions[done]));
      to[done++] = -1;
    }
  }

  // Codes the trace as file type 1, and hands each piece of the file to `take`.
  template <class Take>
  void code(Take take) {
    VQcomp compressor(nullptr, 1, nullptr, 1024, window);
    in_batches(transactions, batch, [&](VQtransaction* first, std::size_t size) {
      for (std::size_t done = 0; done < size;) {
        done += compressor.record(first + done, size - done);
        if (const int ready = compressor.ready()) {
          take(compressor.buffer.get(), ready);
          compressor.reset_buffer();
        }
      }
    });
    unsigned contexts, distance, bits;
    const int size = compressor.finish(contexts, distance, bits);
    take(compressor.buffer.get(), size);
    compressor.reset_buffer();
  }

  line_format format{velk_trans_names, int(std::size(velk_trans_names)), false};
  std::vector<VQtransaction> transactions;
  std::string text;
  std::size_t text_bytes;
  std::vector<unsigned char> qubix;
  std::vector<int> positions;  // of their contexts; -1 for a new one

 private:
  void pack() {
    code([this](const unsigned char* bytes, int size) {
      qubix.insert(qubix.end(), bytes, bytes + size);
    });
  }

  const char* name_;
};

// Prints the median time that `work` takes.
template <class Work>
double time(const trace& t, Work work) {
  std::vector<double> nanoseconds;
  for (int i = 0; i < runs; ++i) {
    const auto start = std::chrono::steady_clock::now();
    work();
    const std::chrono::duration<double, std::nano> taken = std::chrono::steady_clock::now() - start;
    nanoseconds.push_back(taken.count() / double(t.transactions.size()));
  }
  std::nth_element(nanoseconds.begin(), nanoseconds.begin() + runs / 2, nanoseconds.end());
  return nanoseconds[runs / 2];
}

void show(const char* stage, double nanoseconds) {
  std::printf("  %-24s %6.2f\n", stage, nanoseconds);
}

double checksum_time(trace& t) {
  return time(t, [&] {
    checksum crc;
    in_batches(t.transactions, batch, [&](VQtransaction* first, std::size_t size) {
      crc.fold(first, size, false, false);
    });
    use(crc.value());
  });
}

void show_packing(trace& t) {
  std::vector<VQtransaction> scanned(batch);
  std::vector<unsigned char> buffer(piece);
  show("read", time(t, [&] {
         const open_file file = t.open();
         while (read_bytes(file.get(), buffer.data(), piece) == piece) use(buffer);
       }));
  show("scan", time(t, [&] {
         const char* at = t.text.data() + line_scan::readable_before;
         const char* const end = at + t.text_bytes;
         while (line_scan::scan_usual_lines(at, end, scanned.data(), batch) > 0) use(scanned);
       }));
  const double all = time(t, [&] { t.code([](const unsigned char* bytes, int) { use(bytes); }); });
  const double sum = checksum_time(t);
  show("check and code", all - sum);
  show("  of it the contexts", time(t, [&] {
         t.find_contexts(t.positions.data());
         use(t.positions);
       }));
  show("checksum", sum);
  show("write", time(t, [&] {
         const open_file file(std::fopen("/dev/null", "w"));
         std::setvbuf(file.get(), nullptr, _IOFBF, piece);
         in_batches(t.qubix, 1024, [&](const unsigned char* bytes, std::size_t size) {
           std::fwrite(bytes, 1, size, file.get());
         });
       }));
}

void show_unpacking(trace& t) {
  const double all = time(t, [&] {
    VQuncomp decompressor;
    std::vector<VQtransaction> read(batch);
    in_batches(t.qubix, 1024, [&](const unsigned char* bytes, std::size_t size) {
      decompressor.put(bytes, int(size));
      while (decompressor.read(read.data(), batch) > 0) use(read);
    });
  });
  const double sum = checksum_time(t);
  show("records and list", all - sum);
  show("  of it the list", time(t, [&] {
         inslist<VQcontext> list;
         for (const int position : t.positions)
           use(position < 0 ? list.insert({}) : list.lookup(unsigned(position)));
       }));
  show("checksum", sum);
  std::vector<char> text(batch * t.format.max_line());
  show("format", time(t, [&] {
         in_batches(t.transactions, batch, [&](const VQtransaction* first, std::size_t size) {
           char* to = text.data();
           for (std::size_t i = 0; i < size; ++i) to = t.format.put(to, first[i]);
           use(to);
         });
       }));
}

}  // namespace

int main(int argc, char** argv) {
  for (int i = 1; i < argc; ++i) {
    trace t(argv[i]);
    std::printf("%s: %zu transactions\n packing\n", argv[i], t.transactions.size());
    show_packing(t);
    std::printf(" unpacking\n");
    show_unpacking(t);
  }
}

// What the unit tests share: traces, and a trace to a QUBIX file and back.
#pragma once

#include <sys/mman.h>

#include <algorithm>
#include <cstdio>
#include <map>
#include <memory>
#include <ostream>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "coder/vqcomp.h"

using bytes = std::vector<unsigned char>;

struct transaction {
  velk_trans_class trans;
  long long addr;
  int agent;
  unsigned count = 1;
  bool operator==(const transaction&) const = default;
};
using trace = std::vector<transaction>;

struct file_closer {
  void operator()(FILE* file) const { std::fclose(file); }
};
using file_ptr = std::unique_ptr<FILE, file_closer>;

// A file type and whether its records are context-coded.
struct coding {
  int version;
  bool compressed;
  bool four_field() const { return version == 3 || version == 5; }
  bool wide_agents() const { return version > 3; }
};
inline constexpr coding all_codings[] = {{0, false}, {1, true},  {2, false}, {2, true},  {3, false},
                                         {3, true},  {4, false}, {4, true},  {5, false}, {5, true}};
inline std::ostream& operator<<(std::ostream& out, const coding& c) {
  return out << "type " << c.version << (c.compressed ? " compressed" : " raw");
}

struct coder_limits {
  long long window = 65535;
  unsigned max_contexts = 0;
  int block_size = 84;
  std::size_t batch = 1;  // transactions that the coder gets at once
};

inline std::unique_ptr<PRUV_header_t> make_header(coding c, const trace& transactions) {
  auto header = std::make_unique<PRUV_header_t>();
  header->compression = c.compressed;
  header->trans_count = static_cast<long long>(transactions.size());
  return header;
}

inline bytes from_hex(const std::string& text) {
  std::istringstream from(text);
  bytes result;
  for (unsigned byte; from >> std::hex >> byte;) result.push_back(static_cast<unsigned char>(byte));
  return result;
}

// The whole file as a pipe would receive it, block by block, as a caller without a stream does it.
// `handed_out`, if there, receives how many bytes that were after so many transactions.
inline bytes encode(const trace& transactions, coding c, coder_limits limits = {},
                    std::map<std::size_t, std::size_t>* handed_out = nullptr) {
  const auto header = make_header(c, transactions);
  header->max_contexts = limits.max_contexts;
  VQcomp coder(nullptr, c.version, header.get(), limits.block_size, limits.window);
  bytes file;
  const auto take = [&](unsigned size) {
    file.insert(file.end(), coder.buffer.get(), coder.buffer.get() + size);
    coder.reset_buffer();
  };
  std::vector<VQtransaction> given;
  for (const transaction& t : transactions) given.push_back({t.addr, t.agent, t.count, t.trans});
  for (std::size_t done = 0; done < given.size();) {
    done += coder.record(&given[done], std::min(limits.batch, given.size() - done));
    if (coder.ready()) take(unsigned(coder.ready()));
    if (handed_out) handed_out->emplace(done, file.size());
  }
  unsigned contexts, distance, bits;
  take(unsigned(coder.finish(contexts, distance, bits)));
  return file;
}

// Bytes before the first record in what encode() gives without a context limit.
inline std::size_t preamble_size(coding c) { return c.version < 2 ? 7 : c.version < 4 ? 38 : 56; }

struct decoded {
  trace transactions;
  std::string error;  // empty: the file ended well
  bool operator==(const decoded&) const = default;
};

// An error without the one position that depends on the chunks, that after an end marker.
inline std::string without_place(const std::string& error) {
  return error.starts_with("QUBIX file ends prematurely") ? error.substr(0, error.find(", byte"))
                                                          : error;
}

// Takes `batch` transactions at most from a decoder or reader, and only one more than `most` in
// all: damage can make billions. Returns how many came.
template <class Source>
std::size_t take(Source& from, trace& to, std::size_t batch, std::size_t most) {
  std::vector<VQtransaction> taken(std::min(batch, most + 1 - to.size()));
  const std::size_t size = from.read(taken.data(), taken.size());
  for (std::size_t i = 0; i < size; ++i)
    to.push_back({taken[i].trans, taken[i].addr, taken[i].agent, taken[i].count});
  return size;
}

// Decodes in chunks of next_size() bytes, each in an allocation of its own that is as long as it.
template <class NextSize>
decoded decode(const bytes& file, NextSize next_size, std::size_t most, std::size_t batch) {
  decoded result;
  VQuncomp decoder;
  bytes chunk;
  auto from = file.begin();
  try {
    while (result.transactions.size() <= most) {
      if (take(decoder, result.transactions, batch, most) > 0) continue;
      const auto to = from + std::min<std::ptrdiff_t>(next_size(), file.end() - from);
      chunk = bytes(from, to);
      from = to;
      decoder.put(chunk.data(), int(chunk.size()));
    }
    result.error = "too many transactions";
  } catch (const VQcomp_done&) {
  } catch (const VQcomp_error& error) {
    result.error = error.str();
  }
  return result;
}
inline decoded decode(const bytes& file, int chunk = 1024, std::size_t most = 1 << 14,
                      std::size_t batch = 1) {
  return decode(
      file, [=] { return chunk; }, most, batch);
}

// A file with a descriptor, at its start.
template <class Content>
file_ptr file_of(const Content& content) {
  file_ptr file(fdopen(memfd_create("test", MFD_CLOEXEC), "w+"));
  std::fwrite(content.data(), 1, content.size(), file.get());
  std::rewind(file.get());
  return file;
}

// All that a reader delivers.
inline decoded read_all(FILE* file, std::size_t batch = 1, std::size_t most = 1 << 14) {
  decoded result;
  try {
    velk_reader reader(file, nullptr);
    while (result.transactions.size() <= most)
      if (take(reader, result.transactions, batch, most) == 0) return result;
    result.error = "too many transactions";
  } catch (const VQcomp_error& error) {
    result.error = error.str();
  }
  return result;
}

// The line for the user of the error that `call` throws.
template <class Call>
std::string error_of(Call call) {
  try {
    call();
  } catch (const VQcomp_error& error) {
    return error.str();
  }
  return "no error";
}

// A trace with some of everything: runs of lines, strides, jumps within a cluster and far away,
// clusters at both ends of the address space, deferred replies, counts and agents of all sizes.
// What the coding cannot keep, it does not have.
template <class Random>
trace make_trace(Random random, int size, coding c) {
  const auto below = [&](unsigned long long bound) { return int(random() % bound); };
  const int clusters = 1 + below(12), agents = 1 + below(6);
  const unsigned types = 1 + unsigned(below(68));
  const unsigned long long spread = 1ULL << below(21);
  std::vector<transaction> latest;
  for (int i = 0; i < clusters * agents; ++i) {
    const int any_agent = below(3) ? 253 + below(4) : below(65536);
    const int agent = c.wide_agents() ? any_agent : any_agent & 0xFF;
    const long long addr = below(spread) * 8LL, end = below(6) ? 0 : -(1LL << 23);
    latest.push_back({velk_trans_class(67 - below(types)), addr + end, agent});
  }
  trace result;
  for (int i = 0; i < size; ++i) {
    transaction& t = latest[random() % latest.size()];
    const long long line = 8LL << VQcomp::trans2line_size[t.trans >> 3];
    for (int run = below(3) == 0 ? below(12) : 1; run > 0; --run) {
      const int kind = below(20);
      if (kind < 12)
        t.addr = (t.addr / line + 1) * line;
      else if (kind < 16)
        t.addr += (below(21) - 10) * line;
      else if (kind < 19)
        t.addr += (below(4001) - 2000) * 8LL;
      else
        t.addr = static_cast<long long>(random() >> below(60)) & ~7LL;
      if (t.trans == 47 || t.trans == 48) t.addr &= 0xFF0000;
      const unsigned counts[] = {0, 1, 1, 2, 3, 130, unsigned(random())};
      t.count = c.four_field() ? counts[below(7)] : 1;
      result.push_back(t);
    }
  }
  return result;
}
inline trace random_trace(unsigned seed, int size, coding c) {
  return make_trace(std::mt19937_64(seed), size, c);
}

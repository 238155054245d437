// Writes a VELK trace for measuring: generate KIND LINES [SEED]. The same arguments give the same
// trace on every machine.

#include <array>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "coder/line_format.h"
#include "coder/vqcomp.h"

using namespace vqpack::detail;

namespace {

constexpr velk_trans_class instruction_read = 24, write_back = 25, memory_read = 28;
constexpr long long line = 64;         // bytes
constexpr long long window = 1 << 16;  // bytes that a context reaches, by default

// A number below `limit`, by splitmix64.
std::uint64_t state;
std::uint64_t below(std::uint64_t limit) {
  std::uint64_t mixed = state += 0x9E3779B97F4A7C15;
  mixed = (mixed ^ mixed >> 30) * 0xBF58476D1CE4E5B9;
  mixed = (mixed ^ mixed >> 27) * 0x94D049BB133111EB;
  return (mixed ^ mixed >> 31) % limit;
}

using maker = std::function<VQtransaction(long long index)>;

// One agent reads on, line after line.
maker sequential() {
  return [](long long i) { return VQtransaction{i * line, 0, 1, memory_read}; };
}

// Eight agents take turns, each with reads and the write-backs of older lines.
maker interleaved() {
  return [at = std::array<long long, 8>()](long long) mutable {
    const auto agent = unsigned(below(at.size()));
    if (below(4) == 0) at[agent] += line * static_cast<long long>(1 + below(100));
    const long long base = static_cast<long long>(agent) << 32;
    if (below(3) == 0)
      return VQtransaction{base + at[agent] / 2 / line * line, int(agent), 1, write_back};
    return VQtransaction{base + (at[agent] += line), int(agent), 1, memory_read};
  };
}

// Four thousand streams in regions of their own, of which some are used much more than others.
maker regions() {
  return [at = std::vector<long long>(4000)](long long) mutable {
    const auto region = below(1 + below(1 + below(at.size())));
    at[region] += line * static_cast<long long>(below(20) ? 1 : below(500));
    return VQtransaction{static_cast<long long>(region) * 16 * window + at[region] % window, 0, 1,
                         memory_read};
  };
}

// Uniformly random in as many places as the coder keeps by default, and one in eight elsewhere: no
// place is more likely than another, and none is known from its neighbours.
maker uniform() {
  return [](long long) {
    const auto place = static_cast<long long>(below(8) ? below(16000) : below(1 << 24));
    return VQtransaction{place * 4 * window + static_cast<long long>(below(500)) * line, 0, 1,
                         memory_read};
  };
}

// All types of transactions, in runs, by four agents.
maker types() {
  return [t = VQtransaction{0, 0, 1, 0}](long long) mutable {
    if (below(8) == 0) {
      t.trans = static_cast<velk_trans_class>(below(std::size(VQcomp::FSB_transactions)));
      t.agent = int(below(4));
      t.addr = static_cast<long long>(below(1 << 20)) * line;
    }
    t.addr += line;
    VQtransaction made = t;
    if (t.trans == 47 || t.trans == 48) made.addr &= 0xFF0000;
    return made;
  };
}

// Five programs' worth of code and data on two agents, with the cycles since the one before.
maker counted() {
  return [next = regions()](long long i) mutable {
    VQtransaction t = next(i);
    t.agent = int(below(2));
    if (below(10) == 0) t.trans = instruction_read;
    t.count = unsigned(below(1 + below(2000)));
    return t;
  };
}

}  // namespace

int main(int argc, char** argv) {
  const std::map<std::string, maker> kinds = {
      {"sequential", sequential()}, {"interleaved", interleaved()},
      {"regions", regions()},       {"uniform", uniform()},
      {"types", types()},           {"counted", counted()}};
  const auto kind = argc < 3 ? kinds.end() : kinds.find(argv[1]);
  if (kind == kinds.end()) {
    std::fprintf(
        stderr,
        "usage: generate sequential|interleaved|regions|uniform|types|counted LINES [SEED]\n");
    return 1;
  }
  const long long lines = std::atoll(argv[2]);
  state = argc > 3 ? std::strtoull(argv[3], nullptr, 10) : 1;
  const maker make = kind->second;
  const line_format format(VQcomp::FSB_transactions, int(std::size(VQcomp::FSB_transactions)),
                           kind->first == "counted");
  std::vector<char> text(format.max_line());
  for (long long i = 0; i < lines; ++i) {
    const char* const end = format.put(text.data(), make(i));
    std::fwrite(text.data(), 1, std::size_t(end - text.data()), stdout);
  }
  return std::fclose(stdout) == 0 ? 0 : 1;
}

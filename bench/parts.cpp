// The parts of the coder by themselves, in nanoseconds a transaction (the column "Time" divided by
// the items of a run; "items_per_second" is its inverse).

#include <benchmark/benchmark.h>

#include <cstdio>
#include <random>
#include <string>
#include <vector>

#include "coder/checksum.h"
#include "coder/context_list.h"
#include "coder/inslist.h"
#include "coder/line_format.h"
#include "coder/line_scan.h"
#include "coder/vqcomp.h"

using namespace vqpack::detail;

namespace {

constexpr std::size_t block = 4096;  // transactions in a run, few enough for the cache

// Reads of `places` streams, 1 MiB apart, in random turns.
std::vector<VQtransaction> make_trace(std::size_t places, std::size_t size = block) {
  std::mt19937_64 random(1);
  std::vector<VQtransaction> trace;
  for (std::size_t i = 0; i < size; ++i)
    trace.push_back(
        {static_cast<long long>(random() % places << 20 | random() % 512 << 6), 0, 1, 28});
  return trace;
}

std::string to_text(const std::vector<VQtransaction>& trace) {
  const line_format format(VQcomp::FSB_transactions, 68, false);
  std::string text(line_scan::readable_before, ' ');
  std::vector<char> line(format.longest_line());
  for (const VQtransaction& t : trace) text.append(line.data(), format.put(line.data(), t));
  return text;
}

std::vector<unsigned char> to_qubix(std::vector<VQtransaction> trace) {
  VQcomp compressor(nullptr, 1, nullptr, 1024, 65535);
  std::vector<unsigned char> file;
  const auto take = [&](int bytes) {
    file.insert(file.end(), compressor.buffer.get(), compressor.buffer.get() + bytes);
    compressor.reset_buffer();
  };
  for (std::size_t done = 0; done < trace.size(); take(compressor.ready()))
    done += compressor.record(&trace[done], trace.size() - done);
  unsigned contexts, distance, bits;
  take(compressor.finish(contexts, distance, bits));
  return file;
}

void count_items(benchmark::State& state, std::size_t items) {
  state.SetItemsProcessed(state.iterations() * static_cast<long long>(items));
}

void scan(benchmark::State& state) {
  std::string text = to_text(make_trace(1000));
  const std::size_t size = text.size();
  text.append(line_scan::readable_after, '\0');
  std::vector<VQtransaction> trace(block);
  for (auto _ : state) {
    const char* at = text.data() + line_scan::readable_before;
    line_scan::scan_usual_lines(at, text.data() + size, trace.data(), block);
    benchmark::DoNotOptimize(trace.data());
  }
  count_items(state, block);
}
BENCHMARK(scan);

void format(benchmark::State& state) {
  const std::vector<VQtransaction> trace = make_trace(1000);
  const line_format lines(VQcomp::FSB_transactions, 68, false);
  std::vector<char> text(block * lines.longest_line());
  for (auto _ : state) {
    char* to = text.data();
    for (const VQtransaction& t : trace) to = lines.put(to, t);
    benchmark::DoNotOptimize(to);
  }
  count_items(state, block);
}
BENCHMARK(format);

void fold(benchmark::State& state) {
  const std::vector<VQtransaction> trace = make_trace(1000);
  checksum crc;
  for (auto _ : state) {
    crc.fold(trace.data(), block, false, state.range(0) != 0);
    benchmark::DoNotOptimize(crc.value());
  }
  count_items(state, block);
}
BENCHMARK(fold)->ArgName("counted")->Arg(0)->Arg(1);

void search(benchmark::State& state) {
  const auto places = std::size_t(state.range(0));
  const std::vector<VQtransaction> trace = make_trace(places, 16 * block);
  context_list contexts(16383, 65535 >> 3);
  long long prev = 0;
  for (auto _ : state)
    for (const VQtransaction& t : trace)
      benchmark::DoNotOptimize(contexts.touch({t.addr >> 3, t.agent, t.trans}, prev));
  count_items(state, trace.size());
}
BENCHMARK(search)->ArgName("contexts")->Arg(1)->Arg(10)->Arg(1000)->Arg(16000);

void look_up(benchmark::State& state) {
  const auto places = unsigned(state.range(0));
  std::mt19937 random(1);
  inslist<VQuncomp::context> list;
  for (unsigned i = 0; i < places; ++i) list.insert({});
  std::vector<unsigned> positions(block);
  for (unsigned& position : positions) position = unsigned(random() % places);
  for (auto _ : state)
    for (const unsigned position : positions) benchmark::DoNotOptimize(list.lookup(position));
  count_items(state, block);
}
BENCHMARK(look_up)->ArgName("contexts")->Arg(10)->Arg(1000)->Arg(16000);

void encode(benchmark::State& state) {
  const std::vector<VQtransaction> trace = make_trace(std::size_t(state.range(0)), 16 * block);
  for (auto _ : state) benchmark::DoNotOptimize(to_qubix(trace).size());
  count_items(state, trace.size());
}
BENCHMARK(encode)->ArgName("contexts")->Arg(10)->Arg(1000)->Arg(16000);

void decode(benchmark::State& state) {
  const auto size = 16 * block;
  const std::vector<unsigned char> file = to_qubix(make_trace(std::size_t(state.range(0)), size));
  std::vector<VQtransaction> trace(256);
  for (auto _ : state) {
    VQuncomp decompressor;
    decompressor.put(file.data(), int(file.size()));
    for (std::size_t got; (got = decompressor.read(trace.data(), trace.size())) > 0;)
      benchmark::DoNotOptimize(got);
  }
  count_items(state, size);
}
BENCHMARK(decode)->ArgName("contexts")->Arg(10)->Arg(1000)->Arg(16000);

}  // namespace

BENCHMARK_MAIN();

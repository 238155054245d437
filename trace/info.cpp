// vqtrace info: what is in traces.
#include <algorithm>
#include <cstdint>
#include <iomanip>
#include <iostream>
#include <map>
#include <nlohmann/json.hpp>
#include <sstream>

#include "fileio/program.h"
#include "trace/command_error.h"
#include "trace/commands.h"
#include "trace/distinct.h"
#include "trace/input.h"

namespace vqtrace {

namespace {

// What one pass over a trace finds.
class trace_totals {
 public:
  explicit trace_totals(unsigned line) : line_(line) {}

  void add(const VQtransaction& t) {
    const auto address = static_cast<std::uint64_t>(t.addr);
    const std::uint64_t line = address / line_;
    if (transactions == 0 || address < lowest) lowest = address;
    if (transactions == 0 || address > highest) highest = address;
    ++transactions;
    ++types[t.trans];
    const auto agent = unsigned(t.agent);
    if (!agent_count_ || agent != agent_) {
      agent_ = agent;
      agent_count_ = &agents[agent];
    }
    ++*agent_count_;
    sequential += line == previous_line_ + 1;
    previous_line_ = line;
    lines.add(line);
  }

  // Transactions that move data this way.
  std::uint64_t of(velk_access access) const {
    std::uint64_t sum = 0;
    for (int code = 0; code < 256; ++code)
      if (velk_trans_access(velk_trans_class(code)) == access) sum += types[code];
    return sum;
  }

  std::uint64_t transactions = 0;
  std::uint64_t sequential = 0;           // at the line after that of the transaction before
  std::uint64_t lowest = 0, highest = 0;  // byte addresses
  std::uint64_t types[256] = {};          // by code
  std::map<unsigned, std::uint64_t> agents;
  distinct_lines lines;

 private:
  unsigned line_;
  unsigned agent_ = 0;  // of the latest transaction
  std::uint64_t* agent_count_ = nullptr;
  std::uint64_t previous_line_ =
      ~std::uint64_t{0} - 1;  // that of no transaction, nor the one after
};

// What is known of one file.
struct trace_info {
  const std::string& name;
  const PRUV_header_t& header;
  std::optional<long long> bytes;  // as it is stored
  const trace_totals& totals;
  bool is_whole;
  unsigned line;
};

std::string hexadecimal(std::uint64_t value) {
  std::ostringstream text;
  text << std::hex << std::uppercase << std::setw(8) << std::setfill('0') << value;
  return text.str();
}

// With a comma between each three digits.
std::string grouped(std::uint64_t value) {
  std::string text = std::to_string(value);
  for (std::size_t at = text.size(); at > 3;) text.insert(at -= 3, 1, ',');
  return text;
}

// With a question mark for each control character, which could change what a terminal shows.
std::string printable(std::string text) {
  const auto is_control = [](char c) { return (c >= 0 && c < ' ') || c == 0x7F; };
  std::replace_if(text.begin(), text.end(), is_control, '?');
  return text;
}

double share(std::uint64_t part, std::uint64_t all) {
  return all == 0 ? 0 : double(part) / double(all);
}

std::string percent(std::uint64_t part, std::uint64_t all) {
  std::ostringstream text;
  text << std::fixed << std::setprecision(1) << 100 * share(part, all) << " %";
  return text.str();
}

// Rows of a label and a value.
class table {
 public:
  void row(const std::string& label, const std::string& value) {
    std::cout << "  " << std::left << std::setw(22) << label << value << '\n';
  }
  void count(const std::string& label, std::uint64_t part, std::uint64_t all) {
    std::cout << "  " << std::left << std::setw(22) << label << std::right << std::setw(15)
              << grouped(part) << std::setw(9) << percent(part, all) << '\n';
  }
};

void print_header(table& to, const trace_info& info) {
  const PRUV_header_t& header = info.header;
  if (header.version < 0) return to.row("format", "VELK text");
  const char* const coding = header.version == 0 || (header.version > 1 && header.compression == 0)
                                 ? "raw"
                                 : "context-coded";
  to.row("format", "QUBIX type " + std::to_string(header.version) + ", " + coding);
  if (header.version < 2) return;
  to.row("instructions", grouped(std::uint64_t(header.inst_count)));
  to.row("cycles", grouped(std::uint64_t(header.cycle_count)));
  to.row("threads", std::to_string(header.threads));
  to.row("cache", std::to_string(header.cache_size_kib) + " KiB, lines of " +
                      std::to_string(header.line_size) + " bytes");
  if (header.comment) to.row("comment", printable(header.comment));
  for (int i = 0; i < header.sensitivity_count; ++i) {
    const sensitivity_point_t& p = header.sensitivity[i];
    std::ostringstream text;
    text << "type " << p.config_type << ", MLC " << p.mlc_size << ", LLC " << p.llc_size << ": "
         << p.instructions << " instructions, " << p.cycles << " cycles, " << p.llc_refs
         << " LLC references, " << p.llc_misses << " misses";
    to.row(i == 0 ? "sensitivity" : "", text.str());
  }
}

void print_totals(table& to, const trace_info& info) {
  constexpr std::size_t most_agents = 16;
  const trace_totals& totals = info.totals;
  const std::uint64_t all = totals.transactions;
  to.row("transactions", grouped(all));
  if (info.bytes && all > 0) {
    std::ostringstream text;
    text << std::fixed << std::setprecision(2) << double(*info.bytes) / double(all);
    to.row("bytes a transaction", text.str());
  }
  if (all == 0) return;
  to.row("addresses", hexadecimal(totals.lowest) + " to " + hexadecimal(totals.highest));
  to.row("lines touched", grouped(totals.lines.size()) + " of " + std::to_string(info.line) +
                              " bytes" + (totals.lines.is_exact() ? "" : ", estimated"));
  to.row("sequential", percent(totals.sequential, all));
  to.count("reads", totals.of(velk_access::read), all);
  to.count("writes", totals.of(velk_access::write), all);
  for (int code = 0; code < info.header.trans_name_count; ++code)
    if (totals.types[code] > 0)
      to.count(printable(info.header.trans_names[code]), totals.types[code], all);
  std::size_t shown = 0;
  for (const auto& [agent, times] : totals.agents) {
    if (shown++ == most_agents) break;
    std::ostringstream label;
    label << "agent " << std::hex << agent;
    to.count(label.str(), times, all);
  }
  if (totals.agents.size() > most_agents)
    to.row("other agents", std::to_string(totals.agents.size() - most_agents));
}

void print_table(const trace_info& info) {
  table to;
  std::cout << info.name << '\n';
  print_header(to, info);
  print_totals(to, info);
  if (!info.is_whole) to.row("fault", "the numbers are those of what comes before it");
}

using json = nlohmann::ordered_json;

json header_object(const PRUV_header_t& header) {
  json to = {{"transactions", header.trans_count},
             {"instructions", header.inst_count},
             {"cycles", header.cycle_count},
             {"threads", header.threads},
             {"cache_kib", header.cache_size_kib},
             {"line_size", header.line_size},
             {"address_length", header.address_length},
             {"max_contexts", header.max_contexts},
             {"comment", header.comment ? json(header.comment) : json()},
             {"sensitivity", json::array()}};
  for (int i = 0; i < header.sensitivity_count; ++i) {
    const sensitivity_point_t& p = header.sensitivity[i];
    to["sensitivity"].push_back({{"config_type", p.config_type},
                                 {"mlc_size", p.mlc_size},
                                 {"llc_size", p.llc_size},
                                 {"instructions", p.instructions},
                                 {"cycles", p.cycles},
                                 {"llc_refs", p.llc_refs},
                                 {"llc_misses", p.llc_misses}});
  }
  return to;
}

json object(const trace_info& info) {
  const PRUV_header_t& header = info.header;
  const trace_totals& totals = info.totals;
  const bool is_empty = totals.transactions == 0;
  json to = {{"file", info.name}, {"whole", info.is_whole}, {"type", nullptr}, {"coded", nullptr}};
  if (header.version >= 0) {
    to["type"] = header.version;
    to["coded"] = header.version == 1 || (header.version > 1 && header.compression != 0);
  }
  to["header"] = header.version < 2 ? json() : header_object(header);
  to["transactions"] = totals.transactions;
  to["bytes"] = info.bytes ? json(*info.bytes) : json();
  to["lowest_address"] = is_empty ? json() : json(totals.lowest);
  to["highest_address"] = is_empty ? json() : json(totals.highest);
  to["line"] = info.line;
  to["lines"] = totals.lines.size();
  to["lines_exact"] = totals.lines.is_exact();
  to["sequential"] = totals.sequential;
  to["reads"] = totals.of(velk_access::read);
  to["writes"] = totals.of(velk_access::write);
  to["types"] = json::object();
  for (int code = 0; code < header.trans_name_count; ++code)
    if (totals.types[code] > 0) {
      json& of_name = to["types"][header.trans_names[code]];  // of several types, perhaps
      of_name = totals.types[code] + (of_name.is_null() ? 0 : of_name.get<std::uint64_t>());
    }
  to["agents"] = json::object();
  for (const auto& [agent, times] : totals.agents) to["agents"][std::to_string(agent)] = times;
  return to;
}

// Returns whether the trace is whole. Throws `command_error` if it cannot be opened.
bool print_info(const std::string& name, const info_settings& settings) {
  input trace(name, !settings.quiet);
  trace_totals totals(settings.line);
  const bool is_whole = for_each_batch(trace, [&](std::span<const VQtransaction> batch) {
    for (const VQtransaction& t : batch) totals.add(t);
  });
  const trace_info info{name,   trace.header(), trace.stream().stored_bytes(),
                        totals, is_whole,       settings.line};
  if (settings.json) {
    // A comment may hold any bytes.
    std::cout << object(info).dump(-1, ' ', false, json::error_handler_t::replace) << '\n';
  } else {
    print_table(info);
  }
  std::cout.flush();  // so that the objects of several programs do not mix
  return is_whole;
}

}  // namespace

int run_info(const info_settings& settings) {
  int status = success;
  for (const std::string& name : settings.files) {
    try {
      if (!print_info(name, settings)) status = closed_failure;
    } catch (const command_error& failed) {
      std::cerr << failed.what() << '\n';
      status = closed_failure;
    }
  }
  return status;
}

}  // namespace vqtrace

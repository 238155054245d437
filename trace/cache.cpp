#include "trace/cache.h"

#include <bit>
#include <sstream>

#include "trace/command_error.h"
#include "trace/lines.h"

namespace vqtrace {

namespace {

// Whether one level is understood: "32K:8".
bool parse_level(std::string_view text, unsigned line, cache_level::shape& level) {
  constexpr std::uint64_t largest = 1 << 30, most_ways = 1 << 10;
  fields rest(text);
  std::uint64_t size = 0, ways = 0;
  if (!rest.decimal(size) || size > largest) return false;
  if (rest.text("K")) {
    size <<= 10;
  } else if (rest.text("M")) {
    size <<= 20;
  }
  if (!rest.text(":") || !rest.decimal(ways) || !rest.at_end()) return false;
  if (size > largest || ways == 0 || ways > most_ways) return false;
  const std::uint64_t set = line * ways;
  level = {size, unsigned(ways)};
  return size % set == 0 && std::has_single_bit(size / set);
}

}  // namespace

std::vector<cache_level::shape> parse_caches(const std::string& text, unsigned line) {
  std::vector<cache_level::shape> levels;
  if (text == "none") return levels;
  std::istringstream parts(text);
  for (std::string part; std::getline(parts, part, ',');)
    if (!parse_level(part, line, levels.emplace_back()))
      throw command_error("--cache", part + ": not SIZE:WAYS with a power of two of sets");
  if (levels.empty() || text.ends_with(',')) throw command_error("--cache", "no sizes");
  return levels;
}

std::string cache_hierarchy::statistics() const {
  std::ostringstream text;
  for (std::size_t i = 0; i < levels_.size(); ++i) {
    const cache_level::counters& counts = levels_[i].counts;
    if (i < 2) {
      text << (i == 0 ? "I1" : "D1");
    } else {
      text << 'L' << i;
    }
    text << ": " << counts.accesses << " accesses, " << counts.misses << " misses, "
         << counts.write_backs << " write-backs\n";
  }
  return text.str();
}

}  // namespace vqtrace

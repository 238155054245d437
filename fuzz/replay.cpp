// Runs a fuzz target on each file of the folders that are named, and on a thousand variations
// of it, the same ones each time.
#include <filesystem>
#include <fstream>
#include <iterator>

#include "fuzz.h"

namespace {

constexpr int variations = 1000;

// Changes, drops or inserts a few bytes; those inserted are random, all the same, or a copy of
// others.
void vary(bytes& data, std::minstd_rand& random) {
  const auto any_byte = [&] {
    return random() % 2 || data.empty() ? static_cast<unsigned char>(random() >> 8)
                                        : data[random() % data.size()];
  };
  const auto place = data.begin() + std::ptrdiff_t(random() % (data.size() + 1));
  const auto left = std::size_t(data.end() - place), size = 1 + random() % (1u << random() % 8);
  const auto end = place + std::ptrdiff_t(std::min<std::size_t>(left, size));
  bytes piece(size);
  switch (random() % 5) {
    case 0:
      if (left > 0) *place = any_byte();
      return;
    case 1:
      data.erase(place, end);
      return;
    case 2:
      std::generate(piece.begin(), piece.end(), any_byte);
      break;
    case 3:
      std::fill(piece.begin(), piece.end(), any_byte());
      break;
    default:
      piece.assign(place, end);
  }
  data.insert(data.begin() + std::ptrdiff_t(random() % (data.size() + 1)), piece.begin(),
              piece.end());
}

}  // namespace

int main(int argc, char** argv) {
  int files = 0;
  for (int i = 1; i < argc; ++i)
    for (const auto& entry : std::filesystem::directory_iterator(argv[i])) {
      std::ifstream file(entry.path(), std::ios::binary);
      const bytes seed{std::istreambuf_iterator<char>(file), {}};
      for (int variation = 0; variation <= variations; ++variation) {
        std::minstd_rand random(static_cast<unsigned>(variation) + 1);
        bytes data = seed;
        for (int changes = variation % 6; changes > 0; --changes) vary(data, random);
        std::fprintf(stderr, "\r%s %d", entry.path().c_str(), variation);
        LLVMFuzzerTestOneInput(data.data(), data.size());
      }
      ++files;
    }
  return files > 0 ? 0 : 1;
}

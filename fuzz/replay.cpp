// Runs a fuzz target on each file of the folders that are named, and on a thousand variations
// of it, the same ones each time.
#include <filesystem>
#include <fstream>
#include <iterator>

#include "fuzz.h"

namespace {

constexpr int variations = 1000;

// Puts up to 63 bytes in place of as many: random ones, the same one again and again, or others of
// the input.
void vary(bytes& data, std::minstd_rand& random) {
  const auto place_in = [&] { return data.begin() + std::ptrdiff_t(random() % (data.size() + 1)); };
  const auto cut = [&](auto from) {
    return from + std::min<std::ptrdiff_t>(random() % (1u << random() % 7), data.end() - from);
  };
  const auto source = place_in();
  bytes piece(source, cut(source));
  const auto any_byte = [&] { return static_cast<unsigned char>(random() >> 8); };
  if (random() % 3 == 0) std::generate(piece.begin(), piece.end(), any_byte);
  if (random() % 3 == 0 && !piece.empty()) piece.assign(random() % 64, piece[0]);
  auto place = place_in();
  if (random() % 2) place = data.erase(place, cut(place));
  data.insert(place, piece.begin(), piece.end());
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

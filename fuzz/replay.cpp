// Runs a fuzz target once on each file of the folders that are named.
#include <filesystem>
#include <fstream>
#include <iterator>

#include "fuzz.h"

int main(int argc, char** argv) {
  int files = 0;
  for (int i = 1; i < argc; ++i)
    for (const auto& entry : std::filesystem::directory_iterator(argv[i])) {
      std::ifstream file(entry.path(), std::ios::binary);
      const bytes data{std::istreambuf_iterator<char>(file), {}};
      std::fprintf(stderr, "%s\n", entry.path().c_str());
      LLVMFuzzerTestOneInput(data.data(), data.size());
      ++files;
    }
  return files > 0 ? 0 : 1;
}

// Runs a target on files, or on all files of folders, where there is no libFuzzer: the seeds as an
// ordinary test with any compiler, and what a fuzzer found in a debugger.
//
//   NAME_fuzz FILE_OR_FOLDER...

#include <stdio.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

#include "fuzz/input.h"

namespace {

namespace fs = std::filesystem;

std::vector<fs::path> files_of(const fs::path& path) {
  if (!fs::is_directory(path)) return {path};
  std::vector<fs::path> files;
  for (const auto& entry : fs::recursive_directory_iterator(path)) {
    if (entry.is_regular_file()) files.push_back(entry.path());
  }
  std::sort(files.begin(), files.end());
  return files;
}

}  // namespace

int main(int argc, char** argv) {
  LLVMFuzzerInitialize(&argc, &argv);
  int runs = 0;
  for (int i = 1; i < argc; ++i) {
    for (const fs::path& path : files_of(argv[i])) {
      std::ifstream file(path, std::ios::binary);
      if (!file) {
        fprintf(stderr, "cannot read %s\n", path.c_str());
        return 1;
      }
      const std::vector<char> bytes((std::istreambuf_iterator<char>(file)), {});
      fprintf(stderr, "%s\n", path.c_str());  // first: a crash belongs to the last file named
      LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
      ++runs;
    }
  }
  fprintf(stderr, "%d inputs\n", runs);
  return runs > 0 ? 0 : 1;
}

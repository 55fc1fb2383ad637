// Runs a target once for every file named, or for every file of a directory named: the corpora are replayed by any
// compiler, without libFuzzer.
#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <system_error>
#include <vector>

#include "input.h"

namespace {

bool replay(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  const std::string bytes((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
  if (!file) {
    std::fprintf(stderr, "cannot read %s\n", path.c_str());
    return false;
  }
  // Memory of just this size: one byte too far is seen.
  const auto exact = std::make_unique<std::uint8_t[]>(bytes.size());
  std::copy(bytes.begin(), bytes.end(), exact.get());
  std::fprintf(stderr, "%s\n", path.c_str());
  LLVMFuzzerTestOneInput(exact.get(), bytes.size());
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  std::vector<std::string> paths;
  for (int i = 1; i < argc; ++i) {
    std::error_code none;
    if (!std::filesystem::is_directory(argv[i], none)) {
      paths.emplace_back(argv[i]);
      continue;
    }
    for (const auto& entry : std::filesystem::directory_iterator(argv[i])) paths.push_back(entry.path().string());
  }
  std::sort(paths.begin(), paths.end());
  const bool read = !paths.empty() && std::all_of(paths.begin(), paths.end(), replay);
  std::fprintf(stderr, "%zu inputs\n", paths.size());
  return read ? 0 : 1;
}

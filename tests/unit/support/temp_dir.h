// A directory of a test's own, gone at its end.
#pragma once

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

class TemporaryDir {
 public:
  TemporaryDir() {
    path_ = (std::filesystem::temp_directory_path() / "ue-proxy-test-").string() + std::string(6, 'X');
    if (::mkdtemp(path_.data()) == nullptr) std::abort();
  }
  ~TemporaryDir() { std::filesystem::remove_all(path_); }
  TemporaryDir(const TemporaryDir&) = delete;
  TemporaryDir& operator=(const TemporaryDir&) = delete;

  const std::string& path() const { return path_; }
  std::string operator/(const std::string& name) const { return path_ + "/" + name; }
  /// The directories on the way are made.
  void write(const std::string& name, const std::string& text) const {
    std::filesystem::create_directories(std::filesystem::path(*this / name).parent_path());
    std::ofstream(*this / name, std::ios::binary) << text;
  }

 private:
  std::string path_;
};

inline std::string readAll(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

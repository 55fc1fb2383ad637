#include "framework/run_files.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <vector>

namespace framework {
namespace {

struct RunFile {
  std::string path;
  dev_t device;
  ino_t inode;
};

std::vector<RunFile>& runFiles() {
  static std::vector<RunFile> all;
  return all;
}

bool writeAll(int descriptor, std::string_view text) {
  while (!text.empty()) {
    const ssize_t written = ::write(descriptor, text.data(), text.size());
    if (written < 0 && errno == EINTR) continue;
    if (written <= 0) return false;
    text.remove_prefix(static_cast<std::size_t>(written));
  }
  return true;
}

}  // namespace

bool replaceFile(const std::string& path, std::string_view text, std::string& error) {
  // One fixed name, so that a killed process leaves at most one such file and the next one takes it over.
  const std::string draft = path + ".new";
  const int descriptor = ::open(draft.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0644);
  if (descriptor < 0) {
    error = std::strerror(errno);
    return false;
  }
  bool done = writeAll(descriptor, text);
  int fault = errno;
  if (::close(descriptor) != 0 && done) {
    done = false;
    fault = errno;
  }
  if (done && std::rename(draft.c_str(), path.c_str()) != 0) {
    done = false;
    fault = errno;
  }
  if (!done) {
    error = std::strerror(fault);
    ::unlink(draft.c_str());
  }
  return done;
}

void rememberRunFile(const std::string& path) {
  struct stat status {};
  if (::lstat(path.c_str(), &status) == 0) runFiles().push_back({path, status.st_dev, status.st_ino});
}

void removeRunFiles() {
  for (const RunFile& file : runFiles()) {
    struct stat status {};
    if (::lstat(file.path.c_str(), &status) == 0 && status.st_dev == file.device && status.st_ino == file.inode) {
      ::unlink(file.path.c_str());
    }
  }
  runFiles().clear();
}

}  // namespace framework

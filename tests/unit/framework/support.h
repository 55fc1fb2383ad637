// What the framework's tests share: a look at the log, a process of their own.
#pragma once

#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "framework/log.h"

/// Takes the log's lines while it lives.
class LogCapture {
 public:
  LogCapture() : file_(std::tmpfile()) { IMS_log::log_to_file(file_); }
  ~LogCapture() {
    IMS_log::log_to_file(stderr);
    IMS_log::set_level(4);
    std::fclose(file_);
  }
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  std::string text() const {
    std::string all;
    char buffer[4096];
    off_t at = 0;
    for (ssize_t n = 0; (n = ::pread(::fileno(file_), buffer, sizeof buffer, at)) > 0; at += n) {
      all.append(buffer, static_cast<std::size_t>(n));
    }
    return all;
  }
  std::size_t lines() const {
    std::size_t count = 0;
    for (const char c : text()) count += c == '\n';
    return count;
  }
  bool has(const std::string& piece) const { return text().find(piece) != std::string::npos; }

 private:
  FILE* file_;
};

/// Runs `work` in a process of its own and gives its exit status (-1 when a signal ended it).
template <typename Work>
int inChild(Work work) {
  const pid_t child = ::fork();
  if (child == 0) ::_exit(work());
  int status = 0;
  ::waitpid(child, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// What the code under test logged. While a LogCapture lives the log goes to a temporary file of its own; afterwards it
// goes to standard error again with the threshold that was in force before. Not nested.
//
//   LogCapture log;
//   table.deleteClient(CT_UA_PORT, "1");
//   EXPECT_TRUE(log.has(4, "Client entry not found"));
#pragma once

#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

#include "framework/log.h"

class LogCapture {
 public:
  struct Line {
    int level = 0;
    std::string function;
    std::string text;  ///< as in the log, leading and trailing blanks included
  };

  /// Captures lines of `level` and below.
  explicit LogCapture(int level = 5) : file_(std::tmpfile()) {
    if (file_ == nullptr) {
      std::perror("LogCapture: tmpfile");
      std::abort();
    }
    while (previous_level_ < 9 && IMS_log::enabled(previous_level_ + 1)) ++previous_level_;
    IMS_log::set_level(level);
    IMS_log::log_to_file(file_);
  }
  ~LogCapture() {
    IMS_log::log_to_file(stderr);
    IMS_log::set_level(previous_level_);
    std::fclose(file_);
  }
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  /// Everything since the start or the last clear(), in order.
  std::vector<Line> lines() const {
    const std::string bytes = read();
    std::vector<Line> result;
    for (std::size_t begin = 0; begin < bytes.size();) {
      const std::size_t end = std::min(bytes.find('\n', begin), bytes.size());
      result.push_back(parse(std::string_view(bytes).substr(begin, end - begin)));
      begin = end + 1;
    }
    return result;
  }
  /// The texts alone, for comparing a whole sequence.
  std::vector<std::string> texts() const {
    std::vector<std::string> result;
    for (Line& line : lines()) result.push_back(std::move(line.text));
    return result;
  }
  /// Lines with exactly this level and text.
  int count(int level, std::string_view text) const {
    const std::vector<Line> all = lines();
    return static_cast<int>(std::count_if(all.begin(), all.end(),
                                          [&](const Line& line) { return line.level == level && line.text == text; }));
  }
  /// Lines of this level.
  int count(int level) const {
    const std::vector<Line> all = lines();
    return static_cast<int>(
        std::count_if(all.begin(), all.end(), [&](const Line& line) { return line.level == level; }));
  }
  bool has(int level, std::string_view text) const { return count(level, text) > 0; }
  /// A line of this level holds `part`.
  bool has_part(int level, std::string_view part) const {
    const std::vector<Line> all = lines();
    return std::any_of(all.begin(), all.end(), [&](const Line& line) {
      return line.level == level && line.text.find(part) != std::string::npos;
    });
  }
  /// Forgets what was logged so far.
  void clear() { start_ += static_cast<off_t>(read().size()); }
  /// The bytes as they were written.
  std::string read() const {
    std::fflush(file_);
    std::string bytes;
    char buffer[16384];
    for (ssize_t got;
         (got = pread(fileno(file_), buffer, sizeof buffer, start_ + static_cast<off_t>(bytes.size()))) > 0;)
      bytes.append(buffer, static_cast<std::size_t>(got));
    return bytes;
  }

 private:
  /// "TIME NAME[PID] LEVEL FUNCTION: TEXT", or under the journal "<PRIORITY>FUNCTION: TEXT".
  static Line parse(std::string_view line) {
    Line result;
    if (line.starts_with('<') && line.size() > 2 && line[2] == '>') {
      result.level = line[1] == '3' ? 3 : line[1] == '5' ? 4 : 5;
      line.remove_prefix(3);
    } else {
      const std::size_t name = line.find("] ");
      if (name == std::string_view::npos || name + 4 > line.size()) return {0, "", std::string(line)};
      const char level = line[name + 2];
      result.level = std::isdigit(static_cast<unsigned char>(level)) != 0 ? level - '0' : 0;
      line.remove_prefix(name + 4);
    }
    const std::size_t colon = line.find(": ");
    if (colon == std::string_view::npos) return {result.level, "", std::string(line)};
    result.function = line.substr(0, colon);
    result.text = line.substr(colon + 2);
    return result;
  }

  FILE* file_;
  off_t start_ = 0;
  int previous_level_ = -1;
};

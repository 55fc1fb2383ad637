// What every target shares: stopping at a broken promise, and taking an input apart.
//
// Inputs are texts in which what belongs together stands between marks, so that the seeds can be read and a mutation
// rarely destroys all that follows.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

#include "framework/log.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

/// Stops the run when a target's promise does not hold.
#define PROMISE(condition) ((condition) ? static_cast<void>(0) : fuzz::broken(#condition, __FILE__, __LINE__))

namespace fuzz {

[[noreturn]] inline void broken(const char* promise, const char* file, int line) {
  std::fprintf(stderr, "%s:%d: broken promise: %s\n", file, line, promise);
  std::abort();
}

inline std::string_view view(const std::uint8_t* data, std::size_t size) {
  return {reinterpret_cast<const char*>(data), size};
}

/// The pieces of the text between the marks.
inline std::vector<std::string_view> split(std::string_view text, std::string_view mark) {
  std::vector<std::string_view> pieces;
  for (;;) {
    const std::size_t end = text.find(mark);
    pieces.push_back(text.substr(0, end));
    if (end == std::string_view::npos) return pieces;
    text.remove_prefix(end + mark.size());
  }
}

/// What stands before the first `mark`; `text` keeps what is behind it (nothing when there is none).
inline std::string_view cut(std::string_view& text, std::string_view mark) {
  const std::size_t end = text.find(mark);
  const std::string_view before = text.substr(0, end);
  text.remove_prefix(end == std::string_view::npos ? text.size() : end + mark.size());
  return before;
}

/// Log lines are formatted as at the highest level, and go nowhere.
inline void logEverything() {
  static const bool done = [] {
    IMS_log::log_to_file(nullptr);
    IMS_log::set_level(5);
    return true;
  }();
  static_cast<void>(done);
}

}  // namespace fuzz

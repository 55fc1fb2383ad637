// The log: one line per call on one stream, one write per line.
//
//   2026-11-20T23:47:01.123456Z ue-proxy[4711] 5 run: __ua_myuri=<sip:127.0.0.1:5060> localport=5060
//
// Level 3 marks errors and unexpected input, 4 what was refused or failed and is tolerated, 5 tracing. Control
// characters in values, and bytes that are not UTF-8, are written as \xNN: so one message is always one line of
// well-formed text, and a header value cannot forge another.
#pragma once

#include <atomic>
#include <cstdio>

/// Any thread. Never blocks for long, never fails the caller: a line that the reader does not take is dropped and
/// counted, and the count is told when lines pass again.
class IMS_log {
 public:
  /// Writes the line when `level` is at or below the threshold; costs one comparison otherwise.
  static void loginfo(int level, const char* function, const char* format, ...) __attribute__((format(printf, 3, 4)));
  static bool enabled(int level) { return level <= threshold_.load(std::memory_order_relaxed); }
  /// Where lines go (standard error until then); not closed by the log. Null: nowhere. The descriptor behind the stream
  /// and JOURNAL_STREAM are looked at now: call it again after redirecting the stream. Ignores SIGPIPE.
  static void log_to_file(FILE* stream);
  /// Copied.
  static void set_progname(const char* name);
  /// Takes "-l N" / "--log-level N" from the command line; the threshold stays 4 without.
  static void set_options(int argc, char** argv);
  static void set_level(int level) { threshold_.store(level, std::memory_order_relaxed); }

 private:
  static std::atomic<int> threshold_;
};

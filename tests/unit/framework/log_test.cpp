#include "framework/log.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <iterator>
#include <random>
#include <string_view>
#include <thread>
#include <vector>

#include "framework/support.h"

namespace {

/// A pipe whose writing end is the log's stream.
class PipeLog {
 public:
  explicit PipeLog(int capacity = 4096) {
    EXPECT_EQ(::pipe2(ends_.data(), O_CLOEXEC), 0);
    ::fcntl(ends_[1], F_SETPIPE_SZ, capacity);
    stream_ = ::fdopen(ends_[1], "w");
  }
  ~PipeLog() {
    IMS_log::log_to_file(stderr);
    std::fclose(stream_);
    closeReader();
  }
  void use() { IMS_log::log_to_file(stream_); }
  void closeReader() {
    if (ends_[0] >= 0) ::close(ends_[0]);
    ends_[0] = -1;
  }
  void openReader() { ends_[0] = ::open(("/proc/self/fd/" + std::to_string(ends_[1])).c_str(), O_RDONLY | O_CLOEXEC); }
  int writer() const { return ends_[1]; }
  /// All that is in the pipe now.
  std::string drain() {
    ::fcntl(ends_[0], F_SETFL, ::fcntl(ends_[0], F_GETFL) | O_NONBLOCK);
    std::string all;
    char buffer[4096];
    for (ssize_t n = 0; (n = ::read(ends_[0], buffer, sizeof buffer)) > 0;) {
      all.append(buffer, static_cast<std::size_t>(n));
    }
    return all;
  }

 private:
  std::array<int, 2> ends_{-1, -1};
  FILE* stream_ = nullptr;
};

std::size_t count(const std::string& text, const std::string& piece) {
  std::size_t found = 0;
  for (std::size_t at = 0; (at = text.find(piece, at)) != std::string::npos; at += piece.size()) ++found;
  return found;
}

TEST(Log, LineHasTimeProgramProcessLevelAndFunction) {
  LogCapture log;
  IMS_log::set_progname("ue-proxy");
  IMS_log::set_level(5);
  IMS_log::loginfo(5, "run", "__ua_myuri=%s localport=%d", "<sip:127.0.0.1:5060>", 5060);
  EXPECT_THAT(log.text(),
              testing::MatchesRegex("[0-9]{4}-[0-9]{2}-[0-9]{2}T[0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{6}Z ue-proxy\\[" +
                                    std::to_string(::getpid()) +
                                    "\\] 5 run: __ua_myuri=<sip:127\\.0\\.0\\.1:5060> localport=5060\n"));
}

TEST(Log, ControlBytesCannotForgeALine) {
  LogCapture log;
  IMS_log::loginfo(3, "f", "a\r\nb\t\x7f\x1b[m\xc3\xa4");
  EXPECT_TRUE(log.has("f: a\\x0d\\x0ab\\x09\\x7f\\x1b[m\xc3\xa4\n")) << log.text();
  IMS_log::loginfo(3, "f", "\xc2\x9b[m \xc2\x85 \xc2\xa0 \xc2");
  EXPECT_TRUE(log.has("f: \\xc2\\x9b[m \\xc2\\x85 \xc2\xa0 \\xc2\n")) << log.text();
  EXPECT_EQ(log.lines(), 2u);
}

TEST(Log, BytesThatAreNotUtf8StandAsEscapes) {
  LogCapture log;
  IMS_log::loginfo(3, "f", "%s", "\xff \xc0\xaf \xe0\x80\xaf \xed\xa0\x80 \xf4\x90\x80\x80 \xe2\x82(\xe2\x82");
  EXPECT_TRUE(
      log.has("f: \\xff \\xc0\\xaf \\xe0\\x80\\xaf \\xed\\xa0\\x80 \\xf4\\x90\\x80\\x80 \\xe2\\x82(\\xe2\\x82\n"))
      << log.text();
  IMS_log::loginfo(3, "f\xff", "%s", "\xc3\xa4\xe2\x82\xac\xf0\x9f\x98\x80");
  EXPECT_TRUE(log.has("f\\xff: \xc3\xa4\xe2\x82\xac\xf0\x9f\x98\x80\n")) << log.text();
}

/// By the table of well-formed byte sequences (Unicode, table 3-7), without those of control characters.
bool isCleanText(std::string_view line) {
  struct Row {
    unsigned char first[2];
    unsigned char second[2];
    std::size_t size;
  };
  constexpr Row kRows[] = {{{0x20, 0x7e}, {}, 1},           {{0xc2, 0xc2}, {0xa0, 0xbf}, 2},
                           {{0xc3, 0xdf}, {0x80, 0xbf}, 2}, {{0xe0, 0xe0}, {0xa0, 0xbf}, 3},
                           {{0xe1, 0xec}, {0x80, 0xbf}, 3}, {{0xed, 0xed}, {0x80, 0x9f}, 3},
                           {{0xee, 0xef}, {0x80, 0xbf}, 3}, {{0xf0, 0xf0}, {0x90, 0xbf}, 4},
                           {{0xf1, 0xf3}, {0x80, 0xbf}, 4}, {{0xf4, 0xf4}, {0x80, 0x8f}, 4}};
  while (!line.empty()) {
    const auto within = [&](std::size_t i, const unsigned char(&range)[2]) {
      const auto byte = static_cast<unsigned char>(line[i]);
      return byte >= range[0] && byte <= range[1];
    };
    const auto* const row =
        std::find_if(std::begin(kRows), std::end(kRows), [&](const Row& one) { return within(0, one.first); });
    if (row == std::end(kRows) || line.size() < row->size || (row->size > 1 && !within(1, row->second))) return false;
    for (std::size_t i = 2; i < row->size; ++i) {
      if ((line[i] & 0xc0) != 0x80) return false;
    }
    line.remove_prefix(row->size);
  }
  return true;
}

TEST(Log, AnyBytesMakeOneLineOfCleanText) {
  std::minstd_rand random(4711);
  // Pieces of characters, so that whole, broken and forbidden ones come about by chance.
  const std::string_view pieces[] = {"a",    "\n",   "\x7f", "\xc2",     "\xc3",
                                     "\xe0", "\xed", "\xf0", "\xf4",     "\xff",
                                     "\x80", "\x9b", "\xa4", "\xc3\xa4", "\xf0\x9f\x98\x80"};
  for (int round = 0; round < 2000; ++round) {
    std::string text;
    // Around the bound too, where the line is cut.
    const std::size_t size = round % 4 == 0 ? 16000 + random() % 500 : random() % 100;
    while (text.size() < size) {
      text += pieces[random() % std::size(pieces)];
      if (random() % 8 == 0) text += static_cast<char>(random() % 255 + 1);
    }
    LogCapture log;
    IMS_log::loginfo(3, "f", "%s", text.c_str());
    const std::string line = log.text();
    ASSERT_TRUE(line.ends_with('\n') && line.size() <= 16384);
    ASSERT_TRUE(isCleanText(line.substr(0, line.size() - 1))) << line;
  }
}

TEST(Log, ALineIsNeverCutWithinACharacter) {
  for (std::size_t lead = 0; lead < 4; ++lead) {
    LogCapture log;
    std::string text(lead, 'y');
    while (text.size() < 20000) text += "\xf0\x9f\x98\x80";
    IMS_log::loginfo(3, "f", "%s", text.c_str());
    EXPECT_TRUE(log.text().ends_with("\xf0\x9f\x98\x80...\n"));
    EXPECT_GT(log.text().size(), 16384u - 4);
  }
}

TEST(Log, LinesAboveTheThresholdAreNotWritten) {
  LogCapture log;
  IMS_log::loginfo(5, "f", "trace");
  IMS_log::loginfo(4, "f", "refusal");
  IMS_log::loginfo(3, "f", "error");
  EXPECT_FALSE(log.has("trace"));
  EXPECT_TRUE(log.has(" 4 f: refusal\n"));
  EXPECT_TRUE(log.has(" 3 f: error\n"));
  IMS_log::set_level(3);
  IMS_log::loginfo(4, "f", "another");
  EXPECT_EQ(log.lines(), 2u);
}

TEST(Log, LevelComesFromTheCommandLine) {
  std::string program = "ue-proxy", option = "-l", value = "5", full = "--log-level=3", bad = "x";
  std::array<char*, 3> argv{program.data(), option.data(), value.data()};
  IMS_log::set_options(3, argv.data());
  EXPECT_TRUE(IMS_log::enabled(5));
  argv = {program.data(), full.data(), nullptr};
  IMS_log::set_options(2, argv.data());
  EXPECT_FALSE(IMS_log::enabled(4));
  IMS_log::set_level(4);
  argv = {program.data(), option.data(), bad.data()};
  IMS_log::set_options(3, argv.data());
  EXPECT_TRUE(IMS_log::enabled(4));
  EXPECT_FALSE(IMS_log::enabled(5));
}

TEST(Log, JournalGetsPriorityAndNoTime) {
  ::setenv("JOURNAL_STREAM", "8:4711", 1);
  {
    LogCapture log;
    IMS_log::set_level(5);
    IMS_log::loginfo(3, "run", "error");
    IMS_log::loginfo(4, "run", "refused");
    IMS_log::loginfo(5, "run", "trace");
    EXPECT_EQ(log.text(), "<3>run: error\n<5>run: refused\n<7>run: trace\n");
  }
  ::unsetenv("JOURNAL_STREAM");
  IMS_log::log_to_file(stderr);
}

TEST(Log, EachLineIsOneWrite) {
  std::array<int, 2> ends{};
  ASSERT_EQ(::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends.data()), 0);
  FILE* const stream = ::fdopen(ends[1], "w");
  IMS_log::log_to_file(stream);
  IMS_log::loginfo(3, "f", "first");
  IMS_log::loginfo(3, "f", "%s", std::string(9000, 'x').c_str());
  IMS_log::log_to_file(stderr);
  std::string buffer(20000, '\0');
  const ssize_t first = ::recv(ends[0], buffer.data(), buffer.size(), MSG_DONTWAIT);
  ASSERT_GT(first, 0);
  EXPECT_TRUE(buffer.substr(0, static_cast<std::size_t>(first)).ends_with("f: first\n"));
  const ssize_t second = ::recv(ends[0], buffer.data(), buffer.size(), MSG_DONTWAIT);
  EXPECT_GT(second, 9000);
  EXPECT_EQ(buffer[static_cast<std::size_t>(second) - 1], '\n');
  std::fclose(stream);
  ::close(ends[0]);
}

TEST(Log, VeryLongLineIsCutAndSaysSo) {
  LogCapture log;
  IMS_log::loginfo(3, "f", "%s", std::string(100000, 'x').c_str());
  EXPECT_EQ(log.text().size(), 16384u);
  EXPECT_TRUE(log.text().ends_with("xxx...\n"));
}

TEST(Log, EscapesAreNeverCutInTheMiddle) {
  for (std::size_t lead = 0; lead < 4; ++lead) {
    LogCapture log;
    IMS_log::loginfo(3, "f", "%s%s", std::string(lead, 'y').c_str(), std::string(8000, '\x01').c_str());
    EXPECT_TRUE(log.text().ends_with("\\x01...\n"));
    EXPECT_LE(log.text().size(), 16384u);
  }
}

TEST(Log, FullPipeDropsAndLaterTellsHowMany) {
  PipeLog pipe;
  pipe.use();
  const std::string filler(200, 'x');
  for (int i = 0; i < 1000; ++i) IMS_log::loginfo(3, "f", "%d %s", i, filler.c_str());
  const std::string before = pipe.drain();
  const std::size_t passed = count(before, "\n");
  EXPECT_GT(passed, 5u);
  EXPECT_LT(passed, 1000u);
  IMS_log::loginfo(3, "f", "again");
  IMS_log::loginfo(3, "f", "and again");
  const std::string after = pipe.drain();
  EXPECT_NE(after.find(" 3 loginfo: " + std::to_string(1000 - passed) + " log lines were dropped"), std::string::npos)
      << after;
  EXPECT_EQ(count(after, "\n"), 3u);
  EXPECT_TRUE(after.ends_with("f: and again\n"));
}

TEST(Log, SharedDescriptorKeepsItsBlockingMode) {
  PipeLog pipe;
  pipe.use();
  for (int i = 0; i < 1000; ++i) IMS_log::loginfo(3, "f", "line");
  EXPECT_EQ(::fcntl(pipe.writer(), F_GETFL) & O_NONBLOCK, 0);
}

TEST(Log, LineTakenInPartIsFinishedBeforeAnyOther) {
  PipeLog pipe;
  pipe.use();
  const std::string longest(12000, 'x');
  IMS_log::loginfo(3, "f", "%s", longest.c_str());
  IMS_log::loginfo(3, "f", "lost");
  std::string all;
  for (int i = 0; i < 4; ++i) {
    all += pipe.drain();
    IMS_log::loginfo(3, "f", "later %d", i);
  }
  all += pipe.drain();
  EXPECT_NE(all.find(longest + "\n"), std::string::npos);
  EXPECT_EQ(all.find("f: lost"), std::string::npos);
  EXPECT_NE(all.find("log lines were dropped"), std::string::npos);
  EXPECT_TRUE(all.ends_with("f: later 3\n"));
}

TEST(Log, ReaderThatIsGoneDoesNotKill) {
  PipeLog pipe;
  pipe.use();
  pipe.closeReader();
  IMS_log::loginfo(3, "f", "lost");
  IMS_log::loginfo(3, "f", "lost too");
  pipe.openReader();
  IMS_log::loginfo(3, "f", "heard");
  const std::string all = pipe.drain();
  EXPECT_NE(all.find("2 log lines were dropped"), std::string::npos) << all;
  EXPECT_EQ(count(all, "\n"), 2u);
}

// Where the pipe cannot be opened again the log asks before each piece that it writes.
TEST(Log, PipeThatCannotBeReopenedNeverBlocksEither) {
  PipeLog pipe;
  pipe.closeReader();
  pipe.use();  // without a reader, opening it without waiting fails
  pipe.openReader();
  const std::string filler(6000, 'x');
  for (int i = 0; i < 100; ++i) IMS_log::loginfo(3, "f", "%s", filler.c_str());
  std::string all = pipe.drain();
  for (int i = 0; i < 3; ++i) {
    IMS_log::loginfo(3, "f", "after");
    all += pipe.drain();
  }
  EXPECT_NE(all.find("x\n"), std::string::npos);
  EXPECT_NE(all.find("log lines were dropped"), std::string::npos);
  EXPECT_TRUE(all.ends_with("f: after\n"));
}

TEST(Log, FullDeviceIsHarmless) {
  FILE* const full = std::fopen("/dev/full", "w");
  ASSERT_NE(full, nullptr);
  IMS_log::log_to_file(full);
  for (int i = 0; i < 10; ++i) IMS_log::loginfo(3, "f", "nowhere");
  IMS_log::log_to_file(nullptr);
  IMS_log::loginfo(3, "f", "nowhere");
  IMS_log::log_to_file(stderr);
  std::fclose(full);
}

TEST(Log, StreamInMemoryWorksToo) {
  char* text = nullptr;
  std::size_t size = 0;
  FILE* const stream = ::open_memstream(&text, &size);
  IMS_log::log_to_file(stream);
  IMS_log::loginfo(3, "f", "kept");
  IMS_log::log_to_file(stderr);
  std::fclose(stream);
  EXPECT_TRUE(std::string(text).ends_with(" 3 f: kept\n"));
  std::free(text);
}

TEST(Log, ErrnoSurvivesALine) {
  LogCapture log;
  errno = ENOENT;
  IMS_log::loginfo(3, "f", "text");
  EXPECT_EQ(errno, ENOENT);
}

TEST(Log, ThreadsDoNotMixTheirLines) {
  LogCapture log;
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([t] {
      for (int i = 0; i < 500; ++i) {
        IMS_log::loginfo(3, "f", "%s", std::string(100, static_cast<char>('a' + t)).c_str());
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  std::istringstream lines(log.text());
  std::string line;
  int seen = 0;
  while (std::getline(lines, line)) {
    const std::size_t at = line.find(" 3 f: ");
    ASSERT_NE(at, std::string::npos) << line;
    const std::string text = line.substr(at + 6);
    ASSERT_EQ(text, std::string(100, text.empty() ? ' ' : text[0]));
    ++seen;
  }
  EXPECT_EQ(seen, 2000);
}

}  // namespace

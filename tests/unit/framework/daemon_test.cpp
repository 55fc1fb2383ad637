#include "framework/daemon.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <array>
#include <csignal>

#include "framework/support.h"

namespace {

TEST(Daemon, ForegroundStays) {
  EXPECT_EQ(inChild([] {
              IMS_daemon::foreground = true;
              const pid_t self = ::getpid();
              return IMS_daemon::make_daemon() && ::getpid() == self ? 0 : 1;
            }),
            0);
}

TEST(Daemon, DetachedProcessHasNoTerminalAndKeepsItsLog) {
  std::array<int, 2> report{};
  ASSERT_EQ(::pipe2(report.data(), O_CLOEXEC), 0);
  const int parent = inChild([&] {
    ::close(report[0]);
    const pid_t starter = ::getpid();
    const pid_t session = ::getsid(0);
    ::dup2(report[1], STDERR_FILENO);
    if (!IMS_daemon::make_daemon()) return ::getpid() == starter ? 7 : 1;
    char link[64] = "";
    const auto leadsTo = [&link](const char* from, const char* to) {
      const ssize_t size = ::readlink(from, link, sizeof link - 1);
      return size > 0 && std::string_view(link, static_cast<std::size_t>(size)) == to;
    };
    const bool good = ::getpid() != starter && ::getsid(0) != session && ::getsid(0) != ::getpid() &&
                      leadsTo("/proc/self/cwd", "/") && leadsTo("/proc/self/fd/0", "/dev/null") &&
                      leadsTo("/proc/self/fd/1", "/dev/null");
    const std::string text = good ? "good" : "bad";
    return ::write(STDERR_FILENO, text.data(), text.size()) < 0 ? 1 : 0;
  });
  EXPECT_EQ(parent, 7) << "the starter is told to end";
  ::close(report[1]);
  char answer[16] = "";
  const ssize_t size = ::read(report[0], answer, sizeof answer - 1);
  EXPECT_EQ(std::string_view(answer, size < 0 ? 0 : static_cast<std::size_t>(size)), "good");
  ::close(report[0]);
}

TEST(Daemon, HangUpAndBrokenPipeAreIgnored) {
  EXPECT_EQ(inChild([] {
              ::signal(SIGPIPE, SIG_DFL);
              IMS_daemon daemon;
              daemon.set_signal_handlers();
              ::raise(SIGHUP);
              ::raise(SIGPIPE);
              return 3;
            }),
            3);
}

}  // namespace

#include "framework/daemon.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>

#include "framework/log.h"
#include "framework/options.h"
#include "framework/run_files.h"

bool IMS_daemon::__d_arg_h = false;
bool IMS_daemon::foreground = false;

IMS_daemon::~IMS_daemon() = default;

void IMS_daemon::print_usage() {
  if (__d_arg_h) std::fputs(framework::usageText().c_str(), stderr);
}

void IMS_daemon::clean_daemon() {
  framework::removeRunFiles();
}

void IMS_daemon::set_signal_handlers() {
  ::signal(SIGHUP, SIG_IGN);
  ::signal(SIGPIPE, SIG_IGN);
  ::signal(SIGXFSZ, SIG_IGN);  // a file at its largest size is one more write that failed
}

bool IMS_daemon::make_daemon() {
  if (foreground) return true;
  const pid_t first = ::fork();
  if (first < 0) {
    IMS_log::loginfo(3, "make_daemon", "cannot detach: %s", std::strerror(errno));
    return false;
  }
  if (first > 0) {
    int status = 0;
    while (::waitpid(first, &status, 0) < 0 && errno == EINTR) continue;
    return false;
  }
  // The session's leader ends at once, so that no terminal can ever become the daemon's.
  ::setsid();
  const pid_t second = ::fork();
  if (second < 0) IMS_log::loginfo(3, "make_daemon", "cannot detach: %s", std::strerror(errno));
  if (second != 0) ::_exit(second < 0 ? 1 : 0);
  if (::chdir("/") != 0) IMS_log::loginfo(4, "make_daemon", "cannot change to /: %s", std::strerror(errno));
  const int null = ::open("/dev/null", O_RDWR | O_CLOEXEC);
  if (null >= 0) {
    ::dup2(null, STDIN_FILENO);
    ::dup2(null, STDOUT_FILENO);
    if (null > STDERR_FILENO) ::close(null);
  }
  return true;
}

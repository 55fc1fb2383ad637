#include "framework/control_channel.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <new>
#include <utility>

#include "framework/log.h"
#include "siplib/reactor.h"

namespace framework {
namespace {

// Texts that may wait for the loop at once, and how many are read before other sockets get their turn.
constexpr int kMaxWaiting = 64;
constexpr int kTextsPerTurn = 16;

int datagramSocket() {
  return ::socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
}

const sockaddr* plain(const sockaddr_un& address) {
  return reinterpret_cast<const sockaddr*>(&address);
}

bool somebodyListens(const sockaddr_un& address) {
  const int probe = datagramSocket();
  if (probe < 0) return false;
  const bool there = ::connect(probe, plain(address), sizeof address) == 0;
  ::close(probe);
  return there;
}

}  // namespace

struct ControlChannel::State {
  int descriptor = -1;
  siplib::Reactor* reactor = nullptr;
  std::unique_ptr<siplib::Reactor::Watch> watch;
  std::function<void(std::unique_ptr<char[]>)> take;
  std::atomic<int> waiting{0};
  std::atomic<bool> paused{false};

  void hand(const char* bytes, std::size_t length) {
    std::unique_ptr<char[]> text(new (std::nothrow) char[length + 1]);
    if (!text) {
      IMS_log::loginfo(3, "read", "control channel: a text lost, no memory");
      return;
    }
    std::memcpy(text.get(), bytes, length);
    text[length] = '\0';
    ++waiting;
    take(std::move(text));
  }

  void read() {
    char buffer[kMaxControlText];
    for (int i = 0; i < kTextsPerTurn; ++i) {
      if (waiting.load() >= kMaxWaiting) {
        paused = true;
        watch->wantRead(false);
        // The loop may have dealt with them just before it could see the pause.
        if (waiting.load() < kMaxWaiting && paused.exchange(false)) watch->wantRead(true);
        return;
      }
      const ssize_t size = ::recv(descriptor, buffer, sizeof buffer, MSG_DONTWAIT | MSG_TRUNC);
      if (size < 0) return;
      const auto length = static_cast<std::size_t>(size);
      if (length > sizeof buffer) {
        IMS_log::loginfo(4, "read", "control channel: a text of %zu bytes refused, %zu are allowed", length,
                         sizeof buffer);
        continue;
      }
      hand(buffer, length);
    }
  }
};

ControlChannel::ControlChannel() : state_(std::make_shared<State>()) {
}

ControlChannel::~ControlChannel() {
  close();
}

bool ControlChannel::open(const std::string& path, std::string& error, bool& busy) {
  close();
  busy = false;
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.size() >= sizeof address.sun_path) {
    error = "the path is too long for a socket";
    return false;
  }
  std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
  struct stat status {};
  if (::lstat(path.c_str(), &status) == 0) {
    if (!S_ISSOCK(status.st_mode)) {
      error = "something that is no socket is in its place";
      return false;
    }
    if (somebodyListens(address)) {
      busy = true;
      error = "another process listens there";
      return false;
    }
    ::unlink(path.c_str());
  }
  state_->descriptor = datagramSocket();
  // The mode given before bind is the mode that the file is born with.
  if (state_->descriptor < 0 || ::fchmod(state_->descriptor, 0600) != 0 ||
      ::bind(state_->descriptor, plain(address), sizeof address) != 0) {
    error = std::strerror(errno);
    close();
    return false;
  }
  return true;
}

bool ControlChannel::listen(siplib::Reactor& reactor, std::function<void(std::unique_ptr<char[]>)> take) {
  if (state_->descriptor < 0) return false;
  if (state_->watch) return true;
  state_->reactor = &reactor;
  state_->take = std::move(take);
  State* const state = state_.get();
  state_->watch = reactor.watch(
      state->descriptor, [state] { state->read(); }, [] {});
  if (!state->watch) return false;
  state->watch->wantRead(true);
  return true;
}

void ControlChannel::handled() {
  --state_->waiting;
  if (!state_->paused.exchange(false)) return;
  state_->reactor->post([weak = std::weak_ptr<State>(state_)] {
    const auto state = weak.lock();
    if (state && state->watch) state->watch->wantRead(true);
  });
}

void ControlChannel::close() {
  state_->watch.reset();
  if (state_->descriptor >= 0) ::close(state_->descriptor);
  state_->descriptor = -1;
}

}  // namespace framework

// The control channel: a Unix datagram socket in the run directory, each datagram one refresh text.
#pragma once

#include <cstddef>
#include <functional>
#include <memory>
#include <string>

namespace siplib {
class Reactor;
}

namespace framework {

/// A text larger than this is refused with one log line.
constexpr std::size_t kMaxControlText = 4096;

class ControlChannel {
 public:
  ControlChannel();
  /// See close.
  ~ControlChannel();
  ControlChannel(const ControlChannel&) = delete;
  ControlChannel& operator=(const ControlChannel&) = delete;

  /// Makes the socket (mode 0600). A socket that a dead process left is replaced; one that a living process listens on
  /// is not. False with the reason in `error`; `busy` then says whether it is the latter.
  bool open(const std::string& path, std::string& error, bool& busy);
  /// Calls `take` on the I/O thread with each text (NUL-terminated). While many texts are not yet `handled`, further
  /// ones stay in the socket and their senders wait. False when it is not open.
  bool listen(siplib::Reactor& reactor, std::function<void(std::unique_ptr<char[]>)> take);
  /// Any thread: one of the texts was dealt with.
  void handled();
  /// When no I/O thread runs any more, or on it.
  void close();

 private:
  struct State;
  std::shared_ptr<State> state_;
};

}  // namespace framework

// Sockets of the load generator and the relay. Both are tools of a benchmark: what goes wrong ends them with one line.
#pragma once

#include <netinet/in.h>

#include <string>
#include <string_view>

namespace bench {

/// Writes "NAME: what: system error" and exits with 1.
[[noreturn]] void fail(const std::string& what);

struct Address {
  sockaddr_in at{};
  std::string text;  ///< IP:PORT
};
/// "127.0.0.1:5060".
Address address(std::string_view text);

/// All non-blocking and close-on-exec. `from` may have port 0.
int udpSocket(const Address& from);
int tcpListener(const Address& at);
/// The next connection; waits for it at most `milliseconds`.
int tcpAccept(int listener, int milliseconds);
/// Connected when it returns.
int tcpConnect(const Address& from, const Address& to);

int newEpoll();
/// Level-triggered, for reading; `data` comes back with the event.
void watch(int epoll, int descriptor, unsigned int data);

}  // namespace bench

#include "net.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace bench {
namespace {

constexpr int kBuffer = 4 << 20;

void turnOn(int descriptor, int level, int option) {
  const int on = 1;
  ::setsockopt(descriptor, level, option, &on, sizeof on);
}

int newSocket(int type, const Address& from) {
  const int descriptor = ::socket(AF_INET, type | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  if (descriptor < 0) fail("socket");
  turnOn(descriptor, SOL_SOCKET, SO_REUSEADDR);
  if (::bind(descriptor, reinterpret_cast<const sockaddr*>(&from.at), sizeof from.at) != 0) fail("bind " + from.text);
  return descriptor;
}

}  // namespace

void fail(const std::string& what) {
  std::fprintf(stderr, "bench: %s: %s\n", what.c_str(), strerrordesc_np(errno));
  std::exit(1);
}

Address address(std::string_view text) {
  Address result;
  result.text = text;
  const std::size_t colon = text.find(':');
  result.at.sin_family = AF_INET;
  if (colon == std::string_view::npos ||
      ::inet_pton(AF_INET, std::string(text.substr(0, colon)).c_str(), &result.at.sin_addr) != 1) {
    errno = EINVAL;
    fail("not IP:PORT: " + result.text);
  }
  const unsigned long port = std::strtoul(result.text.c_str() + colon + 1, nullptr, 10);
  result.at.sin_port = htons(static_cast<std::uint16_t>(port));
  return result;
}

int udpSocket(const Address& from) {
  const int descriptor = newSocket(SOCK_DGRAM, from);
  // A window of messages must never be lost here; capped by the system's own limit.
  ::setsockopt(descriptor, SOL_SOCKET, SO_RCVBUF, &kBuffer, sizeof kBuffer);
  return descriptor;
}

int tcpListener(const Address& at) {
  const int descriptor = newSocket(SOCK_STREAM, at);
  turnOn(descriptor, IPPROTO_TCP, TCP_NODELAY);  // inherited
  if (::listen(descriptor, 1024) != 0) fail("listen " + at.text);
  return descriptor;
}

int tcpAccept(int listener, int milliseconds) {
  pollfd ready{listener, POLLIN, 0};
  errno = ETIMEDOUT;
  if (::poll(&ready, 1, milliseconds) <= 0) fail("accept");
  const int descriptor = ::accept4(listener, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
  if (descriptor < 0) fail("accept");
  return descriptor;
}

int tcpConnect(const Address& from, const Address& to) {
  const int descriptor = newSocket(SOCK_STREAM, from);
  turnOn(descriptor, IPPROTO_TCP, TCP_NODELAY);
  if (::connect(descriptor, reinterpret_cast<const sockaddr*>(&to.at), sizeof to.at) == 0) return descriptor;
  pollfd ready{descriptor, POLLOUT, 0};
  int error = errno;
  socklen_t size = sizeof error;
  if (error == EINPROGRESS && ::poll(&ready, 1, 5000) > 0) {
    ::getsockopt(descriptor, SOL_SOCKET, SO_ERROR, &error, &size);
  }
  errno = error;
  if (error != 0) fail("connect " + to.text);
  return descriptor;
}

int newEpoll() {
  const int epoll = ::epoll_create1(EPOLL_CLOEXEC);
  if (epoll < 0) fail("epoll");
  return epoll;
}

void watch(int epoll, int descriptor, unsigned int data) {
  epoll_event event{};
  event.events = EPOLLIN;
  event.data.u32 = data;
  if (::epoll_ctl(epoll, EPOLL_CTL_ADD, descriptor, &event) != 0) fail("epoll_ctl");
}

}  // namespace bench

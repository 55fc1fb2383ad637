#include "siplib/socket.h"

#include <limits.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <vector>

#include "siplib/message.h"

namespace siplib {
namespace {

constexpr int backlog = 128;
/// Milliseconds that a connect within this host may take until its outcome is known. It takes none, except where a busy
/// processor puts the kernel's own work off, or where the peer's backlog is full.
constexpr int loopback_wait = 50;
/// Milliseconds after which sent bytes that the peer's host never acknowledged end the connection: 64*T1 (RFC 3261
/// 17.1.1.2), after that no transaction waits for them. The system's own limit is a quarter of an hour.
constexpr unsigned int unacknowledged_for = 32000;

void turnOn(int descriptor, int level, int option) {
  const int on = 1;
  setsockopt(descriptor, level, option, &on, sizeof on);
}

void prepareStream(int descriptor) {
  turnOn(descriptor, IPPROTO_TCP, TCP_NODELAY);
  setsockopt(descriptor, IPPROTO_TCP, TCP_USER_TIMEOUT, &unacknowledged_for, sizeof unacknowledged_for);
}

FileDescriptor newSocket(const SocketAddress& address, int type) {
  FileDescriptor socket(::socket(address.family(), type | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
  if (socket && address.family() == AF_INET6) turnOn(socket.get(), IPPROTO_IPV6, IPV6_V6ONLY);
  return socket;
}

OpenedSocket failure() {
  return {FileDescriptor(), errno};
}

// A free port that the system picks may be the very one we connect to; TCP then connects the socket to itself.
bool connectedToItself(int descriptor, const SocketAddress& destination) {
  return SocketAddress::localOf(descriptor) == destination;
}

OpenedConnection connectOnce(const SocketAddress& source, const SocketAddress& destination) {
  OpenedConnection opened;
  FileDescriptor socket = newSocket(source, SOCK_STREAM);
  if (!socket) {
    opened.error = errno;
    return opened;
  }
  prepareStream(socket.get());
  turnOn(socket.get(), SOL_SOCKET, SO_REUSEPORT);  // shares the port with our own listener
  // Left in TIME_WAIT it would otherwise keep the listener of a restarted process from the port for a minute.
  turnOn(socket.get(), SOL_SOCKET, SO_REUSEADDR);
  if (::bind(socket.get(), source.data(), source.size()) != 0) {
    opened.error = errno;
    return opened;
  }
  if (::connect(socket.get(), destination.data(), destination.size()) == 0) {
    opened.connected = true;
  } else if (errno != EINPROGRESS) {
    opened.error = errno;
    return opened;
  } else {
    pollfd ready{socket.get(), POLLOUT, 0};
    if (::poll(&ready, 1, destination.isLoopback() ? loopback_wait : 0) > 0) {
      opened.error = connectResult(socket.get());
      if (opened.error != 0) return opened;
      opened.connected = true;
    }
  }
  if (opened.connected && connectedToItself(socket.get(), destination)) {
    opened.connected = false;
    opened.error = ECONNREFUSED;
    return opened;
  }
  opened.socket = std::move(socket);
  return opened;
}

}  // namespace

void FileDescriptor::reset() {
  if (descriptor_ >= 0) ::close(std::exchange(descriptor_, -1));
}

// SO_REUSEADDR lets a restarted process have its port back from connections in TIME_WAIT. SO_REUSEPORT is for our own
// client sockets, and only after listen: set before, the bind would succeed beside another process's listener.
OpenedSocket openListener(const SocketAddress& address) {
  FileDescriptor socket = newSocket(address, SOCK_STREAM);
  if (!socket) return failure();
  turnOn(socket.get(), SOL_SOCKET, SO_REUSEADDR);
  prepareStream(socket.get());  // inherited by what is accepted
  if (::bind(socket.get(), address.data(), address.size()) != 0) return failure();
  if (::listen(socket.get(), backlog) != 0) return failure();
  turnOn(socket.get(), SOL_SOCKET, SO_REUSEPORT);
  return {std::move(socket), 0};
}

OpenedSocket openDatagram(const SocketAddress& address) {
  FileDescriptor socket = newSocket(address, SOCK_DGRAM);
  if (!socket) return failure();
  if (::bind(socket.get(), address.data(), address.size()) != 0) return failure();
  return {std::move(socket), 0};
}

OpenedConnection openConnection(const SocketAddress& source, const SocketAddress& destination) {
  if (source.family() != destination.family()) return {FileDescriptor(), EAFNOSUPPORT, false};
  if (source != destination) {
    OpenedConnection opened = connectOnce(source, destination);
    if (opened.error != EADDRINUSE && opened.error != EADDRNOTAVAIL) return opened;
  }
  return connectOnce(source.withPort(0), destination);
}

int connectResult(int descriptor) {
  int error = 0;
  socklen_t size = sizeof error;
  return getsockopt(descriptor, SOL_SOCKET, SO_ERROR, &error, &size) == 0 ? error : errno;
}

Slices slicesOf(const SIPLIB_message& message) {
  thread_local std::vector<iovec> slices;
  slices.clear();
  message.gather(slices);
  return slices;
}

Slices sliceOf(std::string_view bytes, iovec& place) {
  place.iov_base = const_cast<char*>(bytes.data());  // only ever read
  place.iov_len = bytes.size();
  return {&place, 1};
}

std::size_t sizeOf(Slices slices) {
  std::size_t size = 0;
  for (const iovec& slice : slices) size += slice.iov_len;
  return size;
}

void appendTo(std::string& out, Slices slices, std::size_t skip) {
  out.reserve(out.size() + sizeOf(slices) - skip);  // all of it or, without memory, nothing
  for (const iovec& slice : slices) {
    const std::size_t passed = std::min(skip, slice.iov_len);
    skip -= passed;
    out.append(static_cast<const char*>(slice.iov_base) + passed, slice.iov_len - passed);
  }
}

ssize_t sendSlices(int descriptor, Slices slices, const SocketAddress* to) {
  std::string joined;
  iovec whole;
  if (slices.size() > IOV_MAX) {
    appendTo(joined, slices);
    slices = sliceOf(joined, whole);
  }
  msghdr message{};
  if (to != nullptr) {
    message.msg_name = const_cast<sockaddr*>(to->data());
    message.msg_namelen = to->size();
  }
  message.msg_iov = const_cast<iovec*>(slices.data());
  message.msg_iovlen = slices.size();
  ssize_t sent = 0;
  do {
    sent = ::sendmsg(descriptor, &message, MSG_NOSIGNAL | MSG_DONTWAIT);
  } while (sent < 0 && errno == EINTR);
  return sent;
}

}  // namespace siplib

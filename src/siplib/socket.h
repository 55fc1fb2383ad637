// Sockets as this library uses them: never blocking, never inherited, never raising SIGPIPE.
#pragma once

#include <sys/types.h>
#include <sys/uio.h>

#include <cstddef>
#include <span>
#include <string>
#include <utility>

#include "siplib/socket_address.h"

class SIPLIB_message;

namespace siplib {

/// Owns one descriptor.
class FileDescriptor {
 public:
  FileDescriptor() = default;
  explicit FileDescriptor(int descriptor) : descriptor_(descriptor) {}
  FileDescriptor(FileDescriptor&& other) noexcept : descriptor_(std::exchange(other.descriptor_, -1)) {}
  FileDescriptor& operator=(FileDescriptor&& other) noexcept {
    std::swap(descriptor_, other.descriptor_);
    return *this;
  }
  ~FileDescriptor() { reset(); }
  int get() const { return descriptor_; }
  explicit operator bool() const { return descriptor_ >= 0; }
  void reset();

 private:
  int descriptor_ = -1;
};

/// What came of opening a socket: `socket` is set, or `error` (an errno value).
struct OpenedSocket {
  FileDescriptor socket;
  int error = 0;
};

/// A listener that takes connections at once. Fails with EADDRINUSE when any other socket listens there.
OpenedSocket openListener(const SocketAddress& address);
/// A datagram socket. Fails with EADDRINUSE when any other has the port.
OpenedSocket openDatagram(const SocketAddress& address);

struct OpenedConnection {
  FileDescriptor socket;
  int error = 0;
  /// False while the connect runs on; the socket becomes writable at its end, connectResult then tells how it went.
  bool connected = false;
};
/// Starts a connect from the address and port of `source` when that pair of ends is free, else from another port of the
/// same address. To a loopback address the outcome is known on return, unless the peer's backlog is full.
OpenedConnection openConnection(const SocketAddress& source, const SocketAddress& destination);
/// 0 or an errno value.
int connectResult(int descriptor);

using Slices = std::span<const iovec>;

/// The message as it stands. Good until the message changes or this thread asks for another's.
Slices slicesOf(const SIPLIB_message& message);
/// The bytes as one slice, kept in `place`.
Slices sliceOf(std::string_view bytes, iovec& place);
std::size_t sizeOf(Slices slices);
/// Appends what comes after the first `skip` bytes to `out`.
void appendTo(std::string& out, Slices slices, std::size_t skip = 0);

/// One non-blocking sendmsg; `to` is null for a connected socket. How many bytes went, or -1 and errno.
ssize_t sendSlices(int descriptor, Slices slices, const SocketAddress* to = nullptr);

}  // namespace siplib

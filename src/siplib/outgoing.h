// What the user has sent in this round of its loop and is not on its way yet: many messages, few system calls.
//
// Between hold() and release() datagrams are copied here and bytes for a connection wait in its stream; release() gives
// them to the kernel, datagrams of one socket in one call, all that one connection has in another. Not held, nothing
// waits.
//
// Threads: the user's alone.
#pragma once

#include <sys/socket.h>

#include <array>
#include <cstddef>
#include <memory>
#include <vector>

#include "siplib/socket.h"
#include "siplib/socket_address.h"

namespace siplib {

class Endpoint;
class TcpStream;

class Outgoing {
 public:
  Outgoing();
  ~Outgoing();
  Outgoing(const Outgoing&) = delete;
  Outgoing& operator=(const Outgoing&) = delete;

  bool held() const { return held_; }
  void hold() { held_ = true; }
  void release();

  /// A datagram of at most kLargestDatagram bytes. Copied.
  void add(std::shared_ptr<Endpoint> endpoint, Slices slices, const SocketAddress& peer);
  /// A stream in which bytes wait; once for each time that the first of them came.
  void add(std::shared_ptr<TcpStream> stream) { streams_.push_back(std::move(stream)); }
  /// Sends what waits.
  void flush();

  /// An IPv4 datagram's 65,535 bytes without its own two heads.
  static constexpr std::size_t kLargestDatagram = 65507;

 private:
  static constexpr std::size_t kMost = 32;
  struct Datagrams {
    std::array<mmsghdr, kMost> headers;
    std::array<iovec, kMost> slices;
    std::array<SocketAddress, kMost> peers;
    std::array<std::shared_ptr<Endpoint>, kMost> endpoints;
    std::array<char, 65536> room;  // no page of it costs anything before it is written
  };

  void flushDatagrams();

  bool held_ = false;
  std::unique_ptr<Datagrams> datagrams_;  // made with the first
  std::size_t count_ = 0;
  std::size_t used_ = 0;
  std::vector<std::shared_ptr<TcpStream>> streams_;
};

}  // namespace siplib

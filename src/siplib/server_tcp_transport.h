// A TCP connection that a peer opened to one of our endpoints.
//
// Either the endpoint's listener accepts it, then its messages are asked about, its end is told, and its memory goes at
// the end of the turn in which the user closes it; or there was no listener, then only the library knows it.
#pragma once

#include <memory>
#include <mutex>

#include "siplib/closable.h"
#include "siplib/connection.h"
#include "siplib/inbox.h"
#include "siplib/stack_core.h"
#include "siplib/tcp_stream.h"

namespace siplib {

class EndpointListener;

class ServerTcpTransport final : public SIPLIB_SIPServerTcpTransport,
                                 public Closable,
                                 public Retired,
                                 public StreamOwner,
                                 public std::enable_shared_from_this<ServerTcpTransport> {
 public:
  /// Most messages that wait for receive(); above it the connection is not read.
  static constexpr std::size_t kMostReceived = 64;

  ServerTcpTransport(std::shared_ptr<StackCore> core, std::shared_ptr<const EndpointListener> endpoint,
                     std::shared_ptr<TcpStream> stream, const SocketAddress& local, const SocketAddress& peer);

  // The user's thread.
  int receive() override;
  int send() override;
  bool getLocalAddress(std::string& ip, int& port) const override { return local_.get(ip, port); }
  bool getPeerAddress(std::string& ip, int& port) const override { return peer_.get(ip, port); }
  void closeByUser() override;
  bool awaited() const override { return !inbox_.empty(); }

  // I/O thread.
  /// Begins to read. `accepted`: the listener has taken it.
  void start(bool accepted);
  bool streamMessage(char* text, std::size_t length) override;
  void streamClosed(TcpStream& stream, int level, std::string_view why, std::string unsent) override;

 private:
  std::shared_ptr<TcpStream> stream();

  const std::shared_ptr<StackCore> core_;
  const std::shared_ptr<const EndpointListener> endpoint_;
  const SocketAddress local_;
  const SocketAddress peer_;
  Inbox<SIPLIB_SIPMessageHandle> inbox_{kMostReceived};
  LogLimit dropped_;

  std::mutex mutex_;
  std::shared_ptr<TcpStream> stream_;
  bool closed_by_user_ = false;

  // I/O thread.
  bool accepted_ = false;
};

}  // namespace siplib

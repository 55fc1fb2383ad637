// One connected TCP socket: cuts what comes in into messages, and sends without ever waiting.
//
//   in:   readable -> recv -> Framer -> StreamOwner::streamMessage, once per message
//   out:  send() on any thread goes straight to the socket; what it does not take at once waits here and is finished on
//         the I/O thread. What sendSoon() takes waits for flush(), so that many messages leave together. One sender at
//         a time holds a claim, so that no lock is held while the kernel works.
//
// The socket is closed when the last holder lets go, so that a send never meets a descriptor of another.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>

#include "siplib/framer.h"
#include "siplib/peer_owner.h"
#include "siplib/reactor.h"
#include "siplib/socket.h"
#include "siplib/stack_core.h"

namespace siplib {

/// The transport that a stream works for. Called on the I/O thread, no lock held.
class StreamOwner {
 public:
  virtual ~StreamOwner() = default;
  /// One complete message; `text` dies with the call. False: no further one until resume().
  virtual bool streamMessage(char* text, std::size_t length) = 0;
  /// The end, once, after every message. Not called after letGo(). `unsent`: whole messages that
  /// sendSoon() had taken and for which it came too late.
  virtual void streamClosed(TcpStream& stream, int level, std::string_view why, std::string unsent) = 0;
};

class TcpStream : public std::enable_shared_from_this<TcpStream> {
 public:
  /// Most bytes that wait for a peer which does not read.
  static constexpr std::size_t kMostWaiting = std::size_t{256} * 1024;
  /// More is not put off.
  static constexpr std::size_t kMostSoon = std::size_t{32} * 1024;

  TcpStream(std::shared_ptr<StackCore> core, FileDescriptor socket, ConnectionSlot slot);
  TcpStream(const TcpStream&) = delete;
  TcpStream& operator=(const TcpStream&) = delete;

  enum class Sent {
    Taken,
    Full,   ///< Too much waits already.
    Broken  ///< The socket is of no use any more; the owner is or will be told.
  };
  /// Any thread.
  Sent send(Slices slices);
  /// The same for the user's thread: the bytes may wait until flush().
  Sent sendSoon(Slices slices);
  /// Sends what waits, unless it waits for the peer.
  void flush();
  /// Bytes that go out before all others; before start() only.
  void preload(std::string bytes) { waiting_ = std::move(bytes); }
  /// No send is taken from now on. Any thread.
  void close();
  /// Milliseconds since StackCore::now's beginning; when anything last moved.
  std::int64_t lastMoved() const { return moved_.load(std::memory_order_relaxed); }
  /// Since when an accepted connection's peer has to finish: from its acceptance until its first whole head, from the
  /// first byte of a message until its last. 0: it owes nothing. I/O thread.
  std::int64_t owedSince() const { return silent_since_ != 0 ? silent_since_ : begun_; }

  // I/O thread.
  void start(StreamOwner& owner);
  void resume();
  /// Ends the reading; the owner is not told.
  void letGo();
  /// Ends the reading and tells the owner; nothing when it ended before.
  void fail(int level, std::string_view why);

 private:
  template <typename Work>
  void orFail(Work work);
  void readable();
  void deliver();
  void watchPeer();
  void heard();
  void writable();
  /// With the claim: sends `slices`; what is left waits, before what other threads have added since. `flushed`: the
  /// text that they are, which becomes unsent_ when the socket is broken; else null.
  Sent write(Slices slices, std::string* flushed = nullptr);
  /// With the lock.
  Sent wait(Slices slices);
  /// Ends the reading; what flush() could not send.
  std::string detach();
  void logUnsent(std::size_t bytes) const;
  /// Under the lock: what was not sent waits, before all else. False without memory for it.
  bool keepRest(Slices slices, std::size_t sent);

  const std::shared_ptr<StackCore> core_;
  const FileDescriptor socket_;
  ConnectionSlot slot_;
  std::atomic<std::int64_t> moved_;

  std::mutex mutex_;
  std::string waiting_;
  /// Of the flush that found the socket broken.
  std::string unsent_;
  bool claimed_ = false;
  bool closed_ = false;
  /// The I/O thread has been asked to watch for writability, or watches.
  bool writable_wanted_ = false;

  // I/O thread.
  StreamOwner* owner_ = nullptr;
  std::unique_ptr<Reactor::Watch> watch_;
  Framer framer_;
  bool paused_ = false;
  /// See owedSince.
  std::int64_t silent_since_ = 0;
  std::int64_t begun_ = 0;
};

/// The way back over one stream, for as long as it lasts.
class StreamPath final : public Path {
 public:
  StreamPath(std::weak_ptr<TcpStream> stream, const SocketAddress& local, const SocketAddress& peer)
      : stream_(std::move(stream)), local_(local), peer_(peer) {}
  bool send(std::string_view bytes) override;
  bool reliable() const override { return true; }
  void local(std::string& ip, int& port) const override { local_.get(ip, port); }
  void peer(std::string& ip, int& port) const override { peer_.get(ip, port); }
  std::optional<uid_t> peerOwner(std::string& why) const override { return tcpPeerOwner(peer_, local_, why); }

 private:
  const std::weak_ptr<TcpStream> stream_;
  const SocketAddress local_;
  const SocketAddress peer_;
};

}  // namespace siplib

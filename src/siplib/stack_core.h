// What the sockets of one stack share: its settings, the door to the I/O thread, the log, the count of connections, the
// ordinary SIP processing, and the bin for what its user has closed.
//
// Lifetime: everything that belongs to a stack holds its core. The stack ends with shutdown(), with the reactor at
// rest; work that is still posted then does nothing.
//
// Locks: one for the local endpoint's address, one for the bin. Neither is held while anything else is called.
#pragma once

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_set>
#include <vector>

#include "siplib/message.h"
#include "siplib/outgoing.h"
#include "siplib/places.h"
#include "siplib/reactor.h"
#include "siplib/socket_address.h"
#include "siplib/stack.h"
#include "siplib/transaction_layer.h"

namespace siplib {

class TcpStream;

/// Something that the user closed and may still look at until its turn ends.
class Retired {
 public:
  virtual ~Retired() = default;
  /// True while a notification of it can still be waiting in the user's queue: it is kept until then.
  virtual bool awaited() const { return false; }
};

/// A line that a peer can cause again and again is written once in a while, with the number of those left out.
class LogLimit {
 public:
  explicit LogLimit(std::chrono::milliseconds pause = std::chrono::seconds(1)) : pause_(pause) {}
  /// True when a line is due; `left_out` is then how many were not.
  bool due(std::uint64_t& left_out);

 private:
  const std::chrono::milliseconds pause_;
  std::atomic<std::int64_t> next_{0};
  std::atomic<std::uint64_t> left_out_{0};
};

class StackCore : public std::enable_shared_from_this<StackCore> {
 public:
  explicit StackCore(const SIPLIB_SIPStackConfig& config);
  StackCore(const StackCore&) = delete;
  StackCore& operator=(const StackCore&) = delete;

  const SIPLIB_SIPStackConfig& config() const { return config_; }
  Reactor& reactor() const { return *config_.reactor; }
  /// Milliseconds of a clock that never goes back; cheap, coarse.
  static std::int64_t now();

  void setLayer(std::unique_ptr<TransactionLayer> layer) { layer_ = std::move(layer); }
  TransactionLayer& layer() const { return *layer_; }

  /// The end; see above.
  void shutdown();
  /// Calls `work` on the I/O thread, unless the stack ends before. Any thread.
  void post(std::function<void()> work);

  /// Nothing is formatted for a level above the threshold. Any thread.
  void log(int level, const char* where, const char* format, ...) const __attribute__((format(printf, 4, 5)));
  void log(LogLimit& limit, int level, const char* where, const char* format, ...) const
      __attribute__((format(printf, 5, 6)));

  /// What the user's thread sends.
  Outgoing& outgoing() { return outgoing_; }

  /// Who has the connections that may be open. Any thread.
  Places& places() const { return *places_; }

  /// The address of the local endpoint; not known when there is none. Any thread.
  SocketAddress localAddress() const;
  void setLocalAddress(const SocketAddress& address);

  /// The ordinary SIP processing, which is for the terminal's own user agents: a request from the network is answered
  /// 403, a response is dropped with one line. I/O thread.
  void process(SIPLIB_SIPMessageHandle message, std::shared_ptr<Path> path);
  /// One line about a message from the network that would have gone the stack's way to itself. Any thread.
  void tellKeptOut(const SIPLIB_message& message);

  /// Whether the configuration lets the user whom `owner` names control the proxy, else `why` not; see peer_owner.h.
  /// Not asked when nobody is kept out. Any thread.
  bool mayControl(const std::function<std::optional<uid_t>(std::string&)>& owner, std::string& why) const;

  /// A stream from its start to its end: one on which nothing moves is closed after the idle timeout, one whose peer
  /// owes something (TcpStream::owedSince) after the head timeout. I/O thread.
  void watch(const std::shared_ptr<TcpStream>& stream);
  void forget(const std::shared_ptr<TcpStream>& stream);
  /// A stream's peer has begun to owe something. I/O thread.
  void watchOwed();

  /// Keeps connections that only the library knows. I/O thread.
  void keep(std::shared_ptr<Retired> connection) { kept_.insert(std::move(connection)); }
  void release(const std::shared_ptr<Retired>& connection) { kept_.erase(connection); }

  /// Into the bin; emptied by the user's thread at the end of a turn. Any thread.
  void retire(std::shared_ptr<Retired> closed);
  void freeRetired();

 private:
  /// One timer for all streams, due when the first of them could be overdue; not armed anew for every message.
  struct Deadline {
    std::chrono::milliseconds timeout;
    /// Since when a stream is waited for; 0: it is not.
    std::int64_t (TcpStream::*since)() const;
    const char* why;
    std::unique_ptr<Reactor::Timer> timer;
    bool on = false;
  };
  Deadline deadline(std::chrono::milliseconds timeout, std::int64_t (TcpStream::*since)() const, const char* why,
                    Deadline StackCore::*self);
  void startTimer(Deadline& deadline, std::int64_t earliest);
  void closeOverdue(Deadline& deadline);
  void refuse(const SIPLIB_message& request, Path& path, const std::string& why) const;
  void write(int level, const char* where, std::uint64_t left_out, const char* format, va_list arguments) const
      __attribute__((format(printf, 5, 0)));

  const SIPLIB_SIPStackConfig config_;
  std::atomic<bool> down_{false};
  std::unique_ptr<TransactionLayer> layer_;
  const std::shared_ptr<Places> places_;
  const std::string tag_secret_;
  LogLimit unparsable_;
  LogLimit strangers_;

  mutable std::mutex local_mutex_;
  SocketAddress local_;

  Outgoing outgoing_;

  // I/O thread.
  std::unordered_set<std::shared_ptr<TcpStream>> streams_;
  std::unordered_set<std::shared_ptr<Retired>> kept_;
  Deadline idle_;
  Deadline owed_;

  std::mutex retired_mutex_;
  std::atomic<bool> has_retired_{false};
  std::vector<std::shared_ptr<Retired>> retired_;
};

}  // namespace siplib

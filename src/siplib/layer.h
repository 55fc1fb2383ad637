// The transaction layer as it is built: what comes in goes through `receive` to a transaction or is answered at once;
// what the user sends goes through `answer` and `start`; what time does goes through `expire`. Each of the three works
// under the lock, collects what is to be transmitted and who is to be told, and does both after the lock is open again:
// neither a Path nor a PathMaker nor a listener is ever called with it held.
//
// A request that is complete lives as: transaction (libosip2's machine, the bytes that repeat) <-> connection (what the
// user holds). Either may go first: a released connection leaves its transaction behind to absorb what is late, a
// transaction that has ended leaves its connection to the user.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "siplib/client_connection.h"
#include "siplib/dialog.h"
#include "siplib/machine.h"
#include "siplib/reactor.h"
#include "siplib/server_connection.h"
#include "siplib/transaction_layer.h"

namespace siplib {

using Clock = std::chrono::steady_clock;

struct Transaction {
  /// Distinguishes it from a later one with the same key.
  std::uint64_t id = 0;
  std::string key;
  bool client = false;
  Head head;
  std::unique_ptr<Machine> machine;
  std::shared_ptr<Path> path;
  /// What is transmitted, again and again.
  std::shared_ptr<const std::string> bytes;
  /// Client: timer E, and its length.
  Clock::time_point repeat = Clock::time_point::max();
  std::chrono::milliseconds repeat_after{0};
  /// Timer F, K or J, or the end of waiting for the user's answer.
  Clock::time_point end = Clock::time_point::max();
  /// Null once released.
  ServerConnection* server_connection = nullptr;
  ClientConnection* client_connection = nullptr;
  /// Client: the dialog, kept beyond the connection's release.
  std::shared_ptr<Dialog> dialog;
  /// Client: the final answer has been handed over.
  bool told = false;
};

class Layer final : public TransactionLayer {
 public:
  Layer(const SIPLIB_SIPStackConfig& config, Reactor& reactor, PathMaker& paths, std::unique_ptr<Machines> machines);
  ~Layer() override;

  void setLocal(std::string_view ip, int port) override;
  void setListener(SIPLIB_SIPServerConnectionListener* listener, SIPLIB_SIPConnectionNotifier* notifier) override;
  void setDialogListener(SIPLIB_SIPDialogListener* listener) override;
  SIPLIB_SIPServerConnection* accept() override;
  void receive(SIPLIB_SIPMessageHandle message, std::shared_ptr<Path> path) override;
  SIPLIB_SIPClientConnection* openClient(std::shared_ptr<Path> path) override;
  bool close(SIPLIB_SIPConnection* connection) override;
  void endTurn() override;

  // For the connections and dialogs, on the user's thread. Those that take texts build them without the lock.
  std::mutex& mutex() const { return mutex_; }
  PathMaker& paths() const { return paths_; }
  std::string via(std::string_view transport, std::string_view branch) const;
  std::string contact(bool reliable) const;

  bool inUse(const ServerConnection& connection) const;
  bool answerable(const ServerConnection& connection) const;
  std::string contactFor(const ServerConnection& connection) const;
  int answer(ServerConnection& connection, const SIPLIB_message& response);
  void release(ServerConnection& connection);
  SIPLIB_SIPDialog* dialogOf(const ServerConnection& connection) const;

  SIPLIB_SIPClientConnection* openWithin(const std::shared_ptr<Dialog>& dialog, std::string_view method);
  bool inUse(const ClientConnection& connection) const;
  bool sendable(const ClientConnection& connection) const;
  /// Begins the transaction. False when the request could not be sent; nothing is left of it then.
  bool start(ClientConnection& connection, const std::shared_ptr<Path>& path, const SIPLIB_message& request);
  /// The end without an answer.
  void fail(ClientConnection& connection, const SIPLIB_message& request);
  /// What the request means for its dialog, once it was sent or has failed.
  void sent(ClientConnection& connection, const SIPLIB_message& request);
  SIPLIB_SIPMessageHandle nextAnswer(ClientConnection& connection);
  void release(ClientConnection& connection);
  SIPLIB_SIPDialog* dialogOf(const ClientConnection& connection) const;

 private:
  using Lock = std::unique_lock<std::mutex>;

  /// To transmit when the lock is open.
  struct Outgoing {
    std::shared_ptr<Path> path;
    std::shared_ptr<const std::string> bytes;
    std::string key;
    std::uint64_t id = 0;
  };
  /// To tell when the lock is open: a new request when all is empty.
  struct Notice {
    ClientConnection* answered = nullptr;
    std::shared_ptr<Dialog> ended;
  };
  enum class Thread { Io, User };

  void receiveRequest(SIPLIB_SIPMessageHandle message, std::shared_ptr<Path> path, Head head);
  void receiveResponse(SIPLIB_SIPMessageHandle message, const std::shared_ptr<Path>& path, const Head& head);
  void answerAtOnce(const SIPLIB_message& request, const Head& head, Path& path, int status, std::string_view why);
  void noteSource(SIPLIB_message& request, Head& head, const Path& path) const;
  std::shared_ptr<Path> wayBack(const Head& head, const std::shared_ptr<Path>& path);

  SIPLIB_SIPClientConnection* keep(std::unique_ptr<ClientConnection> connection);

  // Under the lock.
  Transaction& add(std::unique_ptr<Transaction> transaction);
  void remove(Transaction& transaction);
  void transmit(const Transaction& transaction);
  void answered(Transaction& transaction);
  void handOver(Transaction& transaction, SIPLIB_SIPMessageHandle answer, int status, const Head& head);
  void giveUp(Transaction& transaction);
  void expire(Transaction& transaction, Clock::time_point now);
  void makeDialog(ServerConnection& connection);
  std::shared_ptr<Dialog> dialogFor(const Head& head, const SIPLIB_message& request);
  void endDialog(const std::shared_ptr<Dialog>& dialog, bool tell);
  void closeLocked(ServerConnection& connection);
  void closeLocked(ClientConnection& connection);
  void eventHandled(ClientConnection& connection);
  /// A NOTIFY whose dialog is over: what answers it changes nothing any more.
  static bool ofEndedSubscription(const ClientConnection& connection);
  void wakeAt(Clock::time_point due);
  static SIPLIB_SIPMessageHandle timeoutFor(const Head& head);

  /// Opens the lock; transmits, tells.
  void finish(Lock& lock, Thread thread);
  void tell();
  void arm();
  void expireOrTryAgain();
  void expire();
  std::chrono::milliseconds patience() const { return 64 * config_.t1; }
  void log(int level, const char* where, std::string_view text) const;
  bool logs(int level) const { return config_.log && (!config_.log_enabled || config_.log_enabled(level)); }

  const SIPLIB_SIPStackConfig config_;
  Reactor& reactor_;
  PathMaker& paths_;
  const std::string salt_;
  /// Expires with the layer: work posted before then finds it gone.
  const std::shared_ptr<const bool> alive_ = std::make_shared<const bool>(true);
  std::unique_ptr<Reactor::Timer> timer_;

  mutable std::mutex mutex_;
  std::unique_ptr<Machines> machines_;
  std::string local_ip_;
  int local_port_ = 0;
  SIPLIB_SIPServerConnectionListener* listener_ = nullptr;
  SIPLIB_SIPConnectionNotifier* notifier_ = nullptr;
  SIPLIB_SIPDialogListener* dialog_listener_ = nullptr;

  std::uint64_t last_id_ = 0;
  std::unordered_map<std::string, std::unique_ptr<Transaction>> transactions_;
  /// Answered server transactions, oldest first; some may have ended since.
  std::deque<std::pair<std::string, std::uint64_t>> answered_;
  std::unordered_map<std::string, std::shared_ptr<Dialog>> dialogs_;
  std::unordered_map<const SIPLIB_SIPConnection*, std::unique_ptr<ServerConnection>> servers_;
  std::unordered_map<const SIPLIB_SIPConnection*, std::unique_ptr<ClientConnection>> clients_;
  std::deque<ServerConnection*> waiting_;

  std::vector<Outgoing> outgoing_;
  std::deque<Notice> notices_;
  /// When the timer fires, as far as it was told.
  Clock::time_point wake_ = Clock::time_point::max();
  bool wake_changed_ = false;

  /// Closed in this turn, or still named by an event.
  std::vector<std::unique_ptr<ServerConnection>> closed_servers_;
  std::deque<std::unique_ptr<ClientConnection>> closed_clients_;
  std::vector<std::shared_ptr<Dialog>> ended_dialogs_;
  std::atomic<bool> to_free_{false};
  /// Counts the turns in which there was something to free.
  std::uint64_t turn_ = 0;
};

}  // namespace siplib

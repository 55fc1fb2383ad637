// One SIP endpoint of the companion tool on the loopback address, and requests sent from it to the proxy.
#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "siplib/listener.h"
#include "siplib/reactor.h"
#include "siplib/stack.h"
#include "siplib/transaction.h"

namespace ctl {

/// Where the proxy is and how long to wait for it.
struct ProxyAddress {
  std::string ip = "127.0.0.1";
  int port = 5060;
  std::string transport = "UDP";
  std::chrono::milliseconds timeout{5000};
};

/// A request to send.
struct Request {
  std::string method;
  std::string uri;
  std::string from;  ///< header value, without tag
  std::string to;
  std::vector<std::pair<std::string, std::string>> headers;  ///< set over what the library fills in
  std::string content_type;
  std::string body;
};

/// An answer. `status` 0: none came in time.
struct Answer {
  int status = 0;
  std::string reason;
  std::string body;
  std::vector<std::pair<std::string, std::string>> headers;  ///< those asked for, when there
};

/// Single-threaded: drives its own reactor while it waits.
class Session : public SIPLIB_SIPClientConnectionListener, public SIPLIB_SIPServerConnectionListener {
 public:
  Session();
  ~Session() override;

  /// Opens the endpoint on a free port of the loopback address; false with the reason in `error`.
  bool open(std::string& error);
  /// Sends and waits for the final answer. `wanted` names headers to bring back.
  Answer ask(const ProxyAddress& proxy, const Request& request, const std::vector<std::string>& wanted);
  /// The dialog that the last answered SUBSCRIBE made; null when none.
  SIPLIB_SIPDialog* dialog() const { return dialog_; }
  /// Sends a request within the dialog and waits for its final answer.
  Answer askInDialog(SIPLIB_SIPDialog* dialog, const std::string& method,
                     const std::vector<std::pair<std::string, std::string>>& headers,
                     std::chrono::milliseconds timeout);
  /// Answers every request that comes in with 200, after showing it to `seen`.
  void onRequest(std::function<void(SIPLIB_SIPServerConnection&)> seen) { seen_ = std::move(seen); }
  /// Drives the endpoint until `until` says so or the time is up (0: no limit). False when the time was up.
  bool wait(std::chrono::milliseconds limit, const std::function<bool()>& until);
  siplib::Reactor& reactor() { return *reactor_; }
  std::string contact() const;

 private:
  void notifyResponse(SIPLIB_SIPClientConnection* connection) override;
  void notifyRequest(SIPLIB_SIPConnectionNotifier* notifier) override;
  Answer finish(SIPLIB_SIPClientConnection* connection, std::chrono::milliseconds timeout,
                const std::vector<std::string>& wanted);

  std::unique_ptr<siplib::Reactor> reactor_;
  std::unique_ptr<SIPLIB_SIPStack> stack_;
  SIPLIB_SIPConnectionNotifier* notifier_ = nullptr;
  std::vector<SIPLIB_SIPServerConnection*> requests_;  ///< waiting to be shown and answered
  std::function<void(SIPLIB_SIPServerConnection&)> seen_;
  SIPLIB_SIPDialog* dialog_ = nullptr;
  int answered_ = 0;  ///< answers waiting to be received
  std::string last_fault_;
};

}  // namespace ctl

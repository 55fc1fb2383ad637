// A transaction layer over ways that are no sockets, with a real reactor and short timers.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "siplib/listener.h"
#include "siplib/reactor.h"
#include "siplib/stack.h"
#include "siplib/transaction_layer.h"

namespace transaction_fakes {

using namespace std::chrono_literals;

inline SIPLIB_SIPMessageHandle parsed(std::string_view text) {
  return SIPLIB_SIPMessageHandle(new SIPLIB_message(text.data(), text.size()));
}

/// Keeps what is sent on it.
class FakePath : public siplib::Path {
 public:
  FakePath(bool reliable, std::string ip, int port) : reliable_(reliable), ip_(std::move(ip)), port_(port) {}

  bool send(std::string_view bytes) override {
    const std::lock_guard lock(mutex_);
    if (!open) return false;
    sent_.emplace_back(bytes);
    if (wire) wire(sent_.back());
    return true;
  }
  bool reliable() const override { return reliable_; }
  void local(std::string& ip, int& port) const override {
    ip = "127.0.0.1";
    port = 5060;
  }
  void peer(std::string& ip, int& port) const override {
    ip = ip_;
    port = port_;
  }

  std::vector<std::string> sent() const {
    const std::lock_guard lock(mutex_);
    return sent_;
  }
  std::size_t count() const { return sent().size(); }
  /// Null when nothing was sent.
  SIPLIB_SIPMessageHandle last() const {
    const std::lock_guard lock(mutex_);
    return sent_.empty() ? SIPLIB_SIPMessageHandle() : parsed(sent_.back());
  }

  bool open = true;
  std::function<void(const std::string&)> wire;

 private:
  const bool reliable_;
  const std::string ip_;
  const int port_;
  mutable std::mutex mutex_;
  std::vector<std::string> sent_;
};

/// Makes ways on demand; those in `none` cannot be made.
class FakePaths : public siplib::PathMaker {
 public:
  std::shared_ptr<siplib::Path> pathTo(std::string_view transport, std::string_view ip, int port) override {
    const std::string name = std::string(transport) + ' ' + std::string(ip) + ':' + std::to_string(port);
    const std::lock_guard lock(mutex_);
    asked.push_back(name);
    if (none.contains(name)) return nullptr;
    return at(name, transport, ip, port);
  }
  /// "UDP 127.0.0.1:5070"
  std::shared_ptr<FakePath> made(const std::string& name) {
    const std::lock_guard lock(mutex_);
    const auto found = paths.find(name);
    return found == paths.end() ? nullptr : found->second;
  }

  std::map<std::string, std::shared_ptr<FakePath>> paths;
  std::map<std::string, bool> none;
  std::vector<std::string> asked;

 private:
  std::shared_ptr<FakePath> at(const std::string& name, std::string_view transport, std::string_view ip, int port) {
    std::shared_ptr<FakePath>& path = paths[name];
    if (!path) path = std::make_shared<FakePath>(transport == "TCP", std::string(ip), port);
    return path;
  }
  std::mutex mutex_;
};

/// Notes what it is told; requests go to `onRequest`, accepted.
class FakeUser : public SIPLIB_SIPServerConnectionListener,
                 public SIPLIB_SIPClientConnectionListener,
                 public SIPLIB_SIPDialogListener {
 public:
  void notifyRequest(SIPLIB_SIPConnectionNotifier*) override {
    SIPLIB_SIPServerConnection* connection = layer->accept();
    ASSERT_NE(nullptr, connection);
    requests.push_back(connection);
    if (onRequest) onRequest(connection);
  }
  void notifyResponse(SIPLIB_SIPClientConnection* connection) override {
    answers.push_back(connection);
    if (onAnswer) onAnswer(connection);
  }
  void notifyDialogTerminated(SIPLIB_SIPDialog* dialog) override { ended.push_back(dialog); }

  siplib::TransactionLayer* layer = nullptr;
  std::function<void(SIPLIB_SIPServerConnection*)> onRequest;
  std::function<void(SIPLIB_SIPClientConnection*)> onAnswer;
  std::vector<SIPLIB_SIPServerConnection*> requests;
  std::vector<SIPLIB_SIPClientConnection*> answers;
  std::vector<SIPLIB_SIPDialog*> ended;
};

/// What of a request differs between tests; the rest is usual.
struct Request {
  std::string method = "REGISTER";
  std::string uri = "sip:127.0.0.1";
  std::string via = "SIP/2.0/UDP 127.0.0.1:5070;branch=z9hG4bKone";
  std::string from = "<sip:alice@127.0.0.1>;tag=a1";
  std::string to = "<sip:alice@127.0.0.1>";
  std::string call_id = "call-1";
  std::string cseq = "1";
  std::string more;
  std::string body;

  std::string text() const {
    std::string text = method + ' ' + uri + " SIP/2.0\r\nVia: " + via + "\r\nFrom: " + from + "\r\nTo: " + to;
    text += "\r\nCall-ID: " + call_id + "\r\nCSeq: " + cseq + ' ' + method + "\r\n" + more;
    return text + "Content-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
  }
};

inline Request subscribe() {
  Request request;
  request.method = "SUBSCRIBE";
  request.uri = "sip:registrar@127.0.0.1";
  request.to = "<sip:registrar@127.0.0.1>";
  request.from = "\"Watcher\" <sip:regua@127.0.0.1>;tag=w1";
  request.more = "Contact: <sip:regua@127.0.0.1:5070>\r\nEvent: local-reg-events\r\nExpires: 600\r\n";
  return request;
}

/// An answer to a request as it was sent.
inline std::string answerTo(const SIPLIB_message& request, int status, const std::string& tag = "peer",
                            const std::string& more = {}) {
  std::string text = "SIP/2.0 " + std::to_string(status) + " Text\r\n";
  for (const auto via : request.headers("Via")) text += "Via: " + std::string(via) + "\r\n";
  text += "From: " + std::string(*request.header("From")) + "\r\n";
  std::string to(*request.header("To"));
  if (to.find(";tag=") == std::string::npos && !tag.empty()) to += ";tag=" + tag;
  text += "To: " + to + "\r\nCall-ID: " + std::string(*request.header("Call-ID")) + "\r\n";
  return text + "CSeq: " + std::string(*request.header("CSeq")) + "\r\n" + more + "Content-Length: 0\r\n\r\n";
}

class TransactionTest : public testing::Test {
 protected:
  TransactionTest() {
    config.t1 = 10ms;
    config.t2 = 40ms;
    config.t4 = 50ms;
    config.log = [this](int level, const char*, std::string_view text) {
      const std::lock_guard lock(log_mutex);
      lines.push_back(std::to_string(level) + ' ' + std::string(text));
    };
    open();
  }

  void open() {
    layer = siplib::TransactionLayer::create(config, reactor, paths);
    layer->setLocal("127.0.0.1", 5060);
    layer->setListener(&user, nullptr);
    layer->setDialogListener(&user);
    user.layer = layer.get();
  }

  void receive(std::string_view text, const std::shared_ptr<siplib::Path>& path) { layer->receive(parsed(text), path); }
  void receive(std::string_view text) { receive(text, udp); }

  /// Runs the reactor until it holds. Bounded.
  template <typename Condition>
  bool until(Condition holds, std::chrono::milliseconds most = 5s) {
    const auto end = std::chrono::steady_clock::now() + most;
    while (!holds()) {
      if (std::chrono::steady_clock::now() > end) return false;
      reactor.poll();
      std::this_thread::sleep_for(200us);
    }
    return true;
  }
  /// Runs the reactor for so long.
  void pass(std::chrono::milliseconds time) {
    until([] { return false; }, time);
  }
  bool logged(std::string_view part) {
    const std::lock_guard lock(log_mutex);
    for (const std::string& line : lines) {
      if (line.find(part) != std::string::npos) return true;
    }
    return false;
  }
  int answer(SIPLIB_SIPServerConnection* connection, int status) {
    const int made = connection->initResponse(status);
    return made == 0 ? connection->send() : made;
  }
  /// A dialog as notifier, by way of `request`.
  SIPLIB_SIPDialog* subscribed(const Request& request = subscribe()) {
    receive(request.text());
    SIPLIB_SIPServerConnection* connection = user.requests.back();
    answer(connection, 200);
    SIPLIB_SIPDialog* dialog = connection->getDialog();
    layer->close(connection);
    layer->endTurn();
    return dialog;
  }

  SIPLIB_SIPStackConfig config;
  std::mutex log_mutex;
  std::vector<std::string> lines;
  siplib::Reactor reactor;
  FakePaths paths;
  FakeUser user;
  std::shared_ptr<FakePath> udp = std::make_shared<FakePath>(false, "127.0.0.1", 5070);
  std::shared_ptr<FakePath> tcp = std::make_shared<FakePath>(true, "127.0.0.1", 40000);
  std::unique_ptr<siplib::TransactionLayer> layer;
};

}  // namespace transaction_fakes

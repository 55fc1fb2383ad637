#include "session.h"

namespace ctl {

Session::Session() : reactor_(std::make_unique<siplib::Reactor>()) {
}

Session::~Session() {
  stack_.reset();  // before the reactor that it runs on
}

bool Session::open(std::string& error) {
  SIPLIB_SIPStackConfig config;
  config.reactor = reactor_.get();
  config.log = [this](int level, const char*, std::string_view text) {
    if (level <= 4) last_fault_ = text;
  };
  config.log_enabled = [](int level) { return level <= 4; };
  stack_ = SIPLIB_SIPStack::create(config);
  if (stack_) notifier_ = stack_->connector()->openNotifier("sip:127.0.0.1:0");
  if (!notifier_) {
    error = "cannot open a port on 127.0.0.1" + (last_fault_.empty() ? "" : ": " + last_fault_);
    return false;
  }
  notifier_->setListener(this);
  return true;
}

std::string Session::contact() const {
  std::string ip;
  int port = 0;
  notifier_->getCurrentAddress(ip, port);
  return "<sip:" + ip + ":" + std::to_string(port) + ">";
}

bool Session::wait(std::chrono::milliseconds limit, const std::function<bool()>& until) {
  bool due = false;
  auto timer = reactor_->timer([&due] { due = true; });
  if (limit.count() > 0) timer->start(limit);
  while (!until() && !due) {
    reactor_->runOnce();
    for (auto* request : std::exchange(requests_, {})) {
      request->receive();
      if (seen_) seen_(*request);
      if (request->initResponse(200) == 0) request->send();
      request->release();
    }
    stack_->endTurn();
  }
  return until();
}

Answer Session::ask(const ProxyAddress& proxy, const Request& request, const std::vector<std::string>& wanted) {
  auto* connection = stack_->connector()->openClientTransaction(proxy.transport, proxy.ip, proxy.port);
  Answer none;
  if (!connection || connection->initRequest(request.method, request.uri, request.from, request.to) != 0) {
    none.reason = last_fault_;
    if (connection) connection->release();
    return none;
  }
  for (const auto& [name, value] : request.headers) connection->setHeader(name, value);
  if (!request.body.empty()) {
    connection->setHeader("Content-Type", request.content_type);
    connection->setContent(request.body);
  }
  return finish(connection, proxy.timeout, wanted);
}

Answer Session::askInDialog(SIPLIB_SIPDialog* dialog, const std::string& method,
                            const std::vector<std::pair<std::string, std::string>>& headers,
                            std::chrono::milliseconds timeout) {
  auto* connection = dialog ? dialog->getNewClientConnection(method) : nullptr;
  if (!connection) return {};
  for (const auto& [name, value] : headers) connection->setHeader(name, value);
  return finish(connection, timeout, {});
}

Answer Session::finish(SIPLIB_SIPClientConnection* connection, std::chrono::milliseconds timeout,
                       const std::vector<std::string>& wanted) {
  Answer answer;
  connection->setListener(this);
  answered_ = 0;
  if (connection->send() != 0) {
    answer.reason = last_fault_;
  } else {
    wait(timeout, [&] {
      while (answered_ > 0) {
        --answered_;
        if (connection->receive() == 0 && connection->getStatusCode() >= 200)
          answer.status = connection->getStatusCode();
      }
      return answer.status != 0;
    });
  }
  if (answer.status != 0) {
    if (auto message = connection->getSipMessageHandle()) answer.reason = message->reasonPhrase();
    connection->getContent(answer.body);
    for (const auto& name : wanted) {
      std::string value;
      if (connection->getHeader(name, value) == 0) answer.headers.emplace_back(name, value);
    }
    dialog_ = connection->getDialog();
  }
  connection->release();
  return answer;
}

void Session::notifyResponse(SIPLIB_SIPClientConnection*) {
  ++answered_;
}

void Session::notifyRequest(SIPLIB_SIPConnectionNotifier* notifier) {
  if (auto* request = notifier->acceptAndOpen()) requests_.push_back(request);
}

}  // namespace ctl

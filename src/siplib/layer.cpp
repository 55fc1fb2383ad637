#include "siplib/layer.h"

#include <algorithm>
#include <functional>
#include <iterator>
#include <utility>

#include "siplib/header.h"
#include "siplib/listener.h"
#include "siplib/text.h"

namespace siplib {
namespace {

// A machine of libosip2 weighs 15 KiB. So many transactions, and as many connections of either kind, may be under way
// (above: 503, or null) ...
constexpr std::size_t kMaxTransactions = 1024;
// ... and so many of them may be answered ones that wait for repeated requests; above, the oldest gives way.
constexpr std::size_t kMaxAnswered = 256;
constexpr std::size_t kMaxDialogs = 256;
// Answers that the user has not received yet, per request; above, provisional ones are dropped.
constexpr std::size_t kMaxInbox = 16;
// Released client connections that an event may still name; above, the oldest are freed.
constexpr std::size_t kMaxOwing = 256;
// A request that the user holds for so many times 64*T1 is taken back.
constexpr int kReclaimAfter = 10;

bool saysTerminated(const SIPLIB_message& notify) {
  const auto state = notify.header("Subscription-State");
  return state && equalsIgnoreCase(trim(state->substr(0, state->find(';'))), "terminated");
}

std::string bracketed(std::string_view ip) {
  const bool bare = ip.find(':') != std::string_view::npos && !ip.starts_with('[');
  return bare ? '[' + std::string(ip) + ']' : std::string(ip);
}

}  // namespace

Layer::Layer(const SIPLIB_SIPStackConfig& config, Reactor& reactor, PathMaker& paths,
             std::unique_ptr<Machines> machines)
    : config_(config), reactor_(reactor), paths_(paths), salt_(newTag()), machines_(std::move(machines)) {
}

Layer::~Layer() = default;

void Layer::setLocal(std::string_view ip, int port) {
  const std::lock_guard lock(mutex_);
  local_ip_ = ip;
  local_port_ = port;
}

void Layer::setListener(SIPLIB_SIPServerConnectionListener* listener, SIPLIB_SIPConnectionNotifier* notifier) {
  const std::lock_guard lock(mutex_);
  listener_ = listener;
  notifier_ = notifier;
}

void Layer::setDialogListener(SIPLIB_SIPDialogListener* listener) {
  const std::lock_guard lock(mutex_);
  dialog_listener_ = listener;
}

SIPLIB_SIPServerConnection* Layer::accept() {
  const std::lock_guard lock(mutex_);
  if (waiting_.empty()) return nullptr;
  ServerConnection* connection = waiting_.front();
  waiting_.pop_front();
  return connection;
}

std::string Layer::via(std::string_view transport, std::string_view branch) const {
  const std::lock_guard lock(mutex_);
  std::string value = "SIP/2.0/";
  value.append(transport).append(" ").append(bracketed(local_ip_)).append(":").append(std::to_string(local_port_));
  value.append(";branch=").append(branch);
  // RFC 3581; over TCP answers come back on the connection anyway.
  return transport == "UDP" ? value + ";rport" : value;
}

std::string Layer::contact(bool reliable) const {
  const std::lock_guard lock(mutex_);
  return contactValue(local_ip_, local_port_, reliable);
}

// ---- what comes in

void Layer::receive(SIPLIB_SIPMessageHandle message, std::shared_ptr<Path> path) {
  if (!message || !path) return;
  if (!message->valid()) {
    log(4, "receive", std::string("dropped, does not parse: ").append(message->parseError()));
    return;
  }
  Head head;
  const char* wrong = readHead(*message, head);
  if (message->isResponse()) {
    if (!wrong && message->headerCount("Via") != 1) wrong = "response for somebody else";
    if (wrong)
      log(4, "receive", std::string("response dropped: ").append(wrong));
    else
      receiveResponse(std::move(message), path, head);
    return;
  }
  if (message->method() == "ACK") return;
  if (wrong) {
    // Without these two the answer would find nobody.
    if (head.sent_by.empty() || !message->header("CSeq")) {
      log(4, "receive", std::string("request dropped: ").append(wrong));
    } else {
      path = wayBack(head, path);
      noteSource(*message, head, *path);
      answerAtOnce(*message, head, *path, 400, wrong);
    }
    return;
  }
  receiveRequest(std::move(message), std::move(path), std::move(head));
}

void Layer::receiveRequest(SIPLIB_SIPMessageHandle message, std::shared_ptr<Path> path, Head head) {
  std::string key = serverKey(head, message->requestUri());
  path = wayBack(head, path);
  noteSource(*message, head, *path);
  if (head.method == "INVITE") return answerAtOnce(*message, head, *path, 501, "sessions are not served here");
  // Only an INVITE can be cancelled (RFC 3261 9.1), and there is none.
  if (head.method == "CANCEL") return answerAtOnce(*message, head, *path, 481, "nothing to cancel");

  Lock lock(mutex_);
  const auto known = transactions_.find(key);
  if (known != transactions_.end()) {
    known->second->machine->receive(head, 0);
    return finish(lock, Thread::Io);
  }

  const auto refuse = [&](int status, std::string_view why) {
    lock.unlock();
    answerAtOnce(*message, head, *path, status, why);
  };
  if (!listener_) return refuse(503, "nobody listens");
  if (transactions_.size() >= kMaxTransactions || servers_.size() >= kMaxTransactions) {
    return refuse(503, "too many transactions");
  }
  const bool subscribes = head.method == "SUBSCRIBE";
  // Its dialog could not be made.
  if (subscribes && head.from_tag.empty()) return refuse(400, "no From tag");
  std::shared_ptr<Dialog> dialog;
  // A REGISTER belongs to no dialog (RFC 3261 10.2), whatever its To carries.
  if (!head.to_tag.empty() && head.method != "REGISTER") {
    dialog = dialogFor(head, *message);
    // RFC 3261 12.2.2: one that has ended, or was begun before this process.
    if (!dialog) return refuse(481, "no such dialog");
    DialogData& data = dialog->data();
    if (data.remote_number && head.number < *data.remote_number) return refuse(500, "CSeq out of order");
    data.remote_number = head.number;
    data.last_path = path;
  } else if (subscribes && dialogs_.size() >= kMaxDialogs) {
    return refuse(503, "too many dialogs");
  }

  auto made = std::make_unique<Transaction>();
  Transaction* transaction = made.get();
  made->key = std::move(key);
  made->path = path;
  made->machine = machines_->server(head, [this, transaction] { transmit(*transaction); });
  if (!made->machine || !made->machine->receive(head, 0)) {
    made.reset();
    return refuse(400, "a header cannot be read");
  }
  made->head = head;
  made->end = Clock::now() + patience();
  add(std::move(made));

  auto connection = std::make_unique<ServerConnection>(*this, std::move(message), std::move(head));
  connection->transaction_ = transaction;
  connection->dialog_ = std::move(dialog);
  connection->reclaim_ = Clock::now() + kReclaimAfter * patience();
  const auto held = servers_.emplace(connection.get(), nullptr).first;
  try {
    waiting_.push_back(connection.get());
    notices_.emplace_back();
  } catch (...) {  // no memory: nothing may name what goes now
    std::erase(waiting_, connection.get());
    servers_.erase(held);
    remove(*transaction);
    throw;
  }
  transaction->server_connection = connection.get();
  held->second = std::move(connection);
  finish(lock, Thread::Io);
}

void Layer::receiveResponse(SIPLIB_SIPMessageHandle message, const std::shared_ptr<Path>& path, const Head& head) {
  Lock lock(mutex_);
  const auto known = transactions_.find(clientKey(head));
  if (known == transactions_.end()) {
    lock.unlock();
    if (logs(5)) log(5, "receive", "answer to nothing that is under way absorbed, Call-ID " + head.call_id);
    return;
  }
  Transaction& transaction = *known->second;
  const Machine::State before = transaction.machine->state();
  const int status = message->statusCode();
  if (!transaction.machine->receive(head, status)) {
    lock.unlock();
    log(4, "receive", "response dropped: a header cannot be read, Call-ID " + head.call_id);
    return;
  }
  // In any other state it is a repeated answer, and absorbed.
  if (before == Machine::State::Trying || before == Machine::State::Proceeding) {
    const bool reliable = transaction.path->reliable();
    if (status < 200) {
      if (!reliable) {
        transaction.repeat_after = config_.t2;
        transaction.repeat = Clock::now() + config_.t2;
        wakeAt(transaction.repeat);
      }
    } else {
      transaction.repeat = Clock::time_point::max();
      transaction.end = Clock::now() + config_.t4;
      wakeAt(transaction.end);
    }
    if (transaction.dialog && status >= 200 && status < 300) transaction.dialog->data().last_path = path;
    handOver(transaction, std::move(message), status, head);
    if (status >= 200 && reliable) {
      transaction.machine->expire(Machine::Timer::K);
      remove(transaction);
    }
  }
  finish(lock, Thread::Io);
}

void Layer::answerAtOnce(const SIPLIB_message& request, const Head& head, Path& path, int status,
                         std::string_view why) {
  if (logs(4)) {
    log(4, "receive",
        std::string(request.method()).append(" answered ").append(std::to_string(status)).append(": ").append(why));
  }
  // RFC 3261 8.2.7: the same request gets the same tag, without remembering it.
  const std::string tag = std::to_string(std::hash<std::string>{}(salt_ + head.branch + head.call_id + head.from_tag));
  const SIPLIB_SIPMessageHandle answer(newAnswer(request, status, tag));
  path.send(answer->text());
}

// RFC 3261 18.2.1, RFC 3581 4.
void Layer::noteSource(SIPLIB_message& request, Head& head, const Path& path) const {
  std::string ip;
  int port = 0;
  path.peer(ip, port);
  if (ip.empty() || (!head.rport && equalsIgnoreCase(bracketed(ip), bracketed(head.sent_by)))) return;
  const std::unique_ptr<SIPLIB_SIPHeader> via(SIPLIB_SIPHeader::createSIPHeaderObject("Via", head.via));
  if (!via) return;
  via->setParameter("received", ip);
  if (head.rport) via->setParameter("rport", std::to_string(port));
  std::string value;
  if (via->getHeaderValue(value) && request.setHeader("Via", value)) head.via = std::move(value);
}

// RFC 3261 18.2.2: without rport, an answer to a datagram goes to the port that the Via names. To the address it came
// from in any case: what the Via says of addresses (maddr too) could make a third party the target.
std::shared_ptr<Path> Layer::wayBack(const Head& head, const std::shared_ptr<Path>& path) {
  if (path->reliable() || head.rport || head.sent_by.empty()) return path;
  std::string ip;
  int port = 0;
  path->peer(ip, port);
  if (port == head.sent_by_port) return path;
  std::shared_ptr<Path> way = paths_.pathTo("UDP", ip, head.sent_by_port);
  return way ? way : path;
}

// ---- the user's answers

bool Layer::inUse(const ServerConnection& connection) const {
  const std::lock_guard lock(mutex_);
  return !connection.released_;
}

bool Layer::answerable(const ServerConnection& connection) const {
  const std::lock_guard lock(mutex_);
  return connection.transaction_ != nullptr;
}

std::string Layer::contactFor(const ServerConnection& connection) const {
  bool reliable = false;
  {
    const std::lock_guard lock(mutex_);
    reliable = connection.transaction_ && connection.transaction_->path->reliable();
  }
  return contact(reliable);
}

int Layer::answer(ServerConnection& connection, const SIPLIB_message& response) {
  auto bytes = std::make_shared<const std::string>(response.text());
  const int status = response.statusCode();
  if (bytes->empty()) return -1;
  Lock lock(mutex_);
  Transaction* transaction = connection.transaction_;
  if (!transaction) return -1;
  const Head& head = transaction->head;
  // Before the answer leaves: the next request of the dialog may come as fast as it went.
  const bool subscribes = head.method == "SUBSCRIBE";
  if (status >= 200 && status < 300 && (subscribes || head.method == "NOTIFY")) {
    if (connection.dialog_)
      connection.dialog_->refreshTarget(*connection.request_);
    else if (subscribes && head.to_tag.empty())
      makeDialog(connection);
  }
  transaction->bytes = std::move(bytes);
  transaction->machine->send(head, status);
  if (status >= 200) {
    if (connection.dialog_ && head.method == "NOTIFY" && saysTerminated(*connection.request_)) {
      endDialog(connection.dialog_, true);
    }
    answered(*transaction);
  }
  finish(lock, Thread::User);
  return 0;
}

void Layer::makeDialog(ServerConnection& connection) {
  const Transaction& transaction = *connection.transaction_;
  const Head& head = transaction.head;
  DialogData data;
  data.notifier = true;
  data.call_id = head.call_id;
  data.local = head.to + ";tag=" + connection.tag_;
  data.local_tag = connection.tag_;
  data.remote_number = head.number;
  data.last_path = transaction.path;
  const auto dialog = std::make_shared<Dialog>(*this, std::move(data));
  dialog->confirm(head.from_tag, head.from, *connection.request_);
  if (head.from_tag.empty() || dialog->data().target.empty()) {
    log(4, "answer", "no dialog: the SUBSCRIBE has no From tag or no Contact, Call-ID " + head.call_id);
    return;
  }
  connection.dialog_ = dialog;
  dialogs_.emplace(Dialog::key(dialog->data().call_id, dialog->data().local_tag), dialog);
}

// The final answer was sent.
void Layer::answered(Transaction& transaction) {
  if (transaction.server_connection) transaction.server_connection->transaction_ = nullptr;
  transaction.server_connection = nullptr;
  if (transaction.path->reliable()) {
    transaction.machine->expire(Machine::Timer::J);
    return remove(transaction);
  }
  transaction.end = Clock::now() + patience();
  wakeAt(transaction.end);
  answered_.emplace_back(transaction.key, transaction.id);
  while (answered_.size() > kMaxAnswered) {
    const auto oldest = transactions_.find(answered_.front().first);
    if (oldest != transactions_.end() && oldest->second->id == answered_.front().second) remove(*oldest->second);
    answered_.pop_front();
  }
}

void Layer::release(ServerConnection& connection) {
  const std::lock_guard lock(mutex_);
  closeLocked(connection);
}

SIPLIB_SIPDialog* Layer::dialogOf(const ServerConnection& connection) const {
  const std::lock_guard lock(mutex_);
  return connection.released_ ? nullptr : connection.dialog_.get();
}

// ---- the user's requests

SIPLIB_SIPClientConnection* Layer::openClient(std::shared_ptr<Path> path) {
  if (!path) return nullptr;
  return keep(std::make_unique<ClientConnection>(*this, std::move(path)));
}

SIPLIB_SIPClientConnection* Layer::openWithin(const std::shared_ptr<Dialog>& dialog, std::string_view method) {
  DialogData data;
  {
    const std::lock_guard lock(mutex_);
    DialogData& current = dialog->data();
    if (current.terminated || current.remote_tag.empty() || current.local_number == 0x7fffffff) return nullptr;
    ++current.local_number;
    data = current;
  }
  auto connection = std::make_unique<ClientConnection>(*this, dialog, data, method);
  return connection->getSipMessageHandle()->valid() ? keep(std::move(connection)) : nullptr;
}

SIPLIB_SIPClientConnection* Layer::keep(std::unique_ptr<ClientConnection> connection) {
  Lock lock(mutex_);
  if (transactions_.size() >= kMaxTransactions || clients_.size() >= kMaxTransactions) {
    lock.unlock();
    log(4, "openClient", "refused: too many transactions");
    return nullptr;
  }
  ClientConnection* kept = connection.get();
  clients_.emplace(kept, std::move(connection));
  return kept;
}

bool Layer::ofEndedSubscription(const ClientConnection& connection) {
  return connection.dialog_ && connection.dialog_->data().notifier && connection.dialog_->data().terminated;
}

bool Layer::inUse(const ClientConnection& connection) const {
  const std::lock_guard lock(mutex_);
  return !connection.released_ && !ofEndedSubscription(connection);
}

bool Layer::sendable(const ClientConnection& connection) const {
  const std::lock_guard lock(mutex_);
  return !connection.released_ && !(connection.dialog_ && connection.dialog_->data().terminated);
}

bool Layer::start(ClientConnection& connection, const std::shared_ptr<Path>& path, const SIPLIB_message& request) {
  Head head;
  auto bytes = std::make_shared<const std::string>(request.text());
  const char* wrong = readHead(request, head);
  if (wrong || bytes->empty() || head.method == "INVITE" || head.method == "ACK") {
    log(4, "send", std::string("request not sent: ").append(wrong ? wrong : "not one of a non-INVITE transaction"));
    return false;
  }
  Lock lock(mutex_);
  auto made = std::make_unique<Transaction>();
  Transaction* transaction = made.get();
  made->machine = machines_->client(head, [this, transaction] { transmit(*transaction); });
  made->key = clientKey(head);
  made->client = true;
  made->path = path;
  made->bytes = std::move(bytes);
  made->client_connection = &connection;
  if (!made->machine || transactions_.contains(made->key)) {
    made.reset();
    lock.unlock();
    log(4, "send", "request not sent: a header cannot be read");
    return false;
  }
  // The first NOTIFY may come before the answer (RFC 6665 4.1.2.4), so the dialog is there before the request leaves.
  if (!connection.dialog_ && head.method == "SUBSCRIBE" && head.to_tag.empty() && !head.from_tag.empty() &&
      dialogs_.size() < kMaxDialogs) {
    DialogData data;
    data.call_id = head.call_id;
    data.local = head.from;
    data.local_tag = head.from_tag;
    data.remote = head.to;
    data.local_number = head.number;
    data.last_path = path;
    connection.dialog_ = std::make_shared<Dialog>(*this, std::move(data));
    dialogs_.emplace(Dialog::key(head.call_id, head.from_tag), connection.dialog_);
  }
  made->dialog = connection.dialog_;
  const Clock::time_point now = Clock::now();
  if (!path->reliable()) {
    made->repeat_after = config_.t1;
    made->repeat = now + config_.t1;
  }
  made->end = now + patience();
  made->head = std::move(head);
  const std::uint64_t id = add(std::move(made)).id;
  connection.transaction_ = transaction;
  const std::string key = transaction->key;
  transaction->machine->send(transaction->head, 0);
  std::vector<Outgoing> outgoing;
  outgoing.swap(outgoing_);
  lock.unlock();

  bool went = !outgoing.empty();
  for (const Outgoing& out : outgoing) went = out.path->send(*out.bytes) && went;

  lock.lock();
  if (!went) {
    const auto lost = transactions_.find(key);
    if (lost != transactions_.end() && lost->second->id == id) remove(*lost->second);
  }
  finish(lock, Thread::User);
  return went;
}

void Layer::fail(ClientConnection& connection, const SIPLIB_message& request) {
  Transaction lost;
  lost.client = true;
  lost.client_connection = &connection;
  readHead(request, lost.head);
  log(4, "send", lost.head.method + " could not be sent, Call-ID " + lost.head.call_id);
  Lock lock(mutex_);
  lost.dialog = connection.dialog_;
  handOver(lost, timeoutFor(lost.head), 408, lost.head);
  finish(lock, Thread::User);
}

void Layer::sent(ClientConnection& connection, const SIPLIB_message& request) {
  if (request.method() != "NOTIFY" || !saysTerminated(request)) return;
  const std::lock_guard lock(mutex_);
  if (connection.dialog_ && connection.dialog_->data().notifier) endDialog(connection.dialog_, false);
}

SIPLIB_SIPMessageHandle Layer::nextAnswer(ClientConnection& connection) {
  const std::lock_guard lock(mutex_);
  SIPLIB_SIPMessageHandle answer;
  if (connection.released_) {
    eventHandled(connection);
  } else if (!connection.inbox_.empty()) {
    answer = std::move(connection.inbox_.front());
    connection.inbox_.pop_front();
    --connection.owed_;
  }
  return answer;
}

void Layer::release(ClientConnection& connection) {
  const std::lock_guard lock(mutex_);
  closeLocked(connection);
}

SIPLIB_SIPDialog* Layer::dialogOf(const ClientConnection& connection) const {
  const std::lock_guard lock(mutex_);
  const bool within = !connection.released_ && connection.dialog_ && !connection.dialog_->data().remote_tag.empty() &&
                      !ofEndedSubscription(connection);
  return within ? connection.dialog_.get() : nullptr;
}

// ---- transactions, under the lock

Transaction& Layer::add(std::unique_ptr<Transaction> transaction) {
  transaction->id = ++last_id_;
  wakeAt(std::min(transaction->repeat, transaction->end));
  const std::string key = transaction->key;
  return *transactions_.emplace(key, std::move(transaction)).first->second;
}

void Layer::remove(Transaction& transaction) {
  if (transaction.server_connection) transaction.server_connection->transaction_ = nullptr;
  if (transaction.client_connection) transaction.client_connection->transaction_ = nullptr;
  const std::string key = transaction.key;
  transactions_.erase(key);
}

void Layer::transmit(const Transaction& transaction) {
  if (transaction.bytes) outgoing_.push_back({transaction.path, transaction.bytes, transaction.key, transaction.id});
}

SIPLIB_SIPMessageHandle Layer::timeoutFor(const Head& head) {
  SIPLIB_SIPMessageHandle answer(new SIPLIB_message(408, "Request Timeout"));
  answer->setHeader("Via", head.via);
  answer->setHeader("From", head.from);
  answer->setHeader("To", head.to);
  answer->setHeader("Call-ID", head.call_id);
  answer->setHeader("CSeq", std::to_string(head.number) + ' ' + head.method);
  return answer;
}

// The answer reaches the dialog in any case, the user when it still wants it.
void Layer::handOver(Transaction& transaction, SIPLIB_SIPMessageHandle answer, int status, const Head& head) {
  if (const std::shared_ptr<Dialog> dialog = transaction.dialog; dialog && status >= 200) {
    const bool confirmed = !dialog->data().remote_tag.empty();
    const bool subscribe = transaction.head.method == "SUBSCRIBE";
    if (status < 300) {
      if (confirmed && (subscribe || transaction.head.method == "NOTIFY"))
        dialog->refreshTarget(*answer);
      else if (!confirmed && !head.to_tag.empty())
        dialog->confirm(head.to_tag, head.to, *answer);
    } else if (!confirmed) {
      endDialog(dialog, false);
    } else if (!dialog->data().notifier && subscribe && (status == 481 || status == 408)) {
      endDialog(dialog, true);
    }
  }
  // 100 is between the hops (RFC 3261 8.2.6.1), and the only provisional answer to such a request (RFC 4320 4.1).
  ClientConnection* connection = transaction.client_connection;
  const bool wanted = status != 100 && connection && !connection->released_ && connection->listener_;
  if (wanted && (status >= 200 || connection->inbox_.size() < kMaxInbox)) {
    notices_.push_back({connection, nullptr});
    connection->inbox_.push_back(std::move(answer));
    ++connection->owed_;
  }
  transaction.told = status >= 200;
}

// Timer F, or the transport is lost.
void Layer::giveUp(Transaction& transaction) {
  transaction.machine->expire(Machine::Timer::F);
  handOver(transaction, timeoutFor(transaction.head), 408, transaction.head);
  remove(transaction);
}

void Layer::expire(Transaction& transaction, Clock::time_point now) {
  const Machine::State state = transaction.machine->state();
  const bool completed = state == Machine::State::Completed;
  if (transaction.end <= now) {
    if (completed) {
      // An answer that was lost for want of memory.
      if (transaction.client && !transaction.told)
        handOver(transaction, timeoutFor(transaction.head), 408, transaction.head);
      transaction.machine->expire(transaction.client ? Machine::Timer::K : Machine::Timer::J);
      return remove(transaction);
    }
    log(4, "expire",
        transaction.head.method + (transaction.client ? " not answered" : " not answered by us") + ", Call-ID " +
            transaction.head.call_id);
    return transaction.client ? giveUp(transaction) : remove(transaction);
  }
  if (transaction.repeat <= now) {
    transaction.machine->expire(Machine::Timer::E);
    // RFC 3261 17.1.2.2.
    transaction.repeat_after =
        state == Machine::State::Trying ? std::min(2 * transaction.repeat_after, config_.t2) : config_.t2;
    transaction.repeat = now + transaction.repeat_after;
  }
}

// ---- dialogs, under the lock

std::shared_ptr<Dialog> Layer::dialogFor(const Head& head, const SIPLIB_message& request) {
  const auto found = dialogs_.find(Dialog::key(head.call_id, head.to_tag));
  if (found == dialogs_.end()) return nullptr;
  const std::shared_ptr<Dialog>& dialog = found->second;
  if (dialog->data().remote_tag.empty() && head.method == "NOTIFY" && !head.from_tag.empty()) {
    dialog->confirm(head.from_tag, head.from, request);
  }
  return dialog->data().remote_tag == head.from_tag ? dialog : nullptr;
}

void Layer::endDialog(const std::shared_ptr<Dialog>& dialog, bool tell) {
  DialogData& data = dialog->data();
  if (data.terminated) return;
  data.terminated = true;
  ended_dialogs_.push_back(dialog);
  to_free_ = true;
  if (tell && dialog_listener_) notices_.push_back({nullptr, dialog});
  dialogs_.erase(Dialog::key(data.call_id, data.local_tag));
}

// ---- the ends of connections

bool Layer::close(SIPLIB_SIPConnection* connection) {
  SIPLIB_SIPServerConnection* server = nullptr;
  {
    const std::lock_guard lock(mutex_);
    if (const auto client = clients_.find(connection); client != clients_.end()) {
      closeLocked(*client->second);
      return true;
    }
    const auto same = [&](const auto& closed) { return closed.get() == connection; };
    const auto late = std::find_if(closed_clients_.begin(), closed_clients_.end(), same);
    if (late != closed_clients_.end()) {
      eventHandled(**late);
      return true;
    }
    const auto found = servers_.find(connection);
    if (found == servers_.end()) return std::any_of(closed_servers_.begin(), closed_servers_.end(), same);
    server = found->second.get();
  }
  server->release();
  return true;
}

void Layer::closeLocked(ServerConnection& connection) {
  if (connection.released_) return;
  const auto held = servers_.find(&connection);
  closed_servers_.push_back(std::move(held->second));
  connection.released_ = true;
  if (connection.transaction_) connection.transaction_->server_connection = nullptr;
  connection.transaction_ = nullptr;
  std::erase(waiting_, &connection);
  servers_.erase(held);
  to_free_ = true;
}

void Layer::closeLocked(ClientConnection& connection) {
  if (connection.released_) return;
  const auto held = clients_.find(&connection);
  closed_clients_.push_back(std::move(held->second));
  connection.released_ = true;
  if (connection.transaction_) connection.transaction_->client_connection = nullptr;
  connection.transaction_ = nullptr;
  connection.inbox_.clear();
  connection.turn_ = turn_;
  clients_.erase(held);
  to_free_ = true;
}

// A receive or close of a released connection, in a later turn than its release: an event that named it has come to its
// end. One event a turn.
void Layer::eventHandled(ClientConnection& connection) {
  if (connection.owed_ == 0 || connection.turn_ == turn_) return;
  --connection.owed_;
  connection.turn_ = turn_;
}

void Layer::endTurn() {
  if (!to_free_) return;
  std::vector<std::unique_ptr<ServerConnection>> servers;
  std::vector<std::unique_ptr<ClientConnection>> clients;
  std::vector<std::shared_ptr<Dialog>> dialogs;
  const std::lock_guard lock(mutex_);  // Opens before they go.
  ++turn_;
  servers.swap(closed_servers_);
  dialogs.swap(ended_dialogs_);
  const auto done = std::stable_partition(closed_clients_.begin(), closed_clients_.end(),
                                          [](const auto& connection) { return connection->owed_ > 0; });
  clients.reserve(closed_clients_.size());  // or none of them, for want of memory
  std::move(done, closed_clients_.end(), std::back_inserter(clients));
  closed_clients_.erase(done, closed_clients_.end());
  for (; closed_clients_.size() > kMaxOwing; closed_clients_.pop_front()) {
    clients.push_back(std::move(closed_clients_.front()));
  }
  to_free_ = !closed_clients_.empty();
}

// ---- after the lock

void Layer::finish(Lock& lock, Thread thread) {
  std::vector<Outgoing> outgoing;
  outgoing.swap(outgoing_);
  lock.unlock();
  for (const Outgoing& out : outgoing) {
    if (out.path->send(*out.bytes)) continue;
    lock.lock();
    const auto lost = transactions_.find(out.key);
    const bool there = lost != transactions_.end() && lost->second->id == out.id;
    if (there && lost->second->client && lost->second->machine->state() != Machine::State::Completed) {
      giveUp(*lost->second);
    }
    lock.unlock();
    log(4, "send", "not sent: the way is closed");
  }
  if (thread == Thread::Io) {
    arm();
    tell();
    return;
  }
  lock.lock();
  const bool more = wake_changed_ || !notices_.empty();
  lock.unlock();
  if (!more) return;
  reactor_.post([this, alive = std::weak_ptr<const bool>(alive_)] {
    if (alive.expired()) return;
    arm();
    tell();
  });
}

void Layer::tell() {
  for (;;) {
    Lock lock(mutex_);
    if (notices_.empty()) return;
    const Notice notice = std::move(notices_.front());
    notices_.pop_front();
    if (notice.ended) {
      SIPLIB_SIPDialogListener* listener = dialog_listener_;
      lock.unlock();
      if (listener) listener->notifyDialogTerminated(notice.ended.get());
    } else if (notice.answered) {
      ClientConnection& connection = *notice.answered;
      SIPLIB_SIPClientConnectionListener* listener = connection.released_ ? nullptr : connection.listener_;
      if (!listener) {
        if (!connection.inbox_.empty()) connection.inbox_.pop_back();
        if (connection.owed_ > 0) --connection.owed_;
        continue;
      }
      lock.unlock();
      listener->notifyResponse(&connection);
    } else if (listener_ && !waiting_.empty()) {
      SIPLIB_SIPServerConnectionListener* listener = listener_;
      SIPLIB_SIPConnectionNotifier* notifier = notifier_;
      lock.unlock();
      listener->notifyRequest(notifier);
    }
  }
}

// ---- time

void Layer::wakeAt(Clock::time_point due) {
  if (due >= wake_) return;
  wake_ = due;
  wake_changed_ = true;
}

void Layer::arm() {
  Clock::time_point wake;
  if (!timer_) timer_ = reactor_.timer([this] { expireOrTryAgain(); });
  {
    const std::lock_guard lock(mutex_);
    if (!wake_changed_) return;
    wake_changed_ = false;
    wake = wake_;
  }
  if (wake == Clock::time_point::max()) return timer_->stop();
  const auto left = std::chrono::ceil<std::chrono::milliseconds>(wake - Clock::now());
  timer_->start(std::max(left, std::chrono::milliseconds(0)));
}

// Without memory it is not done yet: the time that it was due at would otherwise never come again.
void Layer::expireOrTryAgain() {
  constexpr std::chrono::milliseconds kAgain{100};
  try {
    expire();
  } catch (...) {
    timer_->start(kAgain);
    throw;
  }
}

void Layer::expire() {
  Lock lock(mutex_);
  const Clock::time_point now = Clock::now();
  std::vector<Transaction*> due;
  for (const auto& [key, transaction] : transactions_) {
    if (std::min(transaction->repeat, transaction->end) <= now) due.push_back(transaction.get());
  }
  for (Transaction* transaction : due) expire(*transaction, now);

  std::vector<ServerConnection*> forgotten;
  Clock::time_point next = Clock::time_point::max();
  for (const auto& [name, connection] : servers_) {
    if (connection->reclaim_ <= now)
      forgotten.push_back(connection.get());
    else
      next = std::min(next, connection->reclaim_);
  }
  for (ServerConnection* connection : forgotten) closeLocked(*connection);
  for (const auto& [key, transaction] : transactions_) {
    next = std::min({next, transaction->repeat, transaction->end});
  }
  wake_ = next;
  wake_changed_ = true;
  finish(lock, Thread::Io);
  if (!forgotten.empty()) log(3, "expire", "requests taken back that their user never let go of");
}

void Layer::log(int level, const char* where, std::string_view text) const {
  if (logs(level)) config_.log(level, where, text);
}

}  // namespace siplib

// The ordinary SIP processing: transactions, dialogs, and what libosip2 reads of a peer's headers.
//
//   events between "\n%%", each a letter and its text:
//     d t  a message, as a datagram or on a TCP connection     r    the same message once more
//     f    the status of the user's answer to the oldest request that waits for one
//     n    a NOTIFY of the newest dialog, with this Subscription-State
//     c    a request outside of dialogs: its method
//     s    the status of the peer's answer to the newest of our requests
//     x    the user lets go of the oldest request                w    no way leads out from here on, or does again
//   An input that is no such sequence is one message, taken as a datagram and on a TCP connection.
//   Line ends become CRLF; {B} {I} {T} stand for the branch, Call-ID and From tag of the newest of our requests, {L}
//   for the tag of our last answer.
//
// Promises: what is transmitted parses, one message for one event at most; an answer takes Via, From, Call-ID and CSeq
// over from its request, and To with a tag at most added; a repeated request is never a second one for the user while
// the first is remembered, and is answered with the same bytes; a request gets one final answer; nothing is kept of
// what is over (whatever the user was told of is freed when it has let go, seen by AddressSanitizer).

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <deque>
#include <memory>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "input.h"
#include "siplib/header.h"
#include "siplib/listener.h"
#include "siplib/reactor.h"
#include "siplib/transaction_layer.h"

namespace {

constexpr std::size_t kEvents = 40;

using Wire = std::vector<std::string>;

/// Keeps what is sent on it, whichever way that is.
class RecordingPath : public siplib::Path {
 public:
  RecordingPath(Wire& wire, const bool& open, bool reliable, int port)
      : wire_(wire), open_(open), reliable_(reliable), port_(port) {}
  bool send(std::string_view bytes) override {
    if (open_) wire_.emplace_back(bytes);
    return open_;
  }
  bool reliable() const override { return reliable_; }
  void local(std::string& ip, int& port) const override {
    ip = "127.0.0.1";
    port = 5060;
  }
  void peer(std::string& ip, int& port) const override {
    ip = "127.0.0.1";
    port = port_;
  }

 private:
  Wire& wire_;
  const bool& open_;
  const bool reliable_;
  const int port_;
};

SIPLIB_SIPMessageHandle parsed(const std::string& text) {
  return SIPLIB_SIPMessageHandle(new SIPLIB_message(text.data(), text.size()));
}

std::string parameterOf(const SIPLIB_message& message, const char* name, const char* parameter) {
  std::string value;
  const std::unique_ptr<SIPLIB_SIPHeader> header(
      SIPLIB_SIPHeader::createSIPHeaderObject(name, message.header(name).value_or("")));
  if (header) header->getParameter(parameter, value);
  return value;
}

class World : public SIPLIB_SIPServerConnectionListener,
              public SIPLIB_SIPClientConnectionListener,
              public SIPLIB_SIPDialogListener,
              public siplib::PathMaker {
 public:
  World() : layer_(siplib::TransactionLayer::create(settings(), reactor_, *this)) {
    layer_->setLocal("127.0.0.1", 5060);
    layer_->setListener(this, nullptr);
    layer_->setDialogListener(this);
  }

  void event(std::string_view event) {
    if (event.empty()) return;
    const char kind = event[0];
    event.remove_prefix(event.size() > 1 && event[1] == '\n' ? 2 : 1);
    const std::string text(event);
    const int status = std::atoi(text.substr(0, 4).c_str());
    wire_.clear();
    switch (kind) {
      case 'd':
      case 't':
        last_ = wireText(text);
        last_path_ = kind == 'd' ? datagrams_ : stream_;
        receive();
        break;
      case 'r':
        repeat();
        break;
      case 'f':
        answer(status);
        break;
      case 'n':
        notify(text);
        break;
      case 'c':
        request(text);
        break;
      case 's':
        takeAnswer(status);
        break;
      case 'x':
        if (!requests_.empty()) letGo();
        break;
      case 'w':
        open_ = !open_;
        always_open_ = false;
        break;
      default:
        return;
    }
    endTurn();
    PROMISE(wire_.size() <= 1);
    for (const std::string& bytes : wire_) PROMISE(parsed(bytes)->valid());
    transmitted_.insert(wire_.begin(), wire_.end());
  }

  void notifyRequest(SIPLIB_SIPConnectionNotifier* /*notifier*/) override {
    SIPLIB_SIPServerConnection* const connection = layer_->accept();
    PROMISE(connection != nullptr && connection->receive() == 0 && connection->receive() == -1);
    ++told_;
    requests_.push_back({connection, last_, last_path_});
  }
  void notifyResponse(SIPLIB_SIPClientConnection* connection) override {
    if (connection->getTransactionStatus() != 0) {
      layer_->close(connection);
      return;
    }
    if (connection->receive() != 0) return;
    PROMISE(connection->getStatusCode() > 100);
    if (connection->getStatusCode() >= 200) answered_.push_back(connection);
  }
  void notifyDialogTerminated(SIPLIB_SIPDialog* dialog) override {
    PROMISE(dialog->isTerminated());
    if (dialog == dialog_) dialog_ = nullptr;
  }
  std::shared_ptr<siplib::Path> pathTo(std::string_view transport, std::string_view /*ip*/, int port) override {
    PROMISE(transport == "TCP" || transport == "UDP");
    return open_ && port > 0 ? std::make_shared<RecordingPath>(wire_, open_, transport == "TCP", port) : nullptr;
  }

 private:
  struct Request {
    SIPLIB_SIPServerConnection* connection;
    std::string text;
    std::shared_ptr<siplib::Path> path;
  };

  /// No time passes within an input.
  static SIPLIB_SIPStackConfig settings() {
    SIPLIB_SIPStackConfig config;
    config.t1 = config.t2 = config.t4 = std::chrono::hours(1);
    return config;
  }

  std::string wireText(std::string_view text) const {
    std::string result;
    for (std::size_t i = 0; i < text.size(); ++i) {
      if (text[i] == '\n' && (i == 0 || text[i - 1] != '\r')) result += '\r';
      result += text[i];
    }
    const std::pair<std::string_view, const std::string&> words[] = {
        {"{B}", branch_}, {"{I}", call_id_}, {"{T}", from_tag_}, {"{L}", to_tag_}};
    for (const auto& [word, meaning] : words)
      for (std::size_t at = 0; (at = result.find(word, at)) != std::string::npos; at += meaning.size())
        result.replace(at, word.size(), meaning);
    return result;
  }

  void receive() {
    layer_->receive(parsed(last_), last_path_);
    const SIPLIB_SIPMessageHandle message = parsed(last_);
    PROMISE(wire_.empty() || message->isRequest());
    PROMISE(message->valid() || told_ == 0);
    // Any request with the key of one that was answered gets its answer.
    for (const std::string& bytes : wire_)
      if (!transmitted_.contains(bytes)) checkAnswer(*message, *parsed(bytes));
    last_answer_ = wire_;
    last_told_ = std::exchange(told_, 0);
  }
  // What the user was told of stays absorbed until it is answered; what was refused is refused alike.
  void repeat() {
    if (last_.empty()) return;
    const Wire before = last_answer_;
    const std::size_t told = last_told_;
    const bool remembered = told > 0 && std::any_of(requests_.begin(), requests_.end(),
                                                    [&](const Request& request) { return request.text == last_; });
    receive();
    if (remembered) PROMISE(last_told_ == 0 && (wire_ == before || !always_open_));
    last_told_ = std::max(told, last_told_);
  }

  void answer(int status) {
    if (requests_.empty()) return;
    const Request request = requests_.front();
    if (request.connection->initResponse(status) != 0) {
      PROMISE(status < 100 || status > 699);
      return;
    }
    const int sent = request.connection->send();
    PROMISE(sent == 0 && request.connection->send() == -1);
    const SIPLIB_SIPMessageHandle message = parsed(request.text);
    for (const std::string& bytes : wire_) {
      const SIPLIB_SIPMessageHandle made = parsed(bytes);
      PROMISE(made->statusCode() == status);
      checkAnswer(*message, *made);
      to_tag_ = parameterOf(*made, "To", "tag");
    }
    if (request.text == last_) last_answer_ = wire_;
    if (status < 200) return;
    PROMISE(request.connection->initResponse(status) == -1);
    if (SIPLIB_SIPDialog* const dialog = request.connection->getDialog(); dialog != nullptr && !dialog->isTerminated())
      dialog_ = dialog;
    // Over UDP its answer is kept and repeated.
    const Wire first = std::exchange(wire_, {});
    if (request.path == datagrams_ && !first.empty()) {
      layer_->receive(parsed(request.text), datagrams_);
      PROMISE(wire_ == first && std::exchange(told_, 0) == 0);
    }
    wire_ = first;
    letGo();
  }
  void letGo() {
    PROMISE(layer_->close(requests_.front().connection));
    requests_.pop_front();
  }

  // Texts that the library wrote are compared with the peer's: Via may have got parameters of the source.
  static void checkAnswer(const SIPLIB_message& request, const SIPLIB_message& answer) {
    PROMISE(answer.isResponse() && answer.headerCount("Via") == request.headerCount("Via"));
    for (const char* name : {"From", "Call-ID", "CSeq"}) PROMISE(answer.header(name) == request.header(name));
    PROMISE(answer.header("To").value_or("").starts_with(request.header("To").value_or("")));
    PROMISE(parameterOf(answer, "Via", "branch") == parameterOf(request, "Via", "branch"));
    PROMISE(parameterOf(answer, "Via", "host") == parameterOf(request, "Via", "host"));
  }

  void notify(const std::string& state) {
    if (dialog_ == nullptr) return;
    SIPLIB_SIPClientConnection* const connection = dialog_->getNewClientConnection("NOTIFY");
    if (connection == nullptr) return;
    connection->setHeader("Subscription-State", state);
    send(connection);
    if (dialog_ != nullptr && dialog_->isTerminated()) dialog_ = nullptr;
  }
  void request(const std::string& method) {
    SIPLIB_SIPClientConnection* const connection = layer_->openClient(datagrams_);
    if (connection == nullptr) return;
    if (connection->initRequest(method, "sip:127.0.0.1:5070", "<sip:regua@127.0.0.1>", "<sip:peer@127.0.0.1>") == 0)
      send(connection);
    else
      layer_->close(connection);
  }
  void send(SIPLIB_SIPClientConnection* connection) {
    connection->setListener(this);
    PROMISE(connection->send() == 0 && connection->send() == -1);
    if (wire_.empty()) return;
    const SIPLIB_SIPMessageHandle made = parsed(wire_.back());
    PROMISE(made->isRequest());
    newest_ = wire_.back();
    branch_ = parameterOf(*made, "Via", "branch");
    call_id_ = made->header("Call-ID").value_or("");
    from_tag_ = parameterOf(*made, "From", "tag");
    PROMISE(branch_.size() > 7 && !call_id_.empty() && !from_tag_.empty());
  }
  void takeAnswer(int status) {
    if (newest_.empty() || status < 100 || status > 699) return;
    const SIPLIB_SIPMessageHandle request = parsed(newest_);
    const SIPLIB_SIPMessageHandle made(new SIPLIB_message(status, "Reason"));
    for (const char* name : {"Via", "From", "Call-ID", "CSeq"}) made->setHeader(name, *request->header(name));
    std::string to(*request->header("To"));
    if (parameterOf(*request, "To", "tag").empty()) to += ";tag=peer";
    made->setHeader("To", to);
    made->setHeader("Contact", "<sip:peer@127.0.0.1:5070>");
    layer_->receive(made, datagrams_);
    PROMISE(wire_.empty());
  }

  void endTurn() {
    reactor_.poll();
    for (SIPLIB_SIPClientConnection* const connection : std::exchange(answered_, {})) {
      if (SIPLIB_SIPDialog* const dialog = connection->getDialog(); dialog != nullptr && !dialog->isTerminated())
        dialog_ = dialog;
      layer_->close(connection);
    }
    if (dialog_ != nullptr && dialog_->isTerminated()) dialog_ = nullptr;
    layer_->endTurn();
  }

  Wire wire_;
  bool open_ = true;
  bool always_open_ = true;
  siplib::Reactor reactor_;
  const std::shared_ptr<siplib::Path> datagrams_ = std::make_shared<RecordingPath>(wire_, open_, false, 5070);
  const std::shared_ptr<siplib::Path> stream_ = std::make_shared<RecordingPath>(wire_, open_, true, 40000);
  std::set<std::string> transmitted_;
  std::string last_;
  std::shared_ptr<siplib::Path> last_path_;
  Wire last_answer_;
  std::size_t last_told_ = 0;
  std::size_t told_ = 0;
  std::deque<Request> requests_;
  std::vector<SIPLIB_SIPClientConnection*> answered_;
  SIPLIB_SIPDialog* dialog_ = nullptr;
  std::string newest_;
  std::string branch_;
  std::string call_id_;
  std::string from_tag_;
  std::string to_tag_;
  std::unique_ptr<siplib::TransactionLayer> layer_;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  World world;
  const std::string_view input = fuzz::view(data, size);
  if (input.size() > 1 && input[1] != '\n' && input.find("\n%%") == std::string_view::npos) {
    for (const char* which : {"d\n", "t\n"}) world.event(which + std::string(input));
    return 0;
  }
  std::size_t count = 0;
  for (const std::string_view event : fuzz::split(input, "\n%%")) {
    if (++count > kEvents) break;
    world.event(event);
  }
  return 0;
}

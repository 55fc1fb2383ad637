#include "siplib/machine.h"

#include <osip2/osip.h>
#include <osipparser2/osip_parser.h>

#include <cstdarg>
#include <string>

#include "siplib/reason.h"

namespace siplib {
namespace {

struct FreeMessage {
  void operator()(osip_message_t* message) const { osip_message_free(message); }
};
using Message = std::unique_ptr<osip_message_t, FreeMessage>;

// The Request-URI means nothing to a machine; a fixed one spares reading the peer's.
constexpr std::string_view kAnyUri = "sip:127.0.0.1";

Message read(const Head& head, int status) {
  std::string text;
  if (status == 0)
    text.append(head.method).append(" ").append(kAnyUri).append(" SIP/2.0\r\n");
  else
    text.append("SIP/2.0 ").append(std::to_string(status)).append(" ").append(reasonPhrase(status)).append("\r\n");
  text.append("Via: ").append(head.via).append("\r\nFrom: ").append(head.from);
  text.append("\r\nTo: ").append(head.to).append("\r\nCall-ID: ").append(head.call_id);
  text.append("\r\nCSeq: ").append(std::to_string(head.number)).append(" ").append(head.method);
  text.append("\r\nContent-Length: 0\r\n\r\n");

  osip_message_t* message = nullptr;
  if (osip_message_init(&message) != OSIP_SUCCESS) return nullptr;
  Message owned(message);
  if (osip_message_parse(message, text.data(), text.size()) != OSIP_SUCCESS) return nullptr;
  // It passes over a header that it does not understand, but cannot work without these.
  const bool whole = message->from && message->to && message->call_id && message->call_id->number && message->cseq &&
                     message->cseq->method && message->cseq->number && osip_list_size(&message->vias) > 0;
  return whole ? std::move(owned) : nullptr;
}

int transmitOf(osip_transaction_t* transaction, osip_message_t*, char*, int, int) {
  (*static_cast<std::function<void()>*>(osip_transaction_get_your_instance(transaction)))();
  return 0;  // Whether it left is learned, and answered for, by who transmits.
}

class OsipMachine final : public Machine {
 public:
  OsipMachine(osip_transaction_t* transaction, std::function<void()> transmit)
      : transaction_(transaction), transmit_(std::move(transmit)) {
    osip_transaction_set_your_instance(transaction_, &transmit_);
  }
  ~OsipMachine() override { osip_transaction_free(transaction_); }
  OsipMachine(const OsipMachine&) = delete;
  OsipMachine& operator=(const OsipMachine&) = delete;

  State state() const override {
    switch (transaction_->state) {
      case NICT_PRE_TRYING:
      case NIST_PRE_TRYING:
        return State::Fresh;
      case NICT_TRYING:
      case NIST_TRYING:
        return State::Trying;
      case NICT_PROCEEDING:
      case NIST_PROCEEDING:
        return State::Proceeding;
      case NICT_COMPLETED:
      case NIST_COMPLETED:
        return State::Completed;
      default:
        return State::Terminated;
    }
  }

  bool receive(const Head& head, int status) override {
    return execute(status == 0    ? RCV_REQUEST
                   : status < 200 ? RCV_STATUS_1XX
                   : status < 300 ? RCV_STATUS_2XX
                                  : RCV_STATUS_3456XX,
                   read(head, status));
  }

  bool send(const Head& head, int status) override {
    return execute(status == 0    ? SND_REQUEST
                   : status < 200 ? SND_STATUS_1XX
                   : status < 300 ? SND_STATUS_2XX
                                  : SND_STATUS_3456XX,
                   read(head, status));
  }

  void expire(Timer timer) override {
    constexpr type_t kEvents[] = {TIMEOUT_E, TIMEOUT_F, TIMEOUT_J, TIMEOUT_K};
    run(kEvents[static_cast<std::size_t>(timer)], nullptr);
  }

 private:
  bool execute(type_t type, Message message) {
    if (!message) return false;
    run(type, message.release());
    return true;
  }

  // Gives away the message: to the transaction, or to the end that libosip2 makes of what it has no use for.
  void run(type_t type, osip_message_t* message) {
    auto* event = static_cast<osip_event_t*>(osip_malloc(sizeof(osip_event_t)));
    if (!event) {
      osip_message_free(message);
      return;
    }
    event->type = type;
    event->transactionid = transaction_->transactionid;
    event->sip = message;
    osip_transaction_execute(transaction_, event);
  }  // NOLINT(clang-analyzer-unix.Malloc): the event is freed within

  osip_transaction_t* const transaction_;
  std::function<void()> transmit_;
};

class OsipMachines final : public Machines {
 public:
  explicit OsipMachines(osip_t* osip) : osip_(osip) { osip_set_cb_send_message(osip_, transmitOf); }
  ~OsipMachines() override { osip_release(osip_); }
  OsipMachines(const OsipMachines&) = delete;
  OsipMachines& operator=(const OsipMachines&) = delete;

  std::unique_ptr<Machine> server(const Head& request, std::function<void()> transmit) override {
    return make(NIST, request, std::move(transmit));
  }
  std::unique_ptr<Machine> client(const Head& request, std::function<void()> transmit) override {
    return make(NICT, request, std::move(transmit));
  }

 private:
  std::unique_ptr<Machine> make(osip_fsm_type_t kind, const Head& head, std::function<void()> transmit) {
    const Message message = read(head, 0);
    osip_transaction_t* transaction = nullptr;
    if (!message || osip_transaction_init(&transaction, kind, osip_, message.get()) != OSIP_SUCCESS) return nullptr;
    return std::make_unique<OsipMachine>(transaction, std::move(transmit));
  }

  osip_t* const osip_;
};

}  // namespace

std::unique_ptr<Machines> Machines::create() {
  // Without a function of ours it writes its complaints of a peer's headers to the standard output.
  static const bool silent = [] {
    osip_trace_initialize_func(OSIP_FATAL, [](const char*, int, osip_trace_level_t, const char*, va_list) {});
    return true;
  }();
  static_cast<void>(silent);
  osip_t* osip = nullptr;
  if (osip_init(&osip) != OSIP_SUCCESS) return nullptr;
  return std::make_unique<OsipMachines>(osip);
}

}  // namespace siplib

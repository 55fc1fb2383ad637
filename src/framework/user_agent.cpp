#include "framework/user_agent.h"

#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <new>
#include <thread>
#include <vector>

#include "framework/bounds.h"
#include "framework/configuration.h"
#include "framework/control_channel.h"
#include "framework/log.h"
#include "framework/message_queue.h"
#include "framework/options.h"
#include "framework/run_files.h"
#include "siplib/reactor.h"

SIPLIB_SIPConnector* IMS_User_Agent::ua_connector = nullptr;
std::string IMS_User_Agent::__ua_myuri;

namespace {

// Turns of the loop between two looks at the sockets: a full queue must not starve them, and a look costs a system
// call.
constexpr int kTurnsPerLook = 32;
// Messages that wait for the loop and are enough: what comes in further waits in its own socket. A quiet peer's message
// then stands behind these at most, and not behind all that the others were able to send.
constexpr std::size_t kEnoughWaiting = 64;
// Ports that open_local_notifier tries.
constexpr int kPortsTried = 100;

std::string& configDir() {
  static std::string dir = "/etc/ue-proxy";
  return dir;
}

std::string& runDir() {
  static std::string dir = "/run/ue-proxy";
  return dir;
}

/// Detaching changes the working directory, so a relative name is made whole while it still means what was meant.
std::string wholePath(const std::string& path) {
  std::error_code fault;
  const std::filesystem::path whole = std::filesystem::absolute(path, fault);
  return fault ? path : whole.string();
}

/// A reactor that was given to a stack stays: the process's stack is never freed.
void keepForEver(std::unique_ptr<siplib::Reactor> reactor) {
  static auto* const kept = new std::vector<std::unique_ptr<siplib::Reactor>>;
  kept->push_back(std::move(reactor));
}

/// Runs one piece of the loop's work. What it throws (memory may be out) costs that piece, not the process.
template <typename Work>
void guarded(const char* what, Work work) {
  try {
    work();
  } catch (const std::exception& fault) {
    IMS_log::loginfo(3, "handle_message", "%s given up: %s", what, fault.what());
  } catch (...) {
    IMS_log::loginfo(3, "handle_message", "%s given up", what);
  }
}

}  // namespace

struct IMS_User_Agent::State {
  framework::MessageQueue queue;
  framework::ControlChannel control;
  bool control_busy = false;
  siplib::Reactor* reactor = nullptr;
  std::unique_ptr<siplib::Reactor> own_reactor;  // until a stack gets it
  bool io_thread = false;
  std::thread io;
  std::atomic<std::thread::id> loop{};

  void wakeLoop() {
    // Within the reactor's own callbacks the loop looks at the queue next anyway.
    if (reactor == nullptr || loop.load(std::memory_order_relaxed) == std::this_thread::get_id()) return;
    guarded("wake-up", [this] { reactor->wake(); });
  }

  void stopIo() {
    if (!io.joinable()) return;
    reactor->stop();
    io.join();
  }
};

IMS_User_Agent::IMS_User_Agent() : state_(std::make_unique<State>()) {
}

IMS_User_Agent::~IMS_User_Agent() {
  state_->stopIo();
  state_->control.close();
}

// --- Command line

void IMS_User_Agent::add_program_option(const char* word, const char* help) {
  framework::addProgramOption(word, help);
}

void IMS_User_Agent::set_options(int argc, char** argv) {
  framework::Options options;
  std::string error;
  if (!framework::parseOptions(argc, argv, options, error)) {
    std::fprintf(stderr, "ue-proxy: %s (--help shows the options)\n", error.c_str());
    std::exit(2);
  }
  __d_arg_h = options.help;
  foreground = options.foreground;
  if (options.config_dir) set_config_dir(wholePath(*options.config_dir));
  if (options.run_dir) set_run_dir(wholePath(*options.run_dir));
  if (options.help) return;
  if (options.version) {
    std::puts("ue-proxy " UE_PROXY_VERSION);
    std::exit(0);
  }
  if (options.check_config) {
    const std::vector<std::string> faults = framework::checkConfiguration(config_dir());
    for (const std::string& fault : faults) std::fprintf(stderr, "%s\n", fault.c_str());
    std::exit(faults.empty() ? 0 : 1);
  }
}

void IMS_User_Agent::print_usage() {
  IMS_daemon::print_usage();
}

// --- Start and stop

bool IMS_User_Agent::open_framework_sockets() {
  try {
    if (state_->reactor == nullptr) {
      state_->own_reactor = std::make_unique<siplib::Reactor>();
      state_->reactor = state_->own_reactor.get();
    }
    set_signal_handlers();
  } catch (const std::exception& fault) {
    IMS_log::loginfo(3, "open_framework_sockets", "nothing to wait in: %s", fault.what());
    return false;
  }
  ::mkdir(run_dir().c_str(), 0755);  // what is wrong with it, the files below tell
  bool done = true;
  std::string error;
  const std::string socket_path = run_dir() + "/ue-proxy.sock";
  if (state_->control.open(socket_path, error, state_->control_busy)) {
    framework::rememberRunFile(socket_path);
  } else {
    IMS_log::loginfo(3, "open_framework_sockets", "no control channel %s: %s", socket_path.c_str(), error.c_str());
    done = false;
  }
  const std::string pid_path = run_dir() + "/ue-proxy.pid";
  if (state_->control_busy) {
    IMS_log::loginfo(3, "open_framework_sockets", "no pid file %s: it is another process's", pid_path.c_str());
  } else if (framework::replaceFile(pid_path, std::to_string(::getpid()) + "\n", error)) {
    framework::rememberRunFile(pid_path);
  } else {
    IMS_log::loginfo(3, "open_framework_sockets", "no pid file %s: %s", pid_path.c_str(), error.c_str());
    done = false;
  }
  return done;
}

void IMS_User_Agent::close_framework_sockets() {
  clean_daemon();
}

void IMS_User_Agent::clean_daemon() {
  state_->stopIo();
  state_->control.close();
  IMS_daemon::clean_daemon();
}

void IMS_User_Agent::set_signal_handlers() {
  IMS_daemon::set_signal_handlers();
  if (state_->reactor == nullptr) return;
  for (const int signal_number : {SIGTERM, SIGINT}) {
    state_->reactor->onSignal(signal_number, [this](int caught) {
      IMS_log::loginfo(5, "set_signal_handlers", "stopping on signal %d", caught);
      stop_message_loop();
    });
  }
}

int IMS_User_Agent::create_all_external_descriptors() {
  if (state_->reactor == nullptr) return 0;
  const auto take = [this](std::unique_ptr<char[]> text) {
    fill_queue_and_send_signal(MSG_FRAMEWORK_TEXT, text.release());
  };
  return state_->control.listen(*state_->reactor, take) ? 1 : 0;
}

void IMS_User_Agent::init_sipstack_info(const char* node, SIPLIB_SIPStackConfig& config) {
  std::string prefix = node;
  if (!prefix.ends_with('/')) prefix += '/';
  framework::Bounds bounds;
  framework::readStackSettings(framework::documentPath(config_dir(), "config"), prefix, config, bounds,
                               state_->io_thread);
  framework::setBounds(bounds);
  config.reactor = state_->reactor;
  if (state_->own_reactor) keepForEver(std::move(state_->own_reactor));
  config.log = [](int level, const char* where, std::string_view text) {
    IMS_log::loginfo(level, where, "%.*s", static_cast<int>(text.size()), text.data());
  };
  config.log_enabled = IMS_log::enabled;
}

void IMS_User_Agent::wait_for_framework_init() {
  if (ua_connector == nullptr && SIPLIB_SIPStack::instance() != nullptr) {
    ua_connector = SIPLIB_SIPStack::instance()->connector();
  }
  if (!state_->io_thread || state_->reactor == nullptr || state_->io.joinable()) return;
  try {
    state_->io = std::thread([reactor = state_->reactor] {
      for (bool again = true; again;) {
        guarded("I/O turn", [&] {
          reactor->run();
          again = false;
        });
      }
    });
  } catch (const std::exception& fault) {
    IMS_log::loginfo(3, "wait_for_framework_init", "no I/O thread, the loop does its work: %s", fault.what());
  }
}

void IMS_User_Agent::handle_message() {
  State& state = *state_;
  state.loop = std::this_thread::get_id();
  const bool drives_sockets = state.reactor != nullptr && !state.io.joinable();
  while (!state.queue.stopped()) {
    SIPLIB_SIPStack* const stack = SIPLIB_SIPStack::instance();
    if (stack != nullptr) stack->holdSending();
    int turns = 0;
    while (turns < kTurnsPerLook && handle_one_message()) ++turns;
    if (stack != nullptr) guarded("sending", [stack] { stack->releaseSending(); });
    if (!drives_sockets) {
      state.queue.wait();
    } else if (state.queue.announceSleep()) {
      guarded("I/O turn", [&] { state.reactor->runOnce(); });
      state.queue.awake();
    } else {
      guarded("I/O turn", [&] { state.reactor->poll([&] { return state.queue.size() >= kEnoughWaiting; }); });
    }
  }
  state.stopIo();
}

void IMS_User_Agent::stop_message_loop() {
  if (state_->queue.stop()) state_->wakeLoop();
}

bool IMS_User_Agent::handle_one_message() {
  IMS_Queue_Message message{};
  if (!state_->queue.pop(message)) return false;
  const bool is_text = message.type == MSG_FRAMEWORK_TEXT;
  const std::unique_ptr<char[]> text(is_text ? static_cast<char*>(message.data) : nullptr);
  guarded("message", [&] {
    const unsigned int event_id = get_event_id_from_message(&message);
    handle_event(event_id, message.data);
  });
  if (is_text) guarded("control channel", [this] { state_->control.handled(); });
  if (SIPLIB_SIPStack* const stack = SIPLIB_SIPStack::instance()) {
    guarded("end of turn", [stack] { stack->endTurn(); });
  }
  return true;
}

// --- Configuration

void IMS_User_Agent::set_config_dir(const std::string& dir) {
  configDir() = dir;
}
void IMS_User_Agent::set_run_dir(const std::string& dir) {
  runDir() = dir;
}
const std::string& IMS_User_Agent::config_dir() {
  return configDir();
}
const std::string& IMS_User_Agent::run_dir() {
  return runDir();
}

bool IMS_User_Agent::get_xml_parameter(const std::string& key, std::string& value, const std::string& document) {
  return framework::readParameter(framework::documentPath(config_dir(), document), key, value);
}

bool IMS_User_Agent::create_cap_file(int count, ...) {
  const std::string path = run_dir() + "/ue-proxy.cap";
  std::string text;
  bool clean = count % 2 == 0;
  va_list arguments;
  va_start(arguments, count);
  for (int i = 0; i < count && clean; ++i) {
    const char* const piece = va_arg(arguments, const char*);
    if (piece == nullptr) {
      clean = false;
      break;
    }
    // A line break in a value would read as a further entry.
    for (const char* c = piece; *c != '\0'; ++c) clean = clean && static_cast<unsigned char>(*c) >= 0x20;
    text.append(piece).append(i % 2 == 0 ? ": " : "\n");
  }
  va_end(arguments);
  std::string error = "a name or value is missing or holds a control character";
  if (clean && framework::replaceFile(path, text, error)) return true;
  IMS_log::loginfo(3, "create_cap_file", "%s not written: %s", path.c_str(), error.c_str());
  return false;
}

// --- SIP

namespace {

/// The given connector, or the process's own once the stack is initialised: start-up opens its endpoints before
/// wait_for_framework_init.
SIPLIB_SIPConnector* usable(SIPLIB_SIPConnector* connector) {
  if (connector != nullptr) return connector;
  SIPLIB_SIPConnector*& own = IMS_User_Agent::ua_connector;
  if (own == nullptr && SIPLIB_SIPStack::instance() != nullptr) own = SIPLIB_SIPStack::instance()->connector();
  if (own == nullptr) IMS_log::loginfo(3, "conn_open", "the SIP stack is not initialised");
  return own;
}

}  // namespace

SIPLIB_SIPConnectionNotifier* IMS_User_Agent::conn_open(SIPLIB_SIPConnector* connector, const std::string& uri,
                                                        void* /*reserved*/) {
  connector = usable(connector);
  return connector == nullptr ? nullptr : connector->openNotifier(uri);
}

SIPLIB_SIPConnection* IMS_User_Agent::conn_open(SIPLIB_SIPConnector* connector, const std::string& transport,
                                                const std::string& address, int port, const char* destination,
                                                int destination_port) {
  connector = usable(connector);
  if (connector == nullptr) return nullptr;
  if (destination == nullptr) return connector->openTransportNotifier(transport, address, port);
  return connector->openClient(transport, address, port, destination, destination_port);
}

SIPLIB_SIPConnectionNotifier* IMS_User_Agent::open_local_notifier(int port) {
  for (int i = 0; i < kPortsTried; ++i) {
    SIPLIB_SIPConnectionNotifier* const notifier = conn_open(ua_connector, "sip:" + std::to_string(port + i), nullptr);
    if (notifier == nullptr) continue;
    fill_myuri(port + i);
    return notifier;
  }
  return nullptr;
}

void IMS_User_Agent::fill_myuri(int port) {
  __ua_myuri = "<sip:127.0.0.1:" + std::to_string(port) + ">";
}

// --- Events

void IMS_User_Agent::handle_notify_tcp_request(SIPLIB_SIPConnection* /*connection*/) {
}
void IMS_User_Agent::handle_notify_tcp_response(SIPLIB_SIPConnection* /*connection*/) {
}
void IMS_User_Agent::handle_notify_tcp_incoming_conn(SIPLIB_SIPConnection* /*connection*/) {
}
void IMS_User_Agent::handle_notify_tcp_conn_closed(SIPLIB_SIPConnection* /*connection*/) {
}
void IMS_User_Agent::handle_notify_udp_message(SIPLIB_SIPConnection* /*connection*/) {
}

unsigned int IMS_User_Agent::get_event_id_from_message(void* /*message*/) {
  return 0;
}

void IMS_User_Agent::handle_event(unsigned int /*event_id*/, void* /*data*/) {
}

void IMS_User_Agent::fill_queue_and_send_signal(MSG_TYPE type, void* data) {
  bool sleeps = false;
  try {
    sleeps = state_->queue.push({type, data});
  } catch (const std::bad_alloc&) {
    IMS_log::loginfo(3, "fill_queue_and_send_signal", "message of type %u lost: no memory", type);
    if (type == MSG_FRAMEWORK_TEXT) {
      delete[] static_cast<char*>(data);
      state_->control.handled();  // it waits no more
    }
  }
  if (sleeps) state_->wakeLoop();
}

siplib::Reactor* IMS_User_Agent::reactor() {
  return state_->reactor;
}

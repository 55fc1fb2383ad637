#include "framework/user_agent.h"

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <cstring>
#include <functional>
#include <stdexcept>
#include <thread>
#include <vector>

#include "framework/listeners.h"
#include "framework/support.h"
#include "siplib/reactor.h"
#include "siplib/transaction.h"
#include "support/temp_dir.h"

namespace {

/// Event id = message type; notes what it handles.
class Agent : public IMS_User_Agent {
 public:
  unsigned int get_event_id_from_message(void* message) override {
    return static_cast<IMS_Queue_Message*>(message)->type;
  }
  void handle_event(unsigned int event_id, void* data) override {
    events.emplace_back(event_id, event_id == MSG_FRAMEWORK_TEXT ? nullptr : data);
    if (event_id == MSG_FRAMEWORK_TEXT) texts.emplace_back(static_cast<char*>(data));
    if (on_event) on_event(event_id);
  }
  void queue(std::uint32_t type, std::uintptr_t number = 0) {
    fill_queue_and_send_signal(static_cast<MSG_TYPE>(type), reinterpret_cast<void*>(number));
  }
  void queueText(const std::string& text) {
    auto* const copy = new char[text.size() + 1];
    std::memcpy(copy, text.c_str(), text.size() + 1);
    fill_queue_and_send_signal(MSG_FRAMEWORK_TEXT, copy);
  }
  std::vector<std::pair<unsigned int, void*>> events;
  std::vector<std::string> texts;
  std::function<void(unsigned int)> on_event;
};

constexpr unsigned int kStop = 99;

class UserAgent : public testing::Test {
 protected:
  void SetUp() override {
    IMS_User_Agent::set_config_dir(dir.path());
    IMS_User_Agent::set_run_dir(dir.path());
    IMS_User_Agent::ua_connector = nullptr;
  }
  void TearDown() override { IMS_User_Agent::ua_connector = nullptr; }
  TemporaryDir dir;
};

TEST_F(UserAgent, MessagesAreHandledInOrderOneATurn) {
  Agent agent;
  EXPECT_FALSE(agent.handle_one_message());
  agent.queue(MSG_TCP_REQUEST, 1);
  agent.queue(MSG_UDP_MESSAGE, 2);
  EXPECT_TRUE(agent.handle_one_message());
  EXPECT_EQ(agent.events, (std::vector<std::pair<unsigned int, void*>>{{5, reinterpret_cast<void*>(1)}}));
  EXPECT_TRUE(agent.handle_one_message());
  EXPECT_EQ(agent.events.back(), (std::pair<unsigned int, void*>{8, reinterpret_cast<void*>(2)}));
  EXPECT_FALSE(agent.handle_one_message());
}

TEST_F(UserAgent, TextIsFreedAfterItsHandler) {
  Agent agent;
  agent.queueText("refresh");
  agent.queueText("never handled");  // freed with the queue
  EXPECT_TRUE(agent.handle_one_message());
  EXPECT_EQ(agent.texts, std::vector<std::string>{"refresh"});
}

TEST_F(UserAgent, HandlerThatThrowsCostsItsMessageOnly) {
  const LogCapture log;
  Agent agent;
  agent.on_event = [](unsigned int event) {
    if (event == 1) throw std::bad_alloc();
    if (event == 2) throw 5;
  };
  for (const std::uint32_t type : {1u, 2u, 3u}) agent.queue(type);
  agent.queueText("x");
  while (agent.handle_one_message()) continue;
  EXPECT_EQ(agent.events.size(), 4u);
  EXPECT_TRUE(log.has(" 3 handle_message: message given up: std::bad_alloc"));
  EXPECT_EQ(log.lines(), 2u);
}

TEST_F(UserAgent, BaseIgnoresEveryEvent) {
  IMS_User_Agent agent;
  agent.fill_queue_and_send_signal(MSG_TCP_REQUEST, nullptr);
  agent.handle_notify_tcp_request(nullptr);
  agent.handle_notify_tcp_response(nullptr);
  agent.handle_notify_tcp_incoming_conn(nullptr);
  agent.handle_notify_tcp_conn_closed(nullptr);
  agent.handle_notify_udp_message(nullptr);
  EXPECT_TRUE(agent.handle_one_message());
  EXPECT_FALSE(agent.handle_one_message());
  EXPECT_EQ(agent.reactor(), nullptr);
}

// --- The loop, with the sockets driven by it and by a thread of their own -----------------------------------------

class Loop : public UserAgent, public testing::WithParamInterface<bool> {
 protected:
  void SetUp() override {
    UserAgent::SetUp();
    dir.write("config.xml", std::string("<sipstackinit><ue-proxy><io-thread>") + (GetParam() ? "yes" : "no") +
                                "</io-thread></ue-proxy></sipstackinit>");
    agent.on_event = [this](unsigned int event) {
      if (event == kStop) agent.stop_message_loop();
    };
  }
  void TearDown() override {
    agent.close_framework_sockets();
    UserAgent::TearDown();
  }
  void start() {
    ASSERT_TRUE(agent.open_framework_sockets());
    EXPECT_EQ(agent.create_all_external_descriptors(), 1);
    SIPLIB_SIPStackConfig config;
    agent.init_sipstack_info("/sipstackinit/ue-proxy/", config);
    EXPECT_EQ(config.reactor, agent.reactor());
    agent.wait_for_framework_init();
  }
  void sendControl(const std::string& text) const {
    const int socket = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::snprintf(address.sun_path, sizeof address.sun_path, "%s", (dir / "ue-proxy.sock").c_str());
    EXPECT_EQ(
        ::sendto(socket, text.data(), text.size(), 0, reinterpret_cast<const sockaddr*>(&address), sizeof address),
        static_cast<ssize_t>(text.size()));
    ::close(socket);
  }
  Agent agent;
};

TEST_P(Loop, HandlesWhatOtherThreadsQueueWhileItSleeps) {
  start();
  constexpr std::uintptr_t kEach = 2000;
  std::thread loop([this] { agent.handle_message(); });
  std::vector<std::thread> producers;
  for (std::uint32_t type = 1; type <= 3; ++type) {
    producers.emplace_back([this, type] {
      for (std::uintptr_t i = 0; i < kEach; ++i) {
        agent.queue(type, i);
        if (i % 100 == 0) std::this_thread::yield();
      }
    });
  }
  for (std::thread& thread : producers) thread.join();
  agent.queue(kStop);
  loop.join();
  ASSERT_EQ(agent.events.size(), 3 * kEach + 1);
  std::uintptr_t next[4] = {};
  for (const auto& [type, data] : agent.events) {
    if (type == kStop) continue;
    ASSERT_EQ(data, reinterpret_cast<void*>(next[type]++));
  }
}

TEST_P(Loop, ControlTextsReachIt) {
  start();
  sendControl("refresh one");
  sendControl("refresh two");
  agent.on_event = [this](unsigned int) {
    if (agent.texts.size() == 2) agent.stop_message_loop();
  };
  agent.handle_message();
  EXPECT_EQ(agent.texts, (std::vector<std::string>{"refresh one", "refresh two"}));
}

TEST_P(Loop, SocketsAreServedWhileTheQueueIsNeverEmpty) {
  start();
  sendControl("in between");
  int turns = 0;
  agent.on_event = [&](unsigned int event) {
    if (event == MSG_FRAMEWORK_TEXT || ++turns > 1'000'000) {
      agent.stop_message_loop();
    } else {
      agent.queue(1);
    }
  };
  agent.queue(1);
  agent.handle_message();
  EXPECT_EQ(agent.texts.size(), 1u);
}

// With a thread of their own the sockets are held back by the transports' inboxes alone.
TEST_F(UserAgent, FloodOfOneSocketKeepsTheOthersWaitingForABoundedNumberOfMessages) {
  Agent agent;
  ASSERT_TRUE(agent.open_framework_sockets());
  constexpr std::size_t kRounds = 500, kEach = 40;  // more than the loop handles between two looks
  std::size_t rounds = 0, most_ahead = 0;
  // Has more whenever it is looked at.
  const std::function<void()> socket = [&] {
    if (++rounds > kRounds) return agent.queue(kStop);
    for (std::size_t i = 0; i < kEach; ++i) agent.queue(1);
    most_ahead = std::max(most_ahead, rounds * kEach - agent.events.size());
    agent.reactor()->post(socket);
  };
  agent.on_event = [&](unsigned int event) {
    if (event == kStop) agent.stop_message_loop();
  };
  agent.reactor()->post(socket);
  agent.handle_message();
  EXPECT_EQ(agent.events.size(), kRounds * kEach + 1);
  EXPECT_LE(most_ahead, 64 + kEach);
  agent.close_framework_sockets();
}

TEST_P(Loop, FloodOfControlTextsIsBoundedAndComplete) {
  start();
  constexpr std::size_t kTexts = 500;
  std::thread sender([this] {
    for (std::size_t i = 0; i < kTexts; ++i) sendControl("text");
  });
  agent.on_event = [this](unsigned int) {
    if (agent.texts.size() == kTexts) agent.stop_message_loop();
  };
  agent.handle_message();
  sender.join();
  EXPECT_EQ(agent.texts.size(), kTexts);
}

TEST_P(Loop, StopBeforeTheLoopHolds) {
  start();
  agent.queue(1);
  agent.stop_message_loop();
  agent.handle_message();
  EXPECT_TRUE(agent.events.empty());
}

TEST_P(Loop, StopFromAnotherThreadEndsItsSleep) {
  start();
  std::thread loop([this] { agent.handle_message(); });
  ::usleep(20'000);
  agent.stop_message_loop();
  loop.join();
}

TEST_P(Loop, IdleLoopDoesNotWakeUp) {
  start();
  long before = 0;
  long after = 0;
  const auto switches = [] {
    rusage usage{};
    ::getrusage(RUSAGE_THREAD, &usage);
    return usage.ru_nvcsw;
  };
  agent.on_event = [&](unsigned int event) {
    if (event == 1) before = switches();
    if (event == kStop) {
      after = switches();
      agent.stop_message_loop();
    }
  };
  std::thread loop([this] { agent.handle_message(); });
  agent.queue(1);
  ::usleep(200'000);
  agent.queue(kStop);
  loop.join();
  EXPECT_GE(after - before, 1);
  EXPECT_LE(after - before, 3);
}

TEST_P(Loop, TerminationSignalStopsItAndItsFilesGo) {
  for (const int signal_number : {SIGTERM, SIGINT}) {
    EXPECT_EQ(inChild([&] {
                start();
                const bool there =
                    std::filesystem::exists(dir / "ue-proxy.sock") && std::filesystem::exists(dir / "ue-proxy.pid");
                std::thread killer([signal_number] {
                  ::usleep(20'000);
                  ::kill(::getpid(), signal_number);
                });
                agent.handle_message();
                killer.join();
                agent.close_framework_sockets();
                const bool gone =
                    !std::filesystem::exists(dir / "ue-proxy.sock") && !std::filesystem::exists(dir / "ue-proxy.pid");
                return there && gone ? 0 : 1;
              }),
              0);
  }
}

TEST_P(Loop, SignalBeforeTheLoopIsNotLost) {
  EXPECT_EQ(inChild([&] {
              start();
              ::raise(SIGTERM);
              agent.handle_message();
              agent.close_framework_sockets();
              return 5;
            }),
            5);
}

INSTANTIATE_TEST_SUITE_P(IoThread, Loop, testing::Bool(), [](const auto& mode) { return mode.param ? "Own" : "Loop"; });

// --- Run directory ------------------------------------------------------------------------------------------------

TEST_F(UserAgent, RunDirectoryIsMadeAndHoldsThePid) {
  IMS_User_Agent::set_run_dir(dir / "run");
  Agent agent;
  EXPECT_TRUE(agent.open_framework_sockets());
  EXPECT_EQ(readAll(dir / "run/ue-proxy.pid"), std::to_string(::getpid()) + "\n");
  agent.clean_daemon();
  agent.clean_daemon();
  EXPECT_TRUE(std::filesystem::is_empty(dir / "run"));
}

TEST_F(UserAgent, UnusableRunDirectoryIsOneLineEachAndNoEnd) {
  const LogCapture log;
  dir.write("file", "");
  IMS_User_Agent::set_run_dir(dir / "file");
  Agent agent;
  EXPECT_FALSE(agent.open_framework_sockets());
  EXPECT_EQ(log.lines(), 2u);
  EXPECT_TRUE(log.has("no control channel"));
  EXPECT_TRUE(log.has("no pid file"));
  EXPECT_EQ(agent.create_all_external_descriptors(), 0);
  agent.queue(kStop);
  agent.on_event = [&](unsigned int) { agent.stop_message_loop(); };
  agent.handle_message();
  EXPECT_EQ(agent.events.size(), 1u);
  agent.close_framework_sockets();
}

TEST_F(UserAgent, SecondProcessLeavesTheFilesOfTheFirst) {
  const LogCapture log;
  Agent first;
  ASSERT_TRUE(first.open_framework_sockets());
  {
    Agent second;
    EXPECT_FALSE(second.open_framework_sockets());
    EXPECT_EQ(log.lines(), 2u);
  }
  EXPECT_TRUE(std::filesystem::exists(dir / "ue-proxy.sock"));
  EXPECT_TRUE(std::filesystem::exists(dir / "ue-proxy.pid"));
  first.close_framework_sockets();
}

TEST_F(UserAgent, LoopWithoutAReactorStillHandlesMessages) {
  Agent agent;
  agent.on_event = [&](unsigned int) { agent.stop_message_loop(); };
  agent.queue(1);
  agent.handle_message();
  EXPECT_EQ(agent.events.size(), 1u);
  EXPECT_EQ(agent.create_all_external_descriptors(), 0);
}

TEST_F(UserAgent, StackLogsThroughTheLog) {
  const LogCapture log;
  Agent agent;
  SIPLIB_SIPStackConfig config;
  agent.init_sipstack_info("/sipstackinit/ue-proxy", config);
  EXPECT_EQ(config.reactor, nullptr);
  ASSERT_TRUE(config.log && config.log_enabled);
  EXPECT_TRUE(config.log_enabled(4));
  EXPECT_FALSE(config.log_enabled(5));
  config.log(4, "send", std::string_view("refused!!", 7));
  EXPECT_TRUE(log.has(" 4 send: refused\n"));
}

// --- Connections --------------------------------------------------------------------------------------------------

class FakeNotifier : public SIPLIB_SIPConnectionNotifier {
 public:
  void setListener(SIPLIB_SIPServerConnectionListener*) override {}
  void setDialogListener(SIPLIB_SIPDialogListener*) override {}
  SIPLIB_SIPServerConnection* acceptAndOpen() override { return next; }
  bool getCurrentAddress(std::string&, int&) const override { return false; }
  SIPLIB_SIPServerConnection* next = nullptr;
};

class FakeConnector : public SIPLIB_SIPConnector {
 public:
  SIPLIB_SIPConnectionNotifier* openNotifier(std::string_view uri) override {
    calls.push_back("notifier " + std::string(uri));
    return calls.size() >= succeeds_at ? &notifier : nullptr;
  }
  SIPLIB_SIPTransportNotifier* openTransportNotifier(std::string_view transport, std::string_view ip,
                                                     int port) override {
    calls.push_back("listen " + std::string(transport) + " " + std::string(ip) + " " + std::to_string(port));
    return nullptr;
  }
  SIPLIB_SIPTransportConnection* openClient(std::string_view transport, std::string_view source_ip, int source_port,
                                            std::string_view ip, int port) override {
    calls.push_back("client " + std::string(transport) + " " + std::string(source_ip) + " " +
                    std::to_string(source_port) + " " + std::string(ip) + " " + std::to_string(port));
    return nullptr;
  }
  SIPLIB_SIPClientConnection* openClientTransaction(std::string_view, std::string_view, int) override {
    return nullptr;
  }
  int close(SIPLIB_SIPConnection*) override { return 0; }
  int closeLost(SIPLIB_SIPClientTcpTransport*) override { return 0; }
  void keepPlacesFor(const std::vector<std::string>&) override {}

  std::vector<std::string> calls;
  std::size_t succeeds_at = 1;
  FakeNotifier notifier;
};

TEST_F(UserAgent, ConnOpenFormsAskTheConnector) {
  FakeConnector connector;
  EXPECT_EQ(IMS_User_Agent::conn_open(&connector, "sip:5060", nullptr), &connector.notifier);
  EXPECT_EQ(IMS_User_Agent::conn_open(&connector, "TCP", "127.0.0.1", 5060, nullptr, 0), nullptr);
  EXPECT_EQ(IMS_User_Agent::conn_open(&connector, "UDP", "127.0.0.2", 5061, "127.0.0.3", 5062), nullptr);
  EXPECT_EQ(connector.calls, (std::vector<std::string>{"notifier sip:5060", "listen TCP 127.0.0.1 5060",
                                                       "client UDP 127.0.0.2 5061 127.0.0.3 5062"}));
}

TEST_F(UserAgent, ConnOpenWithoutAStackIsNullWithALine) {
  const LogCapture log;
  EXPECT_EQ(IMS_User_Agent::conn_open(nullptr, "sip:5060", nullptr), nullptr);
  EXPECT_EQ(IMS_User_Agent::conn_open(nullptr, "TCP", "127.0.0.1", 5060, nullptr, 0), nullptr);
  EXPECT_EQ(log.lines(), 2u);
}

TEST_F(UserAgent, ConnOpenFindsTheProcessesStack) {
  EXPECT_EQ(
      inChild([] {
        Agent agent;
        SIPLIB_SIPStackConfig config;
        if (!agent.open_framework_sockets()) return 1;
        agent.init_sipstack_info("/sipstackinit/ue-proxy/", config);
        if (SIPLIB_SIPInit(config) != 0) return 2;
        if (IMS_User_Agent::conn_open(IMS_User_Agent::ua_connector, "TCP", "127.0.0.1", 0, nullptr, 0) == nullptr) {
          return 3;
        }
        if (IMS_User_Agent::ua_connector != SIPLIB_SIPStack::instance()->connector()) return 4;
        IMS_User_Agent::ua_connector = nullptr;
        agent.wait_for_framework_init();
        if (IMS_User_Agent::ua_connector == nullptr) return 5;
        agent.queue(kStop);
        agent.on_event = [&](unsigned int) { agent.stop_message_loop(); };
        agent.handle_message();
        agent.close_framework_sockets();
        return 0;
      }),
      0);
}

TEST_F(UserAgent, LocalNotifierFloatsPastTakenPorts) {
  FakeConnector connector;
  IMS_User_Agent::ua_connector = &connector;
  Agent agent;
  connector.succeeds_at = 3;
  EXPECT_EQ(agent.open_local_notifier(5060), &connector.notifier);
  EXPECT_EQ(connector.calls, (std::vector<std::string>{"notifier sip:5060", "notifier sip:5061", "notifier sip:5062"}));
  EXPECT_EQ(IMS_User_Agent::__ua_myuri, "<sip:127.0.0.1:5062>");
  connector.calls.clear();
  connector.succeeds_at = 1000;
  EXPECT_EQ(agent.open_local_notifier(5060), nullptr);
  EXPECT_EQ(connector.calls.size(), 100u);
  EXPECT_EQ(connector.calls.back(), "notifier sip:5159");
}

TEST_F(UserAgent, OwnUriIsOnTheLoopbackAddress) {
  Agent agent;
  agent.fill_myuri(5060);
  EXPECT_EQ(IMS_User_Agent::__ua_myuri, "<sip:127.0.0.1:5060>");
}

// --- Listeners of the local endpoint ------------------------------------------------------------------------------

class FakeServerConnection : public SIPLIB_SIPServerConnection {
 public:
  int initResponse(int) override { return -1; }
  void release() override {}
  SIPLIB_SIPDialog* getDialog() const override { return nullptr; }
  int send() override { return -1; }
};

class FakeClientConnection : public SIPLIB_SIPClientConnection {
 public:
  void setListener(SIPLIB_SIPClientConnectionListener*) override {}
  int initRequest(std::string_view, std::string_view, std::string_view, std::string_view) override { return -1; }
  int getTransactionStatus() const override { return 0; }
  void release() override {}
  SIPLIB_SIPDialog* getDialog() const override { return nullptr; }
  int send() override { return -1; }
};

TEST_F(UserAgent, RequestsAndAnswersOfTheLocalEndpointAreQueued) {
  Agent agent;
  FakeNotifier notifier;
  FakeServerConnection request;
  FakeClientConnection answer;
  notifier.next = &request;
  IMS_UA_SipServerConnListener(&agent).notifyRequest(&notifier);
  IMS_UA_SipClientConnListener(&agent).notifyResponse(&answer);
  while (agent.handle_one_message()) continue;
  EXPECT_EQ(agent.events,
            (std::vector<std::pair<unsigned int, void*>>{{2, static_cast<SIPLIB_SIPConnection*>(&request)},
                                                         {1, static_cast<SIPLIB_SIPConnection*>(&answer)}}));
}

TEST_F(UserAgent, NothingToQueueIsOneLine) {
  const LogCapture log;
  Agent agent;
  FakeNotifier notifier;
  IMS_UA_SipServerConnListener(&agent).notifyRequest(nullptr);
  IMS_UA_SipServerConnListener(&agent).notifyRequest(&notifier);
  IMS_UA_SipClientConnListener(&agent).notifyResponse(nullptr);
  EXPECT_EQ(log.lines(), 3u);
  EXPECT_FALSE(agent.handle_one_message());
}

TEST_F(UserAgent, EndOfADialogIsTraced) {
  const LogCapture log;
  IMS_log::set_level(5);
  Agent agent;
  IMS_UA_SipDialogListener(&agent).notifyDialogTerminated(nullptr);
  EXPECT_TRUE(log.has(" 5 notifyDialogTerminated: dialog="));
}

}  // namespace

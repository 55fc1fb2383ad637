// A closed-loop load generator that is both ends of the path at once: the caller sends requests to the server under
// test, the callee answers what comes through, and a further request leaves when an answer is back. So at most `window`
// requests are under way, and nothing is ever queued by the generator itself.
//
// It speaks with its driver by lines: writes "ready" when its sockets are there, waits for a line; warms up, writes
// "warm", waits for a line; measures, writes one line of JSON. Between the lines the driver reads what the server used.
//
// With --first-answer it starts a server itself and tells how long that took to answer its first request.

#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

#include "net.h"

namespace {

constexpr std::size_t kBatch = 32;
constexpr std::size_t kDatagram = 4096;
constexpr std::size_t kRequestSize = 700;

struct Options {
  std::string transport = "UDP";
  std::string caller = "127.0.0.1:5071";  ///< its Via; over UDP also its socket
  std::string server = "127.0.0.1:5060";  ///< where requests go
  std::string callee = "127.0.0.3:5060";
  std::string method = "INVITE";
  std::string uri = "sip:bob@example.net";
  std::string from = "sip:alice@example.net";
  unsigned int window = 1;
  double seconds = 1;
  double warm_up = 0.1;
  unsigned int idle = 0;  ///< TCP connections to the server that stay silent
  std::string first_answer;
  int cpu = -1;
};

double now() {
  return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

void say(const char* line) {
  std::puts(line);
  std::fflush(stdout);
}

void awaitLine() {
  char line[64];
  if (std::fgets(line, sizeof line, stdin) == nullptr) std::exit(1);  // the driver is gone
}

[[noreturn]] void wrong(const char* what, std::string_view message) {
  std::fprintf(stderr, "bench: %s:\n%.*s\n", what, static_cast<int>(message.size()), message.data());
  std::exit(1);
}

/// The value of the topmost header of that exact name; empty when it is absent.
std::string_view header(std::string_view message, std::string_view line_start) {
  const std::size_t at = message.find(line_start);
  if (at == std::string_view::npos) return {};
  const std::size_t begin = at + line_start.size();
  return message.substr(begin, message.find("\r\n", begin) - begin);
}

/// Collects datagrams and sends them with one call; a stream's messages leave one by one, as those of many peers do.
class Outbox {
 public:
  void add(int descriptor, std::string_view message, const sockaddr_in* to) {
    if (to == nullptr) return stream(descriptor, message);
    if (count_ == kBatch || (count_ > 0 && descriptor != descriptor_)) flush();
    descriptor_ = descriptor;
    Datagram& datagram = datagrams_[count_];
    std::memcpy(datagram.text, message.data(), message.size());
    datagram.to = *to;
    datagram.slice = {datagram.text, message.size()};
    msghdr& head = headers_[count_].msg_hdr;
    head = {};
    head.msg_name = &datagram.to;
    head.msg_namelen = sizeof datagram.to;
    head.msg_iov = &datagram.slice;
    head.msg_iovlen = 1;
    ++count_;
  }

  void flush() {
    for (std::size_t sent = 0; sent < count_;) {
      const int done =
          ::sendmmsg(descriptor_, headers_.data() + sent, static_cast<unsigned int>(count_ - sent), MSG_NOSIGNAL);
      // Refused: the answer to an earlier datagram. The loop's time-out sees to what is lost.
      sent += done > 0 ? static_cast<std::size_t>(done) : 1;
    }
    count_ = 0;
  }

 private:
  static void stream(int descriptor, std::string_view message) {
    while (!message.empty()) {
      const ssize_t sent = ::send(descriptor, message.data(), message.size(), MSG_NOSIGNAL);
      if (sent < 0 && errno != EAGAIN) bench::fail("send");
      if (sent > 0) message.remove_prefix(static_cast<std::size_t>(sent));
    }
  }

  struct Datagram {
    sockaddr_in to;
    iovec slice;
    char text[kDatagram];
  };
  std::vector<Datagram> datagrams_ = std::vector<Datagram>(kBatch);
  std::array<mmsghdr, kBatch> headers_{};
  std::size_t count_ = 0;
  int descriptor_ = -1;
};

/// One socket, and the messages that come in on it.
class Channel {
 public:
  Channel(int descriptor, bool stream) : descriptor_(descriptor), stream_(stream), room_(kBatch * kDatagram) {
    for (std::size_t i = 0; i < kBatch && !stream; ++i) {
      slices_[i] = {room_.data() + i * kDatagram, kDatagram};
      headers_[i].msg_hdr.msg_iov = &slices_[i];
      headers_[i].msg_hdr.msg_iovlen = 1;
    }
  }

  int descriptor() const { return descriptor_; }

  /// Calls handle(message, source) for each message that is there; `source` is null on a stream.
  template <class Handle>
  void receive(Handle handle) {
    if (stream_) return receiveStream(handle);
    for (std::size_t i = 0; i < kBatch; ++i) {
      headers_[i].msg_hdr.msg_name = &sources_[i];
      headers_[i].msg_hdr.msg_namelen = sizeof sources_[i];
    }
    const int count = ::recvmmsg(descriptor_, headers_.data(), kBatch, MSG_DONTWAIT, nullptr);
    for (int i = 0; i < count; ++i) {
      const auto index = static_cast<std::size_t>(i);
      handle(std::string_view(room_.data() + index * kDatagram, headers_[index].msg_len), &sources_[index]);
    }
  }

 private:
  template <class Handle>
  void receiveStream(Handle handle) {
    const ssize_t count = ::recv(descriptor_, room_.data() + filled_, room_.size() - filled_, MSG_DONTWAIT);
    if (count == 0) wrong("the server closed a connection", {});
    if (count < 0) return;
    filled_ += static_cast<std::size_t>(count);
    std::string_view rest(room_.data(), filled_);
    for (std::size_t head; (head = rest.find("\r\n\r\n")) != std::string_view::npos;) {
      const std::string_view length = header(rest.substr(0, head + 2), "\r\nContent-Length: ");
      const std::size_t size = head + 4 + std::strtoul(std::string(length).c_str(), nullptr, 10);
      if (rest.size() < size) break;
      handle(rest.substr(0, size), static_cast<const sockaddr_in*>(nullptr));
      rest.remove_prefix(size);
    }
    filled_ = rest.size();
    std::memmove(room_.data(), rest.data(), filled_);
  }

  const int descriptor_;
  const bool stream_;
  std::vector<char> room_;
  std::size_t filled_ = 0;
  std::array<mmsghdr, kBatch> headers_{};
  std::array<iovec, kBatch> slices_{};
  std::array<sockaddr_in, kBatch> sources_{};
};

constexpr std::string_view kSdp =
    "v=0\r\no=- 1 1 IN IP4 192.0.2.7\r\ns=-\r\nc=IN IP4 192.0.2.7\r\nt=0 0\r\nm=audio 49170 RTP/AVP 0 8 96\r\n"
    "a=rtpmap:96 telephone-event/8000\r\na=fmtp:96 0-15\r\na=sendrecv\r\n";

class Load {
 public:
  explicit Load(const Options& options)
      : options_(options),
        stream_(options.transport == "TCP"),
        server_(bench::address(options.server)),
        epoll_(bench::newEpoll()),
        slots_(options.window) {
    makeRequest();
    const bench::Address callee = bench::address(options.callee);
    if (stream_) {
      listener_ = bench::tcpListener(callee);
      bench::watch(epoll_, listener_, kListener);
      channels_.resize(1);  // the caller's comes when the server is there
    } else {
      add(std::make_unique<Channel>(bench::udpSocket(bench::address(options.caller)), false));
      add(std::make_unique<Channel>(bench::udpSocket(callee), false));
    }
  }

  void connect() {
    if (!stream_) return;
    bench::Address from = bench::address(options_.caller);
    from.at.sin_port = 0;
    for (unsigned int i = 0; i < options_.idle; ++i) bench::tcpConnect(from, server_);
    channels_[0] = std::make_unique<Channel>(bench::tcpConnect(from, server_), true);
    bench::watch(epoll_, channels_[0]->descriptor(), 0);
  }

  /// With that many outstanding, until the time is over and everything is answered; 0 seconds: one request each.
  void run(double seconds, std::size_t window) {
    latencies_.clear();
    latencies_.reserve(std::size_t{1} << 20);
    lost_ = 0;
    const double begin = now();
    end_ = begin + seconds;
    for (std::size_t slot = 0; slot < window; ++slot) request(slot);
    outbox_.flush();
    std::array<epoll_event, 64> events;
    last_ = begin;
    while (under_way_ > 0) {
      const int count = ::epoll_wait(epoll_, events.data(), static_cast<int>(events.size()), 100);
      time_ = now();
      for (int i = 0; i < count; ++i) ready(events[static_cast<std::size_t>(i)].data.u32);
      if (time_ - last_ > 0.5) stalled();
    }
    elapsed_ = last_ - begin;
  }

  void report() {
    const std::size_t count = latencies_.size();
    const auto percentile = [&](double share) {
      if (count == 0) return 0.0;
      const auto at = latencies_.begin() + static_cast<std::ptrdiff_t>(share * static_cast<double>(count - 1));
      std::nth_element(latencies_.begin(), at, latencies_.end());
      return static_cast<double>(*at) * 1e6;
    };
    std::printf(
        "{\"exchanges\": %zu, \"seconds\": %.6f, \"lost\": %zu, \"p50_us\": %.2f, \"p99_us\": %.2f, "
        "\"request_bytes\": %zu, \"answer_bytes\": %zu, \"forwarded_request_bytes\": %zu, "
        "\"forwarded_answer_bytes\": %zu}\n",
        count, elapsed_, lost_, percentile(0.5), percentile(0.99), request_.size(), answer_.size(), request_seen_,
        answer_seen_);
    std::fflush(stdout);
  }

 private:
  static constexpr unsigned int kListener = ~0u;
  static constexpr std::size_t kNumber = 13;  // "SSSS-GGGGGGGG": slot and generation

  struct Slot {
    unsigned int generation = 0;
    double sent = 0;
    bool under_way = false;
  };

  void add(std::unique_ptr<Channel> channel) {
    bench::watch(epoll_, channel->descriptor(), static_cast<unsigned int>(channels_.size()));
    channels_.push_back(std::move(channel));
  }

  // Both numbers have a fixed width, so a request is the text with two places written over.
  void makeRequest() {
    const std::string number(kNumber, '0');
    via_ = "SIP/2.0/" + options_.transport + " " + options_.caller + ";branch=z9hG4bK-";
    const std::string before = options_.method + " " + options_.uri + " SIP/2.0\r\nVia: " + via_;
    const std::string middle = "\r\nMax-Forwards: 70\r\nFrom: \"Alice\" <" + options_.from +
                               ">;tag=a73kszlfl\r\nTo: <" + options_.uri + ">\r\nCall-ID: bench-";
    std::string after = "@terminal.example.net\r\nCSeq: 1 " + options_.method + "\r\nContact: <sip:alice@" +
                        options_.caller + (stream_ ? ";transport=tcp" : "") +
                        ">\r\nAllow: INVITE, ACK, CANCEL, BYE, MESSAGE, OPTIONS\r\nSupported: 100rel, timer\r\n"
                        "Content-Type: application/sdp\r\nContent-Length: ";
    // The body makes it as large as an INVITE is.
    const std::size_t head = before.size() + middle.size() + after.size() + 2 * kNumber + 3 + 4;
    std::string body(kSdp);
    while (head + body.size() + 10 < kRequestSize) body += "a=x-pad\r\n";
    if (head + body.size() < kRequestSize) body.insert(body.size() - 2, kRequestSize - head - body.size(), '-');
    request_ = before + number + middle + number + after + std::to_string(body.size()) + "\r\n\r\n" + body;
    first_number_ = before.size();
    second_number_ = before.size() + kNumber + middle.size();
  }

  void request(std::size_t index) {
    Slot& slot = slots_[index];
    if (!slot.under_way) {
      slot.under_way = true;
      ++slot.generation;
      ++under_way_;
    }
    char number[kNumber + 1];
    std::snprintf(number, sizeof number, "%04zu-%08u", index % 10000, slot.generation % 100000000u);
    request_.replace(first_number_, kNumber, number);
    request_.replace(second_number_, kNumber, number);
    slot.sent = now();
    outbox_.add(channels_[0]->descriptor(), request_, stream_ ? nullptr : &server_.at);
  }

  void ready(unsigned int which) {
    if (which == kListener) {
      add(std::make_unique<Channel>(bench::tcpAccept(listener_, 0), true));
      return;
    }
    Channel& channel = *channels_[which];
    if (which == 0) {
      channel.receive([this](std::string_view message, const sockaddr_in*) { answered(message); });
    } else {
      channel.receive(
          [&](std::string_view message, const sockaddr_in* source) { answer(channel.descriptor(), message, source); });
    }
    outbox_.flush();
  }

  /// The callee: Vias, From, To, Call-ID and CSeq as they came (RFC 3261 8.2.6.2), a Contact and a session description.
  void answer(int descriptor, std::string_view message, const sockaddr_in* to) {
    if (!message.starts_with(options_.method)) wrong("not the request that was sent", message);
    request_seen_ = message.size();
    answer_.assign("SIP/2.0 200 OK\r\n");
    std::size_t begin = message.find("\r\n") + 2;
    while (true) {
      const std::size_t end = message.find("\r\n", begin);
      if (end == begin || end == std::string_view::npos) break;
      const std::string_view line = message.substr(begin, end + 2 - begin);
      if (line.starts_with("To:")) {
        answer_.append(line.substr(0, line.size() - 2)).append(";tag=b4711\r\n");
      } else if (line.starts_with("Via:") || line.starts_with("From:") || line.starts_with("Call-ID:") ||
                 line.starts_with("CSeq:") || line.starts_with("Record-Route:")) {
        answer_.append(line);
      }
      begin = end + 2;
    }
    answer_.append(answer_end_);
    outbox_.add(descriptor, answer_, to);
  }

  void answered(std::string_view message) {
    if (!message.starts_with("SIP/2.0 200 ")) {
      if (message.starts_with("SIP/2.0 100 ")) return;
      wrong("not the answer that was expected", message);
    }
    const std::string_view via = header(message, "\r\nVia: ");
    const std::string_view number = header(message, "\r\nCall-ID: bench-").substr(0, kNumber);
    if (number.size() != kNumber || via.size() != via_.size() + kNumber || !via.starts_with(via_) ||
        !via.ends_with(number)) {
      wrong("not the Via that was sent", message);
    }
    answer_seen_ = message.size();
    const std::size_t index = std::strtoul(number.data(), nullptr, 10);
    if (index >= slots_.size()) wrong("no request of ours", message);
    Slot& slot = slots_[index];
    const auto generation = static_cast<unsigned int>(std::strtoul(number.data() + 5, nullptr, 10));
    if (!slot.under_way || generation != slot.generation % 100000000u) return;  // answered twice after a loss
    slot.under_way = false;
    --under_way_;
    last_ = now();
    latencies_.push_back(static_cast<float>(last_ - slot.sent));
    if (last_ < end_) request(index);
  }

  void stalled() {
    if (stream_) wrong("no answer for half a second", {});
    if (lost_ > 1000) wrong("nothing comes through", {});
    last_ = time_;
    for (std::size_t slot = 0; slot < slots_.size(); ++slot) {
      if (!slots_[slot].under_way) continue;
      ++lost_;
      request(slot);
    }
    outbox_.flush();
  }

  const Options options_;
  const bool stream_;
  const bench::Address server_;
  const int epoll_;
  int listener_ = -1;
  std::vector<std::unique_ptr<Channel>> channels_;  // the caller's first
  std::vector<Slot> slots_;
  Outbox outbox_;

  std::string via_;  // without the number
  std::string request_;
  std::size_t first_number_ = 0;
  std::size_t second_number_ = 0;
  std::string answer_;
  const std::string answer_end_ =
      "Contact: <sip:bob@" + options_.callee +
      ">\r\nContent-Type: application/sdp\r\nContent-Length: " + std::to_string(kSdp.size()) + "\r\n\r\n" +
      std::string(kSdp);

  double end_ = 0;
  double time_ = 0;
  double last_ = 0;
  double elapsed_ = 0;
  std::size_t under_way_ = 0;
  std::size_t lost_ = 0;
  std::size_t request_seen_ = 0;
  std::size_t answer_seen_ = 0;
  std::vector<float> latencies_;
};

/// Ends the process group. A server that is told to end while it still starts may wait for ever.
void end(pid_t child) {
  ::kill(-child, SIGTERM);
  for (int tenth = 0; tenth < 30; ++tenth) {
    if (::waitpid(child, nullptr, WNOHANG) == child) break;
    ::usleep(100000);
  }
  ::kill(-child, SIGKILL);
  ::waitpid(child, nullptr, 0);
  // Its port is free when the last of the group is gone.
  for (int tenth = 0; tenth < 30 && ::kill(-child, 0) == 0; ++tenth) ::usleep(100000);
}

/// Starts the server and sends it the request until it answers; prints the milliseconds from before the fork.
void firstAnswer(const Options& options, char** command) {
  std::ifstream file(options.first_answer, std::ios::binary);
  std::ostringstream text;
  text << file.rdbuf();
  const std::string request = text.str();
  const bench::Address server = bench::address(options.server);
  const int socket = bench::udpSocket(bench::address(options.caller));
  const double begin = now();
  const pid_t child = ::fork();
  if (child < 0) bench::fail("fork");
  if (child == 0) {
    ::setpgid(0, 0);
    if (options.cpu >= 0) {
      cpu_set_t set;
      CPU_ZERO(&set);
      CPU_SET(static_cast<std::size_t>(options.cpu), &set);
      ::sched_setaffinity(0, sizeof set, &set);
    }
    const int nowhere = ::open("/dev/null", O_WRONLY);
    ::dup2(nowhere, STDOUT_FILENO);
    ::dup2(nowhere, STDERR_FILENO);
    ::execvp(command[0], command);
    ::_exit(127);
  }
  char answer[kDatagram];
  bool answered = false;
  while (!answered && now() - begin < 20) {
    ::sendto(socket, request.data(), request.size(), MSG_DONTWAIT, reinterpret_cast<const sockaddr*>(&server.at),
             sizeof server.at);
    ::usleep(50);
    answered = ::recv(socket, answer, sizeof answer, MSG_DONTWAIT) > 0;
  }
  const double elapsed = now() - begin;
  end(child);
  if (!answered) wrong("the server never answered", {});
  std::printf("{\"first_answer_ms\": %.3f}\n", elapsed * 1e3);
}

int usage() {
  std::fputs(
      "usage: bench_load [--transport UDP|TCP] [--caller IP:PORT] [--server IP:PORT] [--callee IP:PORT]\n"
      "                  [--method NAME] [--uri URI] [--from URI] [--window N] [--seconds S] [--warm-up S] [--idle N]\n"
      "       bench_load --first-answer REQUEST_FILE [--server IP:PORT] [--caller IP:PORT] [--cpu N] -- COMMAND...\n",
      stderr);
  return 2;
}

}  // namespace

int main(int argc, char** argv) {
  Options options;
  int i = 1;
  for (; i + 1 < argc && std::string_view(argv[i]) != "--"; i += 2) {
    const std::string_view name = argv[i];
    const char* const value = argv[i + 1];
    if (name == "--transport") {
      options.transport = value;
    } else if (name == "--caller") {
      options.caller = value;
    } else if (name == "--server") {
      options.server = value;
    } else if (name == "--callee") {
      options.callee = value;
    } else if (name == "--method") {
      options.method = value;
    } else if (name == "--uri") {
      options.uri = value;
    } else if (name == "--from") {
      options.from = value;
    } else if (name == "--window") {
      options.window = static_cast<unsigned int>(std::strtoul(value, nullptr, 10));
    } else if (name == "--seconds") {
      options.seconds = std::strtod(value, nullptr);
    } else if (name == "--warm-up") {
      options.warm_up = std::strtod(value, nullptr);
    } else if (name == "--idle") {
      options.idle = static_cast<unsigned int>(std::strtoul(value, nullptr, 10));
    } else if (name == "--first-answer") {
      options.first_answer = value;
    } else if (name == "--cpu") {
      options.cpu = static_cast<int>(std::strtol(value, nullptr, 10));
    } else {
      return usage();
    }
  }
  ::signal(SIGPIPE, SIG_IGN);
  if (!options.first_answer.empty()) {
    if (i + 1 >= argc) return usage();
    firstAnswer(options, argv + i + 1);
    return 0;
  }
  if (i < argc || options.window == 0 || options.window > 9999) return usage();
  Load load(options);
  say("ready");
  awaitLine();
  load.connect();
  load.run(0, 1);  // the server connects to the callee before many messages wait for that
  load.run(options.warm_up, options.window);
  say("warm");
  awaitLine();
  load.run(options.seconds, options.window);
  load.report();
  return 0;
}

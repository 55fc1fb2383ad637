// The good client: user agents that call at a steady rate, whatever else goes on, and the two parties that they call.
//
//   hostile_good_client [CALLS_PER_SECOND]      (for each of the two ways)
//
// Way U goes over UDP (127.0.0.1:5071 calls 127.0.0.3:5060), way T over TCP (Via 127.0.0.1:5072, calls 127.0.0.4:5060).
// A call is INVITE, 200, ACK, BYE, 200. Calls begin on time however slowly earlier ones are answered. Over UDP requests
// are repeated as RFC 3261 17.1 says (0.5 s, doubled; for BYE up to 4 s) and given up after 32 s. Each answer is
// checked: status, Call-ID and the caller's own Via.
//
// Writes "ready" when its sockets are there, and begins at a line on standard input. For every call that is over it
// writes "call WAY BEGUN SECONDS REPEATED RESULT": when it began (CLOCK_MONOTONIC), how long the INVITE's answer took,
// how many requests were sent again, and "ok" or what went wrong. At the next line it begins no more calls, waits for
// those under way, writes "done", and ends.

#include <poll.h>
#include <signal.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "net.h"

namespace {

constexpr double kT1 = 0.5;
constexpr double kT2 = 4;
constexpr double kGiveUp = 64 * kT1;
constexpr std::size_t kMostUnread = 1 << 20;
/// Ends every body of ours. Behind the proxy also others' messages arrive; ours are found by it.
constexpr std::string_view kMark = "a=good-end\r\n";
constexpr std::string_view kBody =
    "v=0\r\no=- 1 1 IN IP4 192.0.2.7\r\ns=-\r\nc=IN IP4 192.0.2.7\r\nt=0 0\r\nm=audio 49170 RTP/AVP 0 8 "
    "96\r\na=good-end\r\n";

double now() {
  timespec time{};
  ::clock_gettime(CLOCK_MONOTONIC, &time);
  return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) / 1e9;
}

/// The value of the topmost header of exactly this name.
std::string_view header(std::string_view message, std::string_view line_start) {
  const std::size_t at = message.find(line_start);
  if (at == std::string_view::npos) return {};
  const std::size_t begin = at + line_start.size();
  return message.substr(begin, message.find("\r\n", begin) - begin);
}

std::string lengthAndBody() {
  return "Content-Type: application/sdp\r\nContent-Length: " + std::to_string(kBody.size()) + "\r\n\r\n" +
         std::string(kBody);
}

struct Call {
  double begun = 0;
  double answered = 0;  // 0: not yet
  double sent = 0;      // the request under way
  double wait = kT1;
  double again = 0;
  unsigned int repeated = 0;
  std::string request;
  std::string target;  // of the 200
};

/// One way: a caller, a callee, and the calls under way.
struct Way {
  char name = 'U';
  bool stream = false;
  std::string via;     // host and port
  std::string callee;  // host and port
  int caller = -1;
  std::map<unsigned int, Call> calls;
  unsigned int next = 0;
};

class GoodClient {
 public:
  explicit GoodClient(double rate) : rate_(rate), proxy_(bench::address("127.0.0.1:5060")), epoll_(bench::newEpoll()) {
    ways_[0] = {'U', false, "127.0.0.1:5071", "127.0.0.3:5060", -1, {}, 0};
    ways_[1] = {'T', true, "127.0.0.1:5072", "127.0.0.4:5060", -1, {}, 0};
    ways_[0].caller = bench::udpSocket(bench::address(ways_[0].via));
    add(ways_[0].caller, false);
    add(bench::udpSocket(bench::address(ways_[0].callee)), false);
    for (const std::string& at : {ways_[1].via, ways_[1].callee}) addListener(bench::tcpListener(bench::address(at)));
    timer_ = ::timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC);
    const itimerspec each_millisecond{{0, 1000000}, {0, 1000000}};
    ::timerfd_settime(timer_, 0, &each_millisecond, nullptr);
    bench::watch(epoll_, timer_, static_cast<unsigned int>(timer_));
  }

  void run() {
    std::puts("ready");
    std::fflush(stdout);
    // Whoever registers the user agents may connect to their listeners meanwhile.
    while (!lineCame()) turn();
    ways_[1].caller = bench::tcpConnect(bench::address("127.0.0.1:0"), proxy_);
    add(ways_[1].caller, true);
    double due = now();
    while (!lineCame()) {
      turn();
      for (; due <= time_; due += 1 / rate_) {
        for (Way& way : ways_) begin(way);
      }
    }
    while (!ways_[0].calls.empty() || !ways_[1].calls.empty()) turn();
    std::puts("done");
    std::fflush(stdout);
  }

 private:
  struct Channel {
    bool listener = false;
    bool stream = false;
    std::string unread;
  };

  void add(int descriptor, bool stream) {
    channels_[descriptor] = {false, stream, {}};
    bench::watch(epoll_, descriptor, static_cast<unsigned int>(descriptor));
  }
  void addListener(int descriptor) {
    add(descriptor, true);
    channels_[descriptor].listener = true;
  }

  static bool lineCame() {
    pollfd input{STDIN_FILENO, POLLIN, 0};
    if (::poll(&input, 1, 0) <= 0) return false;
    char line[64];
    if (::read(STDIN_FILENO, line, sizeof line) <= 0) std::exit(1);  // the driver is gone
    return true;
  }

  void turn() {
    std::array<epoll_event, 32> events;
    const int count = ::epoll_wait(epoll_, events.data(), static_cast<int>(events.size()), 10);
    time_ = now();
    for (int i = 0; i < count; ++i) {
      const int descriptor = static_cast<int>(events[static_cast<std::size_t>(i)].data.u32);
      if (descriptor == timer_) {
        std::uint64_t ticks = 0;
        if (::read(timer_, &ticks, sizeof ticks) > 0) repeat();
      } else {
        read(descriptor);
      }
    }
    if (time_ - flushed_ > 0.05) {
      std::fflush(stdout);
      flushed_ = time_;
    }
  }

  void send(int descriptor, std::string_view message, const sockaddr_in* to) {
    if (to != nullptr) {
      ::sendto(descriptor, message.data(), message.size(), MSG_NOSIGNAL, reinterpret_cast<const sockaddr*>(to),
               sizeof *to);
      return;
    }
    const double end = now() + kGiveUp;
    while (!message.empty()) {
      const ssize_t sent = ::send(descriptor, message.data(), message.size(), MSG_NOSIGNAL);
      if (sent < 0 && (errno != EAGAIN || now() > end)) return;  // its call is given up in time
      if (sent > 0) message.remove_prefix(static_cast<std::size_t>(sent));
    }
  }

  std::string request(const Way& way, unsigned int number, std::string_view method, const std::string& target) const {
    const std::string id = std::string(1, way.name) + std::to_string(number);
    const std::string m(method);
    const std::string transport = way.stream ? "TCP" : "UDP";
    return m + ' ' + target + " SIP/2.0\r\nVia: " + viaOf(way, number, method) +
           "\r\nMax-Forwards: 70\r\nFrom: <sip:alice@example.net>;tag=good" + id + "\r\nTo: <sip:bob@example.net>" +
           (method == "INVITE" ? "" : ";tag=callee") + "\r\nCall-ID: good-" + id +
           "\r\nCSeq: " + (method == "BYE" ? "2 " : "1 ") + m + "\r\nContact: <sip:alice@" + way.via +
           (way.stream ? ";transport=tcp" : "") + ">\r\n" + lengthAndBody();
  }
  static std::string viaOf(const Way& way, unsigned int number, std::string_view method) {
    return std::string("SIP/2.0/") + (way.stream ? "TCP " : "UDP ") + way.via + ";branch=z9hG4bK-" +
           std::string(method) + std::to_string(number);
  }

  void begin(Way& way) {
    const unsigned int number = ++way.next;
    Call& call = way.calls[number];
    call.begun = now();
    start(way, call, request(way, number, "INVITE", "sip:bob@example.net"));
  }
  void start(Way& way, Call& call, std::string text) {
    call.request = std::move(text);
    call.sent = now();
    call.wait = kT1;
    call.again = call.sent + call.wait;
    send(way.caller, call.request, way.stream ? nullptr : &proxy_.at);
  }

  void repeat() {
    for (Way& way : ways_) {
      for (auto at = way.calls.begin(); at != way.calls.end();) {
        Call& call = at->second;
        if (time_ - call.sent > kGiveUp) {
          over(way, *at, call.answered == 0 ? "INVITE-unanswered" : "BYE-unanswered");
          at = way.calls.erase(at);
          continue;
        }
        if (!way.stream && time_ >= call.again) {
          call.wait = call.answered == 0 ? 2 * call.wait : std::min(2 * call.wait, kT2);
          call.again = time_ + call.wait;
          ++call.repeated;
          send(way.caller, call.request, &proxy_.at);
        }
        ++at;
      }
    }
  }

  void over(const Way& way, const std::pair<const unsigned int, Call>& call, const char* result) {
    const Call& one = call.second;
    std::printf("call %c %.6f %.6f %u %s\n", way.name, one.begun,
                (one.answered == 0 ? time_ : one.answered) - one.begun, one.repeated, result);
  }

  void read(int descriptor) {
    Channel& channel = channels_[descriptor];
    if (channel.listener) {
      add(bench::tcpAccept(descriptor, 1000), true);
      return;
    }
    for (int round = 0; round < 64; ++round) {
      sockaddr_in from{};
      socklen_t size = sizeof from;
      const ssize_t count =
          ::recvfrom(descriptor, room_.data(), room_.size(), 0, reinterpret_cast<sockaddr*>(&from), &size);
      if (count < 0 && (errno == EAGAIN || errno == ECONNREFUSED)) return;
      if (channel.stream && count <= 0) return closed(descriptor);
      const std::string_view piece(room_.data(), static_cast<std::size_t>(std::max<ssize_t>(count, 0)));
      if (!channel.stream) {
        if (piece.ends_with(kMark)) message(descriptor, piece, &from);
        continue;
      }
      channel.unread += piece;
      std::size_t begin = 0;
      for (std::size_t at; (at = channel.unread.find(kMark, begin)) != std::string::npos;) {
        const std::size_t end = at + kMark.size();
        message(descriptor, fromStartLine(std::string_view(channel.unread).substr(begin, end - begin)), nullptr);
        begin = end;
      }
      channel.unread.erase(0, begin);
      if (channel.unread.size() > kMostUnread) channel.unread.clear();
    }
  }

  /// From the last start line of ours on: before it may be what others sent.
  static std::string_view fromStartLine(std::string_view text) {
    std::size_t begin = 0;
    for (const std::string_view start : {"SIP/2.0 200 OK\r\n", "INVITE sip:", "ACK sip:", "BYE sip:"}) {
      if (const std::size_t at = text.rfind(start); at != std::string_view::npos) begin = std::max(begin, at);
    }
    return text.substr(begin);
  }

  void closed(int descriptor) {
    if (descriptor == ways_[1].caller) {
      std::fputs("hostile_good_client: the proxy closed the good client's connection\n", stderr);
      std::exit(1);
    }
    ::close(descriptor);
    channels_.erase(descriptor);
  }

  void message(int descriptor, std::string_view text, const sockaddr_in* from) {
    const std::string_view id = header(text, "\r\nCall-ID: good-");
    unsigned int number = 0;
    if (id.size() < 2 || std::from_chars(id.data() + 1, id.data() + id.size(), number).ec != std::errc()) return;
    Way& way = ways_[id[0] == 'U' ? 0 : 1];
    if (!text.starts_with("SIP/2.0 ")) {
      if (!text.starts_with("ACK ")) answer(way, descriptor, text, from);
      return;
    }
    const auto found = way.calls.find(number);
    if (found == way.calls.end()) return;  // answered twice after a repetition
    Call& call = found->second;
    const bool bye = header(text, "\r\nCSeq: ") == "2 BYE";
    if (bye != (call.answered != 0)) return;  // to an INVITE that was repeated
    if (!text.starts_with("SIP/2.0 200 ") || header(text, "\r\nVia: ") != viaOf(way, number, bye ? "BYE" : "INVITE")) {
      over(way, *found, "wrong-answer");
      way.calls.erase(found);
      return;
    }
    if (bye) {
      over(way, *found, "ok");
      way.calls.erase(found);
      return;
    }
    call.answered = now();
    const std::string_view contact = header(text, "\r\nContact: <");
    call.target = contact.substr(0, contact.find('>'));
    send(way.caller, request(way, number, "ACK", call.target), way.stream ? nullptr : &proxy_.at);
    start(way, call, request(way, number, "BYE", call.target));
  }

  /// The callee: Vias, From, To, Call-ID and CSeq as they came (RFC 3261 8.2.6.2).
  void answer(const Way& way, int descriptor, std::string_view text, const sockaddr_in* to) {
    std::string reply = "SIP/2.0 200 OK\r\n";
    std::size_t begin = text.find("\r\n") + 2;
    for (std::size_t end; (end = text.find("\r\n", begin)) != begin && end != std::string_view::npos; begin = end + 2) {
      const std::string_view line = text.substr(begin, end - begin);
      for (const std::string_view name : {"Via:", "From:", "To:", "Call-ID:", "CSeq:", "Record-Route:"}) {
        if (!line.starts_with(name)) continue;
        reply += line;
        if (name == "To:" && line.find(";tag=") == std::string_view::npos) reply += ";tag=callee";
        reply += "\r\n";
      }
    }
    reply += "Contact: <sip:bob@" + way.callee + ">\r\n" + lengthAndBody();
    send(descriptor, reply, to);
  }

  const double rate_;
  const bench::Address proxy_;
  const int epoll_;
  int timer_ = -1;
  std::array<Way, 2> ways_;
  std::map<int, Channel> channels_;
  std::vector<char> room_ = std::vector<char>(65536);
  double time_ = now();
  double flushed_ = 0;
};

}  // namespace

int main(int argc, char** argv) {
  const double rate = argc > 1 ? std::strtod(argv[1], nullptr) : 100;
  if (argc > 2 || rate < 1 || rate > 10000) {
    std::fputs("usage: hostile_good_client [CALLS_PER_SECOND]\n", stderr);
    return 2;
  }
  ::signal(SIGPIPE, SIG_IGN);
  GoodClient(rate).run();
  return 0;
}

// Those who mean harm. One attack a process; each ends after the count or time that it is given and writes one line of
// JSON about what it did. Addresses: user agents at 127.0.0.1:5060, the network at 127.0.0.2:5060.
//
//   hostile_attack mutate COUNT PER_SECOND SEED DIRECTORY...   mutations of the files, over UDP and TCP, to both sides
//   hostile_attack slow COUNT SECONDS       connections that send a byte a second; those that are lost come again
//   hostile_attack stall COUNT SECONDS      user agents at 127.0.0.1:7000 and up and connections of the network, none
//   of
//                                           which ever reads, and requests to all of these user agents; says "ready"
//                                           first and waits for a line
//   hostile_attack flood udp|tcp TO SOURCES PER_SECOND SECONDS FILE
//                                           the message in the file, "@@@@@@@@" a different number each time; 0 a
//                                           second: as fast as it can; over TCP each source a connection, over UDP a
//                                           socket

#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include "net.h"

namespace {

constexpr std::size_t kMostBytes = 70000;  // more than a message may have
constexpr const char* kUserAgents = "127.0.0.1:5060";
constexpr const char* kNetwork = "127.0.0.2:5060";
/// Where the outbound proxy is; the network's attackers have its address.
constexpr const char* kNetworkProxy = "127.0.0.3";

double now() {
  return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

std::string load(const std::filesystem::path& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

/// A TCP connection of ours that may break at any time.
class Stream {
 public:
  Stream() = default;
  Stream(const Stream&) = delete;
  Stream& operator=(const Stream&) = delete;
  ~Stream() { close(); }

  bool open(const std::string& from, const bench::Address& to) {
    close();
    const bench::Address source = bench::address(from + ":0");
    descriptor_ = ::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (descriptor_ < 0 || ::bind(descriptor_, reinterpret_cast<const sockaddr*>(&source.at), sizeof source.at) != 0) {
      close();
      return false;
    }
    if (::connect(descriptor_, reinterpret_cast<const sockaddr*>(&to.at), sizeof to.at) != 0 && errno != EINPROGRESS) {
      close();
    }
    return isOpen();
  }
  void close() {
    if (descriptor_ < 0) return;
    const linger none{1, 0};  // no TIME_WAIT: ports must last for a million streams
    ::setsockopt(descriptor_, SOL_SOCKET, SO_LINGER, &none, sizeof none);
    ::close(std::exchange(descriptor_, -1));
  }
  bool isOpen() const { return descriptor_ >= 0; }

  /// What is sent now; false (and closed) when the connection is gone.
  bool send(std::string_view& bytes) {
    while (!bytes.empty()) {
      const ssize_t sent = ::send(descriptor_, bytes.data(), bytes.size(), MSG_NOSIGNAL);
      if (sent > 0) {
        bytes.remove_prefix(static_cast<std::size_t>(sent));
      } else if (errno == EAGAIN || errno == ENOTCONN) {
        return true;
      } else {
        close();
        return false;
      }
    }
    return true;
  }
  /// Everything, or false when it does not go within the time.
  bool sendAll(std::string_view bytes, int milliseconds) {
    while (send(bytes)) {
      if (bytes.empty()) return true;
      pollfd ready{descriptor_, POLLOUT, 0};
      if (::poll(&ready, 1, milliseconds) <= 0) return false;
    }
    return false;
  }
  /// Reads and forgets. False (and closed) when the other side has ended it.
  bool drain() {
    static std::vector<char> room(65536);
    while (isOpen()) {
      const ssize_t count = ::recv(descriptor_, room.data(), room.size(), 0);
      if (count > 0) continue;
      if (count < 0 && (errno == EAGAIN || errno == ENOTCONN)) return true;
      close();
    }
    return false;
  }

 private:
  int descriptor_ = -1;
};

/// Waits so that `done` things take as long as they should at that rate; 0: never.
class Pace {
 public:
  explicit Pace(double per_second) : per_second_(per_second) {}
  double seconds() const { return now() - begun_; }
  void keep(double done) const {
    if (per_second_ <= 0) return;
    const double early = done / per_second_ - seconds();
    if (early > 0.0005) std::this_thread::sleep_for(std::chrono::duration<double>(early));
  }

 private:
  const double per_second_;
  const double begun_ = now();
};

// --- Mutations
// ---------------------------------------------------------------------------------------------------------

class Mutator {
 public:
  Mutator(unsigned int seed, std::vector<std::string> texts) : random_(seed), texts_(std::move(texts)) {}

  std::size_t below(std::size_t limit) { return limit == 0 ? 0 : static_cast<std::size_t>(random_()) % limit; }

  const std::string& next() {
    text_ = texts_[below(texts_.size())];
    for (std::size_t steps = 1 + below(4); steps > 0; --steps) step();
    if (text_.size() > kMostBytes) text_.resize(kMostBytes);
    return text_;
  }

 private:
  void step() {
    if (text_.empty()) text_ = texts_[below(texts_.size())];
    const std::size_t at = below(text_.size());
    switch (below(9)) {
      case 0:
        text_[at] = static_cast<char>(text_[at] ^ (1 << below(8)));
        break;
      case 1:
        text_[at] = static_cast<char>(random_());
        break;
      case 2:
        text_.resize(at);
        break;
      case 3: {  // the end of another
        const std::string& other = texts_[below(texts_.size())];
        text_.replace(at, std::string::npos, other, below(other.size() + 1), std::string::npos);
        break;
      }
      case 4:
        repeatLine(at);
        break;
      case 5:
        hugeNumber(at);
        break;
      case 6:
        text_.insert(at, 1 + below(below(50) == 0 ? 20000 : 200), text_[at]);
        break;
      case 7:
        text_.erase(at, 1 + below(20));
        break;
      default: {
        static constexpr std::array<std::string_view, 16> kPieces = {"\r\n",
                                                                     "\r\n\r\n",
                                                                     "\r",
                                                                     "\n ",
                                                                     std::string_view("\0", 1),
                                                                     "\"",
                                                                     "<",
                                                                     ">",
                                                                     ",",
                                                                     ";",
                                                                     ";=,",
                                                                     "\\",
                                                                     "::",
                                                                     "@",
                                                                     "%00",
                                                                     "\r\nContent-Length: 99999999999\r\n"};
        text_.insert(at, kPieces[below(kPieces.size())]);
        break;
      }
    }
  }

  void repeatLine(std::size_t at) {
    const std::size_t begin = at == 0 ? 0 : text_.rfind('\n', at - 1) + 1;  // npos + 1 is 0
    const std::size_t end = std::min(text_.find('\n', at), text_.size() - 1) + 1;
    const std::string line = text_.substr(begin, end - begin);
    const std::size_t most = below(20) == 0 ? 300 : 3;
    for (std::size_t times = 1 + below(most); times > 0 && text_.size() < kMostBytes; --times)
      text_.insert(begin, line);
  }

  void hugeNumber(std::size_t at) {
    const std::size_t begin = text_.find_first_of("0123456789", at);
    if (begin == std::string::npos) return;
    const std::size_t end = std::min(text_.find_first_not_of("0123456789", begin), text_.size());
    static constexpr std::array<std::string_view, 8> kNumbers = {
        "0", "-1", "65535", "65536", "2147483648", "4294967296", "99999999999999999999", ""};
    text_.replace(begin, end - begin, kNumbers[below(kNumbers.size())]);
  }

  std::mt19937 random_;
  const std::vector<std::string> texts_;
  std::string text_;
};

void replaceAll(std::string& text, std::string_view what, std::string_view with) {
  for (std::size_t at = 0; (at = text.find(what, at)) != std::string::npos; at += with.size()) {
    text.replace(at, what.size(), with);
  }
}

std::vector<std::string> seeds(char** names, char** end) {
  std::vector<std::string> texts;
  for (; names != end; ++names) {
    for (const auto& entry : std::filesystem::recursive_directory_iterator(*names)) {
      if (!entry.is_regular_file()) continue;
      std::string text = load(entry.path());
      // The good client's ports and profiles are not touched: a local process may take them over, and that is no
      // attack.
      replaceAll(text, "5071", "6071");
      replaceAll(text, "5072", "6072");
      if (!text.empty()) texts.push_back(std::move(text));
    }
  }
  if (texts.empty()) {
    std::fputs("hostile_attack: no seeds\n", stderr);
    std::exit(2);
  }
  std::sort(texts.begin(), texts.end());
  return texts;
}

/// What a local process is allowed to do to the good client: set routes, register its ports.
bool isAllowed(const std::string& text) {
  return text.find("-route") != std::string::npos ||
         (text.find("REGISTER") != std::string::npos &&
          (text.find("5071") != std::string::npos || text.find("5072") != std::string::npos));
}

int mutate(std::size_t count, double rate, unsigned int seed, std::vector<std::string> texts) {
  Mutator mutator(seed, std::move(texts));
  const std::array<bench::Address, 2> to = {bench::address(kUserAgents), bench::address(kNetwork)};
  const std::array<std::string, 2> from = {"127.0.0.1", kNetworkProxy};
  const std::array<int, 2> datagrams = {bench::udpSocket(bench::address("127.0.0.1:0")),
                                        bench::udpSocket(bench::address(std::string(kNetworkProxy) + ":0"))};
  std::array<std::array<Stream, 4>, 2> streams;
  std::size_t bytes = 0, over_tcp = 0, opened = 0, left_out = 0;
  const Pace pace(rate);
  for (std::size_t number = 0; number < count; ++number) {
    if (number % 64 == 0) pace.keep(static_cast<double>(number));
    const std::string& text = mutator.next();
    const std::size_t side = mutator.below(2);
    if (side == 0 && isAllowed(text)) {
      ++left_out;
      continue;
    }
    bytes += text.size();
    if (mutator.below(2) == 0) {
      ::sendto(datagrams[side], text.data(), std::min<std::size_t>(text.size(), 65507), MSG_NOSIGNAL,
               reinterpret_cast<const sockaddr*>(&to[side].at), sizeof to[side].at);
      continue;
    }
    ++over_tcp;
    Stream& stream = streams[side][mutator.below(streams[side].size())];
    if (!stream.drain() || mutator.below(50) == 0) {
      ++opened;
      if (!stream.open(from[side], to[side])) continue;
    }
    if (!stream.sendAll(text, 200)) stream.close();
  }
  std::printf(
      "{\"messages\": %zu, \"over_tcp\": %zu, \"streams\": %zu, \"bytes\": %zu, \"left_out\": %zu, \"seconds\": "
      "%.3f}\n",
      count - left_out, over_tcp, opened, bytes, left_out, pace.seconds());
  return 0;
}

// --- Connections
// -------------------------------------------------------------------------------------------------------

/// Of the network's side, from sixteen addresses.
std::string attacker(std::size_t number) {
  return "127.0.1." + std::to_string(1 + number % 16);
}

int slow(std::size_t count, double seconds) {
  const std::string text = "INVITE sip:alice@example.net SIP/2.0\r\nVia: SIP/2.0/TCP 127.0.0.3:5060;branch=z9hG4bK" +
                           std::string(static_cast<std::size_t>(seconds) + 10, 'x');
  const bench::Address to = bench::address(kNetwork);
  std::vector<Stream> streams(count);
  std::size_t opened = 0, most = 0, held = 0;
  const Pace second(1);
  for (std::size_t round = 0; second.seconds() < seconds; ++round) {
    held = 0;
    const Pace spread(static_cast<double>(count) / 0.9);
    for (std::size_t i = 0; i < count; ++i) {
      if (i % 32 == 0) spread.keep(static_cast<double>(i));
      Stream& stream = streams[i];
      if (!stream.drain()) {
        ++opened;
        if (!stream.open(attacker(i), to)) continue;
      }
      std::string_view byte = std::string_view(text).substr(round, 1);
      if (stream.send(byte)) ++held;
    }
    held = 0;
    for (Stream& stream : streams) held += stream.drain() ? 1U : 0U;
    most = std::max(most, held);
    second.keep(static_cast<double>(round + 1));
  }
  std::printf("{\"connections\": %zu, \"opened\": %zu, \"held\": %zu, \"most_held\": %zu, \"seconds\": %.3f}\n", count,
              opened, held, most, second.seconds());
  return 0;
}

int stall(std::size_t count, double seconds) {
  std::vector<int> listeners;
  for (std::size_t i = 0; i < count; ++i) {
    listeners.push_back(bench::tcpListener(bench::address("127.0.0.1:" + std::to_string(7000 + i))));
    const int little = 4096;
    ::setsockopt(listeners.back(), SOL_SOCKET, SO_RCVBUF, &little, sizeof little);
  }
  std::puts("ready");
  std::fflush(stdout);
  char line[64];
  if (std::fgets(line, sizeof line, stdin) == nullptr) return 1;
  // Connections stay in the listeners' queues: nobody reads.
  const bench::Address to = bench::address(kNetwork);
  const std::string body(8000, 'x');
  std::vector<Stream> peers(count);
  std::size_t sent = 0, opened = 0, waited = 0;
  const Pace pace(20000);
  while (pace.seconds() < seconds) {
    const std::size_t before = sent;
    for (std::size_t i = 0; i < count; ++i) {
      if (!peers[i].isOpen()) {
        ++opened;
        if (!peers[i].open(kNetworkProxy, to)) continue;
      }
      // To one of the stalled ones each time; the 100 to this INVITE waits for a peer that never reads either.
      const std::string number = std::to_string(sent);
      const std::string text = "INVITE sip:x@example.net SIP/2.0\r\nVia: SIP/2.0/TCP 127.0.0.3:5060;branch=z9hG4bKs" +
                               number + "\r\nFrom: <sip:m@example.net>;tag=m\r\nTo: <sip:stall" +
                               std::to_string(sent % count) + "@example.net>\r\nCall-ID: stall-" + number +
                               "\r\nCSeq: 1 INVITE\r\nMax-Forwards: 70\r\nContact: <sip:m@127.0.0.3>" +
                               "\r\nContent-Type: text/plain\r\nContent-Length: " + std::to_string(body.size()) +
                               "\r\n\r\n" + body;
      if (peers[i].sendAll(text, 50)) {
        ++sent;
      } else {
        ++waited;
        peers[i].close();
      }
    }
    if (sent == before) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    pace.keep(static_cast<double>(sent));
  }
  std::printf("{\"readers\": %zu, \"messages\": %zu, \"opened\": %zu, \"not_taken\": %zu, \"seconds\": %.3f}\n", count,
              sent, opened, waited, pace.seconds());
  for (const int listener : listeners) ::close(listener);
  return 0;
}

// --- Floods
// ------------------------------------------------------------------------------------------------------------

/// A text with a place for eight digits; several of them, when it stands several times.
class Numbered {
 public:
  explicit Numbered(std::string text) : text_(std::move(text)) {
    for (std::size_t at = 0; (at = text_.find(kPlace, at)) != std::string::npos; at += kPlace.size())
      places_.push_back(at);
  }
  const std::string& next() {
    char digits[16];
    std::snprintf(digits, sizeof digits, "%08u", ++number_ % 100000000U);
    for (const std::size_t at : places_) text_.replace(at, kPlace.size(), digits);
    return text_;
  }

 private:
  static constexpr std::string_view kPlace = "@@@@@@@@";
  std::string text_;
  std::vector<std::size_t> places_;
  unsigned int number_ = 0;
};

void report(std::size_t sent, std::size_t bytes, std::size_t opened, double seconds) {
  std::printf("{\"messages\": %zu, \"bytes\": %zu, \"opened\": %zu, \"seconds\": %.3f, \"per_second\": %.0f}\n", sent,
              bytes, opened, seconds, static_cast<double>(sent) / seconds);
}

int floodDatagrams(const bench::Address& to, std::size_t sources, double rate, double seconds, Numbered message) {
  const std::string from = to.text.substr(0, to.text.find(':')) == "127.0.0.1" ? "127.0.0.1:0" : "127.0.0.3:0";
  std::vector<int> sockets;
  for (std::size_t i = 0; i < sources; ++i) sockets.push_back(bench::udpSocket(bench::address(from)));
  constexpr std::size_t batch = 32;
  std::array<std::string, batch> texts;
  std::array<iovec, batch> slices{};
  std::array<mmsghdr, batch> headers{};
  sockaddr_in target = to.at;
  std::size_t sent = 0, bytes = 0;
  const Pace pace(rate);
  for (std::size_t round = 0; pace.seconds() < seconds; ++round) {
    pace.keep(static_cast<double>(sent));
    for (std::size_t i = 0; i < batch; ++i) {
      texts[i] = message.next();
      slices[i] = {texts[i].data(), texts[i].size()};
      headers[i].msg_hdr.msg_name = &target;
      headers[i].msg_hdr.msg_namelen = sizeof target;
      headers[i].msg_hdr.msg_iov = &slices[i];
      headers[i].msg_hdr.msg_iovlen = 1;
      bytes += texts[i].size();
    }
    const int socket = sockets[round % sockets.size()];
    ::recv(socket, texts[0].data(), 1, MSG_DONTWAIT);  // answers and refusals are nobody's here
    const int done = ::sendmmsg(socket, headers.data(), batch, MSG_NOSIGNAL);
    if (done > 0) sent += static_cast<std::size_t>(done);
  }
  report(sent, bytes, 0, pace.seconds());
  return 0;
}

int floodStreams(const bench::Address& to, std::size_t sources, double rate, double seconds, Numbered message) {
  const std::string from = to.text.substr(0, to.text.find(':')) == "127.0.0.1" ? "127.0.0.1" : kNetworkProxy;
  struct Source {
    Stream stream;
    std::string text;
    std::string_view rest;
  };
  std::vector<Source> all(sources);
  std::size_t sent = 0, bytes = 0, opened = 0;
  const Pace pace(rate);
  while (pace.seconds() < seconds) {
    pace.keep(static_cast<double>(sent));
    bool moved = false;
    for (Source& source : all) {
      if (!source.stream.drain()) {
        ++opened;
        source.rest = {};
        if (!source.stream.open(from, to)) continue;
      }
      if (source.rest.empty()) {
        source.text.clear();
        for (int i = 0; i < 16; ++i) source.text += message.next();
        source.rest = source.text;
      }
      const std::size_t before = source.rest.size();
      if (!source.stream.send(source.rest)) continue;
      bytes += before - source.rest.size();
      moved = moved || before != source.rest.size();
      if (source.rest.empty()) sent += 16;
    }
    if (!moved) std::this_thread::sleep_for(std::chrono::microseconds(100));
  }
  report(sent, bytes, opened, pace.seconds());
  return 0;
}

int usage() {
  std::fputs(
      "usage: hostile_attack mutate COUNT PER_SECOND SEED DIRECTORY...\n"
      "       hostile_attack slow COUNT SECONDS\n"
      "       hostile_attack stall COUNT SECONDS\n"
      "       hostile_attack flood udp|tcp TO SOURCES PER_SECOND SECONDS FILE\n",
      stderr);
  return 2;
}

}  // namespace

int main(int argc, char** argv) {
  ::signal(SIGPIPE, SIG_IGN);
  const std::string_view kind = argc > 1 ? argv[1] : "";
  const auto number = [&](int index) { return std::strtod(argv[index], nullptr); };
  const auto count = [&](int index) { return static_cast<std::size_t>(number(index)); };
  if (kind == "mutate" && argc > 5) {
    return mutate(count(2), number(3), static_cast<unsigned int>(count(4)), seeds(argv + 5, argv + argc));
  }
  if (kind == "slow" && argc == 4) return slow(count(2), number(3));
  if (kind == "stall" && argc == 4) return stall(count(2), number(3));
  if (kind == "flood" && argc == 8) {
    const auto flood = std::string_view(argv[2]) == "tcp" ? floodStreams : floodDatagrams;
    return flood(bench::address(argv[3]), std::max<std::size_t>(count(4), 1), number(5), number(6),
                 Numbered(load(argv[7])));
  }
  return usage();
}

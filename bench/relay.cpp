// The limit that a proxy is measured against: moves bytes between sockets and looks at none of them.
//
//   bench_relay LISTEN SOURCE DESTINATION     (each IP:PORT)
//
// UDP: a datagram to LISTEN leaves from SOURCE to DESTINATION; one to SOURCE leaves from LISTEN to whom the last one to
// LISTEN came from. TCP: each connection to LISTEN gets one from SOURCE (any port) to DESTINATION.
// Datagrams are read in batches and sent one by one, a stream is sent as it was read: what a proxy can do at best
// without knowing where a message ends.

#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <vector>

#include "net.h"

namespace {

constexpr std::size_t kBatch = 16;
constexpr std::size_t kRoom = 65536;

enum Watched : unsigned int { kUserAgents, kNetwork, kListener, kFirstStream };

class Relay {
 public:
  Relay(const bench::Address& listen, const bench::Address& source, const bench::Address& destination)
      : source_(source),
        destination_(destination),
        user_agents_(bench::udpSocket(listen)),
        network_(bench::udpSocket(source)),
        listener_(bench::tcpListener(listen)),
        epoll_(bench::newEpoll()) {
    source_.at.sin_port = 0;
    bench::watch(epoll_, user_agents_, kUserAgents);
    bench::watch(epoll_, network_, kNetwork);
    bench::watch(epoll_, listener_, kListener);
    for (std::size_t i = 0; i < kBatch; ++i) {
      slices_[i] = {room_.data() + i * kRoom, kRoom};
      headers_[i].msg_hdr.msg_iov = &slices_[i];
      headers_[i].msg_hdr.msg_iovlen = 1;
    }
  }

  [[noreturn]] void run() {
    std::array<epoll_event, 64> events;
    while (true) {
      const int count = ::epoll_wait(epoll_, events.data(), static_cast<int>(events.size()), -1);
      for (int i = 0; i < count; ++i) {
        const unsigned int which = events[static_cast<std::size_t>(i)].data.u32;
        if (which == kUserAgents) {
          datagrams(user_agents_, network_, &last_, destination_.at);
        } else if (which == kNetwork) {
          datagrams(network_, user_agents_, nullptr, last_);
        } else if (which == kListener) {
          accept();
        } else {
          stream(which - kFirstStream);
        }
      }
    }
  }

 private:
  void datagrams(int from, int by, sockaddr_in* sender, const sockaddr_in& to) {
    for (mmsghdr& header : headers_) {
      header.msg_hdr.msg_name = sender;
      header.msg_hdr.msg_namelen = sender != nullptr ? sizeof *sender : 0;
    }
    const int count = ::recvmmsg(from, headers_.data(), kBatch, MSG_DONTWAIT, nullptr);
    for (int i = 0; i < count; ++i) {
      const auto index = static_cast<std::size_t>(i);
      ::sendto(by, slices_[index].iov_base, headers_[index].msg_len, MSG_DONTWAIT | MSG_NOSIGNAL,
               reinterpret_cast<const sockaddr*>(&to), sizeof to);
    }
  }

  void accept() {
    const int inner = ::accept4(listener_, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (inner < 0) return;
    const int outer = bench::tcpConnect(source_, destination_);
    for (const int side : {inner, outer}) {
      bench::watch(epoll_, side, kFirstStream + static_cast<unsigned int>(streams_.size()));
      streams_.push_back(side);
    }
  }

  void stream(std::size_t index) {
    const int from = streams_[index];
    const ssize_t count = ::recv(from, room_.data(), kRoom, MSG_DONTWAIT);
    if (count > 0) {
      // What the peer does not take at once would be lost; a window of messages always fits its buffer.
      if (::send(streams_[index ^ 1], room_.data(), static_cast<std::size_t>(count), MSG_NOSIGNAL) != count) {
        bench::fail("send");
      }
    } else if (count == 0 || errno != EAGAIN) {
      ::close(from);
      streams_[index] = -1;
      ::shutdown(streams_[index ^ 1], SHUT_WR);
    }
  }

  bench::Address source_;
  const bench::Address destination_;
  const int user_agents_;
  const int network_;
  const int listener_;
  const int epoll_;
  sockaddr_in last_{};
  std::vector<int> streams_;  // pairs
  std::vector<char> room_ = std::vector<char>(kBatch * kRoom);
  std::array<mmsghdr, kBatch> headers_{};
  std::array<iovec, kBatch> slices_{};
};

}  // namespace

int main(int argc, char** argv) {
  if (argc != 4) {
    std::fprintf(stderr, "usage: bench_relay LISTEN SOURCE DESTINATION\n");
    return 2;
  }
  Relay(bench::address(argv[1]), bench::address(argv[2]), bench::address(argv[3])).run();
}

// Who holds the TCP connections that the stack may have open.
//
// Peers of the network together hold three quarters at most, so that user agents and the stack itself always find some;
// each of its addresses a quarter of that. Some of the network's places are kept for the addresses of the user's
// proxies (keepFor), which no share binds. User agents leave an eighth to what the stack opens.
//
// An accepted connection is silent until it has delivered its first whole head. Where there is no room, the one that
// has been silent longest gives way: to a stranger another stranger's, to one above its share its own only, to a proxy
// a stranger's before a proxy's, to a user agent a user agent's, to what the stack opens a user agent's before a
// stranger's. So who only holds connections open keeps nobody out, however many they are.
//
// Threads: any. One lock, not held while anything else is called.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "siplib/socket_address.h"

namespace siplib {

class Places;

/// For whom a connection is: accepted from the network or from a user agent, or opened by the stack.
enum class For { Network, Local, Own };

/// One of the connections that the stack may have open; gives its place back at its end.
class ConnectionSlot {
 public:
  ConnectionSlot() = default;
  ConnectionSlot(ConnectionSlot&&) noexcept = default;
  ConnectionSlot& operator=(ConnectionSlot&& other) noexcept {
    places_.swap(other.places_);
    place_.swap(other.place_);
    return *this;
  }
  ~ConnectionSlot();
  explicit operator bool() const { return place_ != nullptr; }

  /// True for one that a peer opened.
  bool accepted() const;
  /// From now on it is silent: `give_way` ends it, called on whatever thread needs its place, which is free at once.
  void silent(std::function<void()> give_way);
  /// It is silent no more.
  void heard();

 private:
  friend class Places;
  struct Place;
  ConnectionSlot(std::shared_ptr<Places> places, std::unique_ptr<Place> place);

  std::shared_ptr<Places> places_;
  std::unique_ptr<Place> place_;
};

class Places : public std::enable_shared_from_this<Places> {
 public:
  /// Most places that are kept for proxies; fewer where the network has less than four times as many.
  static constexpr std::size_t kMostKept = 8;

  explicit Places(std::size_t most) : most_(most) {}
  Places(const Places&) = delete;
  Places& operator=(const Places&) = delete;

  /// Empty when there is no room and nobody gives way. `peer` is who opened it.
  ConnectionSlot take(For whom, const SocketAddress& peer = {});
  /// The proxies' addresses from now on; ports do not count. Connections that are open stay whose they are.
  void keepFor(const std::vector<SocketAddress>& proxies);

 private:
  friend class ConnectionSlot;
  using Place = ConnectionSlot::Place;
  /// In the order of acceptance.
  using Silent = std::map<std::uint64_t, Place*>;
  enum Holder : std::size_t { kStranger, kProxy, kUserAgent, kStack, kHolders };
  struct Share {
    std::size_t held = 0;
    Silent silent;
  };

  // All with the lock.
  Holder holderOf(For whom, const SocketAddress& host) const;
  std::size_t networkMost() const { return most_ - most_ / 4; }
  std::size_t keptFree() const;
  std::size_t ownFree() const;
  bool hasRoom(Holder holder) const;
  Place* givesWay(Holder holder) const;
  static Place* longest(const Silent& silent) { return silent.empty() ? nullptr : silent.begin()->second; }
  void leave(Place& place);
  void unsilence(Place& place);

  const std::size_t most_;
  std::mutex mutex_;
  std::uint64_t next_number_ = 0;
  std::size_t held_[kHolders] = {};
  Silent silent_[kHolders];
  std::unordered_map<SocketAddress, Share> shares_;  // of strangers, by host
  std::unordered_set<SocketAddress> proxies_;        // hosts
};

struct ConnectionSlot::Place {
  Places::Holder holder;
  SocketAddress host;
  std::uint64_t number;
  std::function<void()> give_way;
  bool left = false;
};

}  // namespace siplib

#include "siplib/places.h"

#include <algorithm>
#include <numeric>
#include <utility>

namespace siplib {

ConnectionSlot::ConnectionSlot(std::shared_ptr<Places> places, std::unique_ptr<Place> place)
    : places_(std::move(places)), place_(std::move(place)) {
}

ConnectionSlot::~ConnectionSlot() {
  if (!place_) return;
  const std::lock_guard<std::mutex> lock(places_->mutex_);
  places_->leave(*place_);
}

bool ConnectionSlot::accepted() const {
  return place_ && place_->holder != Places::kStack;
}

void ConnectionSlot::silent(std::function<void()> give_way) {
  const std::lock_guard<std::mutex> lock(places_->mutex_);
  place_->give_way = std::move(give_way);
  if (place_->holder == Places::kStranger) {
    places_->shares_.find(place_->host)->second.silent.emplace(place_->number, place_.get());
  }
  places_->silent_[place_->holder].emplace(place_->number, place_.get());
}

void ConnectionSlot::heard() {
  const std::lock_guard<std::mutex> lock(places_->mutex_);
  places_->unsilence(*place_);
}

void Places::keepFor(const std::vector<SocketAddress>& proxies) {
  std::unordered_set<SocketAddress> hosts;
  for (const SocketAddress& proxy : proxies) hosts.insert(proxy.withPort(0));
  const std::lock_guard<std::mutex> lock(mutex_);
  proxies_.swap(hosts);
}

ConnectionSlot Places::take(For whom, const SocketAddress& peer) {
  auto place = std::make_unique<Place>();
  place->host = peer.withPort(0);
  std::function<void()> give_way;
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    place->holder = holderOf(whom, place->host);
    Place* other = nullptr;
    if (place->holder == kStranger) {
      Share& share = shares_[place->host];
      if (share.held >= std::max<std::size_t>(networkMost() / 4, 1)) {
        other = longest(share.silent);
        if (other == nullptr) return {};
      }
    }
    if (other == nullptr && !hasRoom(place->holder)) {
      other = givesWay(place->holder);
      if (other == nullptr) {
        if (place->holder == kStranger && shares_[place->host].held == 0) shares_.erase(place->host);
        return {};
      }
    }
    // Counted before the other leaves, which ends the share of a host that holds no more.
    place->number = next_number_++;
    ++held_[place->holder];
    if (place->holder == kStranger) ++shares_[place->host].held;
    if (other != nullptr) {
      give_way = std::move(other->give_way);
      leave(*other);
    }
  }
  if (give_way) give_way();
  return ConnectionSlot(shared_from_this(), std::move(place));
}

Places::Holder Places::holderOf(For whom, const SocketAddress& host) const {
  switch (whom) {
    case For::Network:
      return proxies_.count(host) != 0 ? kProxy : kStranger;
    case For::Local:
      return kUserAgent;
    case For::Own:
      break;
  }
  return kStack;
}

/// Of the places that are kept for proxies, those that are free for them.
std::size_t Places::keptFree() const {
  if (proxies_.empty()) return 0;
  const std::size_t kept = std::min(kMostKept, networkMost() / 4);
  return kept - std::min(kept, held_[kProxy]);
}

/// Of the places that user agents leave to what the stack opens, those that it does not have.
std::size_t Places::ownFree() const {
  const std::size_t kept = most_ / 8;
  return kept - std::min(kept, held_[kStack]);
}

bool Places::hasRoom(Holder holder) const {
  const std::size_t all = std::accumulate(std::begin(held_), std::end(held_), std::size_t{0});
  switch (holder) {
    case kStranger:
      return all + keptFree() < networkMost();
    case kProxy:
      return all < (keptFree() > 0 ? most_ : networkMost());
    case kUserAgent:
      return all + keptFree() + ownFree() < most_;
    default:
      return all + keptFree() < most_;
  }
}

Places::Place* Places::givesWay(Holder holder) const {
  switch (holder) {
    case kProxy: {
      Place* const stranger = longest(silent_[kStranger]);
      return stranger != nullptr ? stranger : longest(silent_[kProxy]);
    }
    case kStack: {
      Place* const local = longest(silent_[kUserAgent]);
      return local != nullptr ? local : longest(silent_[kStranger]);
    }
    default:
      return longest(silent_[holder]);
  }
}

void Places::leave(Place& place) {
  unsilence(place);
  if (std::exchange(place.left, true)) return;
  --held_[place.holder];
  if (place.holder != kStranger) return;
  const auto share = shares_.find(place.host);
  if (--share->second.held == 0) shares_.erase(share);
}

void Places::unsilence(Place& place) {
  silent_[place.holder].erase(place.number);
  if (place.holder != kStranger || place.left) return;
  shares_.find(place.host)->second.silent.erase(place.number);
}

}  // namespace siplib

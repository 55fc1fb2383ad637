#include "siplib/stack_core.h"

#include <time.h>

#include <algorithm>
#include <cinttypes>
#include <cstdarg>
#include <cstdio>
#include <utility>

#include "siplib/address.h"
#include "siplib/random.h"
#include "siplib/tcp_stream.h"

namespace siplib {
namespace {

std::string randomText() {
  SIPLIB_UTIL_RANDOM_STRING_T text;
  SIPLIB_UTIL_generateRandomString(text);
  return text;
}

}  // namespace

bool LogLimit::due(std::uint64_t& left_out) {
  const std::int64_t now = StackCore::now();
  std::int64_t next = next_.load(std::memory_order_relaxed);
  if (now < next || !next_.compare_exchange_strong(next, now + pause_.count(), std::memory_order_relaxed)) {
    left_out_.fetch_add(1, std::memory_order_relaxed);
    return false;
  }
  left_out = left_out_.exchange(0, std::memory_order_relaxed);
  return true;
}

StackCore::StackCore(const SIPLIB_SIPStackConfig& config)
    : config_(config),
      places_(std::make_shared<Places>(config.max_connections)),
      tag_secret_(randomText()),
      idle_(deadline(config.idle_timeout, &TcpStream::lastMoved, "nothing moved for too long", &StackCore::idle_)),
      owed_(deadline(config.head_timeout, &TcpStream::owedSince, "no whole message came in time", &StackCore::owed_)) {
}

std::int64_t StackCore::now() {
  timespec time{};
  clock_gettime(CLOCK_MONOTONIC_COARSE, &time);
  return static_cast<std::int64_t>(time.tv_sec) * 1000 + time.tv_nsec / 1000000;
}

void StackCore::shutdown() {
  down_ = true;
  layer_.reset();
  const auto streams = std::move(streams_);
  streams_.clear();
  for (const auto& stream : streams) stream->letGo();
  kept_.clear();
  idle_.timer.reset();
  owed_.timer.reset();
  retired_.clear();
}

void StackCore::post(std::function<void()> work) {
  reactor().post([core = shared_from_this(), work = std::move(work)] {
    if (!core->down_) work();
  });
}

void StackCore::write(int level, const char* where, std::uint64_t left_out, const char* format,
                      va_list arguments) const {
  // Allocates nothing: it also tells that memory is out.
  constexpr std::size_t kMostText = 512;
  constexpr std::size_t kMostEnd = 64;
  char text[kMostText + kMostEnd];
  const int length = std::vsnprintf(text, kMostText, format, arguments);
  if (length < 0) return;
  std::size_t size = std::min(static_cast<std::size_t>(length), kMostText - 1);
  if (left_out > 0) {
    size +=
        static_cast<std::size_t>(std::snprintf(text + size, kMostEnd, " (and %" PRIu64 " more like this)", left_out));
  }
  config_.log(level, where, std::string_view(text, size));
}

void StackCore::log(int level, const char* where, const char* format, ...) const {
  if (!config_.log || (config_.log_enabled && !config_.log_enabled(level))) return;
  va_list arguments;
  va_start(arguments, format);
  write(level, where, 0, format, arguments);
  va_end(arguments);
}

void StackCore::log(LogLimit& limit, int level, const char* where, const char* format, ...) const {
  if (!config_.log || (config_.log_enabled && !config_.log_enabled(level))) return;
  std::uint64_t left_out = 0;
  if (!limit.due(left_out)) return;
  va_list arguments;
  va_start(arguments, format);
  write(level, where, left_out, format, arguments);
  va_end(arguments);
}

SocketAddress StackCore::localAddress() const {
  const std::lock_guard<std::mutex> lock(local_mutex_);
  return local_;
}

void StackCore::setLocalAddress(const SocketAddress& address) {
  const std::lock_guard<std::mutex> lock(local_mutex_);
  local_ = address;
}

void StackCore::process(SIPLIB_SIPMessageHandle message, std::shared_ptr<Path> path) {
  if (!message || !message->valid()) {
    std::string ip;
    int port = 0;
    path->peer(ip, port);
    const std::string_view why = message ? message->parseError() : "no message";
    log(unparsable_, 4, "process", "message from %s:%d dropped: %.*s", ip.c_str(), port, static_cast<int>(why.size()),
        why.data());
    return;
  }
  if (message->fromNetwork() && message->isResponse()) {
    std::string ip;
    int port = 0;
    path->peer(ip, port);
    log(strangers_, 3, "process", "response %d from %s:%d dropped: not on the local endpoint", message->statusCode(),
        ip.c_str(), port);
    return;
  }
  // Every request takes a transaction, of which there is a number for all; so every one is asked about.
  const auto owner = [&path](std::string& unknown) { return path->peerOwner(unknown); };
  std::string why = "not on the local endpoint";
  if (!message->fromNetwork() && (message->isResponse() || mayControl(owner, why))) {
    layer_->receive(std::move(message), std::move(path));
  } else {
    refuse(*message, *path, why);
  }
}

void StackCore::tellKeptOut(const SIPLIB_message& message) {
  log(strangers_, 3, "send", "%s from the network to the local endpoint dropped",
      message.isRequest() ? "request" : "response");
}

bool StackCore::mayControl(const std::function<std::optional<uid_t>(std::string&)>& owner, std::string& why) const {
  if (!config_.control_uids) return true;
  const std::optional<uid_t> uid = owner(why);
  if (!uid) {
    why = "its user is not known: " + why;
    return false;
  }
  const auto& allowed = *config_.control_uids;
  why = "user id " + std::to_string(*uid) + " may not control the proxy";
  return std::find(allowed.begin(), allowed.end(), *uid) != allowed.end();
}

// Without a transaction (RFC 3261 8.2.7): the same request gets the same tag, so a repeated one the same answer.
void StackCore::refuse(const SIPLIB_message& request, Path& path, const std::string& why) const {
  std::string ip;
  int port = 0;
  path.peer(ip, port);
  log(4, "refuse", "%.*s from %s:%d refused: %s", static_cast<int>(request.method().size()), request.method().data(),
      ip.c_str(), port, why.c_str());
  const auto via = request.header("Via");
  if (request.method() == "ACK" || !via) return;

  SIPLIB_message answer(403, "Forbidden");
  std::string identity = tag_secret_;
  answer.appendLines("Via", request);
  for (const char* name : {"From", "To", "Call-ID", "CSeq"}) {
    const auto value = request.header(name);
    if (!value) continue;
    identity.append(*value).push_back('\n');
    answer.addHeader(name, *value);
  }
  if (const auto to = request.header("To")) {
    const std::unique_ptr<SIPLIB_SIPAddress> address(SIPLIB_SIPAddress::createSIPAddressObject("To", *to));
    std::string tag;
    if (address && address->getParameter("tag", tag) != 0) {
      char text[24];
      std::snprintf(text, sizeof text, ";tag=%016" PRIx64,
                    static_cast<std::uint64_t>(std::hash<std::string>()(identity.append(*via))));
      answer.setHeader("To", std::string(*to) + text);
    }
  }
  // Who forges the source of a datagram gains nothing by the answer. Only a request without much of what it should have
  // is as small as that.
  const std::string text = answer.text();
  if (2 * text.size() <= 3 * sizeOf(slicesOf(request))) path.send(text);
}

void StackCore::watch(const std::shared_ptr<TcpStream>& stream) {
  streams_.insert(stream);
  if (idle_.timeout.count() > 0 && !idle_.on) startTimer(idle_, now());
}

void StackCore::watchOwed() {
  if (!owed_.on) startTimer(owed_, now());
}

void StackCore::forget(const std::shared_ptr<TcpStream>& stream) {
  streams_.erase(stream);
  if (!streams_.empty()) return;
  for (Deadline* const deadline : {&idle_, &owed_}) {
    if (std::exchange(deadline->on, false)) deadline->timer->stop();
  }
}

StackCore::Deadline StackCore::deadline(std::chrono::milliseconds timeout, std::int64_t (TcpStream::*since)() const,
                                        const char* why, Deadline StackCore::*self) {
  return {timeout, since, why, reactor().timer([this, self] { closeOverdue(this->*self); })};
}

void StackCore::startTimer(Deadline& deadline, std::int64_t earliest) {
  // A little later than due, never just before it: the clock is coarse, and streams that are due one soon after the
  // other cost one walk.
  const std::int64_t timeout = deadline.timeout.count();
  const std::int64_t grain = std::clamp<std::int64_t>(timeout / 16, 10, 500);
  deadline.timer->start(std::chrono::milliseconds(std::max<std::int64_t>(earliest + timeout - now(), 0) + grain));
  deadline.on = true;
}

void StackCore::closeOverdue(Deadline& deadline) {
  deadline.on = false;
  const std::int64_t latest = now() - deadline.timeout.count();
  std::vector<std::shared_ptr<TcpStream>> overdue;
  std::int64_t earliest = 0;
  for (const auto& stream : streams_) {
    const std::int64_t since = (*stream.*deadline.since)();
    if (since == 0) continue;
    if (since <= latest) {
      overdue.push_back(stream);
    } else if (earliest == 0 || since < earliest) {
      earliest = since;
    }
  }
  for (const auto& stream : overdue) stream->fail(5, deadline.why);
  if (earliest != 0 && !streams_.empty() && !deadline.on) startTimer(deadline, earliest);
}

void StackCore::retire(std::shared_ptr<Retired> closed) {
  const std::lock_guard<std::mutex> lock(retired_mutex_);
  retired_.push_back(std::move(closed));
  has_retired_.store(true, std::memory_order_release);
}

void StackCore::freeRetired() {
  if (!has_retired_.load(std::memory_order_acquire)) return;
  std::vector<std::shared_ptr<Retired>> free;
  {
    const std::lock_guard<std::mutex> lock(retired_mutex_);
    const auto kept = std::partition(retired_.begin(), retired_.end(), [](const auto& one) { return one->awaited(); });
    free.reserve(static_cast<std::size_t>(retired_.end() - kept));  // or none of them, for want of memory
    std::move(kept, retired_.end(), std::back_inserter(free));
    retired_.erase(kept, retired_.end());
    has_retired_.store(!retired_.empty(), std::memory_order_release);
  }
}

}  // namespace siplib

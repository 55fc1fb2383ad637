#include "siplib/tcp_stream.h"

#include <sys/socket.h>

#include <cerrno>
#include <cstring>
#include <new>
#include <utility>
#include <vector>

namespace siplib {
namespace {

bool wouldBlock(int error) {
  return error == EAGAIN || error == EWOULDBLOCK || error == ENOBUFS || error == ENOMEM;
}

/// Where bytes wait for flush(): the room goes from stream to stream, so that a quiet one holds none.
class StreamRooms {
 public:
  /// `text` is empty.
  static void take(std::string& text) {
    if (!kept().empty()) {
      text.swap(kept().back());
      kept().pop_back();
    }
  }
  static void give(std::string& text) {
    if (kept().size() == kMost || text.capacity() > 2 * TcpStream::kMostSoon) return;
    text.clear();
    kept().push_back(std::move(text));
  }

 private:
  static constexpr std::size_t kMost = 8;
  static std::vector<std::string>& kept() {
    static thread_local std::vector<std::string> rooms = [] {
      std::vector<std::string> none;
      none.reserve(kMost);
      return none;
    }();
    return rooms;
  }
};

}  // namespace

TcpStream::TcpStream(std::shared_ptr<StackCore> core, FileDescriptor socket, ConnectionSlot slot)
    : core_(std::move(core)), socket_(std::move(socket)), slot_(std::move(slot)), moved_(StackCore::now()) {
}

TcpStream::Sent TcpStream::wait(Slices slices) {
  if (waiting_.size() + sizeOf(slices) > kMostWaiting) return Sent::Full;
  appendTo(waiting_, slices);
  return Sent::Taken;
}

TcpStream::Sent TcpStream::send(Slices slices) {
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (closed_) return Sent::Broken;
    if (claimed_ || !waiting_.empty()) return wait(slices);
    claimed_ = true;
  }
  return write(slices);
}

TcpStream::Sent TcpStream::sendSoon(Slices slices) {
  if (!core_->outgoing().held() || sizeOf(slices) > kMostSoon) return send(slices);
  bool much = false;
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (closed_) return Sent::Broken;
    if (!claimed_ && waiting_.empty()) {
      core_->outgoing().add(shared_from_this());  // first: without memory for it nothing has happened
      StreamRooms::take(waiting_);
    }
    if (wait(slices) != Sent::Taken) return Sent::Full;
    much = waiting_.size() >= kMostSoon;
  }
  if (much) flush();
  return Sent::Taken;
}

void TcpStream::flush() {
  std::string bytes;
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    // Another sender, or the I/O thread, sees to what waits.
    if (claimed_ || closed_ || writable_wanted_ || waiting_.empty()) return;
    claimed_ = true;
    bytes.swap(waiting_);
  }
  iovec place;
  if (write(sliceOf(bytes, place), &bytes) == Sent::Taken) StreamRooms::give(bytes);
}

TcpStream::Sent TcpStream::write(Slices slices, std::string* flushed) {
  ssize_t sent = sendSlices(socket_.get(), slices);
  const int error = sent < 0 ? errno : 0;
  if (error == 0) moved_.store(StackCore::now(), std::memory_order_relaxed);
  if (wouldBlock(error)) sent = 0;
  bool ask = false;
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    claimed_ = false;
    if (sent < 0) {
      closed_ = true;
      if (flushed != nullptr) unsent_.swap(*flushed);
    } else if (!keepRest(slices, static_cast<std::size_t>(sent))) {
      // Half a message cannot be followed by another. The I/O thread finds the end by reading.
      closed_ = true;
      ::shutdown(socket_.get(), SHUT_RDWR);
      return Sent::Broken;
    } else if (!waiting_.empty() && !writable_wanted_) {
      ask = writable_wanted_ = true;
    }
  }
  if (sent < 0) {
    core_->post([self = shared_from_this(), error] { self->fail(4, strerrordesc_np(error)); });
    return Sent::Broken;
  }
  if (ask) {
    core_->post([self = shared_from_this()] {
      if (self->watch_) self->watch_->wantWrite(true);
    });
  }
  return Sent::Taken;
}

bool TcpStream::keepRest(Slices slices, std::size_t sent) {
  if (sent == sizeOf(slices)) return true;
  try {
    std::string rest;
    appendTo(rest, slices, sent);
    waiting_.insert(0, rest);
    return true;
  } catch (const std::bad_alloc&) {
    return false;
  }
}

void TcpStream::close() {
  flush();  // what was sent before the close still leaves
  const std::lock_guard<std::mutex> lock(mutex_);
  closed_ = true;
}

void TcpStream::start(StreamOwner& owner) {
  owner_ = &owner;
  orFail([this] {
    watch_ = core_->reactor().watch(
        socket_.get(), [this] { orFail([this] { readable(); }); }, [this] { orFail([this] { writable(); }); });
    if (!watch_) return fail(3, "the system cannot watch the socket");
    core_->watch(shared_from_this());
    if (slot_.accepted()) watchPeer();
    watch_->wantRead(true);
    writable();
  });
}

/// Without memory for what this peer has begun, its connection ends: to try again would keep the processor busy, and
/// its end gives memory back.
template <typename Work>
void TcpStream::orFail(Work work) {
  const auto self = shared_from_this();
  try {
    work();
  } catch (const std::bad_alloc&) {
    fail(3, "no memory");
  }
}

std::string TcpStream::detach() {
  const auto self = shared_from_this();
  owner_ = nullptr;
  watch_.reset();
  core_->forget(self);
  std::size_t lost = 0;
  std::string unsent;
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    closed_ = true;
    lost = waiting_.size();
    waiting_ = std::string();
    unsent.swap(unsent_);
  }
  if (lost > 0) logUnsent(lost);
  return unsent;
}

void TcpStream::letGo() {
  if (const std::string unsent = detach(); !unsent.empty()) logUnsent(unsent.size());
}

void TcpStream::logUnsent(std::size_t bytes) const {
  core_->log(4, "tcp", "connection ended with %zu bytes unsent", bytes);
}

void TcpStream::fail(int level, std::string_view why) {
  const auto self = shared_from_this();
  StreamOwner* const owner = owner_;
  std::string unsent = detach();
  if (owner != nullptr) owner->streamClosed(*this, level, why, std::move(unsent));
}

// A read that fills the room has probably left something; a peer that never stops gives way to the others after a
// while.
void TcpStream::readable() {
  constexpr std::size_t most = std::size_t{16} * 1024;
  const auto self = shared_from_this();
  for (std::size_t taken = 0; taken < most;) {
    const std::span<char> room = framer_.reserve();
    const ssize_t count = ::recv(socket_.get(), room.data(), room.size(), MSG_DONTWAIT);
    if (count == 0) return fail(5, "closed by the peer");
    if (count < 0) {
      if (errno != EINTR && !wouldBlock(errno)) fail(4, strerrordesc_np(errno));
      return;
    }
    moved_.store(StackCore::now(), std::memory_order_relaxed);
    taken += static_cast<std::size_t>(count);
    framer_.commit(static_cast<std::size_t>(count));
    deliver();
    if (static_cast<std::size_t>(count) < room.size() || owner_ == nullptr || paused_) return;
  }
}

void TcpStream::resume() {
  if (!paused_ || owner_ == nullptr) return;
  paused_ = false;
  orFail([this] {
    deliver();
    if (owner_ != nullptr && !paused_) watch_->wantRead(true);
  });
}

void TcpStream::deliver() {
  // Keep-alives that came together are answered together: a peer that sends nothing else costs no call for each.
  std::string answers;
  bool more = true;
  while (more && owner_ != nullptr) {
    const Framer::Frame frame = framer_.next();
    switch (frame.kind) {
      case Framer::Kind::NeedMore:
        more = false;
        break;
      case Framer::Kind::Malformed:
        return fail(4, frame.reason);
      case Framer::Kind::KeepAlive:
        answers += "\r\n";
        break;
      case Framer::Kind::Message:
        begun_ = 0;
        heard();
        if (owner_->streamMessage(frame.text, frame.length)) break;
        paused_ = true;
        if (watch_) watch_->wantRead(false);
        more = false;
        break;
    }
  }
  // Of a peer that is not read nothing more can come.
  if (owner_ != nullptr && !paused_ && slot_.accepted() && framer_.begun()) {
    if (framer_.hasHead()) heard();
    if (begun_ == 0) {
      begun_ = StackCore::now();
      core_->watchOwed();
    }
  }
  if (answers.empty() || owner_ == nullptr) return;
  iovec place;
  send(sliceOf(answers, place));
}

void TcpStream::watchPeer() {
  silent_since_ = lastMoved();
  slot_.silent([core = core_, weak = weak_from_this()] {
    core->post([weak] {
      if (const auto self = weak.lock()) self->fail(5, "gave way to another");
    });
  });
  core_->watchOwed();
}

void TcpStream::heard() {
  if (silent_since_ == 0) return;
  silent_since_ = 0;
  slot_.heard();
}

void TcpStream::writable() {
  const auto self = shared_from_this();
  std::string bytes;
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (claimed_ || waiting_.empty() || closed_) {
      // A sender that holds the claim asks again if it leaves anything.
      writable_wanted_ = false;
      watch_->wantWrite(false);
      return;
    }
    claimed_ = true;
    bytes = std::move(waiting_);
    waiting_.clear();
  }
  iovec place;
  if (write(sliceOf(bytes, place)) != Sent::Taken) return;
  const std::lock_guard<std::mutex> lock(mutex_);
  if (!waiting_.empty()) return;
  writable_wanted_ = false;
  watch_->wantWrite(false);
}

bool StreamPath::send(std::string_view bytes) {
  const auto stream = stream_.lock();
  iovec place;
  return stream && stream->send(sliceOf(bytes, place)) == TcpStream::Sent::Taken;
}

}  // namespace siplib

#include "siplib/outgoing.h"

#include <cstring>
#include <utility>

#include "siplib/endpoint.h"
#include "siplib/tcp_stream.h"

namespace siplib {

Outgoing::Outgoing() = default;
Outgoing::~Outgoing() = default;

void Outgoing::release() {
  held_ = false;
  flush();
}

void Outgoing::add(std::shared_ptr<Endpoint> endpoint, Slices slices, const SocketAddress& peer) {
  const std::size_t size = sizeOf(slices);
  if (!datagrams_) datagrams_ = std::make_unique_for_overwrite<Datagrams>();
  if (count_ == kMost || size > datagrams_->room.size() - used_) flushDatagrams();
  char* const text = datagrams_->room.data() + used_;
  for (const iovec& slice : slices) {
    std::memcpy(datagrams_->room.data() + used_, slice.iov_base, slice.iov_len);
    used_ += slice.iov_len;
  }
  datagrams_->slices[count_] = {text, size};
  datagrams_->peers[count_] = peer;
  datagrams_->endpoints[count_] = std::move(endpoint);
  SocketAddress& to = datagrams_->peers[count_];
  msghdr& header = datagrams_->headers[count_].msg_hdr;
  header = {};
  header.msg_name = to.buffer();
  header.msg_namelen = to.size();
  header.msg_iov = &datagrams_->slices[count_];
  header.msg_iovlen = 1;
  ++count_;
}

void Outgoing::flush() {
  if (count_ > 0) flushDatagrams();
  // One by one: should memory run out amid them, the next flush finds the others.
  while (!streams_.empty()) {
    const auto stream = std::move(streams_.back());
    streams_.pop_back();
    stream->flush();
  }
}

// Neighbours of one endpoint go together.
void Outgoing::flushDatagrams() {
  Datagrams& all = *datagrams_;
  const std::size_t count = std::exchange(count_, 0);
  used_ = 0;
  for (std::size_t first = 0; first < count;) {
    const auto endpoint = std::move(all.endpoints[first]);
    std::size_t end = first + 1;
    for (; end < count && all.endpoints[end] == endpoint; ++end) all.endpoints[end].reset();
    endpoint->send(std::span(all.headers).subspan(first, end - first));
    first = end;
  }
}

}  // namespace siplib

// A dialog of a subscription (RFC 6665, RFC 3261 12), as notifier or as subscriber.
//
// The texts of From, To and the route set are kept as the peer wrote them and go out like that. libosip2's own dialogs
// are not used: they match without a look at the local tag, and print these texts anew.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "siplib/transaction.h"
#include "siplib/transaction_head.h"

namespace siplib {

class Layer;
class Path;

/// What a dialog knows. A copy is taken for each request.
struct DialogData {
  bool notifier = false;
  std::string call_id;
  /// What stands in From of the requests sent and in To of those received, tag included; `remote` the other way round.
  std::string local;
  std::string local_tag;
  std::string remote;
  /// Empty until the peer has answered or notified.
  std::string remote_tag;
  /// The peer's Contact URI.
  std::string target;
  /// Route values, in the order of the requests sent.
  std::vector<std::string> routes;
  std::uint32_t local_number = 0;
  std::optional<std::uint32_t> remote_number;
  bool terminated = false;
  /// The way the peer's last message of the dialog came; used where its Contact gives no address to send to.
  std::shared_ptr<Path> last_path;
};

class Dialog final : public SIPLIB_SIPDialog, public std::enable_shared_from_this<Dialog> {
 public:
  Dialog(Layer& layer, DialogData data) : layer_(layer), data_(std::move(data)) {}

  SIPLIB_SIPClientConnection* getNewClientConnection(std::string_view method) override;
  bool isTerminated() const override;

  /// How the layer finds it.
  static std::string key(std::string_view call_id, std::string_view local_tag);

  // For the layer and the connections, under the layer's lock.
  DialogData& data() { return data_; }
  /// The peer's first message of a subscription of our own: its tag, Contact and routes.
  void confirm(std::string_view remote_tag, std::string_view remote, const SIPLIB_message& message);
  /// A target refresh (RFC 3261 12.2.1.2, 12.2.2): the Contact of the message, when it has one.
  void refreshTarget(const SIPLIB_message& message);

 private:
  Layer& layer_;
  DialogData data_;
};

}  // namespace siplib

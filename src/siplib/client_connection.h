// A request that the local endpoint sends, as its user sees it.
#pragma once

#include <deque>
#include <memory>
#include <string>
#include <string_view>

#include "siplib/dialog.h"
#include "siplib/transaction.h"

namespace siplib {

class Layer;
class Path;
struct Transaction;

class ClientConnection final : public SIPLIB_SIPClientConnection {
 public:
  /// Outside a dialog, over `path`.
  ClientConnection(Layer& layer, std::shared_ptr<Path> path) : layer_(layer), path_(std::move(path)) {}
  /// Within a dialog whose next request's data is `data`.
  ClientConnection(Layer& layer, std::shared_ptr<Dialog> dialog, const DialogData& data, std::string_view method);

  int receive() override;
  int send() override;
  void setListener(SIPLIB_SIPClientConnectionListener* listener) override;
  int initRequest(std::string_view method, std::string_view request_uri, std::string_view from,
                  std::string_view to) override;
  int getTransactionStatus() const override;
  void release() override;
  SIPLIB_SIPDialog* getDialog() const override;

 private:
  friend class Layer;

  bool sendOver(const std::shared_ptr<Path>& path);
  bool sendToHop();

  Layer& layer_;
  // The user's.
  /// Null within a dialog: the way is chosen when the size is known.
  std::shared_ptr<Path> path_;
  std::shared_ptr<Path> last_path_;
  /// The URI that the request goes to: the first Route's or the remote target.
  std::string next_;
  bool sent_ = false;
  bool well_ = true;

  // Under the layer's lock.
  SIPLIB_SIPClientConnectionListener* listener_ = nullptr;
  std::shared_ptr<Dialog> dialog_;
  Transaction* transaction_ = nullptr;
  std::deque<SIPLIB_SIPMessageHandle> inbox_;
  /// Notifications raised, or about to be, that receive has not answered yet: events that may still name this object.
  std::size_t owed_ = 0;
  /// Released: the turn in which it was, or in which the last of these events was handled.
  std::uint64_t turn_ = 0;
  bool released_ = false;
};

}  // namespace siplib

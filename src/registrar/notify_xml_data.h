// The body of a NOTIFY of the package "local-reg-events": what became of a network profile's user agents.
//
//   create   the profile, all its settings, and the user agents registered so far
//   update   user agents that came or left
//   delete   the profile has no user agent left
#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <vector>

#include "framework/xml_data.h"
#include "registrar/nw_profile.h"
#include "registrar/ua_info.h"

class IMSE_Domain;
class NotifyWriter;

class IMSE_NotifyXmlData : public XmlData {
 public:
  enum Kind { CREATE = 0, UPDATE = 1, DELETE = 2 };

  /// Largest document in bytes. A NOTIFY that goes by UDP must fit one datagram (65,507 bytes) with its head; 4,067
  /// bytes are left for that. The headers of a user agent are repeated in each of its addresses, so a REGISTER of
  /// allowed size could ask for megabytes.
  static constexpr std::size_t kMaxSize = std::size_t{60} * 1024;

  /// A create document. `profile` is not copied and must outlive the encoding.
  IMSE_NotifyXmlData(const std::string& name, const IMSE_REG_NW_PROFILE_T& profile, unsigned short profile_id);
  /// An update document; `update_info` is "add" or "delete".
  IMSE_NotifyXmlData(const std::string& update_info, unsigned short profile_id);
  /// A delete document.
  explicit IMSE_NotifyXmlData(unsigned short profile_id);

  /// 1 for a user agent without address of record, which is not added; else 0.
  int add_ua_info(IMSE_UA_INFO_T info);
  /// False when the document could not be written with this user agent too.
  bool has_room_for(const IMSE_UA_INFO_T& info) const;
  /// Bytes that the document takes at most, with what it holds now.
  std::size_t size() const { return size_; }
  bool fits() const { return size_ <= max_size_; }
  Kind kind() const { return kind_; }
  /// 0, or -1 with a line at level 4; the text is then absent.
  int encodeXml() override;
  /// Bytes of the largest update document about a user agent with these addresses and headers, whatever its id.
  static std::size_t update_size(const std::vector<std::unique_ptr<ClientAOR_T>>& aors,
                                 const std::vector<ClientHeader_T>& headers);
  void set_max_size(std::size_t size) { max_size_ = size; }

  /// The one to tell what became of the document when it had to wait; not owned, outlives it. Null: nobody.
  void set_domain(IMSE_Domain* domain) { domain_ = domain; }
  IMSE_Domain* domain() const { return domain_; }
  /// Part of telling a watcher everything: bounded by the user agents that there are.
  void set_whole(bool whole) { whole_ = whole; }
  bool whole() const { return whole_; }

  // Pieces of a document, in the order in which a create document has them. 1 when written; 0, and `step` set, when
  // not.
  int write_generic_notify(NotifyWriter& writer, const char* action, int& step) const;
  int write_ua_info(NotifyWriter& writer, int& step) const;
  int write_nw_profile_retry_mech(NotifyWriter& writer, int& step) const;
  int write_nw_profile_till_md5(NotifyWriter& writer, int& step) const;
  int write_nw_profile_network_logic(NotifyWriter& writer, int& step) const;
  int write_nw_profile_till_domain_name(NotifyWriter& writer, int& step) const;
  int write_nw_profile_finish(NotifyWriter& writer, int& step) const;

 private:
  int encode_notify_create();
  int encode_notify_update();
  int encode_notify_delete();
  /// The common end of the three: takes the text over, or tells the step that failed.
  int conclude(NotifyWriter& writer, bool written, int step, const char* document, const char* function);

  Kind kind_;
  std::string name_;  ///< of the profile; empty but for a create document
  unsigned short profile_id_;
  std::string update_info_;
  std::vector<IMSE_UA_INFO_T> ua_infos_;
  const IMSE_REG_NW_PROFILE_T* profile_ = nullptr;  ///< of a create document
  std::size_t size_;
  std::size_t max_size_ = kMaxSize;
  IMSE_Domain* domain_ = nullptr;
  bool whole_ = false;
};

// A network profile that external user agents register into, and what watchers are told about it.
//
// The notify state says what the watcher knows: nothing (0), the profile and its user agents (1, updates follow), or
// that the profile has lost its last user agent (2, the next one is told as a new profile again). A document that waits
// counts as told; one that then cannot go out takes the state back to 0, and the next create document tells of all.
//
// Ownership: owns neither clients nor subscriber. A client leaves by itself when it is deleted (`forget`); whoever
// deletes the subscriber calls `unset_subscriber`. Loop thread only.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "registrar/nw_profile.h"
#include "registrar/wants.h"

class IMSE_ExtClient;
class IMSE_NotifyXmlData;
class IMSE_RegSubscriber;
struct IMSE_UA_INFO_T;

class IMSE_Domain {
 public:
  enum NotifyState { NOTHING_SENT = 0, CREATE_SENT = 1, DELETE_SENT = 2 };

  /// Takes the next profile id and reads the profile's settings. Sends nothing. `subscriber` may be null.
  IMSE_Domain(const std::string& profile_name, IMSE_RegSubscriber* subscriber);
  ~IMSE_Domain() = default;
  IMSE_Domain(const IMSE_Domain&) = delete;
  IMSE_Domain& operator=(const IMSE_Domain&) = delete;

  bool is_match(const std::string& name) const { return name == profile_name_; }
  const std::string& get_prof_name() const { return profile_name_; }
  int get_prof_id() const { return static_cast<int>(profile_id_); }
  /// True when a client of the domain wants the same requests as the given one.
  bool is_client_exist(IMSE_ExtClient* client) const;

  // 0 when done, 1 when not. `notify`: tell the watcher, when there is one.

  int add(IMSE_ExtClient* client, bool notify);
  /// Also 1 for a client that is not in the domain.
  int remove(IMSE_ExtClient* client, bool notify);
  /// Null changes nothing. Another one is told of the domain's clients, if it has any.
  void set_subscriber(IMSE_RegSubscriber* subscriber);
  void unset_subscriber();
  /// Tells the watcher how things stand, whatever it was told before: everything in new create documents, or that the
  /// profile it knows has no user agent left.
  void tell_anew();

  // What became of a document, from the subscriber.

  void document_sent(const IMSE_NotifyXmlData& document);
  /// It had to wait, and could not go out when its turn came.
  void document_lost();

  /// Private identity, secret (read now, never kept) and operation mode of the profile.
  void get_profile_credentials(std::string& first, std::string& second, std::string& third) const;
  /// Drops a client that is being deleted, without telling anyone.
  void forget(const IMSE_ExtClient* client);

  const IMSE_REG_NW_PROFILE_T& nw_profile() const { return nw_profile_; }
  NotifyState notify_state() const { return notify_state_; }
  const std::vector<IMSE_ExtClient*>& clients() const { return clients_; }

  /// The id of the next domain; never reused.
  static std::uint32_t profile_id_counter;

 private:
  void read_nw_profile(const std::string& document);
  void take_in(IMSE_ExtClient* client);
  void let_go(const IMSE_ExtClient* client);
  // The NOTIFYs; 0 or 1 as above.
  int send_notify_and_add(IMSE_ExtClient* client, bool notify);
  int send_notify_update_add(IMSE_ExtClient* client, bool notify, const std::string& action);
  /// 0 also when the NOTIFY could not be sent: the client leaves all the same.
  int send_notify_update_delete(IMSE_ExtClient* client, bool notify, const std::string& action);
  int send_notify_delete(bool whole = false);
  /// Tells of these clients: as many as fit into the create document, the others in updates behind it. `whole`: these
  /// are all that there are. `last`: what is told of the last of them, when it has been asked already; else null.
  int send_create(std::unique_ptr<IMSE_NotifyXmlData> document, const std::vector<IMSE_ExtClient*>& clients, bool whole,
                  IMSE_UA_INFO_T* last = nullptr);
  /// False, with a log line, when the profile's own settings are too large for any document.
  bool can_be_told(const IMSE_NotifyXmlData& document) const;
  // Null when there is no memory for it.
  std::unique_ptr<IMSE_NotifyXmlData> create_document();
  std::unique_ptr<IMSE_NotifyXmlData> update_document(const std::string& action);
  std::unique_ptr<IMSE_NotifyXmlData> update_document(IMSE_ExtClient* client, const std::string& action);

  std::string profile_name_;
  IMSE_REG_NW_PROFILE_T nw_profile_;
  std::uint32_t profile_id_;
  NotifyState notify_state_ = NOTHING_SENT;
  bool known_ = false;                    ///< to the watcher: a create document has gone out, and no delete since
  std::vector<IMSE_ExtClient*> clients_;  ///< in the order of registration
  IMSE_Wants wants_;                      ///< of clients_
  IMSE_RegSubscriber* subscriber_;
};

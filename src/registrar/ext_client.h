// A user agent outside the terminal's own modules: belongs to a network profile, watchers hear of it.
#pragma once

#include <set>
#include <string>
#include <vector>

#include "registrar/client.h"
#include "registrar/ua_info.h"

class IMSE_Domain;

class IMSE_ExtClient : public IMSE_Client {
 public:
  IMSE_ExtClient(std::unique_ptr<RegisterXmlData> body, std::uint32_t ua_id);
  /// Leaves its domain without a word, should it still be there.
  ~IMSE_ExtClient() override;

  int get_client_info(ClientTable_Entry_T& entry) override;
  int is_external() const override { return 1; }
  int accept() override;
  /// As that of the base; a 200 carries "Zel-Profile-ID" too.
  int send_response(int status);

  /// 0 always.
  int get_ua_info(IMSE_UA_INFO_T& info) const;
  void get_ua_aor(std::vector<IMSE_UA_AOR_T>& aors) const;
  /// Null when the body had none.
  const RegisterXmlData::AorList* get_aor() const { return body().get_aor(); }
  /// The same without a line in the log.
  const RegisterXmlData::AorList* aors() const { return body().aors(); }
  /// 1 when both want the same requests: an address of record in common with a feature tag in common, or an event
  /// package in common.
  int match_routing_info(const IMSE_ExtClient* other) const;
  int match_routing_info(const ClientAOR_T* aor) const;
  /// 1 when at least one text is in both; exact comparison.
  static int match_lists(const std::set<std::string>& own, const std::vector<std::string>& other);
  /// The same with a text that is a list, separated by commas.
  static int match_lists(const std::set<std::string>& own, const std::string& other);
  std::string get_nw_profile_name() const { return body().get_net_prof_name(); }
  std::uint32_t get_ua_id() const { return ua_id_; }
  void set_ua_id(std::uint32_t id) { ua_id_ = id; }
  /// Not owned; outlives the client.
  void set_domain(IMSE_Domain* domain) { domain_ = domain; }
  IMSE_Domain* get_domain() const { return domain_; }

 private:
  std::uint32_t ua_id_;
  IMSE_Domain* domain_ = nullptr;
};

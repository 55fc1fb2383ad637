// A network profile as the registrar knows it: one text for each setting, as the profile document gives it.
#pragma once

#include <span>
#include <string>

struct IMSE_REG_NW_PROFILE_T {
  std::string operation_mode;
  std::string reg_initial_retry_after;
  std::string reg_refresh_retry_after;
  std::string reg_max_attempts;
  std::string reg_ignore_retry_after;
  std::string link_max_attempts;
  std::string link_interval;
  std::string reg_expiry;
  std::string compression;
  std::string policy;
  std::string nw_reg_event_support;
  std::string uicc_applications;
  std::string sa_in_algo;
  std::string sa_enc_algo;
  std::string impi;
  std::string impu;
  std::string access_network;
  std::string authorized_ap;
  std::string ieee_access_type;
  std::string ap_id_type;
  std::string authorized_plmns;
  std::string access_type_3gpp;
  std::string ue_sip_port;
  std::string ue_trans_pref;
  std::string ue_threshold_pref;
  std::string registrar_address;
  std::string registrar_realm;
  std::string domain_name;
  std::string disc_pref;
  std::string dns_realm;
  std::string dns_services;
  std::string ip_address;
  std::string napi_profile_name;
  std::string initial_route_set;
};

struct IMSE_NW_PROFILE_KEY_T {
  std::string IMSE_REG_NW_PROFILE_T::*field;
  const char* key;
};

/// Every setting, with where it stands in a profile document.
std::span<const IMSE_NW_PROFILE_KEY_T> imse_nw_profile_keys();

// The records of the domain table: one domain is one network profile that a route was set for.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

class SIPLIB_SIPClientTcpTransport;
class SIPLIB_SIPTransportNotifier;

/// A security association. The second word names it; the others are carried unchanged.
struct SA_Info_T {
  std::uint32_t first;
  std::uint32_t id;
  std::uint32_t third;
};

/// A domain as it is added.
struct Domain_Entry_T {
  std::string profile_id;       ///< decimal; the domain's identity
  std::string net_intf;         ///< what IMS_utility::getlocalip turns into the local network address
  std::string proxy_ip;         ///< outbound proxy
  std::string proxy_port;       ///< decimal
  std::string proxy_transport;  ///< "TCP" (any case) or another
  std::string mode_flag;        ///< stored, never read here
  std::string route_set;
  std::string username;
  std::string password;
  std::string op_mode;
  std::vector<SA_Info_T> sa_info_list;
};

/// A domain as it is stored.
struct DomainTable_Entry_T {
  Domain_Entry_T domain;
  std::uint32_t client_count = 0;                           ///< bookkeeping only
  SIPLIB_SIPClientTcpTransport* tcp_client_conn = nullptr;  ///< to the outbound proxy; not owned, null unless TCP
  SIPLIB_SIPTransportNotifier* pnotifier = nullptr;         ///< the network-side listener; not owned
  bool connection_ended = false;                            ///< the connection was closed for good; the field stays
};

/// Names a domain, or the field to change.
enum DomainTable_Field_T {
  DT_PROFILE_ID = 0,
  DT_PROXY_IP = 2,
  DT_PROXY_PORT = 3,
  DT_ROUTE_SET = 4,
  DT_TCP_CLIENT_CONN = 7,
  DT_PNOTIFIER = 8
};

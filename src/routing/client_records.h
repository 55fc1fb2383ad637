// The records of the client table: one client is one local user agent. Texts are bytes; an empty text means "not set";
// lists keep the order in which they were filled.
#pragma once

#include <string>
#include <vector>

class SIPLIB_SIPClientTcpTransport;

/// An address of record and what its client can handle under it.
struct ClientAOR_T {
  std::string aor;                        ///< user@domain, as the client wrote it
  std::vector<std::string> feature_tags;  ///< one tag per element
  std::string events;                     ///< event packages, one text, searched by substring
  std::string methods;                    ///< methods, likewise
  std::string content_types;              ///< content types, likewise
};

/// A header that a client wants added on its behalf.
struct ClientHeader_T {
  std::string name;
  std::string value;
};

/// A client as it is added and read.
struct ClientTable_Entry_T {
  std::string ua_port;  ///< decimal port on the loopback address: the client's identity
  std::string uri;      ///< the client's own SIP URI
  std::vector<ClientAOR_T> aors;
  std::string profile_id;  ///< decimal network profile id: links to a domain
  std::string profile_name;
  std::string spare_text;  ///< copied with the record, never read
  std::vector<ClientHeader_T> headers;
  std::string packages;  ///< event packages that the client serves as a whole
};

/// A client as it is stored.
struct RoutingTable_Entry_T : ClientTable_Entry_T {
  std::string domain_key;  ///< empty while no domain has the client's profile id
  /// The connection opened to the client when it was added; not owned, null when opening failed.
  SIPLIB_SIPClientTcpTransport* tcp_client_conn = nullptr;
};

/// How a caller names one client.
enum ClientTable_Field_T { CT_UA_PORT = 0 };

/// What a search looks at. Value 2 is nobody's.
enum ClientFilter_Field_T {
  CF_UA_PORT = 0,
  CF_URI = 1,
  CF_EVENT = 3,
  CF_METHOD = 4,
  CF_CONTENT_TYPE = 5,
  CF_AOR = 6,
  CF_PACKAGES = 7
};

// One accepted TCP connection, as the engine remembers it.
#pragma once

#include <string>

class SIPLIB_SIPServerTcpTransport;

struct IMS_PROXY_TCP_SERVER_CONN_T {
  SIPLIB_SIPServerTcpTransport* connection = nullptr;  ///< the record's identity; the library's
  int local_port = 0;
  std::string local_address;  ///< "127.0.0.1" for a local user agent
  std::string tag;            ///< random; stands in messages as "st"
};

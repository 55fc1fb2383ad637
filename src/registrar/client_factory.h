// Makes a client out of a REGISTER.
#pragma once

#include <cstdint>
#include <memory>

class IMSE_Client;
class SIPLIB_SIPServerConnection;

class IMSE_ClientFactory {
 public:
  /// Null, with a log line, when the content is not "application/xml" (without parameters), absent, not one of the two
  /// bodies, or more than a NOTIFY could tell. The request stays the caller's; process_register gives it to the client.
  static std::unique_ptr<IMSE_Client> create_client(SIPLIB_SIPServerConnection* request);

  /// The id given last to an external client; never reused.
  static std::uint32_t ua_id_counter;
};

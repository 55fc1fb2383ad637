// Makes a client out of a REGISTER.
#pragma once

#include <cstdint>
#include <memory>

class IMSE_Client;
class SIPLIB_SIPServerConnection;

class IMSE_ClientFactory {
 public:
  /// Null, with a log line, when the content is not "application/xml" (without parameters), absent, not one of the two
  /// bodies, more than a NOTIFY could tell, or above what one client or all together may bring (see
  /// framework/bounds.h). `replaced`: a client that goes when this one comes, and counts no more; may be null. The
  /// request stays the caller's; process_register gives it to the client.
  static std::unique_ptr<IMSE_Client> create_client(SIPLIB_SIPServerConnection* request,
                                                    const IMSE_Client* replaced = nullptr);

  /// The id given last to an external client; never reused.
  static std::uint32_t ua_id_counter;
};

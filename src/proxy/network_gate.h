// What nobody in the network may say. A user agent answers and goes on in the words of whom it talks to: by them a
// stranger could have a message led into the terminal that never leaves it, to the registrar or to another user agent.
//
// Each is one line at level 3. A message that passes is what it says to be only as far as the terminal is concerned.
#pragma once

#include <string>

class SIPLIB_SIPAddress;
class SIPLIB_SIPTransportConnection;

namespace network_gate {

/// False when the request is dropped. `from` and `to` may be null.
bool admits_request(const char* function, const SIPLIB_SIPTransportConnection* connection, const std::string& method,
                    const SIPLIB_SIPAddress* from, const SIPLIB_SIPAddress* to);
/// The same for what comes in as an answer, or as a request where only answers are looked for.
bool admits_response(const char* function, const SIPLIB_SIPTransportConnection* connection);

}  // namespace network_gate

// What nobody in the network may say. A user agent answers and goes on in the words of whom it talks to: by them a
// stranger could have a message led into the terminal that never leaves it, to the registrar or to another user agent.
//
// Each is one line at level 3. A message that passes is what it says to be only as far as the terminal is concerned.
#pragma once

#include <string>
#include <string_view>

class SIPLIB_SIPAddress;
class SIPLIB_SIPTransportConnection;

namespace network_gate {

/// False when the request is dropped. `from` may be null.
bool admits_request(const char* function, const SIPLIB_SIPTransportConnection* connection, const std::string& method,
                    const SIPLIB_SIPAddress* from);
/// The same for what comes in as an answer, or as a request where only answers are looked for.
bool admits_response(const char* function, const SIPLIB_SIPTransportConnection* connection);
/// False, and one line, when the Contact holds a key by which the user agent's later requests would go on in another's
/// name. `tag` (";mok=KEY" or ";mtk=KEY") is what the proxy puts into it; another terminal's proxy has put in the other
/// one, if any, within the same URI.
bool admits_contact(const char* function, const SIPLIB_SIPTransportConnection* connection, std::string_view tag);

}  // namespace network_gate

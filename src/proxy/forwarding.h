// What several forwarding directions do alike: reading and cutting tags, and the last step of handing a message on.
//
// `function` is always the name of the operation in whose name lines are logged.
#pragma once

#include <memory>
#include <string>

#include "siplib/recycled.h"

class SIPLIB_SIPHeader;
class SIPLIB_SIPTransportConnection;
class SIPLIB_SIPTransportNotifier;
struct DomainTable_Entry_T;
struct RoutingTable_Entry_T;

namespace forwarding {

/// Stands in for the branch that a network proxy's Via lacks, so that the answer can be told to lack it again.
inline constexpr const char* kNoBranch = "z9hG4bK-nobranch";

/// Where `mark` begins in `text`, for comparing and logging; -1 when it is absent.
int position(const std::string& text, const char* mark);
/// Puts `tags` right before the first ">"; a contact without one stays as it is.
void insert_tags(std::string& contact, const std::string& tags);
/// Removes everything from the first occurrence of `mark` on.
void cut_from(std::string& text, const std::string& mark);

/// A request's target and where the first tag of each kind stands in it; -1 when it is absent.
struct RequestUri {
  RequestUri(const char* function, const SIPLIB_SIPTransportConnection* connection);
  bool in_dialog() const { return mok_pos >= 0 || mtk_pos >= 0; }

  const siplib::Scratch text;
  const int mok_pos;
  const int mtk_pos;
};
/// Which tag counts when a Request-URI holds both.
enum class Wins { kEarlier, kLater };
/// The tag of an in-dialog request, ";mok=KEY" or ";mtk=KEY", and its key.
std::string dialog_tag(const char* function, const RequestUri& uri, Wins wins, std::string& key);

/// The client of a key that the network named; null when there is none. The proxy's own entry is none: the registrar
/// behind it is for the terminal's user agents.
const RoutingTable_Entry_T* user_agent(const std::string& key);

/// The topmost Via, as text and taken apart; null when it is absent or does not parse.
std::unique_ptr<SIPLIB_SIPHeader> read_via(const SIPLIB_SIPTransportConnection* connection, std::string& via);
/// Puts `tags` into the message's Contact, if it has one; `contact` is its new value, or empty.
void tag_contact(SIPLIB_SIPTransportConnection* connection, const std::string& tags, std::string& contact);
/// Takes out every Zel-Profile-ID: it is between a client and the proxy, and a second one must not get past.
void remove_profile_id(SIPLIB_SIPTransportConnection* connection);
/// Adds the proxy's own User-agent.
void add_user_agent(const char* function, SIPLIB_SIPTransportConnection* connection);
/// The domain's own address towards its proxy. False with one line at level 3 when it has no listener.
bool current_address(const char* function, const std::string& domain_key, const DomainTable_Entry_T& domain,
                     const char* transport, std::string& ip, int& port);

/// False with one line at level 3 when there is no connection. `owner` says whose `key` is ("client", "domain").
bool is_there(const char* function, const SIPLIB_SIPTransportConnection* connection, const char* owner,
              const std::string& key);
/// Sends the connection's current message. False with one line at level 3 when it was not taken.
bool send(const char* function, SIPLIB_SIPTransportConnection* connection, const char* owner, const std::string& key);

/// Who opened an accepted connection.
enum class Side { kUserAgents, kNetwork };
/// Sends the response that is `from`'s current message on the accepted connection of the st tag. One line at level 3
/// when that connection is no longer there, or on the other side: a peer can have the tag from a message and send it
/// back. `key` is the client's or, towards the network, the domain's.
void send_response(const char* function, const SIPLIB_SIPTransportConnection* from, const std::string& st_tag, Side to,
                   const std::string& key);

/// A UDP connection to the client's port. Null with one line at level 3.
SIPLIB_SIPTransportConnection* open_udp_to_client(const char* function, const RoutingTable_Entry_T& client);
/// Sends and closes, whatever became of it; false when it was not sent.
bool send_and_close(const char* function, SIPLIB_SIPTransportConnection* connection, const char* owner,
                    const std::string& key);
/// Sends the message of `from` in one datagram to the client. The connection that it left on, for logging only; null
/// with one line at level 3.
const void* send_udp_to_client(const char* function, const SIPLIB_SIPTransportConnection* from, const std::string& key,
                               const RoutingTable_Entry_T& client);
/// The same to the domain's proxy, from the domain's UDP address.
const void* send_udp_to_network(const char* function, const SIPLIB_SIPTransportConnection* from, const std::string& key,
                                const DomainTable_Entry_T& domain);

}  // namespace forwarding

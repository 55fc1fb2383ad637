// A user agent of the framework: command line, configuration, SIP connections, and the one message loop.
//
// The loop is where a user agent lives: everything that happens elsewhere (sockets, control channel, signals) is put on
// its queue as a message, a type and a pointer, and handled one at a time in queue order. One turn of the loop: take a
// message, let the user agent handle it, free what was closed meanwhile. With `io-thread` off (the default) the loop
// drives the sockets itself between turns; with it on, an I/O thread does, and a wake-up is paid only when the loop
// sleeps.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "framework/daemon.h"
#include "siplib/connection.h"
#include "siplib/connector.h"
#include "siplib/stack.h"

namespace siplib {
class Reactor;
}

/// What a queued message is about.
enum MSG_TYPE : std::uint32_t {
  MSG_REGISTRAR_RESPONSE = 1,  ///< SIPLIB_SIPClientConnection with an answer
  MSG_REGISTRAR_REQUEST = 2,   ///< SIPLIB_SIPServerConnection
  MSG_TCP_RESPONSE = 3,        ///< client TCP transport that received a message
  MSG_TCP_CLIENT_CLOSED = 4,   ///< client TCP transport
  MSG_TCP_REQUEST = 5,         ///< server TCP transport that received a message
  MSG_TCP_INCOMING = 6,        ///< new server TCP transport
  MSG_TCP_SERVER_CLOSED = 7,   ///< server TCP transport
  MSG_UDP_MESSAGE = 8,         ///< server UDP transport that received a message
  MSG_FRAMEWORK_TEXT = 11,     ///< NUL-terminated text, owned by the queue until its handler returns
};

/// A queued message; its first word is the type. Connections are put in as `SIPLIB_SIPConnection*`.
struct IMS_Queue_Message {
  std::uint32_t type;
  void* data;
};

class IMS_User_Agent : public IMS_daemon {
 public:
  IMS_User_Agent();
  ~IMS_User_Agent() override;

  // --- Command line -------------------------------------------------------------------------------------------------

  /// Makes "Xword value" known as an option of the program (any first character X), so that the framework's own parsing
  /// passes over it. `help` is what the usage says of it. Both must outlive the process (literals).
  static void add_program_option(const char* word, const char* help = "");
  /// Reads the framework's options (see --help). An unknown one or a missing argument: one line on standard error,
  /// exit 2. --version prints and exits 0. --check-config reports every fault of the configuration documents, exits 0
  /// or 1.
  static void set_options(int argc, char** argv);
  void print_usage() override;

  // --- Start and stop -----------------------------------------------------------------------------------------------

  /// Makes the reactor, catches signals, opens the control channel, writes the pid file. False with one line for each
  /// that failed; the process can go on without.
  bool open_framework_sockets();
  void close_framework_sockets();
  void clean_daemon() override;
  void set_signal_handlers() override;
  /// Starts listening on the control channel. 1 when it is open.
  int create_all_external_descriptors();
  /// Fills the stack's settings from the elements under `node` of the document "config", and sets the process's bounds
  /// (bounds.h). A value that is not a number of its range keeps the default, with one log line.
  void init_sipstack_info(const char* node, SIPLIB_SIPStackConfig& config);
  /// Sets `ua_connector` from the process's stack when it is there, and starts the I/O (until now nothing was read).
  void wait_for_framework_init();
  /// The message loop: until SIGTERM or SIGINT, or stop_message_loop.
  void handle_message();
  /// Any thread.
  void stop_message_loop();
  /// One turn for the first queued message; false when there is none. For tests; handle_message is made of it.
  bool handle_one_message();

  // --- Configuration ------------------------------------------------------------------------------------------------

  static void set_config_dir(const std::string& dir);
  static void set_run_dir(const std::string& dir);
  static const std::string& config_dir();
  static const std::string& run_dir();
  /// The text of the first node that the XPath `key` finds in the document. An absent document or key, or a name that
  /// is no document name, gives an empty text and false; a document that does not parse reads as an empty one, with one
  /// line.
  static bool get_xml_parameter(const std::string& key, std::string& value, const std::string& document);
  /// Replaces the capability file atomically with one "NAME: VALUE" line per pair; `count` is the number of texts that
  /// follow. False with a log line when it cannot be written; the old file then stays.
  bool create_cap_file(int count, ...);

  // --- SIP ----------------------------------------------------------------------------------------------------------

  /// The process's connector, for conn_open's argument. Null until wait_for_framework_init, until the first conn_open
  /// with a null connector, or until a test sets it.
  static SIPLIB_SIPConnector* ua_connector;
  /// This user agent's own URI in angle brackets.
  static std::string __ua_myuri;

  /// Opens the local notifier named by `uri` ("sip:5060"). `reserved` is null. A null connector means the process's
  /// own, which is there from SIPLIB_SIPInit on, in both forms. Null with a log line.
  static SIPLIB_SIPConnectionNotifier* conn_open(SIPLIB_SIPConnector* connector, const std::string& uri,
                                                 void* reserved);
  /// With `destination` null: a listening transport on `address`:`port`, a SIPLIB_SIPTransportNotifier. Otherwise a
  /// client connection from there to `destination`:`destination_port`, a SIPLIB_SIPTransportConnection. Null with a log
  /// line.
  static SIPLIB_SIPConnection* conn_open(SIPLIB_SIPConnector* connector, const std::string& transport,
                                         const std::string& address, int port, const char* destination,
                                         int destination_port);
  /// Opens the local notifier on the first free port from `port` on (100 tried) and fills `__ua_myuri` with it.
  virtual SIPLIB_SIPConnectionNotifier* open_local_notifier(int port);
  /// Sets `__ua_myuri` to the loopback address and the port.
  void fill_myuri(int port);

  // --- Events -------------------------------------------------------------------------------------------------------

  virtual void handle_notify_tcp_request(SIPLIB_SIPConnection* connection);
  virtual void handle_notify_tcp_response(SIPLIB_SIPConnection* connection);
  virtual void handle_notify_tcp_incoming_conn(SIPLIB_SIPConnection* connection);
  virtual void handle_notify_tcp_conn_closed(SIPLIB_SIPConnection* connection);
  virtual void handle_notify_udp_message(SIPLIB_SIPConnection* connection);
  /// Turns a queued message (IMS_Queue_Message*) into an event id; 0 when it has none.
  virtual unsigned int get_event_id_from_message(void* message);
  /// Handles one event; the base ignores it.
  virtual void handle_event(unsigned int event_id, void* data);
  /// Queues a message for the loop. Any thread. A MSG_FRAMEWORK_TEXT's data is a char* made with new[] and taken over.
  void fill_queue_and_send_signal(MSG_TYPE type, void* data);

  /// The reactor that this user agent waits in; null before open_framework_sockets.
  siplib::Reactor* reactor();

 private:
  struct State;
  std::unique_ptr<State> state_;
};

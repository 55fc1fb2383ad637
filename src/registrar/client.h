// A user agent that registered at the local registrar, or is about to.
//
// A client remembers what identifies its registration (Call-ID, CSeq, From URI, Contact and its port), says what a
// further REGISTER of the same party means (`process_register`), and answers it. What follows from the meaning is the
// registrar's business.
//
// Ownership: owns its body. The pending request is the SIP library's and lives for one turn of the loop: whoever closes
// it calls `forget_request` on the clients that stay. Loop thread only.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "registrar/register_xml_data.h"
#include "routing/client_amount.h"

class SIPLIB_SIPServerConnection;

/// What a REGISTER means to a client; the values stand in the log.
enum IMSE_REGISTER_CLASS_T {
  IMSE_REGISTER_NEW = 0,             ///< first one, or the one that answers a challenge
  IMSE_REGISTER_AGAIN = 1,           ///< a new Call-ID of a known party
  IMSE_REGISTER_RETRANSMISSION = 2,  ///< the last one once more
  IMSE_REGISTER_REFRESH = 3,
  IMSE_REGISTER_DEREGISTRATION = 4,
  IMSE_REGISTER_INVALID = 5
};

/// How far a registration has come.
enum IMSE_CLIENT_STATE_T { IMSE_CLIENT_NEW = 0, IMSE_CLIENT_CHALLENGED = 1, IMSE_CLIENT_REGISTERED = 2 };

class IMSE_Client {
 public:
  /// `body` has been parsed; not null.
  explicit IMSE_Client(std::unique_ptr<RegisterXmlData> body);
  /// Releases a request that is still pending.
  virtual ~IMSE_Client();
  IMSE_Client(const IMSE_Client&) = delete;
  IMSE_Client& operator=(const IMSE_Client&) = delete;

  /// Fills a record of the routing table; 0 when done.
  virtual int get_client_info(ClientTable_Entry_T& entry);
  /// Says what the REGISTER means (an IMSE_REGISTER_CLASS_T) and keeps it as the pending request. A first one and one
  /// that goes on in order change what the client remembers, others do not.
  virtual int process_register(SIPLIB_SIPServerConnection* request);
  /// Answers the pending request 401; 0 when done.
  virtual int authorize();
  virtual int is_external() const = 0;
  /// Answers the pending request 200; 0 when done. Each request is answered once at most.
  virtual int accept();
  virtual int reject(int status);

  /// Who a REGISTER is of. Reading it is the dear part of a comparison, and there may be hundreds of clients to
  /// compare.
  struct Identity {
    std::string call_id;
    std::string cseq;
    std::string from;  ///< URI
    int port = -1;     ///< of the Contact
    bool whole = false;
  };
  static Identity read_identity(SIPLIB_SIPServerConnection* request);
  /// 0, or 1 when a header is missing or the Contact names no port. The outputs are those of the headers read so far.
  static int get_headers(SIPLIB_SIPServerConnection* request, std::string& call_id, std::string& cseq,
                         std::string& from, int& port);
  /// Answers the pending request and lets go of it. 1 when there is none or it takes no answer; else 0, whether or not
  /// the answer could be sent.
  int send_response(int status);
  /// 1 when the REGISTER is of this party: its Contact has the same port or, unless the client is anonymous, its From
  /// the same URI.
  int is_match(SIPLIB_SIPServerConnection* request) const;
  int is_match(const Identity& request) const;
  int get_expiry_value() const;
  std::uint16_t get_port() const { return port_; }
  IMSE_Client* get_prev_client() const { return prev_client_; }
  void set_prev_client(IMSE_Client* client) { prev_client_ = client; }
  /// 0 always: the registrar keeps no credentials of its clients.
  int match_credentails() const { return 0; }
  /// Lets go of the request without an answer, when it is the pending one.
  void forget_request(const SIPLIB_SIPServerConnection* request);
  IMSE_CLIENT_STATE_T state() const { return state_; }
  /// Counts so much as registered while the client lives. Once.
  void hold(const ClientAmount& amount);
  const ClientAmount& held() const { return held_; }
  /// By all clients.
  static const ClientAmount& held_by_all() { return held_by_all_; }

 protected:
  /// Answers the pending request. `failure` is logged when it takes no answer; `profile_id` goes into a 200 when not
  /// null.
  int answer(int status, const char* failure, const std::string* profile_id);
  void set_registered() { state_ = IMSE_CLIENT_REGISTERED; }
  const RegisterXmlData& body() const { return *body_; }
  const std::string& from() const { return from_; }

 private:
  std::string from_;        ///< URI of the From header
  std::uint16_t port_ = 0;  ///< of the Contact: the client's identity on the loopback interface
  std::string call_id_;     ///< empty until a first REGISTER was taken
  std::string cseq_;        ///< header value of the last REGISTER taken
  std::string contact_;     ///< header value, echoed in the 200
  IMSE_CLIENT_STATE_T state_ = IMSE_CLIENT_NEW;
  int expires_ = 0;  ///< seconds, as the last REGISTER taken said
  SIPLIB_SIPServerConnection* request_ = nullptr;
  IMSE_Client* prev_client_ = nullptr;  ///< the one that this one replaces; not owned
  std::unique_ptr<RegisterXmlData> body_;
  ClientAmount held_;
  static ClientAmount held_by_all_;
};

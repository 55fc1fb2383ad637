// What the registrar talks to, as records of what it did: transactions, a dialog, the routing table. A transaction is
// good for one turn, as the library's are: what touches it later fails the test.
#pragma once

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <deque>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "framework/log.h"
#include "framework/user_agent.h"
#include "routing/routing_table_intf.h"
#include "siplib/transaction.h"
#include "support/fake_siplib.h"
#include "support/temp_dir.h"

namespace fake {

/// What is refused in passing stays out of the test's output.
inline const bool kQuiet = (IMS_log::set_level(3), true);

class Dialog;

/// As it stands in the log.
inline std::string pointer(const void* value) {
  char text[32];
  std::snprintf(text, sizeof text, "%p", value);
  return text;
}

/// A request at the registrar. Readers speak of the request, setters of the answer once it is initialised.
class Request : public SIPLIB_SIPServerConnection {
 public:
  explicit Request(std::string_view text) {
    message_ = SIPLIB_SIPMessageHandle(new SIPLIB_message(text.data(), text.size()));
  }

  std::vector<std::string> answers;  ///< texts of what was sent
  int releases = 0;
  bool refuse_answer = false;  ///< initResponse fails
  int send_result = 0;
  SIPLIB_SIPDialog* dialog = nullptr;

  /// Nothing may use it any more.
  void endTurn() { over_ = true; }
  /// 0 when there was not exactly one answer.
  int status() const { return answers.size() == 1 ? parsed().statusCode() : 0; }
  /// A header of the one answer; "(none)" when absent.
  std::string answered(std::string_view name) const {
    const SIPLIB_message answer = parsed();
    return std::string(answer.header(name).value_or("(none)"));
  }

  int initResponse(int status) override {
    check();
    if (refuse_answer || answered_ || releases > 0) return -1;
    response_ = SIPLIB_SIPMessageHandle(new SIPLIB_message(status, "Reason"));
    return 0;
  }
  int send() override {
    check();
    EXPECT_TRUE(response_) << "nothing to send";
    answered_ = true;
    answers.push_back(response_->text());
    response_ = SIPLIB_SIPMessageHandle();
    return send_result;
  }
  void release() override {
    check();
    ++releases;
  }
  SIPLIB_SIPDialog* getDialog() const override {
    check();
    return dialog;
  }

 protected:
  SIPLIB_message* writable() override { return response_ ? response_.get() : message_.get(); }

 private:
  SIPLIB_message parsed() const {
    const std::string text = answers.empty() ? std::string() : answers.front();
    return SIPLIB_message(text.data(), text.size());
  }
  void check() const { EXPECT_FALSE(over_) << "used after its turn"; }

  SIPLIB_SIPMessageHandle response_;
  bool answered_ = false;
  bool over_ = false;
};

/// A NOTIFY. Its answer is put in with `answer`; receive() takes it.
class Notify : public SIPLIB_SIPClientConnection {
 public:
  explicit Notify(SIPLIB_SIPDialog* dialog_in) : dialog(dialog_in) {
    message_ = SIPLIB_SIPMessageHandle(new SIPLIB_message("NOTIFY", "sip:regua@127.0.0.1:5080"));
  }

  SIPLIB_SIPDialog* dialog;
  SIPLIB_SIPClientConnectionListener* listener = nullptr;
  std::string sent;
  int sends = 0;
  int send_result = 0;
  int releases = 0;
  int transaction_status = 0;
  bool refuse_headers = false;

  void answer(int status) { inbox_.push_back(status); }
  std::string header(std::string_view name) const {
    const SIPLIB_message message(sent.data(), sent.size());
    return std::string(message.header(name).value_or("(none)"));
  }
  std::string body() const {
    const SIPLIB_message message(sent.data(), sent.size());
    return std::string(message.body());
  }

  int receive() override {
    if (inbox_.empty()) {
      message_ = SIPLIB_SIPMessageHandle();
      return -1;
    }
    message_ = SIPLIB_SIPMessageHandle(new SIPLIB_message(inbox_.front(), "Reason"));
    inbox_.pop_front();
    return 0;
  }
  int send() override {
    ++sends;
    sent = message_->text();
    return send_result;
  }
  void setListener(SIPLIB_SIPClientConnectionListener* value) override { listener = value; }
  int initRequest(std::string_view, std::string_view, std::string_view, std::string_view) override { return -1; }
  int getTransactionStatus() const override { return transaction_status; }
  void release() override { ++releases; }
  SIPLIB_SIPDialog* getDialog() const override { return dialog; }

 protected:
  SIPLIB_message* writable() override { return refuse_headers ? nullptr : message_.get(); }

 private:
  std::deque<int> inbox_;
};

class Dialog : public SIPLIB_SIPDialog {
 public:
  std::vector<std::unique_ptr<Notify>> made;
  std::vector<std::string> methods;
  bool refuse = false;          ///< over: no new request
  bool refuse_headers = false;  ///< of the next requests
  int send_result = 0;          ///< of the next requests

  SIPLIB_SIPClientConnection* getNewClientConnection(std::string_view method) override {
    if (refuse) return nullptr;
    methods.emplace_back(method);
    made.push_back(std::make_unique<Notify>(this));
    made.back()->refuse_headers = refuse_headers;
    made.back()->send_result = send_result;
    return made.back().get();
  }
  bool isTerminated() const override { return refuse; }
  /// "active" or "terminated" of each NOTIFY that was sent, with what its body is: "-", CREATE, UPDATE add, ...
  std::vector<std::string> notifies() const {
    std::vector<std::string> result;
    for (const auto& notify : made) {
      if (notify->sends == 0) continue;
      const std::string body = notify->body();
      std::string kind = between(body, "<action>", "</action>");
      if (const std::string info = between(body, "<update-info>", "</update-info>"); !info.empty()) kind += " " + info;
      result.push_back(notify->header("Subscription-State") + " " + (kind.empty() ? "-" : kind));
    }
    return result;
  }

  static std::string between(const std::string& text, std::string_view begin, std::string_view end) {
    const std::size_t from = text.find(begin);
    if (from == std::string::npos) return {};
    const std::size_t to = text.find(end, from);
    return text.substr(from + begin.size(), to - from - begin.size());
  }
};

/// Only the operations that the registrar uses do anything.
class RoutingTable : public IMS_Proxy_RoutingTable_Intf {
 public:
  std::vector<ClientTable_Entry_T> entries;
  std::vector<std::string> operations;  ///< "add PORT", "delete PORT", "replace PORT", refused ones too
  bool refuse = false;
  bool refuse_aors = false;  ///< of replaceClientField
  bool full = false;         ///< nothing may take the place of anything

  bool addClient(ClientTable_Entry_T const& entry) override {
    operations.push_back("add " + entry.ua_port);
    if (refuse) return false;
    for (const auto& known : entries)
      if (known.ua_port == entry.ua_port) return false;
    entries.push_back(entry);
    return true;
  }
  bool hasRoomFor(ClientTable_Entry_T const&, std::string const& replaced_port) override {
    EXPECT_NE(entry(replaced_port), nullptr);
    return !full;
  }
  bool deleteClient(ClientTable_Field_T const& type, std::string const& value) override {
    EXPECT_EQ(type, CT_UA_PORT);
    operations.push_back("delete " + value);
    return std::erase_if(entries, [&](const auto& entry) { return entry.ua_port == value; }) > 0;
  }
  using Field = ClientTable_Field_T;
  bool appendClientField(Field const&, std::string const&, Field const&, std::string const&) override { return false; }
  bool appendClientField(Field const&, std::string const&, std::vector<ClientHeader_T> const&) override {
    return false;
  }
  bool appendClientField(Field const&, std::string const&, std::vector<ClientAOR_T> const&) override { return false; }
  bool replaceClientField(Field const&, std::string const&, Field const&, std::string const&) override { return false; }
  bool replaceClientField(Field const&, std::string const&, std::vector<ClientHeader_T> const&) override {
    return false;
  }
  bool replaceClientField(Field const& type, std::string const& value, std::vector<ClientAOR_T> const& aors) override {
    EXPECT_EQ(type, CT_UA_PORT);
    operations.push_back("replace " + value);
    ClientTable_Entry_T* const known = entry(value);
    if (refuse_aors || known == nullptr) return false;
    known->aors = aors;
    return true;
  }
  bool getClient(Field const& type, std::string const& value, ClientTable_Entry_T& result) override {
    EXPECT_EQ(type, CT_UA_PORT);
    const ClientTable_Entry_T* const known = entry(value);
    if (known != nullptr) result = *known;
    return known != nullptr;
  }
  /// The entry with this port; null when there is none.
  ClientTable_Entry_T* entry(const std::string& port) {
    for (auto& known : entries)
      if (known.ua_port == port) return &known;
    return nullptr;
  }
};

class Listener : public SIPLIB_SIPClientConnectionListener {
 public:
  void notifyResponse(SIPLIB_SIPClientConnection*) override {}
};

/// An address of record for a body.
inline std::string aor(const std::string& uri, const std::string& capabilities) {
  return "<aor>" + uri + "<ua-specific-parameters>" + capabilities + "</ua-specific-parameters></aor>";
}
inline std::string uaInfo(const std::string& profile, const std::string& aors, const std::string& expires = {}) {
  return "<ua-info>" + (expires.empty() ? "" : "<reg-expires-pref>" + expires + "</reg-expires-pref>") +
         "<profile-info><name>" + profile + "</name></profile-info>" + aors + "</ua-info>";
}
inline std::string moduleInfo(const std::string& packages) {
  return "<module-info><package-info>" + packages + "</package-info></module-info>";
}

/// A REGISTER, put together by its parts. An empty text leaves the header out.
struct Register {
  int port = 5070;
  std::string from = "sip:alice@home.net";
  std::string call_id = "call-1";
  int cseq = 1;
  std::string expires = "3600";
  std::string body = uaInfo("home", aor("sip:alice@home.net", "<feature-tag>x</feature-tag><events>reg</events>"));
  std::string content_type = "application/xml";
  std::string contact = "<sip:alice@127.0.0.1:PORT>";

  std::string text() const {
    FakeHeaders headers = {{"Via", "SIP/2.0/UDP 127.0.0.1:5070;branch=z9hG4bKa"},
                           {"From", "<" + from + ">;tag=1"},
                           {"To", "<" + from + ">"},
                           {"Call-ID", call_id},
                           {"CSeq", std::to_string(cseq) + " REGISTER"}};
    if (!contact.empty()) {
      std::string value = contact;
      if (const std::size_t at = value.find("PORT"); at != std::string::npos)
        value.replace(at, 4, std::to_string(port));
      headers.emplace_back("Contact", value);
    }
    if (!expires.empty()) headers.emplace_back("Expires", expires);
    if (!content_type.empty()) headers.emplace_back("Content-Type", content_type);
    return sipRequest("REGISTER", "sip:127.0.0.1", headers, body);
  }
};

/// A configuration directory of its own; `profile` writes a profile document into it.
class ConfigDir {
 public:
  ConfigDir() { IMS_User_Agent::set_config_dir(dir_.path()); }
  ~ConfigDir() { IMS_User_Agent::set_config_dir("/nonexistent"); }
  void profile(const std::string& name, const std::string& text) const {
    dir_.write("profiles/" + name + ".xml", text);
  }

 private:
  TemporaryDir dir_;
};

}  // namespace fake

// A registrar with fakes around it.
#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "fakes.h"
#include "framework/bounds.h"
#include "registrar/client_factory.h"
#include "registrar/domain.h"
#include "registrar/ext_client.h"
#include "registrar/reg_subscriber.h"
#include "registrar/registrar.h"
#include "support/log_capture.h"

class RegistrarFixture : public ::testing::Test {
 protected:
  using Texts = std::vector<std::string>;
  using Register = fake::Register;

  RegistrarFixture() {
    IMSE_Domain::profile_id_counter = 1;
    IMSE_ClientFactory::ua_id_counter = 0;
    registrar = IMSE_Registrar::init_registrar(&connector, &table, &listener);
  }
  ~RegistrarFixture() override { IMSE_Registrar::destroy(); }

  /// One REGISTER, one turn. The request can be looked at as `last` until the next.
  fake::Request& send(const Register& message) {
    last = std::make_unique<fake::Request>(message.text());
    return deliver();
  }
  /// The status that answered it; 0 when none did.
  int status(const Register& message) { return send(message).status(); }
  fake::Request& deliver() {
    registrar->handle_registrar_register_message(last.get());
    last->endTurn();
    return *last;
  }
  fake::Request& subscribe(const std::string& expires = "600", const std::string& from = "sip:regua@127.0.0.1",
                           const std::string& event = "local-reg-events") {
    last = std::make_unique<fake::Request>(sipRequest("SUBSCRIBE", "sip:registrar@127.0.0.1",
                                                      {{"From", "<" + from + ">;tag=1"},
                                                       {"To", "<sip:registrar@127.0.0.1>"},
                                                       {"Call-ID", "s"},
                                                       {"CSeq", "1 SUBSCRIBE"},
                                                       {"Contact", "<sip:regua@127.0.0.1:5080>"},
                                                       {"Event", event},
                                                       {"Expires", expires}}));
    last->dialog = &dialog;
    registrar->handle_registrar_subscribe_message(last.get());
    last->endTurn();
    return *last;
  }
  /// An answer to the NOTIFY that is out.
  void answer(int code) {
    fake::Notify* const notify = dialog.made.back().get();
    notify->answer(code);
    registrar->handle_registrar_response_message(notify);
  }
  /// Answers NOTIFYs until none is out.
  void answerAll() {
    while (registrar->subscriber() != nullptr &&
           registrar->subscriber()->state() == IMSE_RegSubscriber::SUBS_NOTIFY_SENT) {
      answer(200);
    }
  }
  std::size_t clientCount() const { return registrar->clients().size(); }
  IMSE_ExtClient& external(std::size_t at = 0) const {
    auto one = registrar->clients().begin();
    std::advance(one, at);
    EXPECT_EQ((*one)->is_external(), 1);
    return static_cast<IMSE_ExtClient&>(**one);
  }
  static Register module(int port = 6000) {
    return {.port = port, .from = "sip:module@127.0.0.1", .call_id = "module-1", .body = fake::moduleInfo("reg")};
  }
  /// Another external user agent than that of a plain Register.
  static Register bob(int port = 5071) {
    return {.port = port,
            .from = "sip:bob@home.net",
            .call_id = "bob-1",
            .body = fake::uaInfo("home", fake::aor("sip:bob@home.net", "<feature-tag>b</feature-tag>"))};
  }

  FakeConnector connector;
  fake::RoutingTable table;
  fake::Listener listener;
  fake::Dialog dialog;
  std::unique_ptr<fake::Request> last;
  IMSE_Registrar* registrar = nullptr;
};

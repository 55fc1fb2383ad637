#include "registrar/local_registrar.h"

#include <gtest/gtest.h>

#include "engine/engine_proxy.h"
#include "fakes.h"
#include "framework/listeners.h"
#include "registrar/reg_subscriber.h"
#include "registrar/registrar.h"

TEST(LocalRegistrar, DoesNothingWhileThereIsNoRegistrar) {
  IMS_local_registrar local;
  fake::Request request(fake::Register{}.text());
  fake::Notify response(nullptr);
  std::string text, first = "kept";
  EXPECT_EQ(local.handle_register(&request), 0);
  EXPECT_EQ(local.handle_subscribe(&request), 0);
  EXPECT_EQ(local.handle_response(&response), 0);
  EXPECT_EQ(local.handle_refresh(text), 0);
  EXPECT_EQ(local.get_profile_credentials("1", first, text, text), 0);
  EXPECT_TRUE(request.answers.empty());
  EXPECT_EQ(first, "kept");
}

TEST(LocalRegistrar, WithoutAConnectorOrTableThereIsNoRegistrar) {
  IMS_engine_proxy engine;
  IMS_local_registrar local;
  EXPECT_EQ(local.initialize(&engine), 0);
  EXPECT_EQ(IMSE_Registrar::get_instance(), nullptr);
}

TEST(LocalRegistrar, HandsEverythingToTheRegistrar) {
  FakeConnector connector;
  fake::RoutingTable table;
  fake::Dialog dialog;
  IMS_engine_proxy engine;
  IMS_User_Agent::ua_connector = &connector;
  IMS_engine_proxy::rtintf = &table;
  IMS_local_registrar local;
  EXPECT_EQ(local.initialize(&engine), 0);
  ASSERT_NE(IMSE_Registrar::get_instance(), nullptr);

  fake::Request request(fake::Register{}.text());
  EXPECT_EQ(local.handle_register(&request), 0);
  EXPECT_EQ(request.status(), 200);
  EXPECT_TRUE(connector.closed(&request));

  fake::Request subscribe(sipRequest("SUBSCRIBE", "sip:registrar@127.0.0.1",
                                     {{"From", "<sip:regua@127.0.0.1>;tag=1"},
                                      {"To", "<sip:registrar@127.0.0.1>"},
                                      {"Call-ID", "s"},
                                      {"CSeq", "1 SUBSCRIBE"},
                                      {"Contact", "<sip:regua@127.0.0.1:5080>"},
                                      {"Event", "local-reg-events"},
                                      {"Expires", "60"}}));
  subscribe.dialog = &dialog;
  EXPECT_EQ(local.handle_subscribe(&subscribe), 0);
  EXPECT_EQ(subscribe.status(), 200);
  // Answers to the NOTIFYs come back to the engine.
  EXPECT_EQ(dialog.made.at(0)->listener, engine.client_connection_listener());

  dialog.made[0]->answer(200);
  EXPECT_EQ(local.handle_response(dialog.made[0].get()), 0);
  EXPECT_TRUE(connector.closed(dialog.made[0].get()));

  std::string first, second, third;
  const std::string id = request.answered("Zel-Profile-ID");
  EXPECT_EQ(local.get_profile_credentials(id, first, second, third), 1);
  EXPECT_EQ(local.get_profile_credentials("0", first, second, third), 0);
  std::string text = "refresh";
  EXPECT_EQ(local.handle_refresh(text), 0);

  IMSE_Registrar::destroy();
  IMS_User_Agent::ua_connector = nullptr;
  IMS_engine_proxy::rtintf = nullptr;
}

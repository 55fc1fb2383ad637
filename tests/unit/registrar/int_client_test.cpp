#include "registrar/int_client.h"

#include <gtest/gtest.h>

#include "fakes.h"

TEST(IntClient, GivesTheRoutingTableItsPortUriAndPackagesOnly) {
  const std::string text = fake::moduleInfo("presence,reg");
  auto body = std::make_unique<RegisterXmlData>(text.data(), static_cast<int>(text.size()));
  ASSERT_EQ(body->parseXml(), 0);
  IMSE_IntClient client(std::move(body));
  fake::Request request(fake::Register{.port = 6000, .from = "sip:module@127.0.0.1"}.text());
  client.process_register(&request);
  ClientTable_Entry_T entry;
  EXPECT_EQ(client.get_client_info(entry), 0);
  EXPECT_EQ(entry.ua_port, "6000");
  EXPECT_EQ(entry.uri, "sip:module@127.0.0.1");
  EXPECT_EQ(entry.packages, "presence,reg");
  EXPECT_TRUE(entry.aors.empty());
  EXPECT_EQ(entry.profile_id, "");
  EXPECT_EQ(entry.profile_name, "");
  EXPECT_EQ(client.is_external(), 0);
  client.forget_request(&request);
}

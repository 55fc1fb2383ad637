#include "framework/ims_message.h"

#include <gtest/gtest.h>

#include <cstring>

#include "framework/ims_local_registrar.h"
#include "siplib/connection.h"

namespace {

class FakeConnection : public SIPLIB_SIPMessageConnection {
 public:
  int send() override {
    ++sent;
    return status;
  }
  int sent = 0;
  int status = 0;
};

class ImsMessage : public testing::Test {
 protected:
  void SetUp() override {
    const std::string text = "OPTIONS sip:a@b SIP/2.0\r\nTo: <sip:a@b>\r\nContent-Length: 0\r\n\r\n";
    connection.setSipMessageHandle(SIPLIB_SIPMessageHandle(new SIPLIB_message(text.data(), text.size())));
    std::memset(buffer, 'z', sizeof buffer);
  }
  FakeConnection connection;
  IMS_Message message{&connection};
  char buffer[16];
};

TEST_F(ImsMessage, ValueComesWithItsEnd) {
  EXPECT_TRUE(message.get_header("To", buffer, sizeof buffer));
  EXPECT_STREQ(buffer, "<sip:a@b>");
  EXPECT_TRUE(message.get_header("To", buffer, 10));
}

TEST_F(ImsMessage, ValueThatDoesNotFitIsAbsent) {
  EXPECT_FALSE(message.get_header("To", buffer, 9));
  EXPECT_STREQ(buffer, "");
}

TEST_F(ImsMessage, AbsentValueGivesAnEmptyText) {
  EXPECT_FALSE(message.get_header("Call-ID", buffer, sizeof buffer));
  EXPECT_STREQ(buffer, "");
}

TEST_F(ImsMessage, NothingToReadFromIsHarmless) {
  const IMS_Message none(nullptr);
  EXPECT_FALSE(none.get_header("To", buffer, sizeof buffer));
  EXPECT_STREQ(buffer, "");
  EXPECT_FALSE(message.get_header("To", buffer, 0));
  EXPECT_FALSE(message.get_header("To", nullptr, 16));
}

TEST_F(ImsMessage, SendIsTheConnections) {
  EXPECT_EQ(message.send(), 0);
  EXPECT_EQ(connection.sent, 1);
  connection.status = -1;
  EXPECT_EQ(message.send(), -1);
  EXPECT_EQ(IMS_Message(nullptr).send(), -1);
}

TEST(ImsLocalRegistrar, NamesProgramAndVersion) {
  EXPECT_EQ(IMS_LocalRegistrar::form_user_agent_header(), "ue-proxy/" UE_PROXY_VERSION);
}

}  // namespace

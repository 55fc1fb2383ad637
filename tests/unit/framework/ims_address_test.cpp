#include "framework/ims_address.h"

#include <gtest/gtest.h>

namespace {

std::string element(const std::string& text, const std::string& name) {
  std::string value = "unchanged";
  const int status = IMS_address::get_element("From", text, name, value);
  EXPECT_EQ(status == 0, value != "unchanged");
  return status == 0 ? value : "absent";
}

TEST(ImsAddress, TakesNameAddrApart) {
  const std::string text = "\"A <b>\" <sip:alice@192.0.2.1:5070;transport=tcp>;tag=1";
  EXPECT_EQ(element(text, "uri"), "sip:alice@192.0.2.1:5070;transport=tcp");
  EXPECT_EQ(element(text, "user"), "alice");
  EXPECT_EQ(element(text, "host"), "192.0.2.1");
  EXPECT_EQ(element(text, "port"), "5070");
  EXPECT_EQ(element(text, "display"), "A <b>");
}

TEST(ImsAddress, ParametersBesideABareUriAreTheHeaders) {
  EXPECT_EQ(element(" sip:anonymous@127.0.0.1 ;tag=1", "uri"), "sip:anonymous@127.0.0.1");
  EXPECT_EQ(element("sip:127.0.0.1;tag=1", "uri"), "sip:127.0.0.1");
}

TEST(ImsAddress, WhatIsNotThereIsAbsent) {
  EXPECT_EQ(element("<sip:127.0.0.1>", "user"), "absent");
  EXPECT_EQ(element("<sip:127.0.0.1>", "port"), "absent");
  EXPECT_EQ(element("<sip:127.0.0.1>", "display"), "absent");
  EXPECT_EQ(element("<sip:127.0.0.1>", "colour"), "absent");
  EXPECT_EQ(element("", "uri"), "absent");
  EXPECT_EQ(element("<sip:a@b", "uri"), "absent");
  EXPECT_EQ(element("no address", "host"), "absent");
}

TEST(ImsAddress, PortIsTheUrisOwn) {
  EXPECT_EQ(IMS_address::get_port("Contact", "<sip:127.0.0.1:5060>"), 5060);
  EXPECT_EQ(IMS_address::get_port("Contact", "<sip:127.0.0.1>"), -1);
  EXPECT_EQ(IMS_address::get_port("Contact", "<sip:[::1]:5062>"), 5062);
  EXPECT_EQ(IMS_address::get_port("Contact", "*"), -1);
  EXPECT_EQ(IMS_address::get_port("Contact", ""), -1);
}

}  // namespace

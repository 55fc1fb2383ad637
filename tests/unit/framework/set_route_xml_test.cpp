#include "framework/set_route_xml.h"

#include <gtest/gtest.h>

#include <cstring>

#include "framework/support.h"

namespace {

int parse(IMSSetRouteXml& route, const std::string& text) {
  route.set_text(text.c_str(), static_cast<int>(text.size()) + 1);
  return route.parseXml();
}

TEST(SetRouteXml, ReadsTheFourValues) {
  IMSSetRouteXml route;
  EXPECT_EQ(parse(route,
                  "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<route-info>\n  <action>set-route</action>\n"
                  "  <profile-info>\n    <zel-profile-id>1</zel-profile-id>\n  </profile-info>\n"
                  "  <device-name>eth0</device-name>\n  <ip-type-port>192.0.2.10:TCP:5060</ip-type-port>\n"
                  "</route-info>\n"),
            0);
  EXPECT_EQ(route.action(), "set-route");
  EXPECT_EQ(route.profile_id(), "1");
  EXPECT_EQ(route.device_name(), "eth0");
  EXPECT_EQ(route.ip_type_port(), "192.0.2.10:TCP:5060");
}

TEST(SetRouteXml, AnyElementMayBeAbsentAndOrderIsFree) {
  IMSSetRouteXml route;
  EXPECT_EQ(parse(route,
                  "<route-info><ip-type-port>a</ip-type-port><profile-info><zel-profile-id>2</zel-profile-id>"
                  "</profile-info><action>x</action></route-info>"),
            0);
  EXPECT_EQ(route.action(), "x");
  EXPECT_EQ(route.profile_id(), "2");
  EXPECT_EQ(route.device_name(), "");
  EXPECT_EQ(route.ip_type_port(), "a");
  EXPECT_EQ(parse(route, "<route-info/>"), 0);
  EXPECT_EQ(route.action(), "") << "values of the command before do not stay";
}

TEST(SetRouteXml, FirstOfEachNameCounts) {
  IMSSetRouteXml route;
  EXPECT_EQ(parse(route, "<route-info><action>a</action><action>b</action></route-info>"), 0);
  EXPECT_EQ(route.action(), "a");
}

TEST(SetRouteXml, BadDocumentIsRefusedWithOneLine) {
  const LogCapture log;
  IMSSetRouteXml route;
  ASSERT_EQ(parse(route, "<a><action>a</action></a>"), 0);
  EXPECT_EQ(parse(route, "<route-info><action>a</action>"), -1);
  EXPECT_EQ(route.action(), "");
  EXPECT_EQ(log.lines(), 1u);
  EXPECT_TRUE(log.has("route command refused: line 1: "));
  EXPECT_EQ(parse(route, ""), -1);
  EXPECT_EQ(parse(route, "text"), -1);
  EXPECT_EQ(parse(route, "<!DOCTYPE a [<!ENTITY e \"x\">]><a>&e;</a>"), -1);
  route.set_text(nullptr, 0);
  EXPECT_EQ(route.parseXml(), -1);
  route.set_text("<a/>", -1);
  EXPECT_EQ(route.parseXml(), -1);
  EXPECT_EQ(log.lines(), 6u);
}

TEST(SetRouteXml, WhiteSpaceAroundAValueDoesNotCount) {
  IMSSetRouteXml route;
  EXPECT_EQ(
      parse(route,
            "<route-info>\n <action>\n  set-route\n </action>\n <profile-info><zel-profile-id> 1\t</zel-profile-id>"
            "</profile-info>\n <device-name>\r\n</device-name>"
            "<ip-type-port> 192.0.2.10:TCP:5060 </ip-type-port></route-info>"),
      0);
  EXPECT_EQ(route.action(), "set-route");
  EXPECT_EQ(route.profile_id(), "1");
  EXPECT_EQ(route.device_name(), "");
  EXPECT_EQ(route.ip_type_port(), "192.0.2.10:TCP:5060");
}

TEST(SetRouteXml, AnEncodingThatIsNotReadIsRefusedWithOneLine) {
  const LogCapture log;
  IMSSetRouteXml route;
  EXPECT_EQ(parse(route, "<?xml version='1.0' encoding='UTF-7'?><a><action>a</action></a>"), -1);
  EXPECT_EQ(log.lines(), 1u);
  EXPECT_TRUE(log.has(" 4 parseXml: route command refused: line 1: an encoding other than UTF-8, ")) << log.text();
}

TEST(SetRouteXml, LengthCountsTheEnd) {
  IMSSetRouteXml route;
  const char text[] = "<a><action>x</action></a>";
  route.set_text(text, sizeof text);
  EXPECT_EQ(route.parseXml(), 0);
  route.set_text(text, sizeof text - 1);  // a caller that forgot it
  EXPECT_EQ(route.parseXml(), 0);
  EXPECT_EQ(route.action(), "x");
}

}  // namespace

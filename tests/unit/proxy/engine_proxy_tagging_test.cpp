#include <gtest/gtest.h>

#include "engine/engine_proxy.h"
#include "proxy/proxy_fixture.h"
#include "siplib/address.h"

namespace {

struct ParameterRow {
  const char* what;
  const char* name;
  const char* text;
  bool found;
  const char* value;  ///< "(kept)" when it must stay as it was
};

TEST(GetParameter, ReadsByPlainSearch) {
  const ParameterRow rows[] = {
      {"ended by a semicolon", "mok", "sip:h1;mok=abc;profile=2", true, "abc"},
      {"ended by the end", "mok", "sip:h1;mok=abc", true, "abc"},
      {"empty", "mok", "sip:h1;mok=;x=1", false, ""},
      {"empty at the end", "mok", "sip:h1;mok=", false, ""},
      {"a longer name that ends alike", "mok", "sip:h1;xmok=7", true, "7"},
      {"a bracket ends nothing", "st", "<sip:h1;st=5>", true, "5>"},
      {"a comma ends nothing", "st", "a;st=5,b", true, "5,b"},
      {"ended by a blank", "st", "a;st=5 b", true, "5"},
      {"a semicolon behind a blank comes first", "st", "a;st=5 b;c", true, "5 b"},
      {"the first one counts", "mok", "a;mok=1;mok=2", true, "1"},
      {"absent", "mok", "sip:h1;mtk=3", false, "(kept)"},
      {"a name alone is no parameter", "mok", "sip:h1;mok", false, "(kept)"},
      {"case matters", "mok", "sip:h1;MOK=1", false, "(kept)"},
      {"no text", "mok", "", false, "(kept)"},
  };
  for (const ParameterRow& row : rows) {
    std::string value = "(kept)";
    EXPECT_EQ(IMS_engine_proxy::get_parameter(row.name, row.text, value), row.found) << row.what;
    EXPECT_EQ(value, row.value) << row.what;
  }
}

TEST(GetParameter, Logs) {
  LogCapture log;
  std::string value;
  IMS_engine_proxy::get_parameter("mok", "a;mok=5;b", value);
  EXPECT_TRUE(log.has(5, "name=mok, value=5"));
  log.clear();
  IMS_engine_proxy::get_parameter("mtk", "a;mok=5;b", value);
  EXPECT_TRUE(log.has(4, "Didn't find parameter with name=mtk"));
  ASSERT_EQ(log.lines().size(), 1U);
  EXPECT_EQ(log.lines().front().function, "get_parameter");
}

TEST(ClientKeyFromVia, MokWinsWhereverItStands) {
  struct Row {
    const char* via;
    const char* tag;
    const char* key;
  };
  const Row rows[] = {
      {"SIP/2.0/TCP h:1;mok=A", ";mok=A", "A"},
      {"SIP/2.0/TCP h:1;mtk=B;st=0", ";mtk=B", "B"},
      {"SIP/2.0/TCP h:1;mok=A;mtk=B", ";mok=A", "A"},
      {"SIP/2.0/TCP h:1;mtk=B;mok=A", ";mok=A", "A"},
      {"SIP/2.0/TCP h:1", "", "(kept)"},
  };
  for (const Row& row : rows) {
    std::string key = "(kept)";
    EXPECT_EQ(IMS_engine_proxy::get_client_key_from_via(key, row.via), row.tag) << row.via;
    EXPECT_EQ(key, row.key) << row.via;
  }
}

TEST(ClientKeyFromVia, LogsPositions) {
  LogCapture log;
  std::string key;
  IMS_engine_proxy::get_client_key_from_via(key, "h;mtk=2");
  EXPECT_TRUE(log.has(5, "Via Header is h;mtk=2"));
  EXPECT_TRUE(log.has(5, " mok_pos is -1, mtk_pos is 2"));
}

TEST(UpdateContact, ReplacesOldTags) {
  struct Row {
    const char* what;
    const char* before;
    const char* after;
  };
  const Row rows[] = {
      {"no tag yet", "<sip:a@127.0.0.1:5070>", "<sip:a@127.0.0.1:5070;scli=2;dcli=1>"},
      {"no bracket", "sip:a@127.0.0.1:5070", "sip:a@127.0.0.1:5070"},
      {"no bracket but tags", "sip:a@h;scli=8;dcli=9", "sip:a@h;scli=8;dcli=9"},
      {"tagged before", "<sip:a@h;scli=8;dcli=9>;expires=5", "<sip:a@h;scli=2;dcli=1>;expires=5"},
      {"what followed the old tags goes with them", "<sip:a@h;scli=8;dcli=9;ob>", "<sip:a@h;scli=2;dcli=1>"},
      {"what stood before them stays", "<sip:a@h;ob;scli=8;dcli=9>", "<sip:a@h;ob;scli=2;dcli=1>"},
      {"a bracket before the old tags: the rest goes", "<sip:a@h>;scli=8;dcli=9;q=1", "<sip:a@h;scli=2;dcli=1>"},
      {"only the first bracket counts", "<sip:a@h>, <sip:b@h>", "<sip:a@h;scli=2;dcli=1>, <sip:b@h>"},
      {"empty", "", ""},
  };
  for (const Row& row : rows) {
    std::string contact = row.before;
    IMS_engine_proxy::update_contact(contact, ";scli=", ";scli=2;dcli=1");
    EXPECT_EQ(contact, row.after) << row.what;
  }
}

TEST(UpdateContact, LogsBeforeAndAfter) {
  LogCapture log;
  std::string contact = "<sip:h;scli=8>";
  IMS_engine_proxy::update_contact(contact, ";scli=", ";scli=2");
  EXPECT_EQ(log.texts(), (std::vector<std::string>{"### before contact=<sip:h>", "### after contact=<sip:h;scli=2>"}));
}

class Inspection : public ProxyFixture {
 protected:
  void TearDown() override {
    delete from;
    delete to;
  }
  void inspect(const std::string& text) {
    delete from;
    delete to;
    ua.set(text);
    method.clear();
    IMS_engine_proxy::get_from_to_method(&ua, is_request, method, from, to);
  }
  bool local(const std::string& from_value, const std::string& to_value) {
    delete from;
    delete to;
    ua.set(sipRequest("MESSAGE", "sip:h", {{"Via", "SIP/2.0/TCP h"}, {"From", from_value}, {"To", to_value}}));
    return IMS_engine_proxy::is_dest_local(&ua, is_request, method, from, to);
  }
  bool is_request = false;
  std::string method;
  SIPLIB_SIPAddress* from = nullptr;
  SIPLIB_SIPAddress* to = nullptr;
};

TEST_F(Inspection, OfARequest) {
  LogCapture log;
  inspect(fromClient("INVITE", "SIP/2.0/TCP 127.0.0.1:5070"));
  EXPECT_TRUE(is_request);
  EXPECT_EQ(method, "INVITE");
  ASSERT_TRUE(from != nullptr && to != nullptr);
  EXPECT_EQ(from->getUser(), "alice");
  EXPECT_EQ(to->getUser(), "bob");
  EXPECT_TRUE(log.has_part(5, "entered, connection ptr=0x"));
  EXPECT_TRUE(log.has(5, "From=\"Alice\" <sip:alice@home.net>;tag=a1"));
  EXPECT_TRUE(log.has(5, "To=<sip:bob@home.net>"));
  EXPECT_TRUE(log.has(5, "reqmsg=1, method=INVITE"));
}

TEST_F(Inspection, OfAResponseLeavesTheMethod) {
  inspect(sipResponse(200, "OK", {{"From", "<sip:a@h>"}, {"To", "<sip:b@h>"}, {"CSeq", "1 INVITE"}}));
  EXPECT_FALSE(is_request);
  EXPECT_EQ(method, "");
  EXPECT_TRUE(from != nullptr && to != nullptr);
}

TEST_F(Inspection, CutsAMethodAtSixteenCharacters) {
  for (const char* sent : {"ABCDEFGHIJKLMNOP", "ABCDEFGHIJKLMNOPQ", "ABCDEFGHIJKLMNOPQRST"}) {
    inspect(fromClient(sent, "SIP/2.0/TCP 127.0.0.1:5070"));
    EXPECT_EQ(method, "ABCDEFGHIJKLMNOP");
  }
  inspect(fromClient("ABCDEFGHIJKLMNO", "SIP/2.0/TCP 127.0.0.1:5070"));
  EXPECT_EQ(method, "ABCDEFGHIJKLMNO");
}

TEST_F(Inspection, MissingOrBrokenAddressesAreNullAndLogged) {
  LogCapture log;
  inspect(sipRequest("INVITE", "sip:h", {{"Via", "SIP/2.0/TCP h"}, {"To", "<sip:unclosed"}}));
  EXPECT_EQ(from, nullptr);
  EXPECT_EQ(to, nullptr);
  EXPECT_TRUE(log.has(3, "createSIPAddressObject() failed for FROM"));
  EXPECT_TRUE(log.has(3, "createSIPAddressObject() failed for TO"));
}

TEST_F(Inspection, OfAMessageThatDoesNotParseFindsNothing) {
  inspect("this is not SIP\r\n\r\n");
  EXPECT_FALSE(is_request);
  EXPECT_EQ(method, "");
  EXPECT_EQ(from, nullptr);
  EXPECT_EQ(to, nullptr);
}

TEST_F(Inspection, DestinationIsLocalByTheTextOfEitherHost) {
  LogCapture log;
  EXPECT_TRUE(local("<sip:a@127.0.0.1:5070>", "<sip:b@home.net>"));
  EXPECT_TRUE(local("<sip:a@home.net>", "<sip:127.0.0.1>"));
  EXPECT_TRUE(log.has(5, "FROM/TO is 127.0.0.1"));
  log.clear();
  EXPECT_FALSE(local("<sip:a@home.net>", "<sip:b@home.net>"));
  EXPECT_TRUE(log.has(5, "FROM and TO doesn't contain 127.0.0.1"));
  EXPECT_FALSE(local("<sip:a@localhost>", "<sip:b@127.0.0.2>"));
  log.clear();
  EXPECT_FALSE(local("", "<sip:b@127.0.0.1>"));
  EXPECT_TRUE(log.has(4, "FROM/TO is NULL"));
}

TEST_F(Inspection, ProfileComesFromTheTopmostVia) {
  LogCapture log;
  std::string profile;
  ua.set(sipResponse(401, "Unauthorized",
                     {{"Via", "SIP/2.0/TCP h;profile=7;mok=1;st=0"}, {"Via", "SIP/2.0/TCP g;profile=8"}}));
  EXPECT_TRUE(IMS_engine_proxy::get_profile_id_from_via(&ua, profile));
  EXPECT_EQ(profile, "7");
  EXPECT_TRUE(log.has(5, "Profile is 7"));
  profile.clear();
  ua.set(sipResponse(401, "Unauthorized", {{"Via", "SIP/2.0/TCP h;mok=1;st=0"}}));
  EXPECT_FALSE(IMS_engine_proxy::get_profile_id_from_via(&ua, profile));
  EXPECT_EQ(profile, "");
  ua.set(sipResponse(401, "Unauthorized", {}));
  EXPECT_FALSE(IMS_engine_proxy::get_profile_id_from_via(&ua, profile));
}

}  // namespace

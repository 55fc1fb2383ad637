#include "proxy/network_gate.h"

#include <gtest/gtest.h>

#include "proxy/proxy_fixture.h"

namespace {

constexpr auto kTcp = &IMS_engine_proxy::process_network_to_ua_tcp_request;
constexpr auto kUdp = &IMS_engine_proxy::process_network_to_ua_udp_request;
constexpr const char* kVia = "SIP/2.0/TCP 127.0.0.3:5080;branch=z9hG4bK-n1";
constexpr const char* kSecondVia = "SIP/2.0/UDP bob.home.net:5060;branch=z9hG4bK-bob";

struct Said {
  std::string via = kVia;
  std::string from = "<sip:bob@home.net>;tag=b1";
  std::string to = "<sip:alice@home.net>";
  FakeHeaders more = {};
  std::string uri = "sip:alice@127.0.0.2:5060";
  std::string second_via = kSecondVia;
  std::string body = {};
};

class NetworkGate : public ProxyFixture {
 protected:
  NetworkGate() {
    addNetwork();
    ClientTable_Entry_T registrar;
    registrar.ua_port = IMS_engine_proxy::localhost_port;
    registrar.uri = "sip:registrar@127.0.0.1";
    own_key = addClient(registrar);
    ClientTable_Entry_T alice;
    alice.ua_port = "5070";
    alice.profile_id = "1";
    alice.aors = {makeAor("alice@home.net", {}, {}, "INVITE,MESSAGE,REFER,NOTIFY,BYE")};
    key = addClient(alice);
    tag = accept(network);
    ua_tag = accept(ua);
  }

  static FakeHeaders headers(const std::string& method, const Said& said) {
    FakeHeaders all = {{"Via", said.via}, {"Via", said.second_via},       {"From", said.from},
                       {"To", said.to},   {"Call-ID", "call-2@home.net"}, {"CSeq", "7 " + method}};
    all.insert(all.end(), said.more.begin(), said.more.end());
    return all;
  }
  /// The lines at level 3 after the request was given to both transports; nothing else may have come of it.
  std::vector<std::string> dropped(const std::string& method, const Said& said) {
    LogCapture log(3);
    const std::string text = sipRequest(method, said.uri, headers(method, said), said.body);
    forward(kTcp, network, text);
    forward(kUdp, network_udp, text);
    expectNothingSent();
    return log.texts();
  }
  std::vector<std::string> droppedAnswer(const Said& said, int status = 200) {
    LogCapture log(3);
    const std::string text = sipResponse(status, "Whatever", headers("INVITE", said), said.body);
    toNetwork().set(text);
    engine->process_network_to_ua_tcp_response(&toNetwork());
    network_udp.set(text);
    engine->process_network_to_ua_udp_response(&network_udp);
    expectNothingSent();
    return log.texts();
  }
  bool admits(const std::string& method, const Said& said) {
    toClient(5070).sent.clear();
    LogCapture log(3);
    forward(kTcp, network, sipRequest(method, said.uri, headers(method, said), said.body));
    return toClient(5070).sent.size() == 1 && log.count(3) == 0;
  }
  bool admitsAnswer(const Said& said, int status = 200) {
    ua.sent.clear();
    LogCapture log(3);
    toNetwork().set(sipResponse(status, "Whatever", headers("INVITE", said), said.body));
    engine->process_network_to_ua_tcp_response(&toNetwork());
    return ua.sent.size() == 1 && log.count(3) == 0;
  }
  void expectNothingSent() {
    EXPECT_TRUE(toClient(5060).sent.empty()) << "the proxy's way to itself";
    EXPECT_TRUE(toClient(5070).sent.empty());
    EXPECT_TRUE(network.sent.empty());
    EXPECT_TRUE(ua.sent.empty());
    EXPECT_TRUE(connector.udp_clients.empty());
  }
  std::string answerVia() const { return std::string(kVia) + ";mok=" + key + ";st=" + ua_tag; }
  static std::vector<std::string> twice(const std::string& line) { return {line, line}; }

  std::string own_key, key, tag, ua_tag;
};

TEST_F(NetworkGate, LetsIntoTheTerminalWhatSaysNothingOfThis) {
  for (const char* method : {"INVITE", "MESSAGE", "REFER", "NOTIFY", "BYE"}) EXPECT_TRUE(admits(method, {})) << method;
  EXPECT_TRUE(admitsAnswer({.via = answerVia()}));
}

TEST_F(NetworkGate, AKeyThatNamesTheProxyItselfIsNobodys) {
  for (const std::string& tags : {";mtk=" + own_key + ";profile=1", ";mok=" + own_key + ";profile=1", ";mok=" + own_key,
                                  ";mtk=" + own_key + ";mok=" + key + ";profile=1"}) {
    for (const char* method : {"REGISTER", "SUBSCRIBE", "INVITE", "MESSAGE"}) {
      const Said said{.uri = "sip:x@127.0.0.2" + tags};
      EXPECT_EQ(dropped(method, said), (std::vector<std::string>{"ERROR: check why client or domain key empty",
                                                                 "ERROR: check why client or domain key empty",
                                                                 "ERROR: check why client or domain key empty"}))
          << "UDP ends with a line at level 4";
    }
  }
  for (const std::string name : {";mok=", ";mtk="}) {
    for (const std::string& st : {std::string("0"), ua_tag}) {
      const std::string returning = "ERROR: check why returning client_key=" + own_key + ", stag=" + st;
      EXPECT_EQ(droppedAnswer({.via = kVia + name + own_key + ";st=" + st}),
                (std::vector<std::string>{"ERROR: Either client key/tag is empty", returning,
                                          "ERROR: Either client key/tag is empty", returning}));
    }
  }
}

TEST_F(NetworkGate, NobodyInTheNetworkIsTheRegistrar) {
  const auto line = twice("request from the network dropped: its From is the registrar");
  for (const char* method : {"MESSAGE", "NOTIFY", "INVITE", "OPTIONS"}) {
    EXPECT_EQ(dropped(method, {.from = "<sip:registrar@127.0.0.1>;tag=1"}), line);
    EXPECT_EQ(dropped(method, {.from = "sip:registrar@127.0.0.1:5060;tag=1"}), line);
    EXPECT_EQ(dropped(method, {.from = "\"" + std::string(1000, 'x') + "\" <sip:registrar@127.0.0.1>"}), line);
  }
  EXPECT_TRUE(admits("MESSAGE", {.from = "<sip:registrar@home.net>;tag=1"}));
  EXPECT_TRUE(admits("MESSAGE", {.from = "<sip:Registrar@127.0.0.1>;tag=1"}));
}

TEST_F(NetworkGate, OnlyAMessageMayNameALocalAddress) {
  const auto line = twice("request from the network dropped: its From or To is local");
  for (const char* method : {"INVITE", "SUBSCRIBE", "REFER", "NOTIFY", "UPDATE", "BYE", "Message"}) {
    EXPECT_EQ(dropped(method, {.from = "<sip:bob@127.0.0.1>;tag=1"}), line);
    EXPECT_EQ(dropped(method, {.from = "<sip:127.0.0.1>;tag=1"}), line);
    EXPECT_EQ(dropped(method, {.to = "<sip:alice@127.0.0.1>;tag=1"}), line);
  }
  EXPECT_TRUE(admits("MESSAGE", {.from = "<sip:bob@127.0.0.1>;tag=1"}));
  EXPECT_TRUE(admits("MESSAGE", {.to = "<sip:127.0.0.1>"}))
      << "to the proxy's own address: for a user agent all the same";
  EXPECT_TRUE(admits("INVITE", {.from = "\"127.0.0.1\" <sip:127.0.0.1@home.net>;tag=1"}));
  EXPECT_TRUE(admits("INVITE", {.from = "<sip:bob@127.0.0.10>;tag=1"}));
}

TEST_F(NetworkGate, WhatOnlyALenientReaderTakesForALocalAddressIsOne) {
  for (const char* from : {"<sip:bob@127.0.0.1:>;tag=1", "<sip:bob@127.0.0.1:99999>;tag=1", "<sip:x@b@127.0.0.1>",
                           "\"bob <sip:bob@127.0.0.1>", "<sip:m@x>;tag=m,<sip:bob@127.0.0.1>"}) {
    const auto said = dropped("INVITE", {.from = from});
    ASSERT_FALSE(said.empty()) << from;
    EXPECT_EQ(said.back(), "request from the network dropped: its From or To is local") << from;
  }
  const auto more = twice("request from the network dropped: a further From or To is local");
  EXPECT_EQ(dropped("INVITE", {.more = {{"From", "<sip:bob@127.0.0.1>;tag=2"}}}), more);
  EXPECT_EQ(dropped("INVITE", {.more = {{"t", "<sip:bob@127.0.0.1>"}}}), more);
  const auto refers = twice("request from the network dropped: it refers to a local user");
  EXPECT_EQ(dropped("REFER", {.more = {{"Refer-To", "<sip:127.0.0.1:;method=MESSAGE?body=x>"}}}), refers);
  EXPECT_EQ(dropped("REFER", {.more = {{"Refer-To", "<sip:x@y>, <sip:bob@127.0.0.1>"}}}), refers);
  EXPECT_EQ(dropped("refer", {.more = {{"Refer-To", "<sip:bob@127.0.0.1>"}}}), refers);
}

TEST_F(NetworkGate, NobodyOutsideNamesInWhoseNameAUserAgentGoesOn) {
  const auto in_contact = twice("request from the network dropped: a client key of another in its Contact");
  for (const std::string contact :
       {"<sip:m@192.0.2.10;mtk=2>", "<sip:mtk=2;@x>", "<sip:m@x?y=mtk=2>", "sip:m@x;mok=2", "\"a>b\" <sip:m@x;mok=2>",
        "\"<x>\" <sip:m@x;mok=2>", "<sip:m@x>;mok=2", "<sip:m@x;mtk=99>", "<sip:m@x;xmtk=2>"}) {
    const auto said = dropped("INVITE", {.more = {{"Contact", contact}}});
    ASSERT_FALSE(said.empty()) << contact;
    EXPECT_EQ(said.front(), in_contact.front()) << contact;
  }
  for (const FakeHeaders& more : {FakeHeaders{{"Contact", "<sip:m@x>, <sip:n@x;mok=2>"}},
                                  FakeHeaders{{"Contact", "<sip:m@x>"}, {"m", "<sip:n@x;mtk=2>"}}}) {
    const auto said = dropped("INVITE", {.more = more});
    ASSERT_FALSE(said.empty());
    EXPECT_EQ(said.front(), in_contact.front());
  }
  for (const std::string contact : {"<sip:m@x;mok=2>", "\"a>b\" <sip:m@x;mtk=2>", "sip:m@x;mtk=2"}) {
    const auto said = droppedAnswer({.via = answerVia(), .more = {{"Contact", contact}}});
    ASSERT_FALSE(said.empty()) << contact;
    EXPECT_EQ(said.front(), "response from the network dropped: a client key of another in its Contact") << contact;
  }
  EXPECT_EQ(dropped("INVITE", {.more = {{"Record-Route", "<sip:192.0.2.10;lr;mtk=2>"}}}),
            twice("request from the network dropped: a client key in its Record-Route"));
  EXPECT_EQ(dropped("INVITE", {.more = {{"Record-Route", "<sip:127.0.0.1:5072;lr>"}}}),
            twice("request from the network dropped: a local address in its Record-Route"));
  EXPECT_EQ(dropped("REFER", {.more = {{"Refer-To", "<sip:+900@work.net;mtk=2>"}}}),
            twice("request from the network dropped: a client key in its Refer-To"));
  // Another terminal's proxy has put in the key of its own side.
  EXPECT_TRUE(admits("INVITE", {.more = {{"Contact", "<sip:192.0.2.9:5060;mok=2>"}}}));
  EXPECT_TRUE(admits("INVITE", {.more = {{"Contact", "\"a>b\" <sip:m@x>"}}}));
  EXPECT_TRUE(admitsAnswer({.via = answerVia(), .more = {{"Contact", "<sip:192.0.2.9:5060;mtk=2>"}}}));
}

TEST_F(NetworkGate, NobodyIsReferredToALocalUser) {
  const auto line = twice("request from the network dropped: it refers to a local user");
  for (const char* target :
       {"<sip:127.0.0.1;method=MESSAGE?body=x>", "sip:bob@127.0.0.1", "<sip:registrar@127.0.0.1>"}) {
    EXPECT_EQ(dropped("REFER", {.more = {{"Refer-To", target}}}), line);
    EXPECT_EQ(dropped("REFER", {.more = {{"r", target}}}), line);
  }
  EXPECT_EQ(dropped("REFER", {.more = {{"Refer-To", "<sip:c@home.net>"}, {"Refer-To", "<sip:b@127.0.0.1>"}}}), line);
  EXPECT_TRUE(admits("REFER", {.more = {{"Refer-To", "<sip:carol@home.net?Replaces=1%40127.0.0.1>"}}}));
  EXPECT_TRUE(admits("INVITE", {.more = {{"Refer-To", "<sip:b@127.0.0.1>"}}})) << "which it does not mean";
}

TEST_F(NetworkGate, TheTagsOfALocalDialogNeverComeFromTheNetwork) {
  const std::string tags = ";scli=" + key + ";dcli=" + own_key;
  struct Row {
    const char* where;
    Said said;
  };
  const Row rows[] = {
      {"Via", {.via = kVia + tags}},
      {"Contact", {.more = {{"Contact", "<sip:bob@127.0.0.3" + tags + ">"}}}},
      {"Contact", {.more = {{"m", "<sip:a@b>, <sip:bob@127.0.0.3;xscli=1>"}}}},
      {"Record-Route", {.more = {{"Record-Route", "<sip:a;lr>, <sip:127.0.0.1:5060" + tags + ">"}}}},
      {"Record-Route", {.more = {{"Record-Route", "<sip:a;lr>"}, {"record-route", "<sip:b" + tags + ">"}}}}};
  for (const Row& row : rows) {
    SCOPED_TRACE(row.where);
    const std::string end = std::string(" from the network dropped: a local dialog's tag in its ") + row.where;
    EXPECT_EQ(dropped("INVITE", row.said), twice("request" + end));
    EXPECT_EQ(dropped("MESSAGE", row.said), twice("request" + end));
    Said answer = row.said;
    answer.via = answer.via == kVia ? answerVia() : answerVia() + tags;
    EXPECT_EQ(droppedAnswer(answer), twice("response" + end));
  }
  EXPECT_EQ(dropped("BYE", {.uri = "sip:alice@127.0.0.2" + tags}),
            twice("request from the network dropped: a local dialog's tag in its Request-URI"));
  const Said elsewhere{
      .more = {{"Call-ID", "scli=1"}, {"X", "scli=1"}}, .second_via = kSecondVia + tags, .body = "scli=1"};
  EXPECT_TRUE(admits("INVITE", elsewhere)) << "where nobody looks for them";
}

TEST_F(NetworkGate, AClientsKeyInARequestsViaWouldLeadItsAnswer) {
  const std::string all[] = {";mok=" + key, ";mtk=" + own_key, ";mok=99;mtk=99;st=0", ";xmok="};
  for (const std::string& tags : all) {
    EXPECT_EQ(dropped("INVITE", {.via = kVia + tags}),
              twice("request from the network dropped: a client key in its Via"));
  }
  for (const std::string& tags : all) {
    EXPECT_TRUE(admits("INVITE", {.second_via = kSecondVia + tags})) << "another hop's is its own matter";
  }
}

TEST_F(NetworkGate, AnswersAreNeitherOfNorForNorToALocalAddress) {
  const auto local = twice("response from the network dropped: its From or To is local");
  EXPECT_EQ(droppedAnswer({.via = answerVia(), .from = "<sip:alice@127.0.0.1>;tag=1"}), local);
  EXPECT_EQ(droppedAnswer({.via = answerVia(), .to = "<sip:127.0.0.1:5060>;tag=1"}), local);
  const Said to_bob{.via = answerVia(), .more = {{"Contact", "<sip:carol@home.net>, <sip:bob@127.0.0.1>"}}};
  for (const int status : {300, 302, 399}) {
    EXPECT_EQ(droppedAnswer(to_bob, status), twice("response from the network dropped: it refers to a local user"));
  }
  // A request on the connection that the proxy opened comes this way too.
  toNetwork().set(
      sipRequest("REFER", "sip:alice@127.0.0.2",
                 headers("REFER", {.via = answerVia(), .more = {{"Refer-To", "<sip:127.0.0.1;method=MESSAGE>"}}})));
  engine->process_network_to_ua_tcp_response(&toNetwork());
  expectNothingSent();
  EXPECT_TRUE(admitsAnswer(to_bob, 200)) << "gets the client's own tag";
  EXPECT_TRUE(admitsAnswer({.via = answerVia(), .more = {{"Contact", "<sip:carol@home.net>"}}}, 302));
  EXPECT_TRUE(admitsAnswer({.via = answerVia(), .from = "\"127.0.0.1\" <sip:alice@home.net>;tag=1"}));
}

TEST_F(NetworkGate, WithoutAMessageThereIsNothingToRefuse) {
  const FakeServerTcp empty;
  LogCapture log(3);
  EXPECT_TRUE(network_gate::admits_request("f", &empty, "INVITE", nullptr));
  EXPECT_TRUE(network_gate::admits_response("f", &empty));
  EXPECT_EQ(log.count(3), 0);
}

}  // namespace

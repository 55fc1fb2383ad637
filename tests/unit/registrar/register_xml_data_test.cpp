#include "registrar/register_xml_data.h"

#include <gtest/gtest.h>
#include <libxml/xmlmemory.h>
#include <libxml/xpath.h>

#include <cstdlib>
#include <cstring>
#include <ctime>

#include "fakes.h"
#include "framework/xml_document.h"
#include "support/log_capture.h"

namespace {

using fake::aor;
using fake::moduleInfo;
using fake::uaInfo;

/// The text stays beside the object that reads it.
struct Body {
  explicit Body(std::string text_in) : text(std::move(text_in)), xml(text.data(), static_cast<int>(text.size())) {}
  std::string text;
  RegisterXmlData xml;
};

using Texts = std::vector<std::string>;

std::string header(const std::string& text) {
  return "<sip-headers><header>" + text + "</header></sip-headers>";
}

Texts headersOf(const RegisterXmlData& xml) {
  Texts result;
  for (const auto& one : xml.get_sip_headers()) result.push_back(one.name + "=" + one.value);
  return result;
}

}  // namespace

TEST(RegisterXmlData, IsSilentAboutWhatItCannotTellYet) {
  Body body(moduleInfo("reg"));
  std::string packages = "unchanged";
  ClientTable_Entry_T entry;
  EXPECT_EQ(body.xml.get_packages(packages), 1);
  EXPECT_EQ(body.xml.get_client_info(entry), 1);
  EXPECT_EQ(packages, "unchanged");
  EXPECT_EQ(body.xml.get_aor(), nullptr);
  EXPECT_EQ(body.xml.get_nw_expiry_value(), 0);
}

TEST(RegisterXmlData, LogsItsLife) {
  LogCapture log;
  { Body body(moduleInfo("reg")); }
  EXPECT_TRUE(log.has(5, "IMSE_REG: RegisterXml Data Constructor"));
  EXPECT_TRUE(log.has(5, "IMSE_REG: RegisterXMlData Destructor "));
}

TEST(RegisterXmlData, TellsTheKindByTheRootElement) {
  EXPECT_EQ(Body("<ua-info/>").xml.get_package_type(), RegisterXmlData::EXTERNAL);
  EXPECT_EQ(Body("<module-info/>").xml.get_package_type(), RegisterXmlData::INTERNAL);
  EXPECT_EQ(Body("<ua-infos/>").xml.get_package_type(), RegisterXmlData::UNKNOWN);
  LogCapture log;
  EXPECT_EQ(Body("<ua-info>").xml.get_package_type(), RegisterXmlData::UNKNOWN);
  EXPECT_TRUE(log.has(4, "Error in get_package 400"));
}

TEST(RegisterXmlData, ReadsTheEventPackagesOfAModule) {
  LogCapture log;
  Body body(moduleInfo("presence,reg") + "<!-- the end -->");
  EXPECT_EQ(body.xml.parseXml(), 0);
  std::string packages;
  EXPECT_EQ(body.xml.get_packages(packages), 0);
  EXPECT_EQ(packages, "presence,reg");
  EXPECT_EQ(body.xml.get_aor(), nullptr);
  ClientTable_Entry_T entry;
  EXPECT_EQ(body.xml.get_client_info(entry), 1);
  EXPECT_TRUE(log.has(5, "IMSE_REG: RegisterXmlData::parseXml 2"));
  EXPECT_TRUE(log.has(5, "IMSE_REG: RegisterXmlData::get_nodeset /module-info/package-info"));
}

TEST(RegisterXmlData, OnlyTheFirstPackageInfoCounts) {
  Body body("<module-info><package-info>a</package-info><package-info>b</package-info></module-info>");
  EXPECT_EQ(body.xml.parseXml(), 0);
  std::string packages;
  body.xml.get_packages(packages);
  EXPECT_EQ(packages, "a");
}

TEST(RegisterXmlData, AModuleWithAnEmptyPackageInfoHandlesNothing) {
  Body body("<module-info><package-info/></module-info>");
  EXPECT_EQ(body.xml.parseXml(), 0);
  std::string packages = "old";
  EXPECT_EQ(body.xml.get_packages(packages), 0);
  EXPECT_EQ(packages, "");
}

TEST(RegisterXmlData, RefusesWhatLacksARequiredElement) {
  struct Case {
    const char* body;
    const char* line;
  };
  for (const Case& one :
       {Case{"<module-info/>", "Error in parsing iclient XML 518"},
        Case{"<ua-info/>", "Error in parsing eclient XML 613"},
        Case{"<ua-info><profile-info/></ua-info>", "Error in parsing eclient XML 613"},
        Case{"<ua-info><profile-info><name/></profile-info></ua-info>", "Error in parsing eclient XML 622"},
        Case{"<ua-info>", "Error in get_package 400"}, Case{"", "Error in get_package 400"}}) {
    SCOPED_TRACE(one.body);
    LogCapture log(4);
    EXPECT_EQ(Body(one.body).xml.parseXml(), -1);
    EXPECT_EQ(log.texts(), Texts{one.line});
  }
  LogCapture log(4);
  EXPECT_EQ(Body("<other/>").xml.parseXml(), -1);
  EXPECT_TRUE(log.lines().empty());
}

TEST(RegisterXmlData, ABodyThatBreaksAfterItsKindWasReadIsRefused) {
  for (const char* text : {"<ua-info/>", "<module-info/>"}) {
    LogCapture log(4);
    Body body(text);
    body.xml.parseXml();
    body.text[0] = '!';
    log.clear();
    EXPECT_EQ(body.xml.parseXml(), -1);
    EXPECT_EQ(log.texts(),
              Texts{text[1] == 'u' ? "Error in parsing eclient XML 591" : "Error in parsing iclient XML 514"});
  }
}

TEST(RegisterXmlData, TwoAddressesComeInDocumentOrderAndTheirHeadersInOneList) {
  Body body(uaInfo("home", aor("sip:a@home.net", header("P-One:1")) + aor("sip:b@home.net", header("P-Two:2"))));
  ASSERT_EQ(body.xml.parseXml(), 0);
  ASSERT_EQ(body.xml.get_aor()->size(), 2u);
  EXPECT_EQ(body.xml.get_aor()->at(0)->aor, "sip:a@home.net");
  EXPECT_EQ(body.xml.get_aor()->at(1)->aor, "sip:b@home.net");
  EXPECT_EQ(headersOf(body.xml), (Texts{"P-One=1", "P-Two=2"}));
  EXPECT_EQ(body.xml.get_net_prof_name(), "home");
}

TEST(RegisterXmlData, ReadsTheCapabilitiesOfAnAddress) {
  LogCapture log;
  Body body(uaInfo("home", aor("sip:U@home.net",
                               "<feature-tag>x</feature-tag><feature-tag>y</feature-tag>"
                               "<events>reg</events>")));
  ASSERT_EQ(body.xml.parseXml(), 0);
  const ClientAOR_T& one = *body.xml.get_aor()->at(0);
  EXPECT_EQ(one.aor, "sip:U@home.net");
  EXPECT_EQ(one.feature_tags, (Texts{"x", "y"}));
  EXPECT_EQ(one.events, "reg");
  EXPECT_EQ(one.methods, "");
  EXPECT_EQ(one.content_types, "");
  EXPECT_TRUE(log.has(5, "ISME_REG: RegisterXmlData::process_aor_get_next_node sip:U@home.net."));
  EXPECT_EQ(log.count(5, "IMSE_REG: RegisterXmlData:: map_node_name_to_index 0"), 2);
  EXPECT_EQ(log.count(5, "IMSE_REG: RegisterXmlData:: map_node_name_to_index 1"), 1);
  EXPECT_TRUE(log.has(5, "Parsing eclient XML success"));
}

TEST(RegisterXmlData, ReadsMethodsAndContentTypesInAnyOrderAndSkipsTheRest) {
  Body body(uaInfo("home", aor("sip:a@home.net",
                               " <content-type>text/plain</content-type><unknown>u</unknown>"
                               "<methods>MESSAGE</methods><events/>")));
  ASSERT_EQ(body.xml.parseXml(), 0);
  const ClientAOR_T& one = *body.xml.get_aor()->at(0);
  EXPECT_EQ(one.content_types, "text/plain");
  EXPECT_EQ(one.methods, "MESSAGE");
  EXPECT_EQ(one.events, "");
  EXPECT_TRUE(one.feature_tags.empty());
}

TEST(RegisterXmlData, AnAddressWithoutTextHasItsCapabilitiesInItsFirstChild) {
  Body body(uaInfo("home", aor("", "<events>reg</events>") + "<aor/>"));
  ASSERT_EQ(body.xml.parseXml(), 0);
  ASSERT_EQ(body.xml.get_aor()->size(), 2u);
  EXPECT_EQ(body.xml.get_aor()->at(0)->aor, "");
  EXPECT_EQ(body.xml.get_aor()->at(0)->events, "reg");
  EXPECT_EQ(body.xml.get_aor()->at(1)->aor, "");
  EXPECT_EQ(body.xml.get_aor()->at(1)->events, "");
}

TEST(RegisterXmlData, CapabilitiesMustFollowTheTextDirectly) {
  Body body(uaInfo("home",
                   "<aor><p><events>reg</events></p>sip:a@home.net</aor>"
                   "<aor>sip:b@home.net<!-- x --><p><events>reg</events></p></aor><aor>sip:c@home.net</aor>"));
  ASSERT_EQ(body.xml.parseXml(), 0);
  ASSERT_EQ(body.xml.get_aor()->size(), 3u);
  for (const auto& one : *body.xml.get_aor()) EXPECT_EQ(one->events, "") << one->aor;
  EXPECT_EQ(body.xml.get_aor()->at(0)->aor, "sip:a@home.net");
}

TEST(RegisterXmlData, TheNameOfTheParametersMattersToHeadersOnly) {
  Body body(uaInfo("home", "<aor>sip:a@home.net<p><events>reg</events>" + header("P-One:1") + "</p></aor>"));
  ASSERT_EQ(body.xml.parseXml(), 0);
  EXPECT_EQ(body.xml.get_aor()->at(0)->events, "reg");
  EXPECT_TRUE(headersOf(body.xml).empty());
}

TEST(RegisterXmlData, TheLaterEventsWin) {
  Body body(uaInfo("home", aor("sip:a@home.net", "<events>one</events><events>two</events>")));
  ASSERT_EQ(body.xml.parseXml(), 0);
  EXPECT_EQ(body.xml.get_aor()->at(0)->events, "two");
}

TEST(RegisterXmlData, AHeaderIsANameAndAValueUpToTheNextColon) {
  Body body(uaInfo("home", aor("sip:a@home.net",
                               "<sip-headers><header>P-Header:value</header><header>A:b:c</header>"
                               "<header>Alone</header><header/><header>:</header></sip-headers>")));
  ASSERT_EQ(body.xml.parseXml(), 0);
  EXPECT_EQ(headersOf(body.xml), (Texts{"P-Header=value", "A=b", "Alone="}));
}

TEST(RegisterXmlData, TheExpiryPreferenceIsTheLeadingNumber) {
  struct Case {
    const char* text;
    int value;
  };
  for (const Case& one : {Case{"600", 600}, Case{"abc", 0}, Case{"60s", 60}, Case{"99999999999", 2147483647}}) {
    Body body(uaInfo("home", "", one.text));
    ASSERT_EQ(body.xml.parseXml(), 0);
    EXPECT_EQ(body.xml.get_nw_expiry_value(), one.value) << one.text;
  }
  Body absent(uaInfo("home", ""));
  ASSERT_EQ(absent.xml.parseXml(), 0);
  EXPECT_EQ(absent.xml.get_nw_expiry_value(), 0);
}

TEST(RegisterXmlData, OnlyTheFirstNameAndExpiryCount) {
  Body body(
      "<ua-info><reg-expires-pref>1</reg-expires-pref><reg-expires-pref>2</reg-expires-pref><profile-info>"
      "<name>first</name><name>second</name></profile-info></ua-info>");
  ASSERT_EQ(body.xml.parseXml(), 0);
  EXPECT_EQ(body.xml.get_nw_expiry_value(), 1);
  EXPECT_EQ(body.xml.get_net_prof_name(), "first");
}

TEST(RegisterXmlData, ParsingAgainReplacesWhatWasParsed) {
  Body external(uaInfo("home", aor("sip:a@home.net", header("P-One:1"))));
  EXPECT_EQ(external.xml.parseXml(), 0);
  EXPECT_EQ(external.xml.parseXml(), 0);
  EXPECT_EQ(external.xml.get_aor()->size(), 1u);
  EXPECT_EQ(headersOf(external.xml), Texts{"P-One=1"});

  Body internal(moduleInfo("reg"));
  EXPECT_EQ(internal.xml.parseXml(), 0);
  internal.text.replace(internal.text.find("reg"), 3, "xyz");
  EXPECT_EQ(internal.xml.parseXml(), 0);
  std::string packages;
  internal.xml.get_packages(packages);
  EXPECT_EQ(packages, "xyz");
}

TEST(RegisterXmlData, FillsARoutingRecordWithCopies) {
  Body body(uaInfo("home", aor("sip:a@home.net", "<events>reg</events>")));
  ASSERT_EQ(body.xml.parseXml(), 0);
  ClientTable_Entry_T entry;
  entry.aors.push_back({"sip:before@home.net", {}, "", "", ""});
  EXPECT_EQ(body.xml.get_client_info(entry), 0);
  ASSERT_EQ(entry.aors.size(), 2u);
  EXPECT_EQ(entry.aors[1].aor, "sip:a@home.net");
  EXPECT_EQ(entry.aors[1].events, "reg");
  EXPECT_EQ(entry.profile_name, "home");
  std::string packages = "unchanged";
  EXPECT_EQ(body.xml.get_packages(packages), 1);
  EXPECT_EQ(packages, "unchanged");
}

TEST(RegisterXmlData, SubstitutesThePredefinedEntities) {
  Body body(uaInfo("h&amp;m", aor("sip:a&#64;home.net", "<feature-tag>&lt;x&gt;<![CDATA[&]]></feature-tag>")));
  ASSERT_EQ(body.xml.parseXml(), 0);
  EXPECT_EQ(body.xml.get_net_prof_name(), "h&m");
  EXPECT_EQ(body.xml.get_aor()->at(0)->aor, "sip:a@home.net");
  EXPECT_EQ(body.xml.get_aor()->at(0)->feature_tags, Texts{"<x>&"});
}

TEST(RegisterXmlData, ANodeSetIsNeverEmptyAndABadExpressionIsNull) {
  framework::XmlDocument document;
  std::string error;
  ASSERT_TRUE(document.parse("<a><b/></a>", 11, error));
  _xmlXPathObject* found = RegisterXmlData::get_nodeset(document.get(), "/a/b");
  ASSERT_NE(found, nullptr);
  EXPECT_EQ(found->nodesetval->nodeNr, 1);
  xmlXPathFreeObject(found);
  LogCapture log(4);
  EXPECT_EQ(RegisterXmlData::get_nodeset(document.get(), "/a/c"), nullptr);
  EXPECT_EQ(RegisterXmlData::get_nodeset(document.get(), "count(/a)"), nullptr);
  EXPECT_TRUE(log.lines().empty());
  EXPECT_EQ(RegisterXmlData::get_nodeset(document.get(), "/a["), nullptr);
  EXPECT_EQ(log.texts(), Texts{"Error in get_nodeset 350"});
}

TEST(RegisterXmlData, WithoutMemoryForAnExpressionThereAreNoNodes) {
  framework::XmlDocument document;
  std::string error;
  ASSERT_TRUE(document.parse("<a/>", 4, error));
  const auto none = [](std::size_t) -> void* { return nullptr; };
  ASSERT_EQ(xmlMemSetup(std::free, none, std::realloc, strdup), 0);
  LogCapture log(4);
  _xmlXPathObject* const nodes = RegisterXmlData::get_nodeset(document.get(), "/a");
  xmlMemSetup(std::free, std::malloc, std::realloc, strdup);
  EXPECT_EQ(nodes, nullptr);
  EXPECT_EQ(log.texts(), Texts{"Error in get_nodeset 345"});
}

TEST(RegisterXmlData, RefusesWhatAParserMustNotBeFed) {
  std::string nested;
  for (int i = 0; i < 20000; ++i) nested += "<a>";
  const std::string huge(64 * 1024, ' ');
  for (const std::string& text :
       {std::string("<!DOCTYPE ua-info [<!ENTITY a \"aaaa\"><!ENTITY b \"&a;&a;\">]><ua-info>&b;</ua-info>"),
        std::string("<!DOCTYPE ua-info SYSTEM \"http://127.0.0.1:1/x.dtd\"><ua-info/>"),
        std::string("<!DOCTYPE ua-info [<!ENTITY f SYSTEM \"file:///etc/passwd\">]><ua-info>&f;</ua-info>"),
        std::string("<?xml version=\"1.0\" encoding=\"UTF-7\"?><ua-info/>"), std::string("\xff\xfe<\0u\0", 6), nested,
        std::string("<?xml version=\"1.0\" encoding=\"US-ASCII\"?><ua-info>\xe4</ua-info>"), uaInfo("home", "") + huge,
        std::string("<ua-info>\x01</ua-info>"), std::string("<ua-info>\xc3(</ua-info>"),
        std::string("<ua-info>\0</ua-info>", 20)}) {
    LogCapture log(4);
    EXPECT_EQ(Body(text).xml.parseXml(), -1) << text.substr(0, 80);
    EXPECT_EQ(log.texts(), Texts{"Error in get_package 400"});
  }
}

TEST(RegisterXmlData, WhiteSpaceAroundAValueDoesNotCount) {
  Body body(
      "<ua-info>\n <reg-expires-pref>\n 600\n </reg-expires-pref>\n <profile-info>\n  <name>\n   home net\n  </name>\n"
      " </profile-info>\n <aor>\n  sip:a@home.net\n  <ua-specific-parameters>\n   <feature-tag> x </feature-tag>\n"
      "   <feature-tag>\n</feature-tag>\n   <events>\treg, presence\r\n</events>\n   <methods> MESSAGE </methods>\n"
      "   <content-type>\ntext/plain\n</content-type>\n   <sip-headers>\n    <header>\n     P-One:1\n    </header>\n"
      "    <header> </header>\n   </sip-headers>\n  </ua-specific-parameters>\n </aor>\n</ua-info>\n");
  ASSERT_EQ(body.xml.parseXml(), 0);
  EXPECT_EQ(body.xml.get_nw_expiry_value(), 600);
  EXPECT_EQ(body.xml.get_net_prof_name(), "home net");
  ASSERT_EQ(body.xml.get_aor()->size(), 1u);
  const ClientAOR_T& one = *body.xml.get_aor()->at(0);
  EXPECT_EQ(one.aor, "sip:a@home.net");
  EXPECT_EQ(one.feature_tags, Texts{"x"});
  EXPECT_EQ(one.events, "reg, presence");
  EXPECT_EQ(one.methods, "MESSAGE");
  EXPECT_EQ(one.content_types, "text/plain");
  EXPECT_EQ(headersOf(body.xml), Texts{"P-One=1"});

  Body module("<module-info>\n <package-info>\n  reg\n </package-info>\n</module-info>");
  ASSERT_EQ(module.xml.parseXml(), 0);
  std::string packages;
  EXPECT_EQ(module.xml.get_packages(packages), 0);
  EXPECT_EQ(packages, "reg");
}

TEST(RegisterXmlData, AValueOfWhiteSpaceIsAnEmptyOne) {
  LogCapture log(4);
  EXPECT_EQ(Body("<ua-info><profile-info><name> \n</name></profile-info></ua-info>").xml.parseXml(), -1);
  EXPECT_EQ(log.texts(), Texts{"Error in parsing eclient XML 622"});
  // No value: what an earlier element said stays, as with an empty element.
  Body body(uaInfo("home", aor("sip:a@home.net", "<events>reg</events><events> </events>")));
  ASSERT_EQ(body.xml.parseXml(), 0);
  EXPECT_EQ(body.xml.get_aor()->at(0)->events, "reg");
}

// Where the capabilities of an address stand is told by the document's text, white space included.
TEST(RegisterXmlData, WhiteSpaceBeforeTheParametersIsTextOfTheAddress) {
  LogCapture log;
  Body body(uaInfo(
      "home",
      "<aor>\n<p><events>reg</events></p></aor><aor><p><events>a</events></p>\n<q><events>b</events></q></aor>"));
  ASSERT_EQ(body.xml.parseXml(), 0);
  ASSERT_EQ(body.xml.get_aor()->size(), 2u);
  EXPECT_EQ(body.xml.get_aor()->at(0)->aor, "");
  EXPECT_EQ(body.xml.get_aor()->at(0)->events, "reg");
  EXPECT_EQ(body.xml.get_aor()->at(1)->events, "") << "what follows the first child is text";
  EXPECT_TRUE(log.has(5, "ISME_REG: RegisterXmlData::process_aor_get_next_node \\x0a."));
}

TEST(RegisterXmlData, NulsAtTheEndOfABodyDoNotCount) {
  LogCapture log(4);
  for (const std::size_t nuls : {1U, 2U, 500U}) {
    Body body(uaInfo("home", aor("sip:a@home.net", "")) + std::string(nuls, '\0'));
    EXPECT_EQ(body.xml.parseXml(), 0);
    EXPECT_EQ(body.xml.get_net_prof_name(), "home");
  }
  EXPECT_TRUE(log.lines().empty());
}

TEST(RegisterXmlData, OtherEncodingsAreReadAsUtf8) {
  Body latin1("<?xml version='1.0' encoding='ISO-8859-1'?>" + uaInfo("caf\xe9", ""));
  ASSERT_EQ(latin1.xml.parseXml(), 0);
  EXPECT_EQ(latin1.xml.get_net_prof_name(), "caf\xc3\xa9");
  Body ascii("<?xml version='1.0' encoding='US-ASCII'?>" + uaInfo("home", ""));
  ASSERT_EQ(ascii.xml.parseXml(), 0);
  std::string text = "\xff\xfe";
  for (const char c : uaInfo("home", aor("sip:a@home.net", ""))) (text += c) += '\0';
  Body utf16(text);
  ASSERT_EQ(utf16.xml.parseXml(), 0);
  EXPECT_EQ(utf16.xml.get_aor()->at(0)->aor, "sip:a@home.net");
}

TEST(RegisterXmlData, ThousandsOfAddressesAndHeadersAreReadInTime) {
  std::string aors, headers;
  while (aors.size() < 60 * 1024) aors += "<aor>a<b/></aor>";
  while (headers.size() < 60 * 1024) headers += "<header>a</header>x";
  const std::clock_t before = std::clock();
  Body many(uaInfo("home", aors));
  EXPECT_EQ(many.xml.parseXml(), 0);
  EXPECT_GT(many.xml.get_aor()->size(), 3000u);
  Body long_list(uaInfo("home", aor("sip:a@home.net", "<sip-headers>" + headers + "</sip-headers>")));
  EXPECT_EQ(long_list.xml.parseXml(), 0);
  EXPECT_GT(headersOf(long_list.xml).size(), 3000u);
  std::string pieces;
  while (pieces.size() < 60 * 1024) pieces += "a<b/>";
  Body mixed(uaInfo("home", "<aor>" + pieces + "</aor>"));
  EXPECT_EQ(mixed.xml.parseXml(), 0);
  // Processor time. A quadratic walk takes seconds here; the bound leaves room for sanitizers.
  EXPECT_LT(std::clock() - before, CLOCKS_PER_SEC);
}

TEST(PrintStructureInfo, WritesAListOfAddresses) {
  RegisterXmlData::AorList aors;
  aors.push_back(
      std::make_unique<ClientAOR_T>(ClientAOR_T{"sip:a@home.net", {"x", "y"}, "reg", "MESSAGE", "text/plain"}));
  LogCapture log;
  print_structure_info(IMSE_REG_STRUCTURE_AOR_LIST, &aors);
  EXPECT_EQ(log.texts(), (Texts{"IMSE_REG: print strucure info 0", "IMSE_REG: aor[0]= sip:a@home.net",
                                "IMSE_REG: feature_tags [0] = x", "IMSE_REG: feature_tags [1] = y",
                                "IMSE_REG: events_supported = reg", "IMSE_REG: methods_supported = MESSAGE",
                                "IMSE_REG: content_types_supported = text/plain"}));
  log.clear();
  print_structure_info(static_cast<IMSE_REG_STRUCTURE_IDENTIFIER_T>(7), &aors);
  EXPECT_EQ(log.texts(), Texts{"IMSE_REG: print strucure info 7"});
  log.clear();
  print_structure_info(IMSE_REG_STRUCTURE_AOR_LIST, nullptr);
  EXPECT_EQ(log.texts(), Texts{"IMSE_REG: print strucure info 0"});
}

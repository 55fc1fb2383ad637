#include "registrar/client_factory.h"

#include <gtest/gtest.h>

#include "fakes.h"
#include "framework/bounds.h"
#include "registrar/ext_client.h"
#include "support/log_capture.h"

namespace {

using fake::aor;
using fake::Register;
using fake::Request;

std::unique_ptr<IMSE_Client> create(const Register& message) {
  Request request(message.text());
  return IMSE_ClientFactory::create_client(&request);
}

std::string refusal(const Register& message) {
  LogCapture log;
  EXPECT_EQ(create(message), nullptr);
  std::string said;
  for (const auto& line : log.lines()) {
    if (line.function == "create_client" && line.text != "IMSE_REG: IMSE_ClientFactory::create_client")
      said += std::to_string(line.level) + " " + line.text + "|";
  }
  return said;
}

}  // namespace

TEST(ClientFactory, MakesAClientOfTheBodysKind) {
  const auto external = create({});
  ASSERT_NE(external, nullptr);
  EXPECT_EQ(external->is_external(), 1);
  const auto internal = create({.body = fake::moduleInfo("reg")});
  ASSERT_NE(internal, nullptr);
  EXPECT_EQ(internal->is_external(), 0);
  ClientTable_Entry_T entry;
  internal->get_client_info(entry);
  EXPECT_EQ(entry.packages, "reg");
}

TEST(ClientFactory, NumbersExternalClientsFromOneAndNeverAgain) {
  IMSE_ClientFactory::ua_id_counter = 0;
  for (std::uint32_t id = 1; id <= 3; ++id) {
    create({.body = fake::moduleInfo("reg")});
    EXPECT_EQ(static_cast<IMSE_ExtClient&>(*create({})).get_ua_id(), id);
  }
}

TEST(ClientFactory, RefusesContentThatIsNotXml) {
  EXPECT_EQ(refusal({.content_type = ""}), "4 IMSE_REG: Content-Type absent |");
  EXPECT_EQ(refusal({.content_type = "text/plain"}), "5 IMSE_REG: Invalid Content-Type|");
}

TEST(ClientFactory, RefusesAContentTypeWithParameters) {
  EXPECT_EQ(refusal({.content_type = "application/xml;charset=utf-8"}), "5 IMSE_REG: Invalid Content-Type|");
}

TEST(ClientFactory, RefusesAnEmptyBody) {
  EXPECT_EQ(refusal({.body = ""}), "4 IMSE_REG: No content 0 0|");
}

TEST(ClientFactory, RefusesABodyThatIsNeitherKind) {
  EXPECT_EQ(refusal({.body = "<other/>"}), "4 IMSE_REG: Invalid content|");
  EXPECT_EQ(refusal({.body = "not xml"}), "4 IMSE_REG: Invalid content|");
  EXPECT_EQ(refusal({.body = "<ua-info/>"}), "4 IMSE_REG: Invalid content|");
}

TEST(ClientFactory, RefusesABodyThatNoNotifyCouldTell) {
  const framework::Bounds before = framework::bounds();
  framework::Bounds wide = before;
  wide.client_aors = 4096;
  framework::setBounds(wide);
  // Every header is told once for each address: 200 x 200 headers are megabytes.
  std::string aors, headers;
  for (int i = 0; i < 200; ++i) headers += "<header>P-Header:some value</header>";
  aors = aor("sip:a@home.net", "<sip-headers>" + headers + "</sip-headers>");
  for (int i = 0; i < 200; ++i) aors += aor("sip:a@home.net", "");
  EXPECT_EQ(refusal({.body = fake::uaInfo("home", aors)}),
            "4 IMSE_REG: Content too large for a NOTIFY: 201 AORs, 200 headers|");
  // It took no number.
  IMSE_ClientFactory::ua_id_counter = 0;
  EXPECT_EQ(create({.body = fake::uaInfo("home", aors)}), nullptr);
  EXPECT_EQ(IMSE_ClientFactory::ua_id_counter, 0u);
  framework::setBounds(before);
}

TEST(ClientFactory, RefusesABodyAboveABoundAndSaysWhich) {
  std::string aors;
  for (int n = 0; n < 65; ++n) aors += "<aor>a@b</aor>";
  EXPECT_EQ(refusal({.body = fake::uaInfo("home", aors)}).find("4 IMSE_REG: Content above max-client-aors: 65 AORs"),
            0U);
  const auto tagged = [](const std::string& tags) {
    return fake::uaInfo("home", "<aor>a@b<ua-specific-parameters>" + tags + "</ua-specific-parameters></aor>");
  };
  const std::string tag = "<feature-tag>" + std::string(257, 't') + "</feature-tag>";
  EXPECT_EQ(refusal({.body = tagged(tag)}).find("4 IMSE_REG: Content above max-feature-tag-size"), 0U);
  const std::string events = "<events>" + std::string(9000, 'e') + "</events>";
  EXPECT_EQ(refusal({.body = tagged(events)}).find("4 IMSE_REG: Content above max-client-text"), 0U);
}

TEST(ClientFactory, LooksAtAnExternalBodyWithoutFurtherLines) {
  LogCapture log;
  const auto client = create({.body = fake::uaInfo("home", "")});
  EXPECT_EQ(log.texts(),
            (std::vector<std::string>{
                "IMSE_REG: IMSE_ClientFactory::create_client", "IMSE_REG: RegisterXml Data Constructor",
                "IMSE_REG: RegisterXmlData::parseXml 2", "IMSE_REG: RegisterXmlData::get_package_type 2",
                "IMSE_REG: RegisterXmlData::parse_eclient_xml",
                "IMSE_REG: RegisterXmlData::get_nodeset /ua-info/reg-expires-pref",
                "IMSE_REG: RegisterXmlData::get_nodeset /ua-info/profile-info/name",
                "IMSE_REG: RegisterXmlData::dig_and_parse_aor", "IMSE_REG: RegisterXmlData::get_nodeset /ua-info/aor",
                "IMSE_REG: RegisterXmlData::get_nodeset /ua-info/aor/ua-specific-parameters/sip-headers/header",
                "Parsing eclient XML success", "IMSE_REG: RegisterXmlData::get_package_type 1",
                "IMSE_REG: IMSE_Client::IMSE_Client"}));
}

#include "registrar/notify_xml_data.h"

#include <gtest/gtest.h>
#include <libxml/xmlmemory.h>

#include <climits>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>

#ifdef __SANITIZE_ADDRESS__
#include <sanitizer/lsan_interface.h>
#endif

#include "framework/xml_document.h"
#include "registrar/notify_writer.h"
#include "support/log_capture.h"

namespace {

std::string expected(const std::string& name) {
  std::ifstream file(std::filesystem::path(__FILE__).parent_path() / "data" / name, std::ios::binary);
  EXPECT_TRUE(file.is_open()) << name;
  std::ostringstream text;
  text << file.rdbuf();
  return text.str();
}

std::string encoded(IMSE_NotifyXmlData& document) {
  EXPECT_EQ(document.encodeXml(), 0);
  return document.text() == nullptr ? std::string() : std::string(document.text());
}

IMSE_REG_NW_PROFILE_T profile() {
  IMSE_REG_NW_PROFILE_T p;
  p.operation_mode = "shared-ietf";
  p.reg_initial_retry_after = "30";
  p.reg_refresh_retry_after = "60";
  p.reg_max_attempts = "5";
  p.reg_ignore_retry_after = "no";
  p.link_max_attempts = "3";
  p.link_interval = "10";
  p.reg_expiry = "3600";
  p.compression = "off";
  p.policy = "strict";
  p.nw_reg_event_support = "yes";
  p.uicc_applications = "isim";
  p.sa_in_algo = "hmac-md5-96";
  p.sa_enc_algo = "aes-cbc";
  p.impi = "alice@home.net";
  p.impu = "sip:alice@home.net";
  p.access_network = "lte";
  p.authorized_ap = "00:11:22:33:44:55";
  p.ieee_access_type = "IEEE-802.11a";
  p.ap_id_type = "mac";
  p.authorized_plmns = "26201";
  p.access_type_3gpp = "3GPP-E-UTRAN-FDD";
  p.ue_sip_port = "5060";
  p.ue_trans_pref = "tcp";
  p.ue_threshold_pref = "1300";
  p.registrar_address = "registrar.home.net";
  p.registrar_realm = "home.net";
  p.domain_name = "home.net";
  p.disc_pref = "static";
  p.dns_realm = "home.net";
  p.dns_services = "SIP+D2T";
  p.ip_address = "192.0.2.10";
  p.napi_profile_name = "internet";
  p.initial_route_set = "<sip:pcscf.home.net;lr>";
  return p;
}

IMSE_UA_INFO_T twoAddressesThreeHeaders() {
  IMSE_UA_INFO_T info;
  info.id = 1;
  info.reg_expires_pref = 1200;
  info.aors = {{"sip:alice@home.net", {"+g.oma.sip-im", "+g.3gpp.icsi-ref=\"urn\""}}, {"sip:al&ce@home.net", {}}};
  info.sip_headers = {{"P-One", "1"}, {"P-Two", "<two>"}, {"P-Three", ""}};
  return info;
}

std::size_t occurrences(const std::string& text, const std::string& part) {
  std::size_t count = 0;
  for (std::size_t at = 0; (at = text.find(part, at)) != std::string::npos; at += part.size()) ++count;
  return count;
}

bool wellFormed(const std::string& text) {
  framework::XmlDocument document;
  std::string error;
  const bool good = document.parse(text.data(), text.size(), error);
  EXPECT_TRUE(good) << error;
  return good;
}

}  // namespace

TEST(NotifyXmlData, ACreateDocumentHasTheProfileAndItsUserAgents) {
  const IMSE_REG_NW_PROFILE_T p = profile();
  LogCapture log;
  IMSE_NotifyXmlData document("home", p, 1);
  EXPECT_EQ(document.add_ua_info(twoAddressesThreeHeaders()), 0);
  IMSE_UA_INFO_T second;
  second.id = 2;
  second.aors = {{"sip:bob@home.net", {"+g.bob"}}};
  EXPECT_EQ(document.add_ua_info(second), 0);
  const std::string text = encoded(document);
  EXPECT_EQ(text, expected("create_two_user_agents.xml"));
  EXPECT_EQ(document.length(), static_cast<int>(text.size()) + 1);
  EXPECT_TRUE(log.has(5, "IMSE_REG: IMSE_NotifyXmlData::IMSE_NotifyXmlData create home 1"));
  EXPECT_TRUE(log.has(5, "IMSE_REG: IMSE_NotifyXmlData::add_ua_info 2"));
  EXPECT_TRUE(log.has(5, "IMSE_REG: IMSE_NotifyXmlData::encodeXml 0"));
  EXPECT_TRUE(log.has(5, "IMSE_REG: IMSE_NotifyXmlData::write_generic_notify CREATE"));
  EXPECT_TRUE(log.has(5, "IMSE_REG: IMSE_NotifyXmlData::write_ua_info 2"));
  EXPECT_TRUE(log.has_part(
      5, "IMSE_REG: Moving out of encode_notify_create successfully " + std::to_string(text.size()) + " 0x"));
}

TEST(NotifyXmlData, ACreateDocumentWithoutUserAgentsHasTheWholeProfile) {
  const IMSE_REG_NW_PROFILE_T p = profile();
  IMSE_NotifyXmlData document("home", p, 65535);
  const std::string text = encoded(document);
  EXPECT_EQ(text, expected("create_no_user_agent.xml"));
  EXPECT_EQ(occurrences(text, "<ua-info>"), 0u);
  EXPECT_EQ(occurrences(text, "<network-profile-info>"), 1u);
}

TEST(NotifyXmlData, EmptyValuesGiveEmptyElements) {
  const IMSE_REG_NW_PROFILE_T empty;
  IMSE_NotifyXmlData document("", empty, 2);
  EXPECT_EQ(encoded(document), expected("create_empty_profile.xml"));
}

TEST(NotifyXmlData, AnUpdateDocumentSaysWhatHappenedToWhom) {
  LogCapture log;
  for (const char* action : {"add", "delete"}) {
    IMSE_NotifyXmlData document(std::string(action), 3);
    document.add_ua_info(twoAddressesThreeHeaders());
    const std::string text = encoded(document);
    EXPECT_EQ(text, expected(std::string("update_") + action + ".xml"));
    EXPECT_TRUE(log.has_part(
        5, "IMSE_REG: Moving out of encode_notify_update successfully " + std::to_string(text.size()) + " 0x"));
  }
  EXPECT_TRUE(log.has(5, "IMSE_REG: IMSE_NotifyXmlData::IMSE_NotifyXmlData update add 3"));
}

TEST(NotifyXmlData, ADeleteDocumentHasAnEmptyNameAndItsActionOnly) {
  LogCapture log;
  IMSE_NotifyXmlData document(4);
  const std::string text = encoded(document);
  EXPECT_EQ(text, expected("delete.xml"));
  EXPECT_TRUE(log.has(5, "IMSE_REG: IMSE_NotifyXmlData::IMSE_NotifyXmlData delete 4"));
  EXPECT_TRUE(log.has_part(
      5, "IMSE_REG: Moving out of encode_notify_delete successfully " + std::to_string(text.size()) + " 0x"));
}

TEST(NotifyXmlData, AUserAgentWithoutAddressIsNotTold) {
  IMSE_UA_INFO_T info = twoAddressesThreeHeaders();
  info.aors.clear();
  IMSE_NotifyXmlData document(std::string("add"), 3);
  EXPECT_EQ(document.add_ua_info(info), 1);
  EXPECT_EQ(occurrences(encoded(document), "<ua-info>"), 0u);
}

TEST(NotifyXmlData, HeadersAreRepeatedInEveryAddress) {
  IMSE_NotifyXmlData document(std::string("add"), 3);
  document.add_ua_info(twoAddressesThreeHeaders());
  const std::string text = encoded(document);
  EXPECT_EQ(occurrences(text, "</aor>"), 2u);
  EXPECT_EQ(occurrences(text, "<sip-header>"), 6u);
  const std::size_t second = text.find("<aor>", text.find("</aor>"));
  EXPECT_EQ(occurrences(text.substr(second), "<sip-header>"), 3u);
}

TEST(NotifyXmlData, WhatXmlCannotCarryDoesNotBreakTheDocument) {
  IMSE_UA_INFO_T info;
  info.aors = {
      {"sip:a\x01\x1b@home.net", {"\xff\xfe", "\xc3\xa9\xe2\x82\xac", "\xed\xa0\x80", "\xef\xbf\xbf", "a\xc3"}}};
  LogCapture log(4);
  IMSE_NotifyXmlData document(std::string("add"), 3);
  document.add_ua_info(info);
  const std::string text = encoded(document);
  EXPECT_TRUE(wellFormed(text));
  EXPECT_NE(text.find("sip:a?\?@home.net"), std::string::npos);
  EXPECT_NE(text.find(">?\?</feature-tag>"), std::string::npos);
  EXPECT_NE(text.find("\xc3\xa9\xe2\x82\xac"), std::string::npos);
  EXPECT_NE(text.find("<feature-tag>a?</feature-tag>"), std::string::npos);
  // One line for each value that was changed.
  EXPECT_EQ(log.lines().size(), 5u);
  EXPECT_TRUE(log.has(4, "IMSE_REG: replaced what XML cannot carry in sip:a\\x01\\x1b@home.net"));
}

TEST(NotifyXmlData, MarkupInValuesStaysText) {
  IMSE_NotifyXmlData document(std::string("</update-info><x/>&amp;%s%n"), 3);
  const std::string text = encoded(document);
  EXPECT_TRUE(wellFormed(text));
  framework::XmlDocument read;
  std::string error, value;
  ASSERT_TRUE(read.parse(text.data(), text.size(), error));
  EXPECT_TRUE(read.first("/reg-info/update-info", value));
  EXPECT_EQ(value, "</update-info><x/>&amp;%s%n");
}

TEST(NotifyXmlData, EveryStepThatFailsTellsItsOwnNumber) {
  const IMSE_REG_NW_PROFILE_T p = profile();
  struct Kind {
    const char* label;
    std::unique_ptr<IMSE_NotifyXmlData> document;
    int last_step;
  };
  Kind kinds[] = {{"CREATE", std::make_unique<IMSE_NotifyXmlData>("home", p, 1), 107},
                  {"UPDATE", std::make_unique<IMSE_NotifyXmlData>(std::string("add"), 1), 52},
                  {"delete", std::make_unique<IMSE_NotifyXmlData>(1), 11}};
  for (Kind& kind : kinds) {
    kind.document->add_ua_info(twoAddressesThreeHeaders());
    const std::string whole = encoded(*kind.document);
    // With every limit below the whole size another call is the one that has no room.
    std::set<int> steps;
    int last = 0;
    for (std::size_t limit = 0; limit < whole.size(); ++limit) {
      LogCapture log(4);
      kind.document->set_max_size(limit);
      if (kind.document->encodeXml() == 0) break;
      EXPECT_EQ(kind.document->text(), nullptr) << "no partial text is kept";
      EXPECT_EQ(kind.document->length(), 0);
      const auto lines = log.texts();
      ASSERT_EQ(lines.size(), 1u);
      const std::string begin = std::string("Unable to write XML for ") + kind.label + " ";
      ASSERT_EQ(lines[0].substr(0, begin.size()), begin);
      const int step = std::atoi(lines[0].c_str() + begin.size());
      EXPECT_GE(step, last);
      last = step;
      steps.insert(step);
    }
    // The first three (buffer, writer, indentation) write nothing yet.
    EXPECT_EQ(*steps.begin(), 4) << kind.label;
    EXPECT_EQ(static_cast<int>(steps.size()), last - 3) << kind.label;
    EXPECT_EQ(last, kind.last_step) << kind.label;
    kind.document->set_max_size(IMSE_NotifyXmlData::kMaxSize);
    EXPECT_EQ(encoded(*kind.document), whole);
  }
}

TEST(NotifyXmlData, APieceSaysOneWhenItIsWrittenElseZeroAndTheStep) {
  IMSE_NotifyXmlData document(1);
  NotifyWriter writer(IMSE_NotifyXmlData::kMaxSize);
  ASSERT_TRUE(writer.begin());
  int step = -1;
  EXPECT_EQ(document.write_generic_notify(writer, "DELETE", step), 1);
  EXPECT_EQ(document.write_ua_info(writer, step), 1);
  EXPECT_EQ(step, -1);
  NotifyWriter full(0);
  EXPECT_EQ(document.write_generic_notify(full, "DELETE", step), 0);
  EXPECT_EQ(step, full.step());
}

TEST(NotifyXmlData, TooLargeADocumentIsRefused) {
  IMSE_UA_INFO_T info = twoAddressesThreeHeaders();
  for (int i = 0; i < 500; ++i) info.aors.push_back(info.aors[0]);
  LogCapture log(4);
  IMSE_NotifyXmlData document(std::string("add"), 3);
  document.add_ua_info(info);
  EXPECT_EQ(document.encodeXml(), -1);
  EXPECT_TRUE(log.has_part(4, "Unable to write XML for UPDATE "));
}

TEST(NotifyXmlData, TheSizeOfAnUpdateIsKnownWithoutWritingIt) {
  IMSE_UA_INFO_T info = twoAddressesThreeHeaders();
  info.id = INT_MIN;
  info.reg_expires_pref = INT_MIN;
  info.aors.push_back({"", {"\"<&>\"\r\xc3\xa9", ""}});
  info.aors.push_back({"", {}});
  std::vector<std::unique_ptr<ClientAOR_T>> aors;
  for (const auto& aor : info.aors)
    aors.push_back(std::make_unique<ClientAOR_T>(ClientAOR_T{aor.aor, aor.feature_tags, "", "", ""}));
  IMSE_NotifyXmlData document(std::string("delete"), 65535);
  document.add_ua_info(info);
  const std::string text = encoded(document);
  LogCapture log;
  EXPECT_EQ(IMSE_NotifyXmlData::update_size(aors, info.sip_headers), text.size());
  EXPECT_TRUE(log.lines().empty());
}

TEST(NotifyXmlData, NoDocumentIsLargerThanItsCountedSize) {
  IMSE_REG_NW_PROFILE_T p = profile();
  p.policy = "<&>\"";
  for (const IMSE_REG_NW_PROFILE_T& settings : {IMSE_REG_NW_PROFILE_T(), p}) {
    IMSE_NotifyXmlData create("home&away", settings, 65535);
    // The frame of an update is counted, which is a little more.
    for (int count = 0; count < 3; ++count) {
      const std::size_t written = encoded(create).size();
      EXPECT_GE(create.size(), written);
      EXPECT_LE(create.size(), written + 64 * static_cast<std::size_t>(count + 1));
      EXPECT_TRUE(create.fits());
      create.add_ua_info(twoAddressesThreeHeaders());
    }
    create.set_max_size(create.size());
    EXPECT_FALSE(create.has_room_for(twoAddressesThreeHeaders()));
  }
  IMSE_NotifyXmlData gone(1);
  EXPECT_GE(gone.size(), encoded(gone).size());
  EXPECT_LE(gone.size(), encoded(gone).size() + 10);
}

// --- libxml2's allocations fail one after the other ------------------------------------------------------------------

namespace {

int allocations_left = -1;  // negative: as many as wanted

bool refused() {
  return allocations_left >= 0 && allocations_left-- == 0 && ((allocations_left = 0), true);
}
void* failingMalloc(std::size_t size) {
  return refused() ? nullptr : std::malloc(size);
}
void* failingRealloc(void* old, std::size_t size) {
  return refused() ? nullptr : std::realloc(old, size);
}
char* failingStrdup(const char* text) {
  return refused() ? nullptr : strdup(text);
}

}  // namespace

TEST(NotifyXmlData, WithoutMemoryTheEncodingFailsOrIsWhole) {
  const IMSE_REG_NW_PROFILE_T p = profile();
  IMSE_NotifyXmlData document("home", p, 1);
  document.add_ua_info(twoAddressesThreeHeaders());
  const std::string whole = encoded(document);
#ifdef __SANITIZE_ADDRESS__
  // Out of memory, libxml2 loses a few bytes of its own.
  const __lsan::ScopedDisabler disabler;
#endif
  ASSERT_EQ(xmlMemSetup(std::free, failingMalloc, failingRealloc, failingStrdup), 0);
  std::set<std::string> lines;
  int failures = 0;
  int allowed = 0;
  for (bool done = false; !done && allowed < 2000; ++allowed) {
    LogCapture log(4);
    allocations_left = allowed;
    const int result = document.encodeXml();
    const bool exhausted = allocations_left == 0;
    allocations_left = -1;
    if (result == 0) {
      EXPECT_EQ(std::string(document.text()), whole) << "after " << allowed << " allocations";
      done = !exhausted;
    } else {
      ++failures;
      EXPECT_EQ(document.text(), nullptr);
      for (const auto& text : log.texts()) lines.insert(text);
    }
  }
  xmlMemSetup(std::free, std::malloc, std::realloc, strdup);
  EXPECT_GT(failures, 10);
  EXPECT_LT(allowed, 2000);
  // The first steps fail on their own: buffer, writer, ...
  EXPECT_TRUE(lines.count("Unable to write XML for CREATE 1"));
  EXPECT_TRUE(lines.count("Unable to write XML for CREATE 2"));
}

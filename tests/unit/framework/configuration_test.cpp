#include "framework/configuration.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <chrono>

#include "framework/bounds.h"
#include "framework/support.h"
#include "framework/user_agent.h"
#include "siplib/stack.h"
#include "support/temp_dir.h"

namespace {

class Configuration : public testing::Test {
 protected:
  void SetUp() override { IMS_User_Agent::set_config_dir(dir.path()); }
  std::string get(const std::string& key, const std::string& document) {
    std::string value = "old";
    const bool found = IMS_User_Agent::get_xml_parameter(key, value, document);
    EXPECT_TRUE(found || value.empty());
    return found ? "[" + value + "]" : "absent";
  }
  /// Makes the file older than the time in which a further change may go unseen.
  void age(const std::string& name) {
    const timespec past[2] = {{::time(nullptr) - 100, 0}, {::time(nullptr) - 100, 0}};
    ASSERT_EQ(::utimensat(AT_FDCWD, (dir / name).c_str(), past, 0), 0);
  }
  TemporaryDir dir;
  LogCapture log;
};

TEST_F(Configuration, DocumentNamesLeadToTheirFiles) {
  EXPECT_EQ(framework::documentPath("/d", "config"), "/d/config.xml");
  EXPECT_EQ(framework::documentPath("/d", "home-1_a.B"), "/d/profiles/home-1_a.B.xml");
  for (const char* const bad : {"", ".", "..", ".hidden", "a/b", "../config", "a b", "a\nb", "\xc3\xa4", "a%2f"}) {
    EXPECT_EQ(framework::documentPath("/d", bad), "") << bad;
  }
  EXPECT_EQ(framework::documentPath("/d", std::string("a\0b", 3)), "");
}

TEST_F(Configuration, ReadsKeysOfBothKindsOfDocument) {
  dir.write("config.xml", "<sipstackinit><srctransport>tcp</srctransport></sipstackinit>");
  dir.write("profiles/home.xml",
            "<network-profile><impi>alice@home</impi><reg><max-attempts>3</max-attempts></reg><secret/>"
            "</network-profile>");
  EXPECT_EQ(get("//srctransport", "config"), "[tcp]");
  EXPECT_EQ(get("//impi", "home"), "[alice@home]");
  EXPECT_EQ(get("//reg/max-attempts", "home"), "[3]");
  EXPECT_EQ(get("//secret", "home"), "[]");
  EXPECT_EQ(log.text(), "");
}

TEST_F(Configuration, WhiteSpaceAroundAValueDoesNotCount) {
  dir.write("config.xml", "<sipstackinit>\n<srctransport>\n  tcp\n</srctransport>\n</sipstackinit>");
  dir.write("profiles/home.xml",
            "<network-profile><impi>\n\t alice @home \r\n</impi><secret> </secret></network-profile>");
  EXPECT_EQ(get("//srctransport", "config"), "[tcp]");
  EXPECT_EQ(get("//impi", "home"), "[alice @home]");
  EXPECT_EQ(get("//secret", "home"), "[]");
  EXPECT_TRUE(framework::checkConfiguration(dir.path()).empty());
  EXPECT_EQ(log.text(), "");
}

TEST_F(Configuration, AbsentThingsReadAsEmptyWithoutALine) {
  EXPECT_EQ(get("//a", "config"), "absent");
  EXPECT_EQ(get("//a", "home"), "absent");
  EXPECT_EQ(get("//a", "../config"), "absent");
  dir.write("config.xml", "<r/>");
  EXPECT_EQ(get("//a", "config"), "absent");
  EXPECT_EQ(get("//[", "config"), "absent");
  EXPECT_EQ(log.text(), "");
}

TEST_F(Configuration, ChangeIsSeenAtTheNextRead) {
  dir.write("profiles/p.xml", "<r><a>1</a></r>");
  EXPECT_EQ(get("//a", "p"), "[1]");
  dir.write("profiles/p.xml", "<r><a>2</a></r>");  // at once, and of the same size
  EXPECT_EQ(get("//a", "p"), "[2]");
  age("profiles/p.xml");
  EXPECT_EQ(get("//a", "p"), "[2]");
  dir.write("profiles/new", "<r><a>3</a></r>");
  std::filesystem::rename(dir / "profiles/new", dir / "profiles/p.xml");
  EXPECT_EQ(get("//a", "p"), "[3]");
  std::filesystem::remove(dir / "profiles/p.xml");
  EXPECT_EQ(get("//a", "p"), "absent");
  dir.write("profiles/p.xml", "<r><a>4</a></r>");
  EXPECT_EQ(get("//a", "p"), "[4]");
}

TEST_F(Configuration, KeptDocumentIsNotReadAgain) {
  std::string text = "<r><a>1</a>";
  while (text.size() < 60000) text += "<b/>";
  dir.write("profiles/p.xml", text + "</r>");
  age("profiles/p.xml");
  ::usleep(60'000);  // the change of the time stamp itself must grow old
  EXPECT_EQ(get("//a", "p"), "[1]");
  const auto spent = [&](int reads) {
    const auto begin = std::chrono::steady_clock::now();
    for (int i = 0; i < reads; ++i) get("/r/a", "p");
    return std::chrono::steady_clock::now() - begin;
  };
  const auto kept = spent(34);
  const auto begin = std::chrono::steady_clock::now();
  for (int i = 0; i < 34; ++i) {
    std::filesystem::rename(dir / "profiles/p.xml", dir / "profiles/q.xml");
    get("/r/a", "p");
    std::filesystem::rename(dir / "profiles/q.xml", dir / "profiles/p.xml");
    get("/r/a", "p");
  }
  const auto anew = std::chrono::steady_clock::now() - begin;
  EXPECT_LT(kept * 3, anew);
}

TEST_F(Configuration, ManyDocumentsInTurnAreAllRight) {
  for (int i = 0; i < 10; ++i) {
    dir.write("profiles/p" + std::to_string(i) + ".xml", "<r><a>" + std::to_string(i) + "</a></r>");
  }
  for (int round = 0; round < 3; ++round) {
    for (int i = 0; i < 10; ++i) EXPECT_EQ(get("//a", "p" + std::to_string(i)), "[" + std::to_string(i) + "]");
  }
}

TEST_F(Configuration, BadDocumentReadsAsEmptyWithOneLinePerChange) {
  dir.write("profiles/p.xml", "<r>\n<a>1</r>");
  for (int i = 0; i < 34; ++i) EXPECT_EQ(get("//a", "p"), "absent");
  EXPECT_EQ(log.lines(), 1u);
  EXPECT_TRUE(log.has("get_xml_parameter: " + dir / "profiles/p.xml" + ": line 2: "));
  dir.write("profiles/p.xml",
            "<r>" + std::string(framework::documentPath(dir.path(), "p").size() + 65536, 'x') + "</r>");
  for (int i = 0; i < 34; ++i) EXPECT_EQ(get("/r", "p"), "absent");
  EXPECT_EQ(log.lines(), 2u);
  EXPECT_TRUE(log.has("more than 65536 bytes"));
  dir.write("profiles/p.xml", "<r><a>1</a></r>");
  EXPECT_EQ(get("//a", "p"), "[1]");
  EXPECT_EQ(log.lines(), 2u);
}

TEST_F(Configuration, WhatIsNoFileIsRefusedAndNotWaitedFor) {
  std::filesystem::create_directories(dir / "profiles/d.xml");
  ASSERT_EQ(::mkfifo((dir / "profiles/f.xml").c_str(), 0600), 0);
  for (int i = 0; i < 5; ++i) {
    EXPECT_EQ(get("//a", "d"), "absent");
    EXPECT_EQ(get("//a", "f"), "absent");
  }
  EXPECT_EQ(log.lines(), 2u);
  EXPECT_TRUE(log.has("profiles/f.xml: no regular file"));
}

TEST_F(Configuration, LinkToAFileIsFollowed) {
  dir.write("elsewhere", "<r><a>1</a></r>");
  std::filesystem::create_directories(dir / "profiles");
  std::filesystem::create_symlink(dir / "elsewhere", dir / "profiles/p.xml");
  EXPECT_EQ(get("//a", "p"), "[1]");
  dir.write("elsewhere", "<r><a>22</a></r>");
  EXPECT_EQ(get("//a", "p"), "[22]");
}

// --- Settings of the stack ----------------------------------------------------------------------------------------

TEST_F(Configuration, StackSettingsAreTaken) {
  dir.write("config.xml",
            "<sipstackinit><ue-proxy><max-connections>7</max-connections><max-message-size> 2048\n</max-message-size>"
            "<max-header-size>1024</max-header-size><connect-timeout-ms>100</connect-timeout-ms>"
            "<idle-timeout-s>0</idle-timeout-s><head-timeout-s>3</head-timeout-s>"
            "<t1-ms>50</t1-ms><t2-ms>400</t2-ms><t4-ms>500</t4-ms>"
            "<max-clients>8</max-clients><max-profiles>3</max-profiles><max-routing-entries>9</max-routing-entries>"
            "<max-routes>6</max-routes>"
            "<max-waiting-notifies>4</max-waiting-notifies><max-challenges>5</max-challenges>"
            "<max-client-aors>11</max-client-aors><max-aors>12</max-aors>"
            "<max-client-feature-tags>13</max-client-feature-tags><max-feature-tags>14</max-feature-tags>"
            "<max-feature-tag-size>15</max-feature-tag-size><max-feature-tag-bytes>16</max-feature-tag-bytes>"
            "<max-client-text>17</max-client-text><max-text-bytes>1800</max-text-bytes>"
            "<io-thread>yes</io-thread></ue-proxy></sipstackinit>");
  SIPLIB_SIPStackConfig config;
  framework::Bounds bounds;
  bool io_thread = false;
  framework::readStackSettings(dir / "config.xml", "/sipstackinit/ue-proxy/", config, bounds, io_thread);
  EXPECT_EQ(config.max_connections, 7u);
  EXPECT_EQ(config.limits.max_message, 2048u);
  EXPECT_EQ(config.limits.max_head, 1024u);
  EXPECT_EQ(config.connect_timeout.count(), 100);
  EXPECT_EQ(config.idle_timeout.count(), 0);
  EXPECT_EQ(config.head_timeout.count(), 3);
  EXPECT_EQ(config.t1.count(), 50);
  EXPECT_EQ(config.t2.count(), 400);
  EXPECT_EQ(config.t4.count(), 500);
  EXPECT_EQ(bounds.clients, 8u);
  EXPECT_EQ(bounds.profiles, 3u);
  EXPECT_EQ(bounds.routing_entries, 9u);
  EXPECT_EQ(bounds.routes, 6u);
  EXPECT_EQ(bounds.waiting_notifies, 4u);
  EXPECT_EQ(bounds.challenges, 5u);
  EXPECT_EQ(bounds.client_aors, 11u);
  EXPECT_EQ(bounds.aors, 12u);
  EXPECT_EQ(bounds.client_feature_tags, 13u);
  EXPECT_EQ(bounds.feature_tags, 14u);
  EXPECT_EQ(bounds.feature_tag_size, 15u);
  EXPECT_EQ(bounds.feature_tag_bytes, 16u);
  EXPECT_EQ(bounds.client_text, 17u);
  EXPECT_EQ(bounds.text_bytes, 1800u);
  EXPECT_TRUE(io_thread);
  EXPECT_EQ(log.text(), "");
}

TEST_F(Configuration, AbsentSettingsKeepTheirDefaults) {
  const SIPLIB_SIPStackConfig defaults;
  SIPLIB_SIPStackConfig config;
  framework::Bounds bounds;
  bool io_thread = false;
  framework::readStackSettings(dir / "config.xml", "/sipstackinit/ue-proxy/", config, bounds, io_thread);
  EXPECT_EQ(config.max_connections, defaults.max_connections);
  EXPECT_EQ(config.t1, defaults.t1);
  EXPECT_FALSE(io_thread);
  EXPECT_EQ(log.text(), "");
}

TEST_F(Configuration, BadSettingKeepsItsDefaultWithOneLine) {
  const SIPLIB_SIPStackConfig defaults;
  for (const char* const bad : {"", "x", "0", "-1", "1e3", "12x", "99999999999999999999", "65537"}) {
    const LogCapture lines;
    dir.write("config.xml", "<sipstackinit><ue-proxy><max-connections>" + std::string(bad) +
                                "</max-connections><t1-ms>70</t1-ms></ue-proxy></sipstackinit>");
    SIPLIB_SIPStackConfig config;
    framework::Bounds bounds;
    bool io_thread = false;
    framework::readStackSettings(dir / "config.xml", "/sipstackinit/ue-proxy/", config, bounds, io_thread);
    EXPECT_EQ(config.max_connections, defaults.max_connections);
    EXPECT_EQ(config.t1.count(), 70);
    EXPECT_EQ(lines.lines(), 1u);
    EXPECT_TRUE(lines.has("for max-connections is not a number from 1 to 65536")) << lines.text();
  }
  const LogCapture lines;
  dir.write("config.xml", "<sipstackinit><ue-proxy><io-thread>maybe</io-thread></ue-proxy></sipstackinit>");
  SIPLIB_SIPStackConfig config;
  framework::Bounds bounds;
  bool io_thread = true;
  framework::readStackSettings(dir / "config.xml", "/sipstackinit/ue-proxy/", config, bounds, io_thread);
  EXPECT_TRUE(io_thread) << "kept";
  EXPECT_TRUE(lines.has("'maybe' for io-thread is neither yes nor no"));
}

TEST_F(Configuration, ControlUidsAreAListOfNumbers) {
  const auto read = [&](const std::string& element) {
    dir.write("config.xml", "<sipstackinit><ue-proxy>" + element + "</ue-proxy></sipstackinit>");
    SIPLIB_SIPStackConfig config;
    framework::Bounds bounds;
    bool io_thread = false;
    framework::readStackSettings(dir / "config.xml", "/sipstackinit/ue-proxy/", config, bounds, io_thread);
    return config.control_uids;
  };
  EXPECT_EQ(read(""), std::nullopt);
  EXPECT_EQ(read("<control-uids>0</control-uids>"), std::vector<uid_t>{0});
  EXPECT_EQ(read("<control-uids>\n 1000\t65534  4294967294 \n</control-uids>"),
            (std::vector<uid_t>{1000, 65534, 4294967294}));
  EXPECT_EQ(log.text(), "");
  for (const char* const bad : {"", " ", "root", "0,1", "0 x", "-1", "4294967295", "0x0"}) {
    const LogCapture lines;
    EXPECT_EQ(read("<control-uids>" + std::string(bad) + "</control-uids>"), std::vector<uid_t>()) << bad;
    EXPECT_EQ(lines.lines(), 1u);
    EXPECT_TRUE(lines.has("for control-uids is not a list of user ids: nobody may control the proxy")) << lines.text();
    EXPECT_EQ(framework::checkConfiguration(dir.path()).size(), 1u);
  }
  read("<control-uids>0 1000</control-uids>");
  EXPECT_TRUE(framework::checkConfiguration(dir.path()).empty());
}

// --- The check

TEST_F(Configuration, CheckFindsNothingInGoodDocuments) {
  EXPECT_TRUE(framework::checkConfiguration(dir.path()).empty()) << "all documents may be absent";
  dir.write("config.xml",
            "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<sipstackinit>\n  <srctransport>tcp</srctransport>\n"
            "  <ue-proxy>\n    <max-connections>256</max-connections>\n    <io-thread>no</io-thread>\n  </ue-proxy>\n"
            "</sipstackinit>\n");
  dir.write("profiles/home.xml", "<network-profile><impi>a</impi></network-profile>");
  dir.write("profiles/README", "not read");
  EXPECT_TRUE(framework::checkConfiguration(dir.path()).empty());
}

TEST_F(Configuration, CheckNamesEachFaultWithFileAndLine) {
  dir.write("config.xml",
            "<sipstackinit>\n<ue-proxy>\n<max-connection>1</max-connection>\n<t1-ms>0</t1-ms>\n"
            "<io-thread>x</io-thread>\n<t2-ms>500</t2-ms>\n<t2-ms>500</t2-ms></ue-proxy>\n<ue-proxy/>"
            "<srctransport>t\n cp</srctransport></sipstackinit>");
  dir.write("profiles/a.xml", "<network-profile>\n<a>\n</network-profile>");
  dir.write("profiles/b.xml", "<profile/>");
  dir.write("profiles/c d.xml", "<network-profile/>");
  dir.write("profiles/config.xml", "<network-profile/>");
  const std::vector<std::string> expected = {
      dir / "config.xml: line 3: unknown setting 'max-connection'",
      dir / "config.xml: line 4: '0' for t1-ms is not a number from 10 to 60000",
      dir / "config.xml: line 5: 'x' for io-thread is neither yes nor no",
      dir / "config.xml: line 7: 't2-ms' a second time; the first counts",
      dir / "config.xml: line 8: a second 'ue-proxy' element",
      dir / "config.xml: line 8: a line break or another control character in srctransport",
      dir / "profiles/a.xml: line 3: Opening and ending tag mismatch: a line 2 and network-profile",
      dir / "profiles/b.xml: line 1: the root element is 'profile', not 'network-profile'",
      dir / "profiles/c d.xml: no profile can have this name, so the file is never read",
      dir / "profiles/config.xml: no profile can have this name, so the file is never read",
  };
  EXPECT_EQ(framework::checkConfiguration(dir.path()), expected);
}

TEST_F(Configuration, CheckNamesADirectoryThatIsNotThere) {
  EXPECT_EQ(framework::checkConfiguration(dir / "absent"),
            std::vector<std::string>{dir / "absent: No such file or directory"});
}

TEST_F(Configuration, CheckOfAWrongRoot) {
  dir.write("config.xml", "\n<config/>");
  EXPECT_EQ(framework::checkConfiguration(dir.path()),
            std::vector<std::string>{dir / "config.xml: line 2: the root element is 'config', not 'sipstackinit'"});
}

}  // namespace

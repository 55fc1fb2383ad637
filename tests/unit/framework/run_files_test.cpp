#include "framework/run_files.h"

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <csignal>

#include "framework/support.h"
#include "framework/user_agent.h"
#include "support/temp_dir.h"

namespace {

std::size_t filesIn(const TemporaryDir& dir) {
  std::size_t count = 0;
  for (const auto& entry : std::filesystem::directory_iterator(dir.path())) count += entry.exists();
  return count;
}

TEST(RunFiles, FileIsReplacedAtOnce) {
  const TemporaryDir dir;
  dir.write("file", "old");
  std::string error;
  EXPECT_TRUE(framework::replaceFile(dir / "file", "new", error));
  EXPECT_EQ(readAll(dir / "file"), "new");
  EXPECT_EQ(filesIn(dir), 1u);
}

TEST(RunFiles, ReaderOfTheOldFileKeepsIt) {
  const TemporaryDir dir;
  dir.write("file", "old");
  std::ifstream reader(dir / "file");
  std::string error;
  ASSERT_TRUE(framework::replaceFile(dir / "file", "new", error));
  std::string text;
  reader >> text;
  EXPECT_EQ(text, "old");
}

TEST(RunFiles, FailedReplacementLeavesTheOldFileAndNothingElse) {
  const TemporaryDir dir;
  dir.write("file", "old");
  // A file size limit stands for the full disk: the write fails after its first bytes.
  EXPECT_EQ(inChild([&] {
              ::signal(SIGXFSZ, SIG_IGN);
              const rlimit small{4, 4};
              ::setrlimit(RLIMIT_FSIZE, &small);
              std::string error;
              const bool done = framework::replaceFile(dir / "file", "much too long", error);
              return !done && error == "File too large" ? 0 : 1;
            }),
            0);
  EXPECT_EQ(readAll(dir / "file"), "old");
  EXPECT_EQ(filesIn(dir), 1u);
  std::string error;
  EXPECT_FALSE(framework::replaceFile(dir / "absent/file", "text", error));
  EXPECT_EQ(error, "No such file or directory");
}

TEST(RunFiles, OnlyOurOwnFilesAreRemoved) {
  const TemporaryDir dir;
  dir.write("ours", "1");
  dir.write("replaced", "1");
  dir.write("other", "1");
  framework::rememberRunFile(dir / "ours");
  framework::rememberRunFile(dir / "replaced");
  std::string error;
  ASSERT_TRUE(framework::replaceFile(dir / "replaced", "2", error));
  framework::removeRunFiles();
  framework::removeRunFiles();
  EXPECT_FALSE(std::filesystem::exists(dir / "ours"));
  EXPECT_TRUE(std::filesystem::exists(dir / "replaced"));
  EXPECT_TRUE(std::filesystem::exists(dir / "other"));
}

class CapFile : public testing::Test {
 protected:
  void SetUp() override { IMS_User_Agent::set_run_dir(dir.path()); }
  TemporaryDir dir;
  IMS_User_Agent agent;
  std::string path = dir / "ue-proxy.cap";
};

TEST_F(CapFile, HasOneLinePerPair) {
  EXPECT_TRUE(
      agent.create_cap_file(4, "Contact", "<sip:127.0.0.1:5060>", "Route", "<sip:127.0.0.1:5060;transport=tcp>"));
  EXPECT_EQ(readAll(path), "Contact: <sip:127.0.0.1:5060>\nRoute: <sip:127.0.0.1:5060;transport=tcp>\n");
  EXPECT_TRUE(agent.create_cap_file(2, "Contact", ""));
  EXPECT_EQ(readAll(path), "Contact: \n");
  EXPECT_TRUE(agent.create_cap_file(0));
  EXPECT_EQ(readAll(path), "");
}

TEST_F(CapFile, ValueCannotBringALineOfItsOwn) {
  const LogCapture log;
  ASSERT_TRUE(agent.create_cap_file(2, "Contact", "old"));
  EXPECT_FALSE(agent.create_cap_file(2, "Contact", "a\nRoute: b"));
  EXPECT_FALSE(agent.create_cap_file(3, "Contact", "a", "Route"));
  EXPECT_FALSE(agent.create_cap_file(2, "Contact", static_cast<const char*>(nullptr)));
  EXPECT_EQ(readAll(path), "Contact: old\n");
  EXPECT_EQ(log.lines(), 3u);
}

TEST_F(CapFile, FailureIsOneLine) {
  const LogCapture log;
  IMS_User_Agent::set_run_dir(dir / "absent");
  EXPECT_FALSE(agent.create_cap_file(2, "Contact", "a"));
  EXPECT_EQ(log.lines(), 1u);
  EXPECT_TRUE(log.has("absent/ue-proxy.cap not written: No such file or directory"));
}

}  // namespace

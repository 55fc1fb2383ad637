#include "framework/options.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "framework/support.h"
#include "framework/user_agent.h"
#include "support/temp_dir.h"

namespace {

/// Arguments as main gets them.
class Arguments {
 public:
  Arguments(std::initializer_list<const char*> texts) : texts_(texts.begin(), texts.end()) {
    texts_.insert(texts_.begin(), "ue-proxy");
    for (std::string& text : texts_) pointers_.push_back(text.data());
    pointers_.push_back(nullptr);
  }
  int count() const { return static_cast<int>(texts_.size()); }
  char** vector() { return pointers_.data(); }

 private:
  std::vector<std::string> texts_;
  std::vector<char*> pointers_;
};

struct Parsed {
  bool done;
  framework::Options options;
  std::string error;
};

Parsed parse(std::initializer_list<const char*> texts) {
  IMS_User_Agent::add_program_option("dynport", "yes: let the listening ports float");
  Arguments arguments(texts);
  Parsed result{};
  result.done = framework::parseOptions(arguments.count(), arguments.vector(), result.options, result.error);
  return result;
}

void setOptions(std::initializer_list<const char*> texts) {
  Arguments arguments(texts);
  IMS_User_Agent::set_options(arguments.count(), arguments.vector());
}

TEST(Options, ShortAndLongFormsMeanTheSame) {
  for (const auto& parsed : {parse({"-f", "-c", "/c", "-r", "/r", "-l", "5", "-t", "-h", "-V"}),
                             parse({"--foreground", "--config-dir", "/c", "--run-dir", "/r", "--log-level", "5",
                                    "--check-config", "--help", "--version"}),
                             parse({"-f", "--config-dir=/c", "--run-dir=/r", "--log-level=5", "-t", "-h", "-V"})}) {
    ASSERT_TRUE(parsed.done) << parsed.error;
    EXPECT_TRUE(parsed.options.foreground && parsed.options.check_config && parsed.options.help &&
                parsed.options.version);
    EXPECT_EQ(parsed.options.config_dir, "/c");
    EXPECT_EQ(parsed.options.run_dir, "/r");
    EXPECT_EQ(parsed.options.log_level, 5);
  }
}

TEST(Options, NothingGivenIsNothingSet) {
  const Parsed parsed = parse({});
  EXPECT_TRUE(parsed.done);
  EXPECT_FALSE(parsed.options.foreground || parsed.options.help || parsed.options.config_dir ||
               parsed.options.log_level);
}

TEST(Options, WrongOnesAreNamed) {
  EXPECT_EQ(parse({"-x"}).error, "unknown option '-x'");
  EXPECT_EQ(parse({"--foregroun"}).error, "unknown option '--foregroun'");
  EXPECT_EQ(parse({"-fh"}).error, "unknown option '-fh'");
  EXPECT_EQ(parse({"stray"}).error, "unexpected argument 'stray'");
  EXPECT_EQ(parse({""}).error, "unexpected argument ''");
  EXPECT_EQ(parse({"-f", "-c"}).error, "option '-c' needs an argument (DIR)");
  EXPECT_EQ(parse({"--run-dir="}).error, "option '--run-dir' cannot take ''");
  EXPECT_EQ(parse({"--foreground=yes"}).error, "option '--foreground' takes no argument");
  for (const char* const level : {"", "x", "5x", "-1", "8", "99999999999"}) {
    EXPECT_EQ(parse({"-l", level}).error, "option '-l' cannot take '" + std::string(level) + "'");
  }
}

TEST(Options, ProgramOptionIsPassedOverWithItsValue) {
  EXPECT_TRUE(parse({"-dynport", "yes", "-f"}).options.foreground);
  EXPECT_TRUE(parse({"+dynport", "x", "-f"}).done);
  EXPECT_TRUE(parse({"xdynport", "no"}).done);
  EXPECT_TRUE(parse({"-dynport", "", "-f"}).options.foreground);
}

TEST(Options, ProgramOptionDoesNotSwallowAnOption) {
  EXPECT_TRUE(parse({"-dynport", "--foreground"}).options.foreground);
  EXPECT_EQ(parse({"-dynport", "-c", "/c"}).options.config_dir, "/c");
  EXPECT_TRUE(parse({"-dynport", "-dynport", "yes", "-f"}).options.foreground);
  EXPECT_EQ(parse({"-dynport", "-x"}).error, "unknown option '-x'");
  EXPECT_EQ(parse({"-dynport", "-f", "yes"}).error, "unexpected argument 'yes'");
}

TEST(Options, ProgramOptionAsTheLastArgumentIsIgnored) {
  const Parsed parsed = parse({"-f", "-dynport"});
  EXPECT_TRUE(parsed.done);
  EXPECT_TRUE(parsed.options.foreground);
}

TEST(Options, ProgramOptionIsTheWholeWordAfterOneCharacter) {
  EXPECT_FALSE(parse({"dynport", "yes"}).done);
  EXPECT_FALSE(parse({"--dynport", "yes"}).done);
  EXPECT_FALSE(parse({"-dynports", "yes"}).done);
}

TEST(Options, UsageNamesEveryOption) {
  IMS_User_Agent::add_program_option("dynport", "yes: let the listening ports float");
  const std::string usage = framework::usageText();
  for (const char* const option : {"-h, --help", "-V, --version", "-f, --foreground", "-c, --config-dir DIR",
                                   "-r, --run-dir DIR", "-l, --log-level N", "-t, --check-config", "-dynport VALUE"}) {
    EXPECT_NE(usage.find(option), std::string::npos) << option;
  }
}

TEST(OptionsDeathTest, UnknownOptionEndsWithStatusTwoAndOneLine) {
  EXPECT_EXIT(setOptions({"-x"}), testing::ExitedWithCode(2), "^ue-proxy: unknown option '-x'[^\n]*\n$");
  EXPECT_EXIT(setOptions({"-c"}), testing::ExitedWithCode(2), "^ue-proxy: option '-c' needs an argument[^\n]*\n$");
}

TEST(OptionsDeathTest, VersionEndsWithStatusZero) {
  EXPECT_EXIT(
      {
        ::dup2(STDERR_FILENO, STDOUT_FILENO);
        setOptions({"--version"});
      },
      testing::ExitedWithCode(0), "^ue-proxy " UE_PROXY_VERSION "\n$");
}

TEST(OptionsDeathTest, CheckTellsEachFaultAndTheirPresenceByStatus) {
  const TemporaryDir dir;
  EXPECT_EXIT(setOptions({"-t", "-c", dir.path().c_str()}), testing::ExitedWithCode(0), "^$");
  dir.write("config.xml", "<sipstackinit>\n<ue-proxy>\n<t1-ms>x</t1-ms></ue-proxy></sipstackinit>");
  EXPECT_EXIT(setOptions({"-c", dir.path().c_str(), "-t"}), testing::ExitedWithCode(1), "config.xml: line 3: ");
}

TEST(Options, DirectoriesAreMadeAbsolute) {
  EXPECT_EQ(inChild([] {
              setOptions({"-f", "-c", "conf", "-r", "/run/x"});
              const bool good = IMS_User_Agent::config_dir() == std::filesystem::current_path().string() + "/conf" &&
                                IMS_User_Agent::run_dir() == "/run/x" && IMS_daemon::foreground;
              return good ? 0 : 1;
            }),
            0);
}

TEST(Options, HelpIsRememberedForPrintUsage) {
  testing::internal::CaptureStderr();
  IMS_User_Agent agent;
  agent.print_usage();
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
  setOptions({"-h"});
  EXPECT_TRUE(IMS_daemon::__d_arg_h);
  testing::internal::CaptureStderr();
  agent.print_usage();
  EXPECT_EQ(testing::internal::GetCapturedStderr(), framework::usageText());
  IMS_daemon::__d_arg_h = false;
}

}  // namespace

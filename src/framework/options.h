// The framework's command line: one table of options, from which both the reading and the usage text come.
#pragma once

#include <optional>
#include <string>

namespace framework {

struct Options {
  bool help = false;
  bool version = false;
  bool foreground = false;
  bool check_config = false;
  std::optional<std::string> config_dir;
  std::optional<std::string> run_dir;
  std::optional<int> log_level;
};

/// An option "Xword value" of the program itself (any first character X) that parseOptions passes over; a word that
/// begins with "-" is no such value. Both texts must outlive the process; `help` is what the usage says of it.
void addProgramOption(const char* word, const char* help);
/// False, and one sentence in `error`, at the first argument that is no option or lacks its argument.
bool parseOptions(int argc, char* const* argv, Options& options, std::string& error);
std::string usageText();

}  // namespace framework

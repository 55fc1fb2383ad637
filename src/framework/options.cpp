#include "framework/options.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cstring>
#include <string_view>
#include <vector>

namespace framework {
namespace {

struct Row {
  std::string_view brief;
  std::string_view full;
  std::string_view argument;  // empty: takes none
  std::string_view help;
  /// False when the argument is no good.
  bool (*take)(Options&, std::string_view);
};

bool takeLevel(Options& options, std::string_view text) {
  int level = 0;
  const auto [end, fault] = std::from_chars(text.data(), text.data() + text.size(), level);
  if (fault != std::errc() || end != text.data() + text.size() || level < 0 || level > 7) return false;
  options.log_level = level;
  return true;
}

constexpr std::array kRows{
    Row{"-h", "--help", "", "show this text and end", [](Options& o, std::string_view) { return o.help = true; }},
    Row{"-V", "--version", "", "show the version and end",
        [](Options& o, std::string_view) { return o.version = true; }},
    Row{"-f", "--foreground", "", "do not detach", [](Options& o, std::string_view) { return o.foreground = true; }},
    Row{"-c", "--config-dir", "DIR", "where the configuration documents are (/etc/ue-proxy)",
        [](Options& o, std::string_view text) {
          o.config_dir = text;
          return !text.empty();
        }},
    Row{"-r", "--run-dir", "DIR", "where the capability file, control socket and pid file go (/run/ue-proxy)",
        [](Options& o, std::string_view text) {
          o.run_dir = text;
          return !text.empty();
        }},
    Row{"-l", "--log-level", "N", "log level N and below: 3 errors, 4 refusals, 5 trace (4)", takeLevel},
    Row{"-t", "--check-config", "", "read every configuration document, report each fault, and end",
        [](Options& o, std::string_view) { return o.check_config = true; }},
};

struct ProgramOption {
  const char* word;
  const char* help;
};

std::vector<ProgramOption>& programOptions() {
  static std::vector<ProgramOption> all;
  return all;
}

bool isProgramOption(const char* argument) {
  if (argument[0] == '\0') return false;
  for (const ProgramOption& option : programOptions()) {
    if (std::strcmp(argument + 1, option.word) == 0) return true;
  }
  return false;
}

std::string quoted(std::string_view text) {
  return "'" + std::string(text) + "'";
}

}  // namespace

void addProgramOption(const char* word, const char* help) {
  for (ProgramOption& option : programOptions()) {
    if (std::strcmp(option.word, word) == 0) {
      option.help = help;
      return;
    }
  }
  programOptions().push_back({word, help});
}

bool parseOptions(int argc, char* const* argv, Options& options, std::string& error) {
  for (int i = 1; i < argc; ++i) {
    // The program reads its own options; as the last argument such a word is without effect there too. An option that
    // follows in the value's place is one of ours all the same.
    if (isProgramOption(argv[i])) {
      if (i + 1 < argc && argv[i + 1][0] != '-') ++i;
      continue;
    }
    const std::string_view argument = argv[i];
    const std::size_t equals = argument.starts_with("--") ? argument.find('=') : std::string_view::npos;
    const std::string_view name = argument.substr(0, equals);
    const Row* row = nullptr;
    for (const Row& candidate : kRows) {
      if (name == candidate.full || argument == candidate.brief) row = &candidate;
    }
    if (row == nullptr) {
      error = (argument.starts_with("-") ? "unknown option " : "unexpected argument ") + quoted(argument);
      return false;
    }
    std::string_view value;
    if (equals != std::string_view::npos) {
      if (row->argument.empty()) {
        error = "option " + quoted(name) + " takes no argument";
        return false;
      }
      value = argument.substr(equals + 1);
    } else if (!row->argument.empty()) {
      if (i + 1 == argc) {
        error = "option " + quoted(name) + " needs an argument (" + std::string(row->argument) + ")";
        return false;
      }
      value = argv[++i];
    }
    if (!row->take(options, value)) {
      error = "option " + quoted(name) + " cannot take " + quoted(value);
      return false;
    }
  }
  return true;
}

std::string usageText() {
  const auto line = [](std::string left, std::string_view help) {
    left.resize(std::max<std::size_t>(left.size() + 2, 28), ' ');
    return left.append(help) += '\n';
  };
  std::string text = "  ue-proxy [options]\n";
  for (const Row& row : kRows) {
    std::string left = "  " + std::string(row.brief) + ", " + std::string(row.full);
    if (!row.argument.empty()) left.append(" ").append(row.argument);
    text += line(std::move(left), row.help);
  }
  for (const ProgramOption& option : programOptions()) {
    text += line("  -" + std::string(option.word) + " VALUE", option.help);
  }
  return text;
}

}  // namespace framework

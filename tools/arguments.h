// The command line of one ue-proxyctl command: options with values, read from a table that is its help text too.
#pragma once

#include <map>
#include <string>
#include <vector>

namespace ctl {

/// One option. An empty `value` makes it a flag.
struct Option {
  std::string name;   ///< "--port"
  std::string value;  ///< what the help calls its value: "PORT"
  std::string help;
  std::string preset;  ///< the value when not given; shown in the help
};

/// One command.
struct Command {
  std::string name;
  std::string summary;
  std::vector<Option> options;
};

class Arguments {
 public:
  /// False with a clear text in `error` for an unknown option, a missing value or a stray word.
  bool parse(const Command& command, const std::vector<std::string>& words, std::string& error);
  bool has(const std::string& name) const { return values_.count(name) != 0; }
  /// The last value given, else the preset.
  std::string get(const std::string& name) const;
  std::vector<std::string> all(const std::string& name) const;
  /// A number within the range; false with a text in `error` otherwise.
  bool number(const std::string& name, long low, long high, long& value, std::string& error) const;

 private:
  std::map<std::string, std::vector<std::string>> values_;
  std::map<std::string, std::string> presets_;
};

/// The help text of a command.
std::string helpText(const Command& command);

}  // namespace ctl

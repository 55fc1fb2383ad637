#include "arguments.h"

#include <algorithm>
#include <charconv>

namespace ctl {

bool Arguments::parse(const Command& command, const std::vector<std::string>& words, std::string& error) {
  for (const auto& option : command.options) {
    if (!option.preset.empty()) presets_[option.name] = option.preset;
  }
  for (std::size_t i = 0; i < words.size(); ++i) {
    const auto equals = words[i].find('=');
    const auto name = words[i].substr(0, equals);
    const auto option = std::find_if(command.options.begin(), command.options.end(),
                                     [&](const Option& candidate) { return candidate.name == name; });
    if (option == command.options.end()) {
      error = words[i].starts_with("-") ? "unknown option " + words[i] : "unexpected word '" + words[i] + "'";
      return false;
    }
    if (option->value.empty()) {
      values_[name].emplace_back();
    } else if (equals != std::string::npos) {
      values_[name].push_back(words[i].substr(equals + 1));
    } else if (i + 1 < words.size()) {
      values_[name].push_back(words[++i]);
    } else {
      error = name + " needs a value (" + option->value + ")";
      return false;
    }
  }
  return true;
}

std::string Arguments::get(const std::string& name) const {
  if (const auto found = values_.find(name); found != values_.end()) return found->second.back();
  const auto preset = presets_.find(name);
  return preset == presets_.end() ? std::string() : preset->second;
}

std::vector<std::string> Arguments::all(const std::string& name) const {
  const auto found = values_.find(name);
  return found == values_.end() ? std::vector<std::string>() : found->second;
}

bool Arguments::number(const std::string& name, long low, long high, long& value, std::string& error) const {
  const auto text = get(name);
  const auto [end, fault] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (fault == std::errc() && end == text.data() + text.size() && value >= low && value <= high) return true;
  error = name + " needs a number from " + std::to_string(low) + " to " + std::to_string(high) +
          (text.empty() ? "" : ", not '" + text + "'");
  return false;
}

std::string helpText(const Command& command) {
  std::string text = "usage: ue-proxyctl " + command.name + " [OPTION...]\n" + command.summary + "\n\n";
  for (const auto& option : command.options) {
    std::string left = "  " + option.name + (option.value.empty() ? "" : " " + option.value);
    left.resize(std::max<std::size_t>(left.size() + 2, 26), ' ');
    text += left + option.help + (option.preset.empty() ? "" : " (default " + option.preset + ")") + "\n";
  }
  return text;
}

}  // namespace ctl

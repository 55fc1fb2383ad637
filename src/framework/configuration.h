// The configuration documents: where they are, reading and checking them.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

struct SIPLIB_SIPStackConfig;

namespace framework {

/// The file of a document, or an empty text for a name that is no document name: letters, digits, ".", "_" and "-",
/// not starting with ".". So a name never leads out of `dir`, whoever gave it.
std::string documentPath(const std::string& dir, const std::string& document);

/// The text of the first node that `key` finds in the file; false when there is no such file or node. A file that
/// cannot be used reads as an empty one, with one log line each time that it has changed. Parsed files are kept (a few)
/// and used for as long as the file is the same. Any thread.
bool readParameter(const std::string& path, const std::string& key, std::string& value);

struct Bounds;

/// Reads the settings, the elements `node`NAME of the file, into `config`, `bounds` and `io_thread`. What is no good
/// keeps its default, with a log line; a list of users that is no good is one of nobody.
void readStackSettings(const std::string& path, const std::string& node, SIPLIB_SIPStackConfig& config, Bounds& bounds,
                       bool& io_thread);

/// Reads every document under `dir` and gives one line per fault, with file and line.
std::vector<std::string> checkConfiguration(const std::string& dir);

}  // namespace framework

// The files that the process leaves in its run directory.
#pragma once

#include <string>
#include <string_view>

namespace framework {

/// Puts `text` in the place of the file at once: a reader sees the old file or the new one. On failure (reason in
/// `error`) the old one stays and nothing else is left behind.
bool replaceFile(const std::string& path, std::string_view text, std::string& error);

/// Remembers a file of this process as one to remove at its end.
void rememberRunFile(const std::string& path);
/// Removes the remembered files, but not one that another process has put in the place of ours.
void removeRunFiles();

}  // namespace framework

// What the commands share: the options that say where the proxy is, and how faults are told.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "arguments.h"
#include "session.h"

namespace ctl {

/// Adds --proxy-address, --proxy-port, --transport, --timeout and --help to the command's own options.
Command withProxyOptions(Command command);
/// Parses; prints the help (and gives 0) or the fault (and gives 2), in which case the caller returns that.
std::optional<int> parseOrExit(const Command& command, const std::vector<std::string>& words, Arguments& arguments);
/// False with one line on standard error.
bool proxyAddress(const Arguments& arguments, ProxyAddress& proxy);
/// "ue-proxyctl: text" on standard error; gives `status`.
int fault(const std::string& text, int status = 1);
/// The text with & < > " written as XML wants them.
std::string xmlText(const std::string& text);
/// The number that goes into CSeq: ticks of a quarter second, so that a later call's is greater without anything kept
/// between calls; it fits 31 bits for 17 years from 2026.
long tick();
/// Waits until the tick is another, so that the next call's CSeq differs from this one's.
void leaveTick(long used);

}  // namespace ctl

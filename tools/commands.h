// The commands of ue-proxyctl. Each gives the exit status: 0 done, 1 refused or no answer, 2 wrong command line.
#pragma once

#include <string>
#include <vector>

namespace ctl {

int routeCommand(const std::vector<std::string>& words);
int registerCommand(const std::vector<std::string>& words);
int deregisterCommand(const std::vector<std::string>& words);
int watchCommand(const std::vector<std::string>& words);

}  // namespace ctl

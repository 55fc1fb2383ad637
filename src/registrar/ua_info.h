// What a NOTIFY tells of one external user agent.
#pragma once

#include <string>
#include <vector>

#include "routing/client_records.h"

struct IMSE_UA_AOR_T {
  std::string aor;
  std::vector<std::string> feature_tags;
};

struct IMSE_UA_INFO_T {
  int id = 0;
  int reg_expires_pref = 0;  ///< seconds
  std::vector<IMSE_UA_AOR_T> aors;
  std::vector<ClientHeader_T> sip_headers;  ///< of the user agent, not of one address of record
};

// A module of the terminal: no network profile, no addresses of record; it handles event packages.
#pragma once

#include "registrar/client.h"

class IMSE_IntClient : public IMSE_Client {
 public:
  using IMSE_Client::IMSE_Client;
  int get_client_info(ClientTable_Entry_T& entry) override;
  int is_external() const override { return 0; }
};

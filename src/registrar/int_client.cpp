#include "registrar/int_client.h"

int IMSE_IntClient::get_client_info(ClientTable_Entry_T& entry) {
  entry.ua_port = std::to_string(get_port());
  entry.uri = from();
  body().get_packages(entry.packages);
  return 0;
}

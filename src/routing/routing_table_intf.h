// The client side of the routing table, as the registrar sees it.
#pragma once

#include <string>
#include <vector>

#include "routing/client_records.h"

/// All operations return true when done. Loop thread only. Records are copied in and out.
class IMS_Proxy_RoutingTable_Intf {
 public:
  virtual ~IMS_Proxy_RoutingTable_Intf() = default;
  virtual bool addClient(ClientTable_Entry_T const& entry) = 0;
  /// Whether the bounds would take the entry in the place of the one that the user agent with this port has now.
  virtual bool hasRoomFor(ClientTable_Entry_T const& entry, std::string const& replaced_port) = 0;
  virtual bool deleteClient(ClientTable_Field_T const& type, std::string const& value) = 0;
  virtual bool appendClientField(ClientTable_Field_T const& type, std::string const& value,
                                 ClientTable_Field_T const& field, std::string const& text) = 0;
  virtual bool appendClientField(ClientTable_Field_T const& type, std::string const& value,
                                 std::vector<ClientHeader_T> const& headers) = 0;
  virtual bool appendClientField(ClientTable_Field_T const& type, std::string const& value,
                                 std::vector<ClientAOR_T> const& aors) = 0;
  virtual bool replaceClientField(ClientTable_Field_T const& type, std::string const& value,
                                  ClientTable_Field_T const& field, std::string const& text) = 0;
  virtual bool replaceClientField(ClientTable_Field_T const& type, std::string const& value,
                                  std::vector<ClientHeader_T> const& headers) = 0;
  virtual bool replaceClientField(ClientTable_Field_T const& type, std::string const& value,
                                  std::vector<ClientAOR_T> const& aors) = 0;
  virtual bool getClient(ClientTable_Field_T const& type, std::string const& value, ClientTable_Entry_T& entry) = 0;
};

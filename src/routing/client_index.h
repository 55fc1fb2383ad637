// How the client table finds clients: by port, and by what their addresses of record say, without a walk over all that
// is registered. What is found is what the walk over the clients, in the order of their keys, would find.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <unordered_map>
#include <vector>

#include "routing/client_amount.h"
#include "routing/client_matches.h"
#include "routing/client_records.h"
#include "routing/tag_index.h"
#include "routing/text_index.h"

/// Keys and records are the table's and stay where they are while they are in the index; what is searched in a record
/// is taken out before it changes and put in again afterwards. Loop thread only.
class ClientIndex {
 public:
  void add(const std::string& key, const RoutingTable_Entry_T& record);
  void remove(const std::string& key, const RoutingTable_Entry_T& record);
  /// A further address of record of a client that is in the index, or one less.
  void add(const std::string& key, const ClientAOR_T& aor);
  void remove(const std::string& key, const ClientAOR_T& aor);

  /// Null when no client has the port.
  const std::string* with_port(const std::string& port) const;
  /// The first client whose CF_URI or CF_PACKAGES text has the value in it, or null.
  const std::string* first_with(ClientFilter_Field_T filter, const std::string& value) const;
  /// CF_EVENT, CF_METHOD, CF_CONTENT_TYPE or CF_AOR; a client counts for each of its addresses that matches.
  void with_text(ClientFilter_Field_T filter, const std::string& value, ClientMatches& matches) const;
  /// A client counts for each of its feature tags that stands in the text.
  void with_tags_in(const std::string& text, ClientMatches& matches) const;
  /// Of all clients.
  const ClientAmount& amount() const { return amount_; }

 private:
  struct Client {
    const std::string* key;
    const RoutingTable_Entry_T* record;
    std::uint32_t number;  ///< what the client is called in the indexes
    std::uint64_t uri_signature;
  };
  static constexpr std::array kTextFilters = {CF_EVENT, CF_METHOD, CF_CONTENT_TYPE, CF_AOR};

  std::vector<Client>::iterator position(const std::string& key);
  void add(std::uint32_t number, const ClientAOR_T& aor);
  void remove(std::uint32_t number, const ClientAOR_T& aor);
  void collect(ClientMatches& matches) const;

  std::vector<Client> clients_;  ///< in the order of the keys
  std::vector<std::uint32_t> free_numbers_;
  std::unordered_map<std::string, const std::string*> by_port_;
  std::array<TextIndex, kTextFilters.size()> texts_;
  TagIndex tags_;
  ClientAmount amount_;
  mutable std::vector<std::size_t> counts_;  ///< by number, all 0 between searches
};

/// The text of an address of record that a filter looks at.
const std::string& filtered_text(ClientFilter_Field_T filter, const ClientAOR_T& aor);

#include "routing/client_index.h"

#include <algorithm>

const std::string& filtered_text(ClientFilter_Field_T filter, const ClientAOR_T& aor) {
  switch (filter) {
    case CF_EVENT:
      return aor.events;
    case CF_METHOD:
      return aor.methods;
    case CF_CONTENT_TYPE:
      return aor.content_types;
    default:
      return aor.aor;
  }
}

std::vector<ClientIndex::Client>::iterator ClientIndex::position(const std::string& key) {
  return std::lower_bound(clients_.begin(), clients_.end(), key,
                          [](const Client& client, const std::string& wanted) { return *client.key < wanted; });
}

void ClientIndex::add(const std::string& key, const RoutingTable_Entry_T& record) {
  if (free_numbers_.empty()) {
    free_numbers_.push_back(static_cast<std::uint32_t>(counts_.size()));
    counts_.push_back(0);
  }
  const std::uint32_t number = free_numbers_.back();
  free_numbers_.pop_back();
  clients_.insert(position(key), {&key, &record, number, SearchedValue::signature(record.uri)});
  by_port_.emplace(record.ua_port, &key);
  amount_.text_bytes += record.uri.size() + record.packages.size();
  for (const ClientAOR_T& aor : record.aors) add(number, aor);
}

void ClientIndex::remove(const std::string& key, const RoutingTable_Entry_T& record) {
  const auto client = position(key);
  for (const ClientAOR_T& aor : record.aors) remove(client->number, aor);
  amount_.text_bytes -= record.uri.size() + record.packages.size();
  by_port_.erase(record.ua_port);
  free_numbers_.push_back(client->number);
  clients_.erase(client);
}

void ClientIndex::add(const std::string& key, const ClientAOR_T& aor) {
  add(position(key)->number, aor);
}

void ClientIndex::remove(const std::string& key, const ClientAOR_T& aor) {
  remove(position(key)->number, aor);
}

void ClientIndex::add(std::uint32_t number, const ClientAOR_T& aor) {
  for (std::size_t i = 0; i < kTextFilters.size(); ++i) texts_[i].add(filtered_text(kTextFilters[i], aor), number);
  for (const std::string& tag : aor.feature_tags) tags_.add(tag, number);
  ClientAmount one;
  one.add(aor);
  amount_ += one;
}

void ClientIndex::remove(std::uint32_t number, const ClientAOR_T& aor) {
  for (std::size_t i = 0; i < kTextFilters.size(); ++i) texts_[i].remove(filtered_text(kTextFilters[i], aor), number);
  for (const std::string& tag : aor.feature_tags) tags_.remove(tag, number);
  ClientAmount one;
  one.add(aor);
  amount_ -= one;
}

const std::string* ClientIndex::with_port(const std::string& port) const {
  const auto found = by_port_.find(port);
  return found == by_port_.end() ? nullptr : found->second;
}

const std::string* ClientIndex::first_with(ClientFilter_Field_T filter, const std::string& value) const {
  const SearchedValue searched(value);
  for (const Client& client : clients_) {
    const bool found = filter == CF_URI
                           ? searched.may_stand_in(client.uri_signature) && searched.stands_in(client.record->uri)
                           : searched.stands_in(client.record->packages);
    if (found) return client.key;
  }
  return nullptr;
}

void ClientIndex::with_text(ClientFilter_Field_T filter, const std::string& value, ClientMatches& matches) const {
  const auto place = std::find(kTextFilters.begin(), kTextFilters.end(), filter) - kTextFilters.begin();
  texts_[static_cast<std::size_t>(place)].count(value, counts_);
  collect(matches);
}

void ClientIndex::with_tags_in(const std::string& text, ClientMatches& matches) const {
  tags_.count(text, counts_);
  collect(matches);
}

void ClientIndex::collect(ClientMatches& matches) const {
  matches.clear();
  for (const Client& client : clients_) {
    matches.add(*client.key, counts_[client.number]);
    counts_[client.number] = 0;
  }
}

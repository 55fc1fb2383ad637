#include "registrar/wants.h"

#include <algorithm>
#include <vector>

#include "framework/text_hash.h"
#include "framework/utility.h"

namespace {

std::string key_of(const ClientAOR_T& aor, const std::string& tag) {
  std::string key;
  key.reserve(aor.aor.size() + 1 + tag.size());
  return key.append(aor.aor).append(1, '\0').append(tag);
}

std::vector<std::string> events_of(const ClientAOR_T& aor) {
  std::vector<std::string> events;
  IMS_utility::tokenize(aor.events, events, ",");
  return events;
}

std::uint32_t hash_of(std::string_view text) {
  return static_cast<std::uint32_t>(framework::textHash(text));
}

}  // namespace

IMSE_Wants::Table::~Table() {
  wants_.forEach([](Want* want) { delete want; });
}

IMSE_Wants::Want* IMSE_Wants::Table::find(std::string_view text) const {
  return wants_.find(hash_of(text), [text](const Want& want) { return want.text == text; });
}

void IMSE_Wants::Table::add(std::string_view text) {
  Want* want = find(text);
  if (want == nullptr) {
    want = new Want{std::string(text), hash_of(text)};
    wants_.insert(want);
  }
  ++want->times;
}

void IMSE_Wants::Table::remove(std::string_view text) {
  Want* const want = find(text);
  if (--want->times > 0) return;
  wants_.erase(want);
  delete want;
}

void IMSE_Wants::add(const RegisterXmlData::AorList* aors) {
  if (aors == nullptr) return;
  for (const auto& aor : *aors) {
    for (const std::string& tag : aor->feature_tags) tags_.add(key_of(*aor, tag));
    for (const std::string& event : events_of(*aor)) events_.add(event);
  }
}

void IMSE_Wants::remove(const RegisterXmlData::AorList* aors) {
  if (aors == nullptr) return;
  for (const auto& aor : *aors) {
    for (const std::string& tag : aor->feature_tags) tags_.remove(key_of(*aor, tag));
    for (const std::string& event : events_of(*aor)) events_.remove(event);
  }
}

bool IMSE_Wants::has_any(const RegisterXmlData::AorList* aors) const {
  if (aors == nullptr) return false;
  return std::any_of(aors->begin(), aors->end(), [this](const auto& aor) {
    const std::vector<std::string> events = events_of(*aor);
    return std::any_of(aor->feature_tags.begin(), aor->feature_tags.end(),
                       [&](const std::string& tag) { return tags_.has(key_of(*aor, tag)); }) ||
           std::any_of(events.begin(), events.end(), [this](const std::string& event) { return events_.has(event); });
  });
}

// How much of what is searched and kept clients bring, measured by what the bounds count.
#pragma once

#include <cstddef>
#include <string>

#include "framework/bounds.h"
#include "routing/client_records.h"

struct ClientAmount {
  std::size_t aors = 0;
  std::size_t feature_tags = 0;
  std::size_t feature_tag_bytes = 0;
  std::size_t text_bytes = 0;  ///< addresses, events, methods, content types, packages, URIs

  void add(const ClientAOR_T& aor) {
    ++aors;
    feature_tags += aor.feature_tags.size();
    for (const std::string& tag : aor.feature_tags) feature_tag_bytes += tag.size();
    text_bytes += aor.aor.size() + aor.events.size() + aor.methods.size() + aor.content_types.size();
  }
  ClientAmount& operator+=(const ClientAmount& other) {
    aors += other.aors;
    feature_tags += other.feature_tags;
    feature_tag_bytes += other.feature_tag_bytes;
    text_bytes += other.text_bytes;
    return *this;
  }
  ClientAmount& operator-=(const ClientAmount& other) {
    aors -= other.aors;
    feature_tags -= other.feature_tags;
    feature_tag_bytes -= other.feature_tag_bytes;
    text_bytes -= other.text_bytes;
    return *this;
  }
  /// The setting that all clients together are above, or null.
  const char* bound_exceeded() const {
    const framework::Bounds& most = framework::bounds();
    if (aors > most.aors) return "max-aors";
    if (feature_tags > most.feature_tags) return "max-feature-tags";
    if (feature_tag_bytes > most.feature_tag_bytes) return "max-feature-tag-bytes";
    if (text_bytes > most.text_bytes) return "max-text-bytes";
    return nullptr;
  }
};

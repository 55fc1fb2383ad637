// What the clients of a network profile want to be sent: the feature tags of their addresses of record, and events.
// Tells whether a further client wants something of it too, without comparing it with each of the others.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "framework/bucket_table.h"
#include "registrar/register_xml_data.h"

/// Loop thread only.
class IMSE_Wants {
 public:
  IMSE_Wants() = default;
  IMSE_Wants(const IMSE_Wants&) = delete;
  IMSE_Wants& operator=(const IMSE_Wants&) = delete;

  /// Null for a client without any, here and below.
  void add(const RegisterXmlData::AorList* aors);
  /// What was added.
  void remove(const RegisterXmlData::AorList* aors);
  /// Whether an address with one of its feature tags, or an event, is wanted already.
  bool has_any(const RegisterXmlData::AorList* aors) const;

 private:
  struct Want {
    std::string text;
    std::uint32_t hash;
    std::uint32_t times = 0;
  };
  class Table {
   public:
    Table() = default;
    ~Table();
    Table(const Table&) = delete;
    Table& operator=(const Table&) = delete;
    void add(std::string_view text);
    void remove(std::string_view text);
    bool has(std::string_view text) const { return find(text) != nullptr; }

   private:
    Want* find(std::string_view text) const;
    framework::BucketTable<Want> wants_;
  };

  Table tags_;  ///< each behind its address and a NUL, which no text from a document contains
  Table events_;
};

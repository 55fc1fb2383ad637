#include "siplib/header_table.h"

#include <array>
#include <cstddef>

namespace siplib {
namespace {

// Authentication headers hold commas but are one value a line (RFC 3261 7.3.1). P-Charging-* and Privacy divide at
// semicolons. Content-Length stands first because kContentLength names its place.
constexpr HeaderRow kRows[] = {
    // name, compact, list, reference
    {"Content-Length", 'l', List::No, "RFC 3261 20.14"},
    {"Accept", 0, List::Quoted, "RFC 3261 20.1"},
    {"Accept-Contact", 'a', List::Quoted, "RFC 3841 9.2"},
    {"Accept-Encoding", 0, List::Quoted, "RFC 3261 20.2"},
    {"Accept-Language", 0, List::Quoted, "RFC 3261 20.3"},
    {"Accept-Resource-Priority", 0, List::Quoted, "RFC 4412 3.2"},
    {"Alert-Info", 0, List::Quoted, "RFC 3261 20.4"},
    {"Allow", 0, List::Quoted, "RFC 3261 20.5"},
    {"Allow-Events", 'u', List::Quoted, "RFC 6665 8.2.2"},
    {"Answer-Mode", 0, List::No, "RFC 5373 4.2"},
    {"Authentication-Info", 0, List::No, "RFC 3261 20.6"},
    {"Authorization", 0, List::No, "RFC 3261 20.7"},
    {"Call-ID", 'i', List::No, "RFC 3261 20.8"},
    {"Call-Info", 0, List::Quoted, "RFC 3261 20.9"},
    {"Contact", 'm', List::Quoted, "RFC 3261 20.10"},
    {"Content-Disposition", 0, List::No, "RFC 3261 20.11"},
    {"Content-Encoding", 'e', List::Quoted, "RFC 3261 20.12"},
    {"Content-ID", 0, List::No, "RFC 8262 3.2"},
    {"Content-Language", 0, List::Quoted, "RFC 3261 20.13"},
    {"Content-Type", 'c', List::No, "RFC 3261 20.15"},
    {"CSeq", 0, List::No, "RFC 3261 20.16"},
    {"Date", 0, List::No, "RFC 3261 20.17"},
    {"Error-Info", 0, List::Quoted, "RFC 3261 20.18"},
    {"Event", 'o', List::No, "RFC 6665 8.2.1"},
    {"Expires", 0, List::No, "RFC 3261 20.19"},
    {"Feature-Caps", 0, List::Quoted, "RFC 6809 6.2"},
    {"Flow-Timer", 0, List::No, "RFC 5626 10"},
    {"From", 'f', List::No, "RFC 3261 20.20"},
    {"Geolocation", 0, List::Quoted, "RFC 6442 4.1"},
    {"Geolocation-Error", 0, List::No, "RFC 6442 4.3"},
    {"Geolocation-Routing", 0, List::No, "RFC 6442 4.2"},
    {"History-Info", 0, List::Quoted, "RFC 7044 5"},
    {"Identity", 'y', List::No, "RFC 8224 4"},
    {"Identity-Info", 'n', List::No, "RFC 4474 9"},
    {"In-Reply-To", 0, List::Plain, "RFC 3261 20.21"},
    {"Info-Package", 0, List::No, "RFC 6086 7.2"},
    {"Join", 0, List::No, "RFC 3911 7.1"},
    {"Max-Breadth", 0, List::No, "RFC 5393 5.3.1"},
    {"Max-Forwards", 0, List::No, "RFC 3261 20.22"},
    {"MIME-Version", 0, List::No, "RFC 3261 20.24"},
    {"Min-Expires", 0, List::No, "RFC 3261 20.23"},
    {"Min-SE", 0, List::No, "RFC 4028 5"},
    {"Organization", 0, List::No, "RFC 3261 20.25"},
    {"P-Access-Network-Info", 0, List::Quoted, "RFC 7315 5.4"},
    {"P-Asserted-Identity", 0, List::Quoted, "RFC 3325 9.1"},
    {"P-Asserted-Service", 0, List::Quoted, "RFC 6050 4.1"},
    {"P-Associated-URI", 0, List::Quoted, "RFC 7315 5.1"},
    {"P-Called-Party-ID", 0, List::No, "RFC 7315 5.2"},
    {"P-Charging-Function-Addresses", 0, List::No, "RFC 7315 5.5"},
    {"P-Charging-Vector", 0, List::No, "RFC 7315 5.6"},
    {"P-Early-Media", 0, List::Quoted, "RFC 5009 8"},
    {"P-Media-Authorization", 0, List::Quoted, "RFC 3313 5.1"},
    {"P-Preferred-Identity", 0, List::Quoted, "RFC 3325 9.2"},
    {"P-Preferred-Service", 0, List::Quoted, "RFC 6050 4.2"},
    {"P-Served-User", 0, List::No, "RFC 5502 5"},
    {"P-Visited-Network-ID", 0, List::Quoted, "RFC 7315 5.3"},
    {"Path", 0, List::Quoted, "RFC 3327 4"},
    {"Permission-Missing", 0, List::Quoted, "RFC 5360 5.9.3"},
    {"Priority", 0, List::No, "RFC 3261 20.26"},
    {"Privacy", 0, List::No, "RFC 3323 4.2"},
    {"Proxy-Authenticate", 0, List::No, "RFC 3261 20.27"},
    {"Proxy-Authentication-Info", 0, List::No, "RFC 7615 4"},
    {"Proxy-Authorization", 0, List::No, "RFC 3261 20.28"},
    {"Proxy-Require", 0, List::Quoted, "RFC 3261 20.29"},
    {"RAck", 0, List::No, "RFC 3262 7.2"},
    {"Reason", 0, List::Quoted, "RFC 3326 2"},
    {"Record-Route", 0, List::Quoted, "RFC 3261 20.30"},
    {"Recv-Info", 0, List::Quoted, "RFC 6086 7.3"},
    {"Refer-Sub", 0, List::No, "RFC 4488 4"},
    {"Refer-To", 'r', List::No, "RFC 3515 2.1"},
    {"Referred-By", 'b', List::No, "RFC 3892 3"},
    {"Reject-Contact", 'j', List::Quoted, "RFC 3841 9.2"},
    {"Replaces", 0, List::No, "RFC 3891 6.1"},
    {"Reply-To", 0, List::No, "RFC 3261 20.31"},
    {"Request-Disposition", 'd', List::Quoted, "RFC 3841 9.1"},
    {"Require", 0, List::Quoted, "RFC 3261 20.32"},
    {"Resource-Priority", 0, List::Quoted, "RFC 4412 3.1"},
    {"Retry-After", 0, List::No, "RFC 3261 20.33"},
    {"Route", 0, List::Quoted, "RFC 3261 20.34"},
    {"RSeq", 0, List::No, "RFC 3262 7.1"},
    {"Security-Client", 0, List::Quoted, "RFC 3329 2.2"},
    {"Security-Server", 0, List::Quoted, "RFC 3329 2.2"},
    {"Security-Verify", 0, List::Quoted, "RFC 3329 2.2"},
    {"Server", 0, List::No, "RFC 3261 20.35"},
    {"Service-Route", 0, List::Quoted, "RFC 3608 5"},
    {"Session-Expires", 'x', List::No, "RFC 4028 4"},
    {"Session-ID", 0, List::No, "RFC 7989 5"},
    {"SIP-ETag", 0, List::No, "RFC 3903 11.3.1"},
    {"SIP-If-Match", 0, List::No, "RFC 3903 11.3.2"},
    {"Subject", 's', List::No, "RFC 3261 20.36"},
    {"Subscription-State", 0, List::No, "RFC 6665 8.2.3"},
    {"Supported", 'k', List::Quoted, "RFC 3261 20.37"},
    {"Suppress-If-Match", 0, List::No, "RFC 5839 7.1"},
    {"Target-Dialog", 0, List::No, "RFC 4538 7"},
    {"Timestamp", 0, List::No, "RFC 3261 20.38"},
    {"To", 't', List::No, "RFC 3261 20.39"},
    {"Trigger-Consent", 0, List::Quoted, "RFC 5360 5.11.2"},
    {"Unsupported", 0, List::Quoted, "RFC 3261 20.40"},
    {"User-Agent", 0, List::No, "RFC 3261 20.41"},
    {"User-to-User", 0, List::Quoted, "RFC 7433 4.1"},
    {"Via", 'v', List::Quoted, "RFC 3261 20.42"},
    {"Warning", 0, List::Quoted, "RFC 3261 20.43"},
    {"WWW-Authenticate", 0, List::No, "RFC 3261 20.44"},
};

static_assert(std::size(kRows) < 255, "HeaderId is one byte");
static_assert(kRows[kContentLength - 1].name == "Content-Length");

constexpr std::size_t kSlots = 1024;

// Three characters and the length; the case bit is set, so that letters count alike in either case. The factors were
// searched for: with them every row has its own slot.
constexpr std::size_t slotOf(std::string_view name) {
  const auto folded = [&](std::size_t at) { return static_cast<unsigned char>(name[at]) | 0x20U; };
  return (folded(0) * 5U + folded(name.size() / 2) * 377U + folded(name.size() - 1) * 943U + name.size() * 1023U) %
         kSlots;
}

// Open addressing: the next free slot takes a row whose own is taken.
constexpr std::array<HeaderId, kSlots> kByName = [] {
  std::array<HeaderId, kSlots> slots{};
  for (std::size_t row = 0; row < std::size(kRows); ++row) {
    std::size_t slot = slotOf(kRows[row].name);
    while (slots[slot] != kUnknownHeader) slot = (slot + 1) % kSlots;
    slots[slot] = static_cast<HeaderId>(row + 1);
  }
  return slots;
}();

constexpr std::array<HeaderId, 26> kByLetter = [] {
  std::array<HeaderId, 26> letters{};
  for (std::size_t row = 0; row < std::size(kRows); ++row) {
    if (kRows[row].compact != 0) {
      letters[static_cast<std::size_t>(kRows[row].compact - 'a')] = static_cast<HeaderId>(row + 1);
    }
  }
  return letters;
}();

}  // namespace

std::span<const HeaderRow> headerTable() {
  return kRows;
}

HeaderId headerId(std::string_view name) {
  if (name.empty()) return kUnknownHeader;
  if (name.size() == 1) {
    return isAlpha(name[0]) ? kByLetter[static_cast<std::size_t>(lower(name[0]) - 'a')] : kUnknownHeader;
  }
  for (std::size_t slot = slotOf(name); kByName[slot] != kUnknownHeader; slot = (slot + 1) % kSlots) {
    if (equalsIgnoreCase(kRows[kByName[slot] - 1].name, name)) return kByName[slot];
  }
  return kUnknownHeader;
}

List headerList(HeaderId id) {
  return id == kUnknownHeader ? List::No : kRows[id - 1].list;
}

}  // namespace siplib

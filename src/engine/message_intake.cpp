#include "engine/message_intake.h"

#include <cstddef>
#include <cstring>
#include <memory>
#include <new>
#include <optional>
#include <utility>

#include "framework/log.h"
#include "siplib/message.h"

namespace intake {

namespace {

/// With the terminating NUL.
constexpr std::size_t kHeaderBuffer = 1000;
constexpr const char* kFunction = "handleIncomingMessage";

}  // namespace

bool parse(const char* text, unsigned int length, SIPLIB_message** message) {
  // What stands after a NUL is never shown to the parser, nor is whatever the memory held before.
  const std::size_t size = length;
  const std::size_t used = size == 0 ? 0 : strnlen(text, size);
  std::unique_ptr<char[]> copy;
  if (used < size) {
    copy.reset(new (std::nothrow) char[size]);
    if (!copy) {
      IMS_log::loginfo(3, kFunction, "Memory allocation failed for buffer");
      return false;
    }
    std::memcpy(copy.get(), text, used);
    std::memset(copy.get() + used, 0, size - used);
    text = copy.get();
  }

  SIPLIB_message* parsed = nullptr;
  try {
    parsed = new (std::nothrow) SIPLIB_message(text, size);
  } catch (const std::bad_alloc&) {
    // Its own buffers are memory like any other.
  }
  if (parsed == nullptr) {
    IMS_log::loginfo(3, kFunction, "new SIPLIB_message(tmp_buf,buflen) failed");
    return false;
  }
  if (!parsed->valid())
    IMS_log::loginfo(4, kFunction, "message of %u bytes does not parse: %.*s", length,
                     static_cast<int>(parsed->parseError().size()), parsed->parseError().data());
  *message = parsed;
  return true;
}

Target target(const SIPLIB_message& message, std::string_view header) {
  const std::optional<std::string_view> value = message.header(header);
  if (!value || value->size() >= kHeaderBuffer) return {};
  std::unique_ptr<const SIPLIB_SIPAddress> address(SIPLIB_SIPAddress::createSIPAddressObject(header, *value));
  if (!address) return {};
  const std::string_view host = address->getHost();
  const std::string_view user = address->getUser();
  return {std::move(address), host, user};
}

bool is_from_registrar(const SIPLIB_message& message) {
  const Target from = target(message, "From");
  IMS_log::loginfo(5, kFunction, "Incoming Response message From:host=%.*s, From:user=%.*s",
                   static_cast<int>(from.host.size()), from.host.data(), static_cast<int>(from.user.size()),
                   from.user.data());
  if (from.user != "registrar" || from.host != kLoopback) return false;
  IMS_log::loginfo(5, kFunction, "Redirected response to Registrar");
  return true;
}

}  // namespace intake

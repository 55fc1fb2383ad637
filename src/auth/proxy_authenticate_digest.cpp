// One digest answer (RFC 2617 3.2.2), from a challenge's text to a header value.
#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include "auth/proxy_authenticate.h"
#include "framework/digest.h"
#include "framework/log.h"
#include "framework/utility.h"
#include "siplib/header.h"
#include "siplib/text.h"

namespace {

std::string quoted(const std::string& text) {
  return "\"" + text + "\"";
}

/// Without the quotes that `quoted` puts around it.
std::string without_quotes(const std::string& text) {
  const bool both = text.size() >= 2 && text.front() == '"' && text.back() == '"';
  return both ? text.substr(1, text.size() - 2) : text;
}

/// The text as a quoted-string (RFC 3261 25.1), what would end it escaped.
std::string quoted_string(const std::string& text) {
  std::string escaped;
  for (const char c : text) {
    if (c == '"' || c == '\\') escaped += '\\';
    escaped += c;
  }
  return quoted(escaped);
}

/// Whether the text stands for itself behind "=": holds nothing that ends, splits or escapes for one reader or another.
bool stands_unquoted(const std::string& text) {
  return std::none_of(text.begin(), text.end(), [](char c) {
    const auto code = static_cast<unsigned char>(c);
    return code <= ' ' || code == 0x7F || c == '"' || c == ',' || c == '\\';
  });
}

/// A challenge's value as it stands there where that is one value, else made one.
std::string one_value(const std::string& text) {
  const bool is_quoted = text.starts_with('"') && siplib::skipQuoted(text, 0) == text.size();
  return is_quoted || stands_unquoted(text) ? text : quoted_string(text);
}

/// What every operation tells of the values before what is its own.
void log_values(const char* caller, const char* title, const Req_Msg_T& values) {
  IMS_log::loginfo(5, caller, "%s", title);
  IMS_log::loginfo(5, caller, "algo is %s", values.algorithm.c_str());
  IMS_log::loginfo(5, caller, "username is %s", values.username.c_str());
  IMS_log::loginfo(5, caller, "password is %s", values.password.c_str());
  IMS_log::loginfo(5, caller, "realm is %s", values.realm.c_str());
  IMS_log::loginfo(5, caller, "qopis %s", values.qop.c_str());
}

}  // namespace

bool IMS_Proxy_Authenticate::generate_auth_header(Auth_T& kind, std::string const& challenge, std::string const& uri,
                                                  std::string const& method, std::string const& username,
                                                  std::string const& password, std::string& value,
                                                  std::string const& nc) {
  if (challenge.empty() || uri.empty() || method.empty() || username.empty()) return false;
  IMS_log::loginfo(5, __func__, "auth_hdr is %s, uri is  %s method is %s", challenge.c_str(), uri.c_str(),
                   method.c_str());
  if (kind != AUTH_WWW && kind != AUTH_PROXY) return false;
  const char* const name = kind == AUTH_WWW ? "Authorization" : "Proxy-Authorization";
  const std::unique_ptr<SIPLIB_SIPHeader> header(SIPLIB_SIPHeader::createSIPHeaderObject(name, challenge));
  IMS_log::loginfo(5, __func__, "auth_header is %s", name);
  if (!header) {
    IMS_log::loginfo(4, __func__, "Failed creating SIPLIB authentication header");
    return false;
  }
  Req_Msg_T values;
  parse_auth_params(header.get(), uri, method, username, password, values);
  if (!values.qop.empty()) values.qop = "auth";

  // Deliberately in this order: the digest is made before the count is set and with a client nonce that stays with the
  // copy. So an answer to a challenge with qop carries the count and an empty cnonce, and a response over neither.
  SIPLIB_UTIL_RANDOM_STRING_T cnonce = {};
  char response[DIGEST_HASH_HEX_LEN + 1] = {};
  calculate_md5_digest(values, cnonce, nullptr, response);
  values.response = quoted(response);
  values.nc = nc;
  construct_authentication_response(values, header.get(), value);
  IMS_log::loginfo(5, __func__, "Generated header value %s", value.c_str());
  return true;
}

bool IMS_Proxy_Authenticate::parse_auth_params(SIPLIB_SIPHeader* challenge, std::string const& uri,
                                               std::string const& method, std::string const& username,
                                               std::string const& password, Req_Msg_T& values) {
  if (challenge != nullptr) {
    challenge->getParameter("algorithm", values.algorithm);
    challenge->getParameter("realm", values.realm);
    challenge->getParameter("domain", values.domain);
    challenge->getParameter("nonce", values.nonce);
    challenge->getParameter("opaque", values.opaque);
    challenge->getParameter("qop", values.qop);
    challenge->getParameter("stale", values.stale);
  }
  values.username = quoted(username);
  values.password = quoted(password);
  values.uri = uri;
  values.method = method;
  log_values(__func__, "Req Msg values are", values);
  IMS_log::loginfo(5, __func__, "requri is %s", values.uri.c_str());
  IMS_log::loginfo(5, __func__, "methodis %s", values.method.c_str());
  IMS_log::loginfo(5, __func__, "nonce is %s", values.nonce.c_str());
  return true;
}

void IMS_Proxy_Authenticate::calculate_md5_digest(Req_Msg_T values, SIPLIB_UTIL_RANDOM_STRING_T& cnonce,
                                                  unsigned char* /*scratch*/, char (&response)[33]) {
  // Quotes within a user name are its own, those in a Request-URI too: the digest is over both as they stand.
  const std::string username = without_quotes(values.username);
  const std::string uri = values.uri;
  for (std::string* field : {&values.algorithm, &values.username, &values.password, &values.realm, &values.qop,
                             &values.nc, &values.nonce, &values.cnonce, &values.method, &values.uri}) {
    strip_quotes(*field, *field);
  }
  values.username = username;
  values.uri = uri;
  if (values.qop.empty()) {
    values.nc.clear();
    values.cnonce.clear();
  } else {
    SIPLIB_UTIL_generateRandomString(cnonce);
    values.cnonce = cnonce;
    IMS_log::loginfo(5, __func__, "Generating cnonce - %s", values.cnonce.c_str());
  }
  log_values(__func__, "REq Msg values are", values);
  IMS_log::loginfo(5, __func__, "nc %s", values.nc.c_str());
  IMS_log::loginfo(5, __func__, "cnonce is %s", values.cnonce.c_str());
  IMS_log::loginfo(5, __func__, "requri is %s", values.uri.c_str());
  IMS_log::loginfo(5, __func__, "method is %s", values.method.c_str());
  IMS_log::loginfo(5, __func__, "nonce is %s", values.nonce.c_str());

  DIGEST_HASH_HEX_T ha1 = {};
  DigestCalcHA1(values.algorithm.c_str(), values.username.c_str(), values.realm.c_str(), values.password.c_str(),
                values.nonce.c_str(), values.cnonce.c_str(), ha1);
  IMS_log::loginfo(5, __func__, "HA1 is %s", ha1);
  const DIGEST_HASH_HEX_T no_entity = {};
  DigestCalcResponse(ha1, values.nonce.c_str(), values.nc.c_str(), values.cnonce.c_str(), values.qop.c_str(),
                     values.method.c_str(), values.uri.c_str(), no_entity, response);
  IMS_log::loginfo(5, __func__, "Generated response is %s", response);
}

void IMS_Proxy_Authenticate::construct_authentication_response(Req_Msg_T& values, SIPLIB_SIPHeader* header,
                                                               std::string& value) const {
  IMS_log::loginfo(5, __func__, "construct_authentication_response for foll type - ");
  log_values(__func__, "REq Msg values are", values);
  IMS_log::loginfo(5, __func__, "requri is %s", values.uri.c_str());
  IMS_log::loginfo(5, __func__, "method is %s", values.method.c_str());
  if (header == nullptr) {
    IMS_log::loginfo(4, __func__, "auth hdr is NULL - cannot proceed");
    return;
  }
  const auto set = [header](const char* name, const std::string& text) {
    if (header->setParameter(name, text)) return;
    IMS_log::loginfo(4, "construct_authentication_response", "%s cannot be written into the answer", name);
  };
  set("username", quoted_string(without_quotes(values.username)));
  set("realm", one_value(values.realm));
  set("nonce", one_value(values.nonce));
  set("uri", stands_unquoted(values.uri) ? values.uri : quoted_string(values.uri));
  set("algorithm", one_value(values.algorithm));
  if (!values.opaque.empty()) set("opaque", one_value(values.opaque));
  if (!values.qop.empty()) {
    set("qop", values.qop);
    set("cnonce", values.cnonce);
    set("nc", values.nc);
  }
  set("response", values.response);
  header->getHeaderValue(value);
  IMS_log::loginfo(5, __func__, "Final Auth header value is %s", value.c_str());
}

bool IMS_Proxy_Authenticate::is_qop_present(SIPLIB_SIPHeader* header) {
  std::string qop;
  if (header == nullptr || header->getParameter("qop", qop) != 0) {
    IMS_log::loginfo(5, __func__, "qop value is absent");
    return false;
  }
  IMS_log::loginfo(5, __func__, "qop value is present %s", qop.c_str());
  return true;
}

void IMS_Proxy_Authenticate::strip_quotes(std::string const& in, std::string& out) {
  std::vector<std::string> pieces;
  IMS_utility::tokenize(in, pieces, "\"");
  std::string first = pieces.empty() ? std::string() : std::move(pieces.front());
  IMS_log::loginfo(5, __func__, "inp string is %s, out_str is %s", in.c_str(), first.c_str());
  out = std::move(first);
}

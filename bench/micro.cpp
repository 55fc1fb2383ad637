// The parts of forwarding a message, each for itself: time, allocations and allocated bytes per operation.

#include <benchmark/benchmark.h>
#include <sys/uio.h>

#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "auth/proxy_authenticate.h"
#include "count_allocations.h"
#include "engine/engine_proxy.h"
#include "framework/digest.h"
#include "framework/log.h"
#include "proxy/network_gate.h"
#include "registrar/notify_xml_data.h"
#include "registrar/register_xml_data.h"
#include "routing/routing_table_impl.h"
#include "siplib/address.h"
#include "siplib/header.h"
#include "siplib/message.h"
#include "support/fake_siplib.h"

namespace {

/// Counts what the loop allocates and tells it per iteration.
class CountedAllocations {
 public:
  explicit CountedAllocations(benchmark::State& state)
      : state_(state), count_(bench::allocations()->count), bytes_(bench::allocations()->bytes) {}
  ~CountedAllocations() {
    const auto of = [&](std::uint64_t after, std::uint64_t before) {
      return benchmark::Counter(static_cast<double>(after - before), benchmark::Counter::kAvgIterations);
    };
    state_.counters["allocs"] = of(bench::allocations()->count, count_);
    state_.counters["bytes"] = of(bench::allocations()->bytes, bytes_);
  }
  CountedAllocations(const CountedAllocations&) = delete;
  CountedAllocations& operator=(const CountedAllocations&) = delete;

 private:
  benchmark::State& state_;
  const std::uint64_t count_;
  const std::uint64_t bytes_;
};

/// 700 bytes, as a phone sends it.
std::string invite(const std::string& to = "sip:bob@example.net") {
  std::string body =
      "v=0\r\no=- 1 1 IN IP4 192.0.2.7\r\ns=-\r\nc=IN IP4 192.0.2.7\r\nt=0 0\r\nm=audio 49170 RTP/AVP 0 8 96\r\n"
      "a=rtpmap:96 telephone-event/8000\r\na=fmtp:96 0-15\r\na=sendrecv\r\n";
  const auto text = [&] {
    return sipRequest("INVITE", to,
                      {{"Via", "SIP/2.0/UDP 127.0.0.1:5071;branch=z9hG4bK-0000-00000001"},
                       {"Max-Forwards", "70"},
                       {"From", "\"Alice\" <sip:alice@example.net>;tag=a73kszlfl"},
                       {"To", "<" + to + ">"},
                       {"Call-ID", "bench-0000-00000001@terminal.example.net"},
                       {"CSeq", "1 INVITE"},
                       {"Contact", "<sip:alice@127.0.0.1:5071>"},
                       {"Allow", "INVITE, ACK, CANCEL, BYE, MESSAGE, OPTIONS"},
                       {"Supported", "100rel, timer"},
                       {"Content-Type", "application/sdp"}},
                      body);
  };
  body.append(700 - text().size(), '-');
  return text();
}

/// An engine as after start-up, its connections without sockets.
struct Engine {
  explicit Engine(int clients) {
    IMS_User_Agent::ua_connector = &connector;
    IMS_engine_proxy::set_instance(&engine);
    IMS_engine_proxy::localhost_port = "5060";
    IMS_engine_proxy::net_intf_ip = "127.0.0.2";
    IMS_engine_proxy::net_intf_port = "5060";
    IMS_engine_proxy::rt = &table;
    IMS_engine_proxy::rtintf = &table;
    IMS_engine_proxy::ims_proxy_auth_ptr = &auth;
    Domain_Entry_T domain;
    domain.profile_id = "1";
    domain.net_intf = "127.0.0.2";
    domain.proxy_ip = "127.0.0.3";
    domain.proxy_port = "5060";
    domain.proxy_transport = "UDP";
    if (!table.addDomain(domain)) std::abort();
    for (int number = clients - 1; number >= 0; --number) {
      ClientTable_Entry_T client;
      client.ua_port = std::to_string(5071 + number);
      client.profile_id = "1";
      client.aors.push_back({"user" + std::to_string(number) + "@example.net",
                             {"urn:tag-" + std::to_string(number) + ";"},
                             "presence",
                             "INVITE,BYE",
                             "application/sdp"});
      if (!table.addClient(client)) std::abort();
    }
  }
  ~Engine() {
    IMS_engine_proxy::rt = nullptr;
    IMS_engine_proxy::rtintf = nullptr;
    IMS_engine_proxy::ims_proxy_auth_ptr = nullptr;
    IMS_engine_proxy::set_instance(nullptr);
    IMS_User_Agent::ua_connector = nullptr;
  }
  Engine(const Engine&) = delete;
  Engine& operator=(const Engine&) = delete;

  FakeConnector connector;
  IMS_engine_proxy engine;
  IMS_Proxy_RoutingTable_Impl table{&engine};
  IMS_Proxy_Authenticate auth{&table};
};

void parseInvite(benchmark::State& state) {
  const std::string text = invite();
  const CountedAllocations counted(state);
  for (auto _ : state) {
    const SIPLIB_SIPMessageHandle message(new SIPLIB_message(text.data(), text.size()));
    benchmark::DoNotOptimize(message->valid());
  }
  state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(text.size()));
}
BENCHMARK(parseInvite);

void readHeader(benchmark::State& state, const char* name) {
  const std::string text = invite();
  const SIPLIB_message message(text.data(), text.size());
  const CountedAllocations counted(state);
  for (auto _ : state) benchmark::DoNotOptimize(message.header(name));
}
BENCHMARK_CAPTURE(readHeader, via, "Via");
BENCHMARK_CAPTURE(readHeader, contentType, "Content-Type");
BENCHMARK_CAPTURE(readHeader, absent, "Zel-Profile-ID");

void takeViaApart(benchmark::State& state) {
  const CountedAllocations counted(state);
  for (auto _ : state) {
    const std::unique_ptr<SIPLIB_SIPHeader> via(
        SIPLIB_SIPHeader::createSIPHeaderObject("Via", "SIP/2.0/UDP 127.0.0.1:5071;branch=z9hG4bK-0000-00000001"));
    via->setParameter("host", "127.0.0.2");
    via->setParameter("port", "5060");
    benchmark::DoNotOptimize(via);
  }
}
BENCHMARK(takeViaApart);

void takeAddressApart(benchmark::State& state) {
  const CountedAllocations counted(state);
  for (auto _ : state) {
    const std::unique_ptr<SIPLIB_SIPAddress> address(
        SIPLIB_SIPAddress::createSIPAddressObject("From", "\"Alice\" <sip:alice@example.net>;tag=a73kszlfl"));
    benchmark::DoNotOptimize(address->getHost());
  }
}
BENCHMARK(takeAddressApart);

/// Parsing again each time is part of it: what is rewritten is no longer what came.
void parseAndRewriteViaAndContact(benchmark::State& state) {
  Engine engine(2);
  const std::string text = invite();
  FakeServerUdp connection;
  std::string via, client_key, domain_key;
  const CountedAllocations counted(state);
  for (auto _ : state) {
    connection.set(text);
    if (!engine.engine.update_ua_to_network_request_via_contact(&connection, nullptr, nullptr, "INVITE", via,
                                                                client_key, domain_key)) {
      state.SkipWithError("not forwarded");
      break;
    }
    connection.setHeader("Via", via);
  }
}
BENCHMARK(parseAndRewriteViaAndContact);

/// What a message of the network costs more than a user agent's: the closer look at who it says to be.
void passNetworkGate(benchmark::State& state) {
  Engine engine(1);
  FakeServerUdp connection("127.0.0.2", 5060, "127.0.0.3", 5060);
  connection.set(invite("sip:alice@127.0.0.2:5060"));
  bool is_request = false;
  std::string method;
  SIPLIB_SIPAddress* from = nullptr;
  SIPLIB_SIPAddress* to = nullptr;
  IMS_engine_proxy::get_from_to_method(&connection, is_request, method, from, to);
  const std::unique_ptr<SIPLIB_SIPAddress> from_owner(from), to_owner(to);
  const CountedAllocations counted(state);
  for (auto _ : state) {
    if (!network_gate::admits_request(__func__, &connection, method, from, to)) {
      state.SkipWithError("not admitted");
      break;
    }
  }
}
BENCHMARK(passNetworkGate);

void gatherRewritten(benchmark::State& state) {
  const std::string text = invite();
  SIPLIB_message message(text.data(), text.size());
  message.setHeader("Via", "SIP/2.0/UDP 127.0.0.2:5060;branch=z9hG4bK-0000-00000001;mok=1;st=0");
  message.setHeader("Contact", "<sip:127.0.0.2:5060;mok=1>");
  message.addHeader("User-agent", "ue-proxy/0.1.0");
  std::vector<iovec> slices;
  const CountedAllocations counted(state);
  for (auto _ : state) {
    slices.clear();
    message.gather(slices);
    benchmark::DoNotOptimize(slices.data());
  }
  state.counters["slices"] = static_cast<double>(slices.size());
}
BENCHMARK(gatherRewritten);

/// The client that is looked for is the last one in the walk.
void selectTarget(benchmark::State& state, const char* header) {
  Engine engine(static_cast<int>(state.range(0)));
  const std::string last = "user0@example.net";
  std::string text = invite("sip:" + last);
  if (*header != '\0') text.insert(text.find("Max-Forwards"), header);
  FakeServerUdp connection;
  connection.set(text);
  const std::unique_ptr<SIPLIB_SIPAddress> to(SIPLIB_SIPAddress::createSIPAddressObject("To", "<sip:" + last + ">"));
  const CountedAllocations counted(state);
  for (auto _ : state) {
    std::string domain_key, client_key;
    engine.engine.find_domain_and_client_network_to_ua_request(&connection, nullptr, to.get(), "INVITE", domain_key,
                                                               client_key);
    if (client_key.empty()) {
      state.SkipWithError("no client found");
      break;
    }
  }
}
BENCHMARK_CAPTURE(selectTarget, byAddressOfRecord, "")->Arg(1)->Arg(10)->Arg(100);
BENCHMARK_CAPTURE(selectTarget, byFeatureTag, "Accept-Contact: *;urn:tag-0;\r\n")->Arg(1)->Arg(10)->Arg(100);

void digest(benchmark::State& state) {
  const CountedAllocations counted(state);
  for (auto _ : state) {
    DIGEST_HASH_HEX_T key, response;
    DigestCalcHA1("MD5", "alice@example.net", "example.net", "wonderland", "dcd98b7102dd2f0e8b11d0f600bfb0c0",
                  "0a4f113b", key);
    DigestCalcResponse(key, "dcd98b7102dd2f0e8b11d0f600bfb0c0", "00000001", "0a4f113b", "auth", "INVITE",
                       "sip:bob@example.net", "", response);
    benchmark::DoNotOptimize(response);
  }
}
BENCHMARK(digest);

void registerBody(benchmark::State& state) {
  const std::string text =
      "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<ua-info><profile-info><name>home</name></profile-info>"
      "<aor>alice@example.net<ua-specific-parameters><feature-tag>+g.oma.sip-im</feature-tag>"
      "<events>presence,reg</events><methods>INVITE,BYE,MESSAGE</methods><content-type>application/sdp</content-type>"
      "</ua-specific-parameters></aor></ua-info>\n";
  const CountedAllocations counted(state);
  for (auto _ : state) {
    RegisterXmlData body(text.data(), static_cast<int>(text.size()));
    if (body.parseXml() != 0) state.SkipWithError("not parsed");
  }
}
BENCHMARK(registerBody);

void notifyDocument(benchmark::State& state) {
  IMSE_REG_NW_PROFILE_T profile;
  profile.operation_mode = "ietf-shared";
  profile.impi = "alice@example.net";
  profile.impu = "sip:alice@example.net";
  profile.reg_expiry = "3600";
  const CountedAllocations counted(state);
  for (auto _ : state) {
    IMSE_NotifyXmlData document("home", profile, 1);
    for (int id = 1; id <= static_cast<int>(state.range(0)); ++id) {
      document.add_ua_info({id, 3600, {{"alice@example.net", {"+g.oma.sip-im"}}}, {}});
    }
    if (document.encodeXml() != 0) state.SkipWithError("not written");
  }
}
BENCHMARK(notifyDocument)->Arg(1)->Arg(10);

}  // namespace

int main(int argc, char** argv) {
  IMS_log::set_level(3);
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 2;
  benchmark::RunSpecifiedBenchmarks();
  return 0;
}

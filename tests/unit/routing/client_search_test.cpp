// The searches of the client table against the plain walk over all clients that they stand for, on random tables. Small
// alphabets, so that texts are equal, begin, end and contain one another all the time.
#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "routing_fixture.h"

namespace {

using Keys = std::vector<std::string>;

class Random {
 public:
  explicit Random(unsigned seed) : engine_(seed) {}
  std::size_t below(std::size_t limit) { return std::uniform_int_distribution<std::size_t>(0, limit - 1)(engine_); }
  /// Of few different bytes, NUL and high ones among them.
  std::string text(std::size_t most) {
    static constexpr std::string_view kLetters("ab\0\xff,@", 6);
    const std::size_t letters = 1 + below(kLetters.size());
    std::string text(below(most + 1), ' ');
    for (char& c : text) c = kLetters[below(letters)];
    return text;
  }

 private:
  std::mt19937 engine_;
};

/// The standard's own way to do it.
void compact(Keys& keys) {
  std::sort(keys.begin(), keys.end());
  const Keys sorted = keys;
  const auto distinct = static_cast<std::size_t>(std::unique(keys.begin(), keys.end()) - keys.begin());
  std::copy(sorted.begin() + static_cast<std::ptrdiff_t>(distinct), sorted.end(),
            keys.begin() + static_cast<std::ptrdiff_t>(distinct));
}

const std::string& looked_at(ClientFilter_Field_T filter, const ClientAOR_T& aor) {
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

bool contains(const std::string& text, const std::string& value) {
  return text.find(value) != std::string::npos;
}

/// What is in the table, and what walks over it find.
struct Walk {
  std::map<std::string, ClientTable_Entry_T> clients;

  Keys with(ClientFilter_Field_T filter, const std::string& value) const {
    Keys keys;
    for (const auto& [key, entry] : clients) {
      for (const ClientAOR_T& aor : entry.aors) {
        if (contains(looked_at(filter, aor), value)) keys.push_back(key);
      }
    }
    compact(keys);
    return keys;
  }
  Keys with(ClientFilter_Field_T filter, const std::string& value, const Keys& among) const {
    Keys keys;
    for (const std::string& key : among) {
      const auto found = clients.find(key);
      if (found == clients.end()) continue;
      for (const ClientAOR_T& aor : found->second.aors) {
        if (contains(looked_at(filter, aor), value)) keys.push_back(key);
      }
    }
    compact(keys);
    return keys;
  }
  Keys with_tags_in(const std::string& text, Keys keys) const {
    for (const auto& [key, entry] : clients) {
      for (const ClientAOR_T& aor : entry.aors) {
        for (const std::string& tag : aor.feature_tags) {
          if (contains(text, tag)) keys.push_back(key);
        }
      }
    }
    compact(keys);
    return keys;
  }
  std::string first(std::string ClientTable_Entry_T::*field, const std::string& value, bool whole) const {
    for (const auto& [key, entry] : clients) {
      if (whole ? entry.*field == value : contains(entry.*field, value)) return key;
    }
    return {};
  }
};

constexpr ClientFilter_Field_T kFilters[] = {CF_EVENT, CF_METHOD, CF_CONTENT_TYPE, CF_AOR};

class ClientSearch : public RoutingTable {
 protected:
  ClientSearch() { IMS_log::set_level(3); }
  ~ClientSearch() override { IMS_log::set_level(4); }

  ClientAOR_T random_aor() {
    ClientAOR_T aor;
    aor.aor = random.text(4);
    std::erase(aor.aor, '@');  // one domain, so that none is refused
    aor.events = random.text(12);
    aor.methods = random.text(12);
    aor.content_types = random.text(200);
    for (std::size_t tags = random.below(6); tags > 0; --tags) {
      aor.feature_tags.push_back(random.text(random.below(20) == 0 ? 70 : 5));
    }
    return aor;
  }
  ClientTable_Entry_T random_client() {
    ClientTable_Entry_T entry;
    entry.ua_port = std::to_string(7000 + random.below(40));
    entry.uri = random.text(10);
    entry.packages = random.text(5);
    for (std::size_t aors = random.below(4); aors > 0; --aors) entry.aors.push_back(random_aor());
    return entry;
  }
  void change() {
    const ClientTable_Entry_T entry = random_client();
    const std::string key = walk.first(&ClientTable_Entry_T::ua_port, entry.ua_port, true);
    if (key.empty()) {
      ASSERT_TRUE(table.addClient(entry));
      walk.clients[table.findKey(CT_UA_PORT, entry.ua_port)] = entry;
      return;
    }
    ClientTable_Entry_T& known = walk.clients[key];
    if (const std::size_t what = random.below(4); what < 2) {
      ASSERT_TRUE(table.deleteClient(CT_UA_PORT, entry.ua_port));
      walk.clients.erase(key);
    } else if (what == 2 && !entry.aors.empty()) {
      ASSERT_TRUE(table.replaceClientField(CT_UA_PORT, entry.ua_port, entry.aors));
      known.aors = entry.aors;
    } else if (!known.aors.empty()) {
      std::vector<ClientAOR_T> more = {random_aor(), random_aor()};
      for (ClientAOR_T& aor : more) aor.aor = known.aors.front().aor;
      ASSERT_TRUE(table.appendClientField(CT_UA_PORT, entry.ua_port, more));
      known.aors.insert(known.aors.end(), more.begin(), more.end());
    }
  }
  void compare_all() {
    const std::string value = random.text(random.below(8) == 0 ? 40 : 3);
    const std::string port = std::to_string(7000 + random.below(40));
    EXPECT_EQ(table.findClient(CF_UA_PORT, port), walk.first(&ClientTable_Entry_T::ua_port, port, true));
    Keys keys;
    ClientMatches matches;
    if (!value.empty()) {
      EXPECT_EQ(table.findClient(CF_URI, value), walk.first(&ClientTable_Entry_T::uri, value, false));
      EXPECT_EQ(table.findClient(CF_PACKAGES, value), walk.first(&ClientTable_Entry_T::packages, value, false));
      for (const ClientFilter_Field_T filter : kFilters) {
        const Keys expected = walk.with(filter, value);
        EXPECT_EQ(table.findClients(filter, value, keys), !expected.empty());
        EXPECT_EQ(keys, expected);
        EXPECT_EQ(table.findClients(filter, value, matches), !expected.empty());
        EXPECT_EQ(matches.list(), expected);
        EXPECT_EQ(matches.size(), expected.size());
      }
    }
    const std::string text = random.text(80);
    const Keys expected = walk.with_tags_in(text, {});
    table.findClients_FtrTag(text, matches);
    EXPECT_EQ(matches.list(), expected);
    keys = {"zzz", "0", "zzz"};
    table.findClients_FtrTag(text, keys);
    EXPECT_EQ(keys, walk.with_tags_in(text, {"zzz", "0", "zzz"}));

    // Narrowed twice, as a request's methods and content types narrow what its feature tags left.
    if (value.empty()) return;
    const Keys by_method = walk.with(CF_METHOD, value, expected);
    const Keys by_type = walk.with(CF_CONTENT_TYPE, value, by_method);
    ClientMatches of_method, of_type;
    EXPECT_EQ(table.findClients(CF_METHOD, value, matches, of_method), !by_method.empty());
    EXPECT_EQ(of_method.list(), by_method);
    EXPECT_EQ(table.findClients(CF_CONTENT_TYPE, value, of_method, of_type), !by_type.empty());
    EXPECT_EQ(of_type.list(), by_type);
    Keys shuffled(expected.rbegin(), expected.rend());
    shuffled.emplace_back("no such key");
    table.findClients(CF_METHOD, value, shuffled, shuffled);
    EXPECT_EQ(shuffled, by_method);
  }

  static constexpr unsigned kSeed = 20261121;
  Random random{kSeed};
  Walk walk;
};

TEST_F(ClientSearch, FindsWhatTheWalkOverAllClientsFinds) {
  constexpr int kSteps = 10000;  // of some 14 searches each
  std::printf("%d random changes with 14 searches each, seed %u\n", kSteps, kSeed);
  for (int step = 0; step < kSteps && !HasFailure(); ++step) {
    SCOPED_TRACE("step " + std::to_string(step));
    // Grows to some 20 clients and falls back to none again and again.
    if (step % 500 == 499) {
      while (!walk.clients.empty()) {
        ASSERT_TRUE(table.deleteClient(CT_UA_PORT, walk.clients.begin()->second.ua_port));
        walk.clients.erase(walk.clients.begin());
      }
    } else if (random.below(3) == 0) {
      change();
    }
    compare_all();
  }
}

TEST_F(ClientSearch, ManyTagsThatBeginAlikeAreFoundAsTheWalkFindsThem) {
  // One long text, of which tags are pieces, or pieces with one byte changed: deep trees of common beginnings.
  constexpr int kRounds = 12;
  std::printf("%d random sets of tags, seed %u\n", kRounds, kSeed);
  for (int round = 0; round < kRounds && !HasFailure(); ++round) {
    SCOPED_TRACE("round " + std::to_string(round));
    std::string source(600, 'a');
    if (round % 3 != 0) {
      for (char& c : source) c = "ab"[random.below(round % 3 == 1 ? 2 : 1 + (random.below(40) == 0 ? 1 : 0))];
    }
    for (int port = 0; port < 6; ++port) {
      ClientTable_Entry_T entry = client(std::to_string(7000 + port), {"a", "b"});
      for (ClientAOR_T& aor : entry.aors) {
        for (int tags = 0; tags < 120; ++tags) {
          std::string tag = source.substr(random.below(source.size()), random.below(257));
          if (!tag.empty() && random.below(4) == 0) tag[random.below(tag.size())] = 'c';
          aor.feature_tags.push_back(tag);
        }
      }
      walk.clients[add(entry)] = entry;
    }
    while (!walk.clients.empty()) {
      for (int search = 0; search < 3; ++search) {
        std::string text = source.substr(random.below(300), random.below(400));
        if (search == 2 && !text.empty()) text[random.below(text.size())] = 'c';
        ClientMatches matches;
        table.findClients_FtrTag(text, matches);
        EXPECT_EQ(matches.list(), walk.with_tags_in(text, {}));
      }
      const auto gone = std::next(walk.clients.begin(), static_cast<std::ptrdiff_t>(random.below(walk.clients.size())));
      ASSERT_TRUE(table.deleteClient(CT_UA_PORT, gone->second.ua_port));
      walk.clients.erase(gone);
    }
  }
}

TEST_F(ClientSearch, TheLinesOfASearchAreThoseOfTheWalk) {
  ClientTable_Entry_T entry = client("6001", {"a@x", "b@x"});
  entry.aors[0].methods = "INVITE";
  entry.aors[1].methods = "INVITE,MESSAGE";
  entry.aors[0].feature_tags = {"+one", "+two"};
  const std::string key = add(entry);
  LogCapture log;
  ClientMatches matches, narrowed;
  table.findClients(CF_METHOD, "MESSAGE", matches);
  table.findClients(CF_METHOD, "MESSAGE", matches, narrowed);
  table.findClients_FtrTag("+two+one", matches);
  EXPECT_EQ(
      log.texts(),
      (std::vector<std::string>{
          "identifier=4, identifier_value=MESSAGE", "search string is method: INVITE",
          "search string is method: INVITE,MESSAGE", "Adding client key=" + key, "After sorting clients.size=1",
          "After unique clients.size=1", "identifier=4, identifier_value=MESSAGE", "search string is method: INVITE",
          "search string is method: INVITE,MESSAGE", "After sorting output.size=1", "After unique output.size=1",
          "Found Client entries", "contact_string=+two+one ", "client key=" + key + ", AOR=a@x",
          "client key=" + key + ", feature tag =+one", "client key=" + key + ", feature tag =+two",
          "client key=" + key + ", AOR=b@x", "After sorting clients.size=2", "After unique clients.size=2"}));
}

TEST_F(ClientSearch, TheLinesOfASearchTellOfEveryClientFoundOrNot) {
  ClientTable_Entry_T entry = client("6001", {"a@x"});
  entry.aors[0].methods = "INVITE";
  entry.aors[0].feature_tags = {"+one"};
  const std::string first = add(entry);
  entry.ua_port = "6002";
  entry.aors[0].methods = "MESSAGE";
  entry.aors[0].feature_tags = {"+two"};
  const std::string second = add(entry);
  LogCapture log;
  ClientMatches matches;
  table.findClients(CF_METHOD, "MESSAGE", matches);
  table.findClients_FtrTag("+two", matches);
  for (const std::string& line :
       {std::string("search string is method: INVITE"), std::string("search string is method: MESSAGE"),
        "client key=" + first + ", AOR=a@x", "client key=" + second + ", AOR=a@x",
        "client key=" + first + ", feature tag =+one", "client key=" + second + ", feature tag =+two"}) {
    EXPECT_EQ(log.count(5, line), 1) << line;
  }
}

}  // namespace

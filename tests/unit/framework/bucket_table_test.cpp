#include "framework/bucket_table.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <deque>
#include <random>
#include <vector>

#include "framework/slabs.h"

namespace {

struct Entry {
  std::uint32_t hash = 0;
  int name = 0;
  Entry* link = nullptr;
};

TEST(BucketTable, HoldsWhatAListHolds) {
  std::mt19937 engine(7);
  // Few hashes with many bits in common too: buckets spill over, and equal hashes stand in them.
  for (const std::uint32_t step : {1U, 64U, 0U}) {
    std::deque<Entry> entries(3000);
    std::vector<Entry*> outside, inside;
    for (int n = 0; Entry & entry : entries) {
      entry.hash = static_cast<std::uint32_t>(engine() % 900) * step;
      entry.name = n++;
      outside.push_back(&entry);
    }
    framework::BucketTable<Entry> table;
    for (int turn = 0; turn < 20000; ++turn) {
      // Grows nearly to all of them, falls back to none, and again.
      const bool grow = turn % 8000 < 4000 ? engine() % 4 != 0 : engine() % 4 == 0;
      std::vector<Entry*>& from = grow ? outside : inside;
      if (from.empty()) continue;
      std::swap(from[engine() % from.size()], from.back());
      Entry* const entry = from.back();
      from.pop_back();
      const auto same = [entry](const Entry& one) { return one.name == entry->name; };
      EXPECT_EQ(table.find(entry->hash, same), grow ? nullptr : entry);
      if (grow) {
        table.insert(entry);
        inside.push_back(entry);
      } else {
        table.erase(entry);
        outside.push_back(entry);
      }
      EXPECT_EQ(table.find(entry->hash, same), grow ? entry : nullptr);
      ASSERT_EQ(table.size(), inside.size());
      if (turn % 500 != 0) continue;
      std::vector<Entry*> visited;
      table.forEach([&visited](Entry* one) { visited.push_back(one); });
      std::sort(visited.begin(), visited.end());
      std::vector<Entry*> expected = inside;
      std::sort(expected.begin(), expected.end());
      ASSERT_EQ(visited, expected);
    }
    for (Entry* const entry : inside) table.erase(entry);
    EXPECT_EQ(table.size(), 0u);
    EXPECT_EQ(table.find(0, [](const Entry&) { return true; }), nullptr);
  }
}

TEST(Slabs, GiveEachRecordRoomOfItsOwnAsNew) {
  framework::Slabs<Entry, &Entry::link> slabs;
  for (int round = 0; round < 2; ++round) {
    std::vector<Entry*> made;
    for (int n = 0; n < 3000; ++n) {
      made.push_back(slabs.make());
      EXPECT_EQ(made.back()->name, 0);
      EXPECT_EQ(made.back()->link, nullptr);
      made.back()->name = n + 1;
      if (n % 3 != 2) continue;
      slabs.destroy(made[made.size() - 2]);
      made.erase(made.end() - 2);
    }
    std::sort(made.begin(), made.end());
    EXPECT_EQ(std::adjacent_find(made.begin(), made.end()), made.end());
    for (Entry* const entry : made) slabs.destroy(entry);
  }
}

}  // namespace

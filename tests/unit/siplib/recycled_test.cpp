#include "siplib/recycled.h"

#include <gtest/gtest.h>

#include <memory>
#include <new>
#include <thread>
#include <vector>

namespace {

using siplib::kRecycles;
using siplib::Scratch;

struct Block final : siplib::Recycled<Block, 2> {
  char room[1000];
};

TEST(Recycled, ABlockThatWasGivenUpIsTheNextOne) {
  auto first = std::make_unique<Block>();
  const void* const place = first.get();
  first.reset();
  const auto second = std::make_unique<Block>();
  EXPECT_EQ(kRecycles, place == second.get());
  const std::unique_ptr<Block> third(new (std::nothrow) Block);
  EXPECT_NE(second.get(), third.get());
}

TEST(Recycled, MoreThanAreKeptGoBackAndOtherThreadsMayGive) {
  std::vector<std::unique_ptr<Block>> many;
  for (int i = 0; i < 10; ++i) many.push_back(std::make_unique<Block>());
  std::thread([&] { many.clear(); }).join();
  for (int i = 0; i < 10; ++i) many.push_back(std::make_unique<Block>());
  many.clear();
}

TEST(Scratch, BeginsEmptyWhateverTheLastOneHeld) {
  { Scratch text(std::string(1000, 'x')); }
  { Scratch text(std::string(100000, 'x')); }
  const Scratch text;
  EXPECT_TRUE(text.empty());
  EXPECT_LE(text.capacity(), 4096u) << "an unusually large one is not kept";
}

TEST(Scratch, ManyAtOnceDoNotDisturbEachOther) {
  std::vector<std::unique_ptr<Scratch>> texts;
  for (int i = 0; i < 100; ++i) texts.push_back(std::make_unique<Scratch>(std::to_string(i)));
  for (int i = 0; i < 100; ++i) EXPECT_EQ(std::to_string(i), *texts[static_cast<std::size_t>(i)]);
}

TEST(Scratch, HasRoomOfItsOwnAfterItsThreadHasGivenUpWhatItKept) {
  static bool own_room = false;
  struct Late {
    ~Late() {
      std::string other;
      other.reserve(512);
      const Scratch text("late");
      own_room = text == "late" && text.data() != other.data();
    }
  };
  std::thread([] {
    static thread_local const Late ends_last;
    static_cast<void>(&ends_last);
    const Scratch first_use;
  }).join();
  EXPECT_TRUE(own_room);
}

TEST(Scratch, IsAStringToEveryone) {
  Scratch text;
  text = "one";
  text.append(" two");
  std::string& as_string = text;
  EXPECT_EQ("one two", as_string);
  as_string = std::string(600, 'y');
  EXPECT_EQ(600u, text.size());
}

}  // namespace

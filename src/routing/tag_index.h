// Which of the stored feature tags stand in a text, however many are stored.
//
// The tags form a tree of common beginnings without nodes of one branch (a Patricia tree), and a hash table leads into
// it: for each position of the text the longest stored beginning is found by a binary search over its length. A
// node's entry in the table is a beginning whose length, among those between its parent's and its own, is divisible by
// the highest power of two: the one length that such a binary search is sure to ask for. A text of n bytes costs
// n * log2(longest tag) look-ups, and one visit for each distinct tag that stands in it.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <string_view>
#include <vector>

#include "framework/bucket_table.h"
#include "framework/slabs.h"
#include "framework/text_hash.h"

/// Tags belong to clients, which are small numbers here. The bytes of a tag are not copied: they stay as and where they
/// are until the client's last use of the tag is removed. Loop thread only.
class TagIndex {
 public:
  TagIndex() = default;
  TagIndex(const TagIndex&) = delete;
  TagIndex& operator=(const TagIndex&) = delete;

  /// The same tag of the same client may be added several times, and counts as often.
  void add(std::string_view tag, std::uint32_t client);
  /// What was added.
  void remove(std::string_view tag, std::uint32_t client);
  /// Adds to counts[client], for each client, how many of its tags stand in `text`. An empty tag stands in every text.
  void count(std::string_view text, std::vector<std::size_t>& counts) const;

 private:
  /// A client's use of a tag.
  struct Use {
    const char* text = nullptr;  ///< the tag in the client's record
    std::uint32_t client = 0;
    std::uint32_t times = 0;
  };
  /// A beginning that several tags share, or a tag. A line of the cache: of a hundred thousand nodes few are near.
  struct alignas(64) Node {
    Use use;  ///< `text` is some tag that begins so, its first user's if it is one itself; `times` is 0 if it is none
    Node* parent = nullptr;
    Node* child = nullptr;
    Node* sibling = nullptr;
    std::uint32_t length = 0;  ///< of the beginning
    std::uint32_t hash = 0;    ///< of the first `handle` bytes
    std::uint32_t handle = 0;
    std::uint32_t more = 0;          ///< uses of further clients, in more_; 0 when there are none
    mutable std::uint32_t seen = 0;  ///< number of the search that visited it last
  };
  static_assert(sizeof(Node) == 64);

  /// A binary search that goes on.
  struct Lookup {
    std::size_t begin = 0;  ///< in the text
    std::size_t low = 0;
    std::size_t high = 0;
    std::size_t middle = 0;
    std::uint32_t hash = 0;
    const Node* first = nullptr;  ///< that has this hash
    unsigned hit_count = 0;
    std::array<const Node*, 24> hits{};  ///< one for each bit of a tag's length; by hash, to be compared at the end
    const Node* found = nullptr;         ///< what is to be visited next
  };
  /// So many go on together: each waits for memory most of its time, and they can wait at the same time. With a hundred
  /// thousand tags in a text that costs a third.
  static constexpr std::size_t kTogether = 64;

  /// The node with the longest handle that is a beginning of the text from `begin` on.
  Node* deepest(std::string_view text, std::size_t begin) const;
  /// For several, each in `found`: the longest beginning that stands there.
  void find_together(std::string_view text, Lookup* begin, Lookup* end) const;
  const Node* matching(std::string_view text, const Lookup& lookup) const;
  void aim(Lookup& lookup) const;
  Node* child_of(const Node& node, char byte) const;
  void set_handle(Node& node);
  Node* add_leaf(Node& parent, std::string_view tag);
  /// A node of `length` bytes between the node and its parent.
  Node* split(Node& node, std::size_t length);
  void use(Node& node, std::string_view tag, std::uint32_t client);
  /// The text that the node's use no longer has, null when the client goes on using the tag.
  const char* stop_using(Node& node, std::uint32_t client);
  /// Takes out a node that is no tag and has one child or none; gives its parent.
  Node* dissolve(Node& node);
  static void replace_child(Node& parent, const Node& old, Node* by);
  void visit(const Node& node, std::vector<std::size_t>& counts) const;

  mutable Node root_;  ///< the empty beginning, not in the table
  framework::Slabs<Node, &Node::sibling> slabs_;
  framework::BucketTable<Node> nodes_;
  std::deque<std::vector<Use>> more_{1};  ///< the first is nobody's
  std::vector<std::uint32_t> free_more_;
  std::array<std::uint32_t, 256> starts_{};  ///< tags by their first byte
  std::size_t longest_ = 0;                  ///< no tag is longer
  mutable framework::PieceHashes hashes_;    ///< of the text that is searched
  mutable std::uint32_t search_ = 0;
};

#include "routing/tag_index.h"

#include <algorithm>
#include <bit>
#include <cassert>
#include <cstring>

namespace {

/// The number above `low` and not above `high` that is divisible by the highest power of two.
std::size_t fattest(std::size_t low, std::size_t high) {
  const auto bits = std::bit_width(low ^ high) - 1;
  return high >> bits << bits;
}

std::size_t common(const char* a, const char* b, std::size_t from, std::size_t size) {
  return static_cast<std::size_t>(std::mismatch(a + from, a + size, b + from).first - a);
}

}  // namespace

// --- Changing -------------------------------------------------------------------------------------------------------

void TagIndex::add(std::string_view tag, std::uint32_t client) {
  if (tag.empty()) return use(root_, tag, client);
  ++starts_[static_cast<unsigned char>(tag.front())];
  longest_ = std::max(longest_, tag.size());
  hashes_.read(tag, tag.size());
  Node* node = deepest(tag, 0);
  std::size_t shared = common(node->use.text, tag.data(), 0, std::min<std::size_t>(node->length, tag.size()));
  if (shared == node->length && shared < tag.size()) {
    Node* const child = child_of(*node, tag[shared]);
    if (child == nullptr) return use(*add_leaf(*node, tag), tag, client);
    shared = common(child->use.text, tag.data(), shared, std::min<std::size_t>(child->length, tag.size()));
    node = child;
  }
  if (shared < node->length) node = split(*node, shared);
  if (shared < tag.size()) node = add_leaf(*node, tag);
  use(*node, tag, client);
}

void TagIndex::remove(std::string_view tag, std::uint32_t client) {
  Node* node = &root_;
  if (!tag.empty()) {
    --starts_[static_cast<unsigned char>(tag.front())];
    hashes_.read(tag, tag.size());
    node = deepest(tag, 0);
    assert(node->length == tag.size());
  }
  const char* const gone = stop_using(*node, client);
  if (gone == nullptr) return;
  if (node != &root_ && node->use.times == 0) {
    const bool leaf = node->child == nullptr;
    if (leaf || node->child->sibling == nullptr) node = dissolve(*node);
    // A beginning that only one tag is left to have is none that several share.
    if (leaf && node != &root_ && node->use.times == 0 && node->child->sibling == nullptr) node = dissolve(*node);
  }
  for (; node != &root_; node = node->parent) {
    if (node->use.text == gone) node->use.text = node->child->use.text;
  }
  if (nodes_.size() == 0) longest_ = 0;
}

TagIndex::Node* TagIndex::child_of(const Node& node, char byte) const {
  Node* child = node.child;
  while (child != nullptr && child->use.text[node.length] != byte) child = child->sibling;
  return child;
}

void TagIndex::set_handle(Node& node) {
  node.handle = static_cast<std::uint32_t>(fattest(node.parent->length, node.length));
  node.hash = static_cast<std::uint32_t>(framework::textHash({node.use.text, node.handle}));
  nodes_.insert(&node);
}

TagIndex::Node* TagIndex::add_leaf(Node& parent, std::string_view tag) {
  Node* const leaf = slabs_.make();
  leaf->use.text = tag.data();
  leaf->length = static_cast<std::uint32_t>(tag.size());
  leaf->parent = &parent;
  leaf->sibling = parent.child;
  parent.child = leaf;
  set_handle(*leaf);
  return leaf;
}

TagIndex::Node* TagIndex::split(Node& node, std::size_t length) {
  Node* const middle = slabs_.make();
  middle->use.text = node.use.text;
  middle->length = static_cast<std::uint32_t>(length);
  middle->parent = node.parent;
  replace_child(*node.parent, node, middle);
  nodes_.erase(&node);
  node.parent = middle;
  node.sibling = nullptr;
  middle->child = &node;
  set_handle(*middle);
  set_handle(node);
  return middle;
}

TagIndex::Node* TagIndex::dissolve(Node& node) {
  Node& parent = *node.parent;
  replace_child(parent, node, node.child);
  nodes_.erase(&node);
  if (Node* const child = node.child; child != nullptr) {
    nodes_.erase(child);
    child->parent = &parent;
    set_handle(*child);
  }
  slabs_.destroy(&node);
  return &parent;
}

void TagIndex::replace_child(Node& parent, const Node& old, Node* by) {
  Node** link = &parent.child;
  while (*link != &old) link = &(*link)->sibling;
  *link = by != nullptr ? by : old.sibling;
  if (by != nullptr) by->sibling = old.sibling;
}

void TagIndex::use(Node& node, std::string_view tag, std::uint32_t client) {
  if (node.use.times == 0) {
    node.use = {tag.data(), client, 1};
    return;
  }
  if (node.use.client == client) {
    ++node.use.times;
    return;
  }
  if (node.more == 0) {
    if (free_more_.empty()) {
      free_more_.push_back(static_cast<std::uint32_t>(more_.size()));
      more_.emplace_back();
    }
    node.more = free_more_.back();
    free_more_.pop_back();
  }
  std::vector<Use>& more = more_[node.more];
  const auto known =
      std::find_if(more.rbegin(), more.rend(), [client](const Use& use) { return use.client == client; });
  if (known != more.rend()) {
    ++known->times;
  } else {
    more.push_back({tag.data(), client, 1});
  }
}

const char* TagIndex::stop_using(Node& node, std::uint32_t client) {
  Use* use = &node.use;
  if (use->client != client) {
    std::vector<Use>& more = more_[node.more];
    use = &*std::find_if(more.begin(), more.end(), [client](const Use& one) { return one.client == client; });
  }
  if (--use->times > 0) return nullptr;
  const char* const gone = use->text;
  if (node.more != 0) {
    std::vector<Use>& more = more_[node.more];
    *use = more.back();
    more.pop_back();
    if (more.empty()) {
      more.shrink_to_fit();
      free_more_.push_back(node.more);
      node.more = 0;
    }
    if (free_more_.size() == more_.size() - 1) {  // all but nobody's
      more_.resize(1);
      free_more_ = {};
    }
  }
  return gone;
}

// --- Searching ------------------------------------------------------------------------------------------------------

void TagIndex::aim(Lookup& lookup) const {
  lookup.middle = fattest(lookup.low, lookup.high);
  lookup.hash = static_cast<std::uint32_t>(hashes_.of(lookup.begin, lookup.middle));
}

TagIndex::Node* TagIndex::deepest(std::string_view text, std::size_t begin) const {
  Lookup lookup{begin, 0, std::min(text.size() - begin, longest_)};
  Node* found = &root_;
  while (lookup.low < lookup.high) {
    aim(lookup);
    Node* const node = nodes_.find(lookup.hash, [&](const Node& one) {
      return one.handle == lookup.middle && std::memcmp(one.use.text, text.data() + begin, lookup.middle) == 0;
    });
    if (node != nullptr) {
      found = node;
      lookup.low = node->length;
    } else {
      lookup.high = lookup.middle - 1;
    }
  }
  return found;
}

void TagIndex::find_together(std::string_view text, Lookup* begin, Lookup* end) const {
  const auto each_open = [begin, end](auto act) {
    for (Lookup* lookup = begin; lookup != end; ++lookup) {
      if (lookup->low < lookup->high) act(*lookup);
    }
  };
  for (bool more = true; more;) {
    more = false;
    each_open([&](Lookup& lookup) {
      more = true;
      aim(lookup);
      nodes_.fetchBucket(lookup.hash);
    });
    each_open([&](Lookup& lookup) { lookup.first = nodes_.fetchEntry(lookup.hash); });
    each_open([&](Lookup& lookup) {
      const Node* node = lookup.first;
      if (node != nullptr && node->handle != lookup.middle) {
        node = nodes_.find(lookup.hash, [&lookup](const Node& one) { return one.handle == lookup.middle; });
      }
      if (node == nullptr) {
        lookup.high = lookup.middle - 1;
        return;
      }
      __builtin_prefetch(node->use.text);
      assert(lookup.hit_count < lookup.hits.size());
      lookup.hits[lookup.hit_count++] = node;
      lookup.low = node->length;
    });
  }
  for (Lookup* lookup = begin; lookup != end; ++lookup) lookup->found = matching(text, *lookup);
}

const TagIndex::Node* TagIndex::matching(std::string_view text, const Lookup& lookup) const {
  if (lookup.hit_count == 0) return &root_;
  const char* const from = text.data() + lookup.begin;
  const std::size_t left = text.size() - lookup.begin;
  const Node* node = lookup.hits[lookup.hit_count - 1];
  // Until here only hashes were compared; with a wrong hit all that came after it may be wrong.
  const bool right = std::all_of(lookup.hits.begin(), lookup.hits.begin() + lookup.hit_count, [from](const Node* hit) {
    return std::memcmp(hit->use.text, from, hit->handle) == 0;
  });
  if (!right) node = deepest(text, lookup.begin);
  // Only its handle is known to stand here, and all that its parent is.
  if (node != &root_ && (node->length > left || std::memcmp(node->use.text, from, node->length) != 0))
    node = node->parent;
  return node;
}

void TagIndex::visit(const Node& node, std::vector<std::size_t>& counts) const {
  node.seen = search_;
  if (node.use.times == 0) return;
  counts[node.use.client] += node.use.times;
  if (node.more == 0) return;
  for (const Use& use : more_[node.more]) counts[use.client] += use.times;
}

void TagIndex::count(std::string_view text, std::vector<std::size_t>& counts) const {
  if (++search_ == 0) {
    nodes_.forEach([](const Node* node) { node->seen = 0; });
    search_ = 1;
  }
  visit(root_, counts);
  if (nodes_.size() == 0) return;
  hashes_.read(text, longest_);
  std::array<Lookup, kTogether> lookups;
  for (std::size_t begin = 0; begin < text.size();) {
    std::size_t open = 0;
    for (; begin < text.size() && open < lookups.size(); ++begin) {
      if (starts_[static_cast<unsigned char>(text[begin])] == 0) continue;
      Lookup& lookup = lookups[open++];
      lookup.begin = begin;
      lookup.low = 0;
      lookup.high = std::min(text.size() - begin, longest_);
      lookup.hit_count = 0;
    }
    find_together(text, lookups.data(), lookups.data() + open);
    for (bool more = true; more;) {
      more = false;
      for (std::size_t i = 0; i < open; ++i) {
        const Node*& node = lookups[i].found;
        if (node->seen == search_) continue;
        visit(*node, counts);
        node = node->parent;
        __builtin_prefetch(node);
        more = true;
      }
    }
  }
}

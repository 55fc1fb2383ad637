// Room for many small things of one kind, side by side: neighbours in memory are those that were made one after the
// other.
#pragma once

#include <cstddef>
#include <memory>
#include <vector>

namespace framework {

/// `T` is a plain record whose member `Link` is the slabs' while the record is not in use. The memory goes back when
/// the last record does. Records that are in use when the slabs are destroyed go with them.
template <class T, T* T::*Link>
class Slabs {
 public:
  /// A record as it is initialised by default.
  T* make() {
    if (free_ == nullptr) extend();
    T* const made = free_;
    free_ = made->*Link;
    *made = T();
    ++used_;
    return made;
  }

  void destroy(T* record) {
    record->*Link = free_;
    free_ = record;
    if (--used_ > 0) return;
    free_ = nullptr;
    slabs_.clear();
  }

 private:
  static constexpr std::size_t kPerSlab = 1024;

  void extend() {
    slabs_.push_back(std::make_unique<T[]>(kPerSlab));
    T* const slab = slabs_.back().get();
    for (std::size_t i = kPerSlab; i > 0; --i) {
      slab[i - 1].*Link = free_;
      free_ = &slab[i - 1];
    }
  }

  std::vector<std::unique_ptr<T[]>> slabs_;
  T* free_ = nullptr;
  std::size_t used_ = 0;
};

}  // namespace framework

// SPDX-License-Identifier: Apache-2.0

#include "bench/peers/hash_map_peers.h"

#include <new>
#include <unordered_map>

#ifdef KDZK_BENCH_ABSL
#include <absl/container/flat_hash_map.h>
#endif
#ifdef KDZK_BENCH_BOOST
#include <boost/unordered/unordered_flat_map.hpp>
#endif

namespace kdzk_bench {
namespace {

struct InlineHash {
  using is_avalanching = void;  // no map need mix it once more
  template <class Key>
  size_t operator()(Key key) const {
    return hash_of(key);
  }
};

// Set when the program starts, so that no compiler sees through it.
template <class Key>
HashFunction function = hash_function<Key>();

struct CalledHash {
  using is_avalanching = void;
  template <class Key>
  size_t operator()(const Key& key) const {
    return function<Key>(&key, sizeof key, 0);
  }
};

template <class T>
struct FromArena {
  using value_type = T;
  Arena* arena;

  explicit FromArena(Arena* from) : arena(from) {}
  template <class U>
  FromArena(const FromArena<U>& other) : arena(other.arena) {}  // NOLINT: allocators convert
  T* allocate(size_t n) { return static_cast<T*>(arena->take(n * sizeof(T), n == 1 ? alignof(T) : 64)); }
  void deallocate(T*, size_t) {}
  bool operator==(const FromArena&) const = default;
};

template <class Key, class Hash, template <class...> class Map>
class MapPeer : public HashMap<Key> {
 public:
  explicit MapPeer(uint32_t build_rows) : arena_(uint64_t{build_rows} * 64 + (1 << 16)) {}

  void build(const Key* keys, uint32_t n) override {
    arena_.reset();  // and the map before goes without a destructor: it owns nothing else
    map_ = new (arena_.take(sizeof(Rows), 64)) Rows(FromArena<std::pair<const Key, uint32_t>>(&arena_));
    map_->reserve(n);
    for (uint32_t row = 0; row < n; row++) map_->emplace(keys[row], row);
  }

  uint64_t probe(const Key* keys, uint32_t n, RowPair* pairs) const override {
    const RowPair* const first = pairs;
    for (uint32_t row = 0; row < n; row++) {
      const auto found = map_->find(keys[row]);
      if (found != map_->end()) *pairs++ = {row, found->second};
    }
    return static_cast<uint64_t>(pairs - first);
  }

 private:
  using Rows = Map<Key, uint32_t, Hash, std::equal_to<Key>, FromArena<std::pair<const Key, uint32_t>>>;
  Arena arena_;
  Rows* map_ = nullptr;
};

template <class Key, class Hash>
std::vector<std::pair<std::string, std::shared_ptr<HashMap<Key>>>> maps(uint32_t build_rows) {
  return {
#ifdef KDZK_BENCH_ABSL
      {"absl_flat_hash_map", std::make_shared<MapPeer<Key, Hash, absl::flat_hash_map>>(build_rows)},
#endif
#ifdef KDZK_BENCH_BOOST
      {"boost_unordered_flat_map", std::make_shared<MapPeer<Key, Hash, boost::unordered_flat_map>>(build_rows)},
#endif
      {"std_unordered_multimap", std::make_shared<MapPeer<Key, Hash, std::unordered_multimap>>(build_rows)},
  };
}

}  // namespace

template <class Key>
std::vector<std::pair<std::string, std::shared_ptr<HashMap<Key>>>> hash_maps(uint32_t build_rows, bool inlined) {
  return inlined ? maps<Key, InlineHash>(build_rows) : maps<Key, CalledHash>(build_rows);
}

template std::vector<std::pair<std::string, std::shared_ptr<HashMap<uint32_t>>>> hash_maps<uint32_t>(uint32_t, bool);
template std::vector<std::pair<std::string, std::shared_ptr<HashMap<uint64_t>>>> hash_maps<uint64_t>(uint32_t, bool);

}  // namespace kdzk_bench

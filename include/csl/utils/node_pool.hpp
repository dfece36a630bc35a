// csl::node_arena and csl::node_allocator: fixed-size slots for the nodes
// of the catalogue's indexes.
//
// Every catalogued capture costs one node in each of several containers.
// Allocated one by one from the C library, each node also pays the
// allocator's header and rounding (a 56-byte node takes 64 bytes, a 64-byte
// one 80). The arena carves nodes of each size from 64 KiB blocks instead
// and recycles freed slots through a free list per size; blocks go back to
// the system only with the arena. Requests of more than one object (hash
// bucket arrays) and requests larger than the largest slot go to the C++
// heap as usual.
//
// Contract: an allocator built from an arena allocates from it; the
// default-constructed allocator (and every copy of a container, see
// select_on_container_copy_construction) uses the C++ heap, so that a copy
// of an index never shares the arena of the index it was copied from.
//
// Thread-safety: none. An arena serves the containers of one owner, which
// allocates and frees only while it holds its own exclusive lock.
#pragma once

#include <cstddef>
#include <memory>
#include <new>
#include <type_traits>
#include <vector>

namespace csl {

class node_arena {
 public:
  static constexpr size_t GRANULE = 8;
  static constexpr size_t LARGEST_SLOT = 128;
  static constexpr size_t BLOCK_SIZE = 64 * 1024;

  node_arena() = default;
  node_arena(const node_arena&) = delete;
  node_arena& operator=(const node_arena&) = delete;
  ~node_arena() {
    for (void* block : _blocks) ::operator delete(block);
  }

  static constexpr bool serves(size_t bytes) { return bytes <= LARGEST_SLOT; }

  void* allocate(size_t bytes) {
    size_class& c = _classes[index_of(bytes)];
    if (c.free_list != nullptr) {
      free_slot* slot = c.free_list;
      c.free_list = slot->next;
      return slot;
    }
    const size_t slot_size = (index_of(bytes) + 1) * GRANULE;
    if (c.next == nullptr || c.next + slot_size > c.end) {
      _blocks.reserve(_blocks.size() + 1);
      char* block = static_cast<char*>(::operator new(BLOCK_SIZE));
      _blocks.push_back(block);
      c.next = block;
      c.end = block + BLOCK_SIZE;
    }
    void* slot = c.next;
    c.next += slot_size;
    return slot;
  }

  void deallocate(void* p, size_t bytes) noexcept {
    size_class& c = _classes[index_of(bytes)];
    auto* slot = static_cast<free_slot*>(p);
    slot->next = c.free_list;
    c.free_list = slot;
  }

 private:
  struct free_slot {
    free_slot* next;
  };
  struct size_class {
    free_slot* free_list = nullptr;
    char* next = nullptr;
    char* end = nullptr;
  };
  static constexpr size_t index_of(size_t bytes) { return (bytes + GRANULE - 1) / GRANULE - 1; }

  size_class _classes[LARGEST_SLOT / GRANULE];
  std::vector<void*> _blocks;
};

template <typename T>
class node_allocator {
 public:
  using value_type = T;
  using propagate_on_container_move_assignment = std::true_type;
  using propagate_on_container_swap = std::true_type;

  node_allocator() noexcept = default;
  explicit node_allocator(node_arena* arena) noexcept : _arena(arena) {}
  template <typename U>
  node_allocator(const node_allocator<U>& other) noexcept : _arena(other.arena()) {}

  T* allocate(size_t n) {
    if (_arena != nullptr && n == 1 && node_arena::serves(sizeof(T))) {
      static_assert(alignof(T) <= node_arena::GRANULE, "node alignment above the arena's granule");
      return static_cast<T*>(_arena->allocate(sizeof(T)));
    }
    return std::allocator<T>().allocate(n);
  }
  void deallocate(T* p, size_t n) noexcept {
    if (_arena != nullptr && n == 1 && node_arena::serves(sizeof(T))) {
      _arena->deallocate(p, sizeof(T));
    } else {
      std::allocator<T>().deallocate(p, n);
    }
  }

  node_allocator select_on_container_copy_construction() const { return node_allocator(); }

  node_arena* arena() const noexcept { return _arena; }

  template <typename U>
  bool operator==(const node_allocator<U>& other) const noexcept {
    return _arena == other.arena();
  }

 private:
  node_arena* _arena = nullptr;
};

}  // namespace csl

// A map from a nonzero 32-bit key to a 32-bit value that readers may read without its owner's
// lock (internal). Writers hold the owner's lock for writing; a reader that took no lock keeps
// what find() said only when the lock's write count shows no writer meanwhile
// (RwLock::read_begin / read_valid), since a find that overlaps a change may see any mix of
// old and new slots. Every slot is an atomic, stored with release and read with acquire, as
// that check needs; no slot array a reader may still hold is freed while the map lives: a map
// that grows keeps its old arrays (together they are smaller than the current one) until
// release().
//
// Open addressing with linear probing, at most half full, and deletion by shifting the
// following slots back (no tombstones, so churn never degrades it).
#ifndef LIBPMX_SEQ_MAP_HPP
#define LIBPMX_SEQ_MAP_HPP

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <new>

#include "libpmx_hash_table.hpp"

namespace pmx
{

// Murmur3's finaliser: every key bit reaches the low bits that pick a bucket.
inline uint32_t mix32(uint32_t h)
{
    h ^= h >> 16;
    h *= 0x85ebca6bu;
    h ^= h >> 13;
    h *= 0xc2b2ae35u;
    return h ^ (h >> 16);
}

// Alloc: the caches' allocation policy (tests substitute one that fails on demand).
template <class Alloc = MallocAlloc> class SeqMap
{
public:
    SeqMap() = default;
    SeqMap(const SeqMap &) = delete;
    SeqMap &operator=(const SeqMap &) = delete;
    // No destructor: the owner calls release() (the library's maps outlive the threads at exit).

    // Lock-free read: the value of key, or false. Under a racing change the answer may be wrong
    // and the caller must validate it.
    bool find(uint32_t key, uint32_t *value) const
    {
        const Array *a = cur_.load(std::memory_order_acquire);
        if (a == nullptr || key == 0) return false;
        for (uint32_t i = mix32(key) & a->mask, n = 0; n <= a->mask; ++n, i = (i + 1) & a->mask) {
            const uint32_t k = a->slots[i].key.load(std::memory_order_acquire);
            if (k == key) {
                *value = a->slots[i].value.load(std::memory_order_acquire);
                return true;
            }
            if (k == 0) return false;
        }
        return false;
    }

    // Writers (the owner's write lock held). set: false when the map could not grow.
    bool set(uint32_t key, uint32_t value)
    {
        if (key == 0) return true;
        Array *a = cur();
        if (a != nullptr) {
            const uint32_t i = slot_of(a, key);
            if (load(a->slots[i].key) == key) {
                store(a->slots[i].value, value);
                return true;
            }
        }
        if (a == nullptr || 2 * (size_ + 1) > a->mask + 1) {
            if (!grow()) return false;
            a = cur();
        }
        const uint32_t i = slot_of(a, key);
        store(a->slots[i].value, value);
        store(a->slots[i].key, key);
        ++size_;
        return true;
    }

    void erase(uint32_t key)
    {
        Array *a = cur();
        if (a == nullptr || key == 0) return;
        uint32_t hole = slot_of(a, key);
        if (load(a->slots[hole].key) != key) return;
        // Move back each following key of the run whose home does not lie after the hole.
        for (uint32_t j = (hole + 1) & a->mask;; j = (j + 1) & a->mask) {
            const uint32_t k = load(a->slots[j].key);
            if (k == 0) break;
            const uint32_t home = mix32(k) & a->mask;
            const bool stays = hole < j ? (home > hole && home <= j) : (home > hole || home <= j);
            if (stays) continue;
            store(a->slots[hole].value, load(a->slots[j].value));
            store(a->slots[hole].key, k);
            hole = j;
        }
        store(a->slots[hole].key, 0u);
        --size_;
    }

    // Forgets every key; the slot array stays, for readers that may hold it.
    void clear()
    {
        if (Array *a = cur())
            for (uint32_t i = 0; i <= a->mask; ++i) store(a->slots[i].key, 0u);
        size_ = 0;
    }

    // Frees every array: only for a map that no reader can reach any more.
    void release()
    {
        Array *a = cur();
        while (a != nullptr) {
            Array *older = a->older;
            Alloc::release(a);
            a = older;
        }
        cur_.store(nullptr, std::memory_order_relaxed);
        size_ = 0;
    }

    uint32_t size() const { return size_; }
    // Slot bytes held, old arrays included.
    size_t bytes() const
    {
        size_t n = 0;
        for (const Array *a = cur_.load(std::memory_order_relaxed); a != nullptr; a = a->older) n += bytes_for(a->mask + 1);
        return n;
    }

private:
    struct Slot {
        std::atomic<uint32_t> key;
        std::atomic<uint32_t> value;
    };
    struct Array {
        uint32_t mask;
        Array *older; // the array this one replaced, kept for readers that may still hold it
        Slot *slots;  // follows the header in the same allocation
    };

    static constexpr uint32_t kFirstSlots = 64;

    static uint32_t load(const std::atomic<uint32_t> &a) { return a.load(std::memory_order_relaxed); }
    // Release: a reader that sees this store also sees the owner's write count move.
    static void store(std::atomic<uint32_t> &a, uint32_t v) { a.store(v, std::memory_order_release); }
    static size_t bytes_for(uint32_t slots) { return sizeof(Array) + size_t{slots} * sizeof(Slot); }
    Array *cur() const { return cur_.load(std::memory_order_relaxed); }

    // The slot that holds key, or the empty slot where it would go.
    static uint32_t slot_of(const Array *a, uint32_t key)
    {
        uint32_t i = mix32(key) & a->mask;
        for (uint32_t k = load(a->slots[i].key); k != 0 && k != key; k = load(a->slots[i].key)) i = (i + 1) & a->mask;
        return i;
    }

    // A new array of twice the slots, filled and then published; the old one stays reachable.
    bool grow()
    {
        Array *old = cur();
        const uint32_t slots = old == nullptr ? kFirstSlots : 2 * (old->mask + 1);
        if (slots == 0 || slots > (SIZE_MAX - sizeof(Array)) / sizeof(Slot)) return false;
        void *mem = Alloc::alloc(bytes_for(slots));
        if (mem == nullptr) return false;
        auto *a = new (mem) Array{slots - 1, old, nullptr};
        a->slots = static_cast<Slot *>(static_cast<void *>(static_cast<char *>(mem) + sizeof(Array)));
        for (uint32_t i = 0; i < slots; ++i) new (&a->slots[i]) Slot{{0u}, {0u}};
        if (old != nullptr)
            for (uint32_t i = 0; i <= old->mask; ++i)
                if (const uint32_t k = load(old->slots[i].key)) {
                    const uint32_t j = slot_of(a, k);
                    store(a->slots[j].value, load(old->slots[i].value));
                    store(a->slots[j].key, k);
                }
        cur_.store(a, std::memory_order_release);
        return true;
    }

    std::atomic<Array *> cur_{nullptr};
    uint32_t size_ = 0;
};

} // namespace pmx

#endif // LIBPMX_SEQ_MAP_HPP

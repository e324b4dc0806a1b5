// The keyed cache template behind every cache family (internal header).
//
// An open-addressing set of pointers to heap records over a libpmx_hash_t header: 2 state bits a
// bucket, triangular probing, tombstones on remove, in-place rehash at a load factor of 0.77.
// A family supplies a Traits type:
//   using Rec = ...;                                 the entry record
//   static const void *key_bytes(const void *key);   bytes that are hashed
//   static constexpr uint32_t key_len;               how many
//   static bool key_equal(const Rec *cached, const void *key);
//   static void refresh(Rec *cached, const Rec *offered);    create() on a cached key
//   static void copy_new(Rec *fresh, const Rec *offered);    create() of a new record
//   static int compare(const Rec *, const Rec *);    optional: order of the sorted walk, with
//   static constexpr const char *sort_failed;        the line its sorted walk prints without memory
//   static uint32_t hash(const void *key);           optional: replaces lookup2 of the key bytes
//                                                    (cache families keep lookup2: their unsorted
//                                                    walks show its bucket order)
//   static constexpr double max_load;                optional: the load that triggers a rehash,
//                                                    instead of 0.77
// LeadingKey and the refresh policies below give the common cases.
#ifndef LIBPMX_HASH_TABLE_HPP
#define LIBPMX_HASH_TABLE_HPP

#include <bit>
#include <concepts>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <type_traits>

#include "libpmx_errno.h"
#include "libpmx_hash.h"

namespace pmx {

// Bob Jenkins' lookup2 (1996) over `len` bytes read little-endian, as the caches hash keys.
[[gnu::always_inline]] inline void lookup2_mix(uint32_t &a, uint32_t &b, uint32_t &c)
{
    a -= b; a -= c; a ^= (c >> 13);
    b -= c; b -= a; b ^= (a << 8);
    c -= a; c -= b; c ^= (b >> 13);
    a -= b; a -= c; a ^= (c >> 12);
    b -= c; b -= a; b ^= (a << 16);
    c -= a; c -= b; c ^= (b >> 5);
    a -= b; a -= c; a ^= (c >> 3);
    b -= c; b -= a; b ^= (a << 10);
    c -= a; c -= b; c ^= (b >> 15);
}

// Four key bytes as a little-endian word; one load on a little-endian host.
[[gnu::always_inline]] inline uint32_t lookup2_word(const uint8_t *k)
{
    if constexpr (std::endian::native == std::endian::little) {
        uint32_t w;
        std::memcpy(&w, k, sizeof w);
        return w;
    } else {
        return uint32_t(k[0]) | uint32_t(k[1]) << 8 | uint32_t(k[2]) << 16 | uint32_t(k[3]) << 24;
    }
}

// Inlined so that a fixed key length folds the tail switch and the block loop away. The tail
// adds whole words where it can: adding a word equals adding its four shifted bytes.
[[gnu::always_inline]] inline uint32_t lookup2(const void *key, uint32_t length, uint32_t initval)
{
    const auto *k = static_cast<const uint8_t *>(key);
    uint32_t a = 0x9e3779b9u, b = 0x9e3779b9u, c = initval;
    uint32_t len = length;
    while (len >= 12) {
        a += lookup2_word(k);
        b += lookup2_word(k + 4);
        c += lookup2_word(k + 8);
        lookup2_mix(a, b, c);
        k += 12;
        len -= 12;
    }
    c += length;
    if (len >= 4) {
        a += lookup2_word(k);
        if (len >= 8) b += lookup2_word(k + 4);
    }
    switch (len) { // the low byte of c is taken by the length
    case 11: c += uint32_t(k[10]) << 24; [[fallthrough]];
    case 10: c += uint32_t(k[9]) << 16; [[fallthrough]];
    case 9: c += uint32_t(k[8]) << 8; break;
    case 7: b += uint32_t(k[6]) << 16; [[fallthrough]];
    case 6: b += uint32_t(k[5]) << 8; [[fallthrough]];
    case 5: b += k[4]; break;
    case 3: a += uint32_t(k[2]) << 16; [[fallthrough]];
    case 2: a += uint32_t(k[1]) << 8; [[fallthrough]];
    case 1: a += k[0]; break;
    default: break;
    }
    lookup2_mix(a, b, c);
    return c;
}

// Allocation policy; tests substitute one that fails on demand.
struct MallocAlloc {
    static void *alloc(size_t n) { return std::malloc(n); }
    static void *resize(void *p, size_t n) { return std::realloc(p, n); }
    static void release(void *p) { std::free(p); }
};

// Key = the first K bytes of the record, compared byte-wise.
template <class R, uint32_t K> struct LeadingKey {
    using Rec = R;
    static_assert(K <= sizeof(R), "key longer than the record");
    static constexpr uint32_t key_len = K;
    static const void *key_bytes(const void *key) { return key; }
    static bool key_equal(const Rec *cached, const void *key)
    {
        return std::memcmp(cached, key, K) == 0;
    }
    static void copy_new(Rec *fresh, const Rec *offered) { std::memcpy(fresh, offered, sizeof(Rec)); }
};

// create() on a cached key overwrites the whole record with the offered one.
template <class R> struct RefreshWhole {
    static void refresh(R *cached, const R *offered) { std::memcpy(cached, offered, sizeof(R)); }
};
// create() on a cached key leaves the record as it is.
template <class R> struct RefreshNone {
    static void refresh(R *, const R *) {}
};

template <class Traits> concept SortedTraits = requires(const typename Traits::Rec *r) {
    { Traits::compare(r, r) } -> std::convertible_to<int>;
};

// Three-way comparison helpers for the sorted walks.
inline int cmp_signed(uint32_t a, uint32_t b)
{
    auto x = static_cast<int32_t>(a), y = static_cast<int32_t>(b);
    return (x > y) - (x < y);
}
inline int cmp_unsigned(uint32_t a, uint32_t b) { return (a > b) - (a < b); }

template <class Traits, class Alloc = MallocAlloc> class KeyedTable {
public:
    using Rec = typename Traits::Rec;

    // A new zeroed header: no buckets yet.
    static libpmx_hash_t *new_header()
    {
        auto *h = static_cast<libpmx_hash_t *>(Alloc::alloc(sizeof(libpmx_hash_t)));
        if (h != nullptr) std::memset(h, 0, sizeof *h);
        return h;
    }

    explicit KeyedTable(libpmx_hash_t *h) : h_(h) {}

    static uint32_t threshold(uint32_t n_buckets)
    {
        if constexpr (requires { Traits::max_load; })
            return static_cast<uint32_t>(n_buckets * Traits::max_load + 0.5);
        else
            return static_cast<uint32_t>(n_buckets * 0.77 + 0.5);
    }

    Rec *find(const void *key) const
    {
        const uint32_t n = h_->n_buckets;
        if (key == nullptr || n == 0) return nullptr;
        const uint32_t *const flags = h_->flags;
        void *const *const keys = h_->keys;
        const uint32_t mask = n - 1;
        uint32_t i = hash_of(key) & mask;
        const uint32_t last = i;
        uint32_t step = 0;
        for (;;) {
            const uint32_t st = state(flags, i);
            auto *rec = static_cast<Rec *>(keys[i]);
            if (st == kLive && Traits::key_equal(rec, key)) [[likely]]
                return rec;
            if (st & kEmpty) return nullptr;
            i = (i + ++step) & mask;
            if (i == last) return nullptr;
        }
    }

    // Never replaces a record already cached under the same key; always 0.
    int insert(Rec *rec)
    {
        if (rec == nullptr) return 0;
        if (h_->n_occupied >= h_->upper_bound) {
            const uint32_t want = h_->n_buckets > (h_->size << 1) ? h_->n_buckets - 1 : h_->n_buckets + 1;
            if (!rehash(want)) return 0;
        }
        const uint32_t n = h_->n_buckets;
        const uint32_t mask = n - 1;
        uint32_t i = hash_of(rec) & mask;
        const uint32_t last = i;
        uint32_t step = 0;
        uint32_t tomb = n; // first deleted bucket on the way, n when none
        uint32_t slot = n;
        for (;;) {
            const uint32_t st = state(h_->flags, i);
            if (st & kEmpty) {
                slot = i;
                break;
            }
            if (st == kLive) {
                if (Traits::key_equal(rec_at(i), rec)) return 0;
            } else if (tomb == n) {
                tomb = i;
            }
            i = (i + ++step) & mask;
            if (i == last) break;
        }
        if (tomb != n) {
            slot = tomb;
        } else if (slot == n) {
            return 0; // no free bucket on the probe sequence
        } else {
            ++h_->n_occupied;
        }
        h_->keys[slot] = rec;
        set_live(h_->flags, slot);
        ++h_->size;
        return 0;
    }

    // Marks the record's bucket deleted; the record is not freed. 0, or -7 when absent.
    int remove(const void *key)
    {
        if (key == nullptr || h_->n_buckets == 0) return LIBPMX_E_NOT_FOUND;
        const uint32_t mask = h_->n_buckets - 1;
        uint32_t i = hash_of(key) & mask;
        const uint32_t last = i;
        uint32_t step = 0;
        for (;;) {
            const uint32_t st = state(h_->flags, i);
            if (st & kEmpty) return LIBPMX_E_NOT_FOUND;
            if (st == kLive && Traits::key_equal(rec_at(i), key)) {
                set_deleted(h_->flags, i);
                --h_->size;
                return 0;
            }
            i = (i + ++step) & mask;
            if (i == last) return LIBPMX_E_NOT_FOUND;
        }
    }

    int traverse(libpmx_hash_op_t op, void *arg) const
    {
        return traverse_range(op, 0, h_->n_buckets, arg);
    }

    // Visits buckets start .. min(start + count, n_buckets) - 1.
    int traverse_range(libpmx_hash_op_t op, uint32_t start, uint32_t count, void *arg) const
    {
        const uint32_t n = h_->n_buckets;
        if (op == nullptr || start >= n || count == 0) return 0;
        const uint32_t end = count > n - start ? n : start + count;
        for (uint32_t i = start; i < end; ++i) {
            if (state(h_->flags, i) != kLive) continue;
            if (int r = op(rec_at(i), arg); r != 0) return r;
        }
        return 0;
    }

    uint32_t size() const { return h_->size; }

    // Find by the offered record's key: refresh a cached record, or cache a copy.
    Rec *cache_create(Rec **out, const Rec *offered)
    {
        Rec *rec = find(offered);
        if (rec != nullptr) {
            Traits::refresh(rec, offered);
        } else {
            rec = static_cast<Rec *>(Alloc::alloc(sizeof(Rec)));
            if (rec != nullptr) {
                Traits::copy_new(rec, offered);
                insert(rec);
            }
        }
        if (out != nullptr) *out = rec;
        return rec;
    }

    void cache_destroy(Rec *rec)
    {
        if (rec == nullptr) return;
        remove(rec);
        Alloc::release(rec);
    }

    // Walks in bucket order, or in the family's order when sorted is set and it has one.
    int walk(libpmx_hash_op_t op, void *arg, bool sorted) const
    {
        if constexpr (SortedTraits<Traits>) {
            if (sorted) return sorted_walk(op, arg);
        }
        return traverse(op, arg);
    }

    // Rehash to hold `requested` buckets (rounded up to a power of two, at least 4).
    // False only when memory ran out; the table is then unchanged.
    bool rehash(uint32_t requested)
    {
        uint32_t nb = round_up_pow2(requested);
        if (nb < 4) nb = 4;
        const uint32_t bound = threshold(nb);
        if (h_->size >= bound) return true; // requested size too small: nothing to do
        const size_t fbytes = flag_bytes(nb);
        auto *nf = static_cast<uint32_t *>(Alloc::alloc(fbytes));
        if (nf == nullptr) return false;
        std::memset(nf, 0xAA, fbytes);
        const uint32_t old_n = h_->n_buckets;
        if (old_n < nb) {
            auto *nk = static_cast<void **>(Alloc::resize(h_->keys, nb * sizeof(void *)));
            if (nk == nullptr) {
                Alloc::release(nf);
                return false;
            }
            h_->keys = nk;
        }
        const uint32_t nmask = nb - 1;
        for (uint32_t j = 0; j < old_n; ++j) {
            if (state(h_->flags, j) != kLive) continue;
            void *cur = h_->keys[j];
            set_deleted(h_->flags, j);
            for (;;) { // place cur; a displaced live entry is placed next
                uint32_t i = hash_of(cur) & nmask;
                uint32_t step = 0;
                while (!(state(nf, i) & kEmpty)) i = (i + ++step) & nmask;
                clear_empty(nf, i);
                if (i < old_n && state(h_->flags, i) == kLive) {
                    void *tmp = h_->keys[i];
                    h_->keys[i] = cur;
                    cur = tmp;
                    set_deleted(h_->flags, i);
                } else {
                    h_->keys[i] = cur;
                    break;
                }
            }
        }
        if (old_n > nb) {
            auto *nk = static_cast<void **>(Alloc::resize(h_->keys, nb * sizeof(void *)));
            if (nk != nullptr) h_->keys = nk; // shrinking in place cannot lose the entries
        }
        Alloc::release(h_->flags);
        h_->flags = nf;
        h_->n_buckets = nb;
        h_->n_occupied = h_->size;
        h_->upper_bound = bound;
        return true;
    }

private:
    static constexpr uint32_t kEmpty = 2, kDeleted = 1, kLive = 0;

    static uint32_t state(const uint32_t *f, uint32_t i) { return (f[i >> 4] >> ((i & 0xfU) << 1)) & 3U; }
    static void set_live(uint32_t *f, uint32_t i) { f[i >> 4] &= ~(3U << ((i & 0xfU) << 1)); }
    static void set_deleted(uint32_t *f, uint32_t i) { f[i >> 4] |= 1U << ((i & 0xfU) << 1); }
    static void clear_empty(uint32_t *f, uint32_t i) { f[i >> 4] &= ~(2U << ((i & 0xfU) << 1)); }
    static size_t flag_bytes(uint32_t n) { return n < 16 ? 4 : n / 4; }
    static uint32_t round_up_pow2(uint32_t x)
    {
        --x;
        x |= x >> 1; x |= x >> 2; x |= x >> 4; x |= x >> 8; x |= x >> 16;
        return ++x;
    }
    [[gnu::always_inline]] static uint32_t hash_of(const void *key)
    {
        if constexpr (requires { Traits::hash(key); })
            return Traits::hash(key);
        else
            return lookup2(Traits::key_bytes(key), Traits::key_len, 0);
    }
    Rec *rec_at(uint32_t i) const { return static_cast<Rec *>(h_->keys[i]); }

    int sorted_walk(libpmx_hash_op_t op, void *arg) const
    {
        uint32_t n = 0;
        traverse(&count_one, &n);
        if (n < 2) return traverse(op, arg);
        auto **arr = static_cast<Rec **>(Alloc::alloc(n * sizeof(Rec *)));
        if (arr == nullptr) {
            std::fputs(Traits::sort_failed, stdout);
            return traverse(op, arg);
        }
        std::memset(arr, 0, n * sizeof(Rec *));
        Filler fill{arr, 0};
        traverse(&Filler::add, &fill);
        std::qsort(arr, n, sizeof(Rec *), [](const void *a, const void *b) {
            return Traits::compare(*static_cast<Rec *const *>(a), *static_cast<Rec *const *>(b));
        });
        int r = 0;
        for (uint32_t i = 0; i < n && r == 0; ++i) r = op(arr[i], arg);
        Alloc::release(arr);
        return r;
    }
    static int count_one(void *, void *arg)
    {
        ++*static_cast<uint32_t *>(arg);
        return 0;
    }
    struct Filler {
        Rec **arr;
        uint32_t n;
        static int add(void *rec, void *arg)
        {
            auto *f = static_cast<Filler *>(arg);
            f->arr[f->n++] = static_cast<Rec *>(rec);
            return 0;
        }
    };

    libpmx_hash_t *h_;
};

} // namespace pmx

#endif // LIBPMX_HASH_TABLE_HPP

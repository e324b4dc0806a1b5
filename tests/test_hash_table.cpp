// The keyed cache template on its own: hashing, growth, tombstones, probing, walks, memory failure.
#include <gtest/gtest.h>

#include <cstdlib>
#include <map>
#include <random>
#include <tuple>
#include <vector>

#include "libpmx_hash_table.hpp"

namespace {

struct Rec {
    uint32_t key;
    uint32_t payload;
};

struct RecTraits : pmx::LeadingKey<Rec, 4>, pmx::RefreshWhole<Rec> {
    static constexpr const char *sort_failed = "test_rec failed to create qsort hash array.\n";
    static int compare(const Rec *a, const Rec *b) { return pmx::cmp_unsigned(a->key, b->key); }
};

// Fails every allocation once `budget` reaches 0 (negative: never fails); counts allocations.
struct TestAlloc {
    static inline int budget = -1;
    static inline int allocs = 0;
    static bool take()
    {
        ++allocs;
        if (budget == 0) return false;
        if (budget > 0) --budget;
        return true;
    }
    static void *alloc(size_t n) { return take() ? std::malloc(n) : nullptr; }
    static void *resize(void *p, size_t n) { return take() ? std::realloc(p, n) : nullptr; }
    static void release(void *p) { std::free(p); }
};

using Table = pmx::KeyedTable<RecTraits, TestAlloc>;

class HashTable : public ::testing::Test {
protected:
    void SetUp() override
    {
        TestAlloc::budget = -1;
        h = Table::new_header();
    }
    void TearDown() override
    {
        TestAlloc::budget = -1;
        for (uint32_t i = 0; i < h->n_buckets; ++i)
            if (live(i)) std::free(h->keys[i]);
        std::free(h->keys);
        std::free(h->flags);
        std::free(h);
    }
    bool live(uint32_t i) const { return ((h->flags[i >> 4] >> ((i & 15) << 1)) & 3) == 0; }
    Rec *add(uint32_t key, uint32_t payload = 0)
    {
        Rec r{key, payload}, *out = nullptr;
        return Table(h).cache_create(&out, &r);
    }
    Rec *find(uint32_t key) { return Table(h).find(&key); }
    int remove(uint32_t key)
    {
        Rec *r = find(key);
        int rc = Table(h).remove(&key);
        std::free(r);
        return rc;
    }
    // A key's first probe position in the current table.
    uint32_t home(uint32_t key) const { return pmx::lookup2(&key, 4, 0) & (h->n_buckets - 1); }

    libpmx_hash_t *h = nullptr;
};

int count_visit(void *, void *arg)
{
    ++*static_cast<int *>(arg);
    return 0;
}

} // namespace

TEST(Lookup2, KnownValuesOfEveryLength)
{
    // Lengths 0 to 25 (every tail case, one and two full blocks), from the byte-wise reading of
    // the algorithm; the word-wise tail must give the same values on any host byte order.
    static const uint32_t expected[26] = {
        0xbd49d10du, 0x9e34cd8au, 0x608a8006u, 0x7a8343acu, 0xc5522bbdu, 0x9b66b29fu,
        0x07c6abedu, 0xaa0cf016u, 0x371b6f81u, 0x60fc4bf4u, 0xd85750e1u, 0xf9df30c5u,
        0x80c4706du, 0x7bad5cf2u, 0xb17f4fffu, 0x6da3a493u, 0x1a7ccdb5u, 0x2229ae22u,
        0x6219e963u, 0xa3d4dc71u, 0xac7083dbu, 0xf080129eu, 0x88b4ce97u, 0xc9389c4cu,
        0xed8d671bu, 0x4c0035f4u};
    alignas(4) uint8_t bytes[33];
    for (uint32_t i = 0; i < 32; ++i) bytes[i + 1] = static_cast<uint8_t>(i * 37 + 11);
    for (uint32_t len = 0; len < 26; ++len) // from an unaligned address
        EXPECT_EQ(pmx::lookup2(bytes + 1, len, 0), expected[len]) << "length " << len;
}

TEST_F(HashTable, EmptyTableAndDuplicateKeys)
{
    int visits = 0;
    EXPECT_EQ(find(7), nullptr);
    EXPECT_EQ(Table(h).find(nullptr), nullptr);
    EXPECT_EQ(remove(7), LIBPMX_E_NOT_FOUND);
    EXPECT_EQ(Table(h).traverse(&count_visit, &visits), 0);
    EXPECT_EQ(visits, 0);

    // insert never replaces a cached key; cache_create refreshes the cached record instead.
    Rec *first = add(42, 1);
    Rec dup{42, 2};
    EXPECT_EQ(Table(h).insert(&dup), 0);
    EXPECT_EQ(find(42), first);
    EXPECT_EQ(add(42, 3), first);
    EXPECT_EQ(first->payload, 3u);
    EXPECT_EQ(h->size, 1u);
}

TEST_F(HashTable, GrowthSequenceAndThresholds)
{
    // (insert number that grows the table, buckets after it, threshold after it)
    const std::vector<std::tuple<uint32_t, uint32_t, uint32_t>> steps = {
        {1, 4, 3}, {4, 8, 6}, {7, 16, 12}, {13, 32, 25}, {26, 64, 49}, {50, 128, 99}};
    size_t next = 0;
    for (uint32_t n = 1; n <= 60; ++n) {
        const uint32_t before = h->n_buckets;
        add(n * 7919);
        if (h->n_buckets != before) {
            ASSERT_LT(next, steps.size()) << "unexpected growth at insert " << n;
            EXPECT_EQ(std::tuple(n, h->n_buckets, h->upper_bound), steps[next++]);
        }
        EXPECT_EQ(h->size, n);
        EXPECT_EQ(h->n_occupied, n);
    }
    EXPECT_EQ(next, steps.size());
    for (uint32_t n = 1; n <= 60; ++n) ASSERT_NE(find(n * 7919), nullptr) << n;
}

TEST_F(HashTable, TombstonesAreSkippedByProbesAndReusedFirst)
{
    ASSERT_TRUE(Table(h).rehash(16));
    // Three keys sharing one home bucket: the second and third probe past the first.
    uint32_t target = home(1000);
    std::vector<uint32_t> chain;
    for (uint32_t k = 1000; chain.size() < 3; ++k)
        if (home(k) == target) chain.push_back(k);
    for (uint32_t k : chain) add(k);
    ASSERT_EQ(h->n_buckets, 16u);
    ASSERT_TRUE(live(target));
    ASSERT_EQ(static_cast<Rec *>(h->keys[target])->key, chain[0]);
    const uint32_t occupied = h->n_occupied;

    // The first two of the chain go: the third is still found across both tombstones.
    EXPECT_EQ(remove(chain[0]), 0);
    EXPECT_EQ(remove(chain[1]), 0);
    EXPECT_EQ(h->n_occupied, occupied);
    EXPECT_EQ(find(chain[0]), nullptr);
    EXPECT_EQ(find(chain[1]), nullptr);
    EXPECT_NE(find(chain[2]), nullptr);
    EXPECT_EQ(remove(chain[0]), LIBPMX_E_NOT_FOUND);

    // A new key with the same home takes the first tombstone; n_occupied does not move.
    uint32_t again = chain[2] + 1;
    while (home(again) != target) ++again;
    add(again);
    EXPECT_TRUE(live(target));
    EXPECT_EQ(static_cast<Rec *>(h->keys[target])->key, again);
    EXPECT_EQ(h->n_occupied, occupied);
}

TEST_F(HashTable, ManyRemovesRehashInPlaceWithoutGrowing)
{
    for (uint32_t k = 1; k <= 40; ++k) add(k); // 64 buckets, threshold 49
    ASSERT_EQ(h->n_buckets, 64u);
    for (uint32_t k = 1; k <= 36; ++k) ASSERT_EQ(remove(k), 0);
    // Tombstones fill up to the threshold while few entries are live.
    for (uint32_t k = 100; h->n_occupied < h->upper_bound; ++k) {
        add(k);
        if (h->size > 10) {
            ASSERT_EQ(remove(k), 0);
        }
    }
    ASSERT_EQ(h->n_buckets, 64u);
    const uint32_t live_before = h->size;
    add(5000);
    EXPECT_EQ(h->n_buckets, 64u) << "tombstones must be reclaimed without growing";
    EXPECT_EQ(h->size, live_before + 1);
    EXPECT_EQ(h->n_occupied, h->size);
    for (uint32_t key = 37; key <= 40; ++key) EXPECT_NE(find(key), nullptr);
    EXPECT_NE(find(5000), nullptr);
}

TEST_F(HashTable, RandomOperationsAgreeWithAMap)
{
    std::mt19937 rng(12345);
    std::map<uint32_t, uint32_t> model;
    for (uint32_t op = 0; op < 20000; ++op) {
        const uint32_t key = rng() % 3000;
        if (rng() % 3 == 0) {
            const bool present = model.erase(key) > 0;
            EXPECT_EQ(remove(key), present ? 0 : LIBPMX_E_NOT_FOUND);
        } else {
            add(key, op);
            model[key] = op;
        }
    }
    EXPECT_EQ(h->size, model.size());
    EXPECT_LE(h->n_occupied, h->upper_bound);
    for (uint32_t key = 0; key < 3000; ++key) {
        Rec *r = find(key);
        auto it = model.find(key);
        ASSERT_EQ(r != nullptr, it != model.end()) << key;
        if (r) {
            EXPECT_EQ(r->payload, it->second);
        }
    }
}

TEST_F(HashTable, TraverseRangesAndEarlyStop)
{
    for (uint32_t k = 1; k <= 10; ++k) add(k);
    const uint32_t n = h->n_buckets;
    int visits = 0;
    EXPECT_EQ(Table(h).traverse_range(&count_visit, n, 10, &visits), 0);
    EXPECT_EQ(Table(h).traverse_range(&count_visit, 0, 0, &visits), 0);
    EXPECT_EQ(visits, 0);
    // Pages of buckets cover every entry once; a page past the end is clipped.
    for (uint32_t start = 0; start < n; start += 5) Table(h).traverse_range(&count_visit, start, 5, &visits);
    EXPECT_EQ(visits, 10);
    int tail = 0, expect_tail = 0;
    Table(h).traverse_range(&count_visit, n - 3, 0xFFFFFFFFu, &tail);
    for (uint32_t i = n - 3; i < n; ++i) expect_tail += live(i);
    EXPECT_EQ(tail, expect_tail);

    // An op that answers non-zero on the third entry stops the walk there.
    int seen = 0;
    auto stop = [](void *, void *arg) { return ++*static_cast<int *>(arg) == 3 ? 77 : 0; };
    EXPECT_EQ(Table(h).traverse(stop, &seen), 77);
    EXPECT_EQ(seen, 3);
}

TEST_F(HashTable, SortedWalkOrderAllocationAndFallback)
{
    std::vector<uint32_t> seen;
    auto collect = [](void *rec, void *arg) {
        static_cast<std::vector<uint32_t> *>(arg)->push_back(static_cast<Rec *>(rec)->key);
        return 0;
    };
    // 0 and 1 entries: no array is allocated.
    TestAlloc::allocs = 0;
    EXPECT_EQ(Table(h).walk(collect, &seen, true), 0);
    add(0xFFFFFFFFu);
    TestAlloc::allocs = 0;
    EXPECT_EQ(Table(h).walk(collect, &seen, true), 0);
    EXPECT_EQ(TestAlloc::allocs, 0);

    for (uint32_t k : {5u, 0x80000000u, 1u, 300u}) add(k);
    seen.clear();
    EXPECT_EQ(Table(h).walk(collect, &seen, true), 0);
    EXPECT_EQ(seen, (std::vector<uint32_t>{1u, 5u, 300u, 0x80000000u, 0xFFFFFFFFu}));

    // Without memory for the array: the message on standard output and bucket order.
    seen.clear();
    TestAlloc::budget = 0;
    testing::internal::CaptureStdout();
    EXPECT_EQ(Table(h).walk(collect, &seen, true), 0);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "test_rec failed to create qsort hash array.\n");
    TestAlloc::budget = -1;
    std::vector<uint32_t> bucket_order;
    Table(h).walk(collect, &bucket_order, false);
    EXPECT_EQ(seen, bucket_order);
}

TEST_F(HashTable, OutOfMemoryDuringRehashInsertsNothing)
{
    for (uint32_t k = 1; k <= 3; ++k) add(k); // 4 buckets, full at the threshold
    // The record is allocated, the rehash then fails: the record comes back but is not cached.
    TestAlloc::budget = 1;
    Rec r{99, 0}, *out = nullptr;
    Rec *got = Table(h).cache_create(&out, &r);
    ASSERT_NE(got, nullptr);
    EXPECT_EQ(out, got);
    EXPECT_EQ(find(99), nullptr);
    EXPECT_EQ(h->n_buckets, 4u);
    EXPECT_EQ(h->size, 3u);
    std::free(got);
    // No memory for the record at all: null in both places.
    TestAlloc::budget = 0;
    out = &r;
    EXPECT_EQ(Table(h).cache_create(&out, &r), nullptr);
    EXPECT_EQ(out, nullptr);
    TestAlloc::budget = -1;
    for (uint32_t k = 1; k <= 3; ++k) EXPECT_NE(find(k), nullptr);
}

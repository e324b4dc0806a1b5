// The keyed cache template against std::unordered_map and against itself with a cheap mixing hash.
// Every case runs at 1k, 10k and 100k entries; scripts/run-bench turns the times into ratios.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <numeric>
#include <random>
#include <unordered_map>
#include <vector>

#include "libpmx_hash_table.hpp"

namespace {

// A cache record: the key first, then data; `next` names another key (for dependent finds).
struct Rec {
    uint32_t key;
    uint32_t next;
    uint32_t data[4];
};

struct RecTraits : pmx::LeadingKey<Rec, 4>, pmx::RefreshWhole<Rec> {
    static constexpr const char *name = "bench_rec";
};

// murmur3's finaliser: a cheap, well-mixing hash of the 4 key bytes.
struct MixHash {
    static uint32_t hash(const void *key, uint32_t)
    {
        uint32_t h;
        std::memcpy(&h, key, 4);
        h ^= h >> 16;
        h *= 0x85ebca6bu;
        h ^= h >> 13;
        h *= 0xc2b2ae35u;
        h ^= h >> 16;
        return h;
    }
};

template <class Hasher> class TemplateCache {
public:
    TemplateCache() : h_(Table::new_header()) {}
    ~TemplateCache()
    {
        for (uint32_t i = 0; i < h_->n_buckets; ++i)
            if (((h_->flags[i >> 4] >> ((i & 15) << 1)) & 3) == 0) std::free(h_->keys[i]);
        std::free(h_->keys);
        std::free(h_->flags);
        std::free(h_);
    }
    TemplateCache(const TemplateCache &) = delete;
    TemplateCache &operator=(const TemplateCache &) = delete;
    void put(const Rec &r)
    {
        Rec *out;
        Table(h_).cache_create(&out, &r);
    }
    const Rec *get(uint32_t key) const { return Table(h_).find(&key); }

private:
    using Table = pmx::KeyedTable<RecTraits, Hasher>;
    libpmx_hash_t *h_;
};

class StdCache {
public:
    void put(const Rec &r) { map_.try_emplace(r.key, r); }
    const Rec *get(uint32_t key) const
    {
        auto it = map_.find(key);
        return it == map_.end() ? nullptr : &it->second;
    }

private:
    std::unordered_map<uint32_t, Rec> map_;
};

using Lookup2Cache = TemplateCache<pmx::Lookup2Hash>;
using MixCache = TemplateCache<MixHash>;

// n distinct keys spread like ifx and phyid values, linked into one random cycle.
std::vector<Rec> make_records(size_t n, uint32_t seed)
{
    std::mt19937 rng(seed);
    std::vector<uint32_t> keys(n);
    for (size_t i = 0; i < n; ++i) keys[i] = static_cast<uint32_t>(i) * 2654435761u + 0x07000000u;
    std::shuffle(keys.begin(), keys.end(), rng);
    std::vector<Rec> recs(n);
    for (size_t i = 0; i < n; ++i) recs[i] = Rec{keys[i], keys[(i + 1) % n], {1, 2, 3, 4}};
    std::shuffle(recs.begin(), recs.end(), rng);
    return recs;
}

template <class Cache> void fill(Cache &c, const std::vector<Rec> &recs)
{
    for (const auto &r : recs) c.put(r);
}

template <class Cache> void BM_FindHit(benchmark::State &state)
{
    const auto recs = make_records(static_cast<size_t>(state.range(0)), 1);
    Cache c;
    fill(c, recs);
    std::vector<uint32_t> probe(recs.size());
    std::transform(recs.begin(), recs.end(), probe.begin(), [](const Rec &r) { return r.next; });
    size_t i = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(c.get(probe[i]));
        if (++i == probe.size()) i = 0;
    }
    state.SetItemsProcessed(state.iterations());
}

// Each key comes from the record found before: the lookup's latency, record read included.
template <class Cache> void BM_FindDependent(benchmark::State &state)
{
    const auto recs = make_records(static_cast<size_t>(state.range(0)), 2);
    Cache c;
    fill(c, recs);
    uint32_t key = recs[0].key;
    for (auto _ : state) {
        key = c.get(key)->next;
        benchmark::DoNotOptimize(key);
    }
    state.SetItemsProcessed(state.iterations());
}

template <class Cache> void BM_FindMiss(benchmark::State &state)
{
    const auto recs = make_records(static_cast<size_t>(state.range(0)), 3);
    Cache c;
    fill(c, recs);
    std::vector<uint32_t> probe(recs.size());
    for (size_t i = 0; i < probe.size(); ++i) probe[i] = recs[i].key ^ 0x00800001u; // never present
    size_t i = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(c.get(probe[i]));
        if (++i == probe.size()) i = 0;
    }
    state.SetItemsProcessed(state.iterations());
}

// Builds a cache of n entries from empty; the teardown is not timed.
template <class Cache> void BM_Insert(benchmark::State &state)
{
    const auto recs = make_records(static_cast<size_t>(state.range(0)), 4);
    for (auto _ : state) {
        auto *c = new Cache;
        fill(*c, recs);
        benchmark::DoNotOptimize(c);
        state.PauseTiming();
        delete c;
        state.ResumeTiming();
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}

#define PMX_BENCH_ALL(BM)                                                                          \
    BENCHMARK_TEMPLATE(BM, StdCache)->Arg(1000)->Arg(10000)->Arg(100000);                          \
    BENCHMARK_TEMPLATE(BM, Lookup2Cache)->Arg(1000)->Arg(10000)->Arg(100000);                      \
    BENCHMARK_TEMPLATE(BM, MixCache)->Arg(1000)->Arg(10000)->Arg(100000)

PMX_BENCH_ALL(BM_FindHit);
PMX_BENCH_ALL(BM_FindDependent);
PMX_BENCH_ALL(BM_FindMiss);
PMX_BENCH_ALL(BM_Insert);

} // namespace

BENCHMARK_MAIN();

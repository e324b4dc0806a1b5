// A cache family through the library's exported operations against std::unordered_map of the
// same records. scripts/run-bench turns the times into ratios to the map.
//
// Finds read the family libpmx_sub_ap_info (20-byte records keyed by their leading 32-bit ifx)
// the two ways callers read a cache: HashFind passes a pointer to the key
// (libpmx_sub_ap_info_hash_find), Get passes the key itself (libpmx_sub_ap_info_get, which builds
// a key record first). Inserts go through libpmx_sub_route_info_create, into a table emptied by
// destroying every record, which leaves their buckets as tombstones (the map keeps its bucket
// array after clear() too).
//
// A family's table is one per process and never shrinks, so the sizes run one after the other,
// smallest first; the key set of a size contains the smaller ones', so the find table is at every
// size as a table grown to it from empty would be, without tombstones.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <random>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "libpmx_hash.h"

namespace {

using Rec = libpmx_sub_ap_info_t; // phyid holds the key of another record (dependent finds)

class StdCache {
public:
    void load(const std::vector<Rec> &recs)
    {
        clear();
        for (const auto &r : recs) put(r);
    }
    void clear() { map_.clear(); }
    void put(const Rec &r) { map_.try_emplace(r.ifx, r); }
    const Rec *get(uint32_t key) const
    {
        auto it = map_.find(key);
        return it == map_.end() ? nullptr : &it->second;
    }

private:
    std::unordered_map<uint32_t, Rec> map_;
};

template <class T> std::vector<T *> cached(int (*traverse)(libpmx_hash_op_t, void *))
{
    std::vector<T *> all;
    traverse(
        [](void *rec, void *arg) {
            static_cast<std::vector<T *> *>(arg)->push_back(static_cast<T *>(rec));
            return 0;
        },
        &all);
    return all;
}

// The process's sub-AP table holding just these records: a cached key is refreshed in place.
struct SubApTable {
    void load(const std::vector<Rec> &recs)
    {
        for (const auto &r : recs) libpmx_sub_ap_info_create(&r);
        if (libpmx_sub_ap_info_hash_size() == recs.size()) return;
        std::unordered_set<uint32_t> keep;
        for (const auto &r : recs) keep.insert(r.ifx);
        for (Rec *r : cached<Rec>(libpmx_sub_ap_info_hash_traverse))
            if (keep.count(r->ifx) == 0) libpmx_sub_ap_info_destroy(r);
    }
};
struct HashFind : SubApTable {
    const Rec *get(uint32_t key) const { return libpmx_sub_ap_info_hash_find(&key); }
};
struct Get : SubApTable {
    const Rec *get(uint32_t key) const { return libpmx_sub_ap_info_get(key); }
};

// The process's sub-route table, emptied and filled.
struct Create {
    void load(const std::vector<Rec> &recs)
    {
        clear();
        for (const auto &r : recs) put(r);
    }
    void clear()
    {
        for (auto *r : cached<libpmx_sub_route_info_t>(libpmx_sub_route_info_hash_traverse))
            libpmx_sub_route_info_destroy(r);
    }
    void put(const Rec &r)
    {
        const libpmx_sub_route_info_t rt{r.ifx, r.phyid, r.evlan, r.master_phyid};
        libpmx_sub_route_info_create(&rt);
    }
};

// n distinct keys spread like ifx values, linked into one random cycle.
std::vector<Rec> make_records(size_t n, uint32_t seed)
{
    std::mt19937 rng(seed);
    std::vector<uint32_t> keys(n);
    for (size_t i = 0; i < n; ++i) keys[i] = static_cast<uint32_t>(i) * 2654435761u + 0x07000000u;
    std::shuffle(keys.begin(), keys.end(), rng);
    std::vector<Rec> recs(n);
    for (size_t i = 0; i < n; ++i) recs[i] = Rec{keys[i], keys[(i + 1) % n], 1, 2, 3};
    std::shuffle(recs.begin(), recs.end(), rng);
    return recs;
}

// Independent lookups of present keys.
template <class Cache> void BM_FindHit(benchmark::State &state)
{
    const auto recs = make_records(static_cast<size_t>(state.range(0)), 1);
    Cache c;
    c.load(recs);
    if (c.get(recs.back().ifx) == nullptr) return state.SkipWithError("records not cached");
    std::vector<uint32_t> probe(recs.size());
    std::transform(recs.begin(), recs.end(), probe.begin(), [](const Rec &r) { return r.phyid; });
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
    c.load(recs);
    if (c.get(recs.back().ifx) == nullptr) return state.SkipWithError("records not cached");
    uint32_t key = recs[0].ifx;
    for (auto _ : state) {
        key = c.get(key)->phyid;
        benchmark::DoNotOptimize(key);
    }
    state.SetItemsProcessed(state.iterations());
}

template <class Cache> void BM_FindMiss(benchmark::State &state)
{
    const auto recs = make_records(static_cast<size_t>(state.range(0)), 3);
    Cache c;
    c.load(recs);
    if (c.get(recs.back().ifx) == nullptr) return state.SkipWithError("records not cached");
    std::vector<uint32_t> probe(recs.size());
    for (size_t i = 0; i < probe.size(); ++i) probe[i] = recs[i].ifx ^ 0x00800001u; // never present
    size_t i = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(c.get(probe[i]));
        if (++i == probe.size()) i = 0;
    }
    state.SetItemsProcessed(state.iterations());
}

// Caches n records in a cache emptied before (untimed); allocation included.
template <class Cache> void BM_Insert(benchmark::State &state)
{
    const auto recs = make_records(static_cast<size_t>(state.range(0)), 4);
    Cache c;
    c.load(recs);
    for (auto _ : state) {
        state.PauseTiming();
        c.clear();
        state.ResumeTiming();
        for (const auto &r : recs) c.put(r);
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}

} // namespace

int main(int argc, char **argv)
{
    libpmx_hash_init();
    // Size by size, in this order (see above: not with random interleaving); each case with its
    // reference first.
    for (int n : {500, 10000, 100000}) {
#define PMX_CASE(BM, IMPL) benchmark::RegisterBenchmark(#BM "<" #IMPL ">", BM<IMPL>)->Arg(n)
        PMX_CASE(BM_FindHit, StdCache);
        PMX_CASE(BM_FindHit, HashFind);
        PMX_CASE(BM_FindHit, Get);
        PMX_CASE(BM_FindDependent, StdCache);
        PMX_CASE(BM_FindDependent, HashFind);
        PMX_CASE(BM_FindDependent, Get);
        PMX_CASE(BM_FindMiss, StdCache);
        PMX_CASE(BM_FindMiss, HashFind);
        PMX_CASE(BM_FindMiss, Get);
        PMX_CASE(BM_Insert, StdCache);
        PMX_CASE(BM_Insert, Create);
#undef PMX_CASE
    }
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}

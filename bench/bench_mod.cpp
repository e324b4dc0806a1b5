// Module table and split-port lookups on the large generated chassis (examples/chassis/large),
// its records applied to the caches as the change callbacks apply them. Each lookup against an
// unlocked std::unordered_map holding the same answers (the reference), keys in shuffled order:
// BM_UnitByChip: libpmx_get_unit_by_chip_ext over every modid of the chassis (the local card's
// answer their unit, the others -7); BM_IsLocalModid: libpmx_is_local_modid_ext over the same;
// BM_SplitPhyid: libpmx_split_cache_get_phyid_by_mod_port over every split member.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdlib>
#include <random>
#include <set>
#include <string>
#include <unordered_map>
#include <vector>

#include "libpmx_cap.h"
#include "libpmx_mod.h"
#include "libpmx_mom.h"
#include "libpmx_split.h"
#include "topology.h"

namespace
{

enum class Impl { UnlockedMap, Library };

struct Chassis {
    std::vector<int32_t> modids;                  // every modid, shuffled
    std::unordered_map<int32_t, int32_t> unit_of; // local modid -> unit
    struct Split {
        uint32_t modid, port, cid, gphyid;
    };
    std::vector<Split> splits;
    std::unordered_map<uint32_t, uint32_t> split_of; // module-port key -> gphyid

    static Chassis &get()
    {
        static Chassis c = load();
        return c;
    }

    static Chassis load()
    {
        Chassis c;
        pmx_tool::Chassis gen;
        std::string error;
        if (!pmx_tool::generate_chassis(PMX_SOURCE_DIR "/examples/chassis/large.topo.json", {}, &gen, &error)) {
            std::fprintf(stderr, "%s\n", error.c_str());
            std::abort();
        }
        for (const pmx_tool::Record &r : gen.records) {
            const libpmx_record_kind_t *kind = libpmx_record_kind_find(r.kind()->name);
            if (kind != nullptr && kind->followed != 0) libpmx_mom_record_apply(r.value.get(), 0);
        }
        std::set<int32_t> seen;
        for (const pmx_tool::TruthRow &row : gen.truth) {
            if (row.kind == pmx_tool::PortKind::SubAp || row.kind == pmx_tool::PortKind::SubRoute) continue;
            if (seen.insert(row.modid).second) c.modids.push_back(row.modid);
            if (gen.local == std::to_string(row.dev) + "/" + std::to_string(row.slot) + "/0")
                c.unit_of[row.modid] = row.unit;
            if (row.member > 0) {
                const auto m = static_cast<uint32_t>(row.modid), p = static_cast<uint32_t>(row.mport);
                c.splits.push_back({m, p, static_cast<uint32_t>(row.cid), row.gphyid});
                c.split_of.emplace(libpmx_split_modport_key(m, p), row.gphyid);
            }
        }
        std::shuffle(c.modids.begin(), c.modids.end(), std::mt19937(7));
        std::shuffle(c.splits.begin(), c.splits.end(), std::mt19937(8));
        if (c.unit_of.empty() || c.splits.empty()) std::abort();
        return c;
    }
};

template <Impl I> void BM_UnitByChip(benchmark::State &state)
{
    Chassis &c = Chassis::get();
    size_t k = 0;
    int32_t unit = -1;
    for (auto _ : state) {
        const int32_t modid = c.modids[k++ % c.modids.size()];
        if constexpr (I == Impl::UnlockedMap) {
            auto it = c.unit_of.find(modid);
            unit = it != c.unit_of.end() ? it->second : -7;
        } else {
            unit = libpmx_get_unit_by_chip_ext(modid, &unit) == 0 ? unit : -7;
        }
        benchmark::DoNotOptimize(unit);
    }
    state.counters["modids"] = static_cast<double>(c.modids.size());
}

template <Impl I> void BM_IsLocalModid(benchmark::State &state)
{
    Chassis &c = Chassis::get();
    size_t k = 0;
    int local = 0;
    for (auto _ : state) {
        const int32_t modid = c.modids[k++ % c.modids.size()];
        if constexpr (I == Impl::UnlockedMap)
            local = c.unit_of.count(modid) != 0;
        else
            local = libpmx_is_local_modid_ext(modid);
        benchmark::DoNotOptimize(local);
    }
}

template <Impl I> void BM_SplitPhyid(benchmark::State &state)
{
    Chassis &c = Chassis::get();
    size_t k = 0;
    uint32_t phyid = 0;
    for (auto _ : state) {
        const Chassis::Split &s = c.splits[k++ % c.splits.size()];
        if constexpr (I == Impl::UnlockedMap) {
            phyid = c.split_of.find(libpmx_split_modport_key(s.modid, s.port))->second;
        } else if (libpmx_split_cache_get_phyid_by_mod_port(s.modid, s.port, s.cid, &phyid) != 0) {
            state.SkipWithError("split lookup failed");
        }
        benchmark::DoNotOptimize(phyid);
    }
    state.counters["members"] = static_cast<double>(c.splits.size());
}

BENCHMARK(BM_UnitByChip<Impl::UnlockedMap>)->Arg(0);
BENCHMARK(BM_UnitByChip<Impl::Library>)->Arg(0);
BENCHMARK(BM_IsLocalModid<Impl::UnlockedMap>)->Arg(0);
BENCHMARK(BM_IsLocalModid<Impl::Library>)->Arg(0);
BENCHMARK(BM_SplitPhyid<Impl::UnlockedMap>)->Arg(0);
BENCHMARK(BM_SplitPhyid<Impl::Library>)->Arg(0);

} // namespace

BENCHMARK_MAIN();

// Module table and split-port lookups on the large generated chassis (examples/chassis/large),
// its records applied to the caches as the change callbacks apply them. Each lookup against an
// unlocked std::unordered_map holding the same answers (the reference), keys in shuffled order:
// BM_UnitByChip: libpmx_get_unit_by_chip_ext over every modid of the chassis (the local card's
// answer their unit, the others -7); BM_IsLocalModid: libpmx_is_local_modid_ext over the same;
// BM_SplitPhyid: libpmx_split_cache_get_phyid_by_mod_port over every split member.
// BM_Conv*: each conversion's _ext form over the local card's ports (every port of the chassis for
// the module-port conversions) against the bare bit arithmetic of that conversion (the unknown
// fields from a flat array: the cost of caches and locks as a ratio). BM_Mode1Miss: the lphyid of
// a chip port in mode 1 on a miss (the port forgotten each time) against the database read it
// makes (the embedded store).
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdlib>
#include <random>
#include <set>
#include <string>
#include <unordered_map>
#include <vector>

#include "db_session.h"
#include "libpmx_cap.h"
#include "libpmx_intf.h"
#include "libpmx_port.h"
#include "libpmx_mod.h"
#include "libpmx_mom.h"
#include "libpmx_split.h"
#include "topology.h"

namespace
{

enum class Impl { UnlockedMap, Library, Arithmetic, DbRead };

struct Chassis {
    std::vector<int32_t> modids;                  // every modid, shuffled
    std::unordered_map<int32_t, int32_t> unit_of; // local modid -> unit
    struct Split {
        uint32_t modid, port, cid, gphyid;
    };
    std::vector<Split> splits;
    std::unordered_map<uint32_t, uint32_t> split_of; // module-port key -> gphyid
    std::vector<pmx_tool::TruthRow> local, all;       // the local card's ports, every port (shuffled)
    std::vector<int32_t> unit_by_modid, modid_by_unit; // flat arrays for the bare arithmetic
    pmx_tool::Chassis gen;

    // The chassis records in an embedded store this thread is attached to (opened once).
    void store()
    {
        static pmx_tool::DbSession *session = [this] {
            auto *s = new pmx_tool::DbSession;
            pmx_tool::DbOptions db;
            db.url = "embedded:bench-mod";
            size_t failed = 0;
            if (!s->open(db) || s->write_batch(gen.records, 0, gen.records.size(), &failed) != 0) std::abort();
            return s;
        }();
        (void)session;
    }

    static Chassis &get()
    {
        static Chassis c = load();
        return c;
    }

    static Chassis load()
    {
        Chassis c;
        pmx_tool::Chassis &gen = c.gen;
        std::string error;
        if (!pmx_tool::generate_chassis(PMX_SOURCE_DIR "/examples/chassis/large.topo.json", {}, &gen, &error)) {
            std::fprintf(stderr, "%s\n", error.c_str());
            std::abort();
        }
        setenv("PMX_CAP_FILE", gen.caps_path.c_str(), 1);
        libpmx_cap_init(nullptr, "bench_mod");
        for (const pmx_tool::Record &r : gen.records) {
            const libpmx_record_kind_t *kind = libpmx_record_kind_find(r.kind()->name);
            if (kind != nullptr && kind->followed != 0) libpmx_mom_record_apply(r.value.get(), 0);
        }
        c.unit_by_modid.assign(2048, -1);
        c.modid_by_unit.assign(256, -1);
        std::set<int32_t> seen;
        for (const pmx_tool::TruthRow &row : gen.truth) {
            if (row.kind == pmx_tool::PortKind::SubAp || row.kind == pmx_tool::PortKind::SubRoute) continue;
            if (seen.insert(row.modid).second) c.modids.push_back(row.modid);
            if (gen.local == std::to_string(row.dev) + "/" + std::to_string(row.slot) + "/0") {
                c.unit_of[row.modid] = row.unit;
                c.unit_by_modid[static_cast<size_t>(row.modid)] = row.unit;
                c.modid_by_unit[static_cast<size_t>(row.unit)] = row.modid;
                if (row.member == 0) c.local.push_back(row);
            }
            if (row.member == 0) c.all.push_back(row);
            if (row.member > 0) {
                const auto m = static_cast<uint32_t>(row.modid), p = static_cast<uint32_t>(row.mport);
                c.splits.push_back({m, p, static_cast<uint32_t>(row.cid), row.gphyid});
                c.split_of.emplace(libpmx_split_modport_key(m, p), row.gphyid);
            }
        }
        std::shuffle(c.modids.begin(), c.modids.end(), std::mt19937(7));
        std::shuffle(c.splits.begin(), c.splits.end(), std::mt19937(8));
        std::shuffle(c.local.begin(), c.local.end(), std::mt19937(9));
        std::shuffle(c.all.begin(), c.all.end(), std::mt19937(10));
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

// One conversion over rows: the library's _ext form, or the bare arithmetic of it.
template <Impl I, class Lib, class Arith>
void convert(benchmark::State &state, const std::vector<pmx_tool::TruthRow> &rows, Lib lib, Arith arith)
{
    size_t k = 0;
    uint32_t out = 0;
    for (auto _ : state) {
        const pmx_tool::TruthRow &r = rows[k++ % rows.size()];
        if constexpr (I == Impl::Arithmetic)
            out = arith(r);
        else if (lib(r, &out) != 0)
            state.SkipWithError("conversion failed");
        benchmark::DoNotOptimize(out);
    }
}

template <Impl I> void BM_ConvLphyidByGphyid(benchmark::State &state)
{
    Chassis &c = Chassis::get();
    convert<I>(
        state, c.local, [](const pmx_tool::TruthRow &r, uint32_t *o) { return libpmx_get_lphyid_by_gphyid_ext(r.gphyid, o); },
        [&c](const pmx_tool::TruthRow &r) {
            return 0x08000000u | static_cast<uint32_t>(c.unit_by_modid[r.gphyid >> 8 & 0x7ff]) << 8 | (r.gphyid & 0xff);
        });
}

template <Impl I> void BM_ConvGphyidByLphyid(benchmark::State &state)
{
    Chassis &c = Chassis::get();
    convert<I>(
        state, c.local, [](const pmx_tool::TruthRow &r, uint32_t *o) { return libpmx_get_gphyid_by_lphyid_ext(r.lphyid, o); },
        [&c](const pmx_tool::TruthRow &r) {
            return 7u << 24 | 4u << 19 | static_cast<uint32_t>(c.modid_by_unit[r.lphyid >> 8 & 0xff]) << 8 | (r.lphyid & 0xff);
        });
}

template <Impl I> void BM_ConvPhyidByModPort(benchmark::State &state)
{
    Chassis &c = Chassis::get();
    convert<I>(
        state, c.all,
        [](const pmx_tool::TruthRow &r, uint32_t *o) { return libpmx_get_phyid_by_mod_port_ext(r.modid, r.port, o); },
        [](const pmx_tool::TruthRow &r) {
            return static_cast<uint32_t>(r.gphyid >> 24) << 24 | static_cast<uint32_t>(r.cid) << 19 |
                   static_cast<uint32_t>(r.modid) << 8 | static_cast<uint32_t>(r.port);
        });
}

template <Impl I> void BM_ConvModPortByPhyid(benchmark::State &state)
{
    Chassis &c = Chassis::get();
    convert<I>(
        state, c.all,
        [](const pmx_tool::TruthRow &r, uint32_t *o) {
            uint32_t port = 0;
            return libpmx_get_mod_port_by_phyid_ext(r.gphyid, o, &port);
        },
        [](const pmx_tool::TruthRow &r) { return r.gphyid >> 8 & 0x7ff; });
}

template <Impl I> void BM_ConvLphyidByUnitPort(benchmark::State &state)
{
    Chassis &c = Chassis::get();
    convert<I>(
        state, c.local,
        [](const pmx_tool::TruthRow &r, uint32_t *o) { return libpmx_get_lphyid_by_unit_port_ext(r.unit, r.port, o); },
        [](const pmx_tool::TruthRow &r) {
            return 0x08000000u | static_cast<uint32_t>(r.unit) << 8 | static_cast<uint32_t>(r.port);
        });
}

template <Impl I> void BM_ConvUnitPortByLphyid(benchmark::State &state)
{
    Chassis &c = Chassis::get();
    convert<I>(
        state, c.local,
        [](const pmx_tool::TruthRow &r, uint32_t *o) {
            uint32_t port = 0;
            return libpmx_get_unit_port_by_lphyid_ext(r.lphyid, o, &port);
        },
        [](const pmx_tool::TruthRow &r) { return r.lphyid >> 8 & 0xff; });
}

// A chip port's lphyid on a cache miss in mode 1 (the port forgotten before each call), against
// the read of its record from the embedded store.
template <Impl I> void BM_Mode1Miss(benchmark::State &state)
{
    Chassis &c = Chassis::get();
    c.store();
    size_t k = 0;
    uint32_t out = 0;
    libpmx_port_info_t info{};
    for (auto _ : state) {
        const pmx_tool::TruthRow &r = c.local[k++ % c.local.size()];
        if constexpr (I == Impl::DbRead) {
            if (libpmx_get_port_info_from_unit_port(r.unit, r.port, &info) != 0) state.SkipWithError("read failed");
        } else {
            libpmx_port_del_unit_port(r.unit, r.port);
            if (libpmx_get_lphyid_by_unit_port_detail(r.unit, r.port, &out, 1) != 0) state.SkipWithError("failed");
        }
        benchmark::DoNotOptimize(out);
        benchmark::DoNotOptimize(info);
    }
}

BENCHMARK(BM_ConvLphyidByGphyid<Impl::Arithmetic>)->Arg(0);
BENCHMARK(BM_ConvLphyidByGphyid<Impl::Library>)->Arg(0);
BENCHMARK(BM_ConvGphyidByLphyid<Impl::Arithmetic>)->Arg(0);
BENCHMARK(BM_ConvGphyidByLphyid<Impl::Library>)->Arg(0);
BENCHMARK(BM_ConvPhyidByModPort<Impl::Arithmetic>)->Arg(0);
BENCHMARK(BM_ConvPhyidByModPort<Impl::Library>)->Arg(0);
BENCHMARK(BM_ConvModPortByPhyid<Impl::Arithmetic>)->Arg(0);
BENCHMARK(BM_ConvModPortByPhyid<Impl::Library>)->Arg(0);
BENCHMARK(BM_ConvLphyidByUnitPort<Impl::Arithmetic>)->Arg(0);
BENCHMARK(BM_ConvLphyidByUnitPort<Impl::Library>)->Arg(0);
BENCHMARK(BM_ConvUnitPortByLphyid<Impl::Arithmetic>)->Arg(0);
BENCHMARK(BM_ConvUnitPortByLphyid<Impl::Library>)->Arg(0);
BENCHMARK(BM_Mode1Miss<Impl::DbRead>)->Arg(0);
BENCHMARK(BM_Mode1Miss<Impl::Library>)->Arg(0);
BENCHMARK(BM_UnitByChip<Impl::UnlockedMap>)->Arg(0);
BENCHMARK(BM_UnitByChip<Impl::Library>)->Arg(0);
BENCHMARK(BM_IsLocalModid<Impl::UnlockedMap>)->Arg(0);
BENCHMARK(BM_IsLocalModid<Impl::Library>)->Arg(0);
BENCHMARK(BM_SplitPhyid<Impl::UnlockedMap>)->Arg(0);
BENCHMARK(BM_SplitPhyid<Impl::Library>)->Arg(0);

} // namespace

BENCHMARK_MAIN();

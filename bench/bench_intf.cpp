// The interface table at 1k, 10k and 50k interfaces, through the exported cache-only lookups.
// BM_IfxToPhyid / BM_PhyidToIfx: UnlockedMap is a std::unordered_map from the key to the info,
// no lock (the reference); Indexed is the library's lookup as it ships (its answer read without
// the lock unless a change overlaps); Chains is the same call with the index turned off, the
// 64-chain walk alone under the read lock.
// Keys are asked in a shuffled order. BM_IntfMemory: heap bytes the table takes per interface,
// index and answer maps included, measured on a fill from empty in a child process.
// BM_CachedVsRedis: RedisRead reads one interface record from a private Redis
// on a Unix socket through the typed getter (the reference); Cached asks the table.
// BM_CountingCost: the cached ifx -> phyid lookup at 10k interfaces with the statistics counting
// off (the reference) and on.
#include <benchmark/benchmark.h>
#include <malloc.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <memory>
#include <random>
#include <unordered_map>
#include <vector>

#include "libpmx_dbg.h"
#include "libpmx_hash.h"
#include "libpmx_intf.h"
#include "libpmx_mom.h"
#include "qv_mom.h"
#include "redis_server.h"
#include "u_intf.pb-c.h"

namespace
{

enum class Impl { UnlockedMap, Indexed, Chains, RedisRead };

// A chassis-like gphyid of interface i: type 7, cid 3, 48 ports a chip.
uint32_t gphyid_of(uint32_t i)
{
    return 0x07000000u | 3u << 19 | (i / 48) << 8 | i % 48;
}

libpmx_intf_info_t info_of(uint32_t i)
{
    libpmx_intf_info_t info{};
    info.ifx = i + 1;
    info.gphyid = gphyid_of(i);
    info.lport = static_cast<int32_t>(i % 48 + 1);
    return info;
}

constexpr uint32_t kMemorySize = 50000;

// Bytes in use on the heap, the large blocks that malloc maps by themselves included.
size_t heap_bytes()
{
    const struct mallinfo2 m = mallinfo2();
    return m.uordblks + m.hblkhd;
}

// Heap growth per interface while the library's table takes n interfaces from empty. Measured in
// a child forked before this process fills anything: the answer maps keep the slot arrays of
// the largest table a process has held (readers may hold them), so only a first fill shows them.
double fresh_fill_bytes_per_intf(uint32_t n)
{
    int fds[2];
    if (pipe(fds) != 0) return -1;
    const pid_t pid = fork();
    if (pid == 0) {
        close(fds[0]);
        double per = -1;
        if (libpmx_hash_init() == 0 && libpmx_intf_init() == 0) {
            const size_t before = heap_bytes();
            for (uint32_t i = 0; i < n; ++i) {
                const libpmx_intf_info_t info = info_of(i);
                libpmx_add_intf_node(&info);
            }
            per = static_cast<double>(heap_bytes() - before) / n;
        }
        _exit(write(fds[1], &per, sizeof per) == sizeof per ? 0 : 1);
    }
    close(fds[1]);
    double per = -1;
    if (pid < 0 || read(fds[0], &per, sizeof per) != sizeof per) per = -1;
    close(fds[0]);
    if (pid > 0) waitpid(pid, nullptr, 0);
    return per;
}

// The library's table holding n interfaces (filled once per size), and the keys in shuffled order.
struct Table {
    uint32_t n = 0;
    std::vector<uint32_t> order;
    std::unordered_map<uint32_t, libpmx_intf_info_t> by_ifx, by_phyid;

    static Table &with(uint32_t n)
    {
        static Table t;
        fresh_bytes_per_intf();
        if (t.n != n) t.fill(n);
        return t;
    }
    // Measured once, before the first fill (see fresh_fill_bytes_per_intf); the library is
    // started after it.
    static double fresh_bytes_per_intf()
    {
        static const double per = fresh_fill_bytes_per_intf(kMemorySize);
        static const bool ready = per > 0 && (libpmx_hash_init(), libpmx_intf_init() == 0);
        if (!ready) std::abort();
        return per;
    }
    void fill(uint32_t size)
    {
        for (uint32_t i = 0; i < n; ++i) libpmx_del_intf_node(i + 1);
        n = size;
        by_ifx.clear();
        by_phyid.clear();
        for (uint32_t i = 0; i < n; ++i) {
            const libpmx_intf_info_t info = info_of(i);
            libpmx_add_intf_node(&info);
            by_ifx.emplace(info.ifx, info);
            by_phyid.emplace(info.gphyid, info);
        }
        order.resize(n);
        for (uint32_t i = 0; i < n; ++i) order[i] = i;
        std::shuffle(order.begin(), order.end(), std::mt19937(7));
    }
};

template <Impl I> void BM_IfxToPhyid(benchmark::State &state)
{
    Table &t = Table::with(static_cast<uint32_t>(state.range(0)));
    libpmx_intf_index_enable(I != Impl::Chains);
    size_t k = 0;
    uint32_t phy = 0;
    for (auto _ : state) {
        const uint32_t ifx = t.order[k++ % t.n] + 1;
        if constexpr (I == Impl::UnlockedMap)
            phy = t.by_ifx.find(ifx)->second.gphyid;
        else if (libpmx_get_phyid_by_ifx_ext(ifx, &phy) != 0)
            state.SkipWithError("lookup failed");
        benchmark::DoNotOptimize(phy);
    }
    libpmx_intf_index_enable(1);
}

template <Impl I> void BM_PhyidToIfx(benchmark::State &state)
{
    Table &t = Table::with(static_cast<uint32_t>(state.range(0)));
    libpmx_intf_index_enable(I != Impl::Chains);
    size_t k = 0;
    uint32_t ifx = 0;
    for (auto _ : state) {
        const uint32_t phy = gphyid_of(t.order[k++ % t.n]);
        if constexpr (I == Impl::UnlockedMap)
            ifx = t.by_phyid.find(phy)->second.ifx;
        else if (libpmx_get_ifx_by_phyid_ext(phy, &ifx) != 0)
            state.SkipWithError("lookup failed");
        benchmark::DoNotOptimize(ifx);
    }
    libpmx_intf_index_enable(1);
}

// Heap growth while the table takes kMemorySize interfaces from empty (nodes, index, answer maps).
void BM_IntfMemory(benchmark::State &state)
{
    const double per = Table::fresh_bytes_per_intf();
    for (auto _ : state) benchmark::DoNotOptimize(per);
    state.counters["bytes_per_intf"] = per;
}

// A private Redis holding the interface records, and this thread attached to it.
struct Redis {
    pmx_test::RedisServer server;
    qv_mom_glb_t *glb = nullptr;
    bool ok = false;
    Redis()
    {
        char err[256] = "";
        if (!server.start() || (glb = qv_mom_glb_create(server.url().c_str(), err, sizeof err)) == nullptr) return;
        qv_mom_thread_global_t *ctx = qv_mom_thread_attach(glb, nullptr);
        UIntf__IfxIndex index = U_INTF__IFX_INDEX__INIT;
        UIntf__PmxIfxTbl rec = U_INTF__PMX_IFX_TBL__INIT;
        rec.index = &index;
        ok = ctx != nullptr;
        for (uint32_t i = 0; ok && i < 1000; ++i) {
            index.ifx = rec.ifx = i + 1;
            rec.gphyid = gphyid_of(i);
            // A hash record, where and as the library reads it.
            const qv_mom_key_t key{&index.base, rec.base.descriptor};
            ok = qv_mom_hset_sync(ctx, LIBPMX_DB_PMX, &key, &rec.base, nullptr, 0) == QV_MOM_OK;
        }
    }
    ~Redis()
    {
        qv_mom_thread_detach();
        if (glb != nullptr) qv_mom_glb_destroy(glb);
    }
};

template <Impl I> void BM_CachedVsRedis(benchmark::State &state)
{
    static std::unique_ptr<Redis> redis;
    Table &t = Table::with(1000);
    if (I == Impl::RedisRead) {
        if (!redis) redis = std::make_unique<Redis>();
        if (!redis->ok) {
            state.SkipWithError("no private Redis server");
            return;
        }
    }
    size_t k = 0;
    for (auto _ : state) {
        const uint32_t ifx = t.order[k++ % t.n] + 1;
        uint32_t phy = 0;
        if constexpr (I == Impl::RedisRead) {
            libpmx_intf_info_t rec{};
            if (libpmx_get_info_from_pmx_ifx_tbl(ifx, &rec, 1) != 0) state.SkipWithError("read failed");
            phy = rec.gphyid;
        } else if (libpmx_get_phyid_by_ifx_ext(ifx, &phy) != 0) {
            state.SkipWithError("lookup failed");
        }
        benchmark::DoNotOptimize(phy);
    }
}

template <bool Counting> void BM_CountingCost(benchmark::State &state)
{
    Table &t = Table::with(static_cast<uint32_t>(state.range(0)));
    const int was = libpmx_stats_enabled();
    libpmx_stats_enable(Counting ? 1 : 0);
    size_t k = 0;
    uint32_t phy = 0;
    for (auto _ : state) {
        if (libpmx_get_phyid_by_ifx_ext(t.order[k++ % t.n] + 1, &phy) != 0) state.SkipWithError("lookup failed");
        benchmark::DoNotOptimize(phy);
    }
    libpmx_stats_enable(was);
}

} // namespace

#define SIZES Arg(1000)->Arg(10000)->Arg(50000)
BENCHMARK_TEMPLATE(BM_IfxToPhyid, Impl::UnlockedMap)->Name("BM_IfxToPhyid<UnlockedMap>")->SIZES;
BENCHMARK_TEMPLATE(BM_IfxToPhyid, Impl::Indexed)->Name("BM_IfxToPhyid<Indexed>")->SIZES;
BENCHMARK_TEMPLATE(BM_IfxToPhyid, Impl::Chains)->Name("BM_IfxToPhyid<Chains>")->SIZES;
BENCHMARK_TEMPLATE(BM_PhyidToIfx, Impl::UnlockedMap)->Name("BM_PhyidToIfx<UnlockedMap>")->SIZES;
BENCHMARK_TEMPLATE(BM_PhyidToIfx, Impl::Indexed)->Name("BM_PhyidToIfx<Indexed>")->SIZES;
BENCHMARK_TEMPLATE(BM_PhyidToIfx, Impl::Chains)->Name("BM_PhyidToIfx<Chains>")->SIZES;
BENCHMARK_TEMPLATE(BM_CountingCost, false)->Name("BM_CountingCost<Off>")->Arg(10000);
BENCHMARK_TEMPLATE(BM_CountingCost, true)->Name("BM_CountingCost<On>")->Arg(10000);
BENCHMARK(BM_IntfMemory)->Arg(kMemorySize)->Iterations(1);
BENCHMARK_TEMPLATE(BM_CachedVsRedis, Impl::RedisRead)->Name("BM_CachedVsRedis<RedisRead>")->Arg(1000);
BENCHMARK_TEMPLATE(BM_CachedVsRedis, Impl::Indexed)->Name("BM_CachedVsRedis<Cached>")->Arg(1000);
BENCHMARK_MAIN();

// Statistics of the caches and of the database records, and the "stats" debug command.
#define LIBPMX_LOG_SOURCE "app/libpmx/libpmx_dbg"
#include "libpmx_log.h"

#include "libpmx_stats.hpp"

#include <time.h>

#include <cinttypes>
#include <cstdlib>
#include <cstring>
#include <mutex>

#include "libpmx_dbg.h"
#include "libpmx_dbg_json.hpp"
#include "libpmx_errno.h"

namespace pmx::stats
{

namespace
{

bool counting_at_start()
{
    const char *v = std::getenv("PMX_STATS");
    return v == nullptr || std::strcmp(v, "0") != 0;
}

struct Totals {
    uint64_t cache[kCaches][kCacheFields] = {};
    uint64_t record[kRecords][kRecordFields] = {};
};

constexpr const char *kCacheNames[] = {
#define PMX_STAT_CACHE_NAME(id, name) name,
    PMX_STAT_CACHES(PMX_STAT_CACHE_NAME)
#undef PMX_STAT_CACHE_NAME
};

std::mutex g_blocks_mutex;
Block *g_blocks = nullptr; // live threads' blocks
Totals g_retired;          // of threads that ended
Totals g_baseline;         // the sums at the last reset

void add_block(Totals &t, const Block &b)
{
    for (uint32_t i = 0; i < kCaches; ++i)
        for (uint32_t f = 0; f < kCacheFields; ++f) t.cache[i][f] += b.cache[i][f].load(std::memory_order_relaxed);
    for (uint32_t i = 0; i < kRecords; ++i)
        for (uint32_t f = 0; f < kRecordFields; ++f) {
            const uint64_t v = b.record[i][f].load(std::memory_order_relaxed);
            if (f == kWaitMaxNs) {
                if (v > t.record[i][f]) t.record[i][f] = v;
            } else {
                t.record[i][f] += v;
            }
        }
}

// Everything counted so far; the caller holds g_blocks_mutex.
Totals sum_locked()
{
    Totals t = g_retired;
    for (const Block *b = g_blocks; b != nullptr; b = b->next) add_block(t, *b);
    return t;
}

// Since the last reset (the longest wait is not reset: it is the longest seen).
Totals since_reset()
{
    std::lock_guard<std::mutex> lock(g_blocks_mutex);
    Totals t = sum_locked();
    for (uint32_t i = 0; i < kCaches; ++i)
        for (uint32_t f = 0; f < kCacheFields; ++f) t.cache[i][f] -= g_baseline.cache[i][f];
    for (uint32_t i = 0; i < kRecords; ++i)
        for (uint32_t f = 0; f < kRecordFields; ++f)
            if (f != kWaitMaxNs) t.record[i][f] -= g_baseline.record[i][f];
    return t;
}

// Adds the ending thread's block to the retired totals.
struct Retirer {
    ~Retirer()
    {
        Block *mine = t_block;
        if (mine == nullptr) return;
        std::lock_guard<std::mutex> lock(g_blocks_mutex);
        add_block(g_retired, *mine);
        for (Block **p = &g_blocks; *p != nullptr; p = &(*p)->next)
            if (*p == mine) {
                *p = mine->next;
                break;
            }
        t_block = nullptr;
        delete mine;
    }
};

Block *new_block()
{
    auto *b = new Block;
    for (auto &row : b->cache)
        for (auto &c : row) c.store(0, std::memory_order_relaxed);
    for (auto &row : b->record)
        for (auto &c : row) c.store(0, std::memory_order_relaxed);
    b->next = nullptr;
    return b;
}

Block *record_block(Record r)
{
    return static_cast<uint32_t>(r) < kRecords && g_counting.load(std::memory_order_relaxed) ? block() : nullptr;
}

} // namespace

std::atomic<bool> g_counting{counting_at_start()};
__thread Block *t_block __attribute__((tls_model("initial-exec"))) = nullptr;

Block *attach()
{
    thread_local Retirer retirer; // its destructor runs when this thread ends
    (void)retirer;
    Block *b = new_block();
    {
        std::lock_guard<std::mutex> lock(g_blocks_mutex);
        b->next = g_blocks;
        g_blocks = b;
    }
    t_block = b;
    return b;
}

uint64_t mono_ns()
{
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<uint64_t>(ts.tv_sec) * 1000000000u + static_cast<uint64_t>(ts.tv_nsec);
}

void read(Record r, int rc)
{
    if (Block *b = record_block(r)) {
        auto &row = b->record[static_cast<uint32_t>(r)];
        bump(row[kReads]);
        if (rc != LIBPMX_OK) bump(row[kReadFailures]);
    }
}

void wait(Record r, uint64_t ns)
{
    if (Block *b = record_block(r)) {
        auto &row = b->record[static_cast<uint32_t>(r)];
        bump(row[kWaits]);
        bump(row[kWaitNs], ns);
        if (ns > row[kWaitMaxNs].load(std::memory_order_relaxed)) row[kWaitMaxNs].store(ns, std::memory_order_relaxed);
    }
}

void applied(Record r, bool add)
{
    if (Block *b = record_block(r)) bump(b->record[static_cast<uint32_t>(r)][add ? kAdds : kDeletes]);
}

Record kind_of(const void *descriptor)
{
    for (uint32_t i = 0; i < kRecords; ++i)
        if (record_kind(static_cast<Record>(i)).record == descriptor) return static_cast<Record>(i);
    return Record::COUNT;
}

WaitClock::WaitClock(Record r) : record_(r), begin_ns_(mono_ns()) {}

WaitClock::~WaitClock()
{
    if (waited_) wait(record_, mono_ns() - begin_ns_);
}

namespace
{

double ms(uint64_t ns)
{
    return static_cast<double>(ns) / 1e6;
}

const char *short_name(Record r)
{
    const char *full = record_kind(r).record->name;
    return full != nullptr ? full : "?";
}

uint64_t lookups(const uint64_t *c)
{
    return c[kHits] + c[kMisses];
}

bool cache_used(const Totals &t, uint32_t i)
{
    return lookups(t.cache[i]) != 0;
}

bool record_used(const Totals &t, uint32_t i)
{
    for (uint32_t f = 0; f < kRecordFields; ++f)
        if (t.record[i][f] != 0) return true;
    return false;
}

void print_json(const Totals &t, bool all)
{
    {
        JsonTable table("cache stats");
        for (uint32_t i = 0; i < kCaches; ++i) {
            if (!all && !cache_used(t, i)) continue;
            const uint64_t *c = t.cache[i];
            table.row({num("cache", i), text("name", kCacheNames[i]), num("lookups", static_cast<int64_t>(lookups(c))),
                       num("hits", static_cast<int64_t>(c[kHits])),
                       num("misses", static_cast<int64_t>(c[kMisses]))});
        }
        table.end();
    }
    JsonTable table("record stats");
    for (uint32_t i = 0; i < kRecords; ++i) {
        if (!all && !record_used(t, i)) continue;
        const uint64_t *r = t.record[i];
        table.row({text("record", short_name(static_cast<Record>(i))), num("db_reads", static_cast<int64_t>(r[kReads])),
                   num("db_failures", static_cast<int64_t>(r[kReadFailures])),
                   num("waits", static_cast<int64_t>(r[kWaits])), num("wait_us", static_cast<int64_t>(r[kWaitNs] / 1000)),
                   num("wait_max_us", static_cast<int64_t>(r[kWaitMaxNs] / 1000)),
                   num("applied_adds", static_cast<int64_t>(r[kAdds])),
                   num("applied_deletes", static_cast<int64_t>(r[kDeletes]))});
    }
    table.end();
}

void print_text(const Totals &t, bool all)
{
    uint32_t hidden_caches = 0, hidden_records = 0;
    ssat_printf("%-34s %12s %12s %12s %7s\n", "cache", "lookups", "hits", "misses", "hit%");
    for (uint32_t i = 0; i < kCaches; ++i) {
        if (!all && !cache_used(t, i)) {
            ++hidden_caches;
            continue;
        }
        const uint64_t *c = t.cache[i];
        const double pct =
            lookups(c) != 0 ? 100.0 * static_cast<double>(c[kHits]) / static_cast<double>(lookups(c)) : 0.0;
        ssat_printf("%-34s %12" PRIu64 " %12" PRIu64 " %12" PRIu64 " %7.2f\n", kCacheNames[i], lookups(c), c[kHits],
                    c[kMisses], pct);
    }
    ssat_printf("\n%-34s %9s %9s %7s %11s %10s %10s %10s\n", "record", "db reads", "failed", "waits", "wait ms",
                "max ms", "applied+", "applied-");
    for (uint32_t i = 0; i < kRecords; ++i) {
        if (!all && !record_used(t, i)) {
            ++hidden_records;
            continue;
        }
        const uint64_t *r = t.record[i];
        ssat_printf("%-34s %9" PRIu64 " %9" PRIu64 " %7" PRIu64 " %11.1f %10.1f %10" PRIu64 " %10" PRIu64 "\n",
                    short_name(static_cast<Record>(i)), r[kReads], r[kReadFailures], r[kWaits], ms(r[kWaitNs]),
                    ms(r[kWaitMaxNs]), r[kAdds], r[kDeletes]);
    }
    ssat_printf("\ncounting %s", g_counting.load(std::memory_order_relaxed) ? "on" : "off");
    if (hidden_caches + hidden_records != 0)
        ssat_printf("; %u caches and %u records not used yet (all=1 shows them)", hidden_caches, hidden_records);
    ssat_printf("\n");
}

int cmd_stats(const char *args)
{
    DbgArgs a(args, {"json", "all", "reset", "counting"});
    if (!a.error().empty()) return dbg_usage("stats", "[json=1] [all=1] [reset=1] [counting=0|1]", a.error());
    if (a.has("counting")) libpmx_stats_enable(a.get("counting", 1) != 0 ? 1 : 0);
    if (a.get("reset", 0) != 0) {
        libpmx_stats_reset();
        ssat_printf("statistics reset\n");
        return LIBPMX_OK;
    }
    const Totals t = since_reset();
    if (a.get("json", 0) != 0)
        print_json(t, a.get("all", 0) != 0);
    else
        print_text(t, a.get("all", 0) != 0);
    return LIBPMX_OK;
}

const libpmx_dbg_cmd_t kStatsCommands[] = {
    {"stats", "[json=1] [all=1] [reset=1] [counting=0|1]  lookups, hits and misses of every cache; database "
              "reads, waits and applied changes of every record",
     cmd_stats},
};

} // namespace

void add_cmds()
{
    libpmx_dbg_add_cmds(kStatsCommands, sizeof kStatsCommands / sizeof kStatsCommands[0]);
}

} // namespace pmx::stats

extern "C" void libpmx_stats_enable(int on)
{
    pmx::stats::g_counting.store(on != 0, std::memory_order_relaxed);
}

extern "C" int libpmx_stats_enabled(void)
{
    return pmx::stats::g_counting.load(std::memory_order_relaxed) ? 1 : 0;
}

extern "C" void libpmx_stats_reset(void)
{
    using namespace pmx::stats;
    std::lock_guard<std::mutex> lock(g_blocks_mutex);
    const Totals now = sum_locked();
    std::memcpy(&g_baseline, &now, sizeof now);
}

extern "C" int64_t libpmx_stats_cache_count(uint32_t cache, uint32_t field)
{
    using namespace pmx::stats;
    if (cache >= kCaches || field > 1) return -1;
    const Totals t = since_reset();
    const uint64_t *c = t.cache[cache];
    return static_cast<int64_t>(field == 0 ? lookups(c) : c[kMisses]);
}

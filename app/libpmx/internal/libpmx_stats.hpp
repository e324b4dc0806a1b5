// Counters of the caches and of the database records (internal).
//
// Each thread counts into a block of its own (plain loads and stores, no shared cache line), so
// counting costs a cached query one thread-local increment; the stats command sums the blocks.
// A thread that ends adds its block to a retired total. Counting can be switched off at run time
// (libpmx_stats_enable, PMX_STATS=0): the query path then only tests one flag.
#ifndef LIBPMX_STATS_HPP
#define LIBPMX_STATS_HPP

#include <atomic>
#include <cstdint>

#include "libpmx_records.h"

namespace pmx::stats
{

// Every cache and table a query looks up.
#define PMX_STAT_CACHES(X)                                                                                  \
    X(IfxIndex, "interface by ifx")                                                                         \
    X(PhyidIndex, "interface by phyid")                                                                     \
    X(CardAddrId, "cid by card type")                                                                       \
    X(SubcardTypeId, "scid by subcard type")                                                                \
    X(ChipSlot, "module table by gslot")                                                                    \
    X(ChipidRes, "chip-id resource by modid")                                                               \
    X(CardInfo, "card type by dev/slot/sslot")                                                              \
    X(CardTypePoe, "poe by card type")                                                                      \
    X(GlobalSport, "sub-slot/panel port by chip port")                                                      \
    X(Sysport, "system port")                                                                               \
    X(SubApInfo, "sub-AP by ifx")                                                                           \
    X(SubRouteInfo, "sub-route by ifx")                                                                     \
    X(PortCache, "local port by unit-port")                                                                 \
    X(PhyK2v, "split phyid maps")                                                                           \
    X(PortK2v, "split gslot-port map")                                                                      \
    X(InvalidModid, "invalid modids")                                                                       \
    X(LocalCardPortReady, "sub-slot readiness")                                                             \
    X(NotifyHook, "notify hooks")

enum class Cache : uint32_t {
#define PMX_STAT_CACHE_ID(id, name) id,
    PMX_STAT_CACHES(PMX_STAT_CACHE_ID)
#undef PMX_STAT_CACHE_ID
        COUNT
};
inline constexpr uint32_t kCaches = static_cast<uint32_t>(Cache::COUNT);
inline constexpr uint32_t kRecords = static_cast<uint32_t>(Record::COUNT);

// Hits and misses, each only growing: a lookup is one or the other.
enum CacheField : uint32_t { kHits, kMisses, kCacheFields };
enum RecordField : uint32_t {
    kReads,        // database reads (the fall-backs of a cache miss, and reads of records never cached)
    kReadFailures, // of which returned no record
    kWaits,        // waits: reads that slept for their record, and the unbounded waits
    kWaitNs,       // their time
    kWaitMaxNs,    // the longest
    kAdds,         // records applied from the database's change events
    kDeletes,
    kRecordFields
};

struct Block {
    std::atomic<uint64_t> cache[kCaches][kCacheFields];
    std::atomic<uint64_t> record[kRecords][kRecordFields];
    Block *next;
};

extern std::atomic<bool> g_counting;
extern __thread Block *t_block __attribute__((tls_model("initial-exec")));

// The calling thread's block, made and linked on its first count.
Block *attach();

inline Block *block()
{
    Block *b = t_block;
    return b != nullptr ? b : attach();
}

// One writer per block: a relaxed load and store, which the summing reader may see late.
inline void bump(std::atomic<uint64_t> &c, uint64_t n = 1)
{
    c.store(c.load(std::memory_order_relaxed) + n, std::memory_order_relaxed);
}

inline void count_lookup(Cache c, bool hit)
{
    if (!g_counting.load(std::memory_order_relaxed)) [[unlikely]]
        return;
    bump(block()->cache[static_cast<uint32_t>(c)][hit ? kHits : kMisses]);
}

// A lookup of cache c; hands the result back so that a find can be wrapped.
template <typename T> inline T *lookup(Cache c, T *found)
{
    count_lookup(c, found != nullptr);
    return found;
}

// A read of a record from the database (rc 0 when it was found).
void read(Record r, int rc);
// A wait for a record that lasted ns nanoseconds.
void wait(Record r, uint64_t ns);
// A record of kind r applied from a change event (add or delete).
void applied(Record r, bool add);
// The kind of a record message, or Record::COUNT when the library does not know it.
Record kind_of(const void *descriptor);

// Times one unbounded wait and counts it when it ends, if it waited at all.
class WaitClock
{
public:
    explicit WaitClock(Record r);
    ~WaitClock();
    void waited() { waited_ = true; }
    WaitClock(const WaitClock &) = delete;
    WaitClock &operator=(const WaitClock &) = delete;

private:
    Record record_;
    uint64_t begin_ns_;
    bool waited_ = false;
};

uint64_t mono_ns();
void add_cmds();

} // namespace pmx::stats

#endif // LIBPMX_STATS_HPP

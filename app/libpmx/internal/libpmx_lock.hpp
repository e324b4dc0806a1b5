// The library's reader-writer locks and their one guard (internal).
//
// Each lock is declared beside the tables it guards, with its place in the lock order. A thread
// takes locks only in increasing order; a debug build checks it on every acquisition and aborts
// with both names, so an inversion shows up in the first test that runs the path.
#ifndef LIBPMX_LOCK_HPP
#define LIBPMX_LOCK_HPP

#include <pthread.h>

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

namespace pmx
{

// Places in the lock order, lowest taken first. The block-record lock is a leaf: nothing is
// taken while it is held.
enum class LockRank : uint8_t {
    IntfTable = 1,     // interface table and the card-id caches
    SubAp = 10,        // sub-AP cache (never held with the sub-route lock)
    SubRoute = 11,     // sub-route cache
    ModTable = 20,     // chip-id resources and per-slot records
    CardInfo = 21,     // card type of each dev/slot/sslot (never held with the module-table lock)
    GlobalSport = 22,  // sub-slot and panel port of a card type's chip ports
    Sysport = 23,      // system ports
    SplitGphy = 30,    // split ports: module-port <-> gphyid (the three never held together)
    SplitLphy = 31,    // split ports: unit-port <-> lphyid
    SplitPort = 32,    // split ports: gslot + unit-port <-> lport
    PortTable = 40,    // the local port table (unit-port index and panel-port entries)
    InvalidModid = 50, // module ids declared invalid
    NotifyHooks = 55,  // the notify-hook registry (never held while a hook runs)
    BlockRecords = 60, // block records of long database waits
};

class RwLock
{
public:
    constexpr RwLock(const char *name, LockRank rank) : name_(name), rank_(rank) {}
    RwLock(const RwLock &) = delete;
    RwLock &operator=(const RwLock &) = delete;

    const char *name() const { return name_; }
    LockRank rank() const { return rank_; }
    pthread_rwlock_t *native() { return &lock_; }

    // Optimistic reads, for the hottest lookups: a reader that reads without taking the lock
    // keeps its answer only when no writer held the lock meanwhile, else it asks again under the
    // lock. The count is odd while a writer holds the lock and grows by two with each write. The
    // data so read must stay valid memory, be written with release stores and read with acquire
    // loads: those order the reader's second look at the count after its reads.
    uint32_t read_begin() const { return writes_.load(std::memory_order_acquire); }
    bool read_valid(uint32_t begin) const
    {
        return (begin & 1u) == 0 && writes_.load(std::memory_order_relaxed) == begin;
    }
    void write_begin() { writes_.store(writes_.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed); }
    void write_end() { writes_.store(writes_.load(std::memory_order_relaxed) + 1, std::memory_order_release); }

private:
    pthread_rwlock_t lock_ = PTHREAD_RWLOCK_INITIALIZER;
    std::atomic<uint32_t> writes_{0};
    const char *name_;
    LockRank rank_;
};

enum class Access { Read, Write };

// Holds a lock for reading (lookups, walks, dumps) or writing (changes) while in scope.
class Guard
{
public:
    Guard(RwLock &lock, Access access) : lock_(lock), write_(access == Access::Write)
    {
#ifndef NDEBUG
        outer_ = held_;
        outer_read_ = held_read_;
        // A walk's callback may look the same table up again: a read on top of a read is fine.
        const bool reread = held_ == &lock && held_read_ && access == Access::Read;
        if (held_ != nullptr && held_->rank() >= lock.rank() && !reread) {
            std::fprintf(stderr, "libpmx: lock order broken: %s taken while %s is held\n", lock.name(),
                         held_->name());
            std::abort();
        }
        held_ = &lock_;
        held_read_ = access == Access::Read;
#endif
        if (access == Access::Read) {
            pthread_rwlock_rdlock(lock_.native());
        } else {
            pthread_rwlock_wrlock(lock_.native());
            lock_.write_begin();
        }
    }
    ~Guard() { release(); }
    // Releases the lock before the end of the scope: the platform's result, 0 when already released.
    int release()
    {
        if (released_) return 0;
        released_ = true;
#ifndef NDEBUG
        held_ = outer_;
        held_read_ = outer_read_;
#endif
        if (write_) lock_.write_end();
        return pthread_rwlock_unlock(lock_.native());
    }
    Guard(const Guard &) = delete;
    Guard &operator=(const Guard &) = delete;

private:
    RwLock &lock_;
    const bool write_;
    bool released_ = false;
#ifndef NDEBUG
    // The order check of debug builds: the lock held before this one, and the innermost one.
    RwLock *outer_ = nullptr;
    bool outer_read_ = false;
    static inline thread_local RwLock *held_ = nullptr;
    static inline thread_local bool held_read_ = false;
#endif
};

} // namespace pmx

#endif // LIBPMX_LOCK_HPP

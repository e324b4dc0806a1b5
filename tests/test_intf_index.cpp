// The indexed interface table against the chains alone: long random sequences of add, update
// (both kinds of conflict), direct allocation (a second node of one ifx) and delete; after every
// step the same result and the same log lines, and at intervals every lookup and both walks.
// The lock-free answer maps are held against the index, and against a plain map by themselves.
#define LIBPMX_LOG_SOURCE "app/libpmx/libpmx_intf"
#include "libpmx_intf_table.hpp"
#include "libpmx_lock.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <random>
#include <thread>
#include <string>
#include <unordered_map>
#include <vector>

#include "log_capture.h"

namespace
{

using Indexed = pmx::IntfTable<true>;
using Chains = pmx::IntfTable<false>;

std::vector<std::string> texts(LogCapture &log)
{
    std::vector<std::string> out;
    for (const auto &l : log.lines()) out.push_back(std::to_string(l.level) + " " + l.func + ": " + l.text);
    log.clear();
    return out;
}

template <class Table> std::string walk(const Table &t, bool by_phy)
{
    std::string out;
    auto row = [&](const pmx::IntfNode *n) {
        out += std::to_string(n->info.ifx) + ":" + std::to_string(n->info.gphyid) + ":" + std::to_string(n->info.lport) + " ";
    };
    if (by_phy)
        t.for_each_in_phy_order(row);
    else
        t.for_each_in_ifx_order(row);
    return out;
}

// What the lock-free answers say: the value, "-" for none, "?" when they cannot tell.
template <class Lookup> std::string lockfree(Lookup lookup, uint32_t key)
{
    uint32_t v = 0;
    switch (lookup(key, &v)) {
    case Indexed::Answer::Found:
        return std::to_string(v);
    case Indexed::Answer::Absent:
        return "-";
    default:
        return "?";
    }
}

// The answer of a lookup as text: the ifx, gphyid and lport of the node, or "-".
std::string answer(const pmx::IntfNode *n)
{
    return n == nullptr ? "-" : std::to_string(n->info.ifx) + "/" + std::to_string(n->info.gphyid) + "/" +
                                    std::to_string(n->info.lport);
}

} // namespace

TEST(IntfIndex, AnswersLogsAndWalksEqualTheChainsAlone)
{
    Indexed fast;
    Chains plain;
    ASSERT_TRUE(fast.init());
    ASSERT_TRUE(plain.init());
    ASSERT_TRUE(fast.indexed());
    LogCapture log(5);
    std::mt19937 rng(20261123);
    // Few keys, many sharing a chain (AND 63), so that conflicts and long chains are common.
    // Now and then an ifx or a gphyid of 0, which the answer maps never hold.
    auto ifx_of = [&] { return rng() % 100 == 0 ? 0u : 1 + rng() % 300; };
    auto phy_of = [&] { return rng() % 50 == 0 ? 0u : 0x07000000u + (rng() % 40) * 64 + rng() % 3; };

    for (int step = 0; step < 30000; ++step) {
        libpmx_intf_info_t info{};
        info.ifx = ifx_of();
        info.gphyid = phy_of();
        info.lport = step;
        const unsigned op = rng() % 10;
        int rc_fast = 0, rc_plain = 0;
        std::vector<std::string> logs_fast, logs_plain;
        auto apply = [&](auto &t, int &rc, std::vector<std::string> &logs) {
            if (op < 5) { // add: update, else allocate
                rc = t.update(&info);
                if (rc == 0) rc = t.alloc(&info);
            } else if (op < 7) {
                rc = t.update(&info);
            } else if (op < 8) {
                rc = t.alloc(&info); // a second node of the same ifx, as a direct caller can make
            } else {
                rc = t.del(info.ifx);
            }
            logs = texts(log);
        };
        apply(plain, rc_plain, logs_plain);
        apply(fast, rc_fast, logs_fast);
        ASSERT_EQ(rc_fast, rc_plain) << "step " << step << " op " << op;
        ASSERT_EQ(logs_fast, logs_plain) << "step " << step << " op " << op;
        ASSERT_EQ(fast.size(), plain.size());

        // Off for a while (the chains answer), then built again from the chains.
        if (step == 12000) {
            ASSERT_TRUE(fast.set_indexed(false));
        }
        if (step == 12700) {
            ASSERT_TRUE(fast.set_indexed(true) && fast.indexed());
        }
        if (step % 500 == 0) {
            const bool on = fast.indexed();
            auto phy_answer = [&](uint32_t k, uint32_t *v) { return fast.answer_phyid(k, v); };
            auto ifx_answer = [&](uint32_t k, uint32_t *v) { return fast.answer_ifx(k, v); };
            for (uint32_t ifx = 0; ifx <= 301; ++ifx) {
                const pmx::IntfNode *n = plain.by_ifx(ifx);
                ASSERT_EQ(answer(fast.by_ifx(ifx)), answer(n)) << "ifx " << ifx << " step " << step;
                const std::string want = !on || ifx == 0 ? "?" : n != nullptr ? std::to_string(n->info.gphyid) : "-";
                ASSERT_EQ(lockfree(phy_answer, ifx), want) << "ifx " << ifx << " step " << step;
            }
            for (uint32_t k = 0; k < 40 * 64 + 3; ++k) {
                const pmx::IntfNode *n = plain.by_phyid(0x07000000u + k);
                ASSERT_EQ(answer(fast.by_phyid(0x07000000u + k)), answer(n)) << "phyid " << k << " step " << step;
                const std::string want = !on ? "?" : n != nullptr ? std::to_string(n->info.ifx) : "-";
                ASSERT_EQ(lockfree(ifx_answer, 0x07000000u + k), want) << "phyid " << k << " step " << step;
            }
            ASSERT_EQ(answer(fast.by_phyid(0)), answer(plain.by_phyid(0))) << "phyid 0 step " << step;
            ASSERT_EQ(lockfree(ifx_answer, 0), "?");
            ASSERT_EQ(walk(fast, false), walk(plain, false)) << "step " << step;
            ASSERT_EQ(walk(fast, true), walk(plain, true)) << "step " << step;
        }
    }
    EXPECT_GT(fast.size(), 100u) << "the sequence kept the table populated";
    fast.clear();
    EXPECT_EQ(fast.size(), 0u);
    EXPECT_EQ(fast.by_phyid(0x07000000u), nullptr);
    fast.release();
    plain.release();
}

// An allocation policy that fails once its budget is spent (-1: no limit).
struct Budget {
    static inline int left = -1;
    static void *alloc(size_t n)
    {
        if (left == 0) return nullptr;
        if (left > 0) --left;
        return std::malloc(n);
    }
    static void *resize(void *p, size_t n)
    {
        if (left == 0) return nullptr;
        if (left > 0) --left;
        return std::realloc(p, n);
    }
    static void release(void *p) { std::free(p); }
};

// When the index or an answer map cannot grow, the index is dropped with an error line: the
// chains answer (the same answers), the lock-free answers say they cannot tell, and the index
// built again later answers as before.
TEST(IntfIndex, NoMemoryDropsTheIndexAndTheChainsAnswer)
{
    pmx::IntfTable<true, Budget> fast;
    Chains plain;
    Budget::left = -1;
    ASSERT_TRUE(fast.init());
    ASSERT_TRUE(plain.init());
    LogCapture log(5);
    Budget::left = 6; // enough for the first buckets and slots, not for growing them
    uint32_t dropped_at = 0;
    for (uint32_t i = 1; i <= 400; ++i) {
        libpmx_intf_info_t info{};
        info.ifx = i;
        info.gphyid = 0x07000000u + i;
        ASSERT_EQ(fast.alloc(&info), plain.alloc(&info));
        if (dropped_at == 0 && !fast.indexed()) dropped_at = i;
    }
    ASSERT_NE(dropped_at, 0u) << "the budget ran out";
    bool logged = false;
    for (const auto &l : log.lines())
        logged = logged || l.text == "NO MEMORY!!! interface index dropped at " + std::to_string(dropped_at) +
                                         " nodes, the chains answer";
    EXPECT_TRUE(logged) << "the drop names the node count";
    uint32_t v = 0;
    EXPECT_EQ(fast.answer_phyid(5, &v), decltype(fast)::Answer::Unknown);
    EXPECT_EQ(fast.answer_ifx(0x07000005u, &v), decltype(fast)::Answer::Unknown);
    for (uint32_t i = 1; i <= 401; ++i) {
        ASSERT_EQ(answer(fast.by_ifx(i)), answer(plain.by_ifx(i))) << "ifx " << i;
        ASSERT_EQ(answer(fast.by_phyid(0x07000000u + i)), answer(plain.by_phyid(0x07000000u + i))) << "ifx " << i;
    }
    EXPECT_FALSE(fast.set_indexed(true)) << "no memory yet";
    Budget::left = -1;
    ASSERT_TRUE(fast.set_indexed(true));
    EXPECT_EQ(fast.answer_phyid(5, &v), decltype(fast)::Answer::Found);
    EXPECT_EQ(v, 0x07000005u);
    EXPECT_EQ(fast.answer_ifx(0x07000401u, &v), decltype(fast)::Answer::Absent);
    fast.release();
    plain.release();
}

// The first n keys whose home slot in a map of mask + 1 slots is first_home or later: for 60 to 63
// of 64 slots, every run of them wraps around the end of the slots.
std::vector<uint32_t> keys_homed_from(uint32_t first_home, uint32_t mask, size_t n)
{
    std::vector<uint32_t> keys;
    for (uint32_t k = 1; keys.size() < n; ++k)
        if ((pmx::mix32(k) & mask) >= first_home) keys.push_back(k);
    return keys;
}

// The lock-free map alone against std::unordered_map. First 31 keys whose homes are the last 4 of
// 64 slots (the map stays at 64 slots): every run wraps around the end, and each erase shifts
// part of it back, across the end or not; the whole map is compared after every step. Then
// growth from there to thousands of keys, with erases along the way.
TEST(SeqMap, SetEraseAndGrowthEqualAPlainMap)
{
    pmx::SeqMap m;
    std::unordered_map<uint32_t, uint32_t> ref;
    std::mt19937 rng(7);
    uint32_t v = 0;
    EXPECT_FALSE(m.find(5, &v)) << "an empty map answers nothing";
    auto agree = [&](const std::vector<uint32_t> &keys) {
        for (uint32_t key : keys) {
            const auto it = ref.find(key);
            const bool found = m.find(key, &v);
            if (found != (it != ref.end()) || (found && v != it->second)) return false;
        }
        return m.size() == ref.size();
    };
    auto step = [&](uint32_t key) {
        if (rng() % 3 == 0) {
            m.erase(key);
            ref.erase(key);
            return true;
        }
        const uint32_t val = rng();
        ref[key] = val;
        return m.set(key, val);
    };

    const std::vector<uint32_t> crowded = keys_homed_from(60, 63, 31);
    ASSERT_TRUE(m.set(crowded[0], 1));
    ref[crowded[0]] = 1;
    const size_t slots64 = m.bytes();
    for (int i = 0; i < 20000; ++i) {
        ASSERT_TRUE(step(crowded[rng() % crowded.size()]));
        ASSERT_TRUE(agree(crowded)) << "step " << i;
    }
    ASSERT_EQ(m.bytes(), slots64) << "the crowded keys stayed in 64 slots";

    std::vector<uint32_t> many(20000);
    for (uint32_t i = 0; i < many.size(); ++i) many[i] = 1000 + i;
    for (int round = 0; round < 4; ++round) {
        for (int i = 0; i < 40000; ++i) ASSERT_TRUE(step(many[rng() % many.size()]));
        ASSERT_TRUE(agree(many) && agree(crowded)) << "round " << round;
    }
    EXPECT_GT(m.bytes(), 2 * slots64) << "the map grew";
    EXPECT_TRUE(m.set(0, 9)) << "key 0 is never stored";
    EXPECT_FALSE(m.find(0, &v));
    const size_t grown = m.bytes();
    m.clear();
    EXPECT_EQ(m.size(), 0u);
    EXPECT_FALSE(m.find(ref.begin()->first, &v));
    EXPECT_EQ(m.bytes(), grown) << "clear keeps the arrays a reader may hold";
    m.release();
    EXPECT_EQ(m.bytes(), 0u);
}

// Readers without the lock while a writer erases and sets again keys of one run that wraps around
// the end of the slots (each erase shifts the run back): every key is there whenever the writer
// does not hold the lock, so an answer kept after the check of the write count is always the
// key's own value.
TEST(SeqMap, ReadersWithoutTheLockKeepOnlyCheckedAnswers)
{
    pmx::RwLock lock("test map", pmx::LockRank::IntfTable);
    pmx::SeqMap m;
    const std::vector<uint32_t> keys = keys_homed_from(56, 63, 28); // 28 keys in 64 slots
    auto value_of = [](uint32_t k) { return k * 7919u; };
    {
        pmx::Guard g(lock, pmx::Access::Write);
        for (uint32_t k : keys) ASSERT_TRUE(m.set(k, value_of(k)));
    }
    std::atomic<bool> done{false};
    std::atomic<long> kept{0}, wrong{0};
    auto reader = [&](unsigned seed) {
        while (!done.load()) {
            const uint32_t k = keys[static_cast<uint32_t>(rand_r(&seed)) % keys.size()];
            uint32_t v = 0;
            const uint32_t seen = lock.read_begin();
            const bool found = m.find(k, &v);
            if (!lock.read_valid(seen)) continue; // a writer came by: asked again under the lock
            ++kept;
            wrong += !found || v != value_of(k);
        }
    };
    std::thread r1(reader, 1u), r2(reader, 2u);
    std::mt19937 rng(3);
    // At least 200,000 writes, and on until the readers have kept a good number of answers; a
    // pause now and then leaves them the gaps a busy machine may not.
    for (int i = 0; i < 200000 || (kept.load() < 1000 && i < 20000000); ++i) {
        if (i % 64 == 0) // a gap of a microsecond without the lock
            for (const auto until = std::chrono::steady_clock::now() + std::chrono::microseconds(1);
                 std::chrono::steady_clock::now() < until;) {
            }
        const uint32_t k = keys[rng() % keys.size()];
        pmx::Guard g(lock, pmx::Access::Write);
        m.erase(k);
        m.set(k, value_of(k));
    }
    done = true;
    r1.join();
    r2.join();
    EXPECT_EQ(wrong.load(), 0);
    EXPECT_GE(kept.load(), 1000);
    m.release();
}

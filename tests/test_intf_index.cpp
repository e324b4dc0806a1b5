// The indexed interface table against the chains alone: long random sequences of add, update
// (both kinds of conflict), direct allocation (a second node of one ifx) and delete; after every
// step the same result and the same log lines, and at intervals every lookup and both walks.
// The lock-free answer maps are held against the index, and against a plain map by themselves.
#define LIBPMX_LOG_SOURCE "app/libpmx/libpmx_intf"
#include "libpmx_intf_table.hpp"
#include "libpmx_lock.hpp"

#include <gtest/gtest.h>

#include <atomic>
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
    auto ifx_of = [&] { return 1 + rng() % 300; };
    auto phy_of = [&] { return 0x07000000u + (rng() % 40) * 64 + rng() % 3; };

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

// The lock-free map alone against std::unordered_map: keys crowded into few homes so that runs
// wrap around the end of the slots and deletes shift long runs back; growth from empty to many
// thousands of keys and down again.
TEST(SeqMap, SetEraseAndGrowthEqualAPlainMap)
{
    pmx::SeqMap m;
    std::unordered_map<uint32_t, uint32_t> ref;
    std::mt19937 rng(7);
    uint32_t v = 0;
    EXPECT_FALSE(m.find(5, &v)) << "an empty map answers nothing";
    for (int round = 0; round < 6; ++round) {
        const uint32_t span = round % 2 == 0 ? 150 : 20000; // a small map, then a grown one
        for (int step = 0; step < 40000; ++step) {
            const uint32_t key = 1 + rng() % span;
            if (rng() % 3 == 0) {
                m.erase(key);
                ref.erase(key);
            } else {
                const uint32_t val = rng();
                ASSERT_TRUE(m.set(key, val));
                ref[key] = val;
            }
            ASSERT_EQ(m.size(), ref.size());
        }
        for (uint32_t key = 1; key <= span; ++key) {
            const auto it = ref.find(key);
            const bool found = m.find(key, &v);
            ASSERT_EQ(found, it != ref.end()) << "key " << key << " round " << round;
            if (found) {
                ASSERT_EQ(v, it->second) << "key " << key;
            }
        }
    }
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

// Readers without the lock while a writer erases and sets again keys of one crowded run (each
// erase shifts the run back): an answer kept after the check of the write count is always the
// key's own, and a key that is never erased is always found.
TEST(SeqMap, ReadersWithoutTheLockKeepOnlyCheckedAnswers)
{
    pmx::RwLock lock("test map", pmx::LockRank::IntfTable);
    pmx::SeqMap m;
    constexpr uint32_t kKeys = 28, kStay = 14; // 28 keys in 64 slots: long runs
    auto value_of = [](uint32_t k) { return k * 7919u; };
    {
        pmx::Guard g(lock, pmx::Access::Write);
        for (uint32_t k = 1; k <= kKeys; ++k) ASSERT_TRUE(m.set(k, value_of(k)));
    }
    std::atomic<bool> done{false};
    std::atomic<long> kept{0}, wrong{0};
    auto reader = [&](unsigned seed) {
        while (!done.load()) {
            const uint32_t k = 1 + static_cast<uint32_t>(rand_r(&seed)) % kKeys;
            uint32_t v = 0;
            const uint32_t seen = lock.read_begin();
            const bool found = m.find(k, &v);
            if (!lock.read_valid(seen)) continue; // a writer came by: asked again under the lock
            ++kept;
            wrong += (found && v != value_of(k)) || (!found && k <= kStay);
        }
    };
    std::thread r1(reader, 1u), r2(reader, 2u);
    std::mt19937 rng(3);
    for (int i = 0; i < 200000; ++i) {
        const uint32_t k = kStay + 1 + rng() % (kKeys - kStay);
        pmx::Guard g(lock, pmx::Access::Write);
        m.erase(k);
        m.set(k, value_of(k));
    }
    done = true;
    r1.join();
    r2.join();
    EXPECT_EQ(wrong.load(), 0);
    EXPECT_GT(kept.load(), 0);
    m.release();
}

// The indexed interface table against the chains alone: long random sequences of add, update
// (both kinds of conflict), direct allocation (a second node of one ifx) and delete; after every
// step the same result and the same log lines, and at intervals every lookup and both walks.
#define LIBPMX_LOG_SOURCE "app/libpmx/libpmx_intf"
#include "libpmx_intf_table.hpp"

#include <gtest/gtest.h>

#include <random>
#include <string>
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
            for (uint32_t ifx = 0; ifx <= 301; ++ifx)
                ASSERT_EQ(answer(fast.by_ifx(ifx)), answer(plain.by_ifx(ifx))) << "ifx " << ifx << " step " << step;
            for (uint32_t k = 0; k < 40 * 64 + 3; ++k)
                ASSERT_EQ(answer(fast.by_phyid(0x07000000u + k)), answer(plain.by_phyid(0x07000000u + k)))
                    << "phyid " << k << " step " << step;
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

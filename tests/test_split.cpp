// Split-port mappings: both directions of each map, the choice among several values by cid,
// scid and sub-slot, the per-thread ignore flag, failed updates, the dumps; and readers of the
// module table and split maps while a writer changes them.
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <string>
#include <thread>

#include "libpmx_mod.h"
#include "libpmx_mom.h"
#include "libpmx_port.h"
#include "libpmx_split.h"
#include "log_capture.h"
#include "u_intf.pb-c.h"

namespace
{

constexpr uint32_t gphy(uint32_t cid, uint32_t modid, uint32_t port)
{
    return 7u << 24 | cid << 19 | modid << 8 | port;
}

template <typename Fn> std::string stdout_of(Fn fn)
{
    testing::internal::CaptureStdout();
    fn();
    return testing::internal::GetCapturedStdout();
}

TEST(Split, ModulePortsAndGphyidsBothWays)
{
    const uint32_t a = gphy(2, 16, 5), b = gphy(3, 16, 5);
    ASSERT_EQ(libpmx_update_mod_port_gphyid(a, 16, 5, 1), 0);
    ASSERT_EQ(libpmx_update_mod_port_gphyid(b, 0x810, 5, 1), 0) << "modid masked to 11 bits";
    uint32_t modid = 0, port = 0, g = 0;
    EXPECT_EQ(libpmx_split_cache_get_mod_port_by_phyid(b, &modid, &port), 0);
    EXPECT_EQ(std::make_pair(modid, port), std::make_pair(16u, 5u));
    EXPECT_EQ(libpmx_split_cache_get_phyid_by_mod_port(16, 5, 2, &g), 0);
    EXPECT_EQ(g, a) << "the one whose cid bits match";
    EXPECT_EQ(libpmx_split_cache_get_phyid_by_mod_port(16, 5, UINT32_MAX, &g), 0);
    EXPECT_EQ(g, b) << "cid -1: the first in chain order, the newest";
    EXPECT_EQ(libpmx_split_cache_get_phyid_by_mod_port(16, 5, 9, &g), LIBPMX_E_NOT_FOUND);
    EXPECT_EQ(libpmx_split_cache_get_phyid_by_mod_port(16, 6, UINT32_MAX, &g), LIBPMX_E_NOT_FOUND);
    EXPECT_EQ(libpmx_split_cache_get_mod_port_by_phyid(a, nullptr, &port), LIBPMX_E_INVAL);

    EXPECT_EQ(stdout_of(libpmx_split_dump_glb_phy_tbl),
              "|gphyid    |modid| port|\n|0x07181005|   16|    5|\n|0x07101005|   16|    5|\ntotal 2\n");

    LogCapture log(4);
    ASSERT_EQ(libpmx_update_mod_port_gphyid(b, 16, 5, 0), 0);
    EXPECT_TRUE(log.has(LIBPMX_ZLOG_INFO, "split: remove mod 16, port 5 <=> gphyid 0x7181005"));
    EXPECT_TRUE(log.has(LIBPMX_ZLOG_NOTICE, "split phyid:0x7181005, modid:16, port:5, is_add:0"));
    EXPECT_EQ(libpmx_update_mod_port_gphyid(b, 16, 5, 0), LIBPMX_E_NOT_FOUND);
    EXPECT_TRUE(log.has(LIBPMX_ZLOG_ERROR, "split: remove mod 16, port 5 <=> gphyid 0x7181005, => -7, <= -7"));
    EXPECT_TRUE(log.has(LIBPMX_ZLOG_ERROR, "libpmx_del_modid_port_gphyid fail, ret:-7"));
    EXPECT_EQ(libpmx_split_cache_get_phyid_by_mod_port(16, 5, UINT32_MAX, &g), 0);
    EXPECT_EQ(g, a);
    ASSERT_EQ(libpmx_update_mod_port_gphyid(a, 16, 5, 0), 0);
    EXPECT_EQ(libpmx_split_cache_get_mod_port_by_phyid(a, &modid, &port), LIBPMX_E_NOT_FOUND);
}

TEST(Split, UnitPortsAndLphyids)
{
    const uint32_t on_card = 0x08000010, on_subcard = 0x08010010;
    ASSERT_EQ(libpmx_update_unit_port_lphyid(on_card, 0, 16, 1), 0);
    ASSERT_EQ(libpmx_update_unit_port_lphyid(on_subcard, 0, 16, 1), 0);
    uint32_t unit = 9, port = 9, l = 0;
    EXPECT_EQ(libpmx_split_cache_get_unit_port_by_lphyid(on_card, &unit, &port), 0);
    EXPECT_EQ(std::make_pair(unit, port), std::make_pair(0u, 16u));
    EXPECT_EQ(libpmx_split_cache_get_lphyid_by_unit_port(0, 16, 0, &l), 0);
    EXPECT_EQ(l, on_card);
    EXPECT_EQ(libpmx_split_cache_get_lphyid_by_unit_port(0, 16, 1, &l), 0);
    EXPECT_EQ(l, on_subcard);
    EXPECT_EQ(libpmx_split_cache_get_lphyid_by_unit_port(0, 16, 2, &l), LIBPMX_E_NOT_FOUND);
    EXPECT_EQ(libpmx_split_cache_get_lphyid_by_unit_port(0, 16, 0, nullptr), LIBPMX_E_INVAL);
    EXPECT_EQ(stdout_of(libpmx_split_dump_local_phy_tbl),
              "|lphyid    | unit| port|\n|0x08010010|    0|   16|\n|0x08000010|    0|   16|\ntotal 2\n");
}

TEST(Split, PanelPortsBySlotAndSubSlot)
{
    const uint32_t sub1 = 1u << 10 | 3;
    ASSERT_EQ(libpmx_update_gslot_unit_port_lport(3, 0, 16, 4, 1), 0);
    ASSERT_EQ(libpmx_update_gslot_unit_port_lport(sub1, 1, 20, 1, 1), 0);
    uint32_t unit = 0, port = 0, lport = 0;
    EXPECT_EQ(libpmx_split_cache_get_unit_port_by_gslot_lport(3, 4, &unit, &port), 0);
    EXPECT_EQ(std::make_pair(unit, port), std::make_pair(0u, 16u));
    EXPECT_EQ(libpmx_split_cache_get_unit_port_by_gslot_lport(static_cast<int32_t>(sub1), 1, &unit, &port), 0);
    EXPECT_EQ(std::make_pair(unit, port), std::make_pair(1u, 20u));
    // No sub-slot bits: the first value of the slot's chain, whichever sub-slot it came from.
    EXPECT_EQ(libpmx_split_cache_get_unit_port_by_gslot_lport(3, 1, &unit, &port), 0);
    EXPECT_EQ(std::make_pair(unit, port), std::make_pair(1u, 20u));
    EXPECT_EQ(libpmx_split_cache_get_unit_port_by_gslot_lport(2 << 10 | 3, 1, &unit, &port), LIBPMX_E_NOT_FOUND);
    EXPECT_EQ(libpmx_split_cache_get_lport_by_gslot_unit_port(static_cast<int32_t>(sub1), 1, 20, &lport), 0);
    EXPECT_EQ(lport, 1u);
    EXPECT_EQ(stdout_of(libpmx_split_dump_port_tbl).find("|  1|   3|    1|   1|  20|    1|\n") != std::string::npos,
              true);

    // This card's slot: with the device offset for a device id in 1..16, without it otherwise.
    const int32_t info[5] = {3, 5, 12, 0x0C080500, 0};
    libpmx_cache_set_my_info(info);
    libpmx_cache_set_my_chss(2);
    ASSERT_EQ(libpmx_update_unit_port_lport(0, 30, 5, 7, 1), 0);
    int32_t slot = 0;
    EXPECT_EQ(libpmx_split_cache_get_lport_by_gslot_unit_port(32 + 5, 0, 30, &lport), 0);
    EXPECT_EQ(libpmx_split_cache_get_my_slot_lport_by_unit_port(0, 30, &slot, &lport), 0);
    EXPECT_EQ(std::make_pair(slot, lport), std::make_pair(5, 7u));
    libpmx_cache_set_my_chss(17);
    EXPECT_EQ(libpmx_split_cache_get_my_slot_lport_by_unit_port(0, 30, &slot, &lport), LIBPMX_E_NOT_FOUND);
    ASSERT_EQ(libpmx_update_unit_port_lport(0, 30, 5, 8, 1), 0);
    EXPECT_EQ(libpmx_split_cache_get_lport_by_gslot_unit_port(5, 0, 30, &lport), 0);
    EXPECT_EQ(lport, 8u);
    EXPECT_EQ(libpmx_split_cache_get_my_slot_lport_by_unit_port(0, 30, nullptr, &lport), LIBPMX_E_INVAL);
}

TEST(Split, TheIgnoreFlagIsPerThread)
{
    ASSERT_EQ(libpmx_update_mod_port_gphyid(gphy(4, 40, 1), 40, 1, 1), 0);
    ASSERT_EQ(libpmx_update_unit_port_lphyid(0x08000101, 1, 1, 1), 0);
    LogCapture log(2);
    ASSERT_EQ(libpmx_set_ignore_split_mapping(1), 0);
    EXPECT_EQ(stdout_of(libpmx_dump_ignore_split_mapping), "ignore split flag: 1\n");
    uint32_t a = 0, b = 0;
    int32_t slot = 0;
    EXPECT_EQ(libpmx_split_cache_get_mod_port_by_phyid(gphy(4, 40, 1), &a, &b), LIBPMX_E_SPLIT_IGNORED);
    EXPECT_EQ(libpmx_split_cache_get_phyid_by_mod_port(40, 1, UINT32_MAX, &a), LIBPMX_E_SPLIT_IGNORED);
    EXPECT_EQ(libpmx_split_cache_get_unit_port_by_lphyid(0x08000101, &a, &b), LIBPMX_E_SPLIT_IGNORED);
    EXPECT_EQ(libpmx_split_cache_get_lphyid_by_unit_port(1, 1, UINT32_MAX, nullptr), LIBPMX_E_SPLIT_IGNORED)
        << "before the output check";
    EXPECT_EQ(libpmx_split_cache_get_unit_port_by_gslot_lport(3, 4, &a, &b), LIBPMX_E_SPLIT_IGNORED);
    EXPECT_EQ(libpmx_split_cache_get_lport_by_gslot_unit_port(3, 0, 16, &a), LIBPMX_E_SPLIT_IGNORED);
    EXPECT_EQ(libpmx_split_cache_get_my_slot_lport_by_unit_port(0, 16, &slot, &a), LIBPMX_E_SPLIT_IGNORED);
    char line[64];
    std::snprintf(line, sizeof line, "has ignored split lphy 0x8000101. thread %ld", static_cast<long>(gettid()));
    EXPECT_TRUE(log.has(LIBPMX_ZLOG_WARN, line));
    EXPECT_TRUE(log.has(LIBPMX_ZLOG_WARN, "ignore split flag: 1"));

    int other = -1;
    std::thread([&] { other = libpmx_split_cache_get_phyid_by_mod_port(40, 1, UINT32_MAX, &a); }).join();
    EXPECT_EQ(other, 0) << "another thread still sees the split ports";
    libpmx_set_ignore_split_mapping(0);
    EXPECT_EQ(libpmx_split_cache_get_unit_port_by_lphyid(0x08000101, &a, &b), 0);
}

// Physical-port records of split ports (count above 1) feed the maps as the change callbacks
// apply them; the local card's also feed the unit-port map, and a delete takes them out.
TEST(Split, PhysicalPortRecordsOfSplitPortsFeedTheMaps)
{
    const int32_t info[5] = {3, 2, 12, libpmx_get_node_by_dev_slot(1, 2), 0};
    libpmx_cache_set_my_info(info);
    auto phy = [](uint32_t gphyid, int32_t slot, int32_t port, int32_t count) {
        UIntf__PmxPhyTbl r = U_INTF__PMX_PHY_TBL__INIT;
        r.gphyid = gphyid;
        r.lphyid = 0x08000000u | static_cast<uint32_t>(port);
        r.modid = 70;
        r.mport = port;
        r.port = port;
        r.dev = 1;
        r.slot = slot;
        r.lport = 4;
        r.count = count;
        return r;
    };
    UIntf__PmxPhyTbl mine = phy(gphy(2, 70, 16), 2, 16, 2), other = phy(gphy(2, 71, 16), 6, 16, 2),
                     plain = phy(gphy(2, 70, 17), 2, 17, 1);
    other.modid = 71;
    for (UIntf__PmxPhyTbl *r : {&mine, &other, &plain}) ASSERT_EQ(libpmx_mom_record_apply(&r->base, 0), 0);
    uint32_t g = 0, unit = 9, port = 9, lport = 0;
    EXPECT_EQ(libpmx_split_cache_get_phyid_by_mod_port(70, 16, 2, &g), 0);
    EXPECT_EQ(g, mine.gphyid);
    EXPECT_EQ(libpmx_split_cache_get_phyid_by_mod_port(70, 17, UINT32_MAX, &g), LIBPMX_E_NOT_FOUND) << "count 1";
    EXPECT_EQ(libpmx_split_cache_get_unit_port_by_lphyid(mine.lphyid, &unit, &port), 0);
    EXPECT_EQ(libpmx_split_cache_get_lport_by_gslot_unit_port(6, 0, 16, &lport), 0) << "every card's gslot map";
    EXPECT_EQ(libpmx_split_cache_get_unit_port_by_lphyid(0x08000000u | 16u, &unit, &port), 0);
    ASSERT_EQ(libpmx_mom_record_apply(&mine.base, 1), 0);
    EXPECT_EQ(libpmx_split_cache_get_phyid_by_mod_port(70, 16, 2, &g), LIBPMX_E_NOT_FOUND);
    EXPECT_EQ(libpmx_split_cache_get_lport_by_gslot_unit_port(2, 0, 16, &lport), LIBPMX_E_NOT_FOUND);
    ASSERT_EQ(libpmx_mom_record_apply(&other.base, 1), 0);
}

// Two readers against a writer that allocates and retrieves a module table and adds and removes
// split pairs: every answer is one the data held at some moment (run under tsan as well).
TEST(Split, ReadersWhileAWriterChangesModulesAndSplits)
{
    const int32_t info[5] = {3, 9, 12, libpmx_get_node_by_dev_slot(1, 9), 0};
    libpmx_cache_set_my_info(info);
    libpmx_cache_set_my_chss(1);
    ce_pmx_fuid_info_per_slot_t alloc{};
    alloc.status = 1;
    alloc.card_type = 12;
    alloc.fuid_num = 1;
    alloc.fuid[0].idnum = 2;
    alloc.fuid[0].modid[0] = 90;
    alloc.fuid[0].modid[1] = 91;
    ce_pmx_fuid_info_per_slot_t retrieve{};
    std::atomic<bool> stop{false};
    std::atomic<int> wrong{0}, seen_split{0}, seen_unit{0}, started{0};
    auto reader = [&] {
        ++started;
        while (!stop.load()) {
            int32_t unit = -1;
            const int rc = libpmx_get_unit_by_chip_ext(91, &unit);
            if (rc == 0 && unit != 0) ++wrong;
            if (rc == 0) ++seen_unit;
            if (rc != 0 && rc != LIBPMX_E_NOT_FOUND) ++wrong;
            uint32_t g = 0;
            const int s = libpmx_split_cache_get_phyid_by_mod_port(90, 2, UINT32_MAX, &g);
            if (s == 0 && g != gphy(1, 90, 2) && g != gphy(2, 90, 2)) ++wrong;
            if (s == 0) ++seen_split;
            if (s != 0 && s != LIBPMX_E_NOT_FOUND) ++wrong;
        }
    };
    libpmx_update_mod_port_gphyid(gphy(2, 90, 2), 90, 2, 1);
    std::thread r1(reader), r2(reader);
    while (started.load() < 2) std::this_thread::yield();
    // At least 2000 changes, and on until a reader has seen the data (a slow machine).
    for (int i = 0; i < 2000 || (seen_split.load() + seen_unit.load() == 0 && i < 2000000); ++i) {
        libpmx_add_mod_tbl(1, 9, 0, (i & 1) != 0 ? &retrieve : &alloc);
        libpmx_update_mod_port_gphyid(gphy(1 + (i & 1), 90, 2), 90, 2, 1);
        libpmx_update_mod_port_gphyid(gphy(2 - (i & 1), 90, 2), 90, 2, 0);
    }
    stop = true;
    r1.join();
    r2.join();
    EXPECT_EQ(wrong.load(), 0);
    EXPECT_GT(seen_split.load() + seen_unit.load(), 0) << "the readers ran while the data was there";
}

} // namespace

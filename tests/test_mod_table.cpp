// The module table and card info: slot arithmetic, alloc and retrieve with the lookups built on
// them (cache only and through the database), the blocking phyid lookup that checks a port's
// card before it waits, the dumps and the messages of bad input.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "embedded_db.h"
#include "libpmx_cap.h"
#include "libpmx_intf.h"
#include "libpmx_mod.h"
#include "libpmx_port.h"
#include "log_capture.h"
#include "time_scale.h"
#include "u_intf.pb-c.h"

namespace
{

// A per-slot record with units of (unit, modid type, modids).
struct Unit {
    int8_t unit;
    uint8_t type;
    std::vector<uint32_t> ids;
};

ce_pmx_fuid_info_per_slot_t table(uint32_t status, uint32_t card_type, const std::vector<Unit> &units)
{
    ce_pmx_fuid_info_per_slot_t t{};
    t.status = status;
    t.card_type = card_type;
    t.fuid_num = static_cast<uint32_t>(units.size());
    for (size_t i = 0; i < units.size() && i < LIBPMX_FUID_UNITS_PER_SLOT; ++i) {
        t.fuid[i].unit = units[i].unit;
        t.fuid[i].modid_type = units[i].type;
        t.fuid[i].idnum = static_cast<int8_t>(units[i].ids.size());
        for (size_t j = 0; j < units[i].ids.size(); ++j) t.fuid[i].modid[j] = units[i].ids[j];
    }
    return t;
}

int add(int32_t dev, int32_t slot, int32_t sslot, const ce_pmx_fuid_info_per_slot_t &t)
{
    return libpmx_add_mod_tbl(dev, slot, sslot, &t);
}

void set_my_node(int32_t dev, int32_t slot)
{
    const int32_t info[5] = {3, slot, 12, libpmx_get_node_by_dev_slot(dev, slot), 0};
    libpmx_cache_set_my_info(info);
    libpmx_cache_set_my_chss(dev);
}

template <typename Fn> std::string stdout_of(Fn fn)
{
    testing::internal::CaptureStdout();
    fn();
    return testing::internal::GetCapturedStdout();
}

TEST(ModTable, SlotArithmetic)
{
    EXPECT_EQ(libpmx_get_gslot_by_dev_slot_sslot(1, 3, 0), 3);
    EXPECT_EQ(libpmx_get_gslot_by_dev_slot_sslot(2, 3, 0), 35);
    EXPECT_EQ(libpmx_get_gslot_by_dev_slot_sslot(1, 3, 2), 2 << 10 | 3);
    // Outside 1..16 the dev part is left out: dev 0 and dev 17 share dev 1's gslot.
    EXPECT_EQ(libpmx_get_gslot_by_dev_slot_sslot(0, 3, 0), 3);
    EXPECT_EQ(libpmx_get_gslot_by_dev_slot_sslot(17, 3, 0), 3);
    int32_t dev = 0, slot = 0, sslot = 0;
    libpmx_get_dev_slot_sslot_by_gslot(2 << 10 | 15 << 5 | 31, &dev, &slot, &sslot);
    EXPECT_EQ(std::make_tuple(dev, slot, sslot), std::make_tuple(16, 31, 2));

    EXPECT_EQ(libpmx_get_node_by_dev_slot(2, 3), 0x0C080300);
    EXPECT_EQ(libpmx_get_node_by_gslot(35), 0x0C080300);
    EXPECT_EQ(libpmx_get_gslot_by_node(0x0C080300), 35);
    // The sub-slot of a node (bits 15-17) comes back into the gslot; bits above 25 are ignored.
    EXPECT_EQ(libpmx_get_gslot_by_node(0x0C000000 | 1 << 18 | 2 << 15 | 3 << 8), 2 << 10 | 3);
    EXPECT_EQ(libpmx_get_gslot_by_node(static_cast<int32_t>(0xFC080300u)), 35);
    EXPECT_EQ(libpmx_get_system_invalid_modid(), 17);
}

TEST(ModTable, AllocRetrieveAndTheLookupsOnThem)
{
    set_my_node(1, 3);
    const int32_t my_node = libpmx_get_node_by_dev_slot(1, 3);
    ASSERT_EQ(add(1, 3, 0, table(1, 12, {{0, 0, {40, 41}}, {1, 2, {42}}})), 0);
    ASSERT_EQ(add(1, 5, 0, table(1, 26, {{0, 0, {50}}})), 0);
    EXPECT_TRUE(libpmx_check_mod_tbl_valid(1));
    EXPECT_FALSE(libpmx_check_mod_tbl_valid(2));

    int32_t dev = 0, slot = 0, unit = -1, node = 0, v = -1, cpu = -1;
    EXPECT_EQ(libpmx_get_dev_slot_unit_by_modid_ext(41, &dev, &slot, &unit), 0);
    EXPECT_EQ(std::make_tuple(dev, slot, unit), std::make_tuple(1, 3, 0));
    EXPECT_EQ(libpmx_get_node_unit_from_modid_ext(42, &node, &unit), 0);
    EXPECT_EQ(std::make_pair(node, unit), std::make_pair(my_node, 1));
    EXPECT_TRUE(libpmx_is_local_modid_ext(40));
    EXPECT_FALSE(libpmx_is_local_modid_ext(50));
    EXPECT_EQ(libpmx_get_unit_by_chip_ext(42, &unit), 0);
    EXPECT_EQ(unit, 1);
    EXPECT_EQ(libpmx_get_unit_by_chip_ext(50, &unit), LIBPMX_E_NOT_FOUND) << "not local";
    EXPECT_EQ(libpmx_get_modid_type_from_cache(42, &v), 0);
    EXPECT_EQ(v, 2);
    EXPECT_EQ(libpmx_get_modid_by_dev_slot_unit_core(&v, 1, 3, 0, 1), 0);
    EXPECT_EQ(v, 41);
    EXPECT_EQ(libpmx_get_chip_by_dev_slot_unit(&v, 1, 3, 1), 0);
    EXPECT_EQ(v, 42);
    EXPECT_EQ(libpmx_get_first_modid_by_unit(1, &v, 0), 0);
    EXPECT_EQ(v, 42);
    EXPECT_EQ(libpmx_get_mod_port_by_node(my_node, &v, &cpu), 0);
    EXPECT_EQ(std::make_pair(v, cpu), std::make_pair(40, 0));
    EXPECT_EQ(libpmx_get_lmodid_by_unit_core_ext(0, 1, &v), 0);
    EXPECT_EQ(v, 41);
    EXPECT_EQ(libpmx_get_chip_by_unit_ext(1, &v), 0);
    EXPECT_EQ(v, 42);
    EXPECT_EQ(libpmx_get_card_type_by_dev_slot(1, 5, &v, 0), 0);
    EXPECT_EQ(v, 26);

    // Core 16 and a unit past fuid_num: a bad argument one way, not found the other.
    v = -5;
    EXPECT_EQ(libpmx_get_modid_by_dev_slot_unit_core(&v, 1, 3, 0, 16), LIBPMX_E_INVAL);
    EXPECT_EQ(libpmx_get_lmodid_by_unit_core_ext(0, 16, &v), LIBPMX_E_NOT_FOUND);
    EXPECT_EQ(libpmx_get_modid_by_dev_slot_unit_core(&v, 1, 3, 2, 0), LIBPMX_E_INVAL);
    EXPECT_EQ(libpmx_get_lmodid_by_unit_core_ext(2, 0, &v), LIBPMX_E_NOT_FOUND);
    EXPECT_EQ(libpmx_get_modid_by_dev_slot_unit_core(&v, 1, 4, 0, 0), LIBPMX_E_NOT_FOUND) << "no record";
    EXPECT_EQ(v, -5) << "outputs are written only on success";

    // Retrieve: the resources stay, zeroed, and count as absent; the per-slot record stays.
    ASSERT_EQ(add(1, 3, 0, table(0, 12, {})), 0);
    EXPECT_FALSE(libpmx_is_local_modid_ext(40));
    EXPECT_EQ(libpmx_get_unit_by_chip_ext(40, &unit), LIBPMX_E_NOT_FOUND);
    EXPECT_EQ(libpmx_get_dev_slot_unit_by_modid_ext(41, &dev, &slot, &unit), LIBPMX_E_NOT_FOUND);
    EXPECT_EQ(libpmx_get_modid_type_from_cache(42, &v), LIBPMX_E_NOT_FOUND);
    EXPECT_EQ(stdout_of([] { libpmx_dump_chipid_res(40); }),
              "\ndisplay chip id[40] resource\nchipid\t  gslot   \tunit   coreid   type\n"
              "    40\t  00000000\t0      0        0\n");
    EXPECT_EQ(libpmx_get_modid_by_dev_slot_unit_core(&v, 1, 3, 0, 1), 0);
    EXPECT_EQ(v, 41);
}

TEST(ModTable, BadInputGetsItsCodeAndMessage)
{
    LogCapture log(5);
    const auto t = table(1, 12, {{0, 0, {60}}});
    EXPECT_EQ(libpmx_add_mod_tbl(1, 3, 1, &t), LIBPMX_E_FAIL) << "a sub-slot's gslot is 1024 or more";
    EXPECT_TRUE(log.has(LIBPMX_ZLOG_ERROR, "chipid info eror, gslot=0x000403"));
    EXPECT_EQ(add(1, 6, 0, table(7, 12, {})), LIBPMX_E_INVAL);
    EXPECT_TRUE(log.has(LIBPMX_ZLOG_NOTICE, ">>>>gslot:6 status:7 error"));
    EXPECT_EQ(add(1, 6, 0, table(1, 12, {})), LIBPMX_E_INVAL);
    EXPECT_TRUE(log.has(LIBPMX_ZLOG_ERROR, "chipid info eror, gslot=0x000006 fuid_num=0"));
    EXPECT_EQ(libpmx_add_mod_tbl(1, 6, 0, nullptr), LIBPMX_E_FAIL);

    int32_t dev = 0, slot = 0, unit = 0, v = 0;
    EXPECT_EQ(libpmx_get_dev_slot_unit_by_modid_ext(-1, &dev, &slot, &unit), LIBPMX_E_INVAL);
    EXPECT_EQ(libpmx_get_dev_slot_unit_by_modid_ext(60, nullptr, &slot, &unit), LIBPMX_E_INVAL);
    EXPECT_EQ(libpmx_get_unit_by_chip_ext(-3, &unit), LIBPMX_E_INVAL);
    EXPECT_EQ(libpmx_get_node_unit_from_modid_ext(60, nullptr, &unit), LIBPMX_E_INVAL);
    EXPECT_EQ(libpmx_get_modid_by_dev_slot_unit_core(&v, 17, 3, 0, 0), LIBPMX_E_INVAL);
    char where[32];
    std::snprintf(where, sizeof where, "%p", static_cast<void *>(&v));
    EXPECT_TRUE(log.has(LIBPMX_ZLOG_ERROR, std::string("invalid param dev:17 slot:3 unit:0 core:0 modid=") + where));
    EXPECT_EQ(libpmx_get_modid_by_dev_slot_unit_core(&v, 0, 3, 0, 0), LIBPMX_E_INVAL);
    EXPECT_EQ(libpmx_get_lmodid_by_unit_core_ext(0x80000000u, 0, &v), LIBPMX_E_INVAL);
    EXPECT_EQ(libpmx_get_lmodid_by_unit_core_ext(0, -1, &v), LIBPMX_E_INVAL);
    EXPECT_EQ(libpmx_get_card_type_by_dev_slot(1, 3, nullptr, 0), LIBPMX_E_FAIL);
    EXPECT_EQ(libpmx_get_card_type_by_modid_port(60, 1, &v, nullptr, 0), LIBPMX_E_FAIL);
    EXPECT_TRUE(log.has(LIBPMX_ZLOG_ERROR, "invalid param!"));
    EXPECT_EQ(libpmx_get_modid_type_from_cache(60, nullptr), LIBPMX_E_FAIL);
}

TEST(ModTable, OnlyTheFirstEightUnitEntriesCount)
{
    UIntf__ModIndex mi = U_INTF__MOD_INDEX__INIT;
    mi.devid = 1;
    mi.slotid = 6;
    UIntf__PmxFuidInfo units[10];
    UIntf__PmxFuidInfo *unit_ptrs[10];
    uint32_t ids[10];
    for (int i = 0; i < 10; ++i) {
        units[i] = U_INTF__PMX_FUID_INFO__INIT;
        units[i].unit = i;
        ids[i] = 100 + static_cast<uint32_t>(i);
        units[i].n_id = 1;
        units[i].id = &ids[i];
        unit_ptrs[i] = &units[i];
    }
    UIntf__PmxModTbl rec = U_INTF__PMX_MOD_TBL__INIT;
    rec.index = &mi;
    rec.status = U_INTF__SLOT_MODID_ST_E__MODID_VALID;
    rec.card_type = 12;
    rec.n_fuid_info = 10;
    rec.fuid_info = unit_ptrs;
    libpmx_mod_tbl_info_t info{};
    ASSERT_EQ(libpmx_mod_tbl_decode(&rec, &info), 0);
    EXPECT_EQ(std::make_tuple(info.dev, info.slot, info.sslot), std::make_tuple(1, 6, 0));
    EXPECT_EQ(info.tbl.fuid_num, 10u);
    ASSERT_EQ(libpmx_add_mod_tbl(info.dev, info.slot, info.sslot, &info.tbl), 0);

    int32_t v = 0, dev = 0, slot = 0, unit = 0;
    EXPECT_EQ(libpmx_get_modid_by_dev_slot_unit_core(&v, 1, 6, 7, 0), 0);
    EXPECT_EQ(v, 107);
    EXPECT_EQ(libpmx_get_modid_by_dev_slot_unit_core(&v, 1, 6, 9, 0), LIBPMX_E_INVAL) << "below fuid_num, no entry";
    EXPECT_EQ(libpmx_get_dev_slot_unit_by_modid_ext(109, &dev, &slot, &unit), LIBPMX_E_NOT_FOUND);
    EXPECT_EQ(stdout_of([] { libpmx_dump_chipslot(6); }),
              "\ndisplay chip slot[6] resource\ngslot   \tidnum_per_unit\tchipid\tcard_type\n"
              "0x000006  \t100 101 102 103 104 105 106 107 \t0xc\n");
}

TEST(ModTable, DumpsAndCardInfo)
{
    set_my_node(1, 8);
    EXPECT_EQ(stdout_of(libpmx_dump_local_modid), "has no local modid.\n");
    ASSERT_EQ(add(1, 8, 0, table(1, 12, {{0, 0, {80, 81}}, {1, 0, {82}}})), 0);
    EXPECT_EQ(stdout_of(libpmx_dump_local_modid), "80 81 82 \n");
    EXPECT_EQ(stdout_of([] { libpmx_dump_chipslot(8); }),
              "\ndisplay chip slot[8] resource\ngslot   \tidnum_per_unit\tchipid\tcard_type\n"
              "0x000008  \t80 81 82 \t0xc\n");
    // A slot out of modids: only the cache itself holds such a record.
    ce_pmx_fuid_info_per_slot_t limit = table(2, 26, {});
    limit.gslot = 9;
    ASSERT_NE(libpmx_ce_pmx_fuid_info_per_slot_create(&limit), nullptr);
    EXPECT_EQ(stdout_of([] { libpmx_dump_chipslot(9); }),
              "\ndisplay chip slot[9] resource\ngslot   \tidnum_per_unit\tchipid\tcard_type\n"
              "0x000009  \tlimit\t0x1a\n");

    const libpmx_card_info_t a{2, 0, 0, 9}, b{1, 3, 0, 12}, c{1, 2, 3, 5};
    for (const auto *ci : {&a, &b, &c}) ASSERT_EQ(libpmx_cache_set_card_info(ci), 0);
    const libpmx_card_info_t b2{1, 3, 0, 13};
    ASSERT_EQ(libpmx_cache_set_card_info(&b2), 0) << "a refresh";
    EXPECT_EQ(stdout_of(libpmx_dbg_dump_card_info),
              "dev:1 slot:2 sslot:3 card_type:5\ndev:1 slot:3 sslot:0 card_type:13\ndev:2 slot:0 sslot:0 card_type:9\n");
    EXPECT_EQ(libpmx_cache_del_card_info(&a), 0);
    LogCapture log(1);
    EXPECT_EQ(libpmx_cache_del_card_info(&a), LIBPMX_E_FAIL);
    EXPECT_TRUE(log.has(LIBPMX_ZLOG_ERROR, "libpmx_cache_del_card_info fail"));
    EXPECT_EQ(libpmx_cache_set_card_info(nullptr), LIBPMX_E_FAIL);
    EXPECT_TRUE(log.has(LIBPMX_ZLOG_ERROR, "libpmx_cache_set_card_info fail"));
}

TEST(ModTable, ModuleIdCapabilities)
{
    ASSERT_EQ(libpmx_cap_init(nullptr, "test_mod_table"), 0);
    int32_t min = -1, max = -1, per_slot = -1, num = -1;
    ASSERT_EQ(libpmx_cap_get_modid_info(12, &min, &max, &per_slot), 0);
    EXPECT_EQ(std::make_tuple(min, max, per_slot), std::make_tuple(0, 511, 8));
    EXPECT_EQ(libpmx_cap_get_modid_info(99, &min, &max, &per_slot), LIBPMX_E_NOT_FOUND);
    EXPECT_EQ(min, 0) << "outputs written only on success";
    EXPECT_EQ(libpmx_cap_get_modid_info(12, nullptr, &max, &per_slot), LIBPMX_E_FAIL);
    EXPECT_EQ(libpmx_cap_get_cap_of_node(3, &num), 0);
    EXPECT_EQ(num, 4);
    EXPECT_EQ(libpmx_cap_get_cap_of_node(42, &num), LIBPMX_E_NOT_FOUND);
    EXPECT_EQ(libpmx_cap_get_lc_slots_num(), 21);

    EXPECT_TRUE(libpmx_cap_is_invalid_modid(17)) << "from the capability data";
    EXPECT_FALSE(libpmx_cap_is_invalid_modid(10));
    ASSERT_EQ(libpmx_cap_add_invalid_modid(10), 0);
    ASSERT_EQ(libpmx_cap_add_invalid_modid(11), 0);
    ASSERT_EQ(libpmx_cap_add_invalid_modid(11), 0) << "twice is once";
    EXPECT_EQ(libpmx_cap_count_invalid_modid(0, 12), 2u);
    EXPECT_EQ(libpmx_cap_count_invalid_modid(11, 17), 2u) << "both ends included";
    EXPECT_EQ(libpmx_cap_count_invalid_modid(18, 100), 0u);
    testing::internal::CaptureStdout();
    libpmx_dump_cap();
    const std::string out = testing::internal::GetCapturedStdout();
    EXPECT_NE(out.find("lc-slots-num      : 21\ninvalid-modids    : 10 11 17 (3)\n"), std::string::npos) << out;
}

TEST(ModTable, TheForwardingUnitWalkSeesCopiesInGslotOrder)
{
    ASSERT_EQ(add(2, 1, 0, table(1, 12, {{0, 0, {120}}})), 0);
    ASSERT_EQ(add(1, 7, 0, table(1, 12, {{0, 0, {121}}})), 0);
    std::vector<uint32_t> seen;
    ASSERT_EQ(libpmx_fuid_info_for_each(
                  [](void *entry, void *arg) {
                      auto *r = static_cast<ce_pmx_fuid_info_per_slot_t *>(entry);
                      static_cast<std::vector<uint32_t> *>(arg)->push_back(r->gslot);
                      // The lock is not held: a lookup from the walk is fine.
                      int32_t dev = 0, slot = 0, unit = 0;
                      const bool ours = r->gslot == 33 || r->gslot == 7;
                      return !ours || libpmx_get_dev_slot_unit_by_modid_ext(static_cast<int32_t>(r->fuid[0].modid[0]),
                                                                            &dev, &slot, &unit) == 0
                                 ? 0
                                 : 1;
                  },
                  &seen),
              0);
    ASSERT_GE(seen.size(), 2u);
    EXPECT_TRUE(std::is_sorted(seen.begin(), seen.end()));
    ce_pmx_fuid_info_per_slot_t copy{};
    EXPECT_EQ(libpmx_get_fuid_info_by_gslot(33, &copy), 0);
    EXPECT_EQ(copy.fuid[0].modid[0], 120u);
    EXPECT_EQ(libpmx_get_fuid_info_by_gslot(34, &copy), LIBPMX_E_NOT_FOUND);
    EXPECT_EQ(libpmx_fuid_info_for_each(nullptr, nullptr), LIBPMX_E_FAIL);
}

TEST(ModTable, SystemPorts)
{
    uint32_t sp = 0, g = 0;
    ASSERT_EQ(libpmx_get_sysport_by_dev_slot_sslot_lport(2, 3, 1, 7, &sp), 0);
    EXPECT_EQ(sp, (1u << 10 | 1u << 5 | 3u) * 256 + 7);
    int32_t dev = 0, slot = 0, sslot = 0, lport = 0;
    libpmx_get_dev_slot_sslot_lport_by_sysport(sp, &dev, &slot, &sslot, &lport);
    EXPECT_EQ(std::make_tuple(dev, slot, sslot, lport), std::make_tuple(2, 3, 1, 7));
    EXPECT_EQ(libpmx_get_sysport_by_dev_slot_sslot_lport(2, 3, 0, 256, &sp), LIBPMX_E_INVAL);

    // Two members of a split port on one panel port: the first stays until it is removed itself.
    const uint32_t first = 7u << 24 | 2u << 19 | 90u << 8 | 16, second = first + 1;
    ASSERT_EQ(libpmx_sysport_update(1, 9, 0, 4, first, 1), 0);
    ASSERT_EQ(libpmx_sysport_update(1, 9, 0, 4, second, 1), 0);
    ASSERT_EQ(libpmx_get_sysport_by_dev_slot_sslot_lport(1, 9, 0, 4, &sp), 0);
    EXPECT_EQ(libpmx_get_phyid_by_sysport_detail(sp, &g, 0), 0);
    EXPECT_EQ(g, first);
    EXPECT_EQ(libpmx_sysport_update(1, 9, 0, 4, second, 0), LIBPMX_E_NOT_FOUND);
    EXPECT_EQ(libpmx_sysport_update(1, 9, 0, 4, first, 0), 0);
    EXPECT_EQ(libpmx_get_phyid_by_sysport_detail(sp, &g, 0), LIBPMX_E_NOT_FOUND);
    EXPECT_EQ(libpmx_sysport_update(1, 9, 0, 4, 19u << 24 | 5, 1), LIBPMX_E_INVAL) << "a sub-interface";
    EXPECT_EQ(libpmx_get_sysport_by_phyid_detail(20u << 24 | 5, &sp, 0), LIBPMX_E_INVAL);
    EXPECT_EQ(libpmx_get_sysport_by_phyid_detail(first, &sp, 0), LIBPMX_E_NOT_FOUND) << "no interface, mode 0";
}

// A module table and a physical-port record in the store.
void put_mod_tbl(EmbeddedDb &db, int32_t dev, int32_t slot, int32_t card_type, std::vector<uint32_t> ids)
{
    UIntf__ModIndex mi = U_INTF__MOD_INDEX__INIT;
    mi.devid = dev;
    mi.slotid = slot;
    UIntf__PmxFuidInfo unit = U_INTF__PMX_FUID_INFO__INIT;
    unit.n_id = ids.size();
    unit.id = ids.data();
    UIntf__PmxFuidInfo *units[] = {&unit};
    UIntf__PmxModTbl rec = U_INTF__PMX_MOD_TBL__INIT;
    rec.index = &mi;
    rec.status = U_INTF__SLOT_MODID_ST_E__MODID_VALID;
    rec.gslot = libpmx_get_gslot_by_dev_slot_sslot(dev, slot, 0);
    rec.card_type = card_type;
    rec.n_id = ids.size();
    rec.id = ids.data();
    rec.n_fuid_info = 1;
    rec.fuid_info = units;
    db.put(&rec.base, &mi.base);
}

void put_phy(void *ctx, uint32_t phyid, uint32_t ifx)
{
    UIntf__PhyIndex pi = U_INTF__PHY_INDEX__INIT;
    pi.phyid = phyid;
    UIntf__PmxPhyTbl rec = U_INTF__PMX_PHY_TBL__INIT;
    rec.index = &pi;
    rec.ifx = ifx;
    rec.gphyid = phyid;
    EmbeddedDb::put_from(ctx, &rec.base, &pi.base);
}

class ModTableDb : public ::testing::Test
{
protected:
    void SetUp() override
    {
        libpmx_cap_set_block_times(1);
        libpmx_cap_set_subcard_id_enable(0);
        libpmx_set_can_block_to_read_db(1);
    }
    void TearDown() override { libpmx_cap_set_block_times(LIBPMX_DEFAULT_BLOCK_TIMES); }
    EmbeddedDb db_{::testing::UnitTest::GetInstance()->current_test_info()->name()};
};

TEST_F(ModTableDb, ModidMissesReadTheTableThatListsTheModidAndKeepIt)
{
    put_mod_tbl(db_, 2, 7, 12, {200, 201});
    int32_t dev = 0, slot = 0, unit = -1, v = 0;
    EXPECT_EQ(libpmx_get_dev_slot_unit_by_modid_ext(201, &dev, &slot, &unit), LIBPMX_E_NOT_FOUND) << "mode 0";
    EXPECT_EQ(libpmx_get_dev_slot_unit_by_modid(201, &dev, &slot, &unit), 0);
    EXPECT_EQ(std::make_tuple(dev, slot, unit), std::make_tuple(2, 7, 0));
    EXPECT_EQ(libpmx_get_dev_slot_unit_by_modid_ext(200, &dev, &slot, &unit), 0) << "the table read was kept";

    LogCapture log(1);
    EXPECT_FALSE(libpmx_is_local_modid(299));
    EXPECT_TRUE(log.has(LIBPMX_ZLOG_ERROR, "get mod tbl failed, modid:299\n"));
    EXPECT_EQ(libpmx_get_node_unit_from_modid(299, &v, &unit), LIBPMX_E_NOT_FOUND);

    // The card type of a slot without a module table comes from its card record, not with mode 0.
    EXPECT_EQ(libpmx_get_card_type_by_dev_slot(2, 8, &v, 0), LIBPMX_E_NOT_FOUND);
    EXPECT_NE(libpmx_get_card_type_by_dev_slot(2, 8, &v, 1), 0) << "no card record either";

    // The local card's module table, once allocated, answers the local unit lookups.
    set_my_node(3, 9);
    put_mod_tbl(db_, 3, 9, 12, {300, 301});
    EXPECT_EQ(libpmx_get_lmodid_by_unit_core_ext(0, 1, &v), LIBPMX_E_NOT_FOUND);
    EXPECT_EQ(libpmx_get_lmodid_by_unit_core(0, 1, &v), 0);
    EXPECT_EQ(v, 301);
    EXPECT_TRUE(libpmx_is_local_modid_ext(300));
}

TEST_F(ModTableDb, CidOfAModulePortAndTheBlockingLookup)
{
    put_mod_tbl(db_, 2, 4, 12, {210});
    libpmx_cache_cid_with_card_type(12, 0, 5);
    const uint32_t phyid = 7u << 24 | 5u << 19 | 210u << 8 | 3u;
    int32_t cid = -1, ct = -1, sct = -1;
    EXPECT_EQ(libpmx_get_card_type_by_modid_port(210, 3, &ct, &sct, 1), LIBPMX_E_FAIL) << "only mode 2 reads";
    EXPECT_EQ(libpmx_get_cid_by_modid_port(210, 3, &cid, 2), 0);
    EXPECT_EQ(cid, 5);
    EXPECT_EQ(libpmx_get_card_type_by_modid_port(210, 3, &ct, &sct, 0), 0);
    EXPECT_EQ(std::make_pair(ct, sct), std::make_pair(12, 0));

    LogCapture log(5);
    uint32_t ifx = 0;
    EXPECT_EQ(libpmx_get_ifx_by_phyid_block(8u << 24 | 0x10203, &ifx), LIBPMX_E_NOT_FOUND) << "type 8";
    EXPECT_TRUE(log.has(LIBPMX_ZLOG_WARN, "not support phyid:0x8010203"));
    EXPECT_EQ(libpmx_get_ifx_by_phyid_block(7u << 24 | 6u << 19 | 210u << 8 | 3u, &ifx), LIBPMX_E_FAIL);
    EXPECT_TRUE(log.has(LIBPMX_ZLOG_ERROR, "cid invaild, modid:210 port:3 cid:6 l_cid:5"));
    EXPECT_EQ(libpmx_get_ifx_by_phyid_block(7u << 24 | 5u << 19 | 211u << 8 | 3u, &ifx), LIBPMX_E_FAIL);
    EXPECT_TRUE(log.has(LIBPMX_ZLOG_ERROR, "modid invaild, get cid fail, modid:211 port:3 ret:-11"));
    EXPECT_EQ(ifx, 0u);

    // The port's card is present: the lookup waits past every read's limit until the record comes.
    qv_mom_glb_t *glb = db_.glb();
    std::thread writer([glb, phyid] {
        qv_mom_thread_attach(glb, nullptr);
        std::this_thread::sleep_for(std::chrono::milliseconds(500));
        put_phy(qv_mom_get_thread_local_global(), phyid, 4242);
        qv_mom_thread_detach();
    });
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(libpmx_get_ifx_by_phyid_block(phyid, &ifx), 0);
    const auto waited = std::chrono::steady_clock::now() - begin;
    writer.join();
    EXPECT_EQ(ifx, 4242u);
    EXPECT_GE(waited, std::chrono::milliseconds(400));
    EXPECT_LE(waited, pmx_test::at_most(std::chrono::seconds(5)));

    libpmx_intf_info_t node{};
    node.ifx = 77;
    node.gphyid = 7u << 24 | 9u << 19 | 999u << 8;
    ASSERT_EQ(libpmx_add_intf_node(&node), 0);
    EXPECT_EQ(libpmx_get_ifx_by_phyid_block(node.gphyid, &ifx), 0) << "the table answers first";
    EXPECT_EQ(ifx, 77u);
    libpmx_del_intf_node(77);
}

} // namespace

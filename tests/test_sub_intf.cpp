// Sub-AP and sub-route caches: save and remove results, lookups by phyid with and without the
// database fall-back (embedded store), the convenience getters, the dumps and their messages.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "embedded_db.h"
#include "libpmx_cap.h"
#include "libpmx_hash.h"
#include "libpmx_intf.h"
#include "libpmx_mom.h"
#include "log_capture.h"
#include "u_intf.pb-c.h"

namespace
{

constexpr uint32_t kApType = 20u << 24;
constexpr uint32_t kRouteType = 19u << 24;

bool operator==(const libpmx_sub_ap_info_t &a, const libpmx_sub_ap_info_t &b)
{
    return a.ifx == b.ifx && a.phyid == b.phyid && a.evlan == b.evlan && a.trunk == b.trunk &&
           a.master_phyid == b.master_phyid;
}
bool operator==(const libpmx_sub_route_info_t &a, const libpmx_sub_route_info_t &b)
{
    return a.ifx == b.ifx && a.phyid == b.phyid && a.evlan == b.evlan &&
           a.master_phyid == b.master_phyid;
}

// Empties a cache (the tests run in one process and the caches are process-wide).
template <class Rec>
void clear(int (*walk)(libpmx_hash_op_t, void *, int), Rec *(*get)(uint32_t), int (*destroy)(Rec *))
{
    std::vector<uint32_t> ifxs;
    walk(
        [](void *r, void *a) {
            static_cast<std::vector<uint32_t> *>(a)->push_back(static_cast<Rec *>(r)->ifx);
            return 0;
        },
        &ifxs, 0);
    for (uint32_t ifx : ifxs)
        destroy(get(ifx));
}

class SubIntf : public ::testing::Test
{
  protected:
    void SetUp() override
    {
        libpmx_cap_set_block_times(2);
        libpmx_set_can_block_to_read_db(1);
        clear(libpmx_sub_ap_info_for_each, libpmx_sub_ap_info_get, libpmx_sub_ap_info_destroy);
        clear(libpmx_sub_route_info_for_each, libpmx_sub_route_info_get,
              libpmx_sub_route_info_destroy);
    }
    void TearDown() override
    {
        libpmx_cap_set_block_times(LIBPMX_DEFAULT_BLOCK_TIMES);
        libpmx_set_can_block_to_read_db(1);
    }
    void put(ProtobufCMessage *record, UIntf__IfxIndex *index) { db_.put(record, &index->base); }
    void put_sub_ap(const libpmx_sub_ap_info_t &r)
    {
        UIntf__IfxIndex index = U_INTF__IFX_INDEX__INIT;
        index.ifx = r.ifx;
        UIntf__PmxSubApIntf rec = U_INTF__PMX_SUB_AP_INTF__INIT;
        rec.index = &index;
        rec.phyid = r.phyid;
        rec.evlan = r.evlan;
        rec.trunk = r.trunk;
        rec.master_phyid = r.master_phyid;
        put(&rec.base, &index);
    }
    void put_sub_route(const libpmx_sub_route_info_t &r)
    {
        UIntf__IfxIndex index = U_INTF__IFX_INDEX__INIT;
        index.ifx = r.ifx;
        UIntf__PmxSubRouteIntf rec = U_INTF__PMX_SUB_ROUTE_INTF__INIT;
        rec.index = &index;
        rec.phyid = r.phyid;
        rec.evlan = r.evlan;
        rec.master_phyid = r.master_phyid;
        put(&rec.base, &index);
    }

    EmbeddedDb db_{std::string("sub-") + ::testing::UnitTest::GetInstance()->current_test_info()->name()};
};

// Reads of present records seen by the log (each logs one notice), and a line by its text.
size_t reads(const LogCapture &log)
{
    const auto lines = log.lines();
    return std::count_if(lines.begin(), lines.end(),
                         [](const LoggedLine &l) { return l.func == "libpmx_get_info_from_db"; });
}
bool logged_containing(const LogCapture &log, const std::string &part)
{
    for (const auto &l : log.lines())
        if (l.text.find(part) != std::string::npos) return true;
    return false;
}

// What a dump prints to standard output.
std::string dump(void (*fn)(uint32_t), uint32_t ifx)
{
    testing::internal::CaptureStdout();
    fn(ifx);
    return testing::internal::GetCapturedStdout();
}

TEST_F(SubIntf, SaveReportsOldRecordAndChange)
{
    LogCapture log(5);
    const libpmx_sub_ap_info_t a{100, kApType | 100, 10, 3, 0x07000101};
    const libpmx_sub_ap_info_t sentinel{0xdead, 1, 2, 3, 4};
    libpmx_sub_ap_info_t old = sentinel;
    uint32_t has_old = 9, changed = 9;
    ASSERT_EQ(libpmx_save_cache_sub_ap_info(&a, &old, &has_old, &changed), 0);
    EXPECT_EQ(has_old, 0u);
    EXPECT_EQ(changed, 1u);
    EXPECT_TRUE(old == sentinel) << "old_info is left untouched when nothing was cached";

    ASSERT_EQ(libpmx_save_cache_sub_ap_info(&a, &old, &has_old, &changed), 0);
    EXPECT_EQ(has_old, 1u);
    EXPECT_EQ(changed, 0u);
    EXPECT_TRUE(old == a);
    EXPECT_TRUE(log.has(LIBPMX_ZLOG_DEBUG, "found same cache ifx:100, phyid: 0x14000064, evlan: "
                                           "10, trunk: 3, master_phyid: 0x7000101"));

    libpmx_sub_ap_info_t b = a;
    b.master_phyid = 0x07000102; // only the last field differs: the whole record is compared
    ASSERT_EQ(libpmx_save_cache_sub_ap_info(&b, &old, &has_old, &changed), 0);
    EXPECT_EQ(has_old, 1u);
    EXPECT_EQ(changed, 1u);
    EXPECT_TRUE(old == a);
    EXPECT_TRUE(log.has(
        LIBPMX_ZLOG_WARN,
        "cache ifx:100, old (phyid: 0x14000064, evlan: 10, trunk: 3, master_phyid: 0x7000101) "
        "=> new (phyid: 0x14000064, evlan: 10, trunk: 3, master_phyid: 0x7000102)"));
    libpmx_sub_ap_info_t got{};
    ASSERT_EQ(libpmx_get_sub_ap_info_by_phyid_detail(kApType | 100, &got, 0), 0);
    EXPECT_TRUE(got == b);

    // A new record equal to the all-zero one is no change; a new ifx alone is one.
    const libpmx_sub_ap_info_t zero{};
    ASSERT_EQ(libpmx_save_cache_sub_ap_info(&zero, &old, &has_old, &changed), 0);
    EXPECT_EQ(has_old, 0u);
    EXPECT_EQ(changed, 0u);
    const libpmx_sub_ap_info_t only_ifx{7, 0, 0, 0, 0};
    ASSERT_EQ(libpmx_save_cache_sub_ap_info(&only_ifx, &old, &has_old, &changed), 0);
    EXPECT_EQ(changed, 1u);
    EXPECT_EQ(libpmx_sub_ap_info_hash_size(), 3u);

    // Sub-route, with its own wording and its has_old check.
    const libpmx_sub_route_info_t r{300, kRouteType | 300, 20, 0x07000201};
    libpmx_sub_route_info_t rold{};
    ASSERT_EQ(libpmx_save_cache_sub_route_info(&r, &rold, &has_old, &changed), 0);
    EXPECT_EQ(has_old, 0u);
    EXPECT_EQ(changed, 1u);
    libpmx_sub_route_info_t r2 = r;
    r2.evlan = 21;
    ASSERT_EQ(libpmx_save_cache_sub_route_info(&r2, &rold, &has_old, &changed), 0);
    EXPECT_EQ(has_old, 1u);
    EXPECT_EQ(changed, 1u);
    EXPECT_TRUE(rold == r);
    EXPECT_TRUE(log.has(
        LIBPMX_ZLOG_WARN,
        "cache ifx:300, phyid: 0x1300012c, evlan: 20, master_phyid: 0x7000201 => will change to "
        "phyid: 0x1300012c, evlan: 21, master_phyid: 0x7000201"));
    EXPECT_EQ(libpmx_save_cache_sub_route_info(&r, &rold, nullptr, &changed), LIBPMX_E_FAIL);
    EXPECT_TRUE(log.has(LIBPMX_ZLOG_ERROR, "has_old is null"));
    EXPECT_EQ(libpmx_save_cache_sub_ap_info(&a, &old, &has_old, nullptr), LIBPMX_E_FAIL);
    EXPECT_TRUE(log.has(LIBPMX_ZLOG_ERROR, "changed is null"));
    EXPECT_EQ(libpmx_save_cache_sub_ap_info(nullptr, &old, &has_old, &changed), LIBPMX_E_FAIL);
    EXPECT_TRUE(log.has(LIBPMX_ZLOG_ERROR, "info is null"));
}

TEST_F(SubIntf, RemoveTakesTheCachedRecordEvenWhenItDiffers)
{
    LogCapture log(1);
    const libpmx_sub_ap_info_t a{100, kApType | 100, 10, 3, 0x07000101};
    libpmx_sub_ap_info_t old{};
    uint32_t has_old = 0, changed = 0;
    ASSERT_EQ(libpmx_save_cache_sub_ap_info(&a, &old, &has_old, &changed), 0);
    libpmx_sub_ap_info_t expected = a;
    expected.phyid = kApType | 101;
    ASSERT_EQ(libpmx_remove_cache_sub_ap_info(&expected, &old, &has_old), 0);
    EXPECT_EQ(has_old, 1u);
    EXPECT_TRUE(old == a);
    EXPECT_TRUE(
        log.has(LIBPMX_ZLOG_ERROR,
                "sub_ap cache diff, ifx:100, expected (phyid: 0x14000065, evlan: 10, trunk: 3, "
                "master_phyid: 0x7000101), cached (phyid: 0x14000064, evlan: 10, trunk: 3, "
                "master_phyid: 0x7000101)"));
    EXPECT_EQ(libpmx_sub_ap_info_get(100), nullptr);

    const libpmx_sub_ap_info_t untouched{1, 2, 3, 4, 5};
    old = untouched;
    ASSERT_EQ(libpmx_remove_cache_sub_ap_info(&a, &old, &has_old), 0);
    EXPECT_EQ(has_old, 0u);
    EXPECT_TRUE(old == untouched);
    EXPECT_TRUE(log.has(LIBPMX_ZLOG_ERROR,
                        "sub_ap cache not found, ifx:100, phyid: 0x14000064, evlan: 10, trunk: 3"));
    EXPECT_EQ(libpmx_remove_cache_sub_ap_info(&a, &old, nullptr), LIBPMX_E_FAIL);

    const libpmx_sub_route_info_t r{300, kRouteType | 300, 20, 0x07000201};
    libpmx_sub_route_info_t rold{};
    ASSERT_EQ(libpmx_save_cache_sub_route_info(&r, &rold, &has_old, &changed), 0);
    libpmx_sub_route_info_t rexp = r;
    rexp.evlan = 22;
    log.clear();
    ASSERT_EQ(libpmx_remove_cache_sub_route_info(&r, &rold, &has_old), 0);
    EXPECT_TRUE(log.lines().empty()) << "a matching removal logs nothing";
    ASSERT_EQ(libpmx_save_cache_sub_route_info(&r, &rold, &has_old, &changed), 0);
    ASSERT_EQ(libpmx_remove_cache_sub_route_info(&rexp, &rold, &has_old), 0);
    EXPECT_EQ(has_old, 1u);
    EXPECT_TRUE(rold == r);
    EXPECT_TRUE(log.has(
        LIBPMX_ZLOG_ERROR,
        "sub_route cache diff, ifx:300, expected (phyid: 0x1300012c, evlan: 22, master_phyid: "
        "0x7000201), cached (phyid: 0x1300012c, evlan: 20, master_phyid: 0x7000201)"));
    EXPECT_EQ(libpmx_sub_route_info_hash_size(), 0u);
}

TEST_F(SubIntf, LookupsCheckThePhyidAndFallBackToTheDatabaseOnlyWhenAsked)
{
    LogCapture log(5);
    const libpmx_sub_ap_info_t a{100, kApType | 100, 10, 3, 0x07000101};
    libpmx_sub_ap_info_t old{};
    uint32_t has_old = 0, changed = 0;
    ASSERT_EQ(libpmx_save_cache_sub_ap_info(&a, &old, &has_old, &changed), 0);
    const libpmx_sub_ap_info_t untouched{1, 2, 3, 4, 5};

    // A sub-route phyid of a cached sub-AP ifx: refused before the cache or the database.
    libpmx_sub_ap_info_t got = untouched;
    EXPECT_EQ(libpmx_get_sub_ap_info_by_phyid_detail(kRouteType | 100, &got, 1), LIBPMX_E_INVAL);
    EXPECT_TRUE(got == untouched);
    EXPECT_TRUE(log.has(LIBPMX_ZLOG_ERROR, "not sub_ap phyid: 0x13000064"));
    EXPECT_EQ(libpmx_get_sub_ap_info_by_phyid_detail(kApType | 100, nullptr, 1), LIBPMX_E_INVAL);
    EXPECT_TRUE(logged_containing(log, "param is null, phyid: 0x14000064, flag: 1"));
    libpmx_sub_route_info_t rgot{};
    EXPECT_EQ(libpmx_get_sub_route_info_by_phyid_detail(kApType | 100, &rgot, 1), LIBPMX_E_INVAL);
    EXPECT_EQ(reads(log), 0u);

    // Cache hit and the derived getters.
    ASSERT_EQ(libpmx_get_sub_ap_info_by_phyid_detail(kApType | 100, &got, 0), 0);
    EXPECT_TRUE(got == a);
    EXPECT_TRUE(log.has(LIBPMX_ZLOG_DEBUG,
                        "did get cache, ifx:100, phyid: 0x14000064, evlan: 10, trunk: 3"));
    uint32_t master = 0, evlan = 0, trunk = 0;
    ASSERT_EQ(libpmx_get_ap_phyid_by_sub_ap_phyid(kApType | 100, &master, 0), 0);
    EXPECT_EQ(master, 0x07000101u);
    ASSERT_EQ(libpmx_get_evlan_trunk_by_sub_ap_phyid(kApType | 100, &evlan, &trunk, 0), 0);
    EXPECT_EQ(evlan, 10u);
    EXPECT_EQ(trunk, 3u);
    EXPECT_EQ(libpmx_get_evlan_trunk_by_sub_ap_phyid(kApType | 100, &evlan, nullptr, 0),
              LIBPMX_E_INVAL);
    EXPECT_TRUE(logged_containing(
        log, "param invalid: evlan or trunk is null, phyid: 0x14000064, flag: 0"));

    // Records only in the database: flag 0 never reads, flag 1 reads once and caches nothing.
    const libpmx_sub_ap_info_t db_ap{200, kApType | 200, 30, 4, 0x07000301};
    const libpmx_sub_route_info_t db_route{300, kRouteType | 300, 40, 0x07000401};
    put_sub_ap(db_ap);
    put_sub_route(db_route);
    log.clear();
    EXPECT_EQ(libpmx_get_sub_ap_info_by_phyid_detail(kApType | 200, &got, 0), LIBPMX_E_NOT_FOUND);
    EXPECT_TRUE(log.has(LIBPMX_ZLOG_ERROR, "cache not found, ifx:200, flag: 0"));
    EXPECT_EQ(libpmx_get_sub_route_info_by_phyid_detail(kRouteType | 300, &rgot, 0),
              LIBPMX_E_NOT_FOUND);
    EXPECT_TRUE(log.has(LIBPMX_ZLOG_ERROR, "cache not found, phyid: 0x1300012c ifx:300 flag: 0"));
    EXPECT_EQ(reads(log), 0u);
    ASSERT_EQ(libpmx_get_sub_ap_info_by_phyid_detail(kApType | 200, &got, 1), 0);
    EXPECT_TRUE(got == db_ap);
    EXPECT_EQ(reads(log), 1u);
    ASSERT_EQ(libpmx_get_sub_route_info_by_phyid_detail(kRouteType | 300, &rgot, 1), 0);
    EXPECT_TRUE(rgot == db_route);
    EXPECT_EQ(reads(log), 2u);
    EXPECT_EQ(libpmx_sub_ap_info_get(200), nullptr);
    EXPECT_EQ(libpmx_sub_route_info_get(300), nullptr);

    // A record in neither: flag 1 is one attempt, handed on unchanged; the getter says so.
    log.clear();
    EXPECT_EQ(libpmx_get_route_phyid_by_sub_route_phyid(kRouteType | 301, &master, 1),
              LIBPMX_E_NOT_FOUND);
    EXPECT_TRUE(logged_containing(log, "ret -7, slept 0, max 2, op 1"));
    EXPECT_TRUE(logged_containing(log, "key:UIntf__IfxIndex-{ifx:301} op:1 ret:-7"));
    EXPECT_TRUE(log.has(LIBPMX_ZLOG_ERROR, "not found for sub_route phyid: 0x1300012d, flag: 1"));
    EXPECT_EQ(libpmx_get_evlan_by_sub_route_phyid(kRouteType | 300, &evlan, 1), 0);
    EXPECT_EQ(evlan, 40u);
}

TEST_F(SubIntf, ConvenienceGettersWaitOnTheDatabaseAndGiveZeroWhenAbsent)
{
    LogCapture log(5);
    put_sub_ap({200, kApType | 200, 30, 4, 0x07000301});
    put_sub_route({300, kRouteType | 300, 40, 0x07000401});
    EXPECT_EQ(libpmx_evlan_of_sub_ap(kApType | 200), 30u);
    EXPECT_EQ(libpmx_trunk_of_sub_ap(kApType | 200), 4u);
    EXPECT_EQ(libpmx_evlan_of_sub_route(kRouteType | 300), 40u);
    EXPECT_EQ(reads(log), 3u) << "one read each while the record is present";

    // Absent everywhere: the read waits to the limit of two sleeps, then 0.
    log.clear();
    EXPECT_EQ(libpmx_evlan_of_sub_ap(kApType | 201), 0u);
    EXPECT_TRUE(logged_containing(log, "ret -7, slept 2, max 2, op 2"));
    EXPECT_TRUE(logged_containing(log, "key:UIntf__IfxIndex-{ifx:201} op:2 ret:-7"));
    EXPECT_TRUE(log.has(LIBPMX_ZLOG_ERROR, "failed to get evlan, ret = -7, phyid = 0x140000c9"));
    libpmx_set_can_block_to_read_db(1);
    log.clear();
    EXPECT_EQ(libpmx_trunk_of_sub_ap(kApType | 202), 0u);
    EXPECT_TRUE(log.has(LIBPMX_ZLOG_ERROR, "failed to get evlan, ret = -7, phyid = 0x140000ca"));
    EXPECT_EQ(libpmx_evlan_of_sub_route(kApType | 300), 0u) << "a sub-AP phyid is no sub-route";
    EXPECT_TRUE(log.has(LIBPMX_ZLOG_ERROR, "failed to get evlan, ret = -4, phyid = 0x1400012c"));
}

TEST_F(SubIntf, DumpsAndWalksGoByAscendingIfx)
{
    libpmx_sub_ap_info_t old{};
    uint32_t has_old = 0, changed = 0;
    for (uint32_t ifx : {30u, 5u, 17u}) {
        const libpmx_sub_ap_info_t a{ifx, kApType | ifx, ifx + 1, 2, 0x07000100 + ifx};
        ASSERT_EQ(libpmx_save_cache_sub_ap_info(&a, &old, &has_old, &changed), 0);
    }
    const std::string ap_head = "|ifx     |phyid     |evlan   |trunk   |master_phyid|\n";
    EXPECT_EQ(dump(libpmx_dump_cache_sub_ap_info, 17),
              ap_head + "|17      |0x14000011|18      |2       |0x7000111   |\n");
    EXPECT_EQ(dump(libpmx_dump_cache_sub_ap_info, 99),
              ap_head + "not found evlan info for ifx:99 ! \n");
    EXPECT_EQ(dump(libpmx_dump_cache_sub_ap_info, 0),
              ap_head + "|5       |0x14000005|6       |2       |0x7000105   |\n"
                        "|17      |0x14000011|18      |2       |0x7000111   |\n"
                        "|30      |0x1400001e|31      |2       |0x700011e   |\n"
                        "----total = 3----\n");
    const libpmx_sub_route_info_t r{300, kRouteType | 300, 40, 0x07000401};
    libpmx_sub_route_info_t rold{};
    ASSERT_EQ(libpmx_save_cache_sub_route_info(&r, &rold, &has_old, &changed), 0);
    const std::string route_head = "|ifx     |phyid     |evlan   |master_phyid|\n";
    EXPECT_EQ(dump(libpmx_dump_cache_sub_route_info, 0),
              route_head + "|300     |0x1300012c|40      |0x7000401   |\n----total = 1----\n");
    EXPECT_EQ(dump(libpmx_dump_cache_sub_route_info, 301),
              route_head + "not found evlan info for ifx:301 ! \n");

    // The walk's op may look the same cache up (a read on top of the walk's read).
    std::vector<uint32_t> seen;
    libpmx_sub_ap_info_for_each_with_rdlock(
        [](void *e, void *a) {
            const auto *rec = static_cast<libpmx_sub_ap_info_t *>(e);
            libpmx_sub_ap_info_t again{};
            if (libpmx_get_sub_ap_info_by_phyid_detail(rec->phyid, &again, 0) == 0 && again.ifx == rec->ifx)
                static_cast<std::vector<uint32_t> *>(a)->push_back(rec->ifx);
            return 0;
        },
        &seen, 1);
    EXPECT_EQ(seen, (std::vector<uint32_t>{5, 17, 30}));
    LogCapture log(1);
    libpmx_sub_route_info_for_each_with_rdlock(nullptr, nullptr, 1);
    EXPECT_TRUE(log.has(LIBPMX_ZLOG_ERROR, "each_op is null"));
}

} // namespace

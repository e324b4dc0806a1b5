// The interface table and the card and subcard ids through their exported operations: the two
// kinds of conflict, which node answers, the database fall-backs and what they leave uncached,
// the dumps, and readers running while the table changes.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <string>
#include <thread>

#include "embedded_db.h"
#include "libpmx_cap.h"
#include "libpmx_hash.h"
#include "libpmx_intf.h"
#include "log_capture.h"
#include "u_intf.pb-c.h"

namespace
{

class Library : public ::testing::Environment
{
public:
    void SetUp() override
    {
        ASSERT_EQ(libpmx_hash_init(), 0);
        ASSERT_EQ(libpmx_intf_init(), 0);
    }
};
const auto *const kEnv = ::testing::AddGlobalTestEnvironment(new Library);

constexpr uint32_t kG1 = 0x0702040c, kG2 = 0x0702040d;

libpmx_intf_info_t intf(uint32_t ifx, uint32_t gphyid, int32_t dev = 1, int32_t slot = 2)
{
    libpmx_intf_info_t i{};
    i.ifx = ifx;
    i.gphyid = gphyid;
    i.lphyid = 0x08000000 | (gphyid & 0xff);
    i.dev = dev;
    i.slot = slot;
    i.lport = static_cast<int32_t>(gphyid & 0xff);
    return i;
}

std::string captured(void (*dump)(uint32_t), uint32_t arg)
{
    testing::internal::CaptureStdout();
    dump(arg);
    return testing::internal::GetCapturedStdout();
}

// Every ifx still in the table is removed, so each test starts empty.
class IntfTable : public ::testing::Test
{
protected:
    void TearDown() override
    {
        for (uint32_t ifx : {5u, 6u, 7u, 301u}) libpmx_del_intf_node(ifx);
    }
};

} // namespace

TEST_F(IntfTable, ConflictsKeepBothNodesAndTheOlderAnswers)
{
    LogCapture log(5);
    libpmx_intf_info_t a = intf(5, kG1), b = intf(6, kG1);
    ASSERT_EQ(libpmx_add_intf_node(&a), 0);
    ASSERT_EQ(libpmx_add_intf_node(&b), 0);
    EXPECT_TRUE(log.has(LIBPMX_ZLOG_ERROR, "conflict gphy 0x702040c to old-ifx 5 new-ifx 6"));
    uint32_t ifx = 0, phy = 0;
    EXPECT_EQ(libpmx_get_ifx_by_phyid_ext(kG1, &ifx), 0);
    EXPECT_EQ(ifx, 5u) << "the older node answers";

    // Ifx 5 moves to another gphyid: the update and the ifx conflict are both logged.
    a.gphyid = kG2;
    EXPECT_EQ(libpmx_update_intf_ifx_list(&a), 1);
    EXPECT_TRUE(log.has(LIBPMX_ZLOG_NOTICE, "update node ifx:5 phyid:0x702040c to ifx:5 phyid:0x702040d"));
    EXPECT_TRUE(log.has(LIBPMX_ZLOG_ERROR, "conflict ifx 5 to old-gphy 0x702040c new-gphy 0x702040d"));
    EXPECT_EQ(libpmx_get_ifx_by_phyid_ext(kG1, &ifx), 0);
    EXPECT_EQ(ifx, 6u);
    EXPECT_EQ(libpmx_get_ifx_by_phyid_ext(kG2, &ifx), 0);
    EXPECT_EQ(ifx, 5u);
    EXPECT_EQ(libpmx_get_phyid_by_ifx_ext(5, &phy), 0);
    EXPECT_EQ(phy, kG2);
    // The chains alone give the same answers, and so does the index built again from them.
    for (int on : {0, 1}) {
        ASSERT_EQ(libpmx_intf_index_enable(on), 0);
        EXPECT_EQ(libpmx_get_ifx_by_phyid_ext(kG1, &ifx), 0);
        EXPECT_EQ(ifx, 6u) << "index " << on;
        EXPECT_EQ(libpmx_get_phyid_by_ifx_ext(5, &phy), 0);
        EXPECT_EQ(phy, kG2) << "index " << on;
    }
    libpmx_intf_info_t copy{};
    EXPECT_EQ(libpmx_get_intf_node_by_ifx(5, &copy), 0);
    EXPECT_EQ(copy.lphyid, a.lphyid);

    // A management gphyid is refused and stores nothing; an update of an unknown ifx is 0.
    libpmx_intf_info_t mgmt = intf(7, 0xFFFFFFFFu);
    EXPECT_EQ(libpmx_add_intf_node(&mgmt), 0);
    EXPECT_TRUE(log.has(LIBPMX_ZLOG_WARN, "invalid mgmt gphyid:0xffffffff"));
    EXPECT_EQ(libpmx_get_intf_node_by_ifx(7, &copy), LIBPMX_E_NOT_FOUND);
    libpmx_intf_info_t unknown = intf(7, kG1);
    EXPECT_EQ(libpmx_update_intf_ifx_list(&unknown), 0);

    EXPECT_EQ(libpmx_del_intf_node(6), 0);
    EXPECT_TRUE(log.has(LIBPMX_ZLOG_INFO, "Find ifx:6 success"));
    EXPECT_EQ(libpmx_del_intf_node(6), LIBPMX_E_NOT_FOUND);
    EXPECT_TRUE(log.has(LIBPMX_ZLOG_INFO, "Find ifx:6 false"));
    EXPECT_EQ(libpmx_get_ifx_by_phyid_ext(kG1, &ifx), LIBPMX_E_NOT_FOUND);
}

TEST_F(IntfTable, BadInputAndCacheOnlyNeverReachTheDatabase)
{
    LogCapture log(5);
    uint32_t out = 99;
    // No database context on this thread: a database read would give -20, not -7.
    EXPECT_EQ(libpmx_get_phyid_by_ifx_ext(301, &out), LIBPMX_E_NOT_FOUND);
    EXPECT_EQ(out, 0u) << "the out value is cleared first";
    EXPECT_TRUE(log.has(LIBPMX_ZLOG_WARN, "get fail from cache, ifx:301, ret:-7"));
    EXPECT_EQ(libpmx_get_ifx_by_phyid_ext(kG1, &out), LIBPMX_E_NOT_FOUND);
    EXPECT_EQ(libpmx_get_phyid_by_ifx(0, &out), LIBPMX_E_INVAL);
    EXPECT_EQ(libpmx_get_phyid_by_ifx(5, nullptr), LIBPMX_E_FAIL);
    EXPECT_TRUE(log.has(LIBPMX_ZLOG_WARN, "input param is invalid"));
    EXPECT_EQ(libpmx_get_ifx_by_phyid(0, &out), LIBPMX_E_NOT_FOUND);
    EXPECT_TRUE(log.has(LIBPMX_ZLOG_WARN, "phyid:0 is invalid"));
    EXPECT_EQ(libpmx_get_ifx_by_phyid(kG1, nullptr), LIBPMX_E_FAIL);
    EXPECT_TRUE(log.has(LIBPMX_ZLOG_ERROR, "ifx is null, phyid:0x702040c, cache_op:2"));
    EXPECT_EQ(libpmx_add_intf_node(nullptr), LIBPMX_E_FAIL);
    EXPECT_EQ(libpmx_update_intf_ifx_list(nullptr), LIBPMX_E_FAIL);
    EXPECT_EQ(libpmx_alloc_intf_node(nullptr), LIBPMX_E_FAIL);
    EXPECT_EQ(libpmx_get_intf_node_by_ifx(5, nullptr), LIBPMX_E_FAIL);
    EXPECT_TRUE(log.has(LIBPMX_ZLOG_ERROR, "info is null ifx:5"));

    for (uint32_t type : {7u, 8u, 18u, 19u, 25u}) EXPECT_TRUE(libpmx_is_physical_port(type << 24 | 1)) << type;
    for (uint32_t type : {0u, 20u, 32u}) EXPECT_FALSE(libpmx_is_physical_port(type << 24 | 1)) << type;
    EXPECT_TRUE(libpmx_is_phyid_fit(kG1, 7));
    EXPECT_FALSE(libpmx_is_phyid_fit(kG1, 8));
}

TEST_F(IntfTable, DatabaseFallBacksAnswerWithoutCaching)
{
    EmbeddedDb db("intf-fallback");
    UIntf__IfxIndex index = U_INTF__IFX_INDEX__INIT;
    index.ifx = 301;
    UIntf__PmxIfxTbl rec = U_INTF__PMX_IFX_TBL__INIT;
    rec.index = &index;
    rec.ifx = 301;
    rec.gphyid = kG1;
    db.put(&rec.base, &index.base);
    UIntf__PhyIndex pindex = U_INTF__PHY_INDEX__INIT;
    pindex.phyid = kG2;
    UIntf__PmxPhyTbl prec = U_INTF__PMX_PHY_TBL__INIT;
    prec.index = &pindex;
    prec.ifx = 302;
    prec.gphyid = kG2;
    db.put(&prec.base, &pindex.base);

    LogCapture log(5);
    uint32_t out = 0;
    EXPECT_EQ(libpmx_get_phyid_by_ifx_ext_db(301, &out), 0);
    EXPECT_EQ(out, kG1);
    EXPECT_TRUE(log.has(LIBPMX_ZLOG_WARN, "find phyid from cache by ifx:301 fail, and try to get from DB"));
    EXPECT_EQ(libpmx_get_phyid_by_ifx_ext(301, &out), LIBPMX_E_NOT_FOUND) << "not cached by the read";
    EXPECT_EQ(libpmx_get_ifx_by_phyid(kG2, &out), 0);
    EXPECT_EQ(out, 302u);
    EXPECT_TRUE(log.has(LIBPMX_ZLOG_INFO, "phyid:0x702040d ifx:302"));
    libpmx_cap_set_block_times(1);
    EXPECT_EQ(libpmx_get_ifx_by_phyid(kG1, &out), LIBPMX_E_NOT_FOUND);
    EXPECT_TRUE(log.has(LIBPMX_ZLOG_ERROR, "get ifx fail from db, phyid:0x702040c ret:-7"));
    EXPECT_EQ(libpmx_get_phyid_by_ifx_ext_db(7, &out), LIBPMX_E_NOT_FOUND);
    EXPECT_TRUE(log.has(LIBPMX_ZLOG_ERROR, "get from db fail, ifx:7 ret:-7"));
    libpmx_cap_set_block_times(LIBPMX_DEFAULT_BLOCK_TIMES);
}

TEST_F(IntfTable, DumpsInChainOrderAndSorted)
{
    libpmx_intf_info_t a = intf(301, kG2, 2, 9), b = intf(5, kG1, 1, 3), c = intf(6, kG1, 1, 2);
    for (auto *i : {&a, &b, &c}) ASSERT_EQ(libpmx_add_intf_node(i), 0);
    const std::string all = captured(libpmx_dump_ifx_tbl, 0);
    // ifx chains 5, 6, 45 (301 AND 63) in that order; hex phyids; the total.
    const size_t r5 = all.find("\n5  "), r6 = all.find("\n6  "), r301 = all.find("\n301");
    ASSERT_NE(r301, std::string::npos) << all;
    EXPECT_LT(r5, r6);
    EXPECT_LT(r6, r301);
    EXPECT_NE(all.find("| 0x0702040d | 0x0800000d |"), std::string::npos) << all;
    EXPECT_NE(all.find("total: 3 interfaces\n"), std::string::npos) << all;
    EXPECT_NE(captured(libpmx_dump_ifx_tbl, 6).find("shown: 1 of 3 interfaces\n"), std::string::npos);
    // The gphyid chains: 0x0c before 0x0d; within one gphyid the older node first.
    const std::string phy = captured(libpmx_dump_phy_tbl, 0);
    EXPECT_LT(phy.find("\n5  "), phy.find("\n6  "));
    EXPECT_LT(phy.find("\n6  "), phy.find("\n301"));
    testing::internal::CaptureStdout();
    libpmx_dump_ifx_tbl_by_dev_slot(1, -1);
    const std::string dev1 = testing::internal::GetCapturedStdout();
    EXPECT_LT(dev1.find("\n6  "), dev1.find("\n5  ")) << "slot 2 before slot 3";
    EXPECT_EQ(dev1.find("\n301"), std::string::npos);
}

TEST_F(IntfTable, CardIdsCacheAndFallBacks)
{
    LogCapture log(5);
    libpmx_cache_cid_with_card_type(5, 1, 7);
    libpmx_cache_cid_with_card_type(5, 1, 9);
    libpmx_cache_cid_with_card_type(5, 1, 9);
    int existed = 0;
    for (const auto &l : log.lines()) existed += l.text == "existed card_type:5 subcard_type:1 local_cid:7, cid:9 ";
    EXPECT_EQ(existed, 1);
    int32_t cid = 42;
    EXPECT_EQ(libpmx_get_cid_with_card_type(5, 1, &cid, 0), 0);
    EXPECT_EQ(cid, 9);
    cid = 42;
    EXPECT_EQ(libpmx_get_cid_with_card_type(-1, 1, &cid, 2), LIBPMX_E_FAIL);
    EXPECT_EQ(cid, 42) << "untouched for card type -1";
    libpmx_cache_cid_with_card_type(6, 0, -1);
    EXPECT_EQ(libpmx_get_cid_with_card_type(6, 0, &cid, 0), LIBPMX_E_NOT_FOUND) << "a cached -1 is no cid";
    EXPECT_EQ(cid, -1);

    // Flag 1 reads the card-address record and does not cache what it read.
    {
        EmbeddedDb db("intf-cid");
        UIntf__CardAddressIdIndex index = U_INTF__CARD_ADDRESS_ID_INDEX__INIT;
        index.card_type = 12;
        UIntf__PmxCardAddressId rec = U_INTF__PMX_CARD_ADDRESS_ID__INIT;
        rec.index = &index;
        rec.card_pmx_id = 3;
        db.put(&rec.base, &index.base);
        EXPECT_EQ(libpmx_get_cid_with_card_type(12, 0, &cid, 1), 0);
        EXPECT_EQ(cid, 3);
        EXPECT_TRUE(log.has(LIBPMX_ZLOG_INFO, "card_type:12 subcard_type:0 cid:3 from db"));
        EXPECT_EQ(libpmx_get_cid_with_card_type(12, 0, &cid, 0), LIBPMX_E_NOT_FOUND);
    }

    // The scid: nothing while the switch is off; from the capability data on a miss, then cached.
    int32_t scid = 5;
    libpmx_cap_set_subcard_id_enable(0);
    EXPECT_EQ(libpmx_get_scid_with_subcard_type(3, &scid, 0), 0);
    EXPECT_EQ(scid, 0);
    libpmx_cap_set_subcard_id_enable(1);
    EXPECT_EQ(libpmx_get_scid_with_subcard_type(-1, &scid, 0), 0);
    EXPECT_EQ(libpmx_get_scid_with_subcard_type(3, &scid, 0), LIBPMX_E_NOT_FOUND);
    EXPECT_TRUE(log.has(LIBPMX_ZLOG_ERROR, "not found subcard scid. subcard_type:3"));
    ASSERT_EQ(setenv("PMX_CAP_FILE", PMX_TEST_BUILD_CAP_FILE, 1), 0);
    ASSERT_EQ(libpmx_cap_init(nullptr, "test"), 0);
    EXPECT_EQ(libpmx_get_scid_with_subcard_type(5, &scid, 2), 0);
    EXPECT_EQ(scid, 2);
    EXPECT_TRUE(log.has(LIBPMX_ZLOG_WARN, "find scid from cache by subcard:5 fail, and try to get from xml"));
    EXPECT_EQ(libpmx_get_scid_with_subcard_type(5, &scid, 0), 0) << "the capability's scid is cached";
    EXPECT_EQ(libpmx_get_scid_with_subcard_type(8, &scid, 2), LIBPMX_E_NOT_FOUND);
    EXPECT_TRUE(log.has(LIBPMX_ZLOG_WARN, "get from db fail, user_subcard_type:8 ret:-7"));
    EXPECT_EQ(libpmx_get_scid_with_subcard_type(5, nullptr, 0), LIBPMX_E_FAIL);

    testing::internal::CaptureStdout();
    libpmx_dump_cid_tbl(0, 0);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "\ncard_type   |subcard_type|cid\n6           |0           |-1 \n5           |1           |9  \n"
              "\nsubcard_type|scid\n5           |2  \n");
    testing::internal::CaptureStdout();
    libpmx_dump_cid_tbl(5, 1);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "\ncard_type   |subcard_type|cid\n5           |1           |9  \n\nsubcard_type|scid\n");
}

// Two readers ask while a writer moves, deletes and re-adds interfaces: every answer is one the
// table held at some moment (ifx i only ever has gphyid base + i or base + 4096 + i). Meanwhile
// the table grows by thousands of interfaces (their answer maps move to larger arrays under the
// readers' feet) and shrinks again.
TEST_F(IntfTable, TwoReadersWhileTheTableChanges)
{
    LogCapture quiet(0);
    constexpr uint32_t kIfx = 200, kBase = 0x07000000, kExtraIfx = 100000, kExtraBase = 0x07100000;
    std::atomic<uint32_t> extras{0};
    std::atomic<bool> shrinking{false}; // until then every extra added so far is there
    std::atomic<bool> done{false};
    std::atomic<int> wrong{0}, wrong_extra{0}, missed{0}, answers{0};
    auto reader = [&](unsigned seed) {
        while (!done.load()) {
            const uint32_t i = 1000 + static_cast<uint32_t>(rand_r(&seed)) % kIfx;
            uint32_t phy = 0, ifx = 0;
            if (libpmx_get_phyid_by_ifx_ext(i, &phy) == 0) {
                wrong += phy != kBase + (i - 1000) && phy != kBase + 4096 + (i - 1000);
                ++answers;
            }
            const uint32_t p = kBase + (i - 1000) + (rand_r(&seed) % 2) * 4096;
            if (libpmx_get_ifx_by_phyid_ext(p, &ifx) == 0) wrong += ifx != i;
            if (const uint32_t n = extras.load()) {
                const uint32_t e = static_cast<uint32_t>(rand_r(&seed)) % n;
                // A miss is wrong for the odd extras, which stay to the end, and for the even
                // ones while the shrinking has not begun: read after the answer, since the
                // shrinking may begin while the query runs.
                const auto missing = [&] { return e % 2 == 1 || !shrinking.load(); };
                if (libpmx_get_phyid_by_ifx_ext(kExtraIfx + e, &phy) == 0)
                    wrong_extra += phy != kExtraBase + e;
                else
                    missed += missing();
                if (libpmx_get_ifx_by_phyid_ext(kExtraBase + e, &ifx) == 0)
                    wrong_extra += ifx != kExtraIfx + e;
                else
                    missed += missing();
            }
        }
    };
    std::thread r1(reader, 1u), r2(reader, 2u);
    // At least 40 rounds, and on until the readers have seen a good number of answers.
    for (int round = 0; round < 40 || (answers.load() < 2000 && round < 200000); ++round) {
        for (uint32_t e = 0; round < 40 && e < 50; ++e) { // 2,000 more interfaces over the first rounds
            libpmx_intf_info_t x = intf(kExtraIfx + extras.load(), kExtraBase + extras.load());
            libpmx_add_intf_node(&x);
            ++extras;
        }
        for (uint32_t k = 0; k < kIfx; ++k) {
            libpmx_intf_info_t n = intf(1000 + k, kBase + k + ((round + k) % 2) * 4096);
            if ((round + k) % 7 == 0)
                libpmx_del_intf_node(n.ifx);
            else
                libpmx_add_intf_node(&n);
        }
    }
    shrinking = true;
    for (uint32_t e = 0; e < extras.load(); e += 2) libpmx_del_intf_node(kExtraIfx + e); // shrink under the readers
    done = true;
    r1.join();
    r2.join();
    EXPECT_EQ(wrong.load(), 0) << "answers about the moving interfaces that the table never held";
    EXPECT_EQ(wrong_extra.load(), 0) << "extras answered with ids the table never held";
    EXPECT_EQ(missed.load(), 0) << "extras reported absent while they were there";
    EXPECT_GT(answers.load(), 0);
    uint32_t phy = 0, ifx = 0;
    EXPECT_EQ(libpmx_get_phyid_by_ifx_ext(kExtraIfx + 1, &phy), 0);
    EXPECT_EQ(phy, kExtraBase + 1);
    EXPECT_EQ(libpmx_get_ifx_by_phyid_ext(kExtraBase + 2, &ifx), LIBPMX_E_NOT_FOUND) << "deleted before the readers ended";
    for (uint32_t k = 0; k < kIfx; ++k) libpmx_del_intf_node(1000 + k);
    for (uint32_t e = 1; e < extras.load(); e += 2) libpmx_del_intf_node(kExtraIfx + e);
}

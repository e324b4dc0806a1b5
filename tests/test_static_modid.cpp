// Static module ids: the slot position of each node type, the invalid-modid shift, the ctc and
// dune schemes, and the worker's choice of scheme by allocation mode, with its id log line.
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "embedded_db.h"
#include "libpmx_cap.h"
#include "libpmx_mod.h"
#include "libpmx_port.h"
#include "log_capture.h"
#include "p_dev.pb-c.h"

namespace
{

// The capability data of these tests, before the library first loads any.
const bool g_caps = [] {
    setenv("PMX_CAP_FILE", PMX_SOURCE_DIR "/tests/data/caps_static.json", 1);
    return true;
}();

std::vector<uint32_t> cap_ids(int32_t node_type, int32_t dev, int32_t slot, int32_t card_type, int *rc)
{
    std::vector<uint32_t> ids(64, 0);
    int32_t n = 0;
    *rc = libpmx_mod_alloc_id_static(node_type, dev, slot, card_type, ids.data(), 64, &n);
    ids.resize(*rc == 0 ? static_cast<size_t>(n) : 0);
    return ids;
}

class StaticModid : public ::testing::Test
{
protected:
    void SetUp() override
    {
        ASSERT_TRUE(g_caps);
        ASSERT_EQ(libpmx_cap_init(nullptr, "test_static_modid"), 0);
        libpmx_port_init();
    }
    // This card: node type, dev, slot, card type 12, and its allocation parameters.
    void card(int32_t node_type, int32_t dev, int32_t slot, std::vector<uint32_t> mode4)
    {
        const int32_t info[5] = {node_type, slot, 12, libpmx_get_node_by_dev_slot(dev, slot), 0};
        libpmx_cache_set_my_info(info);
        libpmx_cache_set_my_chss(dev);
        const int32_t max_port[8] = {};
        libpmx_cache_set_card_statt(8, 2, max_port, mode4.data(), 0, 0);
    }
};

TEST_F(StaticModid, CapabilitySchemePositionsAndTheInvalidModidShift)
{
    int rc = 0;
    // Node type 3, dev 1 slot 4: p = 4, base 32; the invalid 10 and 11 below it shift both ids.
    EXPECT_EQ(cap_ids(3, 1, 4, 12, &rc), (std::vector<uint32_t>{34, 35}));
    // dev 2 without a line-card slot count: p = 4 + 21.
    EXPECT_EQ(cap_ids(3, 2, 4, 12, &rc), (std::vector<uint32_t>{202, 203}));
    // Base 9 (node type 1, dev 2, 9 a slot): 9, then 10 and 11 skipped.
    EXPECT_EQ(cap_ids(1, 2, 0, 40, &rc), (std::vector<uint32_t>{9, 12, 13}));
    EXPECT_EQ(cap_ids(2, 1, 31, 12, &rc), (std::vector<uint32_t>{8})) << "node type 2: slot + 2 dev - 32";
    EXPECT_EQ(cap_ids(5, 1, 23, 12, &rc), (std::vector<uint32_t>{8, 9})) << "node type 5: slot - 22";
    EXPECT_EQ(cap_ids(5, 1, 24, 12, &rc), (std::vector<uint32_t>{18, 19})) << "16 and 17, past 10 and 11";

    LogCapture log(1);
    cap_ids(4, 1, 3, 12, &rc);
    EXPECT_EQ(rc, LIBPMX_E_INVAL);
    EXPECT_TRUE(log.has(LIBPMX_ZLOG_ERROR, "invaid node type:4"));
    uint32_t one = 0;
    int32_t n = 0;
    EXPECT_EQ(libpmx_mod_alloc_id_static(3, 1, 3, 12, &one, 1, &n), LIBPMX_E_INVAL);
    EXPECT_TRUE(log.has(LIBPMX_ZLOG_ERROR, "invaid id size(1 2)"));
    cap_ids(6, 1, 3, 12, &rc);
    EXPECT_EQ(rc, LIBPMX_E_NOT_FOUND);
    EXPECT_TRUE(log.has(LIBPMX_ZLOG_ERROR, "get modid info failed from cap node type=0x6 ret:-7"));
    cap_ids(3, 1, 3, 99, &rc);
    EXPECT_TRUE(log.has(LIBPMX_ZLOG_ERROR, "get modid info failed from cap ret:-7"));
}

TEST_F(StaticModid, CtcAndDuneSchemes)
{
    uint32_t ids[16] = {};
    const uint32_t ctc[4] = {2, 2, 1, 100};
    ASSERT_EQ(libpmx_mod_alloc_id_ctc_static(30, ctc, ids), 0) << "dev 1 slot 30: mod_base 1";
    EXPECT_EQ(std::vector<uint32_t>(ids, ids + 2), (std::vector<uint32_t>{34, 35}));
    ASSERT_EQ(libpmx_mod_alloc_id_ctc_static(3, ctc, ids), 0);
    EXPECT_EQ(std::vector<uint32_t>(ids, ids + 2), (std::vector<uint32_t>{38, 39}));
    LogCapture log(1);
    const uint32_t tight[4] = {2, 2, 1, 39};
    EXPECT_EQ(libpmx_mod_alloc_id_ctc_static(3, tight, ids), LIBPMX_E_FAIL);
    EXPECT_TRUE(log.has(LIBPMX_ZLOG_ERROR, "id[1](39) bigger than support_num(39)"));
    const uint32_t three[4] = {2, 3, 1, 100};
    EXPECT_EQ(libpmx_mod_alloc_id_ctc_static(3, three, ids), LIBPMX_E_FAIL);
    EXPECT_EQ(libpmx_mod_alloc_id_ctc_static(512, ctc, ids), LIBPMX_E_FAIL);

    const uint32_t dune1[4] = {1, 5, 1, 0};
    ASSERT_EQ(libpmx_mod_alloc_id_dune_static(3, dune1, ids), 0) << "even indexes, 8 moves to the second range";
    EXPECT_EQ(std::vector<uint32_t>(ids, ids + 5), (std::vector<uint32_t>{42, 44, 46, 48, 1054}));
    const uint32_t dune2[4] = {1, 12, 2, 0};
    ASSERT_EQ(libpmx_mod_alloc_id_dune_static(3, dune2, ids), 0);
    EXPECT_EQ(ids[7], 49u);
    EXPECT_EQ(ids[8], 1054u);
    EXPECT_EQ(ids[11], 1057u);
    const uint32_t dune13[4] = {1, 13, 2, 0};
    EXPECT_EQ(libpmx_mod_alloc_id_dune_static(3, dune13, ids), LIBPMX_E_FAIL);
    EXPECT_TRUE(log.has(LIBPMX_ZLOG_ERROR, "get dune-static-modid failed, ret -11"));
}

TEST_F(StaticModid, TheWorkerPicksTheSchemeOfTheAllocationMode)
{
    LogCapture log(5);
    uint32_t ids[40] = {};
    int32_t n = 0;
    card(3, 1, 30, {2, 2, 1, 100});
    ASSERT_EQ(libpmx_get_static_modid(ids, 40, &n), 0);
    EXPECT_EQ(std::vector<uint32_t>(ids, ids + n), (std::vector<uint32_t>{34, 35}));
    EXPECT_TRUE(log.has(LIBPMX_ZLOG_NOTICE, "did get ctc-static-modid: [ 34, 35,  ] "));
    EXPECT_TRUE(log.has(LIBPMX_ZLOG_INFO, "begin block for complete-lc"));

    card(2, 2, 30, {1, 4, 1, 0});
    ASSERT_EQ(libpmx_get_static_modid(ids, 40, &n), 0) << "node type 2: one id, whatever the mode";
    EXPECT_EQ(n, 1);
    EXPECT_EQ(ids[0], 30u + 2 - 21);

    card(7, 1, 13, {4, 0, 1, 0});
    ASSERT_EQ(libpmx_get_static_modid(ids, 40, &n), 0) << "the capability scheme, 30 ids from 104 + 2";
    EXPECT_EQ(n, 30);
    EXPECT_EQ(ids[29], 135u);
    // 30 ids of 5 characters do not fit the 128-byte line: the first 25 do, then the note.
    std::string line = "did get cap-static-modid: [ ";
    for (uint32_t id = 106; id < 131; ++id) line += std::to_string(id) + ", ";
    EXPECT_TRUE(log.has(LIBPMX_ZLOG_NOTICE, line + " ] buff overflowed !!!"));

    n = -1;
    card(3, 1, 3, {0, 2, 1, 100});
    EXPECT_EQ(libpmx_get_static_modid(ids, 40, &n), LIBPMX_E_FAIL);
    EXPECT_TRUE(log.has(LIBPMX_ZLOG_ERROR, "alloc type:0 don't support static got modid"));
    card(3, 1, 3, {3, 2, 1, 100});
    EXPECT_EQ(libpmx_get_static_modid(ids, 40, &n), LIBPMX_E_FAIL);
    EXPECT_TRUE(log.has(LIBPMX_ZLOG_ERROR, "invalid mode alloc type:3"));
    card(3, 1, 3, {1, 4, 1, 0});
    EXPECT_EQ(libpmx_get_static_modid(ids, 2, &n), LIBPMX_E_FAIL);
    EXPECT_TRUE(log.has(LIBPMX_ZLOG_ERROR, "id_size(2) littler than id_num(4)"));
    EXPECT_EQ(n, -1) << "count written only on success";
    EXPECT_EQ(libpmx_get_static_modid(ids, 0, &n), LIBPMX_E_INVAL);
    EXPECT_EQ(libpmx_get_static_modid(nullptr, 4, &n), LIBPMX_E_INVAL);
}

TEST_F(StaticModid, SupportingSubcardWaitsForTheStaticAttributes)
{
    EmbeddedDb db("static-modid-stattr");
    PDev__DmStattrComplete done = P_DEV__DM_STATTR_COMPLETE__INIT;
    done.all_complete = 1;
    db.put(&done.base);
    LogCapture log(5);
    uint32_t ids[4] = {};
    int32_t n = 0;
    card(3, 1, 3, {2, 2, 1, 100});
    ASSERT_EQ(libpmx_get_static_modid_supporting_subcard(ids, 4, &n), 0);
    EXPECT_EQ(std::vector<uint32_t>(ids, ids + n), (std::vector<uint32_t>{38, 39}));
    EXPECT_TRUE(log.has(LIBPMX_ZLOG_INFO, "begin block for complete-stattr"));
    EXPECT_TRUE(log.has(LIBPMX_ZLOG_INFO, "begin block for ndm-complete-stattr"));
    EXPECT_TRUE(log.has(LIBPMX_ZLOG_INFO, "did  sleep 1"));
    EXPECT_TRUE(log.has(LIBPMX_ZLOG_INFO, "end   block for complete-stattr"));
}

} // namespace

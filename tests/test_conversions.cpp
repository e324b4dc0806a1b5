// Physical-id conversions at their edges: ids handed back unchanged, the folding of modid and cid,
// back-plane and tunnel ids, sub-port ids, split overrides where they apply and nowhere else, mode
// 0 never reaching the database, and the panel-port count. The ground truth of whole chassis is
// checked by the chassis suite.
#include <gtest/gtest.h>

#include <string>
#include <utility>

#include "embedded_db.h"
#include "libpmx_cap.h"
#include "libpmx_intf.h"
#include "libpmx_mod.h"
#include "libpmx_port.h"
#include "libpmx_split.h"
#include "log_capture.h"
#include "p_dev.pb-c.h"

namespace
{

constexpr int32_t kCard = 12;

class Conversions : public ::testing::Test
{
protected:
    void SetUp() override
    {
        libpmx_port_init();
        libpmx_cap_set_subcard_id_enable(0);
        libpmx_cap_set_block_times(1);
        // This card: dev 1 slot 3, a module table of two units (modids 40, 41), four ports.
        const int32_t info[5] = {3, 3, kCard, libpmx_get_node_by_dev_slot(1, 3), 0};
        libpmx_cache_set_my_info(info);
        libpmx_cache_set_my_chss(1);
        ce_pmx_fuid_info_per_slot_t t{};
        t.status = 1;
        t.card_type = kCard;
        t.fuid_num = 2;
        for (int u = 0; u < 2; ++u) {
            t.fuid[u].unit = static_cast<int8_t>(u);
            t.fuid[u].idnum = 1;
            t.fuid[u].modid[0] = 40 + static_cast<uint32_t>(u);
        }
        ASSERT_EQ(libpmx_add_mod_tbl(1, 3, 0, &t), 0);
        libpmx_cache_cid_with_card_type(kCard, 0, 2);
        for (const libpmx_port_info_t &p : {libpmx_port_info_t{0, 12, 1, 0, 0, kCard},
                                            libpmx_port_info_t{1, 5, 2, 0, 0, kCard}})
            ASSERT_EQ(libpmx_port_set_unit_port(&p), 0);
        libpmx_port_set_local_port_info(2, nullptr, 0);
    }
    void TearDown() override { libpmx_cap_set_block_times(LIBPMX_DEFAULT_BLOCK_TIMES); }
    EmbeddedDb db_{::testing::UnitTest::GetInstance()->current_test_info()->name()};
};

TEST_F(Conversions, IdsHandedBackAndIdsRefused)
{
    uint32_t out = 0, m = 0, p = 0;
    const uint32_t g = 7u << 24 | 2u << 19 | 40u << 8 | 12;
    EXPECT_EQ(libpmx_get_gphyid_by_lphyid_ext(g, &out), 0);
    EXPECT_EQ(out, g) << "a gphyid stays itself";
    EXPECT_EQ(libpmx_get_lphyid_by_gphyid_ext(0x0800010c, &out), 0);
    EXPECT_EQ(out, 0x0800010cu) << "so does an lphyid";
    EXPECT_EQ(libpmx_get_lphyid_by_gphyid_ext(0, &out), LIBPMX_E_NOT_FOUND);
    EXPECT_EQ(libpmx_get_gphyid_by_lphyid_ext(g, nullptr), LIBPMX_E_FAIL);

    const uint32_t tunnel = 32u << 24 | 5;
    EXPECT_TRUE(libpmx_is_tunnel_phyid(tunnel));
    EXPECT_EQ(libpmx_get_mod_port_by_phyid_ext(tunnel, &m, &p), LIBPMX_E_INVAL);
    EXPECT_EQ(libpmx_get_unit_port_by_lphyid_ext(tunnel, &m, &p), LIBPMX_E_INVAL);
    EXPECT_EQ(libpmx_get_lphyid_by_gphyid_ext(tunnel, &out), 0);
    EXPECT_EQ(out, tunnel);

    // Back-plane id: no module port; unit bits 10-15 and port bits 0-9 for a back-plane port.
    LogCapture log(1);
    const uint32_t bp = 18u << 24 | 3u << 10 | 0x201u;
    EXPECT_EQ(libpmx_get_mod_port_by_phyid_ext(bp, &m, &p), LIBPMX_E_INVAL);
    EXPECT_TRUE(log.has(LIBPMX_ZLOG_ERROR, "bp phyid:0x12000e01 don't supoort mod port"));
    libpmx_port_set_bp_range(1001, 2);
    ASSERT_EQ(libpmx_port_set_bp_lport(1001, 3, 0x201, 1), 0);
    EXPECT_EQ(libpmx_get_unit_port_by_lphyid_ext(bp, &m, &p), 0);
    EXPECT_EQ(std::make_pair(m, p), std::make_pair(3u, 0x201u));
    // The same port as a local id is refused: its panel port is a back-plane port.
    const auto bp_port = static_cast<int32_t>(p);
    libpmx_port_info_t as_panel{3, bp_port, 1001, 0, 0, kCard};
    ASSERT_EQ(libpmx_port_set_unit_port(&as_panel), 0);
    EXPECT_EQ(libpmx_get_unit_port_by_lphyid_ext(0x08000000u | 3u << 8 | 0x01u, &m, &p), LIBPMX_E_NOT_FOUND);
}

TEST_F(Conversions, ModidAndCidFoldIntoTheirBits)
{
    ce_pmx_fuid_info_per_slot_t t{};
    t.status = 1;
    t.card_type = 77;
    t.fuid_num = 1;
    t.fuid[0].idnum = 1;
    t.fuid[0].modid[0] = 0x800;
    ASSERT_EQ(libpmx_add_mod_tbl(1, 7, 0, &t), 0);
    libpmx_cache_cid_with_card_type(77, 0, 33);
    uint32_t g = 0;
    ASSERT_EQ(libpmx_get_phyid_by_mod_port_ext(0x800, 0x1ff, &g), 0);
    EXPECT_EQ(g, 7u << 24 | 1u << 19 | 0u << 8 | 0xffu) << "modid 0x800 folds to 0, cid 33 to 1, port keeps 0xff";
    uint32_t m = 0, p = 0;
    EXPECT_EQ(libpmx_get_mod_port_by_phyid_ext(g, &m, &p), 0);
    EXPECT_EQ(std::make_pair(m, p), std::make_pair(0u, 0xffu));
}

TEST_F(Conversions, BothWaysOnTheLocalCard)
{
    uint32_t l = 0, g = 0, u = 0, p = 0;
    ASSERT_EQ(libpmx_get_lphyid_by_unit_port_ext(1, 5, &l), 0);
    EXPECT_EQ(l, 0x08000105u);
    ASSERT_EQ(libpmx_get_gphyid_by_lphyid_ext(l, &g), 0);
    EXPECT_EQ(g, 7u << 24 | 2u << 19 | 41u << 8 | 5) << "the local modid of unit 1, the card's cid";
    ASSERT_EQ(libpmx_get_lphyid_by_gphyid_ext(g, &l), 0);
    EXPECT_EQ(l, 0x08000105u);
    ASSERT_EQ(libpmx_get_unit_port_by_lphyid_ext(g, &u, &p), 0);
    EXPECT_EQ(std::make_pair(u, p), std::make_pair(1u, 5u));
    // A virtual-unit port takes type 25.
    libpmx_port_info_t virt{1, 6, -1, 0, 1, kCard};
    ASSERT_EQ(libpmx_port_set_unit_port(&virt), 0);
    ASSERT_EQ(libpmx_get_gphyid_by_lphyid_ext(0x08000106, &g), 0);
    EXPECT_EQ(g >> 24, 25u);
    // A chip port that is not this card's.
    EXPECT_EQ(libpmx_get_lphyid_by_unit_port_ext(5, 5, &l), LIBPMX_E_NOT_FOUND);
    EXPECT_EQ(libpmx_get_unit_port_by_lphyid_ext(0x08000505, &u, &p), LIBPMX_E_NOT_FOUND);
}

TEST_F(Conversions, SplitPortsOverrideThreeConversionsOnly)
{
    const uint32_t split_g = 7u << 24 | 2u << 19 | 40u << 8 | 13, split_l = 0x0800000d;
    ASSERT_EQ(libpmx_update_mod_port_gphyid(split_g, 40, 12, 1), 0);
    ASSERT_EQ(libpmx_update_unit_port_lphyid(split_l, 0, 12, 1), 0);
    uint32_t g = 0, l = 0, m = 0, p = 0;
    EXPECT_EQ(libpmx_get_phyid_by_mod_port_ext(40, 12, &g), 0);
    EXPECT_EQ(g, split_g);
    EXPECT_EQ(libpmx_get_mod_port_by_phyid_ext(split_g, &m, &p), 0);
    EXPECT_EQ(std::make_pair(m, p), std::make_pair(40u, 12u)) << "not the bits of the id (port 13)";
    EXPECT_EQ(libpmx_get_lphyid_by_unit_port_ext(0, 12, &l), 0);
    EXPECT_EQ(l, split_l);
    // The gphyid/lphyid pair keeps to its arithmetic.
    EXPECT_EQ(libpmx_get_lphyid_by_gphyid_ext(split_g, &l), 0);
    EXPECT_EQ(l, 0x0800000du) << "unit of modid 40, port 13 of the id";
    EXPECT_EQ(libpmx_get_gphyid_by_lphyid_ext(0x0800000c, &g), 0);
    EXPECT_EQ(g, 7u << 24 | 2u << 19 | 40u << 8 | 12);
    // A thread that ignores split ports gets the arithmetic.
    libpmx_set_ignore_split_mapping(1);
    EXPECT_EQ(libpmx_get_phyid_by_mod_port_ext(40, 12, &g), 0);
    EXPECT_EQ(g, 7u << 24 | 2u << 19 | 40u << 8 | 12);
    libpmx_set_ignore_split_mapping(0);
    libpmx_update_mod_port_gphyid(split_g, 40, 12, 0);
    libpmx_update_unit_port_lphyid(split_l, 0, 12, 0);
}

TEST_F(Conversions, SubPortIdsModeZeroAndThePanelPortCount)
{
    LogCapture log(5);
    uint32_t l = 0, m = 0, p = 0;
    const uint32_t sub = 19u << 24 | 901;
    EXPECT_EQ(libpmx_get_lphyid_by_gphyid_ext(sub, &l), LIBPMX_E_NOT_FOUND) << "no interface node, mode 0";
    EXPECT_EQ(libpmx_get_mod_port_by_phyid_ext(sub, &m, &p), LIBPMX_E_NOT_FOUND);
    for (const LoggedLine &line : log.lines())
        EXPECT_EQ(line.text.find("proto"), std::string::npos) << "mode 0 read the database: " << line.text;
    EXPECT_TRUE(log.has(LIBPMX_ZLOG_ERROR, "get lphyid of subgphyid failed, gphyid:0x13000385"));

    // A sub-port of this card and one of another card.
    libpmx_intf_info_t node{};
    node.ifx = 901;
    node.gphyid = sub;
    node.dev = 1;
    node.slot = 3;
    node.unit = 1;
    node.port = 5;
    ASSERT_EQ(libpmx_add_intf_node(&node), 0);
    EXPECT_EQ(libpmx_get_lphyid_by_gphyid_ext(sub, &l), 0);
    EXPECT_EQ(l, 0x08000105u);
    EXPECT_EQ(libpmx_get_mod_port_by_phyid_ext(sub, &m, &p), 0);
    EXPECT_EQ(std::make_pair(m, p), std::make_pair(41u, 5u));
    node.ifx = 902;
    node.gphyid = 19u << 24 | 902;
    node.slot = 4;
    ASSERT_EQ(libpmx_add_intf_node(&node), 0);
    EXPECT_EQ(libpmx_get_lphyid_by_gphyid_ext(node.gphyid, &l), LIBPMX_E_INVAL);
    EXPECT_TRUE(log.has(LIBPMX_ZLOG_ERROR, "gphyid(0x13000386) isn't local, local dev(1) slot(3) dev(1) slot(4)"));
    libpmx_del_intf_node(901);
    libpmx_del_intf_node(902);

    // A port read from the database whose panel port is beyond the card's count.
    PDev__UnitCportIndex idx = P_DEV__UNIT_CPORT_INDEX__INIT;
    idx.unit = 1;
    idx.cport = 9;
    PDev__DmPortAttrT attr;
    protobuf_c_message_init(&p_dev__dm_port_attr_t__descriptor, &attr);
    attr.lport = 1500;
    PDev__UnitCportInfo rec = P_DEV__UNIT_CPORT_INFO__INIT;
    rec.index = &idx;
    rec.static_info = &attr;
    rec.owner_card_type = kCard;
    db_.put(&rec.base, &idx.base);
    EXPECT_EQ(libpmx_get_lphyid_by_unit_port_ext(1, 9, &l), LIBPMX_E_NOT_FOUND) << "mode 0";
    EXPECT_EQ(libpmx_get_lphyid_by_unit_port_detail(1, 9, &l, 1), LIBPMX_E_PORT_RANGE);
    EXPECT_TRUE(log.has(LIBPMX_ZLOG_ERROR, "unit 1 port 9: lport 1500 > max_lport 2"));
}

} // namespace

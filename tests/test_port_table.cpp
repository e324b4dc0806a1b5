// The local port table: ports stored and forgotten by the change entry points, the lookups by
// chip port and panel port, the database fall-backs that keep what they read, virtual units,
// back-plane ports, the subcard port queries and the dump.
#include <gtest/gtest.h>

#include <string>
#include <tuple>

#include "embedded_db.h"
#include "libpmx_cap.h"
#include "libpmx_port.h"
#include "log_capture.h"
#include "p_dev.pb-c.h"
#include "s_cluster.pb-c.h"

namespace
{

class PortTable : public ::testing::Test
{
protected:
    void SetUp() override
    {
        libpmx_port_init();
        const int32_t info[5] = {3, 3, kCard, 0x0C040300, 0};
        libpmx_cache_set_my_info(info);
        ASSERT_EQ(libpmx_cap_init(nullptr, "test_port_table"), 0); // the subcard-id table
        libpmx_cap_set_subcard_id_enable(1);
        for (const libpmx_port_info_t &p : {libpmx_port_info_t{0, 12, 1, 0, 0, kCard},
                                            libpmx_port_info_t{0, 20, 9, 1, 0, kSubcard},
                                            libpmx_port_info_t{3, 0, -1, 0, 1, kCard}})
            ASSERT_EQ(libpmx_port_set_unit_port(&p), 0);
    }
    static constexpr int32_t kCard = 12, kSubcard = 3; // subcard type 3 has scid 1 in the default caps
    EmbeddedDb db_{::testing::UnitTest::GetInstance()->current_test_info()->name()};
};

TEST_F(PortTable, LookupsByChipPortAndPanelPort)
{
    libpmx_port_info_t info{};
    ASSERT_EQ(libpmx_port_portinfo_by_unit_port(0, 20, &info), 0);
    EXPECT_EQ(std::make_tuple(info.lport, info.core, info.card_type), std::make_tuple(9, 1, kSubcard));
    int32_t lport = 0, core = -1, unit = -1, port = -1;
    EXPECT_EQ(libpmx_get_lport_by_unit_port_ext(0, 12, &lport), 0);
    EXPECT_EQ(lport, 1);
    EXPECT_EQ(libpmx_get_coreid_by_unit_port_detail(0, 20, &core, 0), 0);
    EXPECT_EQ(core, 1);
    EXPECT_EQ(libpmx_get_unit_port_by_lport_ext(9, &unit, &port), 0);
    EXPECT_EQ(std::make_pair(unit, port), std::make_pair(0, 20));
    EXPECT_EQ(libpmx_get_lport_by_unit_port_ext(3, 0, &lport), LIBPMX_E_NOT_FOUND) << "no panel port";
    EXPECT_TRUE(libpmx_is_local_virtual_unit_port(3, 0));
    EXPECT_FALSE(libpmx_is_local_virtual_unit_port(0, 12));
    EXPECT_FALSE(libpmx_is_local_virtual_unit_port(7, 7));

    // A refresh moves the panel port; a forgotten port is gone both ways.
    const libpmx_port_info_t moved{0, 12, 2, 0, 0, kCard};
    ASSERT_EQ(libpmx_port_set_unit_port(&moved), 0);
    EXPECT_EQ(libpmx_get_unit_port_by_lport_ext(1, &unit, &port), LIBPMX_E_NOT_FOUND);
    EXPECT_EQ(libpmx_get_unit_port_by_lport_ext(2, &unit, &port), 0);
    ASSERT_EQ(libpmx_port_del_unit_port(0, 20), 0);
    EXPECT_EQ(libpmx_port_del_unit_port(0, 20), LIBPMX_E_NOT_FOUND);
    EXPECT_EQ(libpmx_get_unit_port_by_lport_ext(9, &unit, &port), LIBPMX_E_NOT_FOUND);
    EXPECT_EQ(libpmx_port_portinfo_by_unit_port(0, 20, &info), LIBPMX_E_NOT_FOUND);
    const libpmx_port_info_t beyond{0, 40, LIBPMX_ONLINE_LPORT_MAX, 0, 0, kCard};
    EXPECT_EQ(libpmx_port_set_unit_port(&beyond), LIBPMX_E_INVAL);
    EXPECT_EQ(libpmx_port_set_unit_port(nullptr), LIBPMX_E_FAIL);
    EXPECT_EQ(libpmx_get_lport_by_unit_port_ext(0, 12, nullptr), LIBPMX_E_FAIL);
}

TEST_F(PortTable, SubcardTypeAndScidOfAChipPort)
{
    int32_t sct = -1, scid = -1;
    EXPECT_EQ(libpmx_get_subcard_type_scid_by_unit_port(0, 12, &sct, &scid, 0), 0);
    EXPECT_EQ(std::make_pair(sct, scid), std::make_pair(0, 0)) << "a port of the card itself";
    EXPECT_EQ(libpmx_get_subcard_type_scid_by_unit_port(0, 20, &sct, &scid, 1), 0);
    EXPECT_EQ(std::make_pair(sct, scid), std::make_pair(kSubcard, 1));
    scid = -1;
    EXPECT_EQ(libpmx_get_scid_by_unit_port(0, 20, &scid, 0), 0) << "the scid is cached now";
    EXPECT_EQ(scid, 1);
    libpmx_cap_set_subcard_id_enable(0);
    EXPECT_EQ(libpmx_get_scid_by_unit_port(0, 20, &scid, 0), 0);
    EXPECT_EQ(scid, 0) << "the subcard-id switch off";
    EXPECT_EQ(libpmx_get_scid_by_unit_port(5, 5, &scid, 0), LIBPMX_E_NOT_FOUND);
    const int32_t unknown[5] = {-1, -1, -1, -1, -1};
    libpmx_cache_set_my_info(unknown);
    EXPECT_EQ(libpmx_get_scid_by_unit_port(0, 12, &scid, 0), LIBPMX_E_INVAL) << "this card's type unknown";
}

TEST_F(PortTable, DatabaseFallBacksKeepWhatTheyRead)
{
    PDev__UnitCportIndex idx = P_DEV__UNIT_CPORT_INDEX__INIT;
    idx.unit = 1;
    idx.cport = 30;
    PDev__DmPortAttrT attr;
    protobuf_c_message_init(&p_dev__dm_port_attr_t__descriptor, &attr);
    attr.unit = 1;
    attr.port = 30;
    attr.lport = 5;
    attr.coreid = 1;
    PDev__UnitCportInfo rec = P_DEV__UNIT_CPORT_INFO__INIT;
    rec.index = &idx;
    rec.static_info = &attr;
    rec.owner_card_type = kCard;
    db_.put(&rec.base, &idx.base);
    int32_t lport = 0, core = 0;
    EXPECT_EQ(libpmx_get_lport_by_unit_port_ext(1, 30, &lport), LIBPMX_E_NOT_FOUND) << "mode 0";
    EXPECT_EQ(libpmx_get_lport_by_unit_port(1, 30, &lport), 0);
    EXPECT_EQ(lport, 5);
    EXPECT_EQ(libpmx_get_coreid_by_unit_port_detail(1, 30, &core, 0), 0) << "kept";
    EXPECT_EQ(core, 1);
    EXPECT_EQ(libpmx_get_lport_by_unit_port(1, 31, &lport), LIBPMX_E_NOT_FOUND);

    PDev__LocalPortInfo ports = P_DEV__LOCAL_PORT_INFO__INIT;
    int32_t online[] = {1, 2};
    ports.lport_num = 24;
    ports.n_online_lport = 2;
    ports.online_lport = online;
    db_.put(&ports.base);
    EXPECT_EQ(libpmx_get_local_lport_num(), 24);
    EXPECT_TRUE(libpmx_port_lport_is_online(2));
    EXPECT_FALSE(libpmx_port_lport_is_online(3));

    SCluster__IxnLportInfo range = S_CLUSTER__IXN_LPORT_INFO__INIT;
    range.lport_base = 100;
    range.lport_num = 4;
    db_.put(&range.base);
    EXPECT_FALSE(libpmx_is_bp_lport_ext(101)) << "the range is not read by the _ext form";
    EXPECT_TRUE(libpmx_is_bp_lport(101));
    EXPECT_TRUE(libpmx_is_bp_lport_ext(103));
    EXPECT_FALSE(libpmx_is_bp_lport(104));
    SCluster__IxnLportToUptIndex bi = S_CLUSTER__IXN_LPORT_TO_UPT_INDEX__INIT;
    bi.lport = 101;
    SCluster__IxnLportToUpt bp = S_CLUSTER__IXN_LPORT_TO_UPT__INIT;
    bp.index = &bi;
    bp.unit = 5;
    bp.port = 7;
    db_.put(&bp.base, &bi.base);
    uint32_t unit = 0, port = 0;
    EXPECT_EQ(libpmx_get_bp_unit_port_by_lport(101, &unit, &port, 0), LIBPMX_E_NOT_FOUND);
    EXPECT_EQ(libpmx_get_bp_unit_port_by_lport(101, &unit, &port, 1), 0);
    EXPECT_EQ(std::make_pair(unit, port), std::make_pair(5u, 7u));
    EXPECT_EQ(libpmx_get_bp_unit_port_by_lport(101, &unit, &port, 0), 0) << "kept";

    testing::internal::CaptureStdout();
    libpmx_dump_port_table();
    const std::string out = testing::internal::GetCapturedStdout();
    EXPECT_NE(out.find("    5 |    1 |   30 |    1 | physical |        12 | no\n"), std::string::npos) << out;
    EXPECT_NE(out.find("   -1 |    3 |    0 |    0 | virtual  |        12 | no\n"), std::string::npos) << out;
    EXPECT_NE(out.find("total 4 ports, lport_num 24, back-plane lports 100..103\n"), std::string::npos) << out;
}

} // namespace

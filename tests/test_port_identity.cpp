// Local identity, card static attributes and the typed record getters, against the embedded
// store: what is read from the database when, what is cached, and how records are decoded.
#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>

#include "libpmx_cap.h"
#include "libpmx_mom.h"
#include "libpmx_port.h"
#include "log_capture.h"
#include "p_dev.pb-c.h"
#include "u_intf.pb-c.h"

namespace
{

constexpr int32_t kCardType = 77;

class PortIdentity : public ::testing::Test
{
  protected:
    void SetUp() override
    {
        const std::string url = std::string("embedded:port-") +
                                ::testing::UnitTest::GetInstance()->current_test_info()->name();
        char err[256] = "";
        glb_ = qv_mom_glb_create(url.c_str(), err, sizeof err);
        ASSERT_NE(glb_, nullptr) << err;
        ctx_ = qv_mom_thread_attach(glb_, nullptr);
        ASSERT_NE(ctx_, nullptr);
        // The state is process-wide: attributes and identity back to unknown.
        libpmx_port_init();
        const int32_t unknown[5] = {-1, -1, -1, -1, -1};
        libpmx_cache_set_my_info(unknown);
        libpmx_cache_set_my_chss(-1);
        libpmx_cap_set_block_times(2);
        libpmx_set_can_block_to_read_db(1);
    }
    void TearDown() override
    {
        libpmx_cap_set_block_times(LIBPMX_DEFAULT_BLOCK_TIMES);
        qv_mom_thread_detach();
        qv_mom_glb_destroy(glb_);
    }

    // Writes a record where the library reads it: the catalogue gives its database and form.
    void put(const ProtobufCMessage *record, const ProtobufCMessage *key = nullptr)
    {
        const libpmx_record_kind_t *kind = libpmx_record_kind_find(record->descriptor->name);
        ASSERT_NE(kind, nullptr);
        const qv_mom_key_t k{key != nullptr ? key : record, key != nullptr ? record->descriptor : nullptr};
        ASSERT_EQ(kind->hash ? qv_mom_hset_sync(ctx_, kind->db, &k, record, nullptr, 0)
                             : qv_mom_set_sync(ctx_, kind->db, &k, record),
                  QV_MOM_OK);
    }
    void write_my_info(int32_t slot, int32_t sslot, int32_t card_type, int32_t nodeid)
    {
        PDev__DpLibMyInfo r = P_DEV__DP_LIB_MY_INFO__INIT;
        r.dm_my_node_type = P_DEV__DM_NODE_TYPE_E__DM_TYPE_LC;
        r.slotid = slot;
        r.sslotid = sslot;
        r.card_type = card_type;
        r.card_nodeid = nodeid;
        put(&r.base);
    }
    // A card type with one port on unit 2 (port 24, lport 9), 4 chips of which 1 virtual.
    void write_stattr(uint32_t alloc_type)
    {
        PDev__DmCardStattrIndex index = P_DEV__DM_CARD_STATTR_INDEX__INIT;
        index.type = kCardType;
        PDev__DmPortAttrT port;
        protobuf_c_message_init(&p_dev__dm_port_attr_t__descriptor, &port);
        port.unit = 2;
        port.port = 24;
        port.lport = 9;
        PDev__DmPortAttrT *ports[] = {&port};
        PDev__DmChipAttrT chip;
        protobuf_c_message_init(&p_dev__dm_chip_attr_t__descriptor, &chip);
        chip.n_port_attr = 1;
        chip.port_attr = ports;
        PDev__DmChipAttrT *chips[] = {&chip};
        PDev__ChipidCardMode mode = P_DEV__CHIPID_CARD_MODE__INIT;
        mode.alloc_type = static_cast<PDev__AllocType>(alloc_type);
        mode.id_num = 8;
        mode.idnum_per_unit = 2;
        mode.support_num = 100;
        PDev__DmCardStattrT r;
        protobuf_c_message_init(&p_dev__dm_card_stattr_t__descriptor, &r);
        r.index = &index;
        r.chip_num = 4;
        r.virtual_chip_num = 1;
        r.switch_num = 2;
        r.n_chip_attr_array = 1;
        r.chip_attr_array = chips;
        r.chipid_card_mode = &mode;
        put(&r.base, &index.base);
    }

    qv_mom_glb_t *glb_ = nullptr;
    void *ctx_ = nullptr;
};

TEST_F(PortIdentity, IdentityIsReadOnlyWhenAskedAndWhileUnknown)
{
    EXPECT_EQ(libpmx_get_my_slot(1), -1) << "nothing in the database yet";
    write_my_info(3, 2, kCardType, 0);
    EXPECT_EQ(libpmx_get_my_slot(0), -1) << "flag 0 must not read the database";
    EXPECT_EQ(libpmx_get_my_slot(1), 3) << "flag 1 reads again while the value is unknown";
    EXPECT_EQ(libpmx_get_my_card_type(0), kCardType);
    EXPECT_EQ(libpmx_get_my_node_type(0), P_DEV__DM_NODE_TYPE_E__DM_TYPE_LC);
    EXPECT_EQ(libpmx_get_my_node(0), -1) << "node id 0 is stored as unknown";
    EXPECT_EQ(libpmx_get_my_sslot(0), 0)
        << "the synchronous read stores sub-slot 0, not the record's 2";

    // Device id comes from the own-chassis record, read by its own getter.
    PDev__DpLibMyChss chss = P_DEV__DP_LIB_MY_CHSS__INIT;
    chss.devid = 5;
    put(&chss.base);
    EXPECT_EQ(libpmx_get_my_dev_id(0), -1);
    EXPECT_EQ(libpmx_get_my_dev_id(1), 5);

    // The change path keeps the sub-slot; node ids below 1 become -1 there too.
    const int32_t info[5] = {2, 4, 88, 0x0C000400, 3};
    libpmx_cache_set_my_info(info);
    int32_t all[6] = {0};
    libpmx_get_my_info(all);
    const int32_t expected[6] = {2, 4, 88, 0x0C000400, 3, 5};
    for (int i = 0; i < 6; ++i)
        EXPECT_EQ(all[i], expected[i]) << "field " << i;
}

TEST_F(PortIdentity, CachedAttributesAndTheirUnknownValues)
{
    int32_t port = 77;
    EXPECT_EQ(libpmx_get_max_port_by_unit(8, &port), LIBPMX_E_INVAL);
    EXPECT_EQ(port, 0);
    EXPECT_EQ(libpmx_get_max_port_by_unit_ext(1, &port), LIBPMX_E_NOT_FOUND);
    int32_t num = 5;
    EXPECT_EQ(libpmx_get_intraband_chip_num_ext(&num), LIBPMX_E_NOT_FOUND);
    EXPECT_EQ(num, 0);
    EXPECT_EQ(libpmx_get_max_lport_id_ext(), -1);
    EXPECT_EQ(libpmx_get_local_chip_num_ext(), -1) << "nothing cached and nothing in the database";

    const int32_t max_port[8] = {0, 48, 0, 0, 0, 0, 0, 0};
    const uint32_t alloc[4] = {1, 2, 3, 4};
    libpmx_cache_set_card_statt(52, 4, max_port, alloc, 0, 1);
    EXPECT_EQ(libpmx_get_local_chip_num_ext(), 3) << "four chips, one of them virtual";
    EXPECT_EQ(libpmx_get_max_lport_id_ext(), 52);
    EXPECT_EQ(libpmx_get_max_port_by_unit_ext(1, &port), 0);
    EXPECT_EQ(port, 48);
    EXPECT_EQ(libpmx_get_intraband_chip_num_ext(&num), LIBPMX_E_NOT_FOUND) << "0 counts as unknown";

    // A call with a missing array stores nothing.
    const int32_t other_port[8] = {9, 9, 9, 9, 9, 9, 9, 9};
    libpmx_cache_set_card_statt(10, 9, other_port, nullptr, 9, 9);
    libpmx_cache_set_card_statt(10, 9, nullptr, alloc, 9, 9);
    libpmx_card_stattr_t now{};
    libpmx_get_card_statt(&now);
    EXPECT_EQ(now.max_lport_id, 52);
    EXPECT_EQ(now.chip_num, 4);
    EXPECT_EQ(now.max_port[0], 0);
    EXPECT_EQ(now.virtual_unit_num, 1);
}

TEST_F(PortIdentity, BlockingAttributesReadTheLocalCardTypeWithoutCaching)
{
    write_my_info(3, 0, kCardType, 0x0C000300);
    write_stattr(2);
    // Until the database reports the attributes complete, the read waits to the limit (and bars
    // the thread), then takes what there is.
    LogCapture log(2);
    EXPECT_EQ(libpmx_get_max_lport_id(), 9);
    EXPECT_TRUE(log.has(LIBPMX_ZLOG_WARN, "PDev__DmStattrComplete, db 1, ret -7, slept 2, max 2, op 2, no_block 1"));
    libpmx_set_can_block_to_read_db(1);
    PDev__DmStattrComplete complete = P_DEV__DM_STATTR_COMPLETE__INIT;
    complete.all_complete = 1;
    put(&complete.base);

    int32_t port = 0;
    EXPECT_EQ(libpmx_get_max_port_by_unit_ext(2, &port), LIBPMX_E_NOT_FOUND);
    EXPECT_EQ(libpmx_get_max_port_by_unit(2, &port), 0);
    EXPECT_EQ(port, 24);
    EXPECT_EQ(libpmx_get_max_lport_id(), 9);
    EXPECT_EQ(libpmx_get_local_chip_num(), 3);
    int32_t num = 0;
    EXPECT_EQ(libpmx_get_intraband_chip_num(&num), 0);
    EXPECT_EQ(num, 2);
    EXPECT_EQ(libpmx_get_max_lport_id_ext(), -1) << "a blocking read does not fill the cache";
    EXPECT_EQ(libpmx_get_my_card_type(0), kCardType) << "the card type was read on the way";
    int32_t units = 0;
    EXPECT_EQ(libpmx_get_my_virtual_unit_num(&units), 0);
    EXPECT_EQ(units, 1);

    // While no chip count is cached the alloc mode comes from the database, every call.
    const int32_t max_port[8] = {};
    const uint32_t cached[4] = {9, 9, 9, 9};
    libpmx_cache_set_card_statt(9, 0, max_port, cached, 0, 1);
    uint32_t mode[4] = {};
    ASSERT_EQ(libpmx_port_get_lc_modid_alloc_mode(mode), 0);
    EXPECT_EQ(mode[0], 2u);
    EXPECT_EQ(mode[1], 8u);
    EXPECT_EQ(mode[3], 100u);
    write_stattr(1);
    ASSERT_EQ(libpmx_port_get_lc_modid_alloc_mode(mode), 0);
    EXPECT_EQ(mode[0], 1u);
    libpmx_cache_set_card_statt(9, 2, max_port, cached, 0, 1);
    ASSERT_EQ(libpmx_port_get_lc_modid_alloc_mode(mode), 0);
    EXPECT_EQ(mode[0], 9u) << "with a chip count cached, the cached words";
}

TEST_F(PortIdentity, CardStattrDecoder)
{
    // {unit, port, lport}: the last port's unit is beyond the units, so its port is ignored.
    const int32_t attrs[4][3] = {{0, 10, 5}, {0, 4, 30}, {7, 20, 12}, {8, 99, 3}};
    PDev__DmPortAttrT ports[4];
    PDev__DmPortAttrT *lists[2][2];
    for (int i = 0; i < 4; ++i) {
        protobuf_c_message_init(&p_dev__dm_port_attr_t__descriptor, &ports[i]);
        ports[i].unit = attrs[i][0];
        ports[i].port = attrs[i][1];
        ports[i].lport = attrs[i][2];
        lists[i / 2][i % 2] = &ports[i];
    }
    PDev__DmChipAttrT c[2];
    PDev__DmChipAttrT *chips[] = {&c[0], &c[1]};
    for (int i = 0; i < 2; ++i) {
        protobuf_c_message_init(&p_dev__dm_chip_attr_t__descriptor, &c[i]);
        c[i].n_port_attr = 2;
        c[i].port_attr = lists[i];
    }
    PDev__DmCardStattrT r;
    protobuf_c_message_init(&p_dev__dm_card_stattr_t__descriptor, &r);
    r.chip_num = 2;
    r.n_chip_attr_array = 2;
    r.chip_attr_array = chips;

    libpmx_card_stattr_t a{};
    ASSERT_EQ(libpmx_dmcard_stattr_decode(&r, &a), 0);
    EXPECT_EQ(a.max_lport_id, 30);
    const int32_t max_port[8] = {10, 0, 0, 0, 0, 0, 0, 20};
    for (int u = 0; u < 8; ++u)
        EXPECT_EQ(a.max_port[u], max_port[u]) << "unit " << u;
    for (uint32_t w : a.alloc_mode)
        EXPECT_EQ(w, 0u) << "no alloc mode in the record";

    r.n_chip_attr_array = 0;
    ASSERT_EQ(libpmx_dmcard_stattr_decode(&r, &a), 0);
    EXPECT_EQ(a.max_lport_id, -1) << "no ports";
}

TEST_F(PortIdentity, TypedGettersDecodeTheirRecords)
{
    // Hash record in database 26.
    UIntf__IfxIndex ifx = U_INTF__IFX_INDEX__INIT;
    ifx.ifx = 12;
    UIntf__PmxIfxTbl tbl = U_INTF__PMX_IFX_TBL__INIT;
    tbl.index = &ifx;
    tbl.ifx = 12;
    tbl.gphyid = 0x07012305;
    tbl.modid = 18;
    tbl.sslot = 1;
    tbl.is_valid = 1;
    tbl.core = 3;
    put(&tbl.base, &ifx.base);
    libpmx_intf_info_t info{};
    ASSERT_EQ(libpmx_get_info_from_pmx_ifx_tbl(12, &info, 0), 0);
    EXPECT_EQ(info.gphyid, 0x07012305u);
    EXPECT_EQ(info.modid, 18);
    EXPECT_EQ(info.sslot, 1);
    EXPECT_EQ(info.is_valid, 1);
    EXPECT_EQ(info.core, 3);

    EXPECT_EQ(libpmx_get_sub_route_info_from_db(12, nullptr, 0), LIBPMX_E_FAIL);

    // Card type of a slot, from the static part of the card record (t_mod 0).
    PDev__CardInfoIndex ci = P_DEV__CARD_INFO_INDEX__INIT;
    ci.devid = 1;
    ci.slotid = 4;
    PDev__CardStaticInfoIndex si = P_DEV__CARD_STATIC_INFO_INDEX__INIT;
    si.type = 321;
    PDev__CardStaticInfo st;
    protobuf_c_message_init(&p_dev__card_static_info__descriptor, &st);
    st.index = &si;
    PDev__CardInfo card;
    protobuf_c_message_init(&p_dev__card_info__descriptor, &card);
    card.index = &ci;
    card.static_info = &st;
    put(&card.base, &ci.base);
    int32_t card_type = 0;
    ASSERT_EQ(libpmx_get_card_type_from_db(1, 4, 0, &card_type, 2), 0);
    EXPECT_EQ(card_type, 321);

    // A missing record leaves the outputs alone, and the log names the record and its key.
    LogCapture log(2);
    int32_t unit = -5, cport = -5;
    EXPECT_EQ(libpmx_get_info_from_lport(9, &unit, &cport), LIBPMX_E_NOT_FOUND);
    EXPECT_EQ(unit, -5);
    EXPECT_EQ(cport, -5);
    EXPECT_TRUE(log.has(LIBPMX_ZLOG_WARN, "get p_dev.lport_info failed, db:1 key:PDev__LportIndex-{lport:9} op:0 ret:-7"));
}

TEST_F(PortIdentity, ValidModuleTableOnlyWhenAllocated)
{
    UIntf__ModIndex mi = U_INTF__MOD_INDEX__INIT;
    mi.devid = 1;
    mi.slotid = 3;
    UIntf__PmxModTbl mod = U_INTF__PMX_MOD_TBL__INIT;
    mod.index = &mi;
    mod.status = U_INTF__SLOT_MODID_ST_E__MODID_NONE;
    mod.gslot = 3;
    uint32_t ids[] = {40, 41};
    mod.n_id = 2;
    mod.id = ids;
    put(&mod.base, &mi.base);

    auto decode_gslot = [](const void *reply, void *out) {
        *static_cast<int32_t *>(out) = static_cast<const UIntf__PmxModTbl *>(reply)->gslot;
        return 0;
    };
    int32_t gslot = 0;
    libpmx_set_can_block_to_read_db(0); // one attempt each, no wait
    EXPECT_EQ(libpmx_get_info_from_pmx_mod_tbl(41, decode_gslot, &gslot), 0) << "any status, found by modid";
    EXPECT_EQ(gslot, 3);
    EXPECT_EQ(libpmx_get_info_from_pmx_mod_tbl(42, decode_gslot, &gslot), LIBPMX_E_NOT_FOUND)
        << "a modid that no table lists";
    gslot = 0;
    EXPECT_EQ(libpmx_get_info_from_pmx_vaild_mod_tbl(1, 3, 0, decode_gslot, &gslot),
              LIBPMX_E_NOT_FOUND);
    EXPECT_EQ(gslot, 0) << "the caller's decoder never saw the unallocated table";

    mod.status = U_INTF__SLOT_MODID_ST_E__MODID_VALID;
    put(&mod.base, &mi.base);
    EXPECT_EQ(libpmx_get_info_from_pmx_vaild_mod_tbl(1, 3, 0, decode_gslot, &gslot), 0);
    EXPECT_EQ(gslot, 3);
}

TEST_F(PortIdentity, ThreadWithoutContextGetsNoDbAtOnce)
{
    write_stattr(2);
    LogCapture log(4);
    int cid_rc = 0, stattr_rc = 0;
    int32_t slot = 0;
    std::thread t([&] {
        int32_t cid = 0;
        cid_rc = libpmx_get_cid_from_db(kCardType, 0, &cid, LIBPMX_READ_WAIT);
        libpmx_card_stattr_t a{};
        stattr_rc = libpmx_get_lc_card_stattr(kCardType, &a);
        slot = libpmx_get_my_slot(1);
    });
    t.join();
    EXPECT_EQ(cid_rc, LIBPMX_E_NO_DB);
    EXPECT_EQ(stattr_rc, LIBPMX_E_NO_DB);
    EXPECT_EQ(slot, -1);
    EXPECT_TRUE(log.has(LIBPMX_ZLOG_WARN, "PDev__DmStattrComplete, db 1, ret -20, slept 0, max 2, op 2, no_block 0"))
        << "no wait without a context";
}

TEST_F(PortIdentity, PortInitClearsCompleteFlagsAndOnlinePorts)
{
    libpmx_port_set_card_complete(1, 1, 1);
    ASSERT_EQ(libpmx_port_set_lport_online(33, 1), 0);
    EXPECT_EQ(libpmx_port_lport_is_online(33), 1);
    EXPECT_EQ(libpmx_port_lport_is_online(32), 0);
    EXPECT_EQ(libpmx_port_set_lport_online(LIBPMX_ONLINE_LPORT_MAX, 1), LIBPMX_E_INVAL);
    libpmx_port_init();
    EXPECT_EQ(libpmx_port_local_card_is_complete(), 0);
    EXPECT_EQ(libpmx_port_lc_is_complete(), 0);
    EXPECT_EQ(libpmx_port_lport_is_online(33), 1) << "the online ports belong to start-up";
    EXPECT_EQ(libpmx_online_port_array_init(), 0);
    EXPECT_EQ(libpmx_port_lport_is_online(33), 0);
}

} // namespace

// The event thread stores a new identity while two readers ask for it: each value a reader
// sees is one that was stored, never a torn or half-written one.
TEST_F(PortIdentity, TwoReadersWhileTheIdentityIsStored)
{
    LogCapture quiet(0);
    const int32_t first[LIBPMX_MY_INFO_NUM] = {1, 3, kCardType, 3, 0, 1};
    const int32_t second[LIBPMX_MY_INFO_NUM] = {2, 5, kCardType + 1, 5, 1, 1};
    libpmx_cache_set_my_info(first);
    std::atomic<bool> done{false};
    std::atomic<int> strange{0};
    auto reader = [&] {
        while (!done.load()) {
            const int32_t slot = libpmx_get_my_slot(0), type = libpmx_get_my_card_type(0);
            if ((slot != 3 && slot != 5) || (type != kCardType && type != kCardType + 1)) ++strange;
        }
    };
    std::thread r1(reader), r2(reader);
    for (int i = 0; i < 2000; ++i) libpmx_cache_set_my_info(i % 2 != 0 ? first : second);
    done = true;
    r1.join();
    r2.join();
    EXPECT_EQ(strange.load(), 0);
    EXPECT_EQ(libpmx_get_my_slot(0), 3);
}

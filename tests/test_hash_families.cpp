// The cache families through their exported C operations: refresh rules, messages, orders,
// power supply, notify hooks and the one-to-many mappings.
#include <gtest/gtest.h>

#include <cstdlib>
#include <tuple>
#include <vector>

#include "libpmx_errno.h"
#include "libpmx_hash.h"
#include "log_capture.h"

namespace {

class Caches : public ::testing::Environment {
public:
    void SetUp() override { ASSERT_EQ(libpmx_hash_init(), 0); }
};
const auto *const kEnv = ::testing::AddGlobalTestEnvironment(new Caches);

// The values of `field` in the order a (sorted) walk visits the records.
template <class Rec, class Field>
std::vector<Field> walk_order(int (*walk)(libpmx_hash_op_t, void *, int), Field Rec::*field)
{
    struct Ctx {
        std::vector<Field> out;
        Field Rec::*field;
    } ctx{{}, field};
    walk([](void *rec, void *arg) {
             auto *c = static_cast<Ctx *>(arg);
             c->out.push_back(static_cast<Rec *>(rec)->*(c->field));
             return 0;
         }, &ctx, 1);
    return ctx.out;
}

std::vector<uint32_t> phy_values(const libpmx_phy_k2v_val_t *v)
{
    std::vector<uint32_t> out;
    for (; v != nullptr; v = v->next) out.push_back(v->value);
    return out;
}

} // namespace

TEST(CacheFamilies, CreateRefreshesPerFamilyRule)
{
    LogCapture cap(5);
    // Whole-record refresh: the same record, new contents; the key is both leading fields.
    libpmx_card_addr_id_t ca{10, 2, 7};
    auto *c1 = libpmx_card_addr_id_create(&ca);
    ca.cid = 9;
    EXPECT_EQ(libpmx_card_addr_id_create(&ca), c1);
    EXPECT_EQ(libpmx_card_addr_id_get(10, 2)->cid, 9u);
    EXPECT_EQ(libpmx_card_addr_id_get(10, 3), nullptr);
    libpmx_invalid_modid_t im{17}; // wired to its own table
    auto *m1 = libpmx_invalid_modid_create(&im);
    EXPECT_EQ(libpmx_invalid_modid_create(&im), m1);
    EXPECT_EQ(libpmx_invalid_modid_get(17), m1);

    // Global system port: lport follows only an offered unit of -1, the rest always.
    libpmx_global_sport_t gs{5, 1, 2, 3, 4, 100, 200}, gs2{5, 1, 2, 13, 14, 101, 201};
    auto *g1 = libpmx_global_sport_create(&gs);
    libpmx_global_sport_create(&gs2);
    EXPECT_EQ(std::tuple(g1->sslot, g1->lport, g1->sysport, g1->phyid), std::tuple(13, 4, 101u, 201u));
    libpmx_global_sport_t gm{5, -1, 2, 3, 4, 0, 0};
    auto *g2 = libpmx_global_sport_create(&gm);
    gm.lport = 44;
    libpmx_global_sport_create(&gm);
    EXPECT_EQ(g2->lport, 44);
    EXPECT_EQ(libpmx_global_sport_get(5, -1, 2), g2);

    // System ports: refresh logged at INFO under the cache operation's name.
    cap.clear();
    libpmx_sysport_t sp{300, 0x07000102};
    auto *s1 = libpmx_sysport_create(&sp);
    sp.phyid = 0x07000103;
    EXPECT_EQ(libpmx_sysport_create(&sp), s1);
    EXPECT_EQ(s1->phyid, 0x07000103u);
    ASSERT_EQ(cap.lines().size(), 1u);
    EXPECT_EQ(cap.lines()[0].func, "libpmx_sysport_cache_create");
    EXPECT_TRUE(cap.has(LIBPMX_ZLOG_INFO, "sysport:300, phyid:0x7000103"));

    // Forwarding units: keyed by gslot (not the leading field), whole record, logged at INFO.
    ce_pmx_fuid_info_per_slot_t fu{};
    fu.gslot = 0x21;
    fu.status = 1;
    auto *f1 = libpmx_ce_pmx_fuid_info_per_slot_create(&fu);
    fu.status = 2;
    fu.card_type = 0x55;
    fu.fuid_num = 2;
    fu.node_type = 3;
    fu.fuid[1].modid[15] = 99;
    EXPECT_EQ(libpmx_ce_pmx_fuid_info_per_slot_create(&fu), f1);
    EXPECT_EQ(f1->fuid[1].modid[15], 99u);
    EXPECT_TRUE(cap.has(LIBPMX_ZLOG_INFO, "gslot:0x21, status:2 card_type:85  fuid_num:2, node_type:3"));
    EXPECT_EQ(libpmx_ce_pmx_fuid_info_per_slot_get(0x21), f1);

    cap.clear();
    EXPECT_EQ(libpmx_card_info_create(nullptr), nullptr);
    EXPECT_TRUE(cap.has(LIBPMX_ZLOG_ERROR, "invalid param"));
    EXPECT_FALSE(ce_pmx_fuid_info_per_slot_key_cmp(nullptr, nullptr));
    EXPECT_EQ(cap.lines().back().text.rfind("invalid param, src:", 0), 0u);
}

TEST(CacheFamilies, LocalCardPortReadyLogsCardTypeChanges)
{
    LogCapture cap(5);
    libpmx_local_card_port_ready_t r{3, 1, 100};
    auto *rec = libpmx_local_card_port_ready_create(&r);
    r.card_type = 101; // ready -> ready, type changed
    libpmx_local_card_port_ready_create(&r);
    EXPECT_TRUE(cap.has(LIBPMX_ZLOG_ERROR, "sslot 3 is ready: cardtype changed from 100 to 101"));
    cap.clear();
    r = {3, 0, 0}; // not ready: copied without a message
    libpmx_local_card_port_ready_create(&r);
    EXPECT_EQ(rec->card_type, 0u);
    r.card_type = 7; // neither ready, old type 0: silent
    libpmx_local_card_port_ready_create(&r);
    EXPECT_TRUE(cap.lines().empty());
    r.card_type = 8; // neither ready, old type 7: logged
    libpmx_local_card_port_ready_create(&r);
    EXPECT_TRUE(cap.has(LIBPMX_ZLOG_ERROR, "sslot 3 not ready: cardtype changed from 7 to 8"));
    EXPECT_EQ(rec->card_type, 8u);

    EXPECT_EQ(libpmx_local_card_port_ready_get(&r), rec);
    EXPECT_EQ(libpmx_local_card_port_ready_destroy(&r), 0);
    EXPECT_EQ(libpmx_local_card_port_ready_get(&r), nullptr);
    EXPECT_EQ(libpmx_local_card_port_ready_destroy(&r), LIBPMX_E_FAIL);
    EXPECT_TRUE(cap.has(LIBPMX_ZLOG_ERROR, "invalid param, param don't exist,sslot:3"));
}

TEST(CacheFamilies, SortedWalksUseEachFamilysOrder)
{
    // Card info by dev, slot, sslot, signed.
    for (auto [d, s, ss] : {std::tuple{2u, 0u, 0u}, {1u, 3u, 0u}, {1u, 2u, 3u}, {~0u, 9u, 9u}}) {
        libpmx_card_info_t ci{d, s, ss, 1};
        libpmx_card_info_create(&ci);
    }
    std::vector<std::tuple<int, int, int>> order;
    libpmx_card_info_entry_each_item_op([](void *rec, void *arg) {
        auto *c = static_cast<libpmx_card_info_t *>(rec);
        static_cast<decltype(order) *>(arg)->emplace_back(int(c->dev), int(c->slot), int(c->sslot));
        return 0;
    }, &order, 1);
    EXPECT_EQ(order, (decltype(order){{-1, 9, 9}, {1, 2, 3}, {1, 3, 0}, {2, 0, 0}}));

    // Chip ids compare unsigned; per-slot records by gslot, signed.
    for (uint32_t modid : {0xFFFFFFFFu, 4u, 0x80000000u}) {
        chipid_res_t cr{};
        cr.modid = modid;
        libpmx_chipid_res_create(&cr);
    }
    EXPECT_EQ(walk_order(&libpmx_chipid_res_entry_each_item_op, &chipid_res_t::modid),
              (std::vector<uint32_t>{4u, 0x80000000u, 0xFFFFFFFFu}));
    for (uint32_t gslot : {5u, 0x80000001u}) {
        ce_pmx_fuid_info_per_slot_t fu{};
        fu.gslot = gslot;
        libpmx_ce_pmx_fuid_info_per_slot_create(&fu);
    }
    auto gslots = walk_order(&libpmx_ce_pmx_fuid_info_per_slot_entry_each_item_op, &ce_pmx_fuid_info_per_slot_t::gslot);
    ASSERT_GE(gslots.size(), 2u);
    EXPECT_EQ(gslots.front(), 0x80000001u);

    // Sub-interfaces by ifx, unsigned; subcard ids by cid, signed.
    for (uint32_t ifx : {0x90000000u, 12u, 7u}) {
        libpmx_sub_ap_info_t ap{ifx, 1, 2, 3, 4};
        libpmx_sub_ap_info_create(&ap);
        libpmx_sub_route_info_t rt{ifx, 1, 2, 4};
        libpmx_sub_route_info_create(&rt);
    }
    const std::vector<uint32_t> by_ifx{7u, 12u, 0x90000000u};
    EXPECT_EQ(walk_order(&libpmx_sub_ap_info_for_each, &libpmx_sub_ap_info_t::ifx), by_ifx);
    EXPECT_EQ(walk_order(&libpmx_sub_route_info_for_each, &libpmx_sub_route_info_t::ifx), by_ifx);
    for (auto [type, cid] : {std::pair{1u, 3u}, {2u, 0xFFFFFFFFu}, {3u, 1u}}) {
        libpmx_subcard_type_id_t st{type, cid};
        libpmx_subcard_type_id_create(&st);
    }
    EXPECT_EQ(walk_order(&libpmx_subcard_type_id_entry_each_item_op, &libpmx_subcard_type_id_t::cid),
              (std::vector<uint32_t>{0xFFFFFFFFu, 1u, 3u}));
}

TEST(CacheFamilies, DestroyOperationsAndTheirMessages)
{
    LogCapture cap(5);
    EXPECT_EQ(libpmx_sysport_destroy(4242), LIBPMX_E_FAIL);
    EXPECT_TRUE(cap.has(LIBPMX_ZLOG_ERROR, "sysport don't existed sysport:4242"));
    libpmx_sysport_t sp{4242, 1};
    libpmx_sysport_create(&sp);
    EXPECT_EQ(libpmx_sysport_destroy(4242), 0);
    EXPECT_EQ(libpmx_sysport_get(4242), nullptr);

    EXPECT_EQ(libpmx_card_info_destroy(9, 9, 9), LIBPMX_E_FAIL);
    EXPECT_TRUE(cap.has(LIBPMX_ZLOG_ERROR, "card_info don't existed card_info. dev:9 slot:9 sslot:9"));
    EXPECT_EQ(libpmx_port_cache_destroy(1, 2), LIBPMX_E_FAIL);
    EXPECT_TRUE(cap.has(LIBPMX_ZLOG_ERROR, "not found for key unit 1, port 2: "));
    libpmx_port_cache_t pc{1, 2, 3};
    libpmx_port_cache_create(&pc);
    EXPECT_EQ(libpmx_port_cache_get(1, 2)->value, 3u);
    EXPECT_EQ(libpmx_port_cache_destroy(1, 2), 0);
    EXPECT_EQ(libpmx_port_cache_get(1, 2), nullptr);
    EXPECT_EQ(libpmx_sub_ap_info_destroy(nullptr), LIBPMX_E_FAIL);
    EXPECT_TRUE(cap.has(LIBPMX_ZLOG_ERROR, "param is null"));
    libpmx_sub_route_info_t rt{555, 1, 2, 3};
    EXPECT_EQ(libpmx_sub_route_info_destroy(libpmx_sub_route_info_create(&rt)), 0);
    EXPECT_EQ(libpmx_sub_route_info_get(555), nullptr);
}

TEST(CacheFamilies, NotifyHookEntryIsCreatedOnceAndFreesItsList)
{
    LogCapture cap(5);
    auto hook_a = [](void *, int, int, void *) {};
    auto hook_b = [](void *, int, int, void *) {};
    libpmx_notify_hook_t e{};
    e.notify_type = 3;
    e.hook = hook_a;
    auto *rec = libpmx_notify_hook_create(&e);
    ASSERT_NE(rec, nullptr);
    EXPECT_TRUE(rec->list.next == &rec->list && rec->list.prev == &rec->list) << "an empty hook list";
    e.hook = hook_b;
    EXPECT_EQ(libpmx_notify_hook_create(&e), rec);
    EXPECT_EQ(rec->hook, static_cast<libpmx_notify_hook_fn>(hook_a)) << "never overwritten";
    EXPECT_TRUE(cap.has(LIBPMX_ZLOG_ERROR, "something error :3 3"));

    // Two further registrations; destroy frees them with the entry (checked by the sanitizers).
    for (int i = 0; i < 2; ++i) {
        auto *node = static_cast<libpmx_notify_hook_node_t *>(std::malloc(sizeof(libpmx_notify_hook_node_t)));
        *node = {3, {&rec->list, rec->list.prev}, hook_b};
        rec->list.prev->next = &node->list;
        rec->list.prev = &node->list;
    }
    EXPECT_EQ(libpmx_notify_hook_destroy(3), 0);
    EXPECT_EQ(libpmx_notify_hook_get(3), nullptr);
    EXPECT_EQ(libpmx_notify_hook_destroy(3), LIBPMX_E_FAIL);
    EXPECT_TRUE(cap.has(LIBPMX_ZLOG_ERROR, "notify hook don't existed hook:3"));
}

TEST(CacheFamilies, PowerSupplyByCardType)
{
    LogCapture cap(5);
    uint8_t ps = 0xEE;
    EXPECT_EQ(libpmx_cache_get_power_supply_by_card_type(777, &ps), LIBPMX_E_FAIL);
    EXPECT_EQ(ps, 0xEE) << "output untouched on a miss";
    EXPECT_TRUE(cap.has(LIBPMX_ZLOG_ERROR, "not found cache power supply. cardtype: 777"));
    EXPECT_EQ(libpmx_cache_get_power_supply_by_card_type(777, nullptr), LIBPMX_E_FAIL);
    EXPECT_TRUE(cap.has(LIBPMX_ZLOG_ERROR, "cache_get_power_supply_by_card_type param is null"));

    EXPECT_EQ(libpmx_cache_put_power_supply_for_card_type(777, 1), 0);
    EXPECT_EQ(libpmx_cache_put_power_supply_for_card_type(777, 0), 0);
    EXPECT_EQ(libpmx_cache_put_power_supply_for_card_type(778, 1), 0);
    EXPECT_EQ(libpmx_cache_get_power_supply_by_card_type(777, &ps), 0);
    EXPECT_EQ(ps, 0);
    int on = 0;
    auto sum = [](void *rec, void *arg) {
        *static_cast<int *>(arg) += static_cast<libpmx_card_type_poe_t *>(rec)->power_supply;
        return 0;
    };
    EXPECT_EQ(libpmx_cache_for_each_power_supply_card_type(sum, &on), 0);
    EXPECT_EQ(on, 1);
    EXPECT_EQ(libpmx_cache_for_each_power_supply_card_type(nullptr, nullptr), LIBPMX_E_FAIL);
    EXPECT_TRUE(cap.has(LIBPMX_ZLOG_ERROR, "enumerate card_type_poe func is null."));
}

TEST(CacheFamilies, OneToManyMappingsKeepTheirRemoveRule)
{
    const uint32_t k = 0x0107;
    EXPECT_EQ(libpmx_modport_gphy_remove_mapping(k, 1), LIBPMX_E_NOT_FOUND);
    for (uint32_t v : {1u, 2u, 3u, 3u}) EXPECT_EQ(libpmx_modport_gphy_add_mapping(k, v), 0);
    EXPECT_EQ(phy_values(libpmx_modport_gphy_get_mapping(k)), (std::vector<uint32_t>{3, 2, 1}));
    EXPECT_EQ(libpmx_unitport_lphy_get_mapping(k), nullptr) << "the two tables are separate";
    EXPECT_EQ(libpmx_modport_gphy_remove_mapping(k, 9), LIBPMX_E_NOT_FOUND);
    EXPECT_EQ(libpmx_modport_gphy_remove_mapping(k, 2), 0); // predecessor takes the successor's value
    EXPECT_EQ(phy_values(libpmx_modport_gphy_get_mapping(k)), (std::vector<uint32_t>{1, 1}));
    EXPECT_EQ(libpmx_modport_gphy_remove_mapping(k, 1), 0); // first value: its successor moves up
    EXPECT_EQ(phy_values(libpmx_modport_gphy_get_mapping(k)), (std::vector<uint32_t>{1}));
    EXPECT_EQ(libpmx_modport_gphy_remove_mapping(k, 1), 0);
    EXPECT_EQ(libpmx_modport_gphy_get_mapping(k), nullptr);

    // The last node of a longer list simply goes; removing the rest removes the key.
    for (uint32_t v : {1u, 2u, 3u}) libpmx_unitport_lphy_add_mapping(k, v);
    EXPECT_EQ(libpmx_unitport_lphy_remove_mapping(k, 1), 0);
    EXPECT_EQ(phy_values(libpmx_unitport_lphy_get_mapping(k)), (std::vector<uint32_t>{3, 2}));
    EXPECT_EQ(libpmx_unitport_lphy_remove_mapping(k, 2), 0);
    EXPECT_EQ(libpmx_unitport_lphy_remove_mapping(k, 3), 0);
    EXPECT_EQ(libpmx_phy_k2v_hash_size(LIBPMX_PHY_K2V_UNITPORT_LPHY), 0u);
    int keys = 0;
    libpmx_modport_gphy_add_mapping(1, 1);
    libpmx_modport_gphy_add_mapping(2, 1);
    libpmx_modport_gphy_for_each([](void *, void *arg) { return ++*static_cast<int *>(arg), 0; }, &keys);
    EXPECT_EQ(keys, 2);

    // Split ports: (gslot, port) to pairs; a pair differing in either value is a new one.
    EXPECT_EQ(libpmx_gslot_port_add_mapping(33, 4, 1, 10), 0);
    EXPECT_EQ(libpmx_gslot_port_add_mapping(33, 4, 1, 11), 0);
    EXPECT_EQ(libpmx_gslot_port_add_mapping(33, 4, 1, 10), 0);
    std::vector<std::pair<uint32_t, uint32_t>> pairs;
    for (auto *v = libpmx_gslot_port_get_mapping(33, 4); v != nullptr; v = v->next) pairs.emplace_back(v->a, v->b);
    EXPECT_EQ(pairs, (std::vector<std::pair<uint32_t, uint32_t>>{{1, 11}, {1, 10}}));
    EXPECT_EQ(libpmx_gslot_port_get_mapping(33, 5), nullptr);
    EXPECT_EQ(libpmx_gslot_port_remove_mapping(33, 4, 2, 10), LIBPMX_E_NOT_FOUND);
    EXPECT_EQ(libpmx_gslot_port_remove_mapping(33, 4, 1, 10), 0);
    EXPECT_EQ(libpmx_gslot_port_remove_mapping(33, 4, 1, 11), 0);
    EXPECT_EQ(libpmx_gslot_port_get_mapping(33, 4), nullptr);
}

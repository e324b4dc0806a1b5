// The cache families: one KeyedTable instantiation each, with their exported operations.
#define LIBPMX_LOG_SOURCE "app/libpmx/libpmx_hash"
#include "libpmx_log.h"

#include "libpmx_errno.h"
#include "libpmx_hash.h"
#include "libpmx_hash_table.hpp"
#include "libpmx_stats.hpp"

#include <cstddef>
#include <cstdlib>

namespace {

using pmx::cmp_signed;
using pmx::cmp_unsigned;
using pmx::KeyedTable;

// A lookup of a family's table, counted in its statistics.
template <class Traits>
typename Traits::Rec *counted_find(libpmx_hash_t *h, const void *key)
{
    return pmx::stats::lookup(Traits::stat, KeyedTable<Traits>(h).find(key));
}
using pmx::LeadingKey;
using pmx::RefreshNone;
using pmx::RefreshWhole;

// ---- family traits: key, refresh rule, and the order of the sorted walk where there is one ----

struct InvalidModid : LeadingKey<libpmx_invalid_modid_t, 4>, RefreshNone<libpmx_invalid_modid_t> {
    static constexpr pmx::stats::Cache stat = pmx::stats::Cache::InvalidModid;
};

struct LocalCardPortReady : LeadingKey<libpmx_local_card_port_ready_t, 4> {
    static constexpr pmx::stats::Cache stat = pmx::stats::Cache::LocalCardPortReady;
    static void refresh(Rec *c, const Rec *o)
    {
        constexpr const char *fn = "libpmx_local_card_port_ready_cache_create";
        if (c->ready && o->ready && c->card_type != o->card_type)
            PMX_LOG_AS(fn, LIBPMX_ZLOG_ERROR, "sslot %d is ready: cardtype changed from %d to %d",
                       c->sslot, c->card_type, o->card_type);
        else if (!c->ready && !o->ready && c->card_type != 0 && c->card_type != o->card_type)
            PMX_LOG_AS(fn, LIBPMX_ZLOG_ERROR, "sslot %d not ready: cardtype changed from %d to %d",
                       c->sslot, c->card_type, o->card_type);
        c->ready = o->ready;
        c->card_type = o->card_type;
    }
};

// Keyed by its second field, gslot; a null record hashes as gslot 0.
struct CePmxFuidInfoPerSlot {
    static constexpr pmx::stats::Cache stat = pmx::stats::Cache::ChipSlot;
    using Rec = ce_pmx_fuid_info_per_slot_t;
    static constexpr const char *sort_failed = "ce_pmx_fuid_info_per_slot failed to create qsort hash array.\n";
    static constexpr uint32_t key_len = 4;
    static const void *key_bytes(const void *key)
    {
        static const uint32_t zero = 0;
        return key != nullptr ? &static_cast<const Rec *>(key)->gslot : &zero;
    }
    static bool key_equal(const Rec *cached, const void *key)
    {
        return ce_pmx_fuid_info_per_slot_key_cmp(cached, static_cast<const Rec *>(key)) != 0;
    }
    static void copy_new(Rec *fresh, const Rec *o) { *fresh = *o; }
    static void refresh(Rec *c, const Rec *o)
    {
        *c = *o;
        PMX_LOG_AS("libpmx_ce_pmx_fuid_info_per_slot_cache_create", LIBPMX_ZLOG_INFO,
                   "gslot:0x%x, status:%d card_type:%d  fuid_num:%d, node_type:%d", c->gslot,
                   c->status, c->card_type, c->fuid_num, c->node_type);
    }
    static int compare(const Rec *a, const Rec *b) { return cmp_signed(a->gslot, b->gslot); }
};

struct ChipidRes : LeadingKey<chipid_res_t, 4>, RefreshWhole<chipid_res_t> {
    static constexpr pmx::stats::Cache stat = pmx::stats::Cache::ChipidRes;
    static constexpr const char *sort_failed = "chipid_res failed to create qsort hash array.\n";
    static int compare(const Rec *a, const Rec *b) { return cmp_unsigned(a->modid, b->modid); }
};

struct CardAddrId : LeadingKey<libpmx_card_addr_id_t, 8>, RefreshWhole<libpmx_card_addr_id_t> {
    static constexpr pmx::stats::Cache stat = pmx::stats::Cache::CardAddrId;
    static constexpr const char *sort_failed = "libpmx_card_addr_id failed to create qsort hash array.\n";
    static int compare(const Rec *a, const Rec *b) { return cmp_signed(a->cid, b->cid); }
};

struct SubcardTypeId : LeadingKey<libpmx_subcard_type_id_t, 4>,
                       RefreshWhole<libpmx_subcard_type_id_t> {
    static constexpr pmx::stats::Cache stat = pmx::stats::Cache::SubcardTypeId;
    static constexpr const char *sort_failed = "libpmx_subcard_type_id failed to create qsort hash array.\n";
    static int compare(const Rec *a, const Rec *b) { return cmp_signed(a->cid, b->cid); }
};

struct GlobalSport : LeadingKey<libpmx_global_sport_t, 8> {
    static constexpr pmx::stats::Cache stat = pmx::stats::Cache::GlobalSport;
    static void refresh(Rec *c, const Rec *o)
    {
        c->sslot = o->sslot;
        if (o->unit == -1) c->lport = o->lport;
        c->sysport = o->sysport;
        c->phyid = o->phyid;
    }
};

struct Sysport : LeadingKey<libpmx_sysport_t, 4> {
    static constexpr pmx::stats::Cache stat = pmx::stats::Cache::Sysport;
    static void refresh(Rec *c, const Rec *o)
    {
        c->phyid = o->phyid;
        PMX_LOG_AS("libpmx_sysport_cache_create", LIBPMX_ZLOG_INFO, "sysport:%d, phyid:0x%x",
                   c->sysport, c->phyid);
    }
};

// An entry is created once per type; its hook list starts empty, pointing at itself.
struct NotifyHook : LeadingKey<libpmx_notify_hook_t, 4> {
    static constexpr pmx::stats::Cache stat = pmx::stats::Cache::NotifyHook;
    static void refresh(Rec *c, const Rec *o)
    {
        PMX_LOG_AS("libpmx_notify_hook_cache_create", LIBPMX_ZLOG_ERROR, "something error :%d %d",
                   c->notify_type, o->notify_type);
    }
    static void copy_new(Rec *fresh, const Rec *o)
    {
        *fresh = *o;
        fresh->list.next = fresh->list.prev = &fresh->list;
    }
};

struct CardInfo : LeadingKey<libpmx_card_info_t, 12>, RefreshWhole<libpmx_card_info_t> {
    static constexpr pmx::stats::Cache stat = pmx::stats::Cache::CardInfo;
    static constexpr const char *sort_failed = "libpmx_card_info failed to create qsort hash array.\n";
    static int compare(const Rec *a, const Rec *b)
    {
        if (int r = cmp_signed(a->dev, b->dev); r != 0) return r;
        if (int r = cmp_signed(a->slot, b->slot); r != 0) return r;
        return cmp_signed(a->sslot, b->sslot);
    }
};

struct CardTypePoe : LeadingKey<libpmx_card_type_poe_t, 4>, RefreshWhole<libpmx_card_type_poe_t> {
    static constexpr pmx::stats::Cache stat = pmx::stats::Cache::CardTypePoe;
};

struct SubApInfo : LeadingKey<libpmx_sub_ap_info_t, 4>, RefreshWhole<libpmx_sub_ap_info_t> {
    static constexpr pmx::stats::Cache stat = pmx::stats::Cache::SubApInfo;
    static constexpr const char *sort_failed = "libpmx_sub_ap_info failed to create qsort hash array.\n";
    static int compare(const Rec *a, const Rec *b) { return cmp_unsigned(a->ifx, b->ifx); }
};

struct SubRouteInfo : LeadingKey<libpmx_sub_route_info_t, 4>,
                      RefreshWhole<libpmx_sub_route_info_t> {
    static constexpr pmx::stats::Cache stat = pmx::stats::Cache::SubRouteInfo;
    static constexpr const char *sort_failed = "libpmx_sub_route_info failed to create qsort hash array.\n";
    static int compare(const Rec *a, const Rec *b) { return cmp_unsigned(a->ifx, b->ifx); }
};

struct PortCache : LeadingKey<libpmx_port_cache_t, 8>, RefreshWhole<libpmx_port_cache_t> {
    static constexpr pmx::stats::Cache stat = pmx::stats::Cache::PortCache;
};

struct PhyK2v : LeadingKey<libpmx_phy_k2v_t, 4>, RefreshWhole<libpmx_phy_k2v_t> {
    static constexpr pmx::stats::Cache stat = pmx::stats::Cache::PhyK2v;
};

struct PortK2v : LeadingKey<libpmx_port_k2v_t, 8>, RefreshWhole<libpmx_port_k2v_t> {
    static constexpr pmx::stats::Cache stat = pmx::stats::Cache::PortK2v;
};

// ---- the process-wide tables, created by libpmx_hash_init ----

libpmx_hash_t *g_ce_pmx_fuid_info_per_slot;
libpmx_hash_t *g_chipid_res;
libpmx_hash_t *g_card_addr_id;
libpmx_hash_t *g_global_sport;
libpmx_hash_t *g_sysport;
libpmx_hash_t *g_notify_hook;
libpmx_hash_t *g_invalid_modid;
libpmx_hash_t *g_local_card_port_ready;
libpmx_hash_t *g_subcard_type_id;
libpmx_hash_t *g_card_info;
libpmx_hash_t *g_card_type_poe;
libpmx_hash_t *g_sub_ap_info;
libpmx_hash_t *g_sub_route_info;
libpmx_hash_t *g_port_cache;
libpmx_hash_t **g_phy_k2v;
uint32_t g_phy_k2v_tables;
libpmx_hash_t *g_port_k2v;

// Creates a table once (a zeroed header: no buckets yet); a second init keeps what it holds.
void init_table(libpmx_hash_t *&h)
{
    if (h == nullptr) h = static_cast<libpmx_hash_t *>(std::calloc(1, sizeof(libpmx_hash_t)));
}

// create(): null check, find-or-cache, and the family's own failure message.
template <class Traits, class LogFailure>
typename Traits::Rec *create_entry(libpmx_hash_t *h, const typename Traits::Rec *rec,
                                   const char *fn, LogFailure log_failure)
{
    if (rec == nullptr) {
        PMX_LOG_AS(fn, LIBPMX_ZLOG_ERROR, "invalid param");
        return nullptr;
    }
    typename Traits::Rec *out = nullptr;
    if (KeyedTable<Traits>(h).cache_create(&out, rec) == nullptr) log_failure();
    return out;
}

} // namespace

// The template's operations under a family's exported names.
#define PMX_HASH_FAMILY(HP, RP, TRAITS, G)                                                         \
    extern "C" int HP##_hash_init(void)                                                            \
    {                                                                                              \
        init_table(G);                                                                             \
        return 0;                                                                                  \
    }                                                                                              \
    extern "C" int HP##_hash_insert(TRAITS::Rec *e) { return KeyedTable<TRAITS>(G).insert(e); }  \
    extern "C" int HP##_hash_remove(const TRAITS::Rec *e)                                          \
    {                                                                                              \
        return KeyedTable<TRAITS>(G).remove(e);                                                    \
    }                                                                                              \
    extern "C" TRAITS::Rec *HP##_hash_find(const void *k) { return counted_find<TRAITS>(G, k); } \
    extern "C" int HP##_hash_traverse(libpmx_hash_op_t op, void *arg)                              \
    {                                                                                              \
        return KeyedTable<TRAITS>(G).traverse(op, arg);                                            \
    }                                                                                              \
    extern "C" int HP##_hash_traverse_with_index(libpmx_hash_op_t op, uint32_t start,              \
                                                 uint32_t count, void *arg)                        \
    {                                                                                              \
        return KeyedTable<TRAITS>(G).traverse_range(op, start, count, arg);                        \
    }                                                                                              \
    extern "C" uint32_t HP##_hash_size(void) { return KeyedTable<TRAITS>(G).size(); }              \
    extern "C" TRAITS::Rec *RP##_cache_create(TRAITS::Rec **out, const TRAITS::Rec *e)             \
    {                                                                                              \
        return KeyedTable<TRAITS>(G).cache_create(out, e);                                         \
    }                                                                                              \
    extern "C" void RP##_cache_destroy(TRAITS::Rec *e) { KeyedTable<TRAITS>(G).cache_destroy(e); }

// entry_each_item_op: the family's order when sorted is set (bucket order if it has none).
#define PMX_HASH_WALK(NAME, TRAITS, G)                                                             \
    extern "C" int NAME(libpmx_hash_op_t op, void *arg, int sorted)                                \
    {                                                                                              \
        return KeyedTable<TRAITS>(G).walk(op, arg, sorted != 0);                                   \
    }

// create() with the family's failure message (format and arguments may use `e`).
#define PMX_HASH_CREATE(RP, TRAITS, G, ...)                                                        \
    extern "C" TRAITS::Rec *RP##_create(const TRAITS::Rec *e)                                      \
    {                                                                                              \
        return create_entry<TRAITS>(G, e, #RP "_create", [&] {                                    \
            PMX_LOG_AS(#RP "_create", LIBPMX_ZLOG_ERROR, __VA_ARGS__);                             \
        });                                                                                        \
    }

extern "C" int ce_pmx_fuid_info_per_slot_key_cmp(const ce_pmx_fuid_info_per_slot_t *src,
                                                 const ce_pmx_fuid_info_per_slot_t *dst)
{
    if (src == nullptr || dst == nullptr) {
        PMX_ERROR("invalid param, src:%p, dst:%p", static_cast<const void *>(src),
                  static_cast<const void *>(dst));
        return 0;
    }
    return src->gslot == dst->gslot;
}

// ---- libpmx_invalid_modid ----
PMX_HASH_FAMILY(libpmx_invalid_modid, libpmx_invalid_modid, InvalidModid, g_invalid_modid)
PMX_HASH_WALK(libpmx_invalid_modid_entry_each_item_op, InvalidModid, g_invalid_modid)
PMX_HASH_CREATE(libpmx_invalid_modid, InvalidModid, g_invalid_modid,
                "create invalid modid:%d failed", e->modid)
extern "C" libpmx_invalid_modid_t *libpmx_invalid_modid_get(int32_t modid)
{
    libpmx_invalid_modid_t key{};
    key.modid = static_cast<uint32_t>(modid);
    return counted_find<InvalidModid>(g_invalid_modid, &key);
}

// ---- libpmx_local_card_port_ready ----
PMX_HASH_FAMILY(libpmx_local_card_port_ready, libpmx_local_card_port_ready, LocalCardPortReady,
                g_local_card_port_ready)
PMX_HASH_WALK(libpmx_local_card_port_ready_entry_each_item_op, LocalCardPortReady,
              g_local_card_port_ready)
PMX_HASH_CREATE(libpmx_local_card_port_ready, LocalCardPortReady, g_local_card_port_ready,
                "create local card port ready failed! sslot:%d", e->sslot)
extern "C" libpmx_local_card_port_ready_t *
libpmx_local_card_port_ready_get(const libpmx_local_card_port_ready_t *key)
{
    return counted_find<LocalCardPortReady>(g_local_card_port_ready, key);
}
extern "C" int libpmx_local_card_port_ready_destroy(const libpmx_local_card_port_ready_t *key)
{
    KeyedTable<LocalCardPortReady> t(g_local_card_port_ready);
    if (key == nullptr) {
        PMX_ERROR("invalid param");
        return LIBPMX_E_FAIL;
    }
    auto *rec = t.find(key);
    if (rec == nullptr) {
        PMX_ERROR("invalid param, param don't exist,sslot:%d", key->sslot);
        return LIBPMX_E_FAIL;
    }
    t.cache_destroy(rec);
    return 0;
}

// ---- ce_pmx_fuid_info_per_slot ----
PMX_HASH_FAMILY(ce_pmx_fuid_info_per_slot, libpmx_ce_pmx_fuid_info_per_slot, CePmxFuidInfoPerSlot,
                g_ce_pmx_fuid_info_per_slot)
PMX_HASH_WALK(libpmx_ce_pmx_fuid_info_per_slot_entry_each_item_op, CePmxFuidInfoPerSlot,
              g_ce_pmx_fuid_info_per_slot)
PMX_HASH_CREATE(libpmx_ce_pmx_fuid_info_per_slot, CePmxFuidInfoPerSlot,
                g_ce_pmx_fuid_info_per_slot, "create chip_slot failed gslot:0x%x", e->gslot)
extern "C" ce_pmx_fuid_info_per_slot_t *libpmx_ce_pmx_fuid_info_per_slot_get(int32_t gslot)
{
    ce_pmx_fuid_info_per_slot_t key{};
    key.gslot = static_cast<uint32_t>(gslot);
    return counted_find<CePmxFuidInfoPerSlot>(g_ce_pmx_fuid_info_per_slot, &key);
}

// ---- chipid_res ----
PMX_HASH_FAMILY(chipid_res, libpmx_chipid_res, ChipidRes, g_chipid_res)
PMX_HASH_WALK(libpmx_chipid_res_entry_each_item_op, ChipidRes, g_chipid_res)
PMX_HASH_CREATE(libpmx_chipid_res, ChipidRes, g_chipid_res, "create chip_res failed modid:%u",
                e->modid)
extern "C" chipid_res_t *libpmx_chipid_res_get(int32_t modid)
{
    chipid_res_t key{};
    key.modid = static_cast<uint32_t>(modid);
    return counted_find<ChipidRes>(g_chipid_res, &key);
}

// ---- libpmx_card_addr_id ----
PMX_HASH_FAMILY(libpmx_card_addr_id, libpmx_card_addr_id, CardAddrId, g_card_addr_id)
PMX_HASH_WALK(libpmx_card_addr_id_entry_each_item_op, CardAddrId, g_card_addr_id)
PMX_HASH_CREATE(libpmx_card_addr_id, CardAddrId, g_card_addr_id,
                "create card id failed card_type:%d subcard_type:%d cid:%d", e->card_type,
                e->subcard_type, e->cid)
extern "C" libpmx_card_addr_id_t *libpmx_card_addr_id_get(int32_t card_type, int32_t subcard_type)
{
    libpmx_card_addr_id_t key{};
    key.card_type = static_cast<uint32_t>(card_type);
    key.subcard_type = static_cast<uint32_t>(subcard_type);
    return counted_find<CardAddrId>(g_card_addr_id, &key);
}

// ---- libpmx_subcard_type_id ----
PMX_HASH_FAMILY(libpmx_subcard_type_id, libpmx_subcard_type_id, SubcardTypeId, g_subcard_type_id)
PMX_HASH_WALK(libpmx_subcard_type_id_entry_each_item_op, SubcardTypeId, g_subcard_type_id)
PMX_HASH_CREATE(libpmx_subcard_type_id, SubcardTypeId, g_subcard_type_id,
                "create subcard id failed subcard_type:%d cid:%d", e->subcard_type, e->cid)
extern "C" libpmx_subcard_type_id_t *libpmx_subcard_type_id_get(int32_t subcard_type)
{
    libpmx_subcard_type_id_t key{};
    key.subcard_type = static_cast<uint32_t>(subcard_type);
    return counted_find<SubcardTypeId>(g_subcard_type_id, &key);
}

// ---- libpmx_global_sport ----
PMX_HASH_FAMILY(libpmx_global_sport, libpmx_global_sport, GlobalSport, g_global_sport)
PMX_HASH_WALK(libpmx_global_sport_entry_each_item_op, GlobalSport, g_global_sport)
PMX_HASH_CREATE(libpmx_global_sport, GlobalSport, g_global_sport,
                "create global sport failed card_type:%d unit:%d port:%d", e->card_type, e->unit,
                e->port)
extern "C" libpmx_global_sport_t *libpmx_global_sport_get(int32_t card_type, int32_t unit,
                                                          int32_t port)
{
    libpmx_global_sport_t key{};
    key.card_type = static_cast<uint32_t>(card_type);
    key.unit = static_cast<int16_t>(unit);
    key.port = static_cast<int16_t>(port);
    return counted_find<GlobalSport>(g_global_sport, &key);
}

// ---- libpmx_sysport ----
PMX_HASH_FAMILY(libpmx_sysport, libpmx_sysport, Sysport, g_sysport)
PMX_HASH_WALK(libpmx_sysport_entry_each_item_op, Sysport, g_sysport)
PMX_HASH_CREATE(libpmx_sysport, Sysport, g_sysport, "create sysport failed sysport:%d phyid:0x%x",
                e->sysport, e->phyid)
extern "C" libpmx_sysport_t *libpmx_sysport_get(int32_t sysport)
{
    libpmx_sysport_t key{};
    key.sysport = static_cast<uint32_t>(sysport);
    return counted_find<Sysport>(g_sysport, &key);
}
extern "C" int libpmx_sysport_destroy(int32_t sysport)
{
    auto *rec = libpmx_sysport_get(sysport);
    if (rec == nullptr) {
        PMX_ERROR("sysport don't existed sysport:%d", sysport);
        return LIBPMX_E_FAIL;
    }
    KeyedTable<Sysport>(g_sysport).cache_destroy(rec);
    return 0;
}

// ---- libpmx_notify_hook ----
PMX_HASH_FAMILY(libpmx_notify_hook, libpmx_notify_hook, NotifyHook, g_notify_hook)
PMX_HASH_WALK(libpmx_notify_hook_entry_each_item_op, NotifyHook, g_notify_hook)
PMX_HASH_CREATE(libpmx_notify_hook, NotifyHook, g_notify_hook,
                "create notify hook failed notify_type:%d", e->notify_type)
extern "C" libpmx_notify_hook_t *libpmx_notify_hook_get(int32_t notify_type)
{
    libpmx_notify_hook_t key{};
    key.notify_type = static_cast<uint32_t>(notify_type);
    key.list.next = key.list.prev = &key.list;
    return counted_find<NotifyHook>(g_notify_hook, &key);
}
extern "C" int libpmx_notify_hook_destroy(int32_t notify_type)
{
    auto *rec = libpmx_notify_hook_get(notify_type);
    if (rec == nullptr) {
        PMX_ERROR("notify hook don't existed hook:%d", notify_type);
        return LIBPMX_E_FAIL;
    }
    for (libpmx_list_t *l = rec->list.next; l != &rec->list;) {
        libpmx_list_t *next = l->next;
        std::free(reinterpret_cast<char *>(l) - offsetof(libpmx_notify_hook_node_t, list));
        l = next;
    }
    KeyedTable<NotifyHook>(g_notify_hook).cache_destroy(rec);
    return 0;
}

// ---- libpmx_card_info ----
PMX_HASH_FAMILY(libpmx_card_info, libpmx_card_info, CardInfo, g_card_info)
PMX_HASH_WALK(libpmx_card_info_entry_each_item_op, CardInfo, g_card_info)
PMX_HASH_CREATE(libpmx_card_info, CardInfo, g_card_info,
                "create card_info failed. dev:%d slot:%d sslot:%d card_info:%d", e->dev, e->slot,
                e->sslot, e->card_info)
extern "C" libpmx_card_info_t *libpmx_card_info_get(int32_t dev, int32_t slot, int32_t sslot)
{
    libpmx_card_info_t key{};
    key.dev = static_cast<uint32_t>(dev);
    key.slot = static_cast<uint32_t>(slot);
    key.sslot = static_cast<uint32_t>(sslot);
    return counted_find<CardInfo>(g_card_info, &key);
}
extern "C" int libpmx_card_info_destroy(int32_t dev, int32_t slot, int32_t sslot)
{
    auto *rec = libpmx_card_info_get(dev, slot, sslot);
    if (rec == nullptr) {
        PMX_ERROR("card_info don't existed card_info. dev:%d slot:%d sslot:%d", dev, slot, sslot);
        return LIBPMX_E_FAIL;
    }
    KeyedTable<CardInfo>(g_card_info).cache_destroy(rec);
    return 0;
}

// ---- libpmx_card_type_poe ----
PMX_HASH_FAMILY(libpmx_card_type_poe, libpmx_card_type_poe, CardTypePoe, g_card_type_poe)
PMX_HASH_WALK(libpmx_card_type_poe_entry_each_item_op, CardTypePoe, g_card_type_poe)
PMX_HASH_CREATE(libpmx_card_type_poe, CardTypePoe, g_card_type_poe,
                "create card_type_poe failed card_type:%d power_supply:%d", e->card_type,
                e->power_supply)
extern "C" libpmx_card_type_poe_t *libpmx_card_type_poe_get(int32_t card_type)
{
    libpmx_card_type_poe_t key{};
    key.card_type = static_cast<uint32_t>(card_type);
    return counted_find<CardTypePoe>(g_card_type_poe, &key);
}
extern "C" int libpmx_cache_get_power_supply_by_card_type(int32_t card_type, uint8_t *power_supply)
{
    if (power_supply == nullptr) {
        PMX_ERROR("cache_get_power_supply_by_card_type param is null");
        return LIBPMX_E_FAIL;
    }
    const auto *rec = libpmx_card_type_poe_get(card_type);
    if (rec == nullptr) {
        PMX_ERROR("not found cache power supply. cardtype: %d", card_type);
        return LIBPMX_E_FAIL;
    }
    *power_supply = rec->power_supply;
    return 0;
}
extern "C" int libpmx_cache_put_power_supply_for_card_type(int32_t card_type, uint8_t power_supply)
{
    libpmx_card_type_poe_t rec{};
    rec.card_type = static_cast<uint32_t>(card_type);
    rec.power_supply = power_supply;
    libpmx_card_type_poe_t *out = nullptr;
    if (KeyedTable<CardTypePoe>(g_card_type_poe).cache_create(&out, &rec) == nullptr) {
        PMX_ERROR("failed to cache card_type %d, power_supply %d.", card_type, power_supply);
        return LIBPMX_E_FAIL;
    }
    return 0;
}
extern "C" int libpmx_cache_for_each_power_supply_card_type(libpmx_hash_op_t op, void *arg)
{
    if (op == nullptr) {
        PMX_ERROR("enumerate card_type_poe func is null.");
        return LIBPMX_E_FAIL;
    }
    return KeyedTable<CardTypePoe>(g_card_type_poe).traverse(op, arg);
}

// ---- libpmx_sub_ap_info / libpmx_sub_route_info ----
#define PMX_SUB_INTF_FAMILY(P, TRAITS, G, CREATE_FAILED)                                           \
    PMX_HASH_FAMILY(P, P, TRAITS, G)                                                               \
    PMX_HASH_WALK(P##_for_each, TRAITS, G)                                                         \
    PMX_HASH_CREATE(P, TRAITS, G, CREATE_FAILED)                                                   \
    extern "C" TRAITS::Rec *P##_get(uint32_t ifx)                                                  \
    {                                                                                              \
        TRAITS::Rec key{};                                                                         \
        key.ifx = ifx;                                                                             \
        return counted_find<TRAITS>(G, &key);                                                   \
    }                                                                                              \
    extern "C" int P##_destroy(TRAITS::Rec *e)                                                     \
    {                                                                                              \
        if (e == nullptr) {                                                                        \
            PMX_ERROR("param is null");                                                            \
            return LIBPMX_E_FAIL;                                                                  \
        }                                                                                          \
        KeyedTable<TRAITS>(G).cache_destroy(e);                                                    \
        return 0;                                                                                  \
    }
PMX_SUB_INTF_FAMILY(libpmx_sub_ap_info, SubApInfo, g_sub_ap_info,
                    "hash create libpmx_sub_ap_info_t failed")
PMX_SUB_INTF_FAMILY(libpmx_sub_route_info, SubRouteInfo, g_sub_route_info,
                    "hash create libpmx_sub_route_info_t failed")

// ---- libpmx_port_cache ----
PMX_HASH_FAMILY(libpmx_port_cache, libpmx_port_cache, PortCache, g_port_cache)
PMX_HASH_WALK(libpmx_port_cache_entry_each_item_op, PortCache, g_port_cache)
PMX_HASH_CREATE(libpmx_port_cache, PortCache, g_port_cache, "hash create libpmx_port_cache_t failed")
extern "C" libpmx_port_cache_t *libpmx_port_cache_get(int32_t unit, int32_t port)
{
    libpmx_port_cache_t key{};
    key.unit = static_cast<uint32_t>(unit);
    key.port = static_cast<uint32_t>(port);
    return counted_find<PortCache>(g_port_cache, &key);
}
extern "C" int libpmx_port_cache_destroy(int32_t unit, int32_t port)
{
    auto *rec = libpmx_port_cache_get(unit, port);
    if (rec == nullptr) {
        PMX_ERROR("not found for key unit %d, port %d: ", unit, port);
        return LIBPMX_E_FAIL;
    }
    KeyedTable<PortCache>(g_port_cache).cache_destroy(rec);
    return 0;
}

// ---- one-to-many mappings: libpmx_phy_k2v (two tables) and libpmx_port_k2v ----
namespace {

bool same_value(const libpmx_phy_k2v_val_t &x, const libpmx_phy_k2v_val_t &y)
{
    return x.value == y.value;
}
void take_value(libpmx_phy_k2v_val_t &dst, const libpmx_phy_k2v_val_t &src) { dst.value = src.value; }
bool same_value(const libpmx_port_k2v_val_t &x, const libpmx_port_k2v_val_t &y)
{
    return x.a == y.a && x.b == y.b;
}
void take_value(libpmx_port_k2v_val_t &dst, const libpmx_port_k2v_val_t &src)
{
    dst.a = src.a;
    dst.b = src.b;
}

// Adds probe.list (its value) under probe's key, newest first; a value already there stays.
template <class Traits, class Create>
int k2v_add(libpmx_hash_t *h, const typename Traits::Rec &probe, Create create)
{
    using Val = decltype(probe.list);
    auto *rec = KeyedTable<Traits>(h).find(&probe);
    if (rec == nullptr) return create(&probe) != nullptr ? 0 : LIBPMX_E_NOMEM;
    for (const Val *v = &rec->list; v != nullptr; v = v->next)
        if (same_value(*v, probe.list)) return 0;
    auto *node = static_cast<Val *>(std::malloc(sizeof(Val)));
    if (node == nullptr) return LIBPMX_E_NOMEM;
    *node = rec->list;
    rec->list = probe.list;
    rec->list.next = node;
    return 0;
}

// Removes one value of a key. A value with both a predecessor P and a successor S is removed by
// giving P the value of S: P's own value goes too, and S's stands twice (3,2,1 minus 2 is 1,1).
template <class Traits> int k2v_remove(libpmx_hash_t *h, const typename Traits::Rec &probe)
{
    using Val = decltype(probe.list);
    KeyedTable<Traits> t(h);
    auto *rec = t.find(&probe);
    if (rec == nullptr) return LIBPMX_E_NOT_FOUND;
    Val *head = &rec->list;
    if (head->next == nullptr) {
        if (!same_value(*head, probe.list)) return LIBPMX_E_NOT_FOUND;
        t.cache_destroy(rec);
        return 0;
    }
    if (same_value(*head, probe.list)) {
        Val *first = head->next;
        *head = *first;
        std::free(first);
        return 0;
    }
    Val *prev = head;
    Val *cur = head->next;
    while (cur != nullptr && !same_value(*cur, probe.list)) {
        prev = cur;
        cur = cur->next;
    }
    if (cur == nullptr) return LIBPMX_E_NOT_FOUND;
    if (Val *succ = cur->next; succ != nullptr) {
        take_value(*prev, *succ);
        prev->next = succ;
    } else {
        prev->next = nullptr;
    }
    std::free(cur);
    return 0;
}

libpmx_hash_t *phy_table(uint32_t idx) { return g_phy_k2v[idx]; }

} // namespace

extern "C" int libpmx_phy_k2v_hash_init(uint32_t n_tables)
{
    if (g_phy_k2v == nullptr) {
        g_phy_k2v = static_cast<libpmx_hash_t **>(std::calloc(n_tables, sizeof(libpmx_hash_t *)));
        if (g_phy_k2v == nullptr) return 0;
        g_phy_k2v_tables = n_tables;
    }
    for (uint32_t i = 0; i < g_phy_k2v_tables; ++i) init_table(g_phy_k2v[i]);
    return 0;
}
extern "C" int libpmx_phy_k2v_hash_insert(uint32_t idx, libpmx_phy_k2v_t *e)
{
    return KeyedTable<PhyK2v>(phy_table(idx)).insert(e);
}
extern "C" int libpmx_phy_k2v_hash_remove(uint32_t idx, const libpmx_phy_k2v_t *e)
{
    return KeyedTable<PhyK2v>(phy_table(idx)).remove(e);
}
extern "C" libpmx_phy_k2v_t *libpmx_phy_k2v_hash_find(uint32_t idx, const void *key)
{
    return counted_find<PhyK2v>(phy_table(idx), key);
}
extern "C" int libpmx_phy_k2v_hash_traverse(uint32_t idx, libpmx_hash_op_t op, void *arg)
{
    return KeyedTable<PhyK2v>(phy_table(idx)).traverse(op, arg);
}
extern "C" int libpmx_phy_k2v_hash_traverse_with_index(uint32_t idx, libpmx_hash_op_t op,
                                                       uint32_t start, uint32_t count, void *arg)
{
    return KeyedTable<PhyK2v>(phy_table(idx)).traverse_range(op, start, count, arg);
}
extern "C" uint32_t libpmx_phy_k2v_hash_size(uint32_t idx)
{
    return KeyedTable<PhyK2v>(phy_table(idx)).size();
}
extern "C" libpmx_phy_k2v_t *libpmx_phy_k2v_cache_create(uint32_t idx, libpmx_phy_k2v_t **out,
                                                        const libpmx_phy_k2v_t *e)
{
    return KeyedTable<PhyK2v>(phy_table(idx)).cache_create(out, e);
}
extern "C" void libpmx_phy_k2v_cache_destroy(uint32_t idx, libpmx_phy_k2v_t *e)
{
    KeyedTable<PhyK2v>(phy_table(idx)).cache_destroy(e);
}
extern "C" libpmx_phy_k2v_t *libpmx_phy_k2v_create(uint32_t idx, const libpmx_phy_k2v_t *e)
{
    return create_entry<PhyK2v>(phy_table(idx), e, "libpmx_phy_k2v_create", [&] {
        PMX_LOG_AS("libpmx_phy_k2v_create", LIBPMX_ZLOG_ERROR,
                   "create phy_k2v failed table:%u key:0x%x value:0x%x", idx, e->key, e->list.value);
    });
}
extern "C" libpmx_phy_k2v_t *libpmx_phy_k2v_get(uint32_t idx, uint32_t key)
{
    libpmx_phy_k2v_t k{};
    k.key = key;
    return counted_find<PhyK2v>(phy_table(idx), &k);
}
extern "C" int libpmx_phy_k2v_entry_each_item_op(uint32_t idx, libpmx_hash_op_t op, void *arg,
                                                 int sorted)
{
    return KeyedTable<PhyK2v>(phy_table(idx)).walk(op, arg, sorted != 0);
}

#define PMX_PHY_MAPPING(NAME, IDX)                                                                 \
    extern "C" const libpmx_phy_k2v_val_t *NAME##_get_mapping(uint32_t key)                        \
    {                                                                                              \
        const auto *rec = libpmx_phy_k2v_get(IDX, key);                                            \
        return rec != nullptr ? &rec->list : nullptr;                                              \
    }                                                                                              \
    extern "C" int NAME##_add_mapping(uint32_t key, uint32_t value)                                \
    {                                                                                              \
        libpmx_phy_k2v_t probe{};                                                                  \
        probe.key = key;                                                                           \
        probe.list.value = value;                                                                  \
        return k2v_add<PhyK2v>(phy_table(IDX), probe, [](const libpmx_phy_k2v_t *e) {           \
            return libpmx_phy_k2v_create(IDX, e);                                                  \
        });                                                                                        \
    }                                                                                              \
    extern "C" int NAME##_remove_mapping(uint32_t key, uint32_t value)                             \
    {                                                                                              \
        libpmx_phy_k2v_t probe{};                                                                  \
        probe.key = key;                                                                           \
        probe.list.value = value;                                                                  \
        return k2v_remove<PhyK2v>(phy_table(IDX), probe);                                          \
    }                                                                                              \
    extern "C" int NAME##_for_each(libpmx_hash_op_t op, void *arg)                                 \
    {                                                                                              \
        return libpmx_phy_k2v_hash_traverse(IDX, op, arg);                                         \
    }
PMX_PHY_MAPPING(libpmx_modport_gphy, LIBPMX_PHY_K2V_MODPORT_GPHY)
PMX_PHY_MAPPING(libpmx_unitport_lphy, LIBPMX_PHY_K2V_UNITPORT_LPHY)

PMX_HASH_FAMILY(libpmx_port_k2v, libpmx_port_k2v, PortK2v, g_port_k2v)
PMX_HASH_WALK(libpmx_port_k2v_entry_each_item_op, PortK2v, g_port_k2v)
PMX_HASH_CREATE(libpmx_port_k2v, PortK2v, g_port_k2v,
                "create port_k2v failed gslot:%d port:%d value:%u,%u", e->gslot, e->port,
                e->list.a, e->list.b)
extern "C" libpmx_port_k2v_t *libpmx_port_k2v_get(int32_t gslot, int32_t port)
{
    libpmx_port_k2v_t key{};
    key.gslot = static_cast<uint32_t>(gslot);
    key.port = static_cast<uint32_t>(port);
    return counted_find<PortK2v>(g_port_k2v, &key);
}
namespace {
libpmx_port_k2v_t port_probe(int32_t gslot, int32_t port, uint32_t a, uint32_t b)
{
    libpmx_port_k2v_t probe{};
    probe.gslot = static_cast<uint32_t>(gslot);
    probe.port = static_cast<uint32_t>(port);
    probe.list.a = a;
    probe.list.b = b;
    return probe;
}
} // namespace
extern "C" const libpmx_port_k2v_val_t *libpmx_gslot_port_get_mapping(int32_t gslot, int32_t port)
{
    const auto *rec = libpmx_port_k2v_get(gslot, port);
    return rec != nullptr ? &rec->list : nullptr;
}
extern "C" int libpmx_gslot_port_add_mapping(int32_t gslot, int32_t port, uint32_t a, uint32_t b)
{
    return k2v_add<PortK2v>(g_port_k2v, port_probe(gslot, port, a, b), &libpmx_port_k2v_create);
}
extern "C" int libpmx_gslot_port_remove_mapping(int32_t gslot, int32_t port, uint32_t a, uint32_t b)
{
    return k2v_remove<PortK2v>(g_port_k2v, port_probe(gslot, port, a, b));
}
extern "C" int libpmx_gslot_port_for_each(libpmx_hash_op_t op, void *arg)
{
    return libpmx_port_k2v_hash_traverse(op, arg);
}

// Creates every cache, in a fixed order.
extern "C" int libpmx_hash_init(void)
{
    ce_pmx_fuid_info_per_slot_hash_init();
    chipid_res_hash_init();
    libpmx_card_addr_id_hash_init();
    libpmx_global_sport_hash_init();
    libpmx_sysport_hash_init();
    libpmx_notify_hook_hash_init();
    libpmx_invalid_modid_hash_init();
    libpmx_local_card_port_ready_hash_init();
    libpmx_subcard_type_id_hash_init();
    libpmx_card_info_hash_init();
    libpmx_card_type_poe_hash_init();
    libpmx_sub_ap_info_hash_init();
    libpmx_sub_route_info_hash_init();
    libpmx_port_cache_hash_init();
    libpmx_phy_k2v_hash_init(2);
    libpmx_port_k2v_hash_init();
    return 0;
}

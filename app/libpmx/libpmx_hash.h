/* Keyed caches: the table header, the entry record of every cache family and its operations.
 *
 * Every cache is an open-addressing set of pointers to heap records, keyed by the leading bytes
 * of the record (ce_pmx_fuid_info_per_slot: by its gslot field). No operation here locks: the
 * caller holds the lock of the subsystem that owns the cache. */
#ifndef LIBPMX_HASH_H
#define LIBPMX_HASH_H

#include <stdint.h>

#include "libpmx_export.h"
#include "libpmx_types.h"

LIBPMX_BEGIN_DECLS

/* Table header; fields in this order. The table starts with no buckets. */
typedef struct libpmx_hash {
    uint32_t n_buckets;   /* 0 or a power of two, at least 4 once allocated */
    uint32_t size;        /* live entries */
    uint32_t n_occupied;  /* live entries plus tombstones */
    uint32_t upper_bound; /* rehash threshold: n_buckets * 0.77 + 0.5 */
    uint32_t *flags;      /* 2 bits a bucket: 2 = empty, 1 = deleted, 0 = live */
    void **keys;          /* one entry-record pointer a bucket */
    void *vals;           /* always null: the record is the value */
} libpmx_hash_t;

/* Called for each visited record; a non-zero result stops the walk and is returned. */
typedef int (*libpmx_hash_op_t)(void *entry, void *arg);

/* Creates every cache table; always 0. Runs once at library load. */
LIBPMX_API int libpmx_hash_init(void);

/* The operations every family has. HP is the hash-level prefix, RP the record-level one. */
#define LIBPMX_HASH_FAMILY_DECLS(HP, RP, T, GET_ARGS)                                              \
    LIBPMX_API int HP##_hash_init(void);                                                           \
    LIBPMX_API int HP##_hash_insert(T *entry);                                                     \
    LIBPMX_API int HP##_hash_remove(const T *entry);                                               \
    LIBPMX_API T *HP##_hash_find(const void *key);                                                 \
    LIBPMX_API int HP##_hash_traverse(libpmx_hash_op_t op, void *arg);                             \
    LIBPMX_API int HP##_hash_traverse_with_index(libpmx_hash_op_t op, uint32_t start,              \
                                                 uint32_t count, void *arg);                       \
    LIBPMX_API uint32_t HP##_hash_size(void);                                                      \
    LIBPMX_API T *RP##_cache_create(T **out, const T *entry);                                      \
    LIBPMX_API void RP##_cache_destroy(T *entry);                                                  \
    LIBPMX_API T *RP##_create(const T *entry);                                                     \
    LIBPMX_API T *RP##_get GET_ARGS;

/* ---- libpmx_invalid_modid: module ids that the capability data declares invalid ---- */
typedef struct libpmx_invalid_modid {
    uint32_t modid; /* key */
} libpmx_invalid_modid_t;
LIBPMX_HASH_FAMILY_DECLS(libpmx_invalid_modid, libpmx_invalid_modid, libpmx_invalid_modid_t,
                         (int32_t modid))
LIBPMX_API int libpmx_invalid_modid_entry_each_item_op(libpmx_hash_op_t op, void *arg, int sorted);

/* ---- libpmx_local_card_port_ready: port readiness of each local sub-slot ---- */
typedef struct libpmx_local_card_port_ready {
    uint32_t sslot;     /* key */
    uint32_t ready;     /* non-zero when the sub-slot's ports are ready */
    uint32_t card_type;
} libpmx_local_card_port_ready_t;
LIBPMX_HASH_FAMILY_DECLS(libpmx_local_card_port_ready, libpmx_local_card_port_ready,
                         libpmx_local_card_port_ready_t, (const libpmx_local_card_port_ready_t *key))
LIBPMX_API int libpmx_local_card_port_ready_destroy(const libpmx_local_card_port_ready_t *key);
LIBPMX_API int libpmx_local_card_port_ready_entry_each_item_op(libpmx_hash_op_t op, void *arg,
                                                               int sorted);

/* ---- ce_pmx_fuid_info_per_slot: forwarding units of one card, keyed by gslot ---- */
LIBPMX_HASH_FAMILY_DECLS(ce_pmx_fuid_info_per_slot, libpmx_ce_pmx_fuid_info_per_slot,
                         ce_pmx_fuid_info_per_slot_t, (int32_t gslot))
/* Key equality: both non-null and the same gslot. */
LIBPMX_API int ce_pmx_fuid_info_per_slot_key_cmp(const ce_pmx_fuid_info_per_slot_t *src,
                                                 const ce_pmx_fuid_info_per_slot_t *dst);
/* sorted: by gslot, signed. */
LIBPMX_API int libpmx_ce_pmx_fuid_info_per_slot_entry_each_item_op(libpmx_hash_op_t op, void *arg,
                                                                   int sorted);

/* ---- chipid_res: chip-id reservation, one per modid ---- */
typedef struct chipid_res {
    uint32_t modid;  /* key */
    uint32_t gslot;  /* card that owns the chip */
    uint32_t unit;   /* local unit of the chip on that card */
    uint8_t valid;   /* 1 while the modid is allocated */
    uint32_t coreid; /* core of the unit that this modid names */
    uint32_t type;   /* modid type of the unit */
} chipid_res_t;
LIBPMX_HASH_FAMILY_DECLS(chipid_res, libpmx_chipid_res, chipid_res_t, (int32_t modid))
/* sorted: by modid, unsigned. */
LIBPMX_API int libpmx_chipid_res_entry_each_item_op(libpmx_hash_op_t op, void *arg, int sorted);

/* ---- libpmx_card_addr_id: card id (cid) of a card type and subcard type ---- */
typedef struct libpmx_card_addr_id {
    uint32_t card_type;    /* key, with subcard_type */
    uint32_t subcard_type;
    uint32_t cid;
} libpmx_card_addr_id_t;
LIBPMX_HASH_FAMILY_DECLS(libpmx_card_addr_id, libpmx_card_addr_id, libpmx_card_addr_id_t,
                         (int32_t card_type, int32_t subcard_type))
/* sorted: by cid, signed. */
LIBPMX_API int libpmx_card_addr_id_entry_each_item_op(libpmx_hash_op_t op, void *arg, int sorted);

/* ---- libpmx_subcard_type_id: subcard id of a subcard type ---- */
typedef struct libpmx_subcard_type_id {
    uint32_t subcard_type; /* key */
    uint32_t cid;
} libpmx_subcard_type_id_t;
LIBPMX_HASH_FAMILY_DECLS(libpmx_subcard_type_id, libpmx_subcard_type_id, libpmx_subcard_type_id_t,
                         (int32_t subcard_type))
/* sorted: by cid, signed. */
LIBPMX_API int libpmx_subcard_type_id_entry_each_item_op(libpmx_hash_op_t op, void *arg,
                                                         int sorted);

/* ---- libpmx_global_sport: global system-port data of a card type's unit and port ---- */
typedef struct libpmx_global_sport {
    uint32_t card_type; /* key, with unit and port */
    int16_t unit;
    int16_t port;
    int16_t sslot;      /* refreshed on every create */
    int16_t lport;      /* refreshed only when the offered unit is -1 */
    uint32_t sysport;
    uint32_t phyid;
} libpmx_global_sport_t;
LIBPMX_HASH_FAMILY_DECLS(libpmx_global_sport, libpmx_global_sport, libpmx_global_sport_t,
                         (int32_t card_type, int32_t unit, int32_t port))
LIBPMX_API int libpmx_global_sport_entry_each_item_op(libpmx_hash_op_t op, void *arg, int sorted);

/* ---- libpmx_sysport: physical port of a system port ---- */
typedef struct libpmx_sysport {
    uint32_t sysport; /* key */
    uint32_t phyid;
} libpmx_sysport_t;
LIBPMX_HASH_FAMILY_DECLS(libpmx_sysport, libpmx_sysport, libpmx_sysport_t, (int32_t sysport))
LIBPMX_API int libpmx_sysport_destroy(int32_t sysport);
LIBPMX_API int libpmx_sysport_entry_each_item_op(libpmx_hash_op_t op, void *arg, int sorted);

/* ---- libpmx_notify_hook: hooks registered for a notify type ---- */
typedef void (*libpmx_notify_hook_fn)(void *context, int type, int event, void *arg);
/* A further registration of the same type, linked into the entry's list. */
typedef struct libpmx_notify_hook_node {
    uint32_t notify_type;
    libpmx_list_t list;
    libpmx_notify_hook_fn hook;
} libpmx_notify_hook_node_t;
typedef struct libpmx_notify_hook {
    uint32_t notify_type;       /* key */
    libpmx_list_t list;         /* circular list of libpmx_notify_hook_node_t, by .list */
    libpmx_notify_hook_fn hook; /* the first registration's hook */
} libpmx_notify_hook_t;
LIBPMX_HASH_FAMILY_DECLS(libpmx_notify_hook, libpmx_notify_hook, libpmx_notify_hook_t,
                         (int32_t notify_type))
/* Frees every node of the entry's hook list, then the entry. */
LIBPMX_API int libpmx_notify_hook_destroy(int32_t notify_type);
LIBPMX_API int libpmx_notify_hook_entry_each_item_op(libpmx_hash_op_t op, void *arg, int sorted);

/* ---- libpmx_card_info: card type of a device, slot and sub-slot ---- */
typedef struct libpmx_card_info {
    uint32_t dev; /* key, with slot and sslot */
    uint32_t slot;
    uint32_t sslot;
    uint32_t card_info;
} libpmx_card_info_t;
LIBPMX_HASH_FAMILY_DECLS(libpmx_card_info, libpmx_card_info, libpmx_card_info_t,
                         (int32_t dev, int32_t slot, int32_t sslot))
LIBPMX_API int libpmx_card_info_destroy(int32_t dev, int32_t slot, int32_t sslot);
/* sorted: by dev, then slot, then sslot, signed. */
LIBPMX_API int libpmx_card_info_entry_each_item_op(libpmx_hash_op_t op, void *arg, int sorted);

/* ---- libpmx_card_type_poe: power supply of a card type ---- */
typedef struct libpmx_card_type_poe {
    uint32_t card_type; /* key */
    uint8_t power_supply;
} libpmx_card_type_poe_t;
LIBPMX_HASH_FAMILY_DECLS(libpmx_card_type_poe, libpmx_card_type_poe, libpmx_card_type_poe_t,
                         (int32_t card_type))
LIBPMX_API int libpmx_card_type_poe_entry_each_item_op(libpmx_hash_op_t op, void *arg, int sorted);
/* 0 and *power_supply set, or -11 when the card type is not cached (output untouched). */
LIBPMX_API int libpmx_cache_get_power_supply_by_card_type(int32_t card_type,
                                                          uint8_t *power_supply);
/* 0, or -11 when the entry cannot be allocated. */
LIBPMX_API int libpmx_cache_put_power_supply_for_card_type(int32_t card_type,
                                                           uint8_t power_supply);
LIBPMX_API int libpmx_cache_for_each_power_supply_card_type(libpmx_hash_op_t op, void *arg);

/* ---- libpmx_sub_ap_info / libpmx_sub_route_info: sub-interfaces and their parent port ---- */
/* The records are in libpmx_types.h: the database reads decode into them too. */
LIBPMX_HASH_FAMILY_DECLS(libpmx_sub_ap_info, libpmx_sub_ap_info, libpmx_sub_ap_info_t,
                         (uint32_t ifx))
/* Removes and frees a cached record; -11 for null. */
LIBPMX_API int libpmx_sub_ap_info_destroy(libpmx_sub_ap_info_t *entry);
/* sorted: by ifx, unsigned. */
LIBPMX_API int libpmx_sub_ap_info_for_each(libpmx_hash_op_t op, void *arg, int sorted);

LIBPMX_HASH_FAMILY_DECLS(libpmx_sub_route_info, libpmx_sub_route_info, libpmx_sub_route_info_t,
                         (uint32_t ifx))
LIBPMX_API int libpmx_sub_route_info_destroy(libpmx_sub_route_info_t *entry);
LIBPMX_API int libpmx_sub_route_info_for_each(libpmx_hash_op_t op, void *arg, int sorted);

/* ---- libpmx_port_cache: a value of the local port table per unit and port ---- */
typedef struct libpmx_port_cache {
    uint32_t unit; /* key, with port */
    uint32_t port;
    uint32_t value;
} libpmx_port_cache_t;
LIBPMX_HASH_FAMILY_DECLS(libpmx_port_cache, libpmx_port_cache, libpmx_port_cache_t,
                         (int32_t unit, int32_t port))
LIBPMX_API int libpmx_port_cache_destroy(int32_t unit, int32_t port);
LIBPMX_API int libpmx_port_cache_entry_each_item_op(libpmx_hash_op_t op, void *arg, int sorted);

/* ---- libpmx_phy_k2v: one key to many values; table 0 modport -> gphyid, 1 unitport -> lphyid */
#define LIBPMX_PHY_K2V_MODPORT_GPHY 0
#define LIBPMX_PHY_K2V_UNITPORT_LPHY 1
typedef struct libpmx_phy_k2v_val {
    uint32_t value;
    struct libpmx_phy_k2v_val *next;
} libpmx_phy_k2v_val_t;
typedef struct libpmx_phy_k2v {
    uint32_t key;
    libpmx_phy_k2v_val_t list; /* newest value first */
} libpmx_phy_k2v_t;
LIBPMX_API int libpmx_phy_k2v_hash_init(uint32_t n_tables);
LIBPMX_API int libpmx_phy_k2v_hash_insert(uint32_t idx, libpmx_phy_k2v_t *entry);
LIBPMX_API int libpmx_phy_k2v_hash_remove(uint32_t idx, const libpmx_phy_k2v_t *entry);
LIBPMX_API libpmx_phy_k2v_t *libpmx_phy_k2v_hash_find(uint32_t idx, const void *key);
LIBPMX_API int libpmx_phy_k2v_hash_traverse(uint32_t idx, libpmx_hash_op_t op, void *arg);
LIBPMX_API int libpmx_phy_k2v_hash_traverse_with_index(uint32_t idx, libpmx_hash_op_t op,
                                                       uint32_t start, uint32_t count, void *arg);
LIBPMX_API uint32_t libpmx_phy_k2v_hash_size(uint32_t idx);
LIBPMX_API libpmx_phy_k2v_t *libpmx_phy_k2v_cache_create(uint32_t idx, libpmx_phy_k2v_t **out,
                                                        const libpmx_phy_k2v_t *entry);
LIBPMX_API void libpmx_phy_k2v_cache_destroy(uint32_t idx, libpmx_phy_k2v_t *entry);
LIBPMX_API libpmx_phy_k2v_t *libpmx_phy_k2v_create(uint32_t idx, const libpmx_phy_k2v_t *entry);
LIBPMX_API libpmx_phy_k2v_t *libpmx_phy_k2v_get(uint32_t idx, uint32_t key);
LIBPMX_API int libpmx_phy_k2v_entry_each_item_op(uint32_t idx, libpmx_hash_op_t op, void *arg,
                                                 int sorted);

/* Value list of a key (walk it through .next), or null. */
LIBPMX_API const libpmx_phy_k2v_val_t *libpmx_modport_gphy_get_mapping(uint32_t key);
/* 0 (also when the value is there already), or -2 on allocation failure. */
LIBPMX_API int libpmx_modport_gphy_add_mapping(uint32_t key, uint32_t value);
/* 0, or -7 when the key or the value is absent. Removing a value that has both a
 * predecessor and a successor also replaces the predecessor's value by the successor's. */
LIBPMX_API int libpmx_modport_gphy_remove_mapping(uint32_t key, uint32_t value);
LIBPMX_API int libpmx_modport_gphy_for_each(libpmx_hash_op_t op, void *arg);
LIBPMX_API const libpmx_phy_k2v_val_t *libpmx_unitport_lphy_get_mapping(uint32_t key);
LIBPMX_API int libpmx_unitport_lphy_add_mapping(uint32_t key, uint32_t value);
LIBPMX_API int libpmx_unitport_lphy_remove_mapping(uint32_t key, uint32_t value);
LIBPMX_API int libpmx_unitport_lphy_for_each(libpmx_hash_op_t op, void *arg);

/* ---- libpmx_port_k2v: (gslot, port) to many value pairs, for split ports ---- */
typedef struct libpmx_port_k2v_val {
    uint32_t a;
    uint32_t b;
    struct libpmx_port_k2v_val *next;
} libpmx_port_k2v_val_t;
typedef struct libpmx_port_k2v {
    uint32_t gslot; /* key, with port */
    uint32_t port;
    libpmx_port_k2v_val_t list; /* newest pair first */
} libpmx_port_k2v_t;
LIBPMX_HASH_FAMILY_DECLS(libpmx_port_k2v, libpmx_port_k2v, libpmx_port_k2v_t,
                         (int32_t gslot, int32_t port))
LIBPMX_API int libpmx_port_k2v_entry_each_item_op(libpmx_hash_op_t op, void *arg, int sorted);
LIBPMX_API const libpmx_port_k2v_val_t *libpmx_gslot_port_get_mapping(int32_t gslot, int32_t port);
LIBPMX_API int libpmx_gslot_port_add_mapping(int32_t gslot, int32_t port, uint32_t a, uint32_t b);
LIBPMX_API int libpmx_gslot_port_remove_mapping(int32_t gslot, int32_t port, uint32_t a,
                                                uint32_t b);
LIBPMX_API int libpmx_gslot_port_for_each(libpmx_hash_op_t op, void *arg);

#undef LIBPMX_HASH_FAMILY_DECLS

LIBPMX_END_DECLS

#endif /* LIBPMX_HASH_H */

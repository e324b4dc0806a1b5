/* Records that cross the library's layers: what the database reads decode into and the caches
 * above them store. They depend on nothing of the library but its export macros, so the
 * database access and every cache owner can share them without pointing at each other. */
#ifndef LIBPMX_TYPES_H
#define LIBPMX_TYPES_H

#include <stdint.h>

#include "libpmx_export.h"

LIBPMX_BEGIN_DECLS

/* A circular doubly linked list node; an empty list's head points at itself. */
typedef struct libpmx_list {
    struct libpmx_list *next;
    struct libpmx_list *prev;
} libpmx_list_t;

/* Interface info: what callers pass in and get back, in the order of the node log line. The
 * interface and physical-port records of the database decode into it. */
typedef struct libpmx_intf_info {
    uint32_t ifx;
    uint32_t gphyid;
    uint32_t lphyid;
    int32_t modid;
    int32_t mport;
    int32_t unit;
    int32_t port;
    int32_t dev;
    int32_t slot;
    int32_t sslot;
    int32_t lport;
    int32_t vid;
    int32_t llcbtype;
    uint8_t is_valid;
    int32_t core;
} libpmx_intf_info_t;

/* Chip units of a card: a unit number above 7 is invalid. */
#define LIBPMX_UNITS_MAX 8

/* Static attributes of a card type. */
typedef struct libpmx_card_stattr {
    int32_t max_lport_id;               /* highest panel port number, -1 unknown */
    int32_t chip_num;                   /* forwarding chip units, virtual ones included, -1 unknown */
    int32_t max_port[LIBPMX_UNITS_MAX]; /* highest port of each unit, 0 unknown */
    uint32_t alloc_mode[4];             /* module-id allocation: mode, id_num, idnum_per_unit, support_num */
    int32_t intraband_chip_num;         /* -1 unknown */
    int32_t virtual_unit_num;           /* -1 unknown */
} libpmx_card_stattr_t;

/* A sub-AP interface and its parent port (cache family libpmx_sub_ap_info). */
typedef struct libpmx_sub_ap_info {
    uint32_t ifx; /* key: the sub-AP interface */
    uint32_t phyid;
    uint32_t evlan;
    uint32_t trunk;
    uint32_t master_phyid;
} libpmx_sub_ap_info_t;

/* A sub-route interface and its parent port (cache family libpmx_sub_route_info). */
typedef struct libpmx_sub_route_info {
    uint32_t ifx; /* key: the sub-route interface */
    uint32_t phyid;
    uint32_t evlan;
    uint32_t master_phyid;
} libpmx_sub_route_info_t;

/* One chip port of the local card as its unit/port record (p_dev.unit_cport_info) tells it. */
typedef struct libpmx_port_info {
    int32_t unit;
    int32_t port;      /* chip port */
    int32_t lport;     /* panel port, -1 for a port without one */
    int32_t core;      /* core of the unit that serves the port */
    int32_t unit_type; /* 0 a physical unit, 1 a virtual (logical) unit */
    int32_t card_type; /* the card type that owns the port: the card's own, or its subcard's */
} libpmx_port_info_t;

/* Forwarding units of one card (cache family ce_pmx_fuid_info_per_slot; the shape of the
 * module table of a slot as the library stores it). */
#define LIBPMX_FUID_UNITS_PER_SLOT 8
#define LIBPMX_FUID_MODIDS_PER_UNIT 16
typedef struct libpmx_fuid_unit {
    int8_t unit;       /* local unit number */
    uint8_t modid_type;
    int8_t idnum;      /* how many modids the unit has */
    uint32_t modid[LIBPMX_FUID_MODIDS_PER_UNIT]; /* index: core */
} libpmx_fuid_unit_t;
typedef struct ce_pmx_fuid_info_per_slot {
    uint32_t status;    /* 0 none, 1 chip ids allocated, 2 limit */
    uint32_t gslot;     /* key */
    uint32_t card_type;
    uint32_t node_type;
    uint32_t fuid_num;  /* unit entries in use */
    libpmx_fuid_unit_t fuid[LIBPMX_FUID_UNITS_PER_SLOT];
} ce_pmx_fuid_info_per_slot_t;

/* A module table as read from the database: the slot it names and its per-slot record. */
typedef struct libpmx_mod_tbl_info {
    int32_t dev;
    int32_t slot;
    int32_t sslot;
    ce_pmx_fuid_info_per_slot_t tbl;
} libpmx_mod_tbl_info_t;

LIBPMX_END_DECLS

#endif /* LIBPMX_TYPES_H */

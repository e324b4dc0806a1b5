/* Local card and port state: who this process's card is (the local identity) and the static
 * attributes of its card type, filled by database change callbacks and, on demand, by
 * synchronous reads.
 *
 * Identity values and attributes are plain 32-bit words, written by the database callback
 * thread and read by any thread without a lock: each field is seen old or new, the six
 * identity fields are not one snapshot. Unknown values are -1. */
#ifndef LIBPMX_PORT_H
#define LIBPMX_PORT_H

#include <stdint.h>

#include "libpmx_errno.h"
#include "libpmx_export.h"
#include "libpmx_types.h"

LIBPMX_BEGIN_DECLS

/* Positions in the my-info array: five set by libpmx_cache_set_my_info, six read by
 * libpmx_get_my_info. */
enum {
    LIBPMX_MY_NODE_TYPE = 0,
    LIBPMX_MY_SLOT_ID = 1,
    LIBPMX_MY_CARD_TYPE = 2,
    LIBPMX_MY_NODE_ID = 3,
    LIBPMX_MY_SSLOT_ID = 4,
    LIBPMX_MY_DEV_ID = 5,
    LIBPMX_MY_INFO_NUM = 6,
};

/* Kinds of libpmx_get_card_stattr_info. */
enum {
    LIBPMX_STATTR_MAX_LPORT = 0,
    LIBPMX_STATTR_CHIP_NUM = 1,
    LIBPMX_STATTR_MAX_PORT = 2,
    LIBPMX_STATTR_ALLOC_MODE = 3,
    LIBPMX_STATTR_INTRABAND_CHIP_NUM = 4,
};

/* At load: attributes unknown, card-complete flags of the port state cleared. The identity
 * is left as it is (unknown at load). Always 0. */
LIBPMX_API int libpmx_port_init(void);
/* At start-up: every panel port offline; 0. */
LIBPMX_API int libpmx_online_port_array_init(void);

/* ---- online and back-plane port state ---- */

/* Panel ports the online-port state holds: 0 to LIBPMX_ONLINE_LPORT_MAX - 1. */
#define LIBPMX_ONLINE_LPORT_MAX 1024
/* Marks a panel port online (non-zero) or offline; 0, or -4 for a port out of range. */
LIBPMX_API int libpmx_port_set_lport_online(int32_t lport, int online);
/* 1 when the panel port is online, else 0 (a port out of range included). */
LIBPMX_API int libpmx_port_lport_is_online(int32_t lport);
/* The card-complete flags, as the completeness record reports them: the local card, and the
 * local line card. */
LIBPMX_API void libpmx_port_set_card_complete(int32_t local_card_complete, int32_t lc_complete);
LIBPMX_API int libpmx_port_local_card_is_complete(void);
LIBPMX_API int libpmx_port_lc_is_complete(void);

/* ---- setters (database change callbacks and the synchronous reads above) ---- */

/* info[0..4]: node_type, slot_id, card_type, node_id (below 1 stored as -1), sslot_id. */
LIBPMX_API void libpmx_cache_set_my_info(const int32_t *info);
LIBPMX_API void libpmx_cache_set_my_chss(int32_t dev_id);
/* Both arrays must be present (eight max ports, four alloc-mode words). */
LIBPMX_API void libpmx_cache_set_card_statt(int32_t max_lport, int32_t chip_num, const int32_t *max_port,
                                            const uint32_t *alloc_mode, int32_t intraband_chip_num,
                                            int32_t virtual_unit_num);

/* ---- synchronous reads of the identity records, stored into the cache ---- */

/* Reads the local identity (database 1, hash) and stores it with libpmx_cache_set_my_info, the
 * sub-slot as 0; info (five values, may be null) receives what was stored. 0 or the read's code. */
LIBPMX_API int libpmx_get_myinfo_from_dp_lib_myinfo(int32_t *info);
/* Reads the own chassis (database 1, hash) and stores its device id with
 * libpmx_cache_set_my_chss; dev_id (may be null) receives it. */
LIBPMX_API int libpmx_get_devid_from_dplib_mychss(int32_t *dev_id);

/* ---- identity getters: flag 0 answers from the cache; any other flag first reads the
 * database while the value is unknown ---- */

/* The six values, in the my-info order, from the cache. */
LIBPMX_API void libpmx_get_my_info(int32_t *out);
LIBPMX_API int32_t libpmx_get_my_node(int32_t flag);
LIBPMX_API int32_t libpmx_get_my_slot(int32_t flag);
LIBPMX_API int32_t libpmx_get_my_sslot(int32_t flag);
LIBPMX_API int32_t libpmx_get_my_node_type(int32_t flag);
LIBPMX_API int32_t libpmx_get_my_card_type(int32_t flag);
LIBPMX_API int32_t libpmx_get_my_dev_id(int32_t flag);
/* Virtual chip units of the local card type; 0 or an error code. */
LIBPMX_API int libpmx_get_my_virtual_unit_num(int32_t *num);

/* ---- card static attributes: plain names may read the database, _ext ones the cache only ---- */

LIBPMX_API int32_t libpmx_get_max_lport_id(void);
LIBPMX_API int32_t libpmx_get_max_lport_id_ext(void);
/* Chip units less the virtual ones. */
LIBPMX_API int32_t libpmx_get_local_chip_num(void);
LIBPMX_API int32_t libpmx_get_local_chip_num_ext(void);
LIBPMX_API int libpmx_get_max_port_by_unit(uint32_t unit, int32_t *max_port);
LIBPMX_API int libpmx_get_max_port_by_unit_ext(uint32_t unit, int32_t *max_port);
LIBPMX_API int libpmx_get_intraband_chip_num(int32_t *num);
LIBPMX_API int libpmx_get_intraband_chip_num_ext(int32_t *num);
/* The four alloc-mode words; read from the database while no chip count is cached. */
LIBPMX_API int libpmx_port_get_lc_modid_alloc_mode(uint32_t *mode4);
/* The worker of the blocking variants: reads the local card type's attributes and writes the
 * one of kind into dst (unit: the unit of kind 2). */
LIBPMX_API int libpmx_get_card_stattr_info(const uint32_t *unit, void *dst, int32_t kind);
/* The process-wide attribute record, as cached (a copy). */
LIBPMX_API void libpmx_get_card_statt(libpmx_card_stattr_t *out);

LIBPMX_END_DECLS

#endif /* LIBPMX_PORT_H */

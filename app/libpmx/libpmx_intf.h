/* Interface table: one node per interface with the identities of its port, chained by ifx and
 * by gphyid, under the interface-table lock. */
#ifndef LIBPMX_INTF_H
#define LIBPMX_INTF_H

#include <stdint.h>

#include "libpmx_export.h"
#include "libpmx_hash.h"

LIBPMX_BEGIN_DECLS

/* Number of chains of each index. */
#define LIBPMX_INTF_CHAINS 64

/* Interface info: what callers pass in and get back, in the order of the node log line. */
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

/* Sets up the two arrays of empty chains and the interface-table lock; 0 or -11. */
LIBPMX_API int libpmx_intf_init(void);

LIBPMX_END_DECLS

#endif /* LIBPMX_INTF_H */

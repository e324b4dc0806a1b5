/* Interface table: one node per interface with the identities of its port, chained by ifx and
 * by gphyid, under the interface-table lock. */
#ifndef LIBPMX_INTF_H
#define LIBPMX_INTF_H

#include <stdint.h>

#include "libpmx_export.h"
#include "libpmx_types.h"

LIBPMX_BEGIN_DECLS

/* Number of chains of each index. */
#define LIBPMX_INTF_CHAINS 64

/* Sets up the two arrays of empty chains and the interface-table lock; 0 or -11. */
LIBPMX_API int libpmx_intf_init(void);

LIBPMX_END_DECLS

#endif /* LIBPMX_INTF_H */

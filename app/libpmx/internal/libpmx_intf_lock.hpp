// The interface-table lock (internal): one process-wide reader-writer lock over the interface
// table and the two card-id caches (libpmx_card_addr_id, libpmx_subcard_type_id). First in the
// lock order.
#ifndef LIBPMX_INTF_LOCK_HPP
#define LIBPMX_INTF_LOCK_HPP

#include "libpmx_lock.hpp"
#include "libpmx_types.h"

namespace pmx
{

extern RwLock g_intf_lock;

// A copy of the first node (in chain order) whose gphyid is phyid, taken under the read lock:
// true when there is one. Logs nothing: the caller says what it looked for.
bool intf_node_by_phyid(uint32_t phyid, libpmx_intf_info_t *out);

} // namespace pmx

#endif // LIBPMX_INTF_LOCK_HPP

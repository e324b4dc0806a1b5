// The interface-table lock (internal): one process-wide reader-writer lock over the interface
// table and the two card-id caches (libpmx_card_addr_id, libpmx_subcard_type_id). First in the
// lock order.
#ifndef LIBPMX_INTF_LOCK_HPP
#define LIBPMX_INTF_LOCK_HPP

#include "libpmx_lock.hpp"

namespace pmx
{

extern RwLock g_intf_lock;

} // namespace pmx

#endif // LIBPMX_INTF_LOCK_HPP

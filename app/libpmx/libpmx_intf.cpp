// Interface table: the chains by ifx and by gphyid and the interface-table lock.
#define LIBPMX_LOG_SOURCE "app/libpmx/libpmx_intf"
#include "libpmx_log.h"

#include "libpmx_intf.h"

#include "libpmx_errno.h"
#include "libpmx_lock.hpp"

namespace
{

// Interface-table lock: guards both chain arrays below and the card-id caches
// (libpmx_card_addr_id, libpmx_subcard_type_id). First in the lock order.
pmx::RwLock g_intf_lock{"interface-table lock", pmx::LockRank::IntfTable};
libpmx_list_t g_ifx_chains[LIBPMX_INTF_CHAINS];
libpmx_list_t g_gphyid_chains[LIBPMX_INTF_CHAINS];

void list_init(libpmx_list_t *head)
{
    head->next = head;
    head->prev = head;
}

} // namespace

extern "C" int libpmx_intf_init(void)
{
    for (int i = 0; i < LIBPMX_INTF_CHAINS; ++i) {
        list_init(&g_ifx_chains[i]);
        list_init(&g_gphyid_chains[i]);
    }
    const int rc = g_intf_lock.init();
    if (rc != 0) {
        PMX_ERROR("interface-table lock init failed: %d", rc);
        return LIBPMX_E_FAIL;
    }
    return LIBPMX_OK;
}

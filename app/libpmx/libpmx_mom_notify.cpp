// Notify hooks and readiness waits: the ready word, the hook registry (one entry per notify type,
// its further registrations in a list), the dispatch, and the waits on card and sub-slot status.
#define LIBPMX_LOG_SOURCE "app/libpmx/libpmx_mom"
#include "libpmx_log.h"

#include <cstddef>
#include <cstdlib>
#include <new>
#include <vector>

#include "libpmx_dbg.h"
#include "libpmx_hash.h"
#include "libpmx_lock.hpp"
#include "libpmx_mod.h"
#include "libpmx_mom.h"
#include "libpmx_port.h"
#include "ssat.h"

uint32_t g_libpmx_notify_flag = 0;

namespace
{

using pmx::Access;
using pmx::Guard;

// Guards the hook registry. Hooks are never called with it held: a hook may register.
pmx::RwLock g_notify_lock("notify-hook", pmx::LockRank::NotifyHooks);

constexpr int kChipSlot = LIBPMX_NOTIFY_CHIPSLOT_EVENT;

// Bits that must all be set before a type is dispatched (type 8: none).
constexpr uint32_t kNeeds[] = {0, 0x2, 0x6, 0x2a, 0x32, 0x20, 0x40, 0x80, 0};

constexpr const char *kNames[] = {
    "",
    "LIBPMX_NOTIFY_DS_ALL_EVENT",
    "LIBPMX_NOITFY_CARD_EVENT",
    "LIBPMX_NOTIFY_LC_EVENT",
    "LIBPMX_NOTIFY_GLOBAL_EVENT",
    "LIBPMX_NOTIFY_LMODID_EVENT",
    "LIBPMX_NOTIFY_MYINFO_EVENT",
    "LIBPMX_NOTIFY_MYCHSS_EVENT",
    "LIBPMX_NOTIFY_CHIPSLOT_EVENT",
};

uint32_t ready_word()
{
    return __atomic_load_n(&g_libpmx_notify_flag, __ATOMIC_ACQUIRE);
}

// The ready bit of a type; types outside 0..31 have none.
uint32_t bit_of(int type)
{
    return type >= 0 && type < 32 ? 1u << type : 0u;
}

libpmx_notify_hook_node_t *node_of(libpmx_list_t *l)
{
    // Through void*: the node is as aligned as it was allocated, whatever char* says.
    void *node = reinterpret_cast<char *>(l) - offsetof(libpmx_notify_hook_node_t, list);
    return static_cast<libpmx_notify_hook_node_t *>(node);
}

// The hooks of an entry in registration order: its own, then each further registration. False
// when there is no memory for the copy.
bool hooks_of(libpmx_notify_hook_t *e, std::vector<libpmx_notify_hook_fn> *hooks)
{
    try {
        hooks->assign(1, e->hook);
        for (libpmx_list_t *l = e->list.next; l != &e->list; l = l->next) hooks->push_back(node_of(l)->hook);
        return true;
    } catch (const std::bad_alloc &) {
        return false;
    }
}

int append_registration(libpmx_notify_hook_t *e, int type, libpmx_notify_hook_fn hook)
{
    auto *n = static_cast<libpmx_notify_hook_node_t *>(std::calloc(1, sizeof(libpmx_notify_hook_node_t)));
    if (n == nullptr) {
        PMX_LOG_AS("libpmx_notify_reg", LIBPMX_ZLOG_ERROR, "no memory!");
        return LIBPMX_E_FAIL;
    }
    n->notify_type = static_cast<uint32_t>(type);
    n->hook = hook;
    n->list.prev = e->list.prev;
    n->list.next = &e->list;
    e->list.prev->next = &n->list;
    e->list.prev = &n->list;
    return LIBPMX_OK;
}

// Type 8 for a new registrant: every chip slot whose module ids are allocated, as an add.
int chipslot_add_event(void *entry, void *)
{
    auto *slot = static_cast<ce_pmx_fuid_info_per_slot_t *>(entry);
    if (slot == nullptr) {
        PMX_LOG_AS("libpmx_notify_reg", LIBPMX_ZLOG_DEBUG, "chipslot is null, hash table error!");
        return LIBPMX_OK;
    }
    if (slot->status != LIBPMX_MOD_TBL_ALLOC) return LIBPMX_OK;
    void *context = qv_mom_get_thread_local_global();
    if (context == nullptr) {
        PMX_LOG_AS("libpmx_notify_reg", LIBPMX_ZLOG_ERROR, "traverse chipslot get local glb fail!");
        return LIBPMX_E_FAIL; // no slot can be told in this thread: the walk stops
    }
    libpmx_notify_handle(context, kChipSlot, 0, slot);
    PMX_LOG_AS("libpmx_notify_reg", LIBPMX_ZLOG_INFO, "notify chipslot add event gslot:%d", slot->gslot);
    return LIBPMX_OK;
}

} // namespace

extern "C" int libpmx_notify_reg(int type, libpmx_notify_hook_fn hook)
{
    if (hook == nullptr) {
        PMX_ERROR("hook is null type:%d", type);
        return LIBPMX_E_FAIL;
    }
    PMX_INFO("register notify type:%d hook:%p", type, reinterpret_cast<void *>(hook));
    bool fresh = false;
    {
        Guard g(g_notify_lock, Access::Write);
        if (libpmx_notify_hook_t *e = libpmx_notify_hook_get(type); e != nullptr) {
            if (append_registration(e, type, hook) != LIBPMX_OK) return LIBPMX_E_FAIL;
        } else {
            libpmx_notify_hook_t rec{};
            rec.notify_type = static_cast<uint32_t>(type);
            rec.hook = hook;
            if (libpmx_notify_hook_create(&rec) == nullptr) {
                PMX_ERROR("register failed type:%d", type);
                return LIBPMX_E_FAIL;
            }
            fresh = true;
        }
    }
    libpmx_notify_check_ready(type);
    if (type == kChipSlot && fresh) libpmx_fuid_info_for_each(chipslot_add_event, nullptr);
    return LIBPMX_OK;
}

extern "C" const char *libpmx_notify_name(int type)
{
    return type >= 1 && type <= kChipSlot ? kNames[type] : "";
}

extern "C" int libpmx_notify_unreg(int type)
{
    PMX_ERROR("do not support this func now! type:%d", type);
    return LIBPMX_E_FAIL;
}

extern "C" int libpmx_notify_check_ready(int type)
{
    if ((ready_word() & bit_of(type)) == 0) {
        PMX_DEBUG("notify type:%d not ready!", type);
        return 0;
    }
    void *context = qv_mom_get_thread_local_global();
    if (context == nullptr)
        PMX_ERROR("get local glb fail!");
    else
        libpmx_notify_handle(context, type, 0, nullptr);
    return 1;
}

extern "C" void libpmx_notify_handle(void *context, int type, int event, void *arg)
{
    const uint32_t flag = ready_word();
    PMX_INFO("notify type:%d event:%d flag:0x%x ", type, event, flag);
    std::vector<libpmx_notify_hook_fn> hooks;
    {
        Guard g(g_notify_lock, type == kChipSlot ? Access::Read : Access::Write);
        libpmx_notify_hook_t *e = libpmx_notify_hook_get(type);
        if (e == nullptr) {
            PMX_WARN("type:%d all don't existed", type);
            return;
        }
        if (type < 1 || type > kChipSlot || (flag & kNeeds[type]) != kNeeds[type]) {
            PMX_WARN("type(%d) not ready, flag:0x%x", type, flag);
            return;
        }
        PMX_INFO("notify type:%d event:%d done", type, event);
        if (!hooks_of(e, &hooks)) {
            PMX_ERROR("no memory!");
            return;
        }
        // Types 1 to 7 run once: the entry goes before its hooks run, so a hook that registers
        // the same type again gets a fresh entry, dispatched at once.
        if (type != kChipSlot) libpmx_notify_hook_destroy(type);
    }
    for (libpmx_notify_hook_fn hook : hooks) {
        if (hook == nullptr) {
            PMX_ERROR("hook is null, something error type:%d", type);
            break;
        }
        hook(context, type, event, arg);
    }
}

namespace pmx
{

void notify_set_ready(int type)
{
    __atomic_fetch_or(&g_libpmx_notify_flag, bit_of(type), __ATOMIC_ACQ_REL);
}

bool notify_is_ready(int type)
{
    return (ready_word() & bit_of(type)) != 0;
}

// The all-data-sources path: the first type-1 hook only, its entry dropped with every further
// registration uncalled; -7 when none is registered, -11 for a null hook.
int notify_ds_all_first_hook(void *context)
{
    libpmx_notify_hook_fn hook = nullptr;
    {
        Guard g(g_notify_lock, Access::Write);
        libpmx_notify_hook_t *e = libpmx_notify_hook_get(LIBPMX_NOTIFY_DS_ALL_EVENT);
        if (e == nullptr) {
            PMX_LOG_AS("libpmx_all_ds_event_cb", LIBPMX_ZLOG_WARN, "ds all don't existed");
            return LIBPMX_E_NOT_FOUND;
        }
        hook = e->hook;
        if (hook == nullptr) {
            PMX_LOG_AS("libpmx_all_ds_event_cb", LIBPMX_ZLOG_ERROR, "hook is null, something error type:%d",
                       LIBPMX_NOTIFY_DS_ALL_EVENT);
            return LIBPMX_E_FAIL;
        }
        libpmx_notify_hook_destroy(LIBPMX_NOTIFY_DS_ALL_EVENT);
    }
    hook(context, LIBPMX_NOTIFY_DS_ALL_EVENT, 0, nullptr);
    return LIBPMX_OK;
}

} // namespace pmx

namespace
{

int count_hooks(void *entry, void *arg)
{
    auto *e = static_cast<libpmx_notify_hook_t *>(entry);
    auto *counts = static_cast<uint32_t *>(arg);
    uint32_t n = 1;
    for (libpmx_list_t *l = e->list.next; l != &e->list; l = l->next) ++n;
    if (e->notify_type <= static_cast<uint32_t>(kChipSlot)) counts[e->notify_type] += n;
    return 0;
}

int cmd_dump_notify(const char *)
{
    libpmx_dump_notify_ready();
    return LIBPMX_OK;
}

const libpmx_dbg_cmd_t kNotifyCommands[] = {
    {"dump_notify", "which notify types are ready, and the hooks still waiting", cmd_dump_notify},
};

} // namespace

extern "C" void libpmx_dump_notify_ready(void)
{
    const uint32_t flag = ready_word();
    ssat_printf("ready of notify:\n");
    for (int t = 1; t < kChipSlot; ++t) {
        if ((flag & bit_of(t)) != 0)
            ssat_printf("%-30s has ready\n", kNames[t]);
        else
            ssat_printf("%-30s no ready\n", kNames[t]);
    }
    uint32_t counts[kChipSlot + 1] = {};
    {
        Guard g(g_notify_lock, Access::Read);
        libpmx_notify_hook_entry_each_item_op(count_hooks, counts, 1);
    }
    ssat_printf("flag 0x%08x; hooks waiting by type:", flag);
    for (int t = 1; t <= kChipSlot; ++t) ssat_printf(" %d:%u", t, counts[t]);
    ssat_printf("\n");
}

namespace pmx
{

void notify_add_cmds()
{
    libpmx_dbg_add_cmds(kNotifyCommands, sizeof kNotifyCommands / sizeof kNotifyCommands[0]);
}

} // namespace pmx

// ---- readiness of cards and sub-slots ----

extern "C" int libpmx_check_sslot_ready(int dev, int slot, int key)
{
    (void)dev;
    (void)slot;
    return libpmx_port_card_port_ready_find(key, nullptr) == LIBPMX_OK ? 1 : 0;
}

extern "C" int libpmx_block_device_status(int dev, int slot, int sslot, int complete_status)
{
    PMX_NOTICE("libpmx_block_device_status, dev:%d slot:%d sslot:%d", dev, slot, sslot);
    int rc = LIBPMX_OK;
    switch (complete_status) {
    case 0:
    case 1:
        rc = libpmx_get_subcard_ready_with_block(dev, slot, sslot, complete_status);
        break;
    case 2:
        rc = libpmx_get_lc_ready_with_block();
        break;
    case 3:
        PMX_WARN("not support block all status");
        return LIBPMX_OK;
    default:
        PMX_WARN("invalid complete status");
        return LIBPMX_OK;
    }
    if (rc != LIBPMX_OK)
        PMX_ERROR("libpmx_block_device_status failed %d, dev:%d slot:%d sslot:%d complete_status:%d", rc, dev, slot,
                  sslot, complete_status);
    return rc;
}

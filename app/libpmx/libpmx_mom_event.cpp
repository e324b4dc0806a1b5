// Timed delivery of sub-slot, sub-interface and record events to registered modules. The change
// callbacks queue each event for every registration of its kind; a one-shot timer on the
// database event thread hands the queue to the module, coalesced by key.
#define LIBPMX_LOG_SOURCE "app/libpmx/libpmx_mom"
#include "libpmx_log.h"

#include <atomic>
#include <cinttypes>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "libpmx_dbg.h"
#include "libpmx_errno.h"
#include "libpmx_mom.h"
#include "libpmx_notify.hpp"
#include "libpmx_protoc_fmt.h"
#include "qv_mom.h"
#include "ssat.h"

namespace
{

constexpr uint32_t kMaxDelayMs = 60000;

// One queued event; a record event keeps its texts here.
struct Pending {
    libpmx_event_t ev;
    std::string record, key, text;
};

struct Registration {
    int id = 0;
    uint32_t kinds = 0;
    libpmx_event_fn fn = nullptr;
    void *arg = nullptr;
    uint32_t delay_ms = 0;
    std::vector<Pending> queue;
    std::unordered_map<std::string, size_t> latest; // key of an event -> its latest queue entry
    bool armed = false;
    uint64_t posted = 0, merged = 0, delivered = 0, deliveries = 0;
};

std::mutex g_mutex; // guards the registrations and their queues
std::map<int, std::unique_ptr<Registration>> g_regs;
int g_next_id = 1;
std::atomic<uint32_t> g_kinds{0}; // every kind some registration wants

// Held while a module's function runs, so an unregistration can wait for a delivery under way.
std::mutex g_deliver_mutex;
thread_local bool t_delivering = false;

// What makes two events "of one key".
std::string key_of(const Pending &p)
{
    const libpmx_event_t &e = p.ev;
    switch (e.kind) {
    case LIBPMX_EVENT_SSLOT:
        return "s|" + std::to_string(e.u.slot.slot) + "|" + std::to_string(e.u.slot.sslot);
    case LIBPMX_EVENT_CARD:
        return "c|" + std::to_string(e.u.slot.dev) + "|" + std::to_string(e.u.slot.slot) + "|" +
               std::to_string(e.u.slot.sslot);
    case LIBPMX_EVENT_SUB_AP:
        return "a|" + std::to_string(e.u.sub_ap.ifx);
    case LIBPMX_EVENT_SUB_ROUTE:
        return "r|" + std::to_string(e.u.sub_route.ifx);
    default:
        return "R|" + p.record + "|" + p.key;
    }
}

void recompute_kinds()
{
    uint32_t kinds = 0;
    for (const auto &r : g_regs) kinds |= r.second->kinds;
    g_kinds.store(kinds, std::memory_order_release);
}

// Adds one event to a registration's queue by the coalescing rules; caller holds g_mutex.
void enqueue(Registration &r, const Pending &p, const std::string &key)
{
    ++r.posted;
    if (auto it = r.latest.find(key); it != r.latest.end()) {
        Pending &last = r.queue[it->second];
        if (last.ev.op == LIBPMX_EVENT_SET && p.ev.op == LIBPMX_EVENT_SET) {
            last = p; // a burst of sets: the last value, at the place of the first
            ++r.merged;
            return;
        }
        if (last.ev.op == LIBPMX_EVENT_DEL && p.ev.op == LIBPMX_EVENT_DEL) {
            ++r.merged;
            return;
        }
    }
    r.latest[key] = r.queue.size();
    r.queue.push_back(p);
}

// Hands a registration's queue to its module, in the calling thread.
void deliver(int id)
{
    std::vector<Pending> batch;
    libpmx_event_fn fn = nullptr;
    void *arg = nullptr;
    {
        std::lock_guard<std::mutex> lock(g_mutex);
        auto it = g_regs.find(id);
        if (it == g_regs.end()) return;
        Registration &r = *it->second;
        r.armed = false;
        batch.swap(r.queue);
        r.latest.clear();
        if (batch.empty()) return;
        r.delivered += batch.size();
        ++r.deliveries;
        fn = r.fn;
        arg = r.arg;
    }
    std::vector<libpmx_event_t> events;
    events.reserve(batch.size());
    for (Pending &p : batch) {
        libpmx_event_t e = p.ev;
        if (e.kind == LIBPMX_EVENT_RECORD) {
            e.record = p.record.c_str();
            e.key = p.key.c_str();
            e.text = p.text.c_str();
        }
        events.push_back(e);
    }
    std::lock_guard<std::mutex> lock(g_deliver_mutex);
    t_delivering = true;
    fn(events.data(), static_cast<uint32_t>(events.size()), arg);
    t_delivering = false;
}

int on_timer(qv_thread_t *timer)
{
    deliver(static_cast<int>(reinterpret_cast<intptr_t>(qv_thread_arg(timer))));
    return 0;
}

void post(void *context, const Pending &p)
{
    qv_thread_master_t *master =
        context != nullptr ? static_cast<qv_mom_thread_global_t *>(context)->master : nullptr;
    const std::string key = key_of(p);
    std::vector<int> now; // registrations to deliver in this thread: no timer master here
    {
        std::lock_guard<std::mutex> lock(g_mutex);
        for (auto &entry : g_regs) {
            Registration &r = *entry.second;
            if ((r.kinds & p.ev.kind) == 0) continue;
            enqueue(r, p, key);
            if (r.armed) continue;
            const long usec = static_cast<long>(r.delay_ms % 1000) * 1000;
            if (master != nullptr &&
                qv_thread_add_timer_timeval(master, on_timer, reinterpret_cast<void *>(static_cast<intptr_t>(r.id)),
                                            static_cast<long>(r.delay_ms / 1000), usec) != nullptr)
                r.armed = true;
            else
                now.push_back(r.id);
        }
    }
    for (int id : now) deliver(id);
}

// Compact text of a message into out. A card type's attributes with every port run to some
// kilobytes; a record larger than the buffer is cut.
void compact(const ProtobufCMessage *m, std::string *out)
{
    constexpr size_t kTextMax = 64 * 1024;
    thread_local std::vector<char> buf(kTextMax);
    buf[0] = '\0';
    libpmx_protoc_format_message_to_buffer(buf.data(), buf.size(), LIBPMX_FMT_COMPACT, m);
    out->assign(buf.data());
}

const char *kind_name(uint32_t kind)
{
    switch (kind) {
    case LIBPMX_EVENT_SSLOT:
        return "sslot";
    case LIBPMX_EVENT_CARD:
        return "card";
    case LIBPMX_EVENT_SUB_AP:
        return "sub-ap";
    case LIBPMX_EVENT_SUB_ROUTE:
        return "sub-route";
    default:
        return "record";
    }
}

int cmd_dump_events(const char *)
{
    std::lock_guard<std::mutex> lock(g_mutex);
    ssat_printf("%-4s %-30s %8s %6s %10s %10s %10s %10s\n", "id", "kinds", "delay_ms", "queued", "posted", "merged",
                "delivered", "calls");
    for (const auto &entry : g_regs) {
        const Registration &r = *entry.second;
        std::string kinds;
        for (uint32_t k = LIBPMX_EVENT_SSLOT; k <= LIBPMX_EVENT_RECORD; k <<= 1)
            if ((r.kinds & k) != 0) kinds += (kinds.empty() ? "" : ",") + std::string(kind_name(k));
        ssat_printf("%-4d %-30s %8u %6zu %10" PRIu64 " %10" PRIu64 " %10" PRIu64 " %10" PRIu64 "\n", r.id,
                    kinds.c_str(), r.delay_ms, r.queue.size(), r.posted, r.merged, r.delivered, r.deliveries);
    }
    ssat_printf("total: %zu registrations\n", g_regs.size());
    return LIBPMX_OK;
}

const libpmx_dbg_cmd_t kEventCommands[] = {
    {"dump_events", "registrations of the timed event delivery and their counts", cmd_dump_events},
};

} // namespace

namespace pmx
{

bool event_wanted(uint32_t kinds)
{
    return (g_kinds.load(std::memory_order_acquire) & kinds) != 0;
}

void event_post_record(void *context, int op, const ProtobufCMessage *key, const ProtobufCMessage *record)
{
    if (record == nullptr || record->descriptor == nullptr) return;
    Pending p{};
    p.ev.kind = LIBPMX_EVENT_RECORD;
    p.ev.op = op == QV_MOM_EVENT_DEL ? LIBPMX_EVENT_DEL : LIBPMX_EVENT_SET;
    p.record = record->descriptor->name;
    if (key != nullptr && key != record && key->descriptor != record->descriptor) compact(key, &p.key);
    compact(record, &p.text);
    post(context, p);
}

void event_add_cmds()
{
    libpmx_dbg_add_cmds(kEventCommands, sizeof kEventCommands / sizeof kEventCommands[0]);
}

} // namespace pmx

extern "C" int libpmx_event_register(uint32_t kinds, libpmx_event_fn fn, void *arg, uint32_t delay_ms)
{
    kinds &= LIBPMX_EVENT_ALL;
    if (fn == nullptr || kinds == 0) {
        PMX_ERROR("nothing to register, kinds:0x%x fn:%p", kinds, reinterpret_cast<void *>(fn));
        return LIBPMX_E_FAIL;
    }
    if (delay_ms > kMaxDelayMs) {
        PMX_ERROR("delay %u ms is above %u ms, kinds:0x%x", delay_ms, kMaxDelayMs, kinds);
        return LIBPMX_E_INVAL;
    }
    auto r = std::make_unique<Registration>();
    r->kinds = kinds;
    r->fn = fn;
    r->arg = arg;
    r->delay_ms = delay_ms;
    std::lock_guard<std::mutex> lock(g_mutex);
    r->id = g_next_id++;
    const int id = r->id;
    g_regs.emplace(id, std::move(r));
    recompute_kinds();
    PMX_INFO("event registration %d: kinds 0x%x, delay %u ms", id, kinds, delay_ms);
    return id;
}

extern "C" int libpmx_event_unregister(int id)
{
    {
        std::lock_guard<std::mutex> lock(g_mutex);
        if (g_regs.erase(id) == 0) {
            PMX_WARN("no event registration %d", id);
            return LIBPMX_E_NOT_FOUND;
        }
        recompute_kinds();
    }
    // A delivery under way in another thread finishes before the module may go away.
    if (!t_delivering) std::lock_guard<std::mutex> wait(g_deliver_mutex);
    PMX_INFO("event registration %d dropped", id);
    return LIBPMX_OK;
}

extern "C" void libpmx_event_post(void *context, const libpmx_event_t *event)
{
    if (event == nullptr || event->kind == LIBPMX_EVENT_RECORD || !pmx::event_wanted(event->kind)) return;
    Pending p{};
    p.ev = *event;
    p.ev.record = p.ev.key = p.ev.text = nullptr;
    post(context, p);
}

extern "C" uint32_t libpmx_event_pending(void)
{
    std::lock_guard<std::mutex> lock(g_mutex);
    size_t n = 0;
    for (const auto &r : g_regs) n += r.second->queue.size();
    return static_cast<uint32_t>(n);
}

// Runs at load, before this file's own objects may be constructed: the registry starts empty by
// itself, so there is nothing to touch here.
extern "C" int libpmx_event_list_init(void)
{
    return LIBPMX_OK;
}

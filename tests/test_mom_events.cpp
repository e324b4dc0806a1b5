// Subscriptions, notify hooks and the timed event delivery on the embedded store. The ready bits
// live as long as the process: a test that needs the library started starts it when this process
// has not yet.
#include <gtest/gtest.h>

#include <dlfcn.h>
#include <pthread.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "embedded_db.h"
#include "libpmx.h"
#include "libpmx_dbg.h"
#include "libpmx_intf.h"
#include "libpmx_mod.h"
#include "libpmx_cap.h"
#include "libpmx_mom.h"
#include "libpmx_port.h"
#include "log_capture.h"
#include "p_dev.pb-c.h"
#include "temp_dir.h"
#include "u_intf.pb-c.h"

namespace
{

std::atomic<bool> g_fail_opt{false};

} // namespace

// Lets a test make the data source's option call fail; otherwise the client's own.
extern "C" __attribute__((visibility("default"))) int qv_mom_set_ds_opt(qv_mom_ab_t *ab, int ds, int opt, int value)
{
    if (g_fail_opt) return QV_MOM_E_SERVER;
    using Fn = int (*)(qv_mom_ab_t *, int, int, int);
    static const Fn real = reinterpret_cast<Fn>(dlsym(RTLD_NEXT, "qv_mom_set_ds_opt"));
    return real(ab, ds, opt, value);
}

namespace
{

constexpr int32_t kDev = 1, kSlot = 3;

// The ready word as another thread may be setting it.
uint32_t flag()
{
    return __atomic_load_n(&g_libpmx_notify_flag, __ATOMIC_ACQUIRE);
}

bool eventually(const std::function<bool()> &cond)
{
    for (int i = 0; i < 500; ++i) {
        if (cond()) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return cond();
}

// What the hooks saw, in order: "type/event" (and the gslot of a chip-slot dispatch).
std::mutex g_seen_mutex;
std::vector<std::string> g_seen;

void record(const std::string &what)
{
    std::lock_guard<std::mutex> lock(g_seen_mutex);
    g_seen.push_back(what);
}

std::vector<std::string> seen()
{
    std::lock_guard<std::mutex> lock(g_seen_mutex);
    return g_seen;
}

void clear_seen()
{
    std::lock_guard<std::mutex> lock(g_seen_mutex);
    g_seen.clear();
}

template <char Tag> void hook(void *, int type, int event, void *arg)
{
    std::string s = std::string(1, Tag) + std::to_string(type) + "/" + std::to_string(event);
    if (type == LIBPMX_NOTIFY_CHIPSLOT_EVENT && arg != nullptr)
        s += "@" + std::to_string(static_cast<ce_pmx_fuid_info_per_slot_t *>(arg)->gslot);
    record(s);
}

void put_my_info(EmbeddedDb &db)
{
    PDev__DpLibMyInfo r = P_DEV__DP_LIB_MY_INFO__INIT;
    r.dm_my_node_type = P_DEV__DM_NODE_TYPE_E__DM_TYPE_LC;
    r.slotid = kSlot;
    r.card_type = 12;
    r.card_nodeid = 0x0C000000 | kDev << 18 | kSlot << 8;
    db.put(&r.base);
    PDev__DpLibMyChss c = P_DEV__DP_LIB_MY_CHSS__INIT;
    c.devid = kDev;
    db.put(&c.base);
}

void put_ifx(EmbeddedDb &db, uint32_t ifx, uint32_t gphyid)
{
    UIntf__IfxIndex index = U_INTF__IFX_INDEX__INIT;
    index.ifx = ifx;
    UIntf__PmxIfxTbl r = U_INTF__PMX_IFX_TBL__INIT;
    r.index = &index;
    r.ifx = ifx;
    r.gphyid = gphyid;
    r.dev = kDev;
    r.slot = kSlot;
    db.put(&r.base, &index.base);
}

// A module table of dev/slot with one unit holding modid, as the change callback gets it.
struct ModTable {
    UIntf__ModIndex index = U_INTF__MOD_INDEX__INIT;
    UIntf__PmxFuidInfo unit = U_INTF__PMX_FUID_INFO__INIT;
    UIntf__PmxFuidInfo *units[1] = {&unit};
    uint32_t id;
    UIntf__PmxModTbl rec = U_INTF__PMX_MOD_TBL__INIT;
    ModTable(int32_t dev, int32_t slot, uint32_t modid) : id(modid)
    {
        index.devid = dev;
        index.slotid = slot;
        unit.n_id = 1;
        unit.id = &id;
        rec.index = &index;
        rec.status = U_INTF__SLOT_MODID_ST_E__MODID_VALID;
        rec.card_type = 12;
        rec.n_fuid_info = 1;
        rec.fuid_info = units;
    }
    const ProtobufCMessage *msg() const { return &rec.base; }
};

void *context()
{
    return qv_mom_get_thread_local_global();
}

std::string run_cmd(const char *line)
{
    testing::internal::CaptureStdout();
    libpmx_dbg_run_cmd(line);
    return testing::internal::GetCapturedStdout();
}

bool logged(const LogCapture &log, const std::string &part)
{
    for (const auto &l : log.lines())
        if (l.text.find(part) != std::string::npos) return true;
    return false;
}

// One process-wide store for every suite of this file.
EmbeddedDb &db()
{
    static EmbeddedDb instance("events");
    return instance;
}

// Starts the library on the store (its identity written first) unless this process did, and
// waits until the data source has loaded.
void ensure_started()
{
    static pmx_test::TempDir run;
    if (g_libpmx.init_done == 0) {
        setenv("PMX_RUN_DIR", run.path().c_str(), 1);
        put_my_info(db());
        ASSERT_EQ(libpmx_init(db().glb(), "events"), LIBPMX_OK);
    }
    ASSERT_TRUE(eventually([] { return (flag() & 0xc2) == 0xc2; }));
}

} // namespace

// The hooks' story from start-up on: it needs the ready word as the process began.
TEST(MomInit, FailedOptionThenStartUpThenHooksInOrderAndOnce)
{
    ASSERT_EQ(g_libpmx.init_done, 0) << "run this test in a process of its own";
    pmx_test::TempDir run;
    setenv("PMX_RUN_DIR", run.path().c_str(), 1);
    put_my_info(db());
    put_ifx(db(), 12, 0x07081a05);
    // Two type-1 hooks before the data source loads: only the first is served by its event.
    ASSERT_EQ(libpmx_notify_reg(LIBPMX_NOTIFY_DS_ALL_EVENT, hook<'a'>), 0);
    ASSERT_EQ(libpmx_notify_reg(LIBPMX_NOTIFY_DS_ALL_EVENT, hook<'b'>), 0);

    LogCapture log(5);
    g_fail_opt = true;
    EXPECT_EQ(libpmx_init(db().glb(), "events"), LIBPMX_E_FAIL);
    EXPECT_TRUE(log.has(LIBPMX_ZLOG_ERROR, "libpmx_mom_init fail, ret:-11"));
    EXPECT_TRUE(logged(log, "reg ds opt fail, ds_id:0 value:1 ret:-4"));
    EXPECT_FALSE(logged(log, "keys events keys_num:16"));
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    uint32_t phyid = 0;
    EXPECT_EQ(libpmx_get_phyid_by_ifx_ext(12, &phyid), LIBPMX_E_NOT_FOUND) << "no key event may be registered";
    EXPECT_EQ(flag(), 0u);

    g_fail_opt = false;
    log.clear();
    ASSERT_EQ(libpmx_init(db().glb(), "events"), LIBPMX_OK);
    EXPECT_TRUE(log.has(LIBPMX_ZLOG_INFO, "keys events keys_num:16"));
    EXPECT_TRUE(log.has(LIBPMX_ZLOG_INFO, "mom init success\n"));
    // The second source loads what the store holds, then says so.
    ASSERT_TRUE(eventually([] { return (flag() & 0x2) != 0; }));
    EXPECT_EQ(libpmx_get_phyid_by_ifx_ext(12, &phyid), 0);
    EXPECT_EQ(phyid, 0x07081a05u);
    EXPECT_TRUE(eventually([] { return (flag() & 0xc0) == 0xc0; })) << "identity and chassis";
    EXPECT_EQ(libpmx_get_my_slot(0), kSlot);
    EXPECT_EQ(libpmx_get_my_dev_id(0), kDev);
    EXPECT_EQ(seen(), std::vector<std::string>{"a1/0"});
    // The entry went with its first hook: a later type-1 registrant is served at once, and the
    // one appended before the event never.
    clear_seen();
    EXPECT_EQ(libpmx_notify_reg(LIBPMX_NOTIFY_DS_ALL_EVENT, hook<'c'>), 0);
    EXPECT_EQ(seen(), std::vector<std::string>{"c1/0"});

    // Registration: null hooks refused, no withdrawal.
    clear_seen();
    EXPECT_EQ(libpmx_notify_reg(LIBPMX_NOTIFY_DS_ALL_EVENT, nullptr), LIBPMX_E_FAIL);
    EXPECT_TRUE(log.has(LIBPMX_ZLOG_ERROR, "hook is null type:1"));
    EXPECT_EQ(libpmx_notify_hook_get(LIBPMX_NOTIFY_DS_ALL_EVENT), nullptr);
    EXPECT_EQ(libpmx_notify_unreg(LIBPMX_NOTIFY_MYINFO_EVENT), LIBPMX_E_FAIL);
    EXPECT_TRUE(log.has(LIBPMX_ZLOG_ERROR, "do not support this func now! type:6"));

    // The identity arrived already: a type-6 hook runs before the call returns, and once.
    EXPECT_EQ(libpmx_notify_reg(LIBPMX_NOTIFY_MYINFO_EVENT, hook<'m'>), 0);
    EXPECT_EQ(seen(), std::vector<std::string>{"m6/0"});
    PDev__DpLibMyInfo again = P_DEV__DP_LIB_MY_INFO__INIT;
    again.slotid = kSlot;
    libpmx_mom_my_info_cb(context(), QV_MOM_EVENT_ADD, &again.base, &again.base);
    EXPECT_EQ(seen().size(), 1u);

    // Types 2, 3 and 5 wait; two type-5 hooks run in their order.
    clear_seen();
    ASSERT_EQ(libpmx_notify_reg(LIBPMX_NOITFY_CARD_EVENT, hook<'k'>), 0);
    ASSERT_EQ(libpmx_notify_reg(LIBPMX_NOTIFY_LMODID_EVENT, hook<'x'>), 0);
    ASSERT_EQ(libpmx_notify_reg(LIBPMX_NOTIFY_LMODID_EVENT, hook<'y'>), 0);
    EXPECT_TRUE(log.has(LIBPMX_ZLOG_DEBUG, "notify type:5 not ready!"));
    EXPECT_TRUE(seen().empty());
    PDev__DpLibComplete done = P_DEV__DP_LIB_COMPLETE__INIT;
    done.local_card_is_complete = 1;
    done.local_lc_is_complete = 1;
    log.clear();
    libpmx_mom_dplib_complete_cb(context(), QV_MOM_EVENT_ADD, &done.base, &done.base);
    EXPECT_TRUE(log.has(LIBPMX_ZLOG_NOTICE, "local_card_is_complete:1  local_lc_is_complete:1  all_is_complete:0"));
    EXPECT_EQ(flag() & 0x1e, 0xeu);
    EXPECT_EQ(seen(), std::vector<std::string>{"k2/0"});
    // Bits 2 and 8 are set, 32 is not: type 3 waits for this card's module table.
    clear_seen();
    ASSERT_EQ(libpmx_notify_reg(LIBPMX_NOTIFY_LC_EVENT, hook<'l'>), 0);
    EXPECT_TRUE(log.has(LIBPMX_ZLOG_WARN, "type(3) not ready, flag:0xce"));
    EXPECT_TRUE(seen().empty());
    // Another card's table sets nothing but the chip-slot dispatch (no hook yet).
    ModTable other(kDev, 7, 40), mine(kDev, kSlot, 24);
    libpmx_mom_mod_tbl_cb(context(), QV_MOM_EVENT_ADD, other.msg(), other.msg());
    EXPECT_TRUE(seen().empty());
    EXPECT_TRUE(log.has(LIBPMX_ZLOG_WARN, "type:8 all don't existed"));
    libpmx_mom_mod_tbl_cb(context(), QV_MOM_EVENT_ADD, mine.msg(), mine.msg());
    EXPECT_EQ(seen(), (std::vector<std::string>{"x5/0", "y5/0", "l3/0"}));

    // Type 8: a new entry is told of every allocated chip slot at once; it stays for later
    // changes, a delete giving event 1. A second type-8 hook joins the entry silently.
    clear_seen();
    const int32_t g_other = libpmx_get_gslot_by_dev_slot_sslot(kDev, 7, 0);
    const int32_t g_mine = libpmx_get_gslot_by_dev_slot_sslot(kDev, kSlot, 0);
    ASSERT_EQ(libpmx_notify_reg(LIBPMX_NOTIFY_CHIPSLOT_EVENT, hook<'p'>), 0);
    EXPECT_EQ(seen(), (std::vector<std::string>{"p8/0@" + std::to_string(g_mine), "p8/0@" + std::to_string(g_other)}));
    EXPECT_TRUE(log.has(LIBPMX_ZLOG_INFO, "notify chipslot add event gslot:" + std::to_string(g_mine)));
    ASSERT_EQ(libpmx_notify_reg(LIBPMX_NOTIFY_CHIPSLOT_EVENT, hook<'q'>), 0);
    clear_seen();
    libpmx_mom_mod_tbl_cb(context(), QV_MOM_EVENT_DEL, other.msg(), other.msg());
    EXPECT_EQ(seen(), (std::vector<std::string>{"p8/1@" + std::to_string(g_other), "q8/1@" + std::to_string(g_other)}));

    // The dump names every type with its state.
    const std::string dump = run_cmd("dump_notify");
    EXPECT_NE(dump.find("ready of notify:\nLIBPMX_NOTIFY_DS_ALL_EVENT     has ready\n"
                        "LIBPMX_NOITFY_CARD_EVENT       has ready\n"
                        "LIBPMX_NOTIFY_LC_EVENT         has ready\n"
                        "LIBPMX_NOTIFY_GLOBAL_EVENT     no ready\n"),
              std::string::npos)
        << dump;
}

TEST(NotifyHooks, StatusWaitsAndSubSlotReadiness)
{
    ensure_started();
    LogCapture log(5);
    const auto t0 = std::chrono::steady_clock::now();
    EXPECT_EQ(libpmx_block_device_status(kDev, kSlot, 0, 3), 0);
    EXPECT_EQ(libpmx_block_device_status(kDev, kSlot, 0, 7), 0);
    EXPECT_LT(std::chrono::steady_clock::now() - t0, std::chrono::seconds(1));
    EXPECT_TRUE(log.has(LIBPMX_ZLOG_NOTICE, "libpmx_block_device_status, dev:1 slot:3 sslot:0"));
    EXPECT_TRUE(log.has(LIBPMX_ZLOG_WARN, "not support block all status"));
    EXPECT_TRUE(log.has(LIBPMX_ZLOG_WARN, "invalid complete status"));
    unsigned char status = 9;
    EXPECT_EQ(libpmx_get_dplib_complete_status(5, &status), LIBPMX_E_NOT_FOUND);
    EXPECT_EQ(status, 0);
    EXPECT_TRUE(log.has(LIBPMX_ZLOG_WARN, "invalid type:5"));

    // The local-card wait ends once another thread publishes the completeness record.
    std::thread writer([] {
        qv_mom_thread_attach(db().glb(), nullptr);
        std::this_thread::sleep_for(std::chrono::milliseconds(300));
        PDev__DpLibComplete c = P_DEV__DP_LIB_COMPLETE__INIT;
        c.local_card_is_complete = 1;
        EmbeddedDb::put_from(qv_mom_get_thread_local_global(), &c.base);
        qv_mom_thread_detach();
    });
    EXPECT_EQ(libpmx_block_device_status(kDev, kSlot, 0, 2), 0);
    writer.join();
    EXPECT_TRUE(eventually([] { return libpmx_port_local_card_is_complete() == 1; }));

    // The sub-slot readiness cache is keyed by the sub-slot alone.
    PDev__LocalCardInfoIndex idx = P_DEV__LOCAL_CARD_INFO_INDEX__INIT;
    idx.slotid = kSlot;
    idx.sslotid = 2;
    PDev__LocalCardPortReady ready = P_DEV__LOCAL_CARD_PORT_READY__INIT;
    ready.index = &idx;
    ready.local_port_ready = 1;
    EXPECT_EQ(libpmx_check_sslot_ready(kDev, kSlot, 2), 0);
    db().put(&ready.base, &idx.base);
    EXPECT_TRUE(eventually([] { return libpmx_check_sslot_ready(0, 0, 2) == 1; }));
    EXPECT_EQ(libpmx_check_sslot_ready(kDev, kSlot, 3), 0);
    EXPECT_EQ(libpmx_block_device_status(kDev, kSlot, 2, 1), 0);
}

namespace
{

struct Delivered {
    std::mutex mutex;
    std::vector<std::vector<std::string>> batches;
    std::vector<pthread_t> threads;
};

std::string text_of(const libpmx_event_t &e)
{
    const char *op = e.op == LIBPMX_EVENT_DEL ? "del" : "set";
    switch (e.kind) {
    case LIBPMX_EVENT_SUB_AP:
        return std::string(op) + " ap " + std::to_string(e.u.sub_ap.ifx) + "=" + std::to_string(e.u.sub_ap.evlan);
    case LIBPMX_EVENT_SSLOT:
        return std::string(op) + " sslot " + std::to_string(e.u.slot.sslot) + "=" + std::to_string(e.u.slot.ready);
    case LIBPMX_EVENT_RECORD:
        return std::string(op) + " " + e.record + " " + e.key;
    default:
        return std::string(op) + " kind " + std::to_string(e.kind);
    }
}

void collect(const libpmx_event_t *events, uint32_t n, void *arg)
{
    auto *d = static_cast<Delivered *>(arg);
    std::vector<std::string> batch;
    for (uint32_t i = 0; i < n; ++i) batch.push_back(text_of(events[i]));
    std::lock_guard<std::mutex> lock(d->mutex);
    d->batches.push_back(batch);
    d->threads.push_back(pthread_self());
}

libpmx_event_t sub_ap(int op, uint32_t ifx, uint32_t evlan)
{
    libpmx_event_t e{};
    e.kind = LIBPMX_EVENT_SUB_AP;
    e.op = op;
    e.u.sub_ap.ifx = ifx;
    e.u.sub_ap.evlan = evlan;
    return e;
}

} // namespace

TEST(EventDelivery, BurstsCoalesceByKeyDeletesStayAndOrderHolds)
{
    db(); // this thread attached, with a timer master of its own
    EXPECT_EQ(libpmx_event_register(LIBPMX_EVENT_SUB_AP, nullptr, nullptr, 0), LIBPMX_E_FAIL);
    EXPECT_EQ(libpmx_event_register(0, collect, nullptr, 0), LIBPMX_E_FAIL);
    EXPECT_EQ(libpmx_event_register(LIBPMX_EVENT_SUB_AP, collect, nullptr, 60001), LIBPMX_E_INVAL);

    // Posted from this thread: the timer is on this thread's master, so nothing is delivered
    // until its loop runs.
    Delivered d;
    const int id = libpmx_event_register(LIBPMX_EVENT_SUB_AP | LIBPMX_EVENT_SSLOT, collect, &d, 20);
    ASSERT_GT(id, 0);
    const libpmx_event_t burst[] = {
        sub_ap(LIBPMX_EVENT_SET, 1, 10), sub_ap(LIBPMX_EVENT_SET, 2, 20), sub_ap(LIBPMX_EVENT_SET, 1, 11),
        sub_ap(LIBPMX_EVENT_DEL, 1, 11), sub_ap(LIBPMX_EVENT_SET, 1, 12), sub_ap(LIBPMX_EVENT_SET, 1, 13),
        sub_ap(LIBPMX_EVENT_DEL, 2, 20), sub_ap(LIBPMX_EVENT_DEL, 2, 20),
    };
    for (const libpmx_event_t &e : burst) libpmx_event_post(context(), &e);
    EXPECT_EQ(libpmx_event_pending(), 5u);
    EXPECT_TRUE(d.batches.empty());
    auto *ctx = static_cast<qv_mom_thread_global_t *>(context());
    const timeval limit{0, 200000};
    qv_thread_master_run_for(ctx->master, &limit);
    ASSERT_EQ(d.batches.size(), 1u);
    EXPECT_EQ(d.batches[0], (std::vector<std::string>{"set ap 1=11", "set ap 2=20", "del ap 1=11", "set ap 1=13",
                                                      "del ap 2=20"}));
    EXPECT_EQ(libpmx_event_pending(), 0u);
    // A thread without a timer master gets its events at once.
    std::thread([&d] {
        const libpmx_event_t e = sub_ap(LIBPMX_EVENT_SET, 5, 50);
        libpmx_event_post(nullptr, &e);
    }).join();
    ASSERT_EQ(d.batches.size(), 2u);
    EXPECT_EQ(d.batches[1], std::vector<std::string>{"set ap 5=50"});
    // Kinds nobody asked for are not queued.
    libpmx_event_t card{};
    card.kind = LIBPMX_EVENT_CARD;
    libpmx_event_post(nullptr, &card);
    EXPECT_EQ(d.batches.size(), 2u);
    EXPECT_EQ(libpmx_event_unregister(id), 0);
    EXPECT_EQ(libpmx_event_unregister(id), LIBPMX_E_NOT_FOUND);
}

TEST(EventDelivery, DatabaseChangesReachTheModuleOnTheEventThread)
{
    ensure_started();
    Delivered d;
    const int id = libpmx_event_register(LIBPMX_EVENT_SUB_AP | LIBPMX_EVENT_RECORD, collect, &d, 10);
    ASSERT_GT(id, 0);
    EXPECT_NE(run_cmd("dump_events").find("sub-ap,record"), std::string::npos);
    UIntf__IfxIndex index = U_INTF__IFX_INDEX__INIT;
    index.ifx = 900;
    UIntf__PmxSubApIntf ap = U_INTF__PMX_SUB_AP_INTF__INIT;
    ap.index = &index;
    ap.phyid = 0x07081a05;
    ap.evlan = 77;
    db().put(&ap.base, &index.base);
    ASSERT_TRUE(eventually([&d] {
        std::lock_guard<std::mutex> lock(d.mutex);
        size_t n = 0;
        for (const auto &b : d.batches) n += b.size();
        return n >= 2;
    }));
    // Dropped first: it waits for a delivery under way, which takes d.mutex.
    EXPECT_EQ(libpmx_event_unregister(id), 0);
    std::lock_guard<std::mutex> lock(d.mutex);
    std::vector<std::string> all;
    for (const auto &b : d.batches) all.insert(all.end(), b.begin(), b.end());
    EXPECT_EQ(all, (std::vector<std::string>{"set u_intf.pmx_sub_ap_intf UIntf__IfxIndex-{ifx:900}", "set ap 900=77"}));
    for (pthread_t t : d.threads) EXPECT_FALSE(pthread_equal(t, pthread_self()));
    libpmx_sub_ap_info_t cached{};
    EXPECT_EQ(libpmx_get_sub_ap_info_by_phyid_detail(20u << 24 | 900, &cached, 0), 0);
    EXPECT_EQ(cached.evlan, 77u);
}

namespace
{

#define CHECK_OR_FAIL(cond)                                                                        \
    do {                                                                                           \
        if (!(cond)) {                                                                             \
            std::fprintf(stderr, "check failed: %s\n", #cond);                                    \
            return false;                                                                          \
        }                                                                                          \
    } while (0)

// Before the identity: this card's module table, two sub-slots' port readiness (this card's and
// another card's of the same sub-slot), the card type's attributes. The identity then says which
// are this card's. Needs a process that has not met the identity.
bool records_before_the_identity()
{
    void *ctx = context();
    CHECK_OR_FAIL(libpmx_get_my_slot(0) <= 0);
    ModTable mine(kDev, kSlot, 24);
    libpmx_mom_mod_tbl_cb(ctx, QV_MOM_EVENT_ADD, mine.msg(), mine.msg());
    CHECK_OR_FAIL(libpmx_notify_reg(LIBPMX_NOTIFY_LMODID_EVENT, hook<'z'>) == 0);
    CHECK_OR_FAIL(seen().empty());

    PDev__LocalCardInfoIndex own_idx = P_DEV__LOCAL_CARD_INFO_INDEX__INIT, other_idx = own_idx;
    own_idx.slotid = kSlot;
    own_idx.sslotid = 1;
    other_idx.slotid = kSlot + 1;
    other_idx.sslotid = 1;
    PDev__LocalCardPortReady own = P_DEV__LOCAL_CARD_PORT_READY__INIT, other = own;
    own.index = &own_idx;
    own.local_port_ready = 1;
    own.card_type = 3;
    other.index = &other_idx;
    other.card_type = 99;
    libpmx_mom_local_card_port_ready_cb(ctx, QV_MOM_EVENT_ADD, &own.base, &own.base);
    libpmx_mom_local_card_port_ready_cb(ctx, QV_MOM_EVENT_ADD, &other.base, &other.base);
    CHECK_OR_FAIL(libpmx_check_sslot_ready(0, 0, 1) == 0);

    PDev__DmCardStattrIndex type_idx = P_DEV__DM_CARD_STATTR_INDEX__INIT;
    type_idx.type = 12;
    PDev__DmCardStattrT attrs; // (the INIT macros of string fields do not build warning-free)
    protobuf_c_message_init(&p_dev__dm_card_stattr_t__descriptor, &attrs);
    attrs.index = &type_idx;
    attrs.chip_num = 3;
    libpmx_mom_card_stattr_cb(ctx, QV_MOM_EVENT_ADD, &type_idx.base, &attrs.base);
    CHECK_OR_FAIL(libpmx_get_local_chip_num_ext() == -1);

    PDev__DpLibMyInfo me = P_DEV__DP_LIB_MY_INFO__INIT;
    me.dm_my_node_type = P_DEV__DM_NODE_TYPE_E__DM_TYPE_LC;
    me.slotid = kSlot;
    me.card_type = 12;
    me.card_nodeid = 0x0C000000 | kDev << 18 | kSlot << 8;
    PDev__DpLibMyChss chss = P_DEV__DP_LIB_MY_CHSS__INIT;
    chss.devid = kDev;
    libpmx_mom_my_chss_cb(ctx, QV_MOM_EVENT_ADD, &chss.base, &chss.base);
    libpmx_mom_my_info_cb(ctx, QV_MOM_EVENT_ADD, &me.base, &me.base);
    CHECK_OR_FAIL(seen() == std::vector<std::string>{"z5/0"});
    libpmx_local_card_port_ready_t ready{};
    CHECK_OR_FAIL(libpmx_port_card_port_ready_find(1, &ready) == 0);
    CHECK_OR_FAIL(ready.card_type == 3 && ready.ready == 1);
    CHECK_OR_FAIL(libpmx_get_local_chip_num_ext() == 3);
    return true;
}

} // namespace

// In a child forked from a process that has not met the identity (ctest runs each test in a
// process of its own; a run of the whole program has met it by now). A forked child, not one
// started again: under an emulator the program cannot start itself.
TEST(NotifyHooks, RecordsThatComeBeforeTheIdentityCountOnceItArrives)
{
    if (libpmx_get_my_slot(0) > 0) GTEST_SKIP() << "this process has met the identity already";
    GTEST_FLAG_SET(death_test_style, "fast");
    EXPECT_EXIT(std::exit(records_before_the_identity() ? 0 : 1), testing::ExitedWithCode(0), "");
}

namespace
{

void put_sub_ap(uint32_t ifx, uint32_t evlan)
{
    UIntf__IfxIndex index = U_INTF__IFX_INDEX__INIT;
    index.ifx = ifx;
    UIntf__PmxSubApIntf ap = U_INTF__PMX_SUB_AP_INTF__INIT;
    ap.index = &index;
    ap.phyid = 0x07081a05;
    ap.evlan = evlan;
    db().put(&ap.base, &index.base);
}

// The evlan the sub-AP cache holds for ifx, 0 when it holds none.
uint32_t cached_evlan(uint32_t ifx)
{
    libpmx_sub_ap_info_t cached{};
    return libpmx_get_sub_ap_info_by_phyid_detail(20u << 24 | ifx, &cached, 0) == 0 ? cached.evlan : 0;
}

} // namespace

TEST(ChangeHistory, AddChangeDeleteNewestFirstWithTheirOldValuesAndFilters)
{
    ensure_started();
    put_sub_ap(901, 1);
    ASSERT_TRUE(eventually([] { return cached_evlan(901) == 1; }));
    put_sub_ap(901, 2);
    ASSERT_TRUE(eventually([] { return cached_evlan(901) == 2; }));
    UIntf__IfxIndex index = U_INTF__IFX_INDEX__INIT;
    index.ifx = 901;
    const qv_mom_key_t key{&index.base, &u_intf__pmx_sub_ap_intf__descriptor};
    ASSERT_EQ(qv_mom_del_sync(context(), LIBPMX_DB_PMX, &key), QV_MOM_OK);
    ASSERT_TRUE(eventually([] { return cached_evlan(901) == 0; }));
    put_sub_ap(9010, 5); // another key the filter must leave out
    ASSERT_TRUE(eventually([] { return cached_evlan(9010) == 5; }));

    const std::string text = run_cmd("history key=ifx:901}");
    const size_t del = text.find("delete u_intf.pmx_sub_ap_intf UIntf__IfxIndex-{ifx:901}");
    const size_t change = text.find("change u_intf.pmx_sub_ap_intf UIntf__IfxIndex-{ifx:901}");
    const size_t add = text.find("add    u_intf.pmx_sub_ap_intf UIntf__IfxIndex-{ifx:901}");
    ASSERT_NE(del, std::string::npos) << text;
    ASSERT_NE(change, std::string::npos) << text;
    ASSERT_NE(add, std::string::npos) << text;
    EXPECT_LT(del, change);
    EXPECT_LT(change, add) << "newest first";
    EXPECT_EQ(text.find("ifx:9010"), std::string::npos) << text;
    // The delete took value 2 away; the change went from 1 to 2; the add has no old value.
    const std::string del_part = text.substr(del, change - del), change_part = text.substr(change, add - change);
    EXPECT_NE(del_part.find("    old "), std::string::npos);
    EXPECT_NE(del_part.find("evlan:2"), std::string::npos) << del_part;
    EXPECT_EQ(del_part.find("    new "), std::string::npos);
    EXPECT_LT(change_part.find("evlan:1"), change_part.find("evlan:2")) << change_part;
    EXPECT_EQ(text.substr(add).find("    old "), std::string::npos);
    EXPECT_NE(text.find("3 shown of "), std::string::npos) << text;

    const std::string json = run_cmd("history json=1 count=2 key=ifx:901}");
    EXPECT_EQ(json.rfind("{\"table\":\"history\",\"rows\":[{\"seq\":", 0), 0u) << json;
    EXPECT_NE(json.find("\"op\":\"delete\",\"record\":\"u_intf.pmx_sub_ap_intf\",\"key\":\"UIntf__IfxIndex-{ifx:901}\""),
              std::string::npos)
        << json;
    EXPECT_NE(json.find("],\"total\":2}"), std::string::npos) << json;
    EXPECT_NE(run_cmd("history record=pmx_sub_ap count=1").find("1 shown of "), std::string::npos);
    EXPECT_NE(run_cmd("history count=0").find("usage: history"), std::string::npos);
}

TEST(ChangeHistory, RingKeepsTheNewestAndForgetsTheOldValuesItDropped)
{
    ensure_started();
    constexpr uint32_t kFirst = 20000, kCount = 4200; // more than the ring's 4096 entries
    for (uint32_t i = 0; i < kCount; ++i) put_sub_ap(kFirst + i, 7);
    ASSERT_TRUE(eventually([] { return cached_evlan(kFirst + kCount - 1) == 7; }));
    put_sub_ap(kFirst, 8);
    ASSERT_TRUE(eventually([] { return cached_evlan(kFirst) == 8; }));
    const std::string text = run_cmd("history count=1");
    EXPECT_NE(text.find("change u_intf.pmx_sub_ap_intf UIntf__IfxIndex-{ifx:20000}"), std::string::npos) << text;
    EXPECT_NE(text.find("old (not kept: older than the history)"), std::string::npos) << text;
    EXPECT_NE(text.find("1 shown of 4096 held (at most 4096 entries"), std::string::npos) << text;
    // A key still in the ring shows where it came from.
    put_sub_ap(kFirst + kCount - 1, 9);
    ASSERT_TRUE(eventually([] { return cached_evlan(kFirst + kCount - 1) == 9; }));
    const std::string last = run_cmd("history count=1");
    EXPECT_LT(last.find("evlan:7"), last.find("evlan:9")) << last;
}

namespace
{

// The row of one record in `stats json=1`, from its name to the end of the row.
std::string record_row(const std::string &json, const std::string &record)
{
    const size_t at = json.find("{\"record\":\"" + record + "\"");
    return at == std::string::npos ? std::string() : json.substr(at, json.find('}', at) - at + 1);
}

} // namespace

TEST(Stats, CountLookupsFallBacksWaitsAndAppliedChangesOfEveryThread)
{
    ensure_started();
    put_ifx(db(), 700, 0x07081a07);
    uint32_t phy = 0;
    ASSERT_TRUE(eventually([&phy] { return libpmx_get_phyid_by_ifx_ext(700, &phy) == 0; }));
    libpmx_stats_reset();
    constexpr uint32_t kIfxCache = 0; // "interface by ifx", the first cache
    for (int i = 0; i < 3; ++i) EXPECT_EQ(libpmx_get_phyid_by_ifx_ext(700, &phy), 0);
    for (int i = 0; i < 2; ++i) EXPECT_EQ(libpmx_get_phyid_by_ifx_ext(701, &phy), LIBPMX_E_NOT_FOUND);
    EXPECT_EQ(libpmx_stats_cache_count(kIfxCache, 0), 5);
    EXPECT_EQ(libpmx_stats_cache_count(kIfxCache, 1), 2);
    // Threads that have ended still count.
    std::vector<std::thread> readers;
    for (int t = 0; t < 2; ++t)
        readers.emplace_back([] {
            uint32_t p = 0;
            for (int i = 0; i < 100; ++i) libpmx_get_phyid_by_ifx_ext(700, &p);
        });
    for (auto &r : readers) r.join();
    EXPECT_EQ(libpmx_stats_cache_count(kIfxCache, 0), 205);
    libpmx_stats_enable(0);
    for (int i = 0; i < 10; ++i) libpmx_get_phyid_by_ifx_ext(700, &phy);
    EXPECT_EQ(libpmx_stats_cache_count(kIfxCache, 0), 205) << "counting is off";
    libpmx_stats_enable(1);
    EXPECT_EQ(libpmx_stats_cache_count(kIfxCache, 2), -1);

    // A fall-back that finds nothing, a wait that ends when the record comes, an applied add.
    EXPECT_NE(libpmx_get_phyid_by_ifx_ext_db(702, &phy), 0);
    std::thread writer([] {
        std::this_thread::sleep_for(std::chrono::milliseconds(300));
        void *ctx = qv_mom_thread_attach(db().glb(), nullptr);
        UIntf__IfxIndex index = U_INTF__IFX_INDEX__INIT;
        index.ifx = 703;
        UIntf__PmxIfxTbl r = U_INTF__PMX_IFX_TBL__INIT;
        r.index = &index;
        r.ifx = 703;
        r.gphyid = 0x07081a09;
        EmbeddedDb::put_from(ctx, &r.base, &index.base);
        qv_mom_thread_detach();
    });
    libpmx_cap_set_block_times(50); // a lost record fails in 5 s, not in 5 minutes
    EXPECT_EQ(libpmx_get_phyid_by_ifx(703, &phy), 0);
    writer.join();
    libpmx_cap_set_block_times(LIBPMX_DEFAULT_BLOCK_TIMES);
    ASSERT_TRUE(eventually([&phy] { return libpmx_get_phyid_by_ifx_ext(703, &phy) == 0; }));
    const std::string json = run_cmd("stats json=1");
    const std::string ifx_row = record_row(json, "u_intf.pmx_ifx_tbl");
    // Two reads: 702 (not found), and 703 by one read that waited for it.
    EXPECT_NE(ifx_row.find("\"db_reads\":2,\"db_failures\":1,\"waits\":1,"), std::string::npos) << ifx_row;
    const size_t us = ifx_row.find("\"wait_us\":");
    ASSERT_NE(us, std::string::npos) << ifx_row;
    EXPECT_GE(std::atoll(ifx_row.c_str() + us + 10), 200000) << ifx_row;
    EXPECT_NE(ifx_row.find("\"applied_adds\":1,"), std::string::npos) << ifx_row;
    EXPECT_NE(json.find("{\"cache\":0,\"name\":\"interface by ifx\",\"lookups\":"), std::string::npos) << json;

    const std::string text = run_cmd("stats");
    EXPECT_NE(text.find("interface by ifx"), std::string::npos) << text;
    EXPECT_NE(text.find("counting on"), std::string::npos) << text;
    EXPECT_NE(run_cmd("stats reset=1").find("statistics reset"), std::string::npos);
    EXPECT_EQ(libpmx_stats_cache_count(kIfxCache, 0), 0);
    EXPECT_NE(run_cmd("stats bogus=1").find("usage: stats"), std::string::npos);
}

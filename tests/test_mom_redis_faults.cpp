// The database client on Redis when the server misbehaves: not up at start, killed and started
// again empty, too fast for a slow follower, or dropping it for a full output buffer. The
// follower keeps its own map of the records from the key events; it must end equal to what the
// server holds, key by key and value by value, without a restart.
#include <gtest/gtest.h>
#include <hiredis/hiredis.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <map>
#include <mutex>
#include <string>
#include <thread>

#include "log_capture.h"
#include "qv_mom.h"
#include "redis_server.h"
#include "time_scale.h"
#include "u_intf.pb-c.h"

namespace {

constexpr int kDb = 26;
using Records = std::map<uint32_t, std::string>; // interface index -> packed record

std::string pack(const ProtobufCMessage *m)
{
    std::string out(protobuf_c_message_get_packed_size(m), '\0');
    protobuf_c_message_pack(m, reinterpret_cast<uint8_t *>(out.data()));
    return out;
}

// The follower's view, filled on the client's event thread (key-event callbacks carry no
// argument, so there is one per process).
struct Mirror {
    std::mutex mutex;
    std::condition_variable cv;
    Records records;
    int all_loaded = 0;
    std::atomic<int> stall_ms{0}; // the next event blocks the event thread this long

    template <class Pred> bool wait(Pred done, std::chrono::milliseconds limit = std::chrono::seconds(10))
    {
        std::unique_lock<std::mutex> lock(mutex);
        return cv.wait_for(lock, pmx_test::at_most(limit), [&] { return done(); });
    }
} g_mirror;

void on_record(void *, int event, const ProtobufCMessage *key, const ProtobufCMessage *record)
{
    const uint32_t ifx = reinterpret_cast<const UIntf__IfxIndex *>(key)->ifx;
    {
        std::lock_guard<std::mutex> lock(g_mirror.mutex);
        if (event == QV_MOM_EVENT_ADD)
            g_mirror.records[ifx] = pack(record);
        else
            g_mirror.records.erase(ifx);
    }
    g_mirror.cv.notify_all();
    std::this_thread::sleep_for(std::chrono::milliseconds(g_mirror.stall_ms.exchange(0)));
}

void on_loaded(void *, int, int, void *)
{
    std::lock_guard<std::mutex> lock(g_mirror.mutex);
    ++g_mirror.all_loaded;
    g_mirror.cv.notify_all();
}

class MomRedisFaults : public ::testing::Test {
protected:
    void TearDown() override
    {
        if (ctx != nullptr) qv_mom_thread_detach();
        if (glb != nullptr) qv_mom_glb_destroy(glb);
        std::lock_guard<std::mutex> lock(g_mirror.mutex);
        g_mirror.records.clear();
        g_mirror.all_loaded = 0;
        g_mirror.stall_ms = 0;
    }

    // Writes interface record ifx with a value that depends on round, or deletes it, and keeps
    // what the server should now hold in `held`.
    int put(uint32_t ifx, int round, bool erase = false)
    {
        UIntf__IfxIndex idx = U_INTF__IFX_INDEX__INIT;
        idx.ifx = ifx;
        UIntf__PmxIfxTbl rec = U_INTF__PMX_IFX_TBL__INIT;
        rec.index = &idx;
        rec.gphyid = ifx * 7 + static_cast<uint32_t>(round);
        qv_mom_key_t key{&idx.base, &u_intf__pmx_ifx_tbl__descriptor};
        held.erase(ifx);
        if (!erase) held[ifx] = pack(&rec.base);
        return erase ? qv_mom_del_sync(ctx, kDb, &key) : qv_mom_set_sync(ctx, kDb, &key, &rec.base);
    }
    int erase(uint32_t ifx) { return put(ifx, 0, true); }

    // The follower's map ends equal to what the server holds, key by key and value by value.
    void expect_converged()
    {
        EXPECT_TRUE(g_mirror.wait([&] { return g_mirror.records == held; })) << "the server has " << held.size();
    }
    bool logged(const LogCapture &log, int level, const char *text, const char *not_text = nullptr) const
    {
        for (const auto &l : log.lines())
            if (l.level == level && l.text.find(text) != std::string::npos &&
                l.text.find(server.url()) != std::string::npos &&
                (not_text == nullptr || l.text.find(not_text) == std::string::npos))
                return true;
        return false;
    }

    pmx_test::RedisServer server;
    Records held;
    qv_mom_glb_t *glb = nullptr;
    qv_mom_thread_global_t *ctx = nullptr;
};

TEST_F(MomRedisFaults, FollowerConvergesWhateverTheServerDoes)
{
    LogCapture log;
    // The follower's back-off, read when the store is opened: long enough that the first writes
    // after the kill land before it is back.
    setenv("PMX_DB_BACKOFF_MS", "300", 1);
    char err[256] = "";
    glb = qv_mom_glb_create(server.url().c_str(), err, sizeof err);
    ASSERT_NE(glb, nullptr) << err;
    ctx = qv_mom_thread_attach(glb, nullptr);
    ASSERT_NE(ctx, nullptr);
    qv_mom_ab_t *ab = qv_mom_ab_init(glb, "faults", nullptr, nullptr);
    ASSERT_NE(ab, nullptr);
    qv_mom_key_desc_t desc{&u_intf__ifx_index__descriptor, &u_intf__pmx_ifx_tbl__descriptor, "faults", kDb};
    int ds = qv_mom_reg_ds(ab, &desc, 1, nullptr, 0);
    ASSERT_GE(ds, 0);
    ASSERT_EQ(qv_mom_reg_single_ds_event(glb, ds, QV_MOM_DS_EVENT_ALL_LOADED, on_loaded, nullptr), 0);
    ASSERT_EQ(qv_mom_reg_key_event(glb, &desc, QV_MOM_EVENT_ADD, on_record), 0);
    ASSERT_EQ(qv_mom_reg_key_event(glb, &desc, QV_MOM_EVENT_DEL, on_record), 0);

    UIntf__IfxIndex idx = U_INTF__IFX_INDEX__INIT;
    qv_mom_key_t key{&idx.base, &u_intf__pmx_ifx_tbl__descriptor};
    int error = 0;
    EXPECT_EQ(qv_mom_get_sync(ctx, kDb, &key, &error), nullptr);
    EXPECT_EQ(error, QV_MOM_E_CONN);
    // Named by the read itself, not only by the event thread's feed.
    EXPECT_TRUE(logged(log, QV_ZLOG_LEVEL_ERROR, "No such file or directory", "feed"));
    // Not up at start: nothing loaded until it comes.
    EXPECT_FALSE(g_mirror.wait([] { return g_mirror.all_loaded > 0; }, std::chrono::milliseconds(200)));
    ASSERT_TRUE(server.start()) << server.error();
    for (uint32_t ifx = 1; ifx <= 100; ++ifx) ASSERT_EQ(put(ifx, 1), QV_MOM_OK);
    expect_converged();

    // Killed and started again empty. Before the follower is back: the same keys with new
    // values, fewer of them, and new keys; after: changes, deletes and adds through the feed.
    ASSERT_TRUE(server.kill9()) << server.error();
    ASSERT_TRUE(server.start()) << server.error();
    held.clear();
    for (uint32_t ifx = 1; ifx <= 60; ++ifx) ASSERT_EQ(put(ifx, 2), QV_MOM_OK);
    for (uint32_t ifx = 200; ifx < 250; ++ifx) ASSERT_EQ(put(ifx, 2), QV_MOM_OK);
    ASSERT_TRUE(g_mirror.wait([] { return g_mirror.records.size() == 110 && g_mirror.records.count(249); }));
    for (uint32_t ifx = 1; ifx <= 20; ++ifx) ASSERT_EQ(put(ifx, 3), QV_MOM_OK);
    for (uint32_t ifx = 200; ifx < 220; ++ifx) ASSERT_EQ(erase(ifx), QV_MOM_OK);
    for (uint32_t ifx = 300; ifx < 320; ++ifx) ASSERT_EQ(put(ifx, 3), QV_MOM_OK);
    expect_converged();

    // A burst while the follower stalls: with no output buffer limit every record comes.
    g_mirror.stall_ms = 500;
    for (uint32_t ifx = 1; ifx <= 3000; ++ifx) ASSERT_EQ(put(ifx, 4), QV_MOM_OK);
    for (uint32_t ifx = 1; ifx <= 3000; ifx += 3) ASSERT_EQ(put(ifx, 5), QV_MOM_OK);
    for (uint32_t ifx = 2; ifx <= 3000; ifx += 3) ASSERT_EQ(erase(ifx), QV_MOM_OK);
    expect_converged();
    // With a small one the server drops the follower's feed, and it catches up.
    redisContext *c = redisConnectUnix(server.socket_path().c_str());
    ASSERT_TRUE(c != nullptr && c->err == 0);
    freeReplyObject(redisCommand(c, "CONFIG SET client-output-buffer-limit %s", "pubsub 32kb 0 0"));
    redisFree(c);
    g_mirror.stall_ms = 500;
    for (uint32_t ifx = 1; ifx <= 3000; ++ifx) ASSERT_EQ(put(ifx, 6), QV_MOM_OK);
    expect_converged();
    EXPECT_TRUE(logged(log, QV_ZLOG_LEVEL_WARN, "lost")) << "the server dropped the follower's feed";
    std::lock_guard<std::mutex> lock(g_mirror.mutex);
    EXPECT_EQ(g_mirror.all_loaded, 1) << "all-loaded fires once, not again when the server comes or on a resync";
}

} // namespace

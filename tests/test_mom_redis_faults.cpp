// The database client on Redis when the server misbehaves: not up at start, killed and started
// again empty while a follower is subscribed, a follower too slow for a burst of writes, and
// one the server drops for a full output buffer.
// A follower keeps its own map of the records from the key events; it must end equal to what
// the server holds, key by key and value by value, without a restart.
#include <gtest/gtest.h>
#include <hiredis/hiredis.h>

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
    int stall_ms = 0; // the next add blocks the event thread this long

    template <class Pred>
    bool wait(Pred done, std::chrono::milliseconds limit = std::chrono::seconds(10))
    {
        std::unique_lock<std::mutex> lock(mutex);
        return cv.wait_for(lock, limit, [&] { return done(); });
    }
    int loaded()
    {
        std::lock_guard<std::mutex> lock(mutex);
        return all_loaded;
    }
} g_mirror;

void on_record(void *, int event, const ProtobufCMessage *key, const ProtobufCMessage *record)
{
    const uint32_t ifx = reinterpret_cast<const UIntf__IfxIndex *>(key)->ifx;
    int stall = 0;
    {
        std::lock_guard<std::mutex> lock(g_mirror.mutex);
        if (event == QV_MOM_EVENT_ADD)
            g_mirror.records[ifx] = pack(record);
        else
            g_mirror.records.erase(ifx);
        std::swap(stall, g_mirror.stall_ms);
    }
    g_mirror.cv.notify_all();
    if (stall > 0) std::this_thread::sleep_for(std::chrono::milliseconds(stall));
}

void on_loaded(void *, int, int, void *)
{
    {
        std::lock_guard<std::mutex> lock(g_mirror.mutex);
        ++g_mirror.all_loaded;
    }
    g_mirror.cv.notify_all();
}

class MomRedisFaults : public ::testing::Test {
protected:
    // The follower's reconnect back-off is read from the environment when the store is opened.
    void open(const char *backoff_ms)
    {
        setenv("PMX_DB_BACKOFF_MS", backoff_ms, 1);
        char err[256] = "";
        glb = qv_mom_glb_create(server.url().c_str(), err, sizeof err);
        ASSERT_NE(glb, nullptr) << err;
        ctx = qv_mom_thread_attach(glb, nullptr);
        ASSERT_NE(ctx, nullptr);
    }
    void follow()
    {
        qv_mom_ab_t *ab = qv_mom_ab_init(glb, "faults", nullptr, nullptr);
        ASSERT_NE(ab, nullptr);
        qv_mom_key_desc_t desc{&u_intf__ifx_index__descriptor, &u_intf__pmx_ifx_tbl__descriptor,
                               "faults", kDb};
        int ds = qv_mom_reg_ds(ab, &desc, 1, nullptr, 0);
        ASSERT_GE(ds, 0);
        ASSERT_EQ(
            qv_mom_reg_single_ds_event(glb, ds, QV_MOM_DS_EVENT_ALL_LOADED, on_loaded, nullptr), 0);
        ASSERT_EQ(qv_mom_reg_key_event(glb, &desc, QV_MOM_EVENT_ADD, on_record), 0);
        ASSERT_EQ(qv_mom_reg_key_event(glb, &desc, QV_MOM_EVENT_DEL, on_record), 0);
    }
    void TearDown() override
    {
        if (ctx != nullptr) qv_mom_thread_detach();
        if (glb != nullptr) qv_mom_glb_destroy(glb);
        std::lock_guard<std::mutex> lock(g_mirror.mutex);
        g_mirror.records.clear();
        g_mirror.all_loaded = 0;
        g_mirror.stall_ms = 0;
    }

    // Writes interface record ifx with a value that depends on round; or deletes it.
    int put(uint32_t ifx, int round)
    {
        UIntf__IfxIndex idx = U_INTF__IFX_INDEX__INIT;
        idx.ifx = ifx;
        UIntf__PmxIfxTbl rec = U_INTF__PMX_IFX_TBL__INIT;
        rec.index = &idx;
        rec.ifx = ifx;
        rec.gphyid = ifx * 7 + static_cast<uint32_t>(round);
        rec.slot = round;
        qv_mom_key_t key{&idx.base, &u_intf__pmx_ifx_tbl__descriptor};
        return qv_mom_set_sync(ctx, kDb, &key, &rec.base);
    }
    int erase(uint32_t ifx)
    {
        UIntf__IfxIndex idx = U_INTF__IFX_INDEX__INIT;
        idx.ifx = ifx;
        qv_mom_key_t key{&idx.base, &u_intf__pmx_ifx_tbl__descriptor};
        return qv_mom_del_sync(ctx, kDb, &key);
    }

    // What the server holds, read with hiredis apart from the client.
    Records server_records()
    {
        Records out;
        redisContext *c = redisConnectUnix(server.socket_path().c_str());
        EXPECT_TRUE(c != nullptr && c->err == 0);
        if (c == nullptr) return out;
        freeReplyObject(redisCommand(c, "SELECT %d", kDb));
        std::string cursor = "0";
        do {
            auto *page = static_cast<redisReply *>(
                redisCommand(c, "SCAN %s MATCH u_intf.pmx_ifx_tbl|* COUNT 1000", cursor.c_str()));
            if (page == nullptr || page->type != REDIS_REPLY_ARRAY) {
                ADD_FAILURE() << "SCAN failed";
                freeReplyObject(page);
                break;
            }
            cursor = page->element[0]->str;
            for (size_t i = 0; i < page->element[1]->elements; ++i) {
                std::string key = page->element[1]->element[i]->str;
                auto *v =
                    static_cast<redisReply *>(redisCommand(c, "GET %b", key.data(), key.size()));
                if (v != nullptr && v->type == REDIS_REPLY_STRING)
                    out[static_cast<uint32_t>(std::stoul(key.substr(key.find('|') + 1)))] =
                        std::string(v->str, v->len);
                else
                    ADD_FAILURE() << "GET " << key << " failed";
                freeReplyObject(v);
            }
            freeReplyObject(page);
        } while (cursor != "0");
        redisFree(c);
        return out;
    }

    // The follower's map ends equal to the server's content.
    void expect_converged()
    {
        const Records want = server_records();
        bool same = g_mirror.wait([&] { return g_mirror.records == want; });
        std::lock_guard<std::mutex> lock(g_mirror.mutex);
        EXPECT_TRUE(same) << "follower has " << g_mirror.records.size() << " records, the server "
                          << want.size();
        int shown = 0; // the first few differences say enough
        for (const auto &kv : want) {
            auto it = g_mirror.records.find(kv.first);
            if (it != g_mirror.records.end() && it->second == kv.second) continue;
            ADD_FAILURE() << "record " << kv.first << (it == g_mirror.records.end() ? " missing" : " differs");
            if (++shown == 5) break;
        }
    }

    pmx_test::RedisServer server;
    qv_mom_glb_t *glb = nullptr;
    qv_mom_thread_global_t *ctx = nullptr;
};

TEST_F(MomRedisFaults, ServerNotUpAtStartFailsReadsThenFeedsTheFollowerOnceItComes)
{
    LogCapture log;
    open("10");
    UIntf__IfxIndex idx = U_INTF__IFX_INDEX__INIT;
    idx.ifx = 1;
    qv_mom_key_t key{&idx.base, &u_intf__pmx_ifx_tbl__descriptor};
    int error = 0;
    EXPECT_EQ(qv_mom_get_sync(ctx, kDb, &key, &error), nullptr);
    EXPECT_EQ(error, QV_MOM_E_CONN);
    bool named = false; // by the read itself, not only by the event thread's feed
    for (const auto &l : log.lines())
        named |= l.level == QV_ZLOG_LEVEL_ERROR && l.text.find(server.url()) != std::string::npos &&
                 l.text.find("No such file or directory") != std::string::npos &&
                 l.text.find("feed") == std::string::npos;
    EXPECT_TRUE(named) << "an error line names " << server.url() << " and the system error";

    follow();
    EXPECT_FALSE(
        g_mirror.wait([] { return g_mirror.all_loaded > 0; }, std::chrono::milliseconds(200)));
    ASSERT_TRUE(server.start()) << server.error();
    for (uint32_t ifx = 1; ifx <= 50; ++ifx)
        ASSERT_EQ(put(ifx, 1), QV_MOM_OK);
    ASSERT_TRUE(g_mirror.wait([] { return g_mirror.all_loaded > 0; }));
    expect_converged();
    EXPECT_EQ(g_mirror.loaded(), 1);
}

TEST_F(MomRedisFaults, FollowerConvergesAfterTheServerIsKilledAndStartedAgainEmpty)
{
    ASSERT_TRUE(server.start()) << server.error();
    // A back-off long enough that the first writes below land before the follower is back.
    open("300");
    for (uint32_t ifx = 1; ifx <= 100; ++ifx)
        ASSERT_EQ(put(ifx, 1), QV_MOM_OK);
    follow();
    ASSERT_TRUE(g_mirror.wait([] { return g_mirror.all_loaded == 1; }));
    expect_converged();

    ASSERT_TRUE(server.kill9()) << server.error();
    ASSERT_TRUE(server.start()) << server.error();
    // Before the follower is back: the same keys with new values, fewer of them, and new keys.
    for (uint32_t ifx = 1; ifx <= 60; ++ifx)
        ASSERT_EQ(put(ifx, 2), QV_MOM_OK);
    for (uint32_t ifx = 200; ifx < 250; ++ifx)
        ASSERT_EQ(put(ifx, 2), QV_MOM_OK);
    ASSERT_TRUE(g_mirror.wait(
        [] { return g_mirror.records.size() == 110 && g_mirror.records.count(249); }));
    // After: changes, deletes and adds through the feed again.
    for (uint32_t ifx = 1; ifx <= 20; ++ifx)
        ASSERT_EQ(put(ifx, 3), QV_MOM_OK);
    for (uint32_t ifx = 200; ifx < 220; ++ifx)
        ASSERT_EQ(erase(ifx), QV_MOM_OK);
    for (uint32_t ifx = 300; ifx < 320; ++ifx)
        ASSERT_EQ(put(ifx, 3), QV_MOM_OK);
    expect_converged();
    EXPECT_EQ(server_records().size(), 110u);
    EXPECT_EQ(g_mirror.loaded(), 1) << "all-loaded fires once, not again on a resync";
}

TEST_F(MomRedisFaults, SlowFollowerStillGetsEveryRecordOfABurst)
{
    ASSERT_TRUE(server.start()) << server.error();
    open("10");
    follow();
    ASSERT_TRUE(g_mirror.wait([] { return g_mirror.all_loaded == 1; }));
    {
        std::lock_guard<std::mutex> lock(g_mirror.mutex);
        g_mirror.stall_ms = 500;
    }
    for (uint32_t ifx = 1; ifx <= 3000; ++ifx)
        ASSERT_EQ(put(ifx, 1), QV_MOM_OK);
    for (uint32_t ifx = 1; ifx <= 3000; ifx += 3)
        ASSERT_EQ(put(ifx, 2), QV_MOM_OK);
    for (uint32_t ifx = 2; ifx <= 3000; ifx += 3)
        ASSERT_EQ(erase(ifx), QV_MOM_OK);
    expect_converged();
    EXPECT_EQ(server_records().size(), 2000u);
}

TEST_F(MomRedisFaults, FollowerDroppedForAFullOutputBufferCatchesUp)
{
    ASSERT_TRUE(server.start()) << server.error();
    LogCapture log;
    open("10");
    follow();
    ASSERT_TRUE(g_mirror.wait([] { return g_mirror.all_loaded == 1; }));
    redisContext *c = redisConnectUnix(server.socket_path().c_str());
    ASSERT_TRUE(c != nullptr && c->err == 0);
    freeReplyObject(redisCommand(c, "CONFIG SET client-output-buffer-limit %s", "pubsub 32kb 0 0"));
    redisFree(c);
    {
        std::lock_guard<std::mutex> lock(g_mirror.mutex);
        g_mirror.stall_ms = 500;
    }
    for (uint32_t ifx = 1; ifx <= 2000; ++ifx) ASSERT_EQ(put(ifx, 1), QV_MOM_OK);
    expect_converged();
    bool lost = false;
    for (const auto &l : log.lines())
        lost |= l.level == QV_ZLOG_LEVEL_WARN && l.text.find("lost") != std::string::npos &&
                l.text.find(server.url()) != std::string::npos;
    EXPECT_TRUE(lost) << "the server dropped the follower's feed, and that is logged";
}

} // namespace

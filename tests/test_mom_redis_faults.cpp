// The database client on Redis when the server misbehaves: not up at start, killed and started
// again empty, too fast for a slow follower, dropping it for a full output buffer, or refusing
// its reads. The follower keeps its own map of the records from the key events; it must end
// equal to what the server holds, key by key and value by value, without a restart. Bursts
// written in one pipeline check the order of each key's events as the follower batches them.
#include <gtest/gtest.h>
#include <hiredis/hiredis.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

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

// The record of interface ifx as written in a round (its gphyid tells the round).
std::string packed_ifx(uint32_t ifx, int round)
{
    UIntf__IfxIndex idx = U_INTF__IFX_INDEX__INIT;
    idx.ifx = ifx;
    UIntf__PmxIfxTbl rec = U_INTF__PMX_IFX_TBL__INIT;
    rec.index = &idx;
    rec.gphyid = ifx * 7 + static_cast<uint32_t>(round);
    return pack(&rec.base);
}

// The follower's view, filled on the client's event thread (key-event callbacks carry no
// argument, so there is one per process).
struct Mirror {
    std::mutex mutex;
    std::condition_variable cv;
    Records records;
    std::map<uint32_t, std::vector<std::string>> history; // per interface: "ADD 3", "DEL 0" (rounds)
    std::vector<std::string> sequence;                    // all of them in order: "12 ADD 3"
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
    const uint32_t round = reinterpret_cast<const UIntf__PmxIfxTbl *>(record)->gphyid - ifx * 7;
    {
        std::lock_guard<std::mutex> lock(g_mirror.mutex);
        if (event == QV_MOM_EVENT_ADD)
            g_mirror.records[ifx] = pack(record);
        else
            g_mirror.records.erase(ifx);
        g_mirror.history[ifx].push_back((event == QV_MOM_EVENT_ADD ? "ADD " : "DEL ") + std::to_string(round));
        g_mirror.sequence.push_back(std::to_string(ifx) + " " + g_mirror.history[ifx].back());
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
        g_mirror.history.clear();
        g_mirror.sequence.clear();
        g_mirror.all_loaded = 0;
        g_mirror.stall_ms = 0;
    }

    // Opens the store on the server (a feed back-off of backoff_ms) and follows the interface
    // records: snapshot, adds and deletes into g_mirror.
    void follow(const char *backoff_ms)
    {
        setenv("PMX_DB_BACKOFF_MS", backoff_ms, 1); // read when the store is opened
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
    }

    // A connection of its own with the follower's database selected, for pipelines.
    redisContext *raw()
    {
        redisContext *c = redisConnectUnix(server.socket_path().c_str());
        if (c != nullptr && c->err == 0) freeReplyObject(redisCommand(c, "SELECT %d", kDb));
        return c;
    }
    static std::string key_of(uint32_t ifx) { return "u_intf.pmx_ifx_tbl|" + std::to_string(ifx); }
    // Queues a write of interface ifx in a round (round < 0: a delete) on c, and keeps what the
    // server will hold in `held`.
    void append(redisContext *c, uint32_t ifx, int round)
    {
        const std::string k = key_of(ifx);
        held.erase(ifx);
        if (round < 0) {
            redisAppendCommand(c, "DEL %b", k.data(), k.size());
            return;
        }
        held[ifx] = packed_ifx(ifx, round);
        redisAppendCommand(c, "SET %b %b", k.data(), k.size(), held[ifx].data(), held[ifx].size());
    }
    // Sends what was queued on c in one write and takes the n replies.
    static bool send(redisContext *c, size_t n)
    {
        for (size_t i = 0; i < n; ++i) {
            void *reply = nullptr;
            if (redisGetReply(c, &reply) != REDIS_OK) return false;
            freeReplyObject(reply);
        }
        return true;
    }
    // Returns once the follower has handed on every event the server sent so far: after the
    // snapshot, a marker's new value comes through the feed, behind everything before it.
    void drain()
    {
        ASSERT_TRUE(g_mirror.wait([] { return g_mirror.all_loaded > 0; }));
        static int round = 0;
        constexpr uint32_t kMarker = 99999;
        ASSERT_EQ(put(kMarker, ++round), QV_MOM_OK);
        ASSERT_TRUE(g_mirror.wait([&] { return g_mirror.records[kMarker] == held[kMarker]; }));
    }
    // The same, then the history starts afresh.
    void settle()
    {
        ASSERT_NO_FATAL_FAILURE(drain());
        std::lock_guard<std::mutex> lock(g_mirror.mutex);
        g_mirror.history.clear();
        g_mirror.sequence.clear();
    }
    std::vector<std::string> history(uint32_t ifx)
    {
        std::lock_guard<std::mutex> lock(g_mirror.mutex);
        return g_mirror.history[ifx];
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
        if (!erase) held[ifx] = packed_ifx(ifx, round);
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
    // Long enough a back-off that the first writes after the kill land before it is back.
    ASSERT_NO_FATAL_FAILURE(follow("300"));

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

TEST_F(MomRedisFaults, BurstsInOnePipelineKeepEachKeysEventsInOrder)
{
    ASSERT_TRUE(server.start()) << server.error();
    ASSERT_NO_FATAL_FAILURE(follow("10"));
    redisContext *c = raw();
    ASSERT_TRUE(c != nullptr && c->err == 0);
    constexpr uint32_t n = 3000;
    for (uint32_t ifx = 1; ifx <= n; ++ifx) append(c, ifx, 0);
    ASSERT_TRUE(send(c, n));
    expect_converged();
    ASSERT_NO_FATAL_FAILURE(settle());

    // Set, delete and set again on one key, with sets of a second key around them: one
    // notification read, one batch. The value set before the delete is gone: the follower hands
    // on the delete of what it had, then the final value, and the second key's final value once,
    // each where its first event came.
    append(c, 1, 1);
    append(c, 2, 1);
    append(c, 1, -1);
    append(c, 2, 2);
    append(c, 1, 2);
    ASSERT_TRUE(send(c, 5));
    expect_converged();
    EXPECT_EQ(history(1), (std::vector<std::string>{"DEL 0", "ADD 2"}));
    EXPECT_EQ(history(2), (std::vector<std::string>{"ADD 2"}));
    {
        std::lock_guard<std::mutex> lock(g_mirror.mutex);
        EXPECT_EQ(g_mirror.sequence, (std::vector<std::string>{"2 ADD 2", "1 DEL 0", "1 ADD 2"}));
    }

    // Every key twice, every even one deleted between, in one pipeline (many batches, cut
    // anywhere). Per key: adds only move forward in rounds; one delete, carrying the last value
    // handed on before it, and followed by the final value alone; the final value last.
    ASSERT_NO_FATAL_FAILURE(settle());
    for (uint32_t ifx = 1; ifx <= n; ++ifx) append(c, ifx, 3);
    for (uint32_t ifx = 2; ifx <= n; ifx += 2) append(c, ifx, -1);
    for (uint32_t ifx = 1; ifx <= n; ++ifx) append(c, ifx, 4);
    ASSERT_TRUE(send(c, n + n / 2 + n));
    // The map may equal the server's before the last deletes and re-adds come (every key held its
    // final value once already): the marker behind them says they came.
    ASSERT_NO_FATAL_FAILURE(drain());
    expect_converged();
    redisFree(c);
    std::lock_guard<std::mutex> lock(g_mirror.mutex);
    for (uint32_t ifx = 1; ifx <= n; ++ifx) {
        const std::vector<std::string> &h = g_mirror.history[ifx];
        ASSERT_FALSE(h.empty()) << "interface " << ifx << " was not handed on";
        EXPECT_EQ(h.back(), "ADD 4") << ifx;
        const auto del = std::find_if(h.begin(), h.end(), [](const std::string &e) { return e[0] == 'D'; });
        std::string before = ifx <= 2 ? "ADD 2" : "ADD 0"; // what the follower held
        std::string previous;
        for (auto e = h.begin(); e != del; ++e) {
            EXPECT_EQ(e->substr(0, 4), "ADD ") << ifx;
            EXPECT_LT(previous, *e) << "interface " << ifx << ": " << *e << " after " << previous;
            previous = before = *e;
        }
        if (ifx % 2 == 1) {
            EXPECT_EQ(del, h.end()) << "interface " << ifx << " was never deleted";
            continue;
        }
        ASSERT_NE(del, h.end()) << "interface " << ifx << ": the delete was lost";
        EXPECT_EQ(*del, "DEL " + before.substr(4)) << ifx;
        EXPECT_EQ(std::vector<std::string>(del + 1, h.end()), std::vector<std::string>{"ADD 4"}) << ifx;
    }
}

TEST_F(MomRedisFaults, ReadsTheServerRefusesAreCaughtUpWhenItReadsAgain)
{
    LogCapture log;
    ASSERT_TRUE(server.start()) << server.error();
    ASSERT_NO_FATAL_FAILURE(follow("10"));
    for (uint32_t ifx = 1; ifx <= 100; ++ifx) ASSERT_EQ(put(ifx, 1), QV_MOM_OK);
    expect_converged();
    ASSERT_NO_FATAL_FAILURE(settle());
    redisContext *c = raw();
    ASSERT_TRUE(c != nullptr && c->err == 0);

    // A key of the kind holding a list, changed in the same pipeline as records: only that key
    // cannot be read, the records around it are handed on.
    redisAppendCommand(c, "RPUSH %s x", key_of(5000).c_str());
    for (uint32_t ifx = 1; ifx <= 50; ++ifx) append(c, ifx, 2);
    redisAppendCommand(c, "RPUSH %s y", key_of(5000).c_str());
    ASSERT_TRUE(send(c, 52));
    expect_converged();
    redisAppendCommand(c, "DEL %s", key_of(5000).c_str());
    ASSERT_TRUE(send(c, 1));

    // The server refuses every read for a while: deletes still come (they need no read), the
    // changes come once it reads again.
    auto *r = static_cast<redisReply *>(redisCommand(c, "ACL SETUSER default -get -hvals -hgetall"));
    ASSERT_TRUE(r != nullptr && r->type == REDIS_REPLY_STATUS) << (r != nullptr ? r->str : c->errstr);
    freeReplyObject(r);
    for (uint32_t ifx = 1; ifx <= 20; ++ifx) ASSERT_EQ(put(ifx, 3), QV_MOM_OK);
    for (uint32_t ifx = 21; ifx <= 30; ++ifx) ASSERT_EQ(erase(ifx), QV_MOM_OK);
    ASSERT_EQ(put(200, 3), QV_MOM_OK);
    EXPECT_TRUE(g_mirror.wait([] {
        for (uint32_t ifx = 21; ifx <= 30; ++ifx)
            if (g_mirror.records.count(ifx) != 0) return false;
        return true;
    }));
    std::this_thread::sleep_for(pmx_test::at_most(std::chrono::milliseconds(300)));
    {
        std::lock_guard<std::mutex> lock(g_mirror.mutex);
        EXPECT_EQ(g_mirror.records.count(200), 0u) << "a read the server refused was handed on";
        EXPECT_EQ(g_mirror.records[1], packed_ifx(1, 2));
    }
    r = static_cast<redisReply *>(redisCommand(c, "ACL SETUSER default +@all"));
    freeReplyObject(r);
    redisFree(c);
    expect_converged();
    EXPECT_TRUE(logged(log, QV_ZLOG_LEVEL_WARN, "cannot re-read"));
}

} // namespace

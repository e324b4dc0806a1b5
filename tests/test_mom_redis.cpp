// The Redis back end below the client: its URLs, its per-thread connection and its key-event
// feed, against a private Redis server. Values, types and databases through the client are in
// the contract suite, which runs on this back end too.
#include <event2/event.h>
#include <gtest/gtest.h>
#include <hiredis/hiredis.h>

#include <algorithm>
#include <chrono>
#include <functional>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "log_capture.h"
#include "mom/backend.h"
#include "qv_mom.h"
#include "redis_server.h"
#include "time_scale.h"

namespace {

// Short reconnect back-off of the key-event feed, read when a back end is opened.
[[maybe_unused]] const int g_backoff_set = setenv("PMX_DB_BACKOFF_MS", "10", 1);

// Records what the feed reports, and runs the event base until a condition holds.
struct Feed : qv::mom::SubscriberListener {
    std::unique_ptr<event_base, void (*)(event_base *)> owner{event_base_new(), event_base_free};
    event_base *base = owner.get();
    int subscribed = 0, lost = 0;
    std::vector<std::string> events; // "db key event"

    void on_subscribed() override { ++subscribed; }
    void on_lost(const std::string &) override { ++lost; }
    void on_key_event(int db, const std::string &key, const std::string &event) override
    {
        events.push_back(std::to_string(db) + " " + key + " " + event);
    }
    bool run_until(const std::function<bool()> &done, std::chrono::milliseconds limit = std::chrono::seconds(5))
    {
        auto deadline = std::chrono::steady_clock::now() + pmx_test::at_most(limit);
        for (timeval ten_ms{0, 10000}; !done() && std::chrono::steady_clock::now() < deadline;) {
            event_base_loopexit(base, &ten_ms);
            event_base_dispatch(base);
        }
        return done();
    }
};

class MomRedis : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_TRUE(server.start()) << server.error();
        std::string err;
        backend = qv::mom::open_redis(server.url(), &err);
        ASSERT_TRUE(backend) << err;
        conn = backend->connect();
    }
    // True when a line of this level names the server's URL and contains text.
    bool logged(const LogCapture &log, int level, const std::string &text) const
    {
        for (const auto &l : log.lines())
            if (l.level == level && l.text.find(text) != std::string::npos &&
                l.text.find(server.url()) != std::string::npos)
                return true;
        return false;
    }
    pmx_test::RedisServer server;
    std::shared_ptr<qv::mom::Backend> backend;
    std::unique_ptr<qv::mom::Connection> conn;
};

TEST(MomRedisUrl, MalformedUrlsAreRefusedWithAReasonAndNoServerIsNeeded)
{
    for (const char *bad : {"redis://", "redis://:6379", "redis://host:0", "redis://host:65536", "redis://host:x",
                            "redis://host:", "redis://host:1/3", "unix://", "unix://relative.sock", "tcp://host"}) {
        std::string err;
        EXPECT_FALSE(qv::mom::open_redis(bad, &err)) << bad;
        EXPECT_NE(err.find(bad), std::string::npos) << "reason names the URL: " << err;
    }
    std::string err;
    for (const char *good :
         {"redis://127.0.0.1", "redis://localhost:1", "redis://[::1]:6380", "unix:///nowhere/x.sock"})
        EXPECT_TRUE(qv::mom::open_redis(good, &err)) << good << ": " << err;
}

TEST_F(MomRedis, ScanFindsTheSingletonAndEveryKeyOfTheKindOnlyOnce)
{
    const std::string kind = "p.rec*[x]"; // glob characters in the name match only themselves
    std::multiset<std::string> want{kind}, seen;
    for (int i = 0; i < 2500; ++i) {
        ASSERT_EQ(conn->set(5, kind + "|" + std::to_string(i), "v"), QV_MOM_OK);
        want.insert(kind + "|" + std::to_string(i));
    }
    for (const std::string &other : {std::string("p.recX[x]|1"), kind + "_more|1", kind + "x", kind + "-|1"})
        ASSERT_EQ(conn->set(5, other, "v"), QV_MOM_OK);
    ASSERT_EQ(conn->set(6, kind + "|other-db", "v"), QV_MOM_OK);
    ASSERT_EQ(conn->set(5, kind, "singleton"), QV_MOM_OK);

    ASSERT_EQ(conn->scan(5, kind, [&](const std::string &k) { return seen.insert(k), 0; }), QV_MOM_OK);
    EXPECT_EQ(seen, want);
    int calls = 0;
    EXPECT_EQ(conn->scan(5, kind, [&](const std::string &) { return ++calls == 3 ? 7 : 0; }), 7);
    EXPECT_EQ(calls, 3);
}

TEST_F(MomRedis, FeedAndConnectionsComeBackAfterARestartAndWaitForALateServer)
{
    Feed feed;
    auto sub = backend->subscriber();
    sub->watch(26, "k");
    ASSERT_EQ(sub->start(feed.base, &feed), QV_MOM_OK);
    ASSERT_TRUE(feed.run_until([&] { return feed.subscribed == 1; }));
    ASSERT_EQ(conn->set(26, "k|1", "a"), QV_MOM_OK);
    ASSERT_EQ(conn->set(26, "k_x|1", "not watched"), QV_MOM_OK);
    ASSERT_EQ(conn->set(0, "k|1", "other database"), QV_MOM_OK);
    ASSERT_EQ(conn->hset(26, "k", {{"f", "v"}}), QV_MOM_OK);
    ASSERT_EQ(conn->del(26, "k|1"), QV_MOM_OK);
    EXPECT_TRUE(feed.run_until([&] { return feed.events.size() >= 3; }));
    EXPECT_EQ(feed.events, (std::vector<std::string>{"26 k|1 set", "26 k hset", "26 k|1 del"}));
    // A kind watched later is reported subscribed again before its events come.
    sub->watch(3, "j");
    ASSERT_TRUE(feed.run_until([&] { return feed.subscribed == 2; }));
    ASSERT_EQ(conn->set(3, "j|9", "x"), QV_MOM_OK);
    EXPECT_TRUE(feed.run_until([&] { return feed.events.size() == 4; }));
    EXPECT_EQ(feed.events.back(), "3 j|9 set");

    // Killed and started again empty: the feed resubscribes every kind, and a connection
    // reconnects by itself and selects its database again.
    ASSERT_EQ(conn->set(1, "k|1", "v"), QV_MOM_OK);
    ASSERT_TRUE(server.kill9()) << server.error();
    ASSERT_TRUE(feed.run_until([&] { return feed.lost == 1; }));
    ASSERT_TRUE(server.start()) << server.error();
    ASSERT_TRUE(feed.run_until([&] { return feed.subscribed == 3; }));
    EXPECT_EQ(conn->exists(1, "k|1"), QV_MOM_ABSENT);
    ASSERT_EQ(conn->set(1, "k|1", "v"), QV_MOM_OK);
    auto fresh = backend->connect();
    EXPECT_EQ(fresh->exists(1, "k|1"), QV_MOM_OK);
    EXPECT_EQ(fresh->exists(0, "k|1"), QV_MOM_ABSENT);
    ASSERT_EQ(conn->set(3, "j|1", "x"), QV_MOM_OK);
    ASSERT_EQ(conn->set(26, "k|2", "x"), QV_MOM_OK);
    EXPECT_TRUE(feed.run_until([&] { return feed.events.size() == 6; }));
    EXPECT_EQ(std::vector<std::string>(feed.events.end() - 2, feed.events.end()),
              (std::vector<std::string>{"3 j|1 set", "26 k|2 set"}));

    // Stopped: calls fail, and the connections of one server log it once in an interval.
    LogCapture log;
    ASSERT_TRUE(server.stop()) << server.error();
    EXPECT_EQ(conn->exists(1, "k|1"), QV_MOM_E_CONN);
    EXPECT_EQ(conn->connect(1), QV_MOM_E_CONN);
    EXPECT_EQ(backend->connect()->set(1, "k|2", "v"), QV_MOM_E_CONN);
    auto lines = log.lines();
    auto named = [&](const LoggedLine &l) { return l.text.find(server.url()) != std::string::npos; };
    EXPECT_EQ(std::count_if(lines.begin(), lines.end(), named), 1) << "failures within the interval are held back";
    EXPECT_TRUE(logged(log, QV_ZLOG_LEVEL_ERROR, "No such file or directory"));

    // A feed started while the server is down keeps trying, and subscribes once it is up.
    Feed late;
    auto waiting = backend->subscriber();
    waiting->watch(26, "k");
    ASSERT_EQ(waiting->start(late.base, &late), QV_MOM_OK);
    late.run_until([] { return false; }, std::chrono::milliseconds(300)); // a few retries
    EXPECT_EQ(late.subscribed, 0);
    ASSERT_TRUE(server.start()) << server.error();
    ASSERT_TRUE(late.run_until([&] { return late.subscribed == 1; }));
    EXPECT_TRUE(logged(log, QV_ZLOG_LEVEL_ERROR, "feed cannot connect to"));

    // Each time it connects it checks that key events are on, and says why nothing will come.
    redisContext *raw = redisConnectUnix(server.socket_path().c_str());
    ASSERT_TRUE(raw && !raw->err);
    freeReplyObject(redisCommand(raw, "CONFIG SET notify-keyspace-events Kl"));
    freeReplyObject(redisCommand(raw, "CLIENT KILL TYPE pubsub"));
    redisFree(raw);
    ASSERT_TRUE(late.run_until([&] { return late.subscribed == 2; }));
    EXPECT_TRUE(logged(log, QV_ZLOG_LEVEL_ERROR, "notify-keyspace-events \"lK\""));
    waiting->stop();
    sub->stop();
}

} // namespace

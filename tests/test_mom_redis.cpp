// The Redis back end below the client: its URLs, its per-thread connection and its key-event
// feed, against a private Redis server. Values, types and databases through the client are in
// the contract suite, which runs on this back end too.
#include <event2/event.h>
#include <gtest/gtest.h>
#include <hiredis/hiredis.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
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

// A stand-in for a server still loading its data from disk: PING is answered with LOADING the
// first `loading` times and PONG after; CONFIG GET and PSUBSCRIBE are answered as Redis does
// (Redis accepts both while it loads). The names of the commands are kept in arrival order.
class LoadingServer {
public:
    explicit LoadingServer(int loading) : loading_(loading)
    {
        std::string dir = (std::filesystem::temp_directory_path() / "pmx-loading.XXXXXX").string();
        if (::mkdtemp(dir.data()) == nullptr) return;
        dir_ = dir;
        path_ = dir_ + "/fake.sock";
        sockaddr_un addr{};
        addr.sun_family = AF_UNIX;
        path_.copy(addr.sun_path, sizeof addr.sun_path - 1);
        listen_fd_ = ::socket(AF_UNIX, SOCK_STREAM, 0);
        if (listen_fd_ < 0 || ::bind(listen_fd_, reinterpret_cast<sockaddr *>(&addr), sizeof addr) != 0 ||
            ::listen(listen_fd_, 4) != 0)
            return;
        thread_ = std::thread([this] { serve(); });
    }
    ~LoadingServer()
    {
        stop_ = true;
        if (thread_.joinable()) thread_.join();
        if (listen_fd_ >= 0) ::close(listen_fd_);
        std::error_code ec;
        if (!dir_.empty()) std::filesystem::remove_all(dir_, ec);
    }
    LoadingServer(const LoadingServer &) = delete;
    LoadingServer &operator=(const LoadingServer &) = delete;

    bool up() const { return thread_.joinable(); }
    std::string url() const { return "unix://" + path_; }
    std::vector<std::string> commands() const
    {
        std::lock_guard<std::mutex> lock(mutex_);
        return commands_;
    }

private:
    void serve()
    {
        int client = -1;
        std::string buf;
        while (!stop_) {
            pollfd p[2] = {{listen_fd_, POLLIN, 0}, {client, POLLIN, 0}};
            if (::poll(p, client >= 0 ? 2 : 1, 20) <= 0) continue;
            if ((p[0].revents & POLLIN) != 0) {
                if (client >= 0) ::close(client);
                client = ::accept(listen_fd_, nullptr, nullptr);
                buf.clear();
                continue;
            }
            char chunk[4096];
            const ssize_t n = ::read(client, chunk, sizeof chunk);
            if (n <= 0) {
                ::close(client);
                client = -1;
                continue;
            }
            buf.append(chunk, static_cast<size_t>(n));
            std::vector<std::string> args;
            while (take_command(&buf, &args)) answer(client, args);
        }
        if (client >= 0) ::close(client);
    }

    // One command in the protocol's array form off the front of buf; false when incomplete.
    static bool take_command(std::string *buf, std::vector<std::string> *args)
    {
        args->clear();
        size_t at = 0;
        auto line = [&](char type, long *value) {
            const size_t end = buf->find("\r\n", at);
            if (end == std::string::npos || (*buf)[at] != type) return false;
            *value = std::strtol(buf->c_str() + at + 1, nullptr, 10);
            at = end + 2;
            return true;
        };
        long count = 0;
        if (!line('*', &count)) return false;
        for (long i = 0; i < count; ++i) {
            long len = 0;
            if (!line('$', &len) || buf->size() < at + static_cast<size_t>(len) + 2) return false;
            args->push_back(buf->substr(at, static_cast<size_t>(len)));
            at += static_cast<size_t>(len) + 2;
        }
        buf->erase(0, at);
        return !args->empty();
    }

    void answer(int fd, const std::vector<std::string> &args)
    {
        std::string name = args[0];
        std::transform(name.begin(), name.end(), name.begin(), [](unsigned char c) { return std::toupper(c); });
        {
            std::lock_guard<std::mutex> lock(mutex_);
            commands_.push_back(name);
        }
        std::string out;
        if (name == "PING") {
            out = pings_++ < loading_ ? "-LOADING Redis is loading the dataset in memory\r\n" : "+PONG\r\n";
        } else if (name == "CONFIG") {
            out = "*2\r\n$22\r\nnotify-keyspace-events\r\n$2\r\nKA\r\n";
        } else if (name == "PSUBSCRIBE") {
            for (size_t i = 1; i < args.size(); ++i)
                out += "*3\r\n$10\r\npsubscribe\r\n$" + std::to_string(args[i].size()) + "\r\n" + args[i] + "\r\n:" +
                       std::to_string(++subscriptions_) + "\r\n";
        } else {
            out = "-ERR unknown command\r\n";
        }
        for (size_t sent = 0; sent < out.size();) {
            const ssize_t n = ::write(fd, out.data() + sent, out.size() - sent);
            if (n <= 0) return;
            sent += static_cast<size_t>(n);
        }
    }

    const int loading_;
    int pings_ = 0;
    int subscriptions_ = 0;
    std::string dir_, path_;
    int listen_fd_ = -1;
    std::atomic<bool> stop_{false};
    std::thread thread_;
    mutable std::mutex mutex_;
    std::vector<std::string> commands_;
};

// The bytes a record is made of: a plain value, or a hash's values one after the other.
std::string record_bytes(const qv::mom::StoredValue &v)
{
    if (v.kind == qv::mom::StoredValue::Kind::Plain) return v.plain;
    std::string joined;
    for (const auto &f : v.hash) joined += f.second;
    return joined;
}

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

TEST_F(MomRedis, ReadBatchGivesWhatEachKeyHoldsWhateverTypeWasExpected)
{
    using Kind = qv::mom::StoredValue::Kind;
    // More than one pipeline of keys, in runs of two databases (a SELECT inside a pipeline):
    // plain, hash (a value with a zero byte) and absent, each read with every hint.
    constexpr int n = 2500;
    const Kind hints[] = {Kind::Absent, Kind::Plain, Kind::Hash};
    std::vector<std::string> texts;
    for (int i = 0; i < n; ++i) texts.push_back("r|" + std::to_string(i));
    std::vector<qv::mom::Connection::Key> keys;
    std::vector<std::pair<Kind, std::string>> want;
    std::vector<qv::mom::Connection::Write> writes;
    for (int i = 0; i < n; ++i) {
        const int db = (i / 100) % 2 == 0 ? 5 : 6;
        const std::string v = "v" + std::to_string(i);
        if (i % 3 == 0) {
            writes.push_back({db, texts[i], false, v, {}});
            want.emplace_back(Kind::Plain, v);
        } else if (i % 3 == 1) {
            writes.push_back({db, texts[i], true, "", {{"a", v}, {"b", std::string("\0z", 2)}}});
            want.emplace_back(Kind::Hash, v + std::string("\0z", 2));
        } else {
            want.emplace_back(Kind::Absent, "");
        }
        keys.push_back({db, texts[i], hints[(i / 3) % 3]});
    }
    size_t failed = 0;
    ASSERT_EQ(conn->write_batch(writes, &failed), QV_MOM_OK);
    auto check = [&](const std::vector<qv::mom::StoredValue> &got) {
        ASSERT_EQ(got.size(), want.size());
        for (size_t i = 0; i < got.size(); ++i) {
            EXPECT_EQ(got[i].kind, want[i].first) << texts[i] << " read with hint " << static_cast<int>(keys[i].hint);
            EXPECT_EQ(record_bytes(got[i]), want[i].second) << texts[i];
        }
    };
    std::vector<qv::mom::StoredValue> got;
    ASSERT_EQ(conn->read_batch(keys, &got), QV_MOM_OK);
    check(got);

    // A key holding a type that is no record fails the batch; the connection stays in step.
    redisContext *raw = redisConnectUnix(server.socket_path().c_str());
    ASSERT_TRUE(raw && !raw->err);
    freeReplyObject(redisCommand(raw, "SELECT 6"));
    freeReplyObject(redisCommand(raw, "RPUSH r|list x"));
    redisFree(raw);
    auto with_list = keys;
    with_list.insert(with_list.begin() + 150, {6, "r|list", Kind::Plain});
    EXPECT_EQ(conn->read_batch(with_list, &got), QV_MOM_E_SERVER);
    ASSERT_EQ(conn->read_batch(keys, &got), QV_MOM_OK);
    check(got);
    std::string plain;
    EXPECT_EQ(conn->get(5, texts[0], &plain), QV_MOM_OK);
    EXPECT_EQ(plain, "v0");

    // After a restart (empty) the same connection reconnects and finds nothing.
    ASSERT_TRUE(server.kill9()) << server.error();
    ASSERT_TRUE(server.start()) << server.error();
    ASSERT_EQ(conn->read_batch(keys, &got), QV_MOM_OK);
    EXPECT_EQ(std::count_if(got.begin(), got.end(), [](const auto &v) { return v.kind != Kind::Absent; }), 0);
}

TEST_F(MomRedis, ScanKindsSortsTheKeysOfSeveralKindsFromOneWalk)
{
    // Glob characters and a common prefix in the names, singletons, a kind without keys, and
    // keys that only look alike.
    const std::vector<std::string> names{"p.a", "p.a*[b]", "p.c", "p.none"};
    std::vector<std::set<std::string>> want(names.size());
    std::vector<qv::mom::Connection::Write> writes;
    auto add = [&](int db, const std::string &key, int kind) {
        writes.push_back({db, key, false, "v", {}});
        if (kind >= 0 && db == 7) want[static_cast<size_t>(kind)].insert(key);
    };
    for (int i = 0; i < 1500; ++i) add(7, "p.a|" + std::to_string(i), 0);
    add(7, "p.a", 0);
    for (int i = 0; i < 10; ++i) add(7, "p.a*[b]|" + std::to_string(i), 1);
    add(7, "p.a*[b]", 1);
    add(7, "p.c|x|y", 2);
    for (const char *other : {"p.ab|1", "p.aX[b]|1", "p.a*[b]x|1", "p.c_d|1", "p.c-", "q.a|1"}) add(7, other, -1);
    add(8, "p.a|other-db", 0);
    size_t failed = 0;
    ASSERT_EQ(conn->write_batch(writes, &failed), QV_MOM_OK);

    std::vector<std::vector<std::string>> got;
    ASSERT_EQ(conn->scan_kinds(7, names, &got), QV_MOM_OK);
    ASSERT_EQ(got.size(), names.size());
    for (size_t i = 0; i < names.size(); ++i)
        EXPECT_EQ(std::set<std::string>(got[i].begin(), got[i].end()), want[i]) << names[i];
    // One name alone: its own scan, each key once.
    ASSERT_EQ(conn->scan_kinds(7, {"p.a*[b]"}, &got), QV_MOM_OK);
    ASSERT_EQ(got.size(), 1u);
    EXPECT_EQ(std::multiset<std::string>(got[0].begin(), got[0].end()),
              std::multiset<std::string>(want[1].begin(), want[1].end()));
}

TEST(MomRedisFeed, AServerLoadingItsDataIsWaitedForBeforeTheFeedSubscribes)
{
    LoadingServer fake(3);
    ASSERT_TRUE(fake.up());
    std::string err;
    auto backend = qv::mom::open_redis(fake.url(), &err);
    ASSERT_TRUE(backend) << err;
    LogCapture log;
    Feed feed;
    auto sub = backend->subscriber();
    sub->watch(26, "k");
    ASSERT_EQ(sub->start(feed.base, &feed), QV_MOM_OK);
    ASSERT_TRUE(feed.run_until([&] { return feed.subscribed == 1; }));
    // Asked again until it answers, on the same connection, and subscribed only then: the scan
    // that follows the report must find the server able to read.
    const auto cmds = fake.commands();
    const std::vector<std::string> pings(4, "PING");
    ASSERT_GE(cmds.size(), 6u);
    EXPECT_EQ(std::vector<std::string>(cmds.begin(), cmds.begin() + 4), pings);
    EXPECT_EQ(std::count(cmds.begin(), cmds.end(), "PING"), 4);
    EXPECT_EQ(std::count(cmds.begin(), cmds.end(), "PSUBSCRIBE"), 2);
    EXPECT_EQ(feed.lost, 0);
    bool told = false;
    for (const auto &l : log.lines())
        told = told || (l.level == QV_ZLOG_LEVEL_NOTICE && l.text.find("loading its data") != std::string::npos &&
                        l.text.find(fake.url()) != std::string::npos);
    EXPECT_TRUE(told);
    sub->stop();
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

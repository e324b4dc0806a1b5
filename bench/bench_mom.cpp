// The database client on a private Redis (scripts/redis-private) and on the embedded store.
// BM_Read: one interface record read by key. RawGet is a bare hiredis GET of the same bytes on
// its own connection to the same socket (the reference); RedisClient is qv_mom_get_sync on
// that server, key text and unpacking included; EmbeddedClient the same call on the embedded
// store. BM_EventRate: 20,000 records written in one pipeline, timed until the follower has
// been handed every one; each iteration first times the same pipeline into another database
// with a bare hiredis subscriber counting its notifications (the reference: what the server's
// key events alone take). BM_Converge: the server is killed and started again empty, the
// 20,000 records are written again, timed until the follower holds every new value.
// BM_ConvergeChassis: a follower of every kind the library follows, on the large generated
// chassis (about 150,000 records) in a server of its own. The server saves its data, 1 record
// in 100 is deleted (the follower hands the deletes on), the server is killed and started
// again from its snapshot: timed from when it answers until the follower holds every record
// again, which takes a read of every record to find the deleted ones.
#include <benchmark/benchmark.h>
#include <hiredis/hiredis.h>

#include <sys/socket.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <unordered_set>
#include <vector>

#include "qv_mom.h"
#include "redis_server.h"
#include "u_intf.pb-c.h"
#ifdef PMX_BENCH_CHASSIS
#include "libpmx_mom.h"
#include "topology.h"
#endif

namespace {

constexpr int kDb = 26;
constexpr int kRawDb = 25; // the reference's writes: nothing follows this database
constexpr uint32_t kFollowed = 20000;

using Clock = std::chrono::steady_clock;
double seconds_since(Clock::time_point t0) { return std::chrono::duration<double>(Clock::now() - t0).count(); }

std::string pack_ifx(uint32_t ifx, int round)
{
    UIntf__IfxIndex idx = U_INTF__IFX_INDEX__INIT;
    idx.ifx = ifx;
    UIntf__PmxIfxTbl rec = U_INTF__PMX_IFX_TBL__INIT;
    rec.index = &idx;
    rec.ifx = ifx;
    rec.gphyid = ifx + 100000;
    rec.modid = static_cast<int32_t>(ifx % 64);
    rec.port = static_cast<int32_t>(ifx % 48);
    rec.slot = round;
    rec.is_valid = 1;
    std::string out(protobuf_c_message_get_packed_size(&rec.base), '\0');
    protobuf_c_message_pack(&rec.base, reinterpret_cast<uint8_t *>(out.data()));
    return out;
}

std::string key_text(uint32_t ifx) { return "u_intf.pmx_ifx_tbl|" + std::to_string(ifx); }

// What the follower has been handed: the round of each record's last value.
struct Follower {
    std::mutex mutex;
    std::condition_variable cv;
    std::vector<int> round = std::vector<int>(kFollowed, -1);
    int target = -1;
    uint32_t at_target = 0;
    bool loaded = false;

    void reset_target(int t)
    {
        std::lock_guard<std::mutex> lock(mutex);
        target = t;
        at_target = 0;
    }
    bool wait_all(std::chrono::seconds limit)
    {
        std::unique_lock<std::mutex> lock(mutex);
        return cv.wait_for(lock, limit, [&] { return at_target == kFollowed; });
    }
} g_follower;

void on_record(void *, int event, const ProtobufCMessage *, const ProtobufCMessage *record)
{
    if (event != QV_MOM_EVENT_ADD) return;
    const auto *rec = reinterpret_cast<const UIntf__PmxIfxTbl *>(record);
    if (rec->ifx >= kFollowed) return;
    std::lock_guard<std::mutex> lock(g_follower.mutex);
    int &r = g_follower.round[rec->ifx];
    if (r != g_follower.target && rec->slot == g_follower.target && ++g_follower.at_target == kFollowed)
        g_follower.cv.notify_all();
    r = rec->slot;
}

void on_loaded(void *, int, int, void *)
{
    std::lock_guard<std::mutex> lock(g_follower.mutex);
    g_follower.loaded = true;
    g_follower.cv.notify_all();
}

// Attaches the calling thread to glb (a thread reads one store at a time).
qv_mom_thread_global_t *attach_to(qv_mom_glb_t *glb)
{
    auto *cur = static_cast<qv_mom_thread_global_t *>(qv_mom_get_thread_local_global());
    if (cur != nullptr && cur->glb == glb) return cur;
    if (cur != nullptr) qv_mom_thread_detach();
    return qv_mom_thread_attach(glb, nullptr);
}

// One private server and the two stores, made on first use and torn down by main before it
// returns (while the main thread's attachment still exists).
class Setup {
public:
    static Setup &get()
    {
        if (!instance_) instance_.reset(new Setup);
        return *instance_;
    }
    static void teardown() { instance_.reset(); }
    ~Setup()
    {
        if (qv_mom_get_thread_local_global() != nullptr) qv_mom_thread_detach();
        if (redis_ != nullptr) qv_mom_glb_destroy(redis_);
        if (embedded_ != nullptr) qv_mom_glb_destroy(embedded_);
    }
    Setup(const Setup &) = delete;
    Setup &operator=(const Setup &) = delete;

    bool ok() const { return error_.empty(); }
    const std::string &error() const { return error_; }
    pmx_test::RedisServer &server() { return server_; }
    qv_mom_glb_t *redis() { return redis_; }
    qv_mom_glb_t *embedded() { return embedded_; }

    qv_mom_thread_global_t *attach(qv_mom_glb_t *glb) { return attach_to(glb); }

    // A raw connection to the server with the database selected.
    redisContext *raw()
    {
        redisContext *c = redisConnectUnix(server_.socket_path().c_str());
        if (c == nullptr || c->err != 0) return c;
        freeReplyObject(redisCommand(c, "SELECT %d", kDb));
        return c;
    }

    // The follower on the Redis store, subscribed and loaded once.
    bool follow()
    {
        if (following_) return true;
        qv_mom_ab_t *ab = qv_mom_ab_init(redis_, "bench", nullptr, nullptr);
        qv_mom_key_desc_t desc{&u_intf__ifx_index__descriptor, &u_intf__pmx_ifx_tbl__descriptor,
                               "bench", kDb};
        int ds = ab != nullptr ? qv_mom_reg_ds(ab, &desc, 1, nullptr, 0) : -1;
        if (ds < 0 || qv_mom_reg_single_ds_event(redis_, ds, QV_MOM_DS_EVENT_ALL_LOADED, on_loaded, nullptr) != 0 ||
            qv_mom_reg_key_event(redis_, &desc, QV_MOM_EVENT_ADD, on_record) != 0)
            return false;
        std::unique_lock<std::mutex> lock(g_follower.mutex);
        following_ = g_follower.cv.wait_for(lock, std::chrono::seconds(10), [] { return g_follower.loaded; });
        return following_;
    }

private:
    Setup()
    {
        setenv("PMX_DB_BACKOFF_MS", "1", 1); // the follower tries again at once after a restart
        if (!server_.start()) {
            error_ = server_.error();
            return;
        }
        char err[256] = "";
        redis_ = qv_mom_glb_create(server_.url().c_str(), err, sizeof err);
        embedded_ = qv_mom_glb_create("embedded:bench", err, sizeof err);
        if (redis_ == nullptr || embedded_ == nullptr) error_ = err;
    }

    static std::unique_ptr<Setup> instance_;
    pmx_test::RedisServer server_;
    qv_mom_glb_t *redis_ = nullptr;
    qv_mom_glb_t *embedded_ = nullptr;
    bool following_ = false;
    std::string error_;
};
std::unique_ptr<Setup> Setup::instance_;

// Writes the records 0..n-1 of a round through the client.
bool fill(qv_mom_glb_t *glb, uint32_t n, int round)
{
    auto *ctx = Setup::get().attach(glb);
    for (uint32_t ifx = 0; ifx < n; ++ifx) {
        UIntf__IfxIndex idx = U_INTF__IFX_INDEX__INIT;
        idx.ifx = ifx;
        qv_mom_key_t key{&idx.base, &u_intf__pmx_ifx_tbl__descriptor};
        std::string packed = pack_ifx(ifx, round);
        ProtobufCMessage *rec = protobuf_c_message_unpack(
            &u_intf__pmx_ifx_tbl__descriptor, nullptr, packed.size(), reinterpret_cast<const uint8_t *>(packed.data()));
        int rc = qv_mom_set_sync(ctx, kDb, &key, rec);
        protobuf_c_message_free_unpacked(rec, nullptr);
        if (rc != QV_MOM_OK) return false;
    }
    return true;
}

// Writes records 0..kFollowed-1 of a round in one pipeline on a raw connection, into db.
bool pipeline_write(int round, int db = kDb)
{
    std::vector<std::string> keys, values;
    for (uint32_t ifx = 0; ifx < kFollowed; ++ifx) {
        keys.push_back(key_text(ifx));
        values.push_back(pack_ifx(ifx, round));
    }
    redisContext *c = Setup::get().raw();
    if (c == nullptr || c->err != 0) return false;
    if (db != kDb) freeReplyObject(redisCommand(c, "SELECT %d", db));
    for (uint32_t i = 0; i < kFollowed; ++i)
        redisAppendCommand(c, "SET %b %b", keys[i].data(), keys[i].size(), values[i].data(), values[i].size());
    bool ok = true;
    for (uint32_t i = 0; i < kFollowed && ok; ++i) {
        void *reply = nullptr;
        ok = redisGetReply(c, &reply) == REDIS_OK;
        freeReplyObject(reply);
    }
    redisFree(c);
    return ok;
}

// A bare hiredis subscriber on a thread of its own, counting the key events of one database.
class RawFeed {
public:
    RawFeed(const std::string &socket, int db) : c_(redisConnectUnix(socket.c_str()))
    {
        if (c_ == nullptr || c_->err != 0) return;
        auto *r = static_cast<redisReply *>(redisCommand(c_, "PSUBSCRIBE __keyspace@%d__:*", db));
        ok_ = r != nullptr && r->type == REDIS_REPLY_ARRAY;
        freeReplyObject(r);
        if (ok_) thread_ = std::thread([this] { run(); });
    }
    ~RawFeed()
    {
        if (thread_.joinable()) {
            ::shutdown(c_->fd, SHUT_RDWR); // ends the blocking read
            thread_.join();
        }
        if (c_ != nullptr) redisFree(c_);
    }
    RawFeed(const RawFeed &) = delete;
    RawFeed &operator=(const RawFeed &) = delete;

    bool ok() const { return ok_; }
    void reset()
    {
        std::lock_guard<std::mutex> lock(mutex_);
        count_ = 0;
    }
    bool wait(uint32_t n, std::chrono::seconds limit)
    {
        std::unique_lock<std::mutex> lock(mutex_);
        return cv_.wait_for(lock, limit, [&] { return count_ >= n; });
    }

private:
    void run()
    {
        for (;;) {
            void *reply = nullptr;
            if (redisGetReply(c_, &reply) != REDIS_OK || reply == nullptr) return;
            const auto *r = static_cast<redisReply *>(reply);
            if (r->type == REDIS_REPLY_ARRAY && r->elements == 4) {
                std::lock_guard<std::mutex> lock(mutex_);
                ++count_;
                cv_.notify_all();
            }
            freeReplyObject(reply);
        }
    }

    redisContext *c_;
    bool ok_ = false;
    std::thread thread_;
    std::mutex mutex_;
    std::condition_variable cv_;
    uint32_t count_ = 0;
};

struct RawGet {};
struct RedisClient {};
struct EmbeddedClient {};

template <class Impl> void BM_Read(benchmark::State &state)
{
    Setup &s = Setup::get();
    if (!s.ok()) return state.SkipWithError(s.error().c_str());
    const auto n = static_cast<uint32_t>(state.range(0));
    qv_mom_glb_t *glb = std::is_same_v<Impl, EmbeddedClient> ? s.embedded() : s.redis();
    if (!fill(glb, n, 1)) return state.SkipWithError("cannot write the records");
    uint32_t ifx = 0;
    size_t bytes = 0;
    if constexpr (std::is_same_v<Impl, RawGet>) {
        redisContext *c = s.raw();
        std::vector<std::string> keys;
        for (uint32_t i = 0; i < n; ++i) keys.push_back(key_text(i));
        for (auto _ : state) {
            const char *argv[] = {"GET", keys[ifx].data()};
            const size_t len[] = {3, keys[ifx].size()};
            auto *r = static_cast<redisReply *>(redisCommandArgv(c, 2, argv, len));
            bytes += r->len;
            freeReplyObject(r);
            ifx = ifx + 1 == n ? 0 : ifx + 1;
        }
        redisFree(c);
    } else {
        auto *ctx = s.attach(glb);
        for (auto _ : state) {
            UIntf__IfxIndex idx = U_INTF__IFX_INDEX__INIT;
            idx.ifx = ifx;
            qv_mom_key_t key{&idx.base, &u_intf__pmx_ifx_tbl__descriptor};
            int err = 0;
            ProtobufCMessage *rec = qv_mom_get_sync(ctx, kDb, &key, &err);
            bytes += rec != nullptr ? 1 : 0;
            qv_mom_qv_obj_free(rec);
            ifx = ifx + 1 == n ? 0 : ifx + 1;
        }
    }
    benchmark::DoNotOptimize(bytes);
    if (bytes == 0) state.SkipWithError("nothing was read");
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK_TEMPLATE(BM_Read, RawGet)->Arg(1000);
BENCHMARK_TEMPLATE(BM_Read, RedisClient)->Arg(1000);
BENCHMARK_TEMPLATE(BM_Read, EmbeddedClient)->Arg(1000);

int g_round = 10;

void BM_EventRate(benchmark::State &state)
{
    Setup &s = Setup::get();
    if (!s.ok()) return state.SkipWithError(s.error().c_str());
    if (!s.follow()) return state.SkipWithError("the follower did not load");
    RawFeed raw(s.server().socket_path(), kRawDb);
    if (!raw.ok()) return state.SkipWithError("the reference cannot subscribe");
    double feed_s = 0, follower_s = 0;
    for (auto _ : state) {
        ++g_round;
        raw.reset();
        auto t0 = Clock::now();
        if (!pipeline_write(g_round, kRawDb)) return state.SkipWithError("pipeline failed");
        if (!raw.wait(kFollowed, std::chrono::seconds(60))) return state.SkipWithError("reference events missing");
        feed_s += seconds_since(t0);

        g_follower.reset_target(g_round);
        t0 = Clock::now();
        if (!pipeline_write(g_round)) return state.SkipWithError("pipeline failed");
        if (!g_follower.wait_all(std::chrono::seconds(60))) return state.SkipWithError("events missing");
        const double t = seconds_since(t0);
        follower_s += t;
        state.SetIterationTime(t);
    }
    const double n = static_cast<double>(state.iterations()) * kFollowed;
    state.SetItemsProcessed(static_cast<int64_t>(n));
    state.counters["feed_per_second"] = n / feed_s; // the reference's rate
    state.counters["x_feed"] = follower_s / feed_s; // the follower's time as a multiple of it
}
BENCHMARK(BM_EventRate)->Arg(kFollowed)->UseManualTime()->Iterations(3)->Unit(benchmark::kMillisecond);

void BM_Converge(benchmark::State &state)
{
    Setup &s = Setup::get();
    if (!s.ok()) return state.SkipWithError(s.error().c_str());
    if (!s.follow()) return state.SkipWithError("the follower did not load");
    for (auto _ : state) {
        g_follower.reset_target(++g_round);
        if (!s.server().kill9() || !s.server().start()) return state.SkipWithError(s.server().error().c_str());
        auto t0 = std::chrono::steady_clock::now();
        if (!pipeline_write(g_round)) return state.SkipWithError("pipeline failed");
        if (!g_follower.wait_all(std::chrono::seconds(60))) return state.SkipWithError("did not converge");
        state.SetIterationTime(std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count());
    }
    state.SetItemsProcessed(state.iterations() * kFollowed);
}
BENCHMARK(BM_Converge)->Arg(kFollowed)->UseManualTime()->Iterations(3)->Unit(benchmark::kMillisecond);

#ifdef PMX_BENCH_CHASSIS
// What the chassis follower holds: the key text of each record.
struct ChassisMirror {
    std::mutex mutex;
    std::condition_variable cv;
    std::unordered_set<std::string> held;
    size_t want = 0; // woken when held reaches this size
    uint64_t events = 0;

    void expect(size_t n)
    {
        std::lock_guard<std::mutex> lock(mutex);
        want = n;
    }
    bool wait(std::chrono::seconds limit)
    {
        std::unique_lock<std::mutex> lock(mutex);
        return cv.wait_for(lock, limit, [&] { return held.size() == want; });
    }
} g_chassis;

void on_chassis_record(void *, int event, const ProtobufCMessage *key, const ProtobufCMessage *record)
{
    const qv_mom_key_t k{key, record->descriptor};
    char buf[256];
    const int n = qv_mom_key_text(&k, buf, sizeof buf);
    if (n < 0 || static_cast<size_t>(n) >= sizeof buf) return;
    std::lock_guard<std::mutex> lock(g_chassis.mutex);
    ++g_chassis.events;
    if (event == QV_MOM_EVENT_ADD)
        g_chassis.held.emplace(buf, static_cast<size_t>(n));
    else
        g_chassis.held.erase(std::string(buf, static_cast<size_t>(n)));
    if (g_chassis.held.size() == g_chassis.want) g_chassis.cv.notify_all();
}

// The large chassis in a server of its own, and a follower of every kind the library follows
// on it, loaded once.
class Chassis {
public:
    static Chassis &get()
    {
        if (!instance_) instance_.reset(new Chassis);
        return *instance_;
    }
    static void teardown() { instance_.reset(); }
    ~Chassis()
    {
        auto *cur = static_cast<qv_mom_thread_global_t *>(qv_mom_get_thread_local_global());
        if (cur != nullptr && cur->glb == glb_) qv_mom_thread_detach();
        if (glb_ != nullptr) qv_mom_glb_destroy(glb_);
    }
    Chassis(const Chassis &) = delete;
    Chassis &operator=(const Chassis &) = delete;

    const std::string &error() const { return error_; }
    pmx_test::RedisServer &server() { return server_; }
    qv_mom_glb_t *glb() { return glb_; }
    const std::vector<const pmx_tool::Record *> &followed() const { return followed_; }
    double snapshot_s() const { return snapshot_s_; }

private:
    Chassis()
    {
        setenv("PMX_DB_BACKOFF_MS", "1", 1);
        if (!server_.start()) {
            error_ = server_.error();
            return;
        }
        if (!pmx_tool::generate_chassis(PMX_SOURCE_DIR "/examples/chassis/large.topo.json", {}, &gen_, &error_))
            return;
        char err[256] = "";
        glb_ = qv_mom_glb_create(server_.url().c_str(), err, sizeof err);
        auto *ctx = glb_ != nullptr ? attach_to(glb_) : nullptr;
        if (ctx == nullptr) {
            error_ = std::string("cannot open the chassis store: ") + err;
            return;
        }
        for (size_t start = 0; start < gen_.records.size(); start += 1000) {
            const size_t end = std::min(gen_.records.size(), start + 1000);
            std::vector<qv_mom_key_t> keys;
            std::vector<qv_mom_batch_write_t> writes;
            keys.reserve(end - start);
            for (size_t i = start; i < end; ++i) {
                const pmx_tool::Record &r = gen_.records[i];
                keys.push_back({r.key, r.kind()});
                writes.push_back({r.db, &keys.back(), r.value.get(), r.form == pmx_tool::Form::Hash});
            }
            if (qv_mom_write_batch_sync(ctx, writes.data(), writes.size()) != QV_MOM_OK) {
                error_ = "cannot write the chassis";
                return;
            }
        }
        const qv_mom_key_desc_t *in = libpmx_mom_in_keys();
        std::unordered_set<std::string> texts;
        for (const pmx_tool::Record &r : gen_.records) {
            bool is_followed = false;
            for (int i = 0; i < LIBPMX_MOM_IN_KEYS; ++i)
                is_followed = is_followed || (in[i].db == r.db && in[i].value == r.kind());
            if (!is_followed) continue;
            followed_.push_back(&r);
            const qv_mom_key_t k{r.key, r.kind()};
            char buf[256];
            const int n = qv_mom_key_text(&k, buf, sizeof buf);
            if (n > 0 && static_cast<size_t>(n) < sizeof buf) texts.emplace(buf, static_cast<size_t>(n));
        }
        if (texts.size() != followed_.size()) {
            error_ = "the key texts of the followed records are not all distinct";
            return;
        }
        g_chassis.expect(followed_.size());
        const auto t0 = Clock::now();
        qv_mom_ab_t *ab = qv_mom_ab_init(glb_, "bench-chassis", nullptr, nullptr);
        if (ab == nullptr || qv_mom_reg_ds(ab, in, LIBPMX_MOM_IN_KEYS, nullptr, 0) < 0) {
            error_ = "cannot register the chassis follower";
            return;
        }
        for (int i = 0; i < LIBPMX_MOM_IN_KEYS; ++i)
            if (qv_mom_reg_key_event(glb_, &in[i], QV_MOM_EVENT_ADD, on_chassis_record) != 0 ||
                qv_mom_reg_key_event(glb_, &in[i], QV_MOM_EVENT_DEL, on_chassis_record) != 0) {
                error_ = "cannot register the chassis callbacks";
                return;
            }
        if (!g_chassis.wait(std::chrono::seconds(120))) {
            error_ = "the chassis follower did not load";
            return;
        }
        snapshot_s_ = seconds_since(t0);
    }

    static std::unique_ptr<Chassis> instance_;
    pmx_test::RedisServer server_;
    pmx_tool::Chassis gen_;
    std::vector<const pmx_tool::Record *> followed_;
    qv_mom_glb_t *glb_ = nullptr;
    double snapshot_s_ = 0;
    std::string error_;
};
std::unique_ptr<Chassis> Chassis::instance_;

// Returns once the server on the socket answers PING (it has loaded its data), or after limit.
bool wait_answering(const std::string &socket, std::chrono::seconds limit)
{
    const auto deadline = Clock::now() + limit;
    redisContext *c = nullptr;
    bool up = false;
    while (!up && Clock::now() < deadline) {
        if (c == nullptr) c = redisConnectUnix(socket.c_str());
        auto *r = c != nullptr && c->err == 0 ? static_cast<redisReply *>(redisCommand(c, "PING")) : nullptr;
        up = r != nullptr && r->type == REDIS_REPLY_STATUS;
        freeReplyObject(r);
        if (r == nullptr && c != nullptr) {
            redisFree(c);
            c = nullptr;
        }
        if (!up) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    if (c != nullptr) redisFree(c);
    return up;
}

void BM_ConvergeChassis(benchmark::State &state)
{
    Chassis &c = Chassis::get();
    if (!c.error().empty()) return state.SkipWithError(c.error().c_str());
    const auto &followed = c.followed();
    const size_t changed = (followed.size() + 99) / 100;
    uint64_t events = 0;
    for (auto _ : state) {
        if (!c.server().save()) return state.SkipWithError(c.server().error().c_str());
        auto *ctx = attach_to(c.glb());
        g_chassis.expect(followed.size() - changed);
        for (size_t i = 0; i < followed.size(); i += 100) {
            const qv_mom_key_t key{followed[i]->key, followed[i]->kind()};
            if (qv_mom_del_sync(ctx, followed[i]->db, &key) != QV_MOM_OK) return state.SkipWithError("delete failed");
        }
        if (!g_chassis.wait(std::chrono::seconds(60))) return state.SkipWithError("the deletes were not followed");
        g_chassis.expect(followed.size());
        uint64_t before = 0;
        {
            std::lock_guard<std::mutex> lock(g_chassis.mutex);
            before = g_chassis.events;
        }
        if (!c.server().kill9()) return state.SkipWithError(c.server().error().c_str());
        std::atomic<bool> restarted{false};
        std::thread restart([&] { restarted = c.server().start_with_saved_data(); });
        const bool answering = wait_answering(c.server().socket_path(), std::chrono::seconds(60));
        const auto t0 = Clock::now();
        const bool converged = answering && g_chassis.wait(std::chrono::seconds(60));
        const double t = seconds_since(t0);
        restart.join();
        if (!restarted || !answering) return state.SkipWithError(c.server().error().c_str());
        if (!converged) return state.SkipWithError("did not converge");
        state.SetIterationTime(t);
        std::lock_guard<std::mutex> lock(g_chassis.mutex);
        events += g_chassis.events - before;
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * followed.size()));
    state.counters["records"] = static_cast<double>(followed.size());
    state.counters["changed"] = static_cast<double>(changed);
    // Events handed on per restart: the changed records alone, when nothing else was re-delivered.
    state.counters["events"] = static_cast<double>(events) / static_cast<double>(state.iterations());
    state.counters["first_snapshot_s"] = c.snapshot_s(); // the follower's load at registration
}
BENCHMARK(BM_ConvergeChassis)->UseManualTime()->Iterations(3)->Unit(benchmark::kMillisecond);
#endif

} // namespace

// Round trips drift with where the scheduler puts the server and the client, so the cases run
// interleaved in random order unless the command line says otherwise.
int main(int argc, char **argv)
{
    std::vector<char *> args(argv, argv + argc);
    bool chosen = false;
    for (char *a : args) chosen |= std::string(a).rfind("--benchmark_enable_random_interleaving", 0) == 0;
    static char interleave[] = "--benchmark_enable_random_interleaving=true";
    if (!chosen) args.push_back(interleave);
    argc = static_cast<int>(args.size());
    args.push_back(nullptr);
    argv = args.data();
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
#ifdef PMX_BENCH_CHASSIS
    Chassis::teardown();
#endif
    Setup::teardown();
    return 0;
}

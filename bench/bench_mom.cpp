// The database client on a private Redis (scripts/redis-private) and on the embedded store.
// BM_Read: one interface record read by key. RawGet is a bare hiredis GET of the same bytes on
// its own connection to the same socket (the reference); RedisClient is qv_mom_get_sync on
// that server, key text and unpacking included; EmbeddedClient the same call on the embedded
// store. BM_EventRate: 20,000 records written in one pipeline, timed until the follower has
// been handed every one. BM_Converge: the server is killed and started again empty, the
// 20,000 records are written again, timed until the follower holds every new value.
#include <benchmark/benchmark.h>
#include <hiredis/hiredis.h>

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "qv_mom.h"
#include "redis_server.h"
#include "u_intf.pb-c.h"

namespace {

constexpr int kDb = 26;
constexpr uint32_t kFollowed = 20000;

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

    // Attaches the calling thread to glb (a thread reads one store at a time).
    qv_mom_thread_global_t *attach(qv_mom_glb_t *glb)
    {
        auto *cur = static_cast<qv_mom_thread_global_t *>(qv_mom_get_thread_local_global());
        if (cur != nullptr && cur->glb == glb) return cur;
        if (cur != nullptr) qv_mom_thread_detach();
        return qv_mom_thread_attach(glb, nullptr);
    }

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

// Writes records 0..kFollowed-1 of a round in one pipeline on a raw connection.
bool pipeline_write(int round)
{
    std::vector<std::string> keys, values;
    for (uint32_t ifx = 0; ifx < kFollowed; ++ifx) {
        keys.push_back(key_text(ifx));
        values.push_back(pack_ifx(ifx, round));
    }
    redisContext *c = Setup::get().raw();
    if (c == nullptr || c->err != 0) return false;
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
    for (auto _ : state) {
        g_follower.reset_target(++g_round);
        auto t0 = std::chrono::steady_clock::now();
        if (!pipeline_write(g_round)) return state.SkipWithError("pipeline failed");
        if (!g_follower.wait_all(std::chrono::seconds(60))) return state.SkipWithError("events missing");
        state.SetIterationTime(std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count());
    }
    state.SetItemsProcessed(state.iterations() * kFollowed);
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
    Setup::teardown();
    return 0;
}

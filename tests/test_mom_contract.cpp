// The database client's contract, run against every back end: the embedded store and a private
// Redis server. Reads, writes, record forms, key events, snapshots and per-thread contexts.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <compare>
#include <condition_variable>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "mom/backend.h"
#include "p_dev.pb-c.h"
#include "qv_mom.h"
#include "redis_server.h"
#include "s_intf.pb-c.h"
#include "time_scale.h"
#include "u_intf.pb-c.h"

namespace
{

// Field 12 (int32 unit) carried as length-delimited bytes: not a pmx_ifx_tbl, nor its unit field.
const std::string kWrongWire("\x62\x02\x01\x02", 4);

std::string Packed(const ProtobufCMessage *m)
{
    std::string out(protobuf_c_message_get_packed_size(m), '\0');
    protobuf_c_message_pack(m, reinterpret_cast<uint8_t *>(out.data()));
    return out;
}

// What a read gave, as one comparable text: the packed record, "none" for an absent key with
// no error, or the error code.
std::string Result(ProtobufCMessage *m, int err)
{
    std::string out = m != nullptr ? Packed(m) : err == QV_MOM_OK ? "none" : "error " + std::to_string(err);
    if (m != nullptr && err != QV_MOM_OK) out += " with error " + std::to_string(err);
    return out;
}
std::string Error(int err) { return Result(nullptr, err); }
std::string GetWith(void *ctx, int db, const qv_mom_key_t &k)
{
    int err = -100;
    ProtobufCMessage *m = qv_mom_get_sync(ctx, db, &k, &err);
    std::string out = Result(m, err);
    qv_mom_qv_obj_free(m);
    return out;
}

std::string KeyText(const ProtobufCMessage *key, const ProtobufCMessageDescriptor *record)
{
    qv_mom_key_t k{key, record};
    char buf[256];
    int n = qv_mom_key_text(&k, buf, sizeof buf);
    return n < 0 ? "<error " + std::to_string(n) + ">" : std::string(buf);
}

// An interface record, the sub-AP record of the same key message, and their key.
struct Ifx {
    UIntf__IfxIndex idx = U_INTF__IFX_INDEX__INIT;
    UIntf__PmxIfxTbl rec = U_INTF__PMX_IFX_TBL__INIT;
    UIntf__PmxSubApIntf ap = U_INTF__PMX_SUB_AP_INTF__INIT;
    Ifx(uint32_t ifx, int32_t port)
    {
        idx.ifx = rec.ifx = ifx;
        rec.port = port;
        rec.gphyid = ap.phyid = ifx * 2 + 1;
    }
    const ProtobufCMessage *msg() { return rec.index = &idx, &rec.base; }
    const ProtobufCMessage *ap_msg() { return ap.index = &idx, &ap.base; }
    qv_mom_key_t key() const { return {&idx.base, &u_intf__pmx_ifx_tbl__descriptor}; }
    qv_mom_key_t ap_key() const { return {&idx.base, &u_intf__pmx_sub_ap_intf__descriptor}; }
    std::string text() const { return "u_intf.pmx_ifx_tbl|" + std::to_string(idx.ifx); }
};

// What the key-event and data-source callbacks saw, in order.
struct Seen {
    int event; // QV_MOM_EVENT_*, or -1 for a data-source event
    std::string key;
    std::string record; // packed
    auto operator<=>(const Seen &) const = default;
};
void PrintTo(const Seen &s, std::ostream *os) { *os << "{" << s.event << " " << s.key << "}"; }
using Seens = std::vector<Seen>;
using Records = std::map<std::string, std::string>; // key text -> packed record

struct Recorder {
    void add(Seen s)
    {
        std::lock_guard<std::mutex> lock(mutex_);
        seen_.push_back(std::move(s));
        cv_.notify_all();
    }
    // Waits (5 s at most) until pred holds over what has been seen.
    bool wait(const std::function<bool(const Seens &)> &pred)
    {
        std::unique_lock<std::mutex> lock(mutex_);
        return cv_.wait_for(lock, pmx_test::at_most(std::chrono::seconds(5)), [&] { return pred(seen_); });
    }
    bool wait_for_key(const std::string &key, int event)
    {
        return wait([&](const Seens &v) {
            return std::any_of(v.begin(), v.end(), [&](const Seen &s) { return s.key == key && s.event == event; });
        });
    }
    Seens take()
    {
        std::lock_guard<std::mutex> lock(mutex_);
        return std::exchange(seen_, {});
    }
    std::mutex mutex_;
    std::condition_variable cv_;
    Seens seen_;
};

Recorder *g_rec = nullptr;

void OnKey(void *ctx, int event, const ProtobufCMessage *key, const ProtobufCMessage *record)
{
    EXPECT_EQ(qv_mom_client_connect_sync(ctx, 0), QV_MOM_OK) << "a callback reads with its context";
    g_rec->add({event, KeyText(key, record->descriptor), Packed(record)});
}

void OnLoaded(void *, int ds, int event, void *)
{
    g_rec->add({-1, "ds" + std::to_string(ds) + "/" + std::to_string(event), ""});
}
std::string Loaded(int ds) { return "ds" + std::to_string(ds) + "/" + std::to_string(QV_MOM_DS_EVENT_ALL_LOADED); }

class MomContract : public ::testing::TestWithParam<std::string>
{
  protected:
    void SetUp() override
    {
        if (GetParam() == "redis") {
            ASSERT_TRUE(server_.start()) << "the private Redis server did not start: " << server_.error();
            url_ = server_.url();
        } else {
            url_ = std::string("embedded:") + ::testing::UnitTest::GetInstance()->current_test_info()->name();
        }
        char err[256] = "";
        glb_ = qv_mom_glb_create(url_.c_str(), err, sizeof err);
        ASSERT_NE(glb_, nullptr) << err;
        ctx_ = qv_mom_thread_attach(glb_, nullptr);
        ASSERT_NE(ctx_, nullptr);
        g_rec = &rec_;
    }
    void TearDown() override
    {
        qv_mom_thread_detach();
        qv_mom_glb_destroy(glb_);
        g_rec = nullptr;
    }

    int Set(int db, Ifx &r)
    {
        qv_mom_key_t k = r.key();
        return qv_mom_set_sync(ctx_, db, &k, r.msg());
    }
    std::string Get(int db, const qv_mom_key_t &k) { return GetWith(ctx_, db, k); }
    std::string HGetAll(int db, const qv_mom_key_t &k)
    {
        qv_mom_hash_res_t *h = qv_mom_hgetall_sync(ctx_, db, &k);
        std::string out = h != nullptr ? Result(h->value, h->error_code) : "no result";
        qv_mom_hash_res_free(h);
        return out;
    }
    // Straight through the back end, below the client's checks.
    std::unique_ptr<qv::mom::Connection> Raw()
    {
        std::string err; // the glb has opened this URL already
        return qv::mom::open_backend(url_, &err)->connect();
    }
    void RegIfx(int db, int event)
    {
        qv_mom_key_desc_t d{&u_intf__ifx_index__descriptor, &u_intf__pmx_ifx_tbl__descriptor, "test", db};
        ASSERT_EQ(qv_mom_reg_key_event(glb_, &d, event, OnKey), QV_MOM_OK);
    }
    // Writes a marker record to database db and takes what was seen before its event.
    Seens TakeUpTo(int db, uint32_t marker_ifx)
    {
        Ifx marker(marker_ifx, 0);
        EXPECT_EQ(Set(db, marker), QV_MOM_OK);
        EXPECT_TRUE(rec_.wait_for_key(marker.text(), QV_MOM_EVENT_ADD));
        Seens seen = rec_.take();
        EXPECT_FALSE(seen.empty() || seen.back() != (Seen{QV_MOM_EVENT_ADD, marker.text(), Packed(marker.msg())}))
            << "the marker comes last";
        if (!seen.empty()) seen.pop_back();
        return seen;
    }
    // What a scan of the interface records of database db hands on, by key.
    Records Scan(int db)
    {
        Records got;
        auto collect = [](const char *key, const ProtobufCMessage *record, void *arg) {
            (*static_cast<Records *>(arg))[key] = record != nullptr ? Packed(record) : "null";
            return 0;
        };
        EXPECT_EQ(qv_mom_scan_sync(ctx_, db, &u_intf__pmx_ifx_tbl__descriptor, collect, &got), QV_MOM_OK);
        return got;
    }

    pmx_test::RedisServer server_;
    std::string url_;
    qv_mom_glb_t *glb_ = nullptr;
    qv_mom_thread_global_t *ctx_ = nullptr;
    Recorder rec_;
};

TEST_P(MomContract, EveryDatabaseHoldsItsOwnRecordsAndScansFindThemAll)
{
    for (int db = 0; db < QV_MOM_DB_COUNT; ++db) {
        Ifx r(static_cast<uint32_t>(100 + db), db);
        ASSERT_EQ(qv_mom_client_connect_sync(ctx_, db), QV_MOM_OK) << db;
        ASSERT_EQ(Set(db, r), QV_MOM_OK) << db;
    }
    for (int db = 0; db < QV_MOM_DB_COUNT; ++db) {
        Ifx r(static_cast<uint32_t>(100 + db), db);
        qv_mom_key_t k = r.key();
        EXPECT_EQ(Scan(db), (Records{{r.text(), Packed(r.msg())}})) << db;
        EXPECT_EQ(qv_mom_exists_sync(ctx_, db, &k), QV_MOM_OK);
    }
    Ifx r(1, 1);
    qv_mom_key_t k = r.key();
    for (int bad : {-1, static_cast<int>(QV_MOM_DB_COUNT)}) {
        EXPECT_EQ(qv_mom_client_connect_sync(ctx_, bad), QV_MOM_E_INVAL);
        EXPECT_EQ(Get(bad, k), Error(QV_MOM_E_INVAL));
    }

    // A scan hands on every record of its kind, one that does not unpack as null, and stops
    // when asked; another kind under the same key message is not part of it.
    auto want = Scan(6);
    for (uint32_t i = 0; i < 50; ++i) {
        Ifx w(i * 7, static_cast<int32_t>(i));
        ASSERT_EQ(Set(6, w), QV_MOM_OK);
        want[w.text()] = Packed(w.msg());
    }
    Ifx spoiled(1000, 0);
    ASSERT_EQ(Raw()->hset(6, spoiled.text(), {{"unit", kWrongWire}}), QV_MOM_OK);
    want[spoiled.text()] = "null";
    qv_mom_key_t kap = r.ap_key();
    ASSERT_EQ(qv_mom_set_sync(ctx_, 6, &kap, r.ap_msg()), QV_MOM_OK);
    EXPECT_EQ(Scan(6), want);
    int calls = 0;
    auto stop = [](const char *, const ProtobufCMessage *, void *arg) {
        return ++*static_cast<int *>(arg) == 3 ? 42 : 0;
    };
    EXPECT_EQ(qv_mom_scan_sync(ctx_, 6, &u_intf__pmx_ifx_tbl__descriptor, stop, &calls), 42);
    EXPECT_EQ(calls, 3);
}

TEST_P(MomContract, PlainAndHashRecordsWrongTypesAndValuesThatDoNotUnpack)
{
    Ifx r(12, 7), hashed(13, 1);
    qv_mom_key_t k = r.key(), kh = hashed.key(), kap = r.ap_key();
    // Missing: no record, no error.
    EXPECT_EQ(Get(3, k), "none");
    EXPECT_EQ(qv_mom_exists_sync(ctx_, 3, &k), QV_MOM_ABSENT);
    EXPECT_EQ(HGetAll(3, k), "none");

    ASSERT_EQ(Set(3, r), QV_MOM_OK);
    // The same key message keys another record: a separate key.
    ASSERT_EQ(qv_mom_set_sync(ctx_, 3, &kap, r.ap_msg()), QV_MOM_OK);
    EXPECT_EQ(Get(3, kap), Packed(r.ap_msg()));
    // A record of another kind than the key names is refused and changes nothing.
    EXPECT_EQ(qv_mom_set_sync(ctx_, 3, &k, r.ap_msg()), QV_MOM_E_INVAL);
    EXPECT_EQ(Get(3, k), Packed(r.msg()));
    // A hash read of a plain record, a plain read of a hash record, a hash write on a plain one.
    EXPECT_EQ(HGetAll(3, k), Error(QV_MOM_E_SERVER));
    ASSERT_EQ(qv_mom_hset_sync(ctx_, 3, &kh, hashed.msg(), nullptr, 0), QV_MOM_OK);
    EXPECT_EQ(Get(3, kh), Error(QV_MOM_E_SERVER));
    EXPECT_EQ(qv_mom_hset_sync(ctx_, 3, &k, r.msg(), nullptr, 0), QV_MOM_E_SERVER);
    EXPECT_EQ(qv_mom_del_sync(ctx_, 3, &k), QV_MOM_OK);
    EXPECT_EQ(qv_mom_exists_sync(ctx_, 3, &k), QV_MOM_ABSENT);

    // A hash write of named fields changes only those; a field written at its default is cleared.
    EXPECT_EQ(HGetAll(3, kh), Packed(hashed.msg()));
    Ifx upd(13, 9);
    const char *names[] = {"port", "gphyid"}, *unknown[] = {"no_such_field"};
    upd.rec.gphyid = 0;
    ASSERT_EQ(qv_mom_hset_sync(ctx_, 3, &kh, upd.msg(), names, 2), QV_MOM_OK);
    hashed.rec.port = 9;
    hashed.rec.gphyid = 0;
    EXPECT_EQ(HGetAll(3, kh), Packed(hashed.msg()));
    EXPECT_EQ(qv_mom_hset_sync(ctx_, 3, &kh, upd.msg(), unknown, 1), QV_MOM_E_INVAL);
    EXPECT_EQ(HGetAll(3, kh), Packed(hashed.msg()));

    // A value that does not unpack is a failed read: plain, or one field of a hash.
    auto raw = Raw();
    ASSERT_EQ(raw->set(3, r.text(), kWrongWire), QV_MOM_OK);
    EXPECT_EQ(Get(3, k), Error(QV_MOM_E_DECODE));
    ASSERT_EQ(raw->hset(3, hashed.text(), {{"unit", kWrongWire}}), QV_MOM_OK);
    EXPECT_EQ(HGetAll(3, kh), Error(QV_MOM_E_DECODE));

    // A singleton is keyed by its name, in either form; binary values come back intact.
    PDev__DpLibMyInfo me = P_DEV__DP_LIB_MY_INFO__INIT;
    me.slotid = 5;
    uint8_t mac[] = {0, 1, 2, 0xfe};
    me.my_card_mac_addr = {sizeof mac, mac};
    qv_mom_key_t ks{&me.base, nullptr};
    EXPECT_EQ(KeyText(&me.base, nullptr), "p_dev.dp_lib_my_info");
    ASSERT_EQ(qv_mom_set_sync(ctx_, 26, &ks, &me.base), QV_MOM_OK);
    EXPECT_EQ(Get(26, ks), Packed(&me.base));
    ASSERT_EQ(qv_mom_del_sync(ctx_, 26, &ks), QV_MOM_OK);
    ASSERT_EQ(qv_mom_hset_sync(ctx_, 26, &ks, &me.base, nullptr, 0), QV_MOM_OK);
    EXPECT_EQ(HGetAll(26, ks), Packed(&me.base));
}

// A batch stores what the single writes would, across databases and in order (the later of two
// writes of one key wins); a bad write refuses the whole batch before anything is stored; a store
// failure names the first write that failed and leaves the ones before it stored.
TEST_P(MomContract, BatchWritesEqualSingleWrites)
{
    std::vector<Ifx> recs;
    for (uint32_t i = 0; i < 2500; ++i) recs.emplace_back(100 + i % 2400, i);
    std::vector<qv_mom_key_t> keys;
    for (auto &r : recs) keys.push_back(r.key());
    std::vector<qv_mom_batch_write_t> writes;
    for (size_t i = 0; i < recs.size(); ++i)
        writes.push_back({i % 3 == 0 ? 4 : 5, &keys[i], recs[i].msg(), i % 5 == 0});
    ASSERT_EQ(qv_mom_write_batch_sync(ctx_, writes.data(), writes.size()), QV_MOM_OK);
    // Writes 100 on are the last of their key (the first 100 keys are written twice, alike).
    for (size_t i = 100; i < recs.size(); ++i) {
        const auto &w = writes[i];
        ASSERT_EQ(w.hash ? HGetAll(w.db, keys[i]) : Get(w.db, keys[i]), Packed(recs[i].msg())) << i;
    }

    Ifx fresh(9000, 1), other(9001, 2);
    qv_mom_key_t kf = fresh.key(), ko = other.key();
    const qv_mom_batch_write_t refused[] = {{4, &kf, fresh.msg(), 0}, {4, &ko, fresh.ap_msg(), 0}};
    EXPECT_EQ(qv_mom_write_batch_sync(ctx_, refused, 2), QV_MOM_E_INVAL);
    EXPECT_EQ(Get(4, kf), "none") << "nothing of a refused batch is stored";

    ASSERT_EQ(qv_mom_set_sync(ctx_, 4, &ko, other.msg()), QV_MOM_OK);
    const qv_mom_batch_write_t failing[] = {{4, &kf, fresh.msg(), 0}, {4, &ko, other.msg(), 1}};
    EXPECT_EQ(qv_mom_write_batch_sync(ctx_, failing, 2), QV_MOM_E_SERVER) << "a hash write on a plain record";
    EXPECT_EQ(Get(4, kf), Packed(fresh.msg()));
    EXPECT_EQ(qv_mom_write_batch_sync(ctx_, nullptr, 0), QV_MOM_OK);
}

TEST_P(MomContract, KeyEventsComeInOrderAndADeleteHandsOnTheLastRecordDelivered)
{
    auto raw = Raw();
    Ifx spoiled(99, 0); // never handed on, by the snapshot or later
    ASSERT_EQ(raw->set(3, spoiled.text(), kWrongWire), QV_MOM_OK);
    RegIfx(3, QV_MOM_EVENT_ADD);
    RegIfx(3, QV_MOM_EVENT_DEL);
    EXPECT_EQ(TakeUpTo(3, 12), Seens{});
    Ifx r(12, 2), other_db(12, 5);
    // A change, the same value again (nothing) and a database nobody follows.
    ASSERT_EQ(Set(3, r), QV_MOM_OK);
    ASSERT_EQ(Set(3, r), QV_MOM_OK);
    ASSERT_EQ(Set(4, other_db), QV_MOM_OK);
    EXPECT_EQ(TakeUpTo(3, 900), (Seens{{QV_MOM_EVENT_ADD, r.text(), Packed(r.msg())}}));

    // Re-reads may skip values written in between, but never go back (a value that does not
    // unpack, first, gives nothing).
    ASSERT_EQ(raw->set(3, r.text(), kWrongWire), QV_MOM_OK);
    std::map<std::string, int> order; // packed record -> when it was written
    for (int i = 1; i <= 200; ++i) {
        Ifx w(7, i);
        ASSERT_EQ(Set(3, w), QV_MOM_OK);
        order[Packed(w.msg())] = i;
    }
    Ifx last(7, 200);
    const std::string last_packed = Packed(last.msg());
    ASSERT_TRUE(rec_.wait([&](const Seens &v) { return !v.empty() && v.back().record == last_packed; }));
    std::vector<int> when{0}; // when each record handed on was written, in the order handed on
    for (const auto &s : rec_.take()) when.push_back(s.event == QV_MOM_EVENT_ADD ? order[s.record] : 0);
    EXPECT_TRUE(std::adjacent_find(when.begin(), when.end(), std::greater_equal<int>()) == when.end());
    // A delete hands on the last record delivered, deleting what is gone says nothing, and a
    // delete then a set of the same value is a DEL then an ADD, never merged.
    qv_mom_key_t k = r.key(), kl = last.key();
    ASSERT_EQ(qv_mom_del_sync(ctx_, 3, &k), QV_MOM_OK);
    ASSERT_EQ(qv_mom_del_sync(ctx_, 3, &k), QV_MOM_OK);
    ASSERT_EQ(qv_mom_del_sync(ctx_, 3, &kl), QV_MOM_OK);
    ASSERT_EQ(Set(3, last), QV_MOM_OK);
    EXPECT_EQ(TakeUpTo(3, 901), (Seens{{QV_MOM_EVENT_DEL, r.text(), Packed(r.msg())},
                                       {QV_MOM_EVENT_DEL, last.text(), last_packed},
                                       {QV_MOM_EVENT_ADD, last.text(), last_packed}}));

    // A string key with separators, escapes and a non-printable byte comes back intact.
    SIntf__NameIfxIndex nidx; // (the INIT macros of string fields do not build warning-free)
    protobuf_c_message_init(&s_intf__name_ifx_index__descriptor, &nidx);
    char name[] = "eth|0/1 %41\t";
    nidx.name = name;
    SIntf__NameIfx n;
    protobuf_c_message_init(&s_intf__name_ifx__descriptor, &n);
    n.index = &nidx;
    const std::string text = "s_intf.name_ifx|eth%7C0/1 %2541%09";
    EXPECT_EQ(KeyText(&nidx.base, &s_intf__name_ifx__descriptor), text);
    qv_mom_key_desc_t d{&s_intf__name_ifx_index__descriptor, &s_intf__name_ifx__descriptor, "test", 3};
    ASSERT_EQ(qv_mom_reg_key_event(glb_, &d, QV_MOM_EVENT_ADD, OnKey), QV_MOM_OK);
    qv_mom_key_t kn{&nidx.base, &s_intf__name_ifx__descriptor};
    ASSERT_EQ(qv_mom_set_sync(ctx_, 3, &kn, &n.base), QV_MOM_OK);
    ASSERT_TRUE(rec_.wait_for_key(text, QV_MOM_EVENT_ADD));
}

TEST_P(MomContract, DataSourcesSubscribeThenSnapshotThenReportAllLoadedOnce)
{
    Ifx a(1, 1), b(2, 2), b2(2, 20);
    qv_mom_key_t kap = a.ap_key();
    ASSERT_EQ(Set(26, a), QV_MOM_OK);
    ASSERT_EQ(Set(26, b), QV_MOM_OK);
    ASSERT_EQ(qv_mom_set_sync(ctx_, 26, &kap, a.ap_msg()), QV_MOM_OK);

    qv_mom_ab_t *ab = qv_mom_ab_init(glb_, "contract", nullptr, nullptr);
    ASSERT_NE(ab, nullptr);
    qv_mom_key_desc_t in[] = {
        {&u_intf__ifx_index__descriptor, &u_intf__pmx_ifx_tbl__descriptor, "contract", 26},
        {&u_intf__ifx_index__descriptor, &u_intf__pmx_sub_ap_intf__descriptor, "contract", 26},
        {&u_intf__ifx_index__descriptor, &u_intf__pmx_ifx_tbl__descriptor, "contract", 27},
    };
    int ds = qv_mom_reg_ds(ab, in, 2, nullptr, 0);
    ASSERT_GE(ds, 0);
    EXPECT_EQ(qv_mom_reg_single_ds_event(glb_, ds + 1, QV_MOM_DS_EVENT_ALL_LOADED, OnLoaded, nullptr),
              QV_MOM_E_NOT_FOUND);
    EXPECT_EQ(qv_mom_set_ds_opt(ab, ds + 1, QV_MOM_DS_OPT_SNAPSHOT, 1), QV_MOM_E_NOT_FOUND);
    ASSERT_EQ(qv_mom_reg_single_ds_event(glb_, ds, QV_MOM_DS_EVENT_ALL_LOADED, OnLoaded, nullptr), QV_MOM_OK);
    ASSERT_EQ(qv_mom_reg_key_event(glb_, &in[0], QV_MOM_EVENT_ADD, OnKey), QV_MOM_OK);
    // The source waits for its second key; a change made now is part of the snapshot.
    ASSERT_EQ(Set(26, b2), QV_MOM_OK);
    ASSERT_EQ(qv_mom_reg_key_event(glb_, &in[1], QV_MOM_EVENT_ADD, OnKey), QV_MOM_OK);
    ASSERT_TRUE(rec_.wait_for_key(Loaded(ds), -1));
    EXPECT_EQ(qv_mom_set_ds_opt(ab, ds, QV_MOM_DS_OPT_SNAPSHOT, 0), QV_MOM_E_INVAL) << "already started";
    // The snapshot (in no set order), ALL_LOADED once, then a later record (the marker).
    Seens seen = TakeUpTo(26, 3);
    std::sort(seen.begin(), std::find_if(seen.begin(), seen.end(), [](const Seen &s) { return s.event < 0; }));
    EXPECT_EQ(seen, (Seens{{QV_MOM_EVENT_ADD, a.text(), Packed(a.msg())},
                           {QV_MOM_EVENT_ADD, b.text(), Packed(b2.msg())},
                           {QV_MOM_EVENT_ADD, "u_intf.pmx_sub_ap_intf|1", Packed(a.ap_msg())},
                           {-1, Loaded(ds), ""}}));
    // Registered after the fact: told at once.
    ASSERT_EQ(qv_mom_reg_single_ds_event(glb_, ds, QV_MOM_DS_EVENT_ALL_LOADED, OnLoaded, nullptr), QV_MOM_OK);
    ASSERT_TRUE(rec_.wait_for_key(Loaded(ds), -1));
    rec_.take();

    // Without the snapshot option: ALL_LOADED, and only later changes.
    Ifx old(4, 4);
    ASSERT_EQ(Set(27, old), QV_MOM_OK);
    int ds2 = qv_mom_reg_ds(ab, &in[2], 1, nullptr, 0);
    ASSERT_GE(ds2, 0);
    ASSERT_EQ(qv_mom_set_ds_opt(ab, ds2, QV_MOM_DS_OPT_SNAPSHOT, 0), QV_MOM_OK);
    ASSERT_EQ(qv_mom_reg_single_ds_event(glb_, ds2, QV_MOM_DS_EVENT_ALL_LOADED, OnLoaded, nullptr), QV_MOM_OK);
    ASSERT_EQ(qv_mom_reg_key_event(glb_, &in[2], QV_MOM_EVENT_ADD, OnKey), QV_MOM_OK);
    ASSERT_TRUE(rec_.wait_for_key(Loaded(ds2), -1));
    EXPECT_EQ(TakeUpTo(27, 5), (Seens{{-1, Loaded(ds2), ""}}));

    // A source over kinds that have their callbacks already (a start-up done again) waits for
    // key events of its own, so its option can still be set; the callback registered again is
    // still called once per change.
    int ds3 = qv_mom_reg_ds(ab, in, 2, nullptr, 0);
    ASSERT_GE(ds3, 0);
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_EQ(qv_mom_set_ds_opt(ab, ds3, QV_MOM_DS_OPT_SNAPSHOT, 1), QV_MOM_OK);
    ASSERT_EQ(qv_mom_reg_single_ds_event(glb_, ds3, QV_MOM_DS_EVENT_ALL_LOADED, OnLoaded, nullptr), QV_MOM_OK);
    ASSERT_EQ(qv_mom_reg_key_event(glb_, &in[0], QV_MOM_EVENT_ADD, OnKey), QV_MOM_OK);
    ASSERT_EQ(qv_mom_reg_key_event(glb_, &in[1], QV_MOM_EVENT_ADD, OnKey), QV_MOM_OK);
    ASSERT_TRUE(rec_.wait_for_key(Loaded(ds3), -1));
    rec_.take();
    Ifx c(3, 3);
    ASSERT_EQ(Set(26, c), QV_MOM_OK);
    EXPECT_EQ(TakeUpTo(26, 6), (Seens{{QV_MOM_EVENT_ADD, c.text(), Packed(c.msg())}}));
}

TEST_P(MomContract, ContextsBelongToTheirThreadWhichReadsAtOnceOnItsOwnConnection)
{
    EXPECT_EQ(qv_mom_get_thread_local_global(), static_cast<void *>(ctx_));
    EXPECT_EQ(qv_mom_thread_attach(glb_, nullptr), ctx_) << "attaching twice gives the same record";
    EXPECT_NE(ctx_->master, nullptr);
    const int n = 20;
    for (int i = 0; i < n; ++i) {
        Ifx r(static_cast<uint32_t>(i), 0);
        ASSERT_EQ(Set(1, r), QV_MOM_OK);
    }
    Ifx first(0, 0);
    qv_mom_key_t k = first.key();
    std::atomic<int> bad{0};
    auto reader = [&] {
        EXPECT_EQ(qv_mom_get_thread_local_global(), nullptr);
        EXPECT_EQ(GetWith(nullptr, 1, k), Error(QV_MOM_E_INVAL));
        qv_thread_master_t *mine = qv_thread_master_create("contract"); // a master of its own making
        auto *t = qv_mom_thread_attach(glb_, mine);
        ASSERT_NE(t, nullptr);
        EXPECT_EQ(GetWith(ctx_, 1, k), Error(QV_MOM_E_INVAL)) << "another thread's context";
        EXPECT_EQ(t->master, mine);
        EXPECT_NE(t->conn, ctx_->conn);
        for (int round = 0; round < 300; ++round) {
            Ifx r(static_cast<uint32_t>(round % n), 0);
            qv_mom_key_t kr = r.key();
            int err = -100;
            auto *m = reinterpret_cast<UIntf__PmxIfxTbl *>(qv_mom_get_sync(t, 1, &kr, &err));
            bad += m == nullptr || err != QV_MOM_OK || m->ifx != r.idx.ifx || m->gphyid != r.rec.gphyid;
            qv_mom_qv_obj_free(reinterpret_cast<ProtobufCMessage *>(m));
        }
        qv_mom_thread_detach();
        EXPECT_EQ(qv_mom_get_thread_local_global(), nullptr);
        qv_thread_master_free(mine);
    };
    std::thread t1(reader), t2(reader);
    for (int round = 0; round < 300; ++round) { // the writer changes what they read meanwhile
        Ifx r(static_cast<uint32_t>(round % n), round);
        EXPECT_EQ(Set(1, r), QV_MOM_OK);
    }
    t1.join();
    t2.join();
    EXPECT_EQ(bad.load(), 0);
}

std::string BackendName(const ::testing::TestParamInfo<std::string> &info) { return info.param; }
INSTANTIATE_TEST_SUITE_P(Backends, MomContract, ::testing::Values("embedded", "redis"), BackendName);

TEST(MomSetup, UrlsDefaultsAndArguments)
{
    char err[256] = "";
    EXPECT_EQ(qv_mom_glb_create("ftp://x", err, sizeof err), nullptr);
    EXPECT_NE(std::string(err).find("ftp://x"), std::string::npos) << err;
    EXPECT_EQ(qv_mom_glb_create("embedded:", err, sizeof err), nullptr);
    ::setenv("PMX_DB", "embedded:from-env", 1);
    qv_mom_glb_t *g = qv_mom_glb_create("", nullptr, 0);
    ASSERT_NE(g, nullptr);
    EXPECT_STREQ(qv_mom_glb_url(g), "embedded:from-env");
    EXPECT_EQ(qv_mom_glb_default(), g) << "the first glb is the process default";
    qv_mom_ab_t *ab = qv_mom_ab_init(nullptr, "setup", nullptr, nullptr);
    ASSERT_NE(ab, nullptr);
    qv_mom_key_desc_t nested{&u_intf__pmx_ifx_tbl__descriptor, &u_intf__pmx_sub_ap_intf__descriptor, "setup", 0};
    EXPECT_EQ(qv_mom_reg_ds(ab, &nested, 1, nullptr, 0), QV_MOM_E_INVAL) << "a key message with a nested field";
    EXPECT_EQ(qv_mom_reg_key_event(g, &nested, QV_MOM_EVENT_ADD, OnKey), QV_MOM_E_INVAL);
    qv_mom_key_desc_t ok{&u_intf__ifx_index__descriptor, &u_intf__pmx_ifx_tbl__descriptor, "setup", 32};
    EXPECT_EQ(qv_mom_reg_key_event(g, &ok, QV_MOM_EVENT_ADD, OnKey), QV_MOM_E_INVAL) << "database 32";
    ok.db = 0;
    EXPECT_EQ(qv_mom_reg_key_event(g, &ok, 7, OnKey), QV_MOM_E_INVAL) << "no such event";
    qv_mom_glb_destroy(g);
    ::unsetenv("PMX_DB");
    // No default any more: one is made from the environment (the embedded store).
    qv_mom_glb_t *d = qv_mom_glb_default();
    ASSERT_NE(d, nullptr);
    EXPECT_STREQ(qv_mom_glb_url(d), "embedded");
    qv_mom_glb_destroy(d);
}

} // namespace

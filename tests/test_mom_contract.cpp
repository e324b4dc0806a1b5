// The database client's contract, run against every back end: the embedded store and a private
// Redis server. Reads, writes, record forms, key events, snapshots and per-thread contexts.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
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
#include "u_intf.pb-c.h"

namespace
{

std::string Packed(const ProtobufCMessage *m)
{
    if (m == nullptr) return "";
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

// An interface record and its key.
struct Ifx {
    UIntf__IfxIndex idx = U_INTF__IFX_INDEX__INIT;
    UIntf__PmxIfxTbl rec = U_INTF__PMX_IFX_TBL__INIT;
    Ifx(uint32_t ifx, int32_t port)
    {
        idx.ifx = rec.ifx = ifx;
        rec.port = port;
        rec.gphyid = ifx * 2 + 1;
    }
    const ProtobufCMessage *msg()
    {
        rec.index = &idx;
        return &rec.base;
    }
    qv_mom_key_t key() const { return {&idx.base, &u_intf__pmx_ifx_tbl__descriptor}; }
    std::string text() const { return "u_intf.pmx_ifx_tbl|" + std::to_string(idx.ifx); }
};

// What the key-event and data-source callbacks saw, in order.
struct Seen {
    int event; // QV_MOM_EVENT_*, or -1 for ALL_LOADED
    std::string key;
    std::string record; // packed
    int port = 0;       // of an interface record
    bool operator==(const Seen &o) const { return event == o.event && key == o.key && record == o.record; }
};
void PrintTo(const Seen &s, std::ostream *os) { *os << "{" << s.event << " " << s.key << " port " << s.port << "}"; }
using Seens = std::vector<Seen>;

class Recorder
{
  public:
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
        return cv_.wait_for(lock, std::chrono::seconds(5), [&] { return pred(seen_); });
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
    std::atomic<void *> context{nullptr};
    std::atomic<int> callback_read{-100}; // what a read from inside a callback returned

  private:
    std::mutex mutex_;
    std::condition_variable cv_;
    Seens seen_;
};

Recorder *g_rec = nullptr;

void OnKey(void *ctx, int event, const ProtobufCMessage *key, const ProtobufCMessage *record)
{
    g_rec->context = ctx;
    const bool ifx = record->descriptor == &u_intf__pmx_ifx_tbl__descriptor;
    g_rec->add({event, KeyText(key, record->descriptor), Packed(record),
                ifx ? reinterpret_cast<const UIntf__PmxIfxTbl *>(record)->port : 0});
}

void OnKeyAndRead(void *ctx, int event, const ProtobufCMessage *key, const ProtobufCMessage *record)
{
    qv_mom_key_t k{key, record->descriptor};
    g_rec->callback_read = qv_mom_exists_sync(ctx, 3, &k);
    OnKey(ctx, event, key, record);
}

void OnLoaded(void *, int ds, int event, void *)
{
    g_rec->add({-1, "ds" + std::to_string(ds) + "/" + std::to_string(event), ""});
}

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
        std::string err;
        auto backend = qv::mom::open_backend(url_, &err);
        EXPECT_TRUE(backend) << err;
        return backend ? backend->connect() : nullptr;
    }
    void RegIfx(int db, int event, qv_mom_key_event_fn fn = OnKey)
    {
        qv_mom_key_desc_t d{&u_intf__ifx_index__descriptor, &u_intf__pmx_ifx_tbl__descriptor, "test", db};
        ASSERT_EQ(qv_mom_reg_key_event(glb_, &d, event, fn), QV_MOM_OK);
    }
    // Writes a marker record to database db and takes what was seen before its event.
    Seens TakeUpTo(int db, uint32_t marker_ifx)
    {
        Ifx marker(marker_ifx, 0);
        EXPECT_EQ(Set(db, marker), QV_MOM_OK);
        EXPECT_TRUE(rec_.wait_for_key(marker.text(), QV_MOM_EVENT_ADD));
        Seens seen = rec_.take();
        EXPECT_EQ(seen.back(), (Seen{QV_MOM_EVENT_ADD, marker.text(), Packed(marker.msg())}));
        seen.pop_back();
        return seen;
    }

    pmx_test::RedisServer server_;
    std::string url_;
    qv_mom_glb_t *glb_ = nullptr;
    qv_mom_thread_global_t *ctx_ = nullptr;
    Recorder rec_;
};

TEST_P(MomContract, EveryDatabaseHoldsItsOwnRecordsAndOthersAreRefused)
{
    for (int db = 0; db < QV_MOM_DB_COUNT; ++db) {
        Ifx r(static_cast<uint32_t>(100 + db), db);
        ASSERT_EQ(qv_mom_client_connect_sync(ctx_, db), QV_MOM_OK) << db;
        ASSERT_EQ(Set(db, r), QV_MOM_OK) << db;
    }
    for (int db = 0; db < QV_MOM_DB_COUNT; ++db) {
        Ifx r(static_cast<uint32_t>(100 + db), db), other(static_cast<uint32_t>(100 + (db + 1) % QV_MOM_DB_COUNT), 0);
        qv_mom_key_t k = r.key(), ko = other.key();
        EXPECT_EQ(Get(db, k), Packed(r.msg())) << db;
        EXPECT_EQ(qv_mom_exists_sync(ctx_, db, &k), QV_MOM_OK);
        EXPECT_EQ(qv_mom_exists_sync(ctx_, db, &ko), QV_MOM_ABSENT) << db;
    }
    Ifx r(1, 1);
    qv_mom_key_t k = r.key();
    for (int bad : {-1, static_cast<int>(QV_MOM_DB_COUNT)}) {
        EXPECT_EQ(qv_mom_client_connect_sync(ctx_, bad), QV_MOM_E_INVAL);
        EXPECT_EQ(Set(bad, r), QV_MOM_E_INVAL);
        EXPECT_EQ(Get(bad, k), Error(QV_MOM_E_INVAL));
        EXPECT_EQ(qv_mom_exists_sync(ctx_, bad, &k), QV_MOM_E_INVAL);
    }
}

TEST_P(MomContract, PlainRecordsMissingKeysAndWrongRecordTypes)
{
    Ifx r(12, 7), hashed(13, 1);
    qv_mom_key_t k = r.key(), kh = hashed.key();
    // Missing: no record, no error.
    EXPECT_EQ(Get(3, k), "none");
    EXPECT_EQ(qv_mom_exists_sync(ctx_, 3, &k), QV_MOM_ABSENT);
    EXPECT_EQ(HGetAll(3, k), "none");
    EXPECT_EQ(qv_mom_del_sync(ctx_, 3, &k), QV_MOM_OK);

    ASSERT_EQ(Set(3, r), QV_MOM_OK);
    // The same key message keys another record: a separate key.
    UIntf__PmxSubApIntf ap = U_INTF__PMX_SUB_AP_INTF__INIT;
    ap.index = &r.idx;
    ap.phyid = 99;
    qv_mom_key_t kap{&r.idx.base, &u_intf__pmx_sub_ap_intf__descriptor};
    EXPECT_EQ(Get(3, kap), "none");
    ASSERT_EQ(qv_mom_set_sync(ctx_, 3, &kap, &ap.base), QV_MOM_OK);
    EXPECT_EQ(Get(3, kap), Packed(&ap.base));
    // A record of another kind than the key names is refused and changes nothing.
    EXPECT_EQ(qv_mom_set_sync(ctx_, 3, &k, &ap.base), QV_MOM_E_INVAL);
    EXPECT_EQ(Get(3, k), Packed(r.msg()));
    // A hash read of a plain record, a plain read of a hash record, a hash write on a plain one.
    EXPECT_EQ(HGetAll(3, k), Error(QV_MOM_E_SERVER));
    ASSERT_EQ(qv_mom_hset_sync(ctx_, 3, &kh, hashed.msg(), nullptr, 0), QV_MOM_OK);
    EXPECT_EQ(Get(3, kh), Error(QV_MOM_E_SERVER));
    EXPECT_EQ(qv_mom_hset_sync(ctx_, 3, &k, r.msg(), nullptr, 0), QV_MOM_E_SERVER);

    EXPECT_EQ(qv_mom_del_sync(ctx_, 3, &k), QV_MOM_OK);
    EXPECT_EQ(qv_mom_exists_sync(ctx_, 3, &k), QV_MOM_ABSENT);
    EXPECT_EQ(Get(3, k), "none");
}

TEST_P(MomContract, HashRecordsMergePartialWritesAndSingletons)
{
    UIntf__ModIndex idx = U_INTF__MOD_INDEX__INIT;
    idx.devid = 1;
    idx.slotid = 3;
    uint32_t ids[] = {7, 8, 300000}, fuid_ids[] = {5};
    UIntf__PmxFuidInfo fuid = U_INTF__PMX_FUID_INFO__INIT;
    fuid.unit = 2;
    fuid.n_id = 1;
    fuid.id = fuid_ids;
    UIntf__PmxFuidInfo *fuids[] = {&fuid, &fuid};
    UIntf__PmxModTbl mod = U_INTF__PMX_MOD_TBL__INIT;
    mod.index = &idx;
    mod.gslot = 4;
    mod.card_type = 21;
    mod.n_id = 3;
    mod.id = ids;
    mod.n_fuid_info = 2;
    mod.fuid_info = fuids;
    qv_mom_key_t k{&idx.base, &u_intf__pmx_mod_tbl__descriptor};
    EXPECT_EQ(KeyText(&idx.base, &u_intf__pmx_mod_tbl__descriptor), "u_intf.pmx_mod_tbl|1|3|0");
    ASSERT_EQ(qv_mom_hset_sync(ctx_, 26, &k, &mod.base, nullptr, 0), QV_MOM_OK);
    EXPECT_EQ(HGetAll(26, k), Packed(&mod.base));

    // Only the named fields change; a field written at its default is cleared.
    UIntf__PmxModTbl upd = U_INTF__PMX_MOD_TBL__INIT;
    upd.gslot = 9;
    const char *names[] = {"gslot", "card_type"};
    ASSERT_EQ(qv_mom_hset_sync(ctx_, 26, &k, &upd.base, names, 2), QV_MOM_OK);
    mod.gslot = 9;
    mod.card_type = 0;
    EXPECT_EQ(HGetAll(26, k), Packed(&mod.base));
    const char *unknown[] = {"no_such_field"};
    EXPECT_EQ(qv_mom_hset_sync(ctx_, 26, &k, &upd.base, unknown, 1), QV_MOM_E_INVAL);
    EXPECT_EQ(HGetAll(26, k), Packed(&mod.base));

    // A singleton is keyed by its name, in either form.
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

TEST_P(MomContract, ValuesThatDoNotUnpackAreFailedReadsAndNeverDelivered)
{
    // Field 12 (int32 unit) carried as length-delimited bytes: not a pmx_ifx_tbl.
    const std::string wrong_wire("\x62\x02\x01\x02", 4);
    Ifx bad(12, 0), h(15, 3), good(16, 1);
    auto raw = Raw();
    ASSERT_TRUE(raw);
    ASSERT_EQ(raw->set(3, bad.text(), wrong_wire), QV_MOM_OK);
    qv_mom_key_t k = bad.key(), kh = h.key();
    EXPECT_EQ(Get(3, k), Error(QV_MOM_E_DECODE));
    // A hash field holding a wrong wire type spoils the whole hash read.
    ASSERT_EQ(qv_mom_hset_sync(ctx_, 3, &kh, h.msg(), nullptr, 0), QV_MOM_OK);
    ASSERT_EQ(raw->hset(3, h.text(), {{"unit", wrong_wire}}), QV_MOM_OK);
    EXPECT_EQ(HGetAll(3, kh), Error(QV_MOM_E_DECODE));
    // Neither the snapshot nor a later event hands a spoiled record on.
    ASSERT_EQ(Set(3, good), QV_MOM_OK);
    RegIfx(3, QV_MOM_EVENT_ADD);
    ASSERT_TRUE(rec_.wait_for_key(good.text(), QV_MOM_EVENT_ADD));
    ASSERT_EQ(raw->set(3, good.text(), wrong_wire), QV_MOM_OK);
    EXPECT_EQ(TakeUpTo(3, 900), (Seens{{QV_MOM_EVENT_ADD, good.text(), Packed(good.msg())}}));
}

TEST_P(MomContract, KeyEventsCarryKeyAndRecordAndDeletesTheLastRecord)
{
    RegIfx(3, QV_MOM_EVENT_ADD, OnKeyAndRead);
    RegIfx(3, QV_MOM_EVENT_DEL);
    Ifx r(12, 1), changed(12, 2), other_db(12, 5);
    qv_mom_key_t k = r.key();
    ASSERT_EQ(Set(3, r), QV_MOM_OK);
    ASSERT_TRUE(rec_.wait_for_key(r.text(), QV_MOM_EVENT_ADD));
    EXPECT_EQ(rec_.callback_read.load(), QV_MOM_OK) << "a callback reads with its context";
    EXPECT_NE(rec_.context.load(), nullptr);
    EXPECT_NE(rec_.context.load(), static_cast<void *>(ctx_));
    EXPECT_EQ(rec_.take(), (Seens{{QV_MOM_EVENT_ADD, r.text(), Packed(r.msg())}}));
    // A change, then the same value again (nothing), then a database nobody follows.
    ASSERT_EQ(Set(3, changed), QV_MOM_OK);
    ASSERT_EQ(Set(3, changed), QV_MOM_OK);
    ASSERT_EQ(Set(4, other_db), QV_MOM_OK);
    EXPECT_EQ(TakeUpTo(3, 900), (Seens{{QV_MOM_EVENT_ADD, r.text(), Packed(changed.msg())}}));
    // A delete hands on the last record; deleting what is gone says nothing.
    ASSERT_EQ(qv_mom_del_sync(ctx_, 3, &k), QV_MOM_OK);
    ASSERT_EQ(qv_mom_del_sync(ctx_, 3, &k), QV_MOM_OK);
    EXPECT_EQ(TakeUpTo(3, 901), (Seens{{QV_MOM_EVENT_DEL, r.text(), Packed(changed.msg())}}));

    // A string key with separators, escapes and a non-printable byte comes back intact.
    SIntf__NameIfxIndex nidx; // (the INIT macros of string fields do not build warning-free)
    protobuf_c_message_init(&s_intf__name_ifx_index__descriptor, &nidx);
    char name[] = "eth|0/1 %41\t";
    nidx.name = name;
    SIntf__NameIfx n;
    protobuf_c_message_init(&s_intf__name_ifx__descriptor, &n);
    n.index = &nidx;
    n.ifx = 77;
    const std::string text = "s_intf.name_ifx|eth%7C0/1 %2541%09";
    EXPECT_EQ(KeyText(&nidx.base, &s_intf__name_ifx__descriptor), text);
    qv_mom_key_desc_t d{&s_intf__name_ifx_index__descriptor, &s_intf__name_ifx__descriptor, "test", 3};
    ASSERT_EQ(qv_mom_reg_key_event(glb_, &d, QV_MOM_EVENT_ADD, OnKey), QV_MOM_OK);
    qv_mom_key_t kn{&nidx.base, &s_intf__name_ifx__descriptor};
    ASSERT_EQ(qv_mom_set_sync(ctx_, 3, &kn, &n.base), QV_MOM_OK);
    ASSERT_TRUE(rec_.wait_for_key(text, QV_MOM_EVENT_ADD));
}

TEST_P(MomContract, EventsOfOneKeyComeInOrderAndADeleteThenSetIsNeverMerged)
{
    RegIfx(5, QV_MOM_EVENT_ADD);
    RegIfx(5, QV_MOM_EVENT_DEL);
    const int n = 200;
    for (int i = 1; i <= n; ++i) {
        Ifx r(7, i);
        ASSERT_EQ(Set(5, r), QV_MOM_OK);
    }
    Ifx last(7, n);
    const std::string last_packed = Packed(last.msg());
    ASSERT_TRUE(rec_.wait([&](const Seens &v) { return !v.empty() && v.back().record == last_packed; }));
    // Re-reads may skip values written in between, but never go back.
    int prev = 0;
    for (const auto &s : rec_.take()) {
        ASSERT_EQ(s.event, QV_MOM_EVENT_ADD);
        EXPECT_GT(s.port, prev);
        prev = s.port;
    }
    // Deleted and written back at once with the same value: a DEL, then an ADD.
    qv_mom_key_t k = last.key();
    ASSERT_EQ(qv_mom_del_sync(ctx_, 5, &k), QV_MOM_OK);
    ASSERT_EQ(Set(5, last), QV_MOM_OK);
    EXPECT_EQ(TakeUpTo(5, 900),
              (Seens{{QV_MOM_EVENT_DEL, last.text(), last_packed}, {QV_MOM_EVENT_ADD, last.text(), last_packed}}));
}

TEST_P(MomContract, DataSourcesSubscribeThenSnapshotThenReportAllLoadedOnce)
{
    Ifx a(1, 1), b(2, 2), b2(2, 20), c(3, 3);
    ASSERT_EQ(Set(26, a), QV_MOM_OK);
    ASSERT_EQ(Set(26, b), QV_MOM_OK);
    UIntf__PmxSubApIntf ap = U_INTF__PMX_SUB_AP_INTF__INIT;
    ap.index = &a.idx;
    ap.evlan = 10;
    qv_mom_key_t kap{&a.idx.base, &u_intf__pmx_sub_ap_intf__descriptor};
    ASSERT_EQ(qv_mom_set_sync(ctx_, 26, &kap, &ap.base), QV_MOM_OK);

    qv_mom_ab_t *ab = qv_mom_ab_init(glb_, "contract", nullptr, nullptr);
    ASSERT_NE(ab, nullptr);
    qv_mom_key_desc_t in[] = {
        {&u_intf__ifx_index__descriptor, &u_intf__pmx_ifx_tbl__descriptor, "contract", 26},
        {&u_intf__ifx_index__descriptor, &u_intf__pmx_sub_ap_intf__descriptor, "contract", 26},
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
    const std::string loaded = "ds" + std::to_string(ds) + "/" + std::to_string(QV_MOM_DS_EVENT_ALL_LOADED);
    ASSERT_TRUE(rec_.wait_for_key(loaded, -1));
    ASSERT_EQ(Set(26, c), QV_MOM_OK);
    ASSERT_TRUE(rec_.wait_for_key(c.text(), QV_MOM_EVENT_ADD));
    EXPECT_EQ(qv_mom_set_ds_opt(ab, ds, QV_MOM_DS_OPT_SNAPSHOT, 0), QV_MOM_E_INVAL) << "already started";
    auto seen = rec_.take();
    std::map<std::string, std::string> snapshot;
    size_t i = 0;
    for (; i < seen.size() && seen[i].event == QV_MOM_EVENT_ADD; ++i) snapshot[seen[i].key] = seen[i].record;
    EXPECT_EQ(snapshot, (std::map<std::string, std::string>{{a.text(), Packed(a.msg())},
                                                            {b.text(), Packed(b2.msg())},
                                                            {"u_intf.pmx_sub_ap_intf|1", Packed(&ap.base)}}));
    ASSERT_EQ(seen.size(), i + 2) << "the snapshot, ALL_LOADED once, then the later record";
    EXPECT_EQ(seen[i].key, loaded);
    EXPECT_EQ(seen[i + 1].key, c.text());
    // Registered after the fact: told at once.
    ASSERT_EQ(qv_mom_reg_single_ds_event(glb_, ds, QV_MOM_DS_EVENT_ALL_LOADED, OnLoaded, nullptr), QV_MOM_OK);
    ASSERT_TRUE(rec_.wait_for_key(loaded, -1));
    rec_.take();

    // Without the snapshot option: ALL_LOADED, and only later changes.
    Ifx old(4, 4), later(5, 5);
    ASSERT_EQ(Set(27, old), QV_MOM_OK);
    qv_mom_key_desc_t quiet{&u_intf__ifx_index__descriptor, &u_intf__pmx_ifx_tbl__descriptor, "contract", 27};
    int ds2 = qv_mom_reg_ds(ab, &quiet, 1, nullptr, 0);
    ASSERT_GE(ds2, 0);
    EXPECT_NE(ds2, ds);
    ASSERT_EQ(qv_mom_set_ds_opt(ab, ds2, QV_MOM_DS_OPT_SNAPSHOT, 0), QV_MOM_OK);
    ASSERT_EQ(qv_mom_reg_single_ds_event(glb_, ds2, QV_MOM_DS_EVENT_ALL_LOADED, OnLoaded, nullptr), QV_MOM_OK);
    ASSERT_EQ(qv_mom_reg_key_event(glb_, &quiet, QV_MOM_EVENT_ADD, OnKey), QV_MOM_OK);
    ASSERT_TRUE(rec_.wait_for_key("ds" + std::to_string(ds2) + "/1", -1));
    ASSERT_EQ(Set(27, later), QV_MOM_OK);
    ASSERT_TRUE(rec_.wait_for_key(later.text(), QV_MOM_EVENT_ADD));
    seen = rec_.take();
    ASSERT_EQ(seen.size(), 2u);
    EXPECT_EQ(seen[1].key, later.text());
}

TEST_P(MomContract, ScanFindsEveryRecordOfAKindAndStopsWhenAsked)
{
    std::map<std::string, std::string> want, got;
    for (uint32_t i = 0; i < 50; ++i) {
        Ifx r(i * 7, static_cast<int32_t>(i));
        ASSERT_EQ(Set(6, r), QV_MOM_OK);
        want[r.text()] = Packed(r.msg());
    }
    Ifx spoiled(1000, 0); // a hash whose field does not unpack: handed on as null
    auto raw = Raw();
    ASSERT_TRUE(raw);
    ASSERT_EQ(raw->hset(6, spoiled.text(), {{"unit", std::string("\x62\x02\x01\x02", 4)}}), QV_MOM_OK);
    want[spoiled.text()] = "null";
    Ifx elsewhere(1, 1); // in another database, and another kind under the same key message
    ASSERT_EQ(Set(7, elsewhere), QV_MOM_OK);
    UIntf__PmxSubApIntf ap = U_INTF__PMX_SUB_AP_INTF__INIT;
    qv_mom_key_t kap{&elsewhere.idx.base, &u_intf__pmx_sub_ap_intf__descriptor};
    ASSERT_EQ(qv_mom_set_sync(ctx_, 6, &kap, &ap.base), QV_MOM_OK);

    auto collect = [](const char *key, const ProtobufCMessage *record, void *arg) {
        (*static_cast<std::map<std::string, std::string> *>(arg))[key] = record != nullptr ? Packed(record) : "null";
        return 0;
    };
    ASSERT_EQ(qv_mom_scan_sync(ctx_, 6, &u_intf__pmx_ifx_tbl__descriptor, collect, &got), QV_MOM_OK);
    EXPECT_EQ(got, want);
    int calls = 0;
    auto stop = [](const char *, const ProtobufCMessage *, void *arg) {
        return ++*static_cast<int *>(arg) == 3 ? 42 : 0;
    };
    EXPECT_EQ(qv_mom_scan_sync(ctx_, 6, &u_intf__pmx_ifx_tbl__descriptor, stop, &calls), 42);
    EXPECT_EQ(calls, 3);
}

TEST_P(MomContract, ContextsBelongToTheThreadThatAttached)
{
    EXPECT_EQ(qv_mom_get_thread_local_global(), static_cast<void *>(ctx_));
    EXPECT_EQ(qv_mom_thread_attach(glb_, nullptr), ctx_) << "attaching twice gives the same record";
    EXPECT_NE(ctx_->master, nullptr);
    Ifx r(12, 1);
    ASSERT_EQ(Set(2, r), QV_MOM_OK);
    qv_mom_key_t k = r.key();
    std::thread([&] {
        EXPECT_EQ(qv_mom_get_thread_local_global(), nullptr);
        EXPECT_EQ(GetWith(nullptr, 2, k), Error(QV_MOM_E_INVAL));
        EXPECT_EQ(GetWith(ctx_, 2, k), Error(QV_MOM_E_INVAL)) << "another thread's context";
        EXPECT_EQ(qv_mom_exists_sync(ctx_, 2, &k), QV_MOM_E_INVAL);
        // Attached with a master of its own making.
        qv_thread_master_t *mine = qv_thread_master_create("contract");
        auto *t = qv_mom_thread_attach(glb_, mine);
        ASSERT_NE(t, nullptr);
        EXPECT_EQ(t->master, mine);
        EXPECT_NE(t->conn, ctx_->conn);
        EXPECT_EQ(qv_mom_exists_sync(t, 2, &k), QV_MOM_OK);
        qv_mom_thread_detach();
        EXPECT_EQ(qv_mom_get_thread_local_global(), nullptr);
        qv_thread_master_free(mine);
    }).join();
}

TEST_P(MomContract, ThreadsReadAtOnceOnTheirOwnConnections)
{
    const int n = 20;
    for (int i = 0; i < n; ++i) {
        Ifx r(static_cast<uint32_t>(i), 0);
        ASSERT_EQ(Set(1, r), QV_MOM_OK);
    }
    std::atomic<int> bad{0};
    auto reader = [&] {
        void *ctx = qv_mom_thread_attach(glb_, nullptr);
        for (int round = 0; ctx != nullptr && round < 300; ++round) {
            Ifx r(static_cast<uint32_t>(round % n), 0);
            int err = -100;
            qv_mom_key_t k = r.key();
            ProtobufCMessage *m = qv_mom_get_sync(ctx, 1, &k, &err);
            auto *rec = reinterpret_cast<UIntf__PmxIfxTbl *>(m);
            bad += m == nullptr || err != QV_MOM_OK || rec->ifx != r.idx.ifx || rec->gphyid != r.rec.gphyid;
            qv_mom_qv_obj_free(m);
        }
        if (ctx == nullptr) ++bad;
        qv_mom_thread_detach();
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

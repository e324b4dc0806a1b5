// Key events: a store event only says "this key changed". On a set the key is re-read and an
// ADD is delivered when the record differs from the last one delivered; on a delete the last
// record delivered goes out with the DEL. Events are handled in batches, the re-reads of a batch
// in one round trip. Kinds are watched first and scanned second; after a lost feed every kind is
// scanned again and compared with the last records kept, its keys read in batches too.
#include "follower.h"

#include "codec.h"
#include "glb.h"
#include "keys.h"
#include "log.h"
#include "thread_master.h"

#include <event2/event.h>

#include <algorithm>
#include <string_view>
#include <unordered_map>
#include <unordered_set>

namespace qv::mom {

struct Follower::Kind {
    int db = 0;
    const ProtobufCMessageDescriptor *key = nullptr;
    const ProtobufCMessageDescriptor *value = nullptr;
    std::string name;
    std::string owner;
    std::vector<qv_mom_key_event_fn> on_add;
    std::vector<qv_mom_key_event_fn> on_del;
    std::vector<Source *> sources;
    struct Last {
        std::string packed; // the record delivered
        unsigned mark = 0;  // the scan that last found the key
    };
    std::unordered_map<std::string, Last> last; // by key text
    unsigned mark = 0;                          // the current scan
    bool watched = false;
    bool synced = false;     // scanned at least once
    bool needs_scan = false; // watched or lost since the feed last reported itself subscribed
    bool snapshot = false;   // the first scan delivers what exists
    StoredValue::Kind form = StoredValue::Kind::Absent; // what the last key read held, if any

    bool singleton() const { return key == value; }
    bool has_events() const { return !on_add.empty() || !on_del.empty(); }
};

struct Follower::Source {
    int id = 0;
    std::vector<Kind *> in;
    // In-kinds given a key event since the source was registered: it starts once all are, so
    // kinds that an earlier source left with callbacks do not start it before its options are set.
    std::unordered_set<Kind *> armed;
    bool started = false;
    bool loaded = false;
    std::vector<std::pair<qv_mom_ds_event_fn, void *>> on_loaded;
};

namespace {

bool key_desc_ok(const qv_mom_key_desc_t *k)
{
    return k != nullptr && k->key != nullptr && k->value != nullptr && k->db >= 0 && k->db < QV_MOM_DB_COUNT &&
           (k->key == k->value || key_kind_ok(k->key));
}

bool is_delete(const std::string &event)
{
    return event == "del" || event == "expired" || event == "evicted" || event == "rename_from";
}

const char *owner_of(const qv_mom_key_desc_t &k) { return k.owner != nullptr ? k.owner : ""; }

// Key events handled in one batch at most, and keys read in one round trip at most: the
// Redis connection's pipeline size.
constexpr size_t kBatch = 1024;

constexpr size_t kNone = static_cast<size_t>(-1);

} // namespace

Follower::Follower(qv_mom_glb_t *glb) : glb_(glb), url_(glb->url) {}

Follower::~Follower() { stop(); }

int Follower::start(std::string *err)
{
    std::promise<std::string> ready;
    std::future<std::string> result = ready.get_future();
    thread_ = std::thread([this, &ready] { run(&ready); });
    *err = result.get();
    if (err->empty()) return QV_MOM_OK;
    thread_.join();
    return QV_MOM_E_NOMEM;
}

void Follower::stop()
{
    if (!thread_.joinable()) return;
    post([this] { qv_thread_master_break(master_); });
    thread_.join();
}

void Follower::run(std::promise<std::string> *ready)
{
    master_ = qv_thread_master_create(("qv_mom events " + url_).c_str());
    if (master_ == nullptr) {
        ready->set_value("cannot make the timer master of the event thread");
        return;
    }
    record_ = qv_mom_thread_attach(glb_, master_);
    event_base *base = qv_thread_master_base(master_);
    std::unique_ptr<Notifier> notifier = Notifier::create(base, [this] { drain(); });
    batch_ev_ = event_new(base, -1, 0, &Follower::on_batch, this);
    subscriber_ = glb_->backend->subscriber();
    std::string failure;
    if (record_ == nullptr)
        failure = "the event thread cannot attach";
    else if (!notifier || batch_ev_ == nullptr)
        failure = "the event thread cannot make its wake-up events";
    else if (!subscriber_ || subscriber_->start(base, this) != QV_MOM_OK)
        failure = "cannot start the key-event feed";
    if (!failure.empty()) {
        subscriber_.reset();
        notifier.reset();
        if (batch_ev_ != nullptr) event_free(batch_ev_);
        batch_ev_ = nullptr;
        qv_mom_thread_detach();
        qv_thread_master_free(master_);
        ready->set_value(failure);
        return;
    }
    {
        std::lock_guard<std::mutex> lock(mutex_);
        notifier_ = std::move(notifier);
        accepting_ = true;
    }
    ready->set_value("");

    if (qv_thread_master_run_until_break(master_) != 0)
        QV_MOM_LOG(QV_ZLOG_LEVEL_ERROR, "the event loop of %s failed", url_.c_str());

    {
        std::lock_guard<std::mutex> lock(mutex_);
        accepting_ = false;
        tasks_.clear();
        notifier.swap(notifier_);
    }
    qv_thread_cancel(rescan_timer_);
    rescan_timer_ = nullptr;
    qv_thread_cancel(replica_timer_);
    replica_timer_ = nullptr;
    subscriber_->stop();
    subscriber_.reset();
    notifier.reset();
    event_free(batch_ev_);
    batch_ev_ = nullptr;
    pending_.clear();
    kinds_.clear();
    sources_.clear();
    qv_mom_thread_detach();
    record_ = nullptr;
    qv_thread_master_free(master_);
    master_ = nullptr;
}

bool Follower::post(std::function<void()> task)
{
    std::lock_guard<std::mutex> lock(mutex_);
    if (!accepting_) return false;
    tasks_.push_back(std::move(task));
    notifier_->notify();
    return true;
}

void Follower::drain()
{
    std::deque<std::function<void()>> tasks;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        tasks.swap(tasks_);
    }
    for (auto &task : tasks) task();
}

Connection *Follower::conn() const { return record_->conn->impl.get(); }

// ---- registrations (any thread) ----

int Follower::reg_ds(const std::string &owner, const qv_mom_key_desc_t *in_keys, int n_in)
{
    if (n_in < 0 || (n_in > 0 && in_keys == nullptr)) return QV_MOM_E_INVAL;
    std::vector<KeyDesc> keys;
    for (int i = 0; i < n_in; ++i) {
        if (!key_desc_ok(&in_keys[i])) {
            QV_MOM_LOG(QV_ZLOG_LEVEL_ERROR, "data source of %s on %s: in-key %d is not a valid key of a record",
                       owner.c_str(), url_.c_str(), i);
            return QV_MOM_E_INVAL;
        }
        keys.push_back({in_keys[i].key, in_keys[i].value, owner_of(in_keys[i]), in_keys[i].db});
    }
    std::lock_guard<std::mutex> lock(mutex_);
    if (!accepting_) return QV_MOM_E_INVAL;
    int id = static_cast<int>(options_.size());
    options_.emplace_back();
    tasks_.push_back([this, id, keys] { add_source(id, keys); });
    notifier_->notify();
    return id;
}

int Follower::set_ds_opt(int ds, int opt, int value)
{
    if (opt != QV_MOM_DS_OPT_SNAPSHOT || (value != 0 && value != 1)) return QV_MOM_E_INVAL;
    std::lock_guard<std::mutex> lock(mutex_);
    if (ds < 0 || static_cast<size_t>(ds) >= options_.size()) return QV_MOM_E_NOT_FOUND;
    if (options_[static_cast<size_t>(ds)].started) {
        QV_MOM_LOG(QV_ZLOG_LEVEL_ERROR, "data source %d on %s has started: option %d can no longer change", ds,
                   url_.c_str(), opt);
        return QV_MOM_E_INVAL;
    }
    options_[static_cast<size_t>(ds)].snapshot = value;
    return QV_MOM_OK;
}

int Follower::reg_ds_event(int ds, int event, qv_mom_ds_event_fn fn, void *arg)
{
    if (fn == nullptr || event != QV_MOM_DS_EVENT_ALL_LOADED) return QV_MOM_E_INVAL;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (ds < 0 || static_cast<size_t>(ds) >= options_.size()) return QV_MOM_E_NOT_FOUND;
    }
    return post([this, ds, fn, arg] { add_ds_event(ds, fn, arg); }) ? QV_MOM_OK : QV_MOM_E_INVAL;
}

int Follower::reg_key_event(const qv_mom_key_desc_t &key, int event, qv_mom_key_event_fn fn)
{
    if (fn == nullptr || (event != QV_MOM_EVENT_ADD && event != QV_MOM_EVENT_DEL) || !key_desc_ok(&key))
        return QV_MOM_E_INVAL;
    KeyDesc k{key.key, key.value, owner_of(key), key.db};
    return post([this, k, event, fn] { add_key_event(k, event, fn); }) ? QV_MOM_OK : QV_MOM_E_INVAL;
}

// ---- event thread ----

Follower::Kind *Follower::kind_for(const KeyDesc &k)
{
    auto &slot = kinds_[{k.db, k.value->name}];
    if (!slot) {
        slot = std::make_unique<Kind>();
        slot->db = k.db;
        slot->key = k.key;
        slot->value = k.value;
        slot->name = k.value->name;
        slot->owner = k.owner;
    } else if (slot->key != k.key) {
        QV_MOM_LOG(QV_ZLOG_LEVEL_ERROR, "%s in db %d of %s is keyed by %s, not by %s as %s asks: ignored",
                   k.value->name, k.db, url_.c_str(), slot->key->name, k.key->name, k.owner.c_str());
        return nullptr;
    }
    return slot.get();
}

void Follower::add_source(int id, const std::vector<KeyDesc> &keys)
{
    auto s = std::make_unique<Source>();
    s->id = id;
    for (const auto &k : keys) {
        Kind *kind = kind_for(k);
        if (kind == nullptr) continue;
        bool known = false;
        for (Kind *have : s->in) known = known || have == kind;
        if (known) continue;
        s->in.push_back(kind);
        kind->sources.push_back(s.get());
    }
    if (sources_.size() <= static_cast<size_t>(id)) sources_.resize(static_cast<size_t>(id) + 1);
    sources_[static_cast<size_t>(id)] = std::move(s);
    maybe_start(*sources_[static_cast<size_t>(id)]);
}

void Follower::add_key_event(const KeyDesc &k, int event, qv_mom_key_event_fn fn)
{
    Kind *kind = kind_for(k);
    if (kind == nullptr) return;
    bool was_synced = kind->synced;
    // The same callback registered again for the same event is called once per change.
    auto &fns = event == QV_MOM_EVENT_ADD ? kind->on_add : kind->on_del;
    const bool again = std::find(fns.begin(), fns.end(), fn) != fns.end();
    if (!again) fns.push_back(fn);
    if (kind->sources.empty()) {
        kind->snapshot = true;
        watch_kinds({kind});
    } else {
        for (Source *s : kind->sources) {
            s->armed.insert(kind);
            maybe_start(*s);
        }
    }
    // A callback joining a kind that is already loaded gets what the others have been given.
    if (!again && was_synced && event == QV_MOM_EVENT_ADD && kind->snapshot) {
        for (const auto &kv : kind->last) {
            MessagePtr rec = unpack_record(kind->value, kv.second.packed);
            if (rec) deliver(*kind, QV_MOM_EVENT_ADD, kv.first, rec.get(), fn);
        }
    }
}

void Follower::add_ds_event(int ds, qv_mom_ds_event_fn fn, void *arg)
{
    Source *s = static_cast<size_t>(ds) < sources_.size() ? sources_[static_cast<size_t>(ds)].get() : nullptr;
    if (s == nullptr) return;
    s->on_loaded.emplace_back(fn, arg);
    if (s->loaded) fn(record_, ds, QV_MOM_DS_EVENT_ALL_LOADED, arg);
}

void Follower::maybe_start(Source &s)
{
    if (s.started) return;
    for (Kind *k : s.in)
        if (s.armed.count(k) == 0) return;
    int snapshot = 1;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        options_[static_cast<size_t>(s.id)].started = true;
        snapshot = options_[static_cast<size_t>(s.id)].snapshot;
    }
    s.started = true;
    for (Kind *k : s.in) k->snapshot = k->snapshot || snapshot != 0;
    QV_MOM_LOG(QV_ZLOG_LEVEL_INFO, "data source %d on %s starts: %zu record kinds, snapshot %s", s.id,
               url_.c_str(), s.in.size(), snapshot != 0 ? "on" : "off");
    watch_kinds(s.in);
    check_loaded(s); // every kind may be loaded already
}

// The feed confirms the new kinds with on_subscribed(), which scans them: subscribed first,
// snapshotted second, so no change falls between the two.
void Follower::watch_kinds(const std::vector<Kind *> &kinds)
{
    for (Kind *k : kinds) {
        if (k->watched) continue;
        subscriber_->watch(k->db, k->name);
        k->watched = true;
        k->needs_scan = true;
    }
}

void Follower::check_loaded(Source &s)
{
    if (!s.started || s.loaded) return;
    for (Kind *k : s.in)
        if (!k->synced) return;
    s.loaded = true;
    QV_MOM_LOG(QV_ZLOG_LEVEL_INFO, "data source %d on %s: all loaded", s.id, url_.c_str());
    for (const auto &h : s.on_loaded) h.first(record_, s.id, QV_MOM_DS_EVENT_ALL_LOADED, h.second);
}

// Scans kinds of one database in one walk of its keys, then reads each kind's keys in batches
// and compares them with the last records delivered. A kind that cannot be read is tried again.
void Follower::sync_kinds(int db, const std::vector<Kind *> &kinds)
{
    std::vector<std::string> names;
    for (Kind *k : kinds) names.push_back(k->name);
    std::vector<std::vector<std::string>> keys;
    const int rc = conn()->scan_kinds(db, names, &keys);
    if (rc < 0) {
        QV_MOM_LOG(QV_ZLOG_LEVEL_WARN, "cannot scan %s%s in db %d of %s (error %d): retried when the feed is back",
                   names.front().c_str(), kinds.size() > 1 ? " and other record kinds" : "", db, url_.c_str(), rc);
        for (Kind *k : kinds) k->needs_scan = true;
        schedule_rescan();
        return;
    }
    for (size_t i = 0; i < kinds.size(); ++i)
        if (sync_kind(*kinds[i], keys[i])) kinds[i]->needs_scan = false;
}

// Every key found is marked in the last records; those left unmarked are gone. A key the server
// refuses to read keeps its last record, and the kind is scanned again later.
bool Follower::sync_kind(Kind &k, const std::vector<std::string> &keys)
{
    const bool deliver_add = k.synced || k.snapshot;
    ++k.mark;
    std::vector<Connection::Key> chunk;
    std::vector<StoredValue> values;
    std::vector<bool> ok;
    size_t refused = 0;
    int why = QV_MOM_OK;
    for (size_t start = 0; start < keys.size(); start += kBatch) {
        chunk.clear();
        for (size_t i = start; i < keys.size() && i < start + kBatch; ++i) chunk.push_back({k.db, keys[i], k.form});
        const int rc = read_values(chunk, &values, &ok);
        if (rc < 0 && rc != QV_MOM_E_SERVER) {
            QV_MOM_LOG(QV_ZLOG_LEVEL_WARN, "cannot read %zu keys of %s in db %d of %s (error %d) while scanning",
                       chunk.size(), k.name.c_str(), k.db, url_.c_str(), rc);
            k.needs_scan = true;
            schedule_rescan();
            return false;
        }
        for (size_t i = 0; i < chunk.size(); ++i) {
            const std::string &key = keys[start + i];
            if (!ok[i]) {
                ++refused;
                why = rc;
                auto it = k.last.find(key);
                if (it != k.last.end()) it->second.mark = k.mark;
            } else if (values[i].kind != StoredValue::Kind::Absent) {
                update(k, key, values[i], deliver_add);
            }
        }
    }
    std::vector<std::string> gone;
    for (const auto &kv : k.last)
        if (kv.second.mark != k.mark) gone.push_back(kv.first);
    for (const auto &key : gone) forget(k, key);
    if (refused > 0) {
        QV_MOM_LOG(QV_ZLOG_LEVEL_WARN, "the server refused to read %zu keys of %s in db %d of %s (error %d) while "
                   "scanning: scanned again later", refused, k.name.c_str(), k.db, url_.c_str(), why);
        k.needs_scan = true;
        schedule_rescan();
        return false;
    }
    k.synced = true;
    return true;
}

namespace {

// True when the stored value holds exactly these bytes: a plain value as it is, a hash as its
// fields' values one after the other (which is how a record is stored and unpacked).
bool holds(const StoredValue &v, const std::string &packed)
{
    if (v.kind == StoredValue::Kind::Plain) return v.plain == packed;
    size_t at = 0;
    for (const auto &f : v.hash) {
        if (packed.compare(at, f.second.size(), f.second) != 0) return false;
        at += f.second.size();
    }
    return at == packed.size();
}

} // namespace

// The key is present with value v (marked as found by the current scan); an ADD goes out when
// its record differs from the last one delivered. A value stored as the last record was packed
// is that record, and is not unpacked again.
void Follower::update(Kind &k, const std::string &key, const StoredValue &v, bool deliver_add)
{
    k.form = v.kind;
    auto it = k.last.find(key);
    if (it != k.last.end()) {
        it->second.mark = k.mark;
        if (holds(v, it->second.packed)) return;
    }
    MessagePtr rec = unpack_stored(k.value, v);
    if (!rec) {
        QV_MOM_LOG(QV_ZLOG_LEVEL_ERROR, "%s in db %d of %s does not unpack as %s: not delivered", key.c_str(),
                   k.db, url_.c_str(), k.name.c_str());
        return;
    }
    std::string packed = pack_record(rec.get());
    if (it != k.last.end() && it->second.packed == packed) return;
    if (it == k.last.end()) it = k.last.emplace(key, Kind::Last{}).first;
    it->second.packed = std::move(packed);
    it->second.mark = k.mark;
    if (deliver_add) deliver(k, QV_MOM_EVENT_ADD, key, rec.get());
}

void Follower::forget(Kind &k, const std::string &key)
{
    auto it = k.last.find(key);
    if (it == k.last.end()) return;
    MessagePtr rec = unpack_record(k.value, it->second.packed);
    k.last.erase(it);
    if (rec) deliver(k, QV_MOM_EVENT_DEL, key, rec.get());
}

void Follower::deliver(Kind &k, int event, const std::string &key, const ProtobufCMessage *record,
                       qv_mom_key_event_fn only)
{
    const auto &fns = event == QV_MOM_EVENT_ADD ? k.on_add : k.on_del;
    if (fns.empty()) return;
    MessagePtr parsed;
    const ProtobufCMessage *key_msg = record;
    if (!k.singleton()) {
        parsed.reset(parse_key_text(key, k.key));
        if (!parsed) {
            QV_MOM_LOG(QV_ZLOG_LEVEL_ERROR, "key %s in db %d of %s is not a key of %s by %s: not delivered",
                       key.c_str(), k.db, url_.c_str(), k.name.c_str(), k.key->name);
            return;
        }
        key_msg = parsed.get();
    }
    if (only != nullptr) {
        only(record_, event, key_msg, record);
        return;
    }
    for (size_t i = 0; i < fns.size(); ++i) fns[i](record_, event, key_msg, record);
}

void Follower::on_subscribed()
{
    if (feed_lost_) {
        size_t n = 0;
        for (auto &kv : kinds_) n += kv.second->needs_scan ? 1 : 0;
        QV_MOM_LOG(QV_ZLOG_LEVEL_NOTICE, "key-event feed of %s is back: resyncing %zu record kinds", url_.c_str(), n);
    }
    subscribed_once_ = true;
    feed_lost_ = false;
    rescan();
    if (replica_timer_ == nullptr)
        replica_timer_ = qv_thread_add_timer_timeval(master_, &Follower::on_replica_timer, this, 0, kReplicaPollUs);
}

// A replica that takes a whole new copy from its primary (when it first attaches, after its
// primary restarted, after a long break) loads it without key events: each such load changes its
// replication state, and every kind is scanned again then. The first state seen counts as a
// change too (the load may have come between the first scans and the first look), and so does
// the first after a lost feed or a link that was down.
int Follower::on_replica_timer(qv_thread_t *timer)
{
    auto *self = static_cast<Follower *>(qv_thread_arg(timer));
    self->replica_timer_ = qv_thread_add_timer_timeval(self->master_, &Follower::on_replica_timer, self, 0,
                                                        kReplicaPollUs);
    if (self->feed_lost_) return 0;
    // A link that went down (or a sync under way) reads as "": whatever comes up after it is new.
    const std::string state = self->conn()->replica_state();
    if (state == self->replica_state_) return 0;
    self->replica_state_ = state;
    if (state.empty()) return 0;
    QV_MOM_LOG(QV_ZLOG_LEVEL_NOTICE, "%s is a replica with a new copy of its primary's data (%s): resyncing",
               self->url_.c_str(), state.c_str());
    for (auto &kv : self->kinds_)
        if (kv.second->watched) kv.second->needs_scan = true;
    self->rescan();
    return 0;
}

void Follower::on_lost(const std::string &why)
{
    QV_MOM_LOG(QV_ZLOG_LEVEL_WARN, "lost the key-event feed of %s: %s; changes are caught up when it is back",
               url_.c_str(), why.c_str());
    handle_pending();
    feed_lost_ = true;
    replica_state_.clear(); // a server that comes back may hold another copy
    for (auto &kv : kinds_)
        if (kv.second->watched) kv.second->needs_scan = true;
}

// Scans every kind that needs it, those of one database together (a failed scan schedules the
// next attempt). The key events queued before are older than what the scan reads: they go first.
void Follower::rescan()
{
    handle_pending();
    std::map<int, std::vector<Kind *>> by_db;
    for (auto &kv : kinds_) {
        Kind &k = *kv.second;
        if (k.watched && k.needs_scan) by_db[k.db].push_back(&k);
    }
    for (const auto &db : by_db) sync_kinds(db.first, db.second);
    for (auto &s : sources_)
        if (s) check_loaded(*s);
}

// While the feed is up, a kind that could not be read is scanned again a second later; while
// it is down, the next on_subscribed() does it.
void Follower::schedule_rescan()
{
    if (rescan_timer_ != nullptr || feed_lost_ || !subscribed_once_) return;
    rescan_timer_ = qv_thread_add_timer_timeval(master_, &Follower::on_rescan_timer, this, 1, 0);
}

int Follower::on_rescan_timer(qv_thread_t *timer)
{
    auto *self = static_cast<Follower *>(qv_thread_arg(timer));
    self->rescan_timer_ = nullptr;
    if (!self->feed_lost_) self->rescan();
    return 0;
}

void Follower::on_key_event(int db, const std::string &key, const std::string &event)
{
    auto it = kinds_.find({db, key_kind(key)});
    if (it == kinds_.end()) return;
    if (pending_.empty()) event_active(batch_ev_, EV_TIMEOUT, 1);
    pending_.push_back({it->second.get(), key, is_delete(event)});
    if (pending_.size() >= kBatch) handle_pending();
}

void Follower::on_batch(int, short, void *arg) { static_cast<Follower *>(arg)->handle_pending(); }

namespace {

struct BatchKey {
    const void *kind;
    std::string_view key;
    bool operator==(const BatchKey &o) const { return kind == o.kind && key == o.key; }
};
struct BatchKeyHash {
    size_t operator()(const BatchKey &k) const
    {
        return std::hash<std::string_view>()(k.key) ^ std::hash<const void *>()(k.kind);
    }
};

} // namespace

// The batch in arrival order. A set followed by a delete of the same key in the batch is
// dropped (its value is gone, and the delete hands on the last record delivered); the first set
// after a key's last delete reads the key, the later ones have nothing new to add. So a delete
// then a set still give a DEL, then an ADD.
void Follower::handle_pending()
{
    if (pending_.empty()) return;
    std::vector<Pending> batch;
    batch.swap(pending_);
    struct Slot {
        size_t last_del = kNone;
        size_t read = kNone;
    };
    std::unordered_map<BatchKey, Slot, BatchKeyHash> slots;
    slots.reserve(batch.size());
    for (size_t i = 0; i < batch.size(); ++i)
        if (batch[i].del) slots[{batch[i].kind, batch[i].key}].last_del = i;
    std::vector<Connection::Key> reads;
    std::vector<size_t> read_of(batch.size(), kNone);
    for (size_t i = 0; i < batch.size(); ++i) {
        if (batch[i].del) continue;
        Slot &slot = slots[{batch[i].kind, batch[i].key}];
        if ((slot.last_del != kNone && slot.last_del > i) || slot.read != kNone) continue;
        slot.read = reads.size();
        read_of[i] = slot.read;
        reads.push_back({batch[i].kind->db, batch[i].key, batch[i].kind->form});
    }
    std::vector<StoredValue> values;
    std::vector<bool> ok;
    const int rc = reads.empty() ? QV_MOM_OK : read_values(reads, &values, &ok);
    for (size_t i = 0; i < batch.size(); ++i) {
        Pending &p = batch[i];
        if (p.del) {
            forget(*p.kind, p.key);
            continue;
        }
        const size_t r = read_of[i];
        if (r == kNone) continue;
        if (!ok[r]) {
            p.kind->needs_scan = true;
            continue;
        }
        if (values[r].kind != StoredValue::Kind::Absent) update(*p.kind, p.key, values[r], true);
    }
    if (rc == QV_MOM_OK) return;
    const size_t failed = static_cast<size_t>(std::count(ok.begin(), ok.end(), false));
    const Connection::Key &first = reads[static_cast<size_t>(std::find(ok.begin(), ok.end(), false) - ok.begin())];
    const std::string more = failed > 1 ? " nor " + std::to_string(failed - 1) + " more keys" : "";
    QV_MOM_LOG(QV_ZLOG_LEVEL_WARN, "cannot re-read %s in db %d of %s after its key event (error %d)%s: caught up by a rescan",
               std::string(first.key).c_str(), first.db, url_.c_str(), rc, more.c_str());
    schedule_rescan();
}

// Reads the keys in one batch; (*ok)[i] says whether keys[i] was read. When the server refuses
// one of them, each is read on its own so that only the refused ones fail. 0, or the code of a
// failure.
int Follower::read_values(const std::vector<Connection::Key> &keys, std::vector<StoredValue> *values,
                          std::vector<bool> *ok)
{
    int rc = conn()->read_batch(keys, values);
    ok->assign(keys.size(), rc == QV_MOM_OK);
    if (rc != QV_MOM_E_SERVER) return rc;
    values->assign(keys.size(), StoredValue{});
    rc = QV_MOM_OK;
    for (size_t i = 0; i < keys.size(); ++i) {
        const int one = conn()->read(keys[i].db, std::string(keys[i].key), &(*values)[i]);
        (*ok)[i] = one >= 0;
        if (one < 0 && rc == QV_MOM_OK) rc = one;
    }
    return rc;
}

} // namespace qv::mom

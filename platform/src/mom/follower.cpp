// Key events: a store event only says "this key changed". On a set the key is re-read and an
// ADD is delivered when the record differs from the last one delivered; on a delete the last
// record delivered goes out with the DEL. Kinds are watched first and scanned second; after a
// lost feed every kind is scanned again and compared with the last records kept.
#include "follower.h"

#include "codec.h"
#include "glb.h"
#include "keys.h"
#include "log.h"
#include "thread_master.h"

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
    std::unordered_map<std::string, std::string> last; // key text -> packed record delivered
    bool watched = false;
    bool synced = false;     // scanned at least once
    bool needs_scan = false; // watched or lost since the feed last reported itself subscribed
    bool snapshot = false;   // the first scan delivers what exists

    bool singleton() const { return key == value; }
    bool has_events() const { return !on_add.empty() || !on_del.empty(); }
};

struct Follower::Source {
    int id = 0;
    std::vector<Kind *> in;
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
    subscriber_ = glb_->backend->subscriber();
    std::string failure;
    if (record_ == nullptr)
        failure = "the event thread cannot attach";
    else if (!notifier)
        failure = "the event thread cannot make its wake-up event";
    else if (!subscriber_ || subscriber_->start(base, this) != QV_MOM_OK)
        failure = "cannot start the key-event feed";
    if (!failure.empty()) {
        subscriber_.reset();
        notifier.reset();
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
    subscriber_->stop();
    subscriber_.reset();
    notifier.reset();
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
    (event == QV_MOM_EVENT_ADD ? kind->on_add : kind->on_del).push_back(fn);
    if (kind->sources.empty()) {
        kind->snapshot = true;
        watch_kinds({kind});
    } else {
        for (Source *s : kind->sources) maybe_start(*s);
    }
    // A callback joining a kind that is already loaded gets what the others have been given.
    if (was_synced && event == QV_MOM_EVENT_ADD && kind->snapshot) {
        for (const auto &kv : kind->last) {
            MessagePtr rec = unpack_record(kind->value, kv.second);
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
        if (!k->has_events()) return;
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

bool Follower::sync_kind(Kind &k)
{
    std::vector<std::string> keys;
    int rc = conn()->scan(k.db, k.name, [&keys](const std::string &key) {
        keys.push_back(key);
        return 0;
    });
    if (rc < 0) {
        QV_MOM_LOG(QV_ZLOG_LEVEL_WARN, "cannot scan %s in db %d of %s (error %d): retried when the feed is back",
                   k.name.c_str(), k.db, url_.c_str(), rc);
        k.needs_scan = true;
        schedule_rescan();
        return false;
    }
    bool deliver_add = k.synced || k.snapshot;
    std::unordered_set<std::string> present;
    for (const auto &key : keys) {
        StoredValue v;
        rc = conn()->read(k.db, key, &v);
        if (rc < 0) {
            QV_MOM_LOG(QV_ZLOG_LEVEL_WARN, "cannot read %s in db %d of %s (error %d) while scanning",
                       key.c_str(), k.db, url_.c_str(), rc);
            k.needs_scan = true;
            schedule_rescan();
            return false;
        }
        if (v.kind == StoredValue::Kind::Absent) continue;
        present.insert(key);
        update(k, key, v, deliver_add);
    }
    std::vector<std::string> gone;
    for (const auto &kv : k.last)
        if (present.count(kv.first) == 0) gone.push_back(kv.first);
    for (const auto &key : gone) forget(k, key);
    k.synced = true;
    return true;
}

void Follower::update(Kind &k, const std::string &key, const StoredValue &v, bool deliver_add)
{
    MessagePtr rec = unpack_stored(k.value, v);
    if (!rec) {
        QV_MOM_LOG(QV_ZLOG_LEVEL_ERROR, "%s in db %d of %s does not unpack as %s: not delivered", key.c_str(),
                   k.db, url_.c_str(), k.name.c_str());
        return;
    }
    std::string packed = pack_record(rec.get());
    auto it = k.last.find(key);
    if (it != k.last.end() && it->second == packed) return;
    k.last[key] = std::move(packed);
    if (deliver_add) deliver(k, QV_MOM_EVENT_ADD, key, rec.get());
}

void Follower::forget(Kind &k, const std::string &key)
{
    auto it = k.last.find(key);
    if (it == k.last.end()) return;
    MessagePtr rec = unpack_record(k.value, it->second);
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
}

void Follower::on_lost(const std::string &why)
{
    QV_MOM_LOG(QV_ZLOG_LEVEL_WARN, "lost the key-event feed of %s: %s; changes are caught up when it is back",
               url_.c_str(), why.c_str());
    feed_lost_ = true;
    for (auto &kv : kinds_)
        if (kv.second->watched) kv.second->needs_scan = true;
}

// Scans every kind that needs it (a failed scan schedules the next attempt).
void Follower::rescan()
{
    for (auto &kv : kinds_) {
        Kind &k = *kv.second;
        if (k.watched && k.needs_scan && sync_kind(k)) k.needs_scan = false;
    }
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
    Kind &k = *it->second;
    if (is_delete(event)) {
        forget(k, key);
        return;
    }
    StoredValue v;
    int rc = conn()->read(db, key, &v);
    if (rc < 0) {
        QV_MOM_LOG(QV_ZLOG_LEVEL_WARN, "cannot re-read %s in db %d of %s after its %s event (error %d)",
                   key.c_str(), db, url_.c_str(), event.c_str(), rc);
        k.needs_scan = true;
        schedule_rescan();
        return;
    }
    if (v.kind != StoredValue::Kind::Absent) update(k, key, v, true);
}

} // namespace qv::mom

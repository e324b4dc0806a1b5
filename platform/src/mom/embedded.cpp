// The embedded store: 32 in-process databases of plain and hash values under one mutex, with a
// change feed that behaves like keyspace notifications. Every write posts (db, key, event) to
// each started subscriber watching the key's kind, in write order, and wakes its event thread;
// start and each newly watched kind post a report that the feed is subscribed.
#include "backend.h"

#include "keys.h"
#include "log.h"
#include "notifier.h"
#include "qv_mom.h"

#include <array>
#include <deque>
#include <map>
#include <mutex>
#include <set>
#include <unordered_map>
#include <utility>

namespace qv::mom {
namespace {

class EmbeddedSubscriber;

struct Entry {
    bool is_hash = false;
    std::string plain;
    std::map<std::string, std::string> hash;
};

struct Store {
    std::mutex mutex;
    std::array<std::unordered_map<std::string, Entry>, QV_MOM_DB_COUNT> dbs;
    std::vector<EmbeddedSubscriber *> subscribers; // the started ones

    // Called with the mutex held, so every subscriber sees the writes in the order they happened.
    void publish(int db, const std::string &key, const char *event);
};

bool db_ok(int db) { return db >= 0 && db < QV_MOM_DB_COUNT; }

class EmbeddedConnection final : public Connection {
public:
    explicit EmbeddedConnection(std::shared_ptr<Store> store) : store_(std::move(store)) {}

    int connect(int db) override { return db_ok(db) ? QV_MOM_OK : QV_MOM_E_INVAL; }

    int exists(int db, const std::string &key) override
    {
        if (!db_ok(db)) return QV_MOM_E_INVAL;
        std::lock_guard<std::mutex> lock(store_->mutex);
        return store_->dbs[db].count(key) != 0 ? QV_MOM_OK : QV_MOM_ABSENT;
    }

    int get(int db, const std::string &key, std::string *out) override
    {
        StoredValue v;
        int rc = read(db, key, &v);
        if (rc != QV_MOM_OK) return rc;
        if (v.kind == StoredValue::Kind::Absent) return QV_MOM_ABSENT;
        if (v.kind != StoredValue::Kind::Plain) return QV_MOM_E_SERVER;
        *out = std::move(v.plain);
        return QV_MOM_OK;
    }

    int hgetall(int db, const std::string &key, HashFields *out) override
    {
        StoredValue v;
        int rc = read(db, key, &v);
        if (rc != QV_MOM_OK) return rc;
        if (v.kind == StoredValue::Kind::Absent) return QV_MOM_ABSENT;
        if (v.kind != StoredValue::Kind::Hash) return QV_MOM_E_SERVER;
        *out = std::move(v.hash);
        return QV_MOM_OK;
    }

    int read(int db, const std::string &key, StoredValue *out) override
    {
        if (!db_ok(db)) return QV_MOM_E_INVAL;
        std::lock_guard<std::mutex> lock(store_->mutex);
        take(db, key, out);
        return QV_MOM_OK;
    }

    // Under one hold of the store's mutex.
    int read_batch(const std::vector<Key> &keys, std::vector<StoredValue> *out) override
    {
        for (const Key &k : keys)
            if (!db_ok(k.db)) return QV_MOM_E_INVAL;
        out->assign(keys.size(), StoredValue{});
        std::lock_guard<std::mutex> lock(store_->mutex);
        for (size_t i = 0; i < keys.size(); ++i) take(keys[i].db, std::string(keys[i].key), &(*out)[i]);
        return QV_MOM_OK;
    }

    int set(int db, const std::string &key, const std::string &value) override
    {
        if (!db_ok(db)) return QV_MOM_E_INVAL;
        std::lock_guard<std::mutex> lock(store_->mutex);
        Entry &e = store_->dbs[db][key];
        e.is_hash = false;
        e.hash.clear();
        e.plain = value;
        store_->publish(db, key, "set");
        return QV_MOM_OK;
    }

    int hset(int db, const std::string &key, const HashFields &fields) override
    {
        if (!db_ok(db) || fields.empty()) return QV_MOM_E_INVAL;
        std::lock_guard<std::mutex> lock(store_->mutex);
        auto &map = store_->dbs[db];
        auto it = map.find(key);
        if (it != map.end() && !it->second.is_hash) return QV_MOM_E_SERVER;
        Entry &e = it != map.end() ? it->second : map[key];
        e.is_hash = true;
        for (const auto &f : fields) e.hash[f.first] = f.second;
        store_->publish(db, key, "hset");
        return QV_MOM_OK;
    }

    int del(int db, const std::string &key) override
    {
        if (!db_ok(db)) return QV_MOM_E_INVAL;
        std::lock_guard<std::mutex> lock(store_->mutex);
        if (store_->dbs[db].erase(key) != 0) store_->publish(db, key, "del");
        return QV_MOM_OK;
    }

    int scan(int db, const std::string &name, const std::function<int(const std::string &)> &fn) override
    {
        if (!db_ok(db)) return QV_MOM_E_INVAL;
        std::vector<std::string> keys;
        {
            std::lock_guard<std::mutex> lock(store_->mutex);
            for (const auto &kv : store_->dbs[db]) {
                const std::string &k = kv.first;
                if (k.compare(0, name.size(), name) == 0 && (k.size() == name.size() || k[name.size()] == '|'))
                    keys.push_back(k);
            }
        }
        for (const auto &k : keys) {
            int rc = fn(k);
            if (rc != 0) return rc;
        }
        return QV_MOM_OK;
    }

private:
    // With the store mutex held.
    void take(int db, const std::string &key, StoredValue *out) const
    {
        *out = StoredValue{};
        auto it = store_->dbs[db].find(key);
        if (it == store_->dbs[db].end()) return;
        if (it->second.is_hash) {
            out->kind = StoredValue::Kind::Hash;
            out->hash.assign(it->second.hash.begin(), it->second.hash.end());
        } else {
            out->kind = StoredValue::Kind::Plain;
            out->plain = it->second.plain;
        }
    }

    std::shared_ptr<Store> store_;
};

class EmbeddedSubscriber final : public Subscriber {
public:
    struct Item {
        int db; // -1: the feed is subscribed
        std::string key;
        std::string event;
    };

    explicit EmbeddedSubscriber(std::shared_ptr<Store> store) : store_(std::move(store)) {}
    ~EmbeddedSubscriber() override { stop(); }

    int start(event_base *base, SubscriberListener *listener) override
    {
        if (base == nullptr || listener == nullptr || notifier_) return QV_MOM_E_INVAL;
        notifier_ = Notifier::create(base, [this] { drain(); });
        if (!notifier_) return QV_MOM_E_NOMEM;
        listener_ = listener;
        std::lock_guard<std::mutex> lock(store_->mutex);
        store_->subscribers.push_back(this);
        post(Item{-1, {}, {}}); // the feed is live from here on
        return QV_MOM_OK;
    }

    // The kind is in the feed at once; the report follows the events already queued.
    void watch(int db, const std::string &name) override
    {
        std::lock_guard<std::mutex> lock(store_->mutex);
        if (watched_.emplace(db, name).second && notifier_) post(Item{-1, {}, {}});
    }

    void stop() override
    {
        {
            std::lock_guard<std::mutex> lock(store_->mutex);
            auto &subs = store_->subscribers;
            for (auto it = subs.begin(); it != subs.end(); ++it)
                if (*it == this) {
                    subs.erase(it);
                    break;
                }
        }
        notifier_.reset();
        std::lock_guard<std::mutex> lock(queue_mutex_);
        queue_.clear();
    }

    // With the store mutex held.
    bool watches(int db, const std::string &key) const { return watched_.count({db, key_kind(key)}) != 0; }

    // With the store mutex held.
    void post(Item item)
    {
        {
            std::lock_guard<std::mutex> lock(queue_mutex_);
            queue_.push_back(std::move(item));
        }
        notifier_->notify();
    }


private:
    void drain()
    {
        std::deque<Item> items;
        {
            std::lock_guard<std::mutex> lock(queue_mutex_);
            items.swap(queue_);
        }
        for (const auto &it : items) {
            if (it.db < 0)
                listener_->on_subscribed();
            else
                listener_->on_key_event(it.db, it.key, it.event);
        }
    }

    std::shared_ptr<Store> store_;
    std::set<std::pair<int, std::string>> watched_; // guarded by the store mutex
    std::unique_ptr<Notifier> notifier_;
    SubscriberListener *listener_ = nullptr;
    std::mutex queue_mutex_;
    std::deque<Item> queue_;
};

void Store::publish(int db, const std::string &key, const char *event)
{
    for (EmbeddedSubscriber *s : subscribers)
        if (s->watches(db, key)) s->post(EmbeddedSubscriber::Item{db, key, event});
}

class EmbeddedBackend final : public Backend {
public:
    EmbeddedBackend(std::string url, std::shared_ptr<Store> store) : url_(std::move(url)), store_(std::move(store)) {}
    const std::string &url() const override { return url_; }
    std::unique_ptr<Connection> connect() override { return std::make_unique<EmbeddedConnection>(store_); }
    std::unique_ptr<Subscriber> subscriber() override { return std::make_unique<EmbeddedSubscriber>(store_); }

private:
    std::string url_;
    std::shared_ptr<Store> store_;
};

} // namespace

// "embedded" or "embedded:NAME"; each name is one store for the life of the process.
std::shared_ptr<Backend> open_embedded(const std::string &url)
{
    static std::mutex mutex;
    static std::map<std::string, std::shared_ptr<Store>> stores;
    std::lock_guard<std::mutex> lock(mutex);
    std::shared_ptr<Store> &store = stores[url];
    if (!store) store = std::make_shared<Store>();
    return std::make_shared<EmbeddedBackend>(url, store);
}

} // namespace qv::mom

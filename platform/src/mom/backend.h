// The seam between the database client and its stores. The client (keys, record codec, thread
// records, subscriptions with their last-value cache and resync) is written once against these
// two interfaces; each back end (embedded, Redis) implements them.
#ifndef QV_MOM_BACKEND_H
#define QV_MOM_BACKEND_H

#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

struct event_base;

namespace qv::mom {

// Field name -> that field's wire encoding.
using HashFields = std::vector<std::pair<std::string, std::string>>;

// A stored value as it is: absent, a plain string, or a hash.
struct StoredValue {
    enum class Kind { Absent, Plain, Hash } kind = Kind::Absent;
    std::string plain;
    HashFields hash;
};

// One thread's synchronous connection. Results are QV_MOM_* codes: 0, QV_MOM_ABSENT where the
// call says so, negative on failure. A broken connection is re-made once per call before
// QV_MOM_E_CONN is returned.
class Connection {
public:
    virtual ~Connection() = default;
    virtual int connect(int db) = 0;
    virtual int exists(int db, const std::string &key) = 0;
    // Plain read: ABSENT when the key is missing, QV_MOM_E_SERVER when it holds a hash.
    virtual int get(int db, const std::string &key, std::string *out) = 0;
    // Hash read: ABSENT when the key is missing, QV_MOM_E_SERVER when it holds a plain value.
    virtual int hgetall(int db, const std::string &key, HashFields *out) = 0;
    // Reads whatever the key holds (the subscriber's re-read and the scan use it).
    virtual int read(int db, const std::string &key, StoredValue *out) = 0;
    // A key of a database for reads in a batch (the text is the caller's and outlives the call),
    // and the type it is expected to hold (Absent: not known). A store may then ask for that
    // type alone; a wrong guess costs a second read, never a wrong value.
    struct Key {
        int db;
        std::string_view key;
        StoredValue::Kind hint = StoredValue::Kind::Absent;
    };
    // What read() gives for each key, (*out)[i] for keys[i], except that a hash may come as its
    // field values alone, with empty names (a record needs no more); a store that can send the
    // reads together overrides it. 0, or the result of the first read that failed (*out is then
    // not to be used: on Redis a server error about one key fails the whole batch).
    virtual int read_batch(const std::vector<Key> &keys, std::vector<StoredValue> *out)
    {
        out->assign(keys.size(), StoredValue{});
        for (size_t i = 0; i < keys.size(); ++i) {
            const int rc = read(keys[i].db, std::string(keys[i].key), &(*out)[i]);
            if (rc < 0) return rc;
        }
        return 0;
    }
    virtual int set(int db, const std::string &key, const std::string &value) = 0;
    virtual int hset(int db, const std::string &key, const HashFields &fields) = 0;
    virtual int del(int db, const std::string &key) = 0;
    // One write of a batch: a plain value, or hash fields.
    struct Write {
        int db;
        std::string key;
        bool hash;
        std::string value;
        HashFields fields;
    };
    // The writes in order; a store that can send them together overrides it. The result of the
    // first that failed, the index of which goes to *failed.
    virtual int write_batch(const std::vector<Write> &writes, size_t *failed)
    {
        for (size_t i = 0; i < writes.size(); ++i) {
            const Write &w = writes[i];
            const int rc = w.hash ? hset(w.db, w.key, w.fields) : set(w.db, w.key, w.value);
            if (rc != 0) {
                *failed = i;
                return rc;
            }
        }
        return 0;
    }
    // Where a replica stands with its primary ("link up, replication id ..."), for telling when
    // it loaded a new copy of the data (that makes no key events); "" for a store that is no
    // replica or cannot say.
    virtual std::string replica_state() { return {}; }
    // Every key equal to `name` or starting with `name|`; fn's non-zero result stops the scan.
    virtual int scan(int db, const std::string &name, const std::function<int(const std::string &)> &fn) = 0;
    // The keys of several names at once, (*keys)[i] those of names[i]; a store that can walk its
    // keys once for all of them overrides it, and may then give a key twice.
    virtual int scan_kinds(int db, const std::vector<std::string> &names, std::vector<std::vector<std::string>> *keys)
    {
        keys->assign(names.size(), {});
        for (size_t i = 0; i < names.size(); ++i) {
            const int rc = scan(db, names[i], [&](const std::string &key) {
                (*keys)[i].push_back(key);
                return 0;
            });
            if (rc < 0) return rc;
        }
        return 0;
    }
};

// What a subscriber reports, on the event thread.
class SubscriberListener {
public:
    virtual ~SubscriberListener() = default;
    // The feed is (again) subscribed to every watched kind: time to snapshot or resync.
    virtual void on_subscribed() = 0;
    // The feed was lost; changes until the next on_subscribed() are not reported.
    virtual void on_lost(const std::string &why) = 0;
    // The key changed; the event name is the store's ("set", "hset", "del", ...).
    virtual void on_key_event(int db, const std::string &key, const std::string &event) = 0;
};

// The change feed of a store, driven by the event thread's event base. Reconnects with
// back-off by itself after a loss.
class Subscriber {
public:
    virtual ~Subscriber() = default;
    virtual int start(event_base *base, SubscriberListener *listener) = 0;
    // Adds a record kind of a database to the feed (its singleton key and its "name|..." keys).
    // Once the feed covers the new kind it reports on_subscribed() again; the client snapshots
    // the kinds watched since the previous report then.
    virtual void watch(int db, const std::string &name) = 0;
    virtual void stop() = 0;
};

class Backend {
public:
    virtual ~Backend() = default;
    virtual const std::string &url() const = 0;
    virtual std::unique_ptr<Connection> connect() = 0;
    virtual std::unique_ptr<Subscriber> subscriber() = 0;
};

// Opens the back end a URL names; null with the reason in err on a malformed URL.
std::shared_ptr<Backend> open_backend(const std::string &url, std::string *err);
std::shared_ptr<Backend> open_embedded(const std::string &url);
std::shared_ptr<Backend> open_redis(const std::string &url, std::string *err);

} // namespace qv::mom

#endif // QV_MOM_BACKEND_H

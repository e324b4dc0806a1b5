// The database client's C interface: glbs, thread records, synchronous reads and writes.
// Every read and write runs on the calling thread's own connection.
#include "qv_mom.h"

#include "codec.h"
#include "glb.h"
#include "keys.h"
#include "log.h"

#include <cstdlib>
#include <cstring>

namespace qv::mom {

qv_zlog_category_t *log_category()
{
    static qv_zlog_category_t *cat = qv_zlog_init("qv_mom");
    return cat;
}

std::shared_ptr<Backend> open_backend(const std::string &url, std::string *err)
{
    if (url == "embedded" || (url.rfind("embedded:", 0) == 0 && url.size() > 9)) return open_embedded(url);
    if (url.rfind("redis://", 0) == 0 || url.rfind("unix://", 0) == 0) return open_redis(url, err);
    *err = "unknown database URL \"" + url + "\": expected embedded[:NAME], redis://HOST[:PORT] or unix:///PATH";
    return nullptr;
}

} // namespace qv::mom

using qv::mom::Connection;
using qv::mom::MessagePtr;

namespace {

// The attached thread's record; the public part is what callers get as their context.
struct ThreadRecord {
    qv_mom_thread_global_t pub{};
    qv_mom_conn conn;
    bool owns_master = false;

    ~ThreadRecord()
    {
        if (owns_master) qv_thread_master_free(pub.master);
    }
};

// The calling thread's record. A plain pointer (never destroyed itself) so that calls made after
// the thread's cleanup, such as from static destructors at exit, find no record instead of a
// destroyed one; the reaper frees the record when the thread ends without detaching.
thread_local ThreadRecord *t_record = nullptr;
struct ThreadRecordReaper {
    ~ThreadRecordReaper()
    {
        delete t_record;
        t_record = nullptr;
    }
};
thread_local ThreadRecordReaper t_reaper;

std::mutex g_default_mutex;      // g_default
std::mutex g_default_make_mutex; // one qv_mom_glb_default() makes the glb at a time
qv_mom_glb_t *g_default = nullptr;

bool db_ok(int db) { return db >= 0 && db < QV_MOM_DB_COUNT; }

// The connection of an attached thread's own context; null (and a log line) for anything else.
Connection *conn_of(void *context, const char *what)
{
    ThreadRecord *r = t_record;
    if (context == nullptr || r == nullptr || context != &r->pub) {
        QV_MOM_LOG(QV_ZLOG_LEVEL_ERROR, "%s: no database context in this thread (%s)", what,
                   context == nullptr ? "null context" : "the thread has not attached it");
        return nullptr;
    }
    return r->conn.impl.get();
}

const std::string &url_of_thread() { return t_record->pub.glb->url; }

const ProtobufCMessageDescriptor *record_of(const qv_mom_key_t *key)
{
    return key->record != nullptr ? key->record : key->key->descriptor;
}

// Checks the arguments common to every keyed call and makes the key text.
int prepare(void *context, int db, const qv_mom_key_t *key, const char *what, Connection **conn,
            std::string *text)
{
    *conn = conn_of(context, what);
    if (*conn == nullptr) return QV_MOM_E_INVAL;
    if (!db_ok(db) || key == nullptr || key->key == nullptr || key->key->descriptor == nullptr) {
        QV_MOM_LOG(QV_ZLOG_LEVEL_ERROR, "%s on %s: database %d or key is not valid", what, url_of_thread().c_str(),
                   db);
        return QV_MOM_E_INVAL;
    }
    int rc = qv::mom::make_key_text(key->key, record_of(key), text);
    if (rc != QV_MOM_OK)
        QV_MOM_LOG(QV_ZLOG_LEVEL_ERROR, "%s on %s: %s cannot key records (nested, repeated or floating fields)",
                   what, url_of_thread().c_str(), key->key->descriptor->name);
    return rc;
}

// Logs a failed call; a lost connection is logged by the connection itself, with a rate limit.
int failed(int rc, const char *what, int db, const std::string &text)
{
    if (rc >= 0) return rc;
    int level = rc == QV_MOM_E_CONN ? QV_ZLOG_LEVEL_DEBUG : QV_ZLOG_LEVEL_ERROR;
    const char *why = rc == QV_MOM_E_CONN     ? "no connection"
                      : rc == QV_MOM_E_SERVER ? "server error (wrong record type?)"
                      : rc == QV_MOM_E_DECODE ? "the stored value does not unpack as its record"
                      : rc == QV_MOM_E_NOMEM  ? "out of memory"
                                              : "invalid argument";
    QV_MOM_LOG(level, "%s %s in db %d of %s: %s", what, text.c_str(), db, url_of_thread().c_str(), why);
    return rc;
}

} // namespace

// ---- set-up ----

extern "C" qv_mom_glb_t *qv_mom_glb_create(const char *url, char *err, size_t errlen)
{
    std::string u = url != nullptr ? url : "";
    if (u.empty()) {
        const char *env = std::getenv("PMX_DB");
        u = env != nullptr && *env != '\0' ? env : "embedded";
    }
    std::string why;
    auto glb = std::make_unique<qv_mom_glb>();
    glb->url = u;
    glb->backend = qv::mom::open_backend(u, &why);
    if (glb->backend) {
        glb->follower = std::make_unique<qv::mom::Follower>(glb.get());
        if (glb->follower->start(&why) != QV_MOM_OK) glb->follower.reset();
    }
    if (!glb->follower) {
        QV_MOM_LOG(QV_ZLOG_LEVEL_ERROR, "cannot open database %s: %s", u.c_str(), why.c_str());
        if (err != nullptr && errlen > 0) at_snprintf(err, errlen, "%s", why.c_str());
        return nullptr;
    }
    QV_MOM_LOG(QV_ZLOG_LEVEL_INFO, "database %s opened", u.c_str());
    std::lock_guard<std::mutex> lock(g_default_mutex);
    if (g_default == nullptr) g_default = glb.get();
    return glb.release();
}

extern "C" void qv_mom_glb_destroy(qv_mom_glb_t *glb)
{
    if (glb == nullptr) return;
    {
        std::lock_guard<std::mutex> lock(g_default_mutex);
        if (g_default == glb) g_default = nullptr;
    }
    glb->follower->stop();
    delete glb;
}

extern "C" const char *qv_mom_glb_url(const qv_mom_glb_t *glb) { return glb != nullptr ? glb->url.c_str() : nullptr; }

extern "C" qv_mom_glb_t *qv_mom_glb_default(void)
{
    std::lock_guard<std::mutex> make(g_default_make_mutex);
    {
        std::lock_guard<std::mutex> lock(g_default_mutex);
        if (g_default != nullptr) return g_default;
    }
    return qv_mom_glb_create(nullptr, nullptr, 0);
}

extern "C" qv_mom_thread_global_t *qv_mom_thread_attach(qv_mom_glb_t *glb, qv_thread_master_t *master)
{
    if (t_record) {
        if (glb != t_record->pub.glb)
            QV_MOM_LOG(QV_ZLOG_LEVEL_WARN, "thread already attached to %s, not to %s", t_record->pub.glb->url.c_str(),
                       glb != nullptr ? glb->url.c_str() : "(null)");
        return &t_record->pub;
    }
    if (glb == nullptr) return nullptr;
    auto r = std::make_unique<ThreadRecord>();
    r->conn.impl = glb->backend->connect();
    if (!r->conn.impl) {
        QV_MOM_LOG(QV_ZLOG_LEVEL_ERROR, "cannot make a connection to %s for this thread", glb->url.c_str());
        return nullptr;
    }
    if (master == nullptr) {
        master = qv_thread_master_create("qv_mom thread");
        if (master == nullptr) return nullptr;
        r->owns_master = true;
    }
    r->pub.conn = &r->conn;
    r->pub.master = master;
    r->pub.glb = glb;
    (void)&t_reaper; // makes sure the reaper exists in this thread
    t_record = r.release();
    return &t_record->pub;
}

extern "C" void qv_mom_thread_detach(void)
{
    delete t_record;
    t_record = nullptr;
}

extern "C" void *qv_mom_get_thread_local_global(void) { return t_record != nullptr ? &t_record->pub : nullptr; }

// ---- reads ----

extern "C" int qv_mom_client_connect_sync(void *context, int db)
{
    Connection *conn = conn_of(context, "connect");
    if (conn == nullptr || !db_ok(db)) return QV_MOM_E_INVAL;
    return failed(conn->connect(db), "connect to", db, "");
}

extern "C" int qv_mom_exists_sync(void *context, int db, const qv_mom_key_t *key)
{
    Connection *conn = nullptr;
    std::string text;
    int rc = prepare(context, db, key, "exists", &conn, &text);
    if (rc != QV_MOM_OK) return rc;
    return failed(conn->exists(db, text), "exists", db, text);
}

extern "C" ProtobufCMessage *qv_mom_get_sync(void *context, int db, const qv_mom_key_t *key, int *error)
{
    int dummy = 0;
    int &err = error != nullptr ? *error : dummy;
    Connection *conn = nullptr;
    std::string text;
    err = prepare(context, db, key, "get", &conn, &text);
    if (err != QV_MOM_OK) return nullptr;
    std::string packed;
    int rc = conn->get(db, text, &packed);
    if (rc == QV_MOM_ABSENT) {
        err = QV_MOM_OK;
        return nullptr;
    }
    err = failed(rc, "get", db, text);
    if (err < 0) return nullptr;
    MessagePtr rec = qv::mom::unpack_record(record_of(key), packed);
    if (!rec) err = failed(QV_MOM_E_DECODE, "get", db, text);
    return rec.release();
}

extern "C" void qv_mom_qv_obj_free(ProtobufCMessage *obj)
{
    if (obj != nullptr) protobuf_c_message_free_unpacked(obj, nullptr);
}

extern "C" qv_mom_hash_res_t *qv_mom_hgetall_sync(void *context, int db, const qv_mom_key_t *key)
{
    auto *res = static_cast<qv_mom_hash_res_t *>(std::calloc(1, sizeof(qv_mom_hash_res_t)));
    if (res == nullptr) return nullptr;
    Connection *conn = nullptr;
    std::string text;
    res->error_code = prepare(context, db, key, "hgetall", &conn, &text);
    if (res->error_code != QV_MOM_OK) return res;
    qv::mom::HashFields fields;
    int rc = conn->hgetall(db, text, &fields);
    if (rc == QV_MOM_ABSENT) return res;
    res->error_code = failed(rc, "hgetall", db, text);
    if (res->error_code < 0) return res;
    MessagePtr rec = qv::mom::unpack_hash(record_of(key), fields);
    if (!rec) res->error_code = failed(QV_MOM_E_DECODE, "hgetall", db, text);
    res->value = rec.release();
    return res;
}

extern "C" void qv_mom_hash_res_free(qv_mom_hash_res_t *res)
{
    if (res == nullptr) return;
    qv_mom_qv_obj_free(res->value);
    std::free(res);
}

// ---- writes ----

namespace {

int check_record(const qv_mom_key_t *key, const ProtobufCMessage *record, const char *what, const std::string &text)
{
    if (record != nullptr && record->descriptor == record_of(key)) return QV_MOM_OK;
    QV_MOM_LOG(QV_ZLOG_LEVEL_ERROR, "%s %s on %s: the record is %s, not a %s", what, text.c_str(),
               url_of_thread().c_str(), record != nullptr ? record->descriptor->name : "null",
               record_of(key)->name);
    return QV_MOM_E_INVAL;
}

} // namespace

extern "C" int qv_mom_set_sync(void *context, int db, const qv_mom_key_t *key, const ProtobufCMessage *record)
{
    Connection *conn = nullptr;
    std::string text;
    int rc = prepare(context, db, key, "set", &conn, &text);
    if (rc == QV_MOM_OK) rc = check_record(key, record, "set", text);
    if (rc != QV_MOM_OK) return rc;
    return failed(conn->set(db, text, qv::mom::pack_record(record)), "set", db, text);
}

extern "C" int qv_mom_hset_sync(void *context, int db, const qv_mom_key_t *key, const ProtobufCMessage *record,
                                const char *const *names, size_t n)
{
    Connection *conn = nullptr;
    std::string text;
    int rc = prepare(context, db, key, "hset", &conn, &text);
    if (rc == QV_MOM_OK) rc = check_record(key, record, "hset", text);
    if (rc != QV_MOM_OK) return rc;
    if (names != nullptr && n == 0) return failed(QV_MOM_E_INVAL, "hset (no field names)", db, text);
    qv::mom::HashFields fields;
    std::string bad;
    if (qv::mom::hash_fields(record, names, n, &fields, &bad) != QV_MOM_OK) {
        QV_MOM_LOG(QV_ZLOG_LEVEL_ERROR, "hset %s in db %d of %s: %s has no field \"%s\"", text.c_str(), db,
                   url_of_thread().c_str(), record->descriptor->name, bad.c_str());
        return QV_MOM_E_INVAL;
    }
    return failed(conn->hset(db, text, fields), "hset", db, text);
}

extern "C" int qv_mom_write_batch_sync(void *context, const qv_mom_batch_write_t *writes, size_t n)
{
    if (n == 0) return QV_MOM_OK;
    if (writes == nullptr) return failed(QV_MOM_E_INVAL, "write batch (no writes)", 0, "");
    Connection *conn = nullptr;
    std::vector<Connection::Write> batch(n);
    for (size_t i = 0; i < n; ++i) {
        const qv_mom_batch_write_t &w = writes[i];
        const char *what = w.hash != 0 ? "hset" : "set";
        Connection::Write &out = batch[i];
        int rc = prepare(context, w.db, w.key, what, &conn, &out.key);
        if (rc == QV_MOM_OK) rc = check_record(w.key, w.record, what, out.key);
        if (rc != QV_MOM_OK) return rc;
        out.db = w.db;
        out.hash = w.hash != 0;
        if (!out.hash) {
            out.value = qv::mom::pack_record(w.record);
            continue;
        }
        std::string bad;
        if (qv::mom::hash_fields(w.record, nullptr, 0, &out.fields, &bad) != QV_MOM_OK)
            return failed(QV_MOM_E_INVAL, "hset", w.db, out.key);
    }
    size_t at = 0;
    const int rc = conn->write_batch(batch, &at);
    if (rc == QV_MOM_OK) return rc;
    return failed(rc, batch[at].hash ? "batch hset" : "batch set", batch[at].db, batch[at].key);
}

extern "C" int qv_mom_del_sync(void *context, int db, const qv_mom_key_t *key)
{
    Connection *conn = nullptr;
    std::string text;
    int rc = prepare(context, db, key, "del", &conn, &text);
    if (rc != QV_MOM_OK) return rc;
    return failed(conn->del(db, text), "del", db, text);
}

extern "C" int qv_mom_scan_sync(void *context, int db, const ProtobufCMessageDescriptor *record,
                                qv_mom_scan_fn fn, void *arg)
{
    Connection *conn = conn_of(context, "scan");
    if (conn == nullptr) return QV_MOM_E_INVAL;
    if (!db_ok(db) || record == nullptr || fn == nullptr) return failed(QV_MOM_E_INVAL, "scan", db, "");
    // The keys first, then the records: the connection is free again while fn runs.
    std::vector<std::string> keys;
    int rc = conn->scan(db, record->name, [&keys](const std::string &k) {
        keys.push_back(k);
        return 0;
    });
    if (rc < 0) return failed(rc, "scan", db, record->name);
    // Read in batches (one round trip each on Redis) of a bounded size.
    constexpr size_t kChunk = 1024;
    std::vector<qv::mom::Connection::Key> chunk;
    std::vector<qv::mom::StoredValue> values;
    for (size_t start = 0; start < keys.size(); start += kChunk) {
        chunk.clear();
        for (size_t i = start; i < keys.size() && i < start + kChunk; ++i) chunk.push_back({db, keys[i]});
        rc = conn->read_batch(chunk, &values);
        if (rc < 0) return failed(rc, "scan: read", db, record->name);
        for (size_t i = 0; i < chunk.size(); ++i) {
            const std::string &key = keys[start + i];
            if (values[i].kind == qv::mom::StoredValue::Kind::Absent) continue;
            MessagePtr rec = qv::mom::unpack_stored(record, values[i]);
            if (!rec) failed(QV_MOM_E_DECODE, "scan: read", db, key);
            rc = fn(key.c_str(), rec.get(), arg);
            if (rc != 0) return rc;
        }
    }
    return QV_MOM_OK;
}

extern "C" int qv_mom_key_text(const qv_mom_key_t *key, char *buf, size_t size)
{
    if (key == nullptr || key->key == nullptr || key->key->descriptor == nullptr || (buf == nullptr && size > 0))
        return QV_MOM_E_INVAL;
    std::string text;
    int rc = qv::mom::make_key_text(key->key, record_of(key), &text);
    if (rc != QV_MOM_OK) return rc;
    if (size > 0) {
        size_t n = text.size() < size - 1 ? text.size() : size - 1;
        std::memcpy(buf, text.data(), n);
        buf[n] = '\0';
    }
    return static_cast<int>(text.size());
}

// ---- subscriptions ----

extern "C" qv_mom_ab_t *qv_mom_ab_init(qv_mom_glb_t *glb, const char *name, void *opt_in, void *opt_out)
{
    (void)opt_in;
    if (opt_out != nullptr) std::memset(opt_out, 0, 2 * sizeof(uint32_t));
    if (glb == nullptr) glb = qv_mom_glb_default();
    if (glb == nullptr) return nullptr;
    auto ab = std::make_unique<qv_mom_ab>();
    ab->glb = glb;
    ab->name = name != nullptr ? name : "";
    std::lock_guard<std::mutex> lock(glb->ab_mutex);
    glb->abs.push_back(std::move(ab));
    return glb->abs.back().get();
}

extern "C" int qv_mom_reg_ds(qv_mom_ab_t *ab, const qv_mom_key_desc_t *in_keys, int n_in,
                             const qv_mom_key_desc_t *out_keys, int n_out)
{
    (void)out_keys;
    (void)n_out;
    if (ab == nullptr) return QV_MOM_E_INVAL;
    return ab->glb->follower->reg_ds(ab->name, in_keys, n_in);
}

extern "C" int qv_mom_set_ds_opt(qv_mom_ab_t *ab, int ds, int opt, int value)
{
    if (ab == nullptr) return QV_MOM_E_INVAL;
    return ab->glb->follower->set_ds_opt(ds, opt, value);
}

extern "C" int qv_mom_reg_single_ds_event(qv_mom_glb_t *glb, int ds, int event, qv_mom_ds_event_fn fn, void *arg)
{
    if (glb == nullptr) return QV_MOM_E_INVAL;
    return glb->follower->reg_ds_event(ds, event, fn, arg);
}

extern "C" int qv_mom_reg_key_event(qv_mom_glb_t *glb, const qv_mom_key_desc_t *key, int event,
                                    qv_mom_key_event_fn fn)
{
    if (glb == nullptr || key == nullptr) return QV_MOM_E_INVAL;
    return glb->follower->reg_key_event(*key, event, fn);
}

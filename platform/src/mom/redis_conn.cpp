// One thread's synchronous Redis connection. Every call is one round trip (a SELECT rides along
// only when the database changes), a batch one per kBatch writes or keys read; a broken
// connection is re-made once per call.
#include <hiredis/hiredis.h>
#include <poll.h>

#include <cerrno>
#include <cstring>
#include <string_view>
#include <algorithm>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "qv_mom.h"
#include "redis_common.h"

namespace qv::mom::redis {
namespace {

constexpr timeval kConnectTimeout = {1, 0};
constexpr timeval kCommandTimeout = {5, 0};

struct ReplyFree {
    void operator()(redisReply *r) const { freeReplyObject(r); }
};
using Reply = std::unique_ptr<redisReply, ReplyFree>;

// One command: binary-safe arguments that point into the caller's strings.
struct Cmd {
    static constexpr int kMax = 6;
    int argc = 0;
    const char *argv[kMax];
    size_t len[kMax];
    Cmd(std::initializer_list<std::string_view> args)
    {
        for (std::string_view a : args) {
            argv[argc] = a.data();
            len[argc++] = a.size();
        }
    }
};

bool is_error(const redisReply *r) { return r->type == REDIS_REPLY_ERROR; }
std::string text(const redisReply *r) { return std::string(r->str, r->len); }

class RedisConnection final : public Connection {
public:
    explicit RedisConnection(std::shared_ptr<Shared> shared) : shared_(std::move(shared)) {}
    ~RedisConnection() override { drop(); }
    RedisConnection(const RedisConnection &) = delete;
    RedisConnection &operator=(const RedisConnection &) = delete;

    int connect(int db) override
    {
        if (ctx_ != nullptr && !idle_and_intact()) drop();
        if (ctx_ != nullptr && db == db_) return QV_MOM_OK;
        return run(db, nullptr, 0, nullptr);
    }

    // From INFO replication: the link and the replication id a replica follows, while no sync is
    // under way; "" on a primary, during a sync, or when the server cannot be asked.
    std::string replica_state() override
    {
        const Cmd cmd{"INFO", "replication"};
        Reply r[1];
        if (run(db_ < 0 ? 0 : db_, &cmd, 1, r) != QV_MOM_OK || r[0]->type != REDIS_REPLY_STRING) return {};
        std::string role, link, replid, syncing;
        std::string_view info(r[0]->str, r[0]->len);
        while (!info.empty()) {
            const size_t eol = info.find('\n');
            std::string_view line = info.substr(0, eol);
            if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
            const size_t colon = line.find(':');
            if (colon != std::string_view::npos) {
                const std::string_view name = line.substr(0, colon), value = line.substr(colon + 1);
                if (name == "role") role = value;
                else if (name == "master_link_status") link = value;
                else if (name == "master_replid") replid = value;
                else if (name == "master_sync_in_progress") syncing = value;
            }
            if (eol == std::string_view::npos) break;
            info.remove_prefix(eol + 1);
        }
        if (role != "slave" || link != "up" || syncing == "1") return {};
        return "link up, replication id " + replid;
    }

    int exists(int db, const std::string &key) override
    {
        const Cmd cmd{"EXISTS", key};
        Reply r[1];
        int rc = run(db, &cmd, 1, r);
        if (rc != QV_MOM_OK) return rc;
        if (r[0]->type != REDIS_REPLY_INTEGER) return server_error("EXISTS", db, key, r[0].get());
        return r[0]->integer > 0 ? QV_MOM_OK : QV_MOM_ABSENT;
    }

    int get(int db, const std::string &key, std::string *out) override
    {
        const Cmd cmd{"GET", key};
        Reply r[1];
        int rc = run(db, &cmd, 1, r);
        if (rc != QV_MOM_OK) return rc;
        if (r[0]->type == REDIS_REPLY_NIL) return QV_MOM_ABSENT;
        if (r[0]->type != REDIS_REPLY_STRING) return server_error("GET", db, key, r[0].get());
        out->assign(r[0]->str, r[0]->len);
        return QV_MOM_OK;
    }

    int hgetall(int db, const std::string &key, HashFields *out) override
    {
        const Cmd cmd{"HGETALL", key};
        Reply r[1];
        int rc = run(db, &cmd, 1, r);
        if (rc != QV_MOM_OK) return rc;
        if (r[0]->type != REDIS_REPLY_ARRAY) return server_error("HGETALL", db, key, r[0].get());
        if (r[0]->elements == 0) return QV_MOM_ABSENT; // the server keeps no empty hash
        take_fields(r[0].get(), out);
        return QV_MOM_OK;
    }

    // GET and HGETALL in one round trip: whichever type the key holds answers, the other one
    // fails with WRONGTYPE (or both are empty when the key is absent).
    int read(int db, const std::string &key, StoredValue *out) override
    {
        const Cmd cmds[] = {{"GET", key}, {"HGETALL", key}};
        Reply r[2];
        int rc = run(db, cmds, 2, r);
        if (rc != QV_MOM_OK) return rc;
        if (take_value(r[0].get(), r[1].get(), out) != Taken::Value)
            return server_error("GET/HGETALL", db, key, is_error(r[0].get()) ? r[0].get() : r[1].get());
        return QV_MOM_OK;
    }

    // In pipelines of at most kBatch keys, one round trip each: GET for a key expected to be
    // plain, HVALS for one expected to be a hash (the values are the record, the names would
    // double the reply), both for the others and, in one more round trip, for those that held
    // another type than expected.
    int read_batch(const std::vector<Key> &keys, std::vector<StoredValue> *out) override
    {
        out->assign(keys.size(), StoredValue{});
        std::vector<size_t> which, mistyped;
        for (size_t start = 0; start < keys.size(); start += kBatch) {
            which.clear();
            for (size_t i = start; i < keys.size() && i < start + kBatch; ++i) which.push_back(i);
            int rc = read_pipeline(keys, which, true, out, &mistyped);
            if (rc == QV_MOM_OK && !mistyped.empty()) rc = read_pipeline(keys, mistyped, false, out, &which);
            if (rc != QV_MOM_OK) return rc;
        }
        return QV_MOM_OK;
    }

    int set(int db, const std::string &key, const std::string &value) override
    {
        const Cmd cmd{"SET", key, value};
        Reply r[1];
        int rc = run(db, &cmd, 1, r);
        if (rc != QV_MOM_OK) return rc;
        return is_error(r[0].get()) ? server_error("SET", db, key, r[0].get()) : QV_MOM_OK;
    }

    int hset(int db, const std::string &key, const HashFields &fields) override
    {
        if (fields.empty()) return QV_MOM_OK;
        std::vector<const char *> argv{"HSET", key.data()};
        std::vector<size_t> len{4, key.size()};
        for (const auto &f : fields) {
            argv.insert(argv.end(), {f.first.data(), f.second.data()});
            len.insert(len.end(), {f.first.size(), f.second.size()});
        }
        Reply r[1];
        int rc = run(db, nullptr, 0, r, static_cast<int>(argv.size()), argv.data(), len.data());
        if (rc != QV_MOM_OK) return rc;
        return is_error(r[0].get()) ? server_error("HSET", db, key, r[0].get()) : QV_MOM_OK;
    }

    int del(int db, const std::string &key) override
    {
        const Cmd cmd{"DEL", key};
        Reply r[1];
        int rc = run(db, &cmd, 1, r);
        if (rc != QV_MOM_OK) return rc;
        return is_error(r[0].get()) ? server_error("DEL", db, key, r[0].get()) : QV_MOM_OK;
    }

    // The singleton key "name" and every "name|..." key, through SCAN (never KEYS, which
    // stalls the server). SCAN may return a key twice; each is handed on once.
    int scan(int db, const std::string &name,
             const std::function<int(const std::string &)> &fn) override
    {
        int rc = exists(db, name);
        if (rc < 0) return rc;
        if (rc == QV_MOM_OK) {
            int stop = fn(name);
            if (stop != 0) return stop;
        }
        const std::string pattern = glob_escape(name) + "|*";
        std::unordered_set<std::string> seen;
        std::string cursor = "0";
        do {
            const Cmd cmd{"SCAN", cursor, "MATCH", pattern, "COUNT", "1000"};
            Reply r[1];
            rc = run(db, &cmd, 1, r);
            if (rc != QV_MOM_OK) return rc;
            const redisReply *page = r[0].get();
            if (page->type != REDIS_REPLY_ARRAY || page->elements != 2 ||
                page->element[0]->type != REDIS_REPLY_STRING ||
                page->element[1]->type != REDIS_REPLY_ARRAY)
                return server_error("SCAN", db, pattern, page);
            cursor = text(page->element[0]);
            const redisReply *keys = page->element[1];
            std::vector<std::string> fresh;
            for (size_t i = 0; i < keys->elements; ++i) {
                std::string key = text(keys->element[i]);
                if (seen.insert(key).second) fresh.push_back(std::move(key));
            }
            r[0].reset(); // fn may use this connection
            for (const auto &key : fresh) {
                int stop = fn(key);
                if (stop != 0) return stop;
            }
        } while (cursor != "0");
        return QV_MOM_OK;
    }

    // One walk of the whole database for several kinds (a MATCH scan walks it all anyway, once
    // per kind), the keys sorted here; one kind alone is scanned with its MATCH pattern.
    int scan_kinds(int db, const std::vector<std::string> &names, std::vector<std::vector<std::string>> *keys) override
    {
        keys->assign(names.size(), {});
        if (names.size() == 1) {
            return scan(db, names.front(), [keys](const std::string &key) {
                keys->front().push_back(key);
                return 0;
            });
        }
        std::unordered_map<std::string_view, size_t> index;
        for (size_t i = 0; i < names.size(); ++i) index.emplace(names[i], i);
        std::string cursor = "0";
        do {
            const Cmd cmd{"SCAN", cursor, "COUNT", "1000"};
            Reply r[1];
            int rc = run(db, &cmd, 1, r);
            if (rc != QV_MOM_OK) return rc;
            const redisReply *page = r[0].get();
            if (page->type != REDIS_REPLY_ARRAY || page->elements != 2 ||
                page->element[0]->type != REDIS_REPLY_STRING || page->element[1]->type != REDIS_REPLY_ARRAY)
                return server_error("SCAN", db, "*", page);
            cursor = text(page->element[0]);
            const redisReply *found = page->element[1];
            for (size_t i = 0; i < found->elements; ++i) {
                const std::string_view key(found->element[i]->str, found->element[i]->len);
                auto it = index.find(key.substr(0, key.find('|')));
                if (it != index.end()) (*keys)[it->second].emplace_back(key);
            }
        } while (cursor != "0");
        return QV_MOM_OK;
    }

    // In pipelines of at most kBatch commands: one round trip each, and a bounded reply backlog.
    int write_batch(const std::vector<Write> &writes, size_t *failed) override
    {
        for (size_t start = 0; start < writes.size(); start += kBatch) {
            const int rc = pipeline(writes, start, std::min(writes.size(), start + kBatch), failed);
            if (rc != QV_MOM_OK) return rc;
        }
        return QV_MOM_OK;
    }

private:
    static constexpr size_t kBatch = 1024;

    // Sends the reads of keys[i] for each i of `which`, with a SELECT wherever the database
    // changes, then takes the replies one key at a time, each freed before the next is read (a
    // batch of hashes is tens of thousands of reply objects). With `hinted`, a key of a known
    // type is asked for that type alone, and goes to *mistyped when it holds another. Reads are
    // idempotent: a connection lost midway is re-made and the whole pipeline sent once more.
    // Every reply is taken even after a refusal, so that the connection stays in step.
    int read_pipeline(const std::vector<Key> &keys, const std::vector<size_t> &which, bool hinted,
                      std::vector<StoredValue> *out, std::vector<size_t> *mistyped)
    {
        using K = StoredValue::Kind;
        auto asks_get = [hinted](const Key &k) { return !hinted || k.hint != K::Hash; };
        auto asks_hvals = [hinted](const Key &k) { return !hinted || k.hint != K::Plain; };
        for (int attempt = 0;; ++attempt) {
            if (ctx_ == nullptr && !open()) return QV_MOM_E_CONN;
            int selected = db_;
            for (size_t i : which) {
                const Key &k = keys[i];
                if (k.db != selected) {
                    append_select(k.db);
                    selected = k.db;
                }
                const char *argv[] = {"GET", k.key.data()};
                size_t len[] = {3, k.key.size()};
                if (asks_get(k)) redisAppendCommandArgv(ctx_, 2, argv, len);
                argv[0] = "HVALS";
                len[0] = 5;
                if (asks_hvals(k)) redisAppendCommandArgv(ctx_, 2, argv, len);
            }
            mistyped->clear();
            int rc = QV_MOM_OK;
            bool broken = false;
            selected = db_;
            for (size_t i : which) {
                const Key &k = keys[i];
                Reply r[3]; // SELECT (when the database changes here), GET, HVALS
                const bool asked[3] = {k.db != selected, asks_get(k), asks_hvals(k)};
                for (int j = 0; j < 3 && !broken; ++j) {
                    if (!asked[j]) continue;
                    void *reply = nullptr;
                    broken = redisGetReply(ctx_, &reply) != REDIS_OK || reply == nullptr;
                    r[j].reset(static_cast<redisReply *>(reply));
                }
                if (broken) break;
                if (r[0] && is_error(r[0].get()) && rc == QV_MOM_OK) {
                    QV_MOM_LOG(QV_ZLOG_LEVEL_ERROR, "SELECT %d failed on %s: %s (the server needs 32 databases)", k.db,
                               shared_->ep.url.c_str(), r[0]->str);
                    rc = QV_MOM_E_SERVER;
                }
                selected = k.db;
                const Taken t = take_value(r[1].get(), r[2].get(), &(*out)[i], false);
                if (t == Taken::Mistyped)
                    mistyped->push_back(i);
                else if (t == Taken::Refused && rc == QV_MOM_OK)
                    rc = server_error("GET/HVALS", k.db, std::string(k.key), is_error(r[1].get()) ? r[1].get() : r[2].get());
            }
            if (broken) {
                if (send_again(attempt)) continue;
                return QV_MOM_E_CONN;
            }
            db_ = rc == QV_MOM_OK ? selected : -1; // after a refused SELECT the database is not known
            return rc;
        }
    }

    // Sends writes [begin, end) with a SELECT wherever the database changes, then reads every
    // reply. SET and HSET are idempotent, so a connection lost midway is re-made and the whole
    // pipeline sent once more.
    int pipeline(const std::vector<Write> &writes, size_t begin, size_t end, size_t *failed)
    {
        for (int attempt = 0;; ++attempt) {
            if (ctx_ == nullptr && !open()) {
                *failed = begin;
                return QV_MOM_E_CONN;
            }
            std::vector<long> owner; // per reply: the write it answers, or -1 - db for a SELECT
            int selected = db_;
            std::vector<const char *> argv;
            std::vector<size_t> len;
            for (size_t i = begin; i < end; ++i) {
                const Write &w = writes[i];
                if (w.hash && w.fields.empty()) continue;
                if (w.db != selected) {
                    append_select(w.db);
                    owner.push_back(-1 - w.db);
                    selected = w.db;
                }
                argv.assign({w.hash ? "HSET" : "SET", w.key.data()});
                len.assign({w.hash ? size_t{4} : size_t{3}, w.key.size()});
                if (w.hash) {
                    for (const auto &f : w.fields) {
                        argv.insert(argv.end(), {f.first.data(), f.second.data()});
                        len.insert(len.end(), {f.first.size(), f.second.size()});
                    }
                } else {
                    argv.push_back(w.value.data());
                    len.push_back(w.value.size());
                }
                redisAppendCommandArgv(ctx_, static_cast<int>(argv.size()), const_cast<const char **>(argv.data()),
                                       len.data());
                owner.push_back(static_cast<long>(i));
            }
            std::vector<Reply> replies(owner.size());
            bool broken = false;
            for (size_t r = 0; r < owner.size() && !broken; ++r) {
                void *reply = nullptr;
                broken = redisGetReply(ctx_, &reply) != REDIS_OK || reply == nullptr;
                replies[r].reset(static_cast<redisReply *>(reply));
            }
            if (broken) {
                if (send_again(attempt)) continue;
                *failed = begin;
                return QV_MOM_E_CONN;
            }
            db_ = selected;
            for (size_t r = 0; r < owner.size(); ++r) {
                if (!is_error(replies[r].get())) continue;
                if (owner[r] < 0) {
                    QV_MOM_LOG(QV_ZLOG_LEVEL_ERROR, "SELECT %ld failed on %s: %s (the server needs 32 databases)",
                               -1 - owner[r], shared_->ep.url.c_str(), replies[r]->str);
                    db_ = -1;
                    *failed = r + 1 < owner.size() && owner[r + 1] >= 0 ? static_cast<size_t>(owner[r + 1]) : begin;
                    return QV_MOM_E_SERVER;
                }
                const Write &w = writes[static_cast<size_t>(owner[r])];
                *failed = static_cast<size_t>(owner[r]);
                return server_error(w.hash ? "HSET" : "SET", w.db, w.key, replies[r].get());
            }
            return QV_MOM_OK;
        }
    }

    // Sends SELECT (when db changed) and the commands in one write, and reads a reply for each
    // command into out. A command with more arguments than a Cmd holds comes as argc/argv/len.
    // An I/O failure drops the connection and tries once more on a new one.
    // After a round trip lost its connection: true to send it once more on a new one (the first
    // attempt), false once the loss is reported (the second).
    bool send_again(int attempt)
    {
        const std::string why = ctx_->errstr;
        drop();
        if (attempt == 0) return true;
        report_down("lost the connection to", why);
        return false;
    }

    int run(int db, const Cmd *cmds, int n, Reply *out, int argc = 0, const char *const *argv = nullptr,
            const size_t *len = nullptr)
    {
        for (int attempt = 0;; ++attempt) {
            if (ctx_ == nullptr && !open()) return QV_MOM_E_CONN;
            const bool select = db != db_;
            if (select) append_select(db);
            // This hiredis declares argv non-const but only reads it.
            for (int i = 0; i < n; ++i)
                redisAppendCommandArgv(ctx_, cmds[i].argc, const_cast<const char **>(cmds[i].argv), cmds[i].len);
            if (argc > 0) redisAppendCommandArgv(ctx_, argc, const_cast<const char **>(argv), len);
            const int replies = n + (argc > 0 ? 1 : 0);
            Reply sel;
            bool broken = false;
            for (int i = select ? -1 : 0; i < replies && !broken; ++i) {
                void *reply = nullptr;
                broken = redisGetReply(ctx_, &reply) != REDIS_OK || reply == nullptr;
                (i < 0 ? sel : out[i]).reset(static_cast<redisReply *>(reply));
            }
            if (broken) {
                if (send_again(attempt)) continue;
                return QV_MOM_E_CONN;
            }
            if (select) {
                if (is_error(sel.get())) {
                    QV_MOM_LOG(QV_ZLOG_LEVEL_ERROR, "SELECT %d failed on %s: %s (the server needs 32 databases)",
                               db, shared_->ep.url.c_str(), sel->str);
                    return QV_MOM_E_SERVER;
                }
                db_ = db;
            }
            return QV_MOM_OK;
        }
    }

    void append_select(int db)
    {
        const std::string db_text = std::to_string(db);
        const char *argv[] = {"SELECT", db_text.c_str()};
        const size_t len[] = {6, db_text.size()};
        redisAppendCommandArgv(ctx_, 2, argv, len);
    }

    bool open()
    {
        const Endpoint &ep = shared_->ep;
        ctx_ = ep.path.empty() ? redisConnectWithTimeout(ep.host.c_str(), ep.port, kConnectTimeout)
                               : redisConnectUnixWithTimeout(ep.path.c_str(), kConnectTimeout);
        if (ctx_ == nullptr) {
            report_down("cannot connect to", std::strerror(ENOMEM));
            return false;
        }
        if (ctx_->err != 0) {
            std::string why = ctx_->errstr;
            drop();
            report_down("cannot connect to", why);
            return false;
        }
        redisSetTimeout(ctx_, kCommandTimeout);
        db_ = 0;
        return true;
    }

    void drop()
    {
        if (ctx_ != nullptr) redisFree(ctx_);
        ctx_ = nullptr;
        db_ = -1;
    }

    // An idle connection has nothing to read; readable means the server closed it.
    bool idle_and_intact() const
    {
        pollfd p{ctx_->fd, POLLIN, 0};
        return ::poll(&p, 1, 0) == 0;
    }

    void report_down(const char *what, const std::string &why)
    {
        unsigned held = 0;
        if (shared_->conn_log.allow(&held))
            QV_MOM_LOG(QV_ZLOG_LEVEL_ERROR, "%s %s: %s%s", what, shared_->ep.url.c_str(),
                       why.c_str(), held_back(held).c_str());
    }

    int server_error(const char *cmd, int db, const std::string &key, const redisReply *r)
    {
        std::string why = r->type == REDIS_REPLY_ERROR
                              ? text(r)
                              : "unexpected reply type " + std::to_string(r->type);
        QV_MOM_LOG(QV_ZLOG_LEVEL_ERROR, "%s of \"%s\" in database %d on %s: %s", cmd, key.c_str(),
                   db, shared_->ep.url.c_str(), why.c_str());
        return QV_MOM_E_SERVER;
    }

    enum class Taken { Value, Mistyped, Refused };
    // The value of a key from the replies of its GET and HGETALL (HVALS when !names), or of one
    // of them (the other null). With both, whichever type the key holds answers, the other fails
    // with WRONGTYPE, and both are empty when it is absent: Refused when neither answers (the
    // key holds another type, or the server refused both). With one, a refusal may be that the
    // key holds the other type: Mistyped.
    static Taken take_value(const redisReply *plain, const redisReply *hash, StoredValue *out, bool names = true)
    {
        *out = StoredValue{};
        if (hash != nullptr && hash->type == REDIS_REPLY_ARRAY && hash->elements > 0) { // the later answer wins
            out->kind = StoredValue::Kind::Hash;
            if (names) {
                take_fields(hash, &out->hash);
            } else {
                out->hash.reserve(hash->elements);
                for (size_t i = 0; i < hash->elements; ++i) out->hash.emplace_back(std::string(), text(hash->element[i]));
            }
            return Taken::Value;
        }
        if (plain != nullptr && plain->type == REDIS_REPLY_STRING) {
            out->kind = StoredValue::Kind::Plain;
            out->plain.assign(plain->str, plain->len);
            return Taken::Value;
        }
        const bool plain_absent = plain == nullptr || plain->type == REDIS_REPLY_NIL;
        const bool hash_absent = hash == nullptr || hash->type == REDIS_REPLY_ARRAY;
        if (plain_absent && hash_absent) return Taken::Value; // absent
        if (plain == nullptr || hash == nullptr) return Taken::Mistyped;
        return plain->type != REDIS_REPLY_NIL && hash->type != REDIS_REPLY_ARRAY ? Taken::Refused : Taken::Value;
    }

    static void take_fields(const redisReply *r, HashFields *out)
    {
        out->clear();
        out->reserve(r->elements / 2);
        for (size_t i = 0; i + 1 < r->elements; i += 2)
            out->emplace_back(text(r->element[i]), text(r->element[i + 1]));
    }

    std::shared_ptr<Shared> shared_;
    redisContext *ctx_ = nullptr;
    int db_ = -1; // the database selected on ctx_, -1 when unknown
};

} // namespace

std::unique_ptr<Connection> make_connection(std::shared_ptr<Shared> shared)
{
    return std::make_unique<RedisConnection>(std::move(shared));
}

} // namespace qv::mom::redis

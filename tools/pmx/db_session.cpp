#include "db_session.h"

#include <algorithm>

#include "progress_bar.h"

#include <CLI/CLI.hpp>

#include <cstdio>

#include "libpmx_mom.h"
#include "tool_errors.h"

namespace pmx_tool
{
namespace
{

} // namespace

void add_db_options(CLI::App *sub, DbOptions *opt)
{
    sub->add_option("--db", opt->url,
                    "Database URL: embedded, redis://HOST:PORT or unix:///path/redis.sock "
                    "(default: $PMX_DB, else embedded)")
        ->type_name("URL");
    sub->add_option("--load", opt->loads,
                    "Write the records of this JSON file into the database first (repeatable; "
                    "the embedded store lives only as long as the command)")
        ->type_name("FILE")
        ->allow_extra_args(false); // one file per --load: what follows it stays positional
}

std::string mom_error_text(int code)
{
    switch (code) {
    case QV_MOM_E_INVAL:
        return "invalid request";
    case QV_MOM_E_NOMEM:
        return "out of memory";
    case QV_MOM_E_CONN:
        return "no connection to the server";
    case QV_MOM_E_SERVER:
        return "the server refused it";
    case QV_MOM_E_DECODE:
        return "the stored value does not unpack";
    default:
        return "error " + std::to_string(code);
    }
}

DbSession::~DbSession()
{
    if (attached_) qv_mom_thread_detach();
    if (glb_ != nullptr) qv_mom_glb_destroy(glb_);
}

bool DbSession::open(const DbOptions &opt)
{
    char err[256] = "";
    glb_ = qv_mom_glb_create(opt.url.c_str(), err, sizeof err);
    if (glb_ == nullptr) {
        fail("cannot open the database" + (opt.url.empty() ? std::string() : " " + opt.url) + ": " +
             err);
        return false;
    }
    if (qv_mom_thread_attach(glb_, nullptr) == nullptr) {
        fail("cannot attach to the database " + url());
        return false;
    }
    attached_ = true;
    for (const auto &file : opt.loads) {
        if (load(file) < 0) return false;
    }
    return true;
}

std::string DbSession::url() const
{
    const char *u = qv_mom_glb_url(glb_);
    return u != nullptr ? u : "";
}

int DbSession::write(const Record &record)
{
    void *context = qv_mom_get_thread_local_global();
    qv_mom_key_t key{record.key, record.kind()};
    if (record.form == Form::Hash)
        return qv_mom_hset_sync(context, record.db, &key, record.value.get(), nullptr, 0);
    return qv_mom_set_sync(context, record.db, &key, record.value.get());
}

int DbSession::erase(const Record &record)
{
    qv_mom_key_t key{record.key, record.kind()};
    return qv_mom_del_sync(qv_mom_get_thread_local_global(), record.db, &key);
}

int DbSession::write_batch(const std::vector<Record> &records, size_t begin, size_t end, size_t *failed)
{
    std::vector<qv_mom_key_t> keys;
    std::vector<qv_mom_batch_write_t> writes;
    keys.reserve(end - begin);
    for (size_t i = begin; i < end; ++i) keys.push_back({records[i].key, records[i].kind()});
    for (size_t i = begin; i < end; ++i)
        writes.push_back({records[i].db, &keys[i - begin], records[i].value.get(), records[i].form == Form::Hash});
    const int rc = qv_mom_write_batch_sync(qv_mom_get_thread_local_global(), writes.data(), writes.size());
    if (rc == QV_MOM_OK) return rc;
    // The client logged the key; find the record by a write of its own, which stops there again.
    for (size_t i = begin; i < end; ++i)
        if (write(records[i]) != QV_MOM_OK) {
            *failed = i;
            return rc;
        }
    *failed = begin;
    return rc;
}

int apply_followed_records(size_t *applied)
{
    size_t count = 0;
    void *ctx = qv_mom_get_thread_local_global();
    uint32_t kinds = 0;
    while (libpmx_record_kind_at(kinds) != nullptr) ++kinds;
    ProgressBar bar("pmx: applying", "record kinds", kinds);
    for (uint32_t i = 0;; ++i) {
        const libpmx_record_kind_t *kind = libpmx_record_kind_at(i);
        if (kind == nullptr) break;
        bar.update(i, std::to_string(count) + " records, " + kind->record->name);
        if (kind->followed == 0) continue;
        const int rc = qv_mom_scan_sync(
            ctx, kind->db, kind->record,
            [](const char *, const ProtobufCMessage *record, void *arg) {
                if (record != nullptr && libpmx_mom_record_apply(record, QV_MOM_EVENT_ADD) >= 0)
                    ++*static_cast<size_t *>(arg);
                return 0;
            },
            &count);
        if (rc < 0) {
            bar.finish();
            fail("cannot scan " + std::string(kind->record->name) + " in database " + std::to_string(kind->db) +
                 ": " + mom_error_text(rc));
            return rc;
        }
    }
    if (applied != nullptr) *applied = count;
    return 0;
}

long DbSession::load(const std::string &path)
{
    std::vector<Record> records;
    std::string error;
    if (!read_record_file(path, &records, &error)) {
        fail(error);
        return -1;
    }
    // In batches of 1,000: one pipeline each on Redis.
    constexpr size_t kBatch = 1000;
    ProgressBar bar("pmx: loading " + path, "records", records.size());
    for (size_t i = 0; i < records.size(); i += kBatch) {
        const size_t end = std::min(records.size(), i + kBatch);
        size_t at = i;
        const int rc = write_batch(records, i, end, &at);
        if (rc != QV_MOM_OK) {
            bar.finish();
            fail(path + ": record " + std::to_string(at + 1) + " (" + records[at].kind()->name +
                 "): cannot write it to database " + std::to_string(records[at].db) + " of " + url() + ": " +
                 mom_error_text(rc));
            return -1;
        }
        bar.update(end);
    }
    return static_cast<long>(records.size());
}

} // namespace pmx_tool

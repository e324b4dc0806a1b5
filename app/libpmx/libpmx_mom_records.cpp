// The record catalogue and the one read of a catalogued kind that every typed getter goes
// through.
#define LIBPMX_LOG_SOURCE "app/libpmx/libpmx_mom"
#include "libpmx_log.h"

#include "libpmx_records.h"
#include "libpmx_stats.hpp"

#include <cstring>

#include "libpmx_protoc_fmt.h"
#include "p_dev.pb-c.h"
#include "s_cluster.pb-c.h"
#include "u_intf.pb-c.h"

namespace
{

constexpr uint8_t HASH = 1, PLAIN = 0;
constexpr uint8_t WAITS = 1, ONCE = 0;
constexpr uint8_t FOLLOWED = 1, READ_ONLY = 0;

constexpr libpmx_record_kind_t kCatalogue[] = {
#define PMX_RECORD_ENTRY(id, record, key, db, form, reads, followed)                                        \
    {&record##__descriptor, &key##__descriptor, db, form, reads, followed},
    LIBPMX_RECORDS(PMX_RECORD_ENTRY)
#undef PMX_RECORD_ENTRY
};
static_assert(sizeof kCatalogue / sizeof kCatalogue[0] == static_cast<size_t>(pmx::Record::COUNT));
// The data source subscribes to exactly the followed kinds.
static_assert([] {
    uint32_t n = 0;
    for (const libpmx_record_kind_t &kind : kCatalogue) n += kind.followed;
    return n;
}() == LIBPMX_MOM_IN_KEYS);

// What a failed read names: the record, and its key fields unless it is a singleton.
void log_read_failure(const char *func, const libpmx_record_kind_t &kind, const ProtobufCMessage *key, int op,
                      int rc)
{
    char key_text[256] = "(singleton)";
    if (kind.key != kind.record)
        libpmx_protoc_format_message_to_buffer(key_text, sizeof key_text, LIBPMX_FMT_COMPACT, key);
    PMX_LOG_AS(func, rc == LIBPMX_E_NOT_FOUND ? LIBPMX_ZLOG_WARN : LIBPMX_ZLOG_ERROR,
               "get %s failed, db:%d key:%s op:%d ret:%d", kind.record->name, static_cast<int>(kind.db),
               key_text, op, rc);
}

} // namespace

extern "C" const libpmx_record_kind_t *libpmx_record_kind_find(const char *full_name)
{
    if (full_name == nullptr) return nullptr;
    for (const libpmx_record_kind_t &kind : kCatalogue) {
        if (std::strcmp(kind.record->name, full_name) == 0) return &kind;
    }
    return nullptr;
}

extern "C" const libpmx_record_kind_t *libpmx_record_kind_at(uint32_t i)
{
    return i < sizeof kCatalogue / sizeof kCatalogue[0] ? &kCatalogue[i] : nullptr;
}

const libpmx_record_kind_t &pmx::record_kind(Record id)
{
    return kCatalogue[static_cast<uint32_t>(id)];
}

int pmx::read_record(const char *func, Record id, const ProtobufCMessage *key, libpmx_db_decode_fn decode,
                     void *out, int op)
{
    const libpmx_record_kind_t &kind = record_kind(id);
    const qv_mom_key_t mom_key{key, kind.record};
    int rc;
    if (kind.waits != 0)
        rc = libpmx_getinfo_from_db_with_block(&mom_key, kind.db, kind.hash, decode, out, op);
    else if (kind.hash != 0)
        rc = libpmx_hget_info_from_db(&mom_key, kind.db, decode, out);
    else
        rc = libpmx_get_info_from_db(&mom_key, kind.db, decode, out);
    pmx::stats::read(id, rc);
    if (rc != LIBPMX_OK) log_read_failure(func, kind, key, op, rc);
    return rc;
}

// Database reads: plain, hash and waiting reads through the calling thread's own database
// context, the per-thread bar on waiting, block records of long waits, and the registration
// of the library's data source.
#define LIBPMX_LOG_SOURCE "app/libpmx/libpmx_mom"
#include "libpmx_log.h"

#include "libpmx_mom.h"

#include <pthread.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "libpmx_cap.h"
#include "libpmx_dbg.h"
#include "libpmx_lock.hpp"
#include "libpmx_notify.hpp"
#include "libpmx_platform_code.h"
#include "libpmx_protoc_fmt.h"
#include "libpmx_records.h"
#include "libpmx_stats.hpp"
#include "ssat.h"

libpmx_mom_ctx_t g_libpmx_mom = {-1};
qv_mom_ab_t *g_libpmx_mom_ab = nullptr;

namespace
{

// 1 while this thread may not wait (its last wait reached the limit).
thread_local uint8_t t_no_block = 0;

// One long wait: when, how long, where and who. The text follows the record in one block.
struct BlockRecord {
    BlockRecord *next;
    BlockRecord *prev;
    int32_t mono_begin_sec;
    int32_t mono_begin_usec;
    int32_t mono_end_sec;
    int32_t mono_end_usec;
    int32_t wall_begin_sec;
    int32_t wall_begin_usec;
    int32_t sleeps;
    uint32_t db;
    char *text() { return reinterpret_cast<char *>(this + 1); }
};

// Block-record lock: guards the list of block records (append, trim, clear; the dump reads). A
// leaf of the lock order: nothing else is taken while it is held.
pmx::RwLock g_block_lock{"block-record lock", pmx::LockRank::BlockRecords};
// Oldest first, at most LIBPMX_BLOCK_RECORDS_MAX.
BlockRecord g_blocks = {&g_blocks, &g_blocks, 0, 0, 0, 0, 0, 0, 0, 0};

const char *proto_of(const qv_mom_key_t *key)
{
    if (key == nullptr || key->key == nullptr || key->key->descriptor == nullptr) return "(null)";
    return key->key->descriptor->c_name;
}

void unlink_block(BlockRecord *r)
{
    r->prev->next = r->next;
    r->next->prev = r->prev;
}

// Context of the calling thread, connected to db, and the key present: 0, or the read's code.
int open_read(const qv_mom_key_t *key, int db, const char *func, void **context)
{
    void *ctx = qv_mom_get_thread_local_global();
    if (ctx == nullptr) {
        PMX_LOG_AS(func, LIBPMX_ZLOG_ERROR, "local global is NULL, proto %s", proto_of(key));
        return LIBPMX_E_NO_DB;
    }
    const int rc = qv_mom_client_connect_sync(ctx, db);
    if (rc != 0) {
        PMX_LOG_AS(func, LIBPMX_ZLOG_ERROR, "connect db (%d) failed (%d), proto %s", db, rc, proto_of(key));
        return LIBPMX_E_NO_DB;
    }
    // Absence is normal while the database fills: no message.
    if (qv_mom_exists_sync(ctx, db, key) != 0) return LIBPMX_E_NOT_FOUND;
    *context = ctx;
    return LIBPMX_OK;
}

void keep_block_record(const qv_mom_key_t *key, int db, int sleeps, const timeval &mono_begin,
                       const timeval &mono_end, const timeval &wall_begin)
{
    char text[1024] = {0};
    char name[16] = {0};
    pthread_getname_np(pthread_self(), name, sizeof name);
    int len = at_snprintf(text, sizeof text, "%s, thread %ld, ", name, static_cast<long>(gettid()));
    if (len > 0 && static_cast<size_t>(len) < sizeof text && key != nullptr && key->key != nullptr)
        libpmx_protoc_format_message_to_buffer(text + len, sizeof text - static_cast<size_t>(len),
                                               LIBPMX_FMT_COMPACT, key->key);
    const size_t n = std::strlen(text);
    auto *r = static_cast<BlockRecord *>(std::calloc(1, sizeof(BlockRecord) + n + 1));
    if (r == nullptr) {
        PMX_ERROR("mem error.");
        return;
    }
    r->mono_begin_sec = static_cast<int32_t>(mono_begin.tv_sec);
    r->mono_begin_usec = static_cast<int32_t>(mono_begin.tv_usec);
    r->mono_end_sec = static_cast<int32_t>(mono_end.tv_sec);
    r->mono_end_usec = static_cast<int32_t>(mono_end.tv_usec);
    r->wall_begin_sec = static_cast<int32_t>(wall_begin.tv_sec);
    r->wall_begin_usec = static_cast<int32_t>(wall_begin.tv_usec);
    r->sleeps = sleeps;
    r->db = static_cast<uint32_t>(db);
    std::memcpy(r->text(), text, n + 1);
    PMX_ERROR("block read db: %d, slept (0.1 sec) * %d", db, sleeps);
    PMX_ERROR("block thread : %s", r->text());
    {
        pmx::Guard guard(g_block_lock, pmx::Access::Write);
        r->prev = g_blocks.prev;
        r->next = &g_blocks;
        g_blocks.prev->next = r;
        g_blocks.prev = r;
    }
    pmx::Guard guard(g_block_lock, pmx::Access::Write);
    int kept = 0;
    for (BlockRecord *p = g_blocks.prev; p != &g_blocks;) {
        BlockRecord *older = p->prev;
        if (++kept > LIBPMX_BLOCK_RECORDS_MAX) {
            unlink_block(p);
            std::free(p);
        }
        p = older;
    }
}

int clear_no_block(qv_thread_t *)
{
    t_no_block = 0;
    return 0;
}

} // namespace

extern "C" int libpmx_get_info_from_db(const qv_mom_key_t *key, int db, libpmx_db_decode_fn decode, void *out)
{
    void *ctx = nullptr;
    const int rc = open_read(key, db, __func__, &ctx);
    if (rc != LIBPMX_OK) return rc;
    int error = 0;
    ProtobufCMessage *obj = qv_mom_get_sync(ctx, db, key, &error);
    int ret = LIBPMX_E_FAIL;
    if (obj != nullptr && error == 0) ret = decode(obj, out);
    PMX_NOTICE("db %d, get proto %s, error %d", db, proto_of(key), error);
    qv_mom_qv_obj_free(obj);
    return ret;
}

extern "C" int libpmx_hget_info_from_db(const qv_mom_key_t *key, int db, libpmx_db_decode_fn decode, void *out)
{
    void *ctx = nullptr;
    const int rc = open_read(key, db, __func__, &ctx);
    if (rc != LIBPMX_OK) return rc;
    PMX_NOTICE("db %d, hget proto %s", db, proto_of(key));
    qv_mom_hash_res_t *res = qv_mom_hgetall_sync(ctx, db, key);
    if (res == nullptr) {
        PMX_ERROR("res is null, hget proto %s", proto_of(key));
        return LIBPMX_E_FAIL;
    }
    if (res->value == nullptr) {
        qv_mom_hash_res_free(res);
        PMX_ERROR("res->value is null, hget proto %s", proto_of(key));
        return LIBPMX_E_FAIL;
    }
    if (res->error_code != 0) {
        const int code = res->error_code;
        qv_mom_hash_res_free(res);
        PMX_ERROR("res->error_code %d, hget proto %s", code, proto_of(key));
        return LIBPMX_E_FAIL;
    }
    const int ret = decode(res->value, out);
    qv_mom_hash_res_free(res);
    return ret;
}

namespace
{

struct ScanMatch {
    libpmx_db_decode_fn match;
    void *out;
};

// A record that does not unpack is passed over: nothing half-decoded is handed on.
int scan_one(const char *, const ProtobufCMessage *record, void *arg)
{
    const auto *m = static_cast<const ScanMatch *>(arg);
    return record != nullptr && m->match(record, m->out) == LIBPMX_OK ? 1 : 0;
}

} // namespace

extern "C" int libpmx_scan_info_from_db(const ProtobufCMessageDescriptor *record, int db, libpmx_db_decode_fn match,
                                        void *out)
{
    const char *proto = record != nullptr ? record->name : "(null)";
    if (record == nullptr || match == nullptr) {
        PMX_ERROR("invalid param, scan proto %s", proto);
        return LIBPMX_E_FAIL;
    }
    void *ctx = qv_mom_get_thread_local_global();
    if (ctx == nullptr) {
        PMX_ERROR("local global is NULL, proto %s", proto);
        return LIBPMX_E_NO_DB;
    }
    int rc = qv_mom_client_connect_sync(ctx, db);
    if (rc != 0) {
        PMX_ERROR("connect db (%d) failed (%d), proto %s", db, rc, proto);
        return LIBPMX_E_NO_DB;
    }
    ScanMatch m{match, out};
    rc = qv_mom_scan_sync(ctx, db, record, scan_one, &m);
    PMX_NOTICE("db %d, scan proto %s, ret %d", db, proto, rc);
    if (rc == 1) return LIBPMX_OK;
    if (rc == 0) return LIBPMX_E_NOT_FOUND;
    PMX_ERROR("scan db %d failed (%d), proto %s", db, rc, proto);
    return LIBPMX_E_FAIL;
}

extern "C" int libpmx_getinfo_from_db_with_block(const qv_mom_key_t *key, int db, int use_hash,
                                                 libpmx_db_decode_fn decode, void *out, int op)
{
    timeval wall_begin{}, mono_begin{}, mono_end{};
    gettimeofday(&wall_begin, nullptr);
    qv_monotime(&mono_begin);
    int sleeps = 0;
    int max = libpmx_cap_get_block_times();
    int ret;
    for (;;) {
        ret = use_hash != 0 ? libpmx_hget_info_from_db(key, db, decode, out)
                            : libpmx_get_info_from_db(key, db, decode, out);
        if (ret == LIBPMX_OK || ret == LIBPMX_E_NO_DB || op != LIBPMX_READ_WAIT || t_no_block != 0) break;
        usleep(LIBPMX_BLOCK_INTERVAL_US);
        ++sleeps;
        // Read anew on every pass, so the debug shell can shorten a running wait.
        max = libpmx_cap_get_block_times();
        if (sleeps >= max) break;
    }
    qv_monotime(&mono_end);
    if (sleeps > 0)
        pmx::stats::wait(pmx::stats::kind_of(key->record),
                         static_cast<uint64_t>((int64_t(mono_end.tv_sec) - mono_begin.tv_sec) * 1000000000 +
                                               (int64_t(mono_end.tv_usec) - mono_begin.tv_usec) * 1000));
    if (sleeps > 0 && sleeps >= max) {
        libpmx_set_can_block_to_read_db(0);
        libpmx_block_timer();
        if (sleeps >= libpmx_cap_get_block_times())
            keep_block_record(key, db, sleeps, mono_begin, mono_end, wall_begin);
    } else if (sleeps > LIBPMX_BLOCK_RECORD_SLEEPS && pmx::log_level() > 1) {
        keep_block_record(key, db, sleeps, mono_begin, mono_end, wall_begin);
    }
    if (ret != LIBPMX_OK && pmx::log_level() > 1)
        PMX_WARN("%s, db %d, ret %d, slept %d, max %d, op %d, no_block %d", proto_of(key), db, ret, sleeps, max,
                 op, t_no_block);
    return ret;
}

extern "C" void libpmx_set_can_block_to_read_db(int can)
{
    t_no_block = can == 0 ? 1 : 0;
}

extern "C" int libpmx_no_block_to_read_db(void)
{
    return t_no_block;
}

extern "C" int libpmx_block_timer(void)
{
    auto *ctx = static_cast<qv_mom_thread_global_t *>(qv_mom_get_thread_local_global());
    if (ctx == nullptr) {
        PMX_ERROR("have't call libpmx_init");
        return LIBPMX_E_FAIL;
    }
    // The timer fires in this thread, so the mark it clears is this thread's.
    if (qv_thread_add_timer_timeval(ctx->master, clear_no_block, nullptr, LIBPMX_BLOCK_BAR_SECONDS, 0) == nullptr)
        PMX_ERROR("block timer qv thread add timer failed");
    return LIBPMX_OK;
}

extern "C" int libpmx_format_timeval(const struct timeval *tv, char *buf, size_t size)
{
    const time_t sec = tv->tv_sec;
    struct tm tm{};
    if (localtime_r(&sec, &tm) == nullptr) {
        PMX_ERROR("time failed. %ld", static_cast<long>(sec));
        return LIBPMX_E_FAIL;
    }
    const size_t n = std::strftime(buf, size, "%Y-%m-%d %H:%M:%S", &tm);
    if (n == 0 || n >= size) {
        PMX_ERROR("format error, str_len %zu", n);
        return LIBPMX_E_FAIL;
    }
    std::snprintf(buf + n, size - n, " %06ld ", static_cast<long>(tv->tv_usec));
    return LIBPMX_OK;
}

extern "C" void libpmx_dump_block_info(void)
{
    pmx::Guard guard(g_block_lock, pmx::Access::Read);
    ssat_printf("all blocking-records :\n");
    int i = 0;
    for (BlockRecord *r = g_blocks.next; r != &g_blocks; r = r->next) {
        char wall[32] = {0}, begin[32] = {0}, end[32] = {0};
        const timeval w{r->wall_begin_sec, r->wall_begin_usec};
        const timeval b{r->mono_begin_sec, r->mono_begin_usec};
        const timeval e{r->mono_end_sec, r->mono_end_usec};
        libpmx_format_timeval(&w, wall, sizeof wall);
        libpmx_format_timeval(&b, begin, sizeof begin);
        libpmx_format_timeval(&e, end, sizeof end);
        ssat_printf("walltime begin: %s ---- %d\n", wall, ++i);
        ssat_printf("monotime begin: %s\n", begin);
        ssat_printf("monotime end  : %s\n", end);
        ssat_printf("read db: %d, slept (0.1 sec) * %d\n", static_cast<int>(r->db), r->sleeps);
        ssat_printf("thread : %s\n\n", r->text());
    }
    ssat_printf("-- total %d --\n", i);
}

extern "C" void libpmx_clear_block_info(void)
{
    pmx::Guard guard(g_block_lock, pmx::Access::Write);
    while (g_blocks.next != &g_blocks) {
        BlockRecord *r = g_blocks.next;
        unlink_block(r);
        std::free(r);
    }
}

extern "C" int libpmx_dbg_cmd_set_block_times(const char *args)
{
    int times = 0;
    if (args == nullptr || std::sscanf(args, "times=%d", &times) != 1) {
        ssat_printf("usage: set_block_times times=%%d (>0)\n");
        return LIBPMX_E_INVAL;
    }
    const int rc = libpmx_cap_set_block_times(times);
    const int32_t limit = libpmx_cap_get_block_times();
    const float minutes = static_cast<float>(limit) * LIBPMX_BLOCK_INTERVAL_US / 1e6f / 60.0f;
    ssat_printf("now max-block-times %d, block-interval %dus, = %.2f min\n", limit, LIBPMX_BLOCK_INTERVAL_US,
                static_cast<double>(minutes));
    return rc;
}

// ---- the library's debug commands of database access ----

namespace
{

int cmd_dump_block_info(const char *)
{
    libpmx_dump_block_info();
    return LIBPMX_OK;
}

int cmd_clear_block_info(const char *)
{
    libpmx_clear_block_info();
    return LIBPMX_OK;
}

const libpmx_dbg_cmd_t kMomCommands[] = {
    {"dump_block_info", "print the records of long database waits", cmd_dump_block_info},
    {"clear_block_info", "forget the records of long database waits", cmd_clear_block_info},
    {"set_block_times", "times=%d (>0)", libpmx_dbg_cmd_set_block_times},
};

} // namespace

namespace pmx
{

void mom_add_cmds()
{
    libpmx_dbg_add_cmds(kMomCommands, sizeof kMomCommands / sizeof kMomCommands[0]);
}

} // namespace pmx

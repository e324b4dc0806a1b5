/* Host database client: protobuf records in a key-value store, read synchronously per thread
 * and followed through key events. Two back ends behind this one interface, chosen by a URL:
 *   "embedded"                 an in-process store (the default)
 *   "redis://HOST:PORT"        a Redis server over TCP
 *   "unix:///path/redis.sock"  a Redis server over a Unix socket
 *
 * Keys are "<record full name>|<key field values in field order, joined by '|'>"; a record
 * whose key message is the record message itself is a singleton keyed by its name alone.
 * Plain records hold the packed message; hash records hold one field per protobuf field name,
 * each value that field's wire encoding. Databases are numbered 0 to 31. */
#ifndef QV_MOM_H
#define QV_MOM_H

#include <protobuf-c/protobuf-c.h>
#include <stddef.h>

#include "qv_thread.h"

#ifdef __cplusplus
extern "C" {
#endif

enum {
    QV_MOM_DB_COUNT = 32,
    /* Results of the calls below. */
    QV_MOM_OK = 0,
    QV_MOM_ABSENT = 1,       /* qv_mom_exists_sync: the key is not in the database */
    QV_MOM_E_INVAL = -1,     /* a null or malformed argument, a database out of range */
    QV_MOM_E_NOMEM = -2,
    QV_MOM_E_CONN = -3,      /* no connection to the server (after one reconnect attempt) */
    QV_MOM_E_SERVER = -4,    /* the server answered with an error (a wrong record type...) */
    QV_MOM_E_DECODE = -5,    /* the stored value does not unpack as its record */
    QV_MOM_E_NOT_FOUND = -6, /* a registration names an unknown data source */
    /* Key events. */
    QV_MOM_EVENT_ADD = 0,    /* the record was added or changed */
    QV_MOM_EVENT_DEL = 1,    /* the record was deleted */
    /* Data-source events. */
    QV_MOM_DS_EVENT_ALL_LOADED = 1, /* the first snapshot of every key of the source is delivered */
    /* Data-source options. */
    QV_MOM_DS_OPT_SNAPSHOT = 2,     /* 1 (default): existing records are delivered as adds when
                                       the keys are subscribed; 0: only later changes */
};

/* The process's connection to one store: the back end and the event thread that delivers
 * key events. Made by the host program and handed to libraries as their global context. */
typedef struct qv_mom_glb qv_mom_glb_t;
/* A named client handle made by qv_mom_ab_init; data sources are registered on it. */
typedef struct qv_mom_ab qv_mom_ab_t;
/* A back-end connection of one thread. */
typedef struct qv_mom_conn qv_mom_conn_t;

/* The record of an attached thread, returned by qv_mom_get_thread_local_global. */
typedef struct qv_mom_thread_global {
    qv_mom_conn_t *conn;         /* this thread's own connection */
    qv_thread_master_t *master;  /* this thread's timer master (the second word) */
    qv_mom_glb_t *glb;           /* the store it reads */
} qv_mom_thread_global_t;

/* What to read: a key message, and the record it keys when that is another message
 * (one key message can key several records). record null: the key message's own kind. */
typedef struct qv_mom_key {
    const ProtobufCMessage *key;
    const ProtobufCMessageDescriptor *record;
} qv_mom_key_t;

/* One subscribed record of a data source. */
typedef struct qv_mom_key_desc {
    const ProtobufCMessageDescriptor *key;   /* the key message (the value message for singletons) */
    const ProtobufCMessageDescriptor *value; /* the record message */
    const char *owner;                       /* who registered it, for the logs */
    int db;                                  /* the database it lives in */
} qv_mom_key_desc_t;

/* Reply of a hash read. value is the unpacked record, or null when the key is absent or the
 * read failed (error_code then says why). */
typedef struct qv_mom_hash_res {
    int error_code;
    ProtobufCMessage *value;
} qv_mom_hash_res_t;

/* ---- set-up of the host program ---- */

/* Opens a store. url null or empty: $PMX_DB, else "embedded". Every glb of the same "embedded"
 * URL in one process shares one store. A Redis server that is not up yet is not an error:
 * reads fail with QV_MOM_E_CONN and the event thread retries with back-off. Null on a malformed
 * URL or out of memory, with the reason in err (when not null). The first glb made becomes the
 * process default used by qv_mom_ab_init(null, ...). */
qv_mom_glb_t *qv_mom_glb_create(const char *url, char *err, size_t errlen);
/* Stops the event thread and frees the glb; threads attached to it must detach first. */
void qv_mom_glb_destroy(qv_mom_glb_t *glb);
/* The URL the glb was opened with. */
const char *qv_mom_glb_url(const qv_mom_glb_t *glb);
/* The process default glb, made from $PMX_DB on first use; null if that fails. */
qv_mom_glb_t *qv_mom_glb_default(void);

/* Attaches the calling thread: its own connection, and its timer master (master null: a new
 * one owned by the record). Attaching twice returns the existing record. Null on failure. */
qv_mom_thread_global_t *qv_mom_thread_attach(qv_mom_glb_t *glb, qv_thread_master_t *master);
/* Detaches the calling thread and frees its record (and the master if the record made it). */
void qv_mom_thread_detach(void);
/* The calling thread's record (a qv_mom_thread_global_t), or null when it has not attached. */
void *qv_mom_get_thread_local_global(void);

/* ---- synchronous reads, with the calling thread's record as context ---- */

/* Makes sure the context's connection is up and can reach database db; 0 or a negative code. */
int qv_mom_client_connect_sync(void *context, int db);
/* 0 when the key exists, QV_MOM_ABSENT when not, a negative code on failure. */
int qv_mom_exists_sync(void *context, int db, const qv_mom_key_t *key);
/* Reads a plain record: the unpacked record, or null with *error set (QV_MOM_OK and null
 * means absent). Free the record with qv_mom_qv_obj_free. */
ProtobufCMessage *qv_mom_get_sync(void *context, int db, const qv_mom_key_t *key, int *error);
void qv_mom_qv_obj_free(ProtobufCMessage *obj);
/* Reads a hash record with all its fields; null only when out of memory. */
qv_mom_hash_res_t *qv_mom_hgetall_sync(void *context, int db, const qv_mom_key_t *key);
void qv_mom_hash_res_free(qv_mom_hash_res_t *res);

/* ---- writes, for producers and tools ---- */

/* Stores record as a plain record under the key. */
int qv_mom_set_sync(void *context, int db, const qv_mom_key_t *key, const ProtobufCMessage *record);
/* Stores fields of record as a hash record: the named ones (n names), or every field of the
 * message when names is null. A field at its default is stored as an empty value. */
int qv_mom_hset_sync(void *context, int db, const qv_mom_key_t *key, const ProtobufCMessage *record,
                     const char *const *names, size_t n);
/* One write of a batch: record under key in db, as a plain record, or (hash non-zero) as a hash
 * record with every field of the message. */
typedef struct qv_mom_batch_write {
    int db;
    const qv_mom_key_t *key;
    const ProtobufCMessage *record;
    int hash;
} qv_mom_batch_write_t;
/* Stores n records in their order, in one round trip where the store allows it (a Redis
 * pipeline), the same as n calls of qv_mom_set_sync / qv_mom_hset_sync. 0, or the code of the
 * first write that failed: a bad write is refused before anything is sent; after a failure of
 * the store the writes before it are stored, those after it may be. */
int qv_mom_write_batch_sync(void *context, const qv_mom_batch_write_t *writes, size_t n);
/* Deletes the key; 0 also when it was absent. */
int qv_mom_del_sync(void *context, int db, const qv_mom_key_t *key);
/* Calls fn for every stored record of that kind in db (plain or hash), in no set order, with the
 * key text and the unpacked record; a record that does not unpack is passed as null. A non-zero
 * result of fn stops the scan and is returned. */
typedef int (*qv_mom_scan_fn)(const char *key_text, const ProtobufCMessage *record, void *arg);
int qv_mom_scan_sync(void *context, int db, const ProtobufCMessageDescriptor *record,
                     qv_mom_scan_fn fn, void *arg);
/* The key text of a key ("u_intf.pmx_ifx_tbl|12"); the length it needs, or a negative code. */
int qv_mom_key_text(const qv_mom_key_t *key, char *buf, size_t size);

/* ---- subscriptions ---- */

/* Opens a client handle on glb (null: the process default). opt_in and opt_out are two
 * 32-bit words each, reserved (pass zeroed blocks, or null). Null on failure. */
qv_mom_ab_t *qv_mom_ab_init(qv_mom_glb_t *glb, const char *name, void *opt_in, void *opt_out);

/* Registers a data source reading the in-keys (and publishing the out-keys, kept for the
 * record only). Returns its id (>= 0) or a negative code. The source starts (subscribes, then
 * snapshots) once every in-key has had a key event registered since the source was: its options
 * can be set until then, also when an earlier source follows the same keys. */
int qv_mom_reg_ds(qv_mom_ab_t *ab, const qv_mom_key_desc_t *in_keys, int n_in,
                  const qv_mom_key_desc_t *out_keys, int n_out);
/* Sets an option (QV_MOM_DS_OPT_*) of a data source before it starts; 0 or a negative code. */
int qv_mom_set_ds_opt(qv_mom_ab_t *ab, int ds, int opt, int value);

/* Called on the event thread when a data-source event happens; context is the event thread's
 * record. An event that already happened is delivered at once after registration. */
typedef void (*qv_mom_ds_event_fn)(void *context, int ds, int event, void *arg);
int qv_mom_reg_single_ds_event(qv_mom_glb_t *glb, int ds, int event, qv_mom_ds_event_fn fn, void *arg);

/* Called on the event thread for each added, changed (event ADD) or deleted (event DEL) record
 * of a subscribed key; key is the key message parsed from the key text, record the new record,
 * or on delete the last one delivered. Both are valid only during the call. Events of one key
 * come in order; a delete followed by a set gives a DEL, then an ADD. */
typedef void (*qv_mom_key_event_fn)(void *context, int event, const ProtobufCMessage *key,
                                    const ProtobufCMessage *record);
/* Registers fn for one event of a key. A key of a registered data source joins that source;
 * any other key is subscribed and snapshotted on its own at once. The same fn registered again
 * for the same event of a key is still called once per change. */
int qv_mom_reg_key_event(qv_mom_glb_t *glb, const qv_mom_key_desc_t *key, int event, qv_mom_key_event_fn fn);

#ifdef __cplusplus
}
#endif

#endif /* QV_MOM_H */

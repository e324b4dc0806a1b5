// Test helper: a private embedded store attached to the calling thread, and a write of any record
// where the library reads it (the record catalogue gives its database and form).
#pragma once

#include <gtest/gtest.h>

#include <string>

#include "libpmx_mom.h"
#include "qv_mom.h"

class EmbeddedDb
{
public:
    // name makes the store private to one test.
    explicit EmbeddedDb(const std::string &name)
    {
        char err[256] = "";
        glb_ = qv_mom_glb_create(("embedded:" + name).c_str(), err, sizeof err);
        EXPECT_NE(glb_, nullptr) << err;
        if (glb_ != nullptr) ctx_ = qv_mom_thread_attach(glb_, nullptr);
        EXPECT_NE(ctx_, nullptr);
    }
    ~EmbeddedDb()
    {
        qv_mom_thread_detach();
        if (glb_ != nullptr) qv_mom_glb_destroy(glb_);
    }
    EmbeddedDb(const EmbeddedDb &) = delete;
    EmbeddedDb &operator=(const EmbeddedDb &) = delete;

    // The record under its key message (the record itself when it carries its key first), from
    // the thread that made this store.
    void put(const ProtobufCMessage *record, const ProtobufCMessage *key = nullptr)
    {
        put_from(ctx_, record, key);
    }
    // The same from a thread attached with its own context.
    static void put_from(void *ctx, const ProtobufCMessage *record, const ProtobufCMessage *key = nullptr)
    {
        const libpmx_record_kind_t *kind = libpmx_record_kind_find(record->descriptor->name);
        ASSERT_NE(kind, nullptr) << record->descriptor->name;
        const qv_mom_key_t k{key != nullptr ? key : record, key != nullptr ? record->descriptor : nullptr};
        ASSERT_EQ(kind->hash ? qv_mom_hset_sync(ctx, kind->db, &k, record, nullptr, 0)
                             : qv_mom_set_sync(ctx, kind->db, &k, record),
                  QV_MOM_OK);
    }

    // The store, for another thread to attach to.
    qv_mom_glb_t *glb() const { return glb_; }

private:
    qv_mom_glb_t *glb_ = nullptr;
    qv_mom_thread_global_t *ctx_ = nullptr;
};

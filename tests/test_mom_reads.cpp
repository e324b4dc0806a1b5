// Database reads and blocking waits on the embedded store and a private Redis server: plain,
// hash and waiting reads, the per-thread bar, block records, and a server that dies mid-wait.
#include <gtest/gtest.h>
#include <pthread.h>

#include <chrono>
#include <regex>
#include <string>
#include <thread>

#include "libpmx_cap.h"
#include "libpmx_mom.h"
#include "log_capture.h"
#include "redis_server.h"
#include "time_scale.h"
#include "u_intf.pb-c.h"

namespace {

using Clock = std::chrono::steady_clock;

double seconds_since(Clock::time_point t0)
{
    return std::chrono::duration<double>(Clock::now() - t0).count();
}

// The key of interface ifx's record; not copyable, the key points into it.
struct IfxKey {
    UIntf__IfxIndex index = U_INTF__IFX_INDEX__INIT;
    qv_mom_key_t key{};
    explicit IfxKey(uint32_t ifx)
    {
        index.ifx = ifx;
        key = {&index.base, &u_intf__pmx_ifx_tbl__descriptor};
    }
    IfxKey(const IfxKey &) = delete;
    IfxKey &operator=(const IfxKey &) = delete;
};

int decode_gphyid(const void *reply, void *out)
{
    *static_cast<uint32_t *>(out) = static_cast<const UIntf__PmxIfxTbl *>(reply)->gphyid;
    return 0;
}

int decode_to_42(const void *, void *) { return 42; }

// Writes interface ifx's record (a hash record in database 26) from the calling thread.
void write_ifx(uint32_t ifx, uint32_t gphyid)
{
    IfxKey k(ifx);
    UIntf__PmxIfxTbl rec = U_INTF__PMX_IFX_TBL__INIT;
    rec.index = &k.index;
    rec.ifx = ifx;
    rec.gphyid = gphyid;
    ASSERT_EQ(qv_mom_hset_sync(qv_mom_get_thread_local_global(), LIBPMX_DB_PMX, &k.key, &rec.base, nullptr, 0),
              QV_MOM_OK);
}

std::string dump_text()
{
    testing::internal::CaptureStdout();
    libpmx_dump_block_info();
    return testing::internal::GetCapturedStdout();
}

class MomReads : public ::testing::TestWithParam<std::string>
{
  protected:
    void SetUp() override
    {
        if (GetParam() == "redis") {
            ASSERT_TRUE(server_.start()) << server_.error();
            url_ = server_.url();
        } else {
            url_ = std::string("embedded:") + ::testing::UnitTest::GetInstance()->current_test_info()->name();
        }
        char err[256] = "";
        glb_ = qv_mom_glb_create(url_.c_str(), err, sizeof err);
        ASSERT_NE(glb_, nullptr) << err;
        ctx_ = qv_mom_thread_attach(glb_, nullptr);
        ASSERT_NE(ctx_, nullptr);
        libpmx_clear_block_info();
        libpmx_set_can_block_to_read_db(1);
        libpmx_cap_set_block_times(5);
    }
    void TearDown() override
    {
        qv_mom_thread_detach();
        qv_mom_glb_destroy(glb_);
        libpmx_cap_set_block_times(LIBPMX_DEFAULT_BLOCK_TIMES);
    }
    // Stores bytes (one field: a one-byte tag, then its value) as the whole stored value under
    // a key, or as the hash field of that field number. An empty record carries them as an
    // unknown field, which the client packs as it is.
    void raw_set(const qv_mom_key_t &k, const std::string &bytes, bool hash)
    {
        ASSERT_FALSE(bytes.empty() || (bytes[0] & 0x80) != 0);
        ProtobufCMessageUnknownField field{};
        field.tag = static_cast<uint8_t>(bytes[0]) >> 3;
        field.wire_type = static_cast<ProtobufCWireType>(bytes[0] & 7);
        field.len = bytes.size() - 1;
        std::string value = bytes.substr(1);
        field.data = reinterpret_cast<uint8_t *>(value.data());
        UIntf__PmxIfxTbl rec = U_INTF__PMX_IFX_TBL__INIT;
        rec.base.n_unknown_fields = 1;
        rec.base.unknown_fields = &field;
        const ProtobufCFieldDescriptor *named = protobuf_c_message_descriptor_get_field(k.record, field.tag);
        ASSERT_NE(named, nullptr);
        ASSERT_EQ(hash ? qv_mom_hset_sync(ctx_, LIBPMX_DB_PMX, &k, &rec.base, &named->name, 1)
                       : qv_mom_set_sync(ctx_, LIBPMX_DB_PMX, &k, &rec.base),
                  QV_MOM_OK);
    }

    pmx_test::RedisServer server_;
    std::string url_;
    qv_mom_glb_t *glb_ = nullptr;
    qv_mom_thread_global_t *ctx_ = nullptr;
};

TEST_P(MomReads, PresentKeysAndSingleAttempts)
{
    write_ifx(12, 0x07000001);
    IfxKey k12(12), k13(13);
    uint32_t gphyid = 0;
    auto t0 = Clock::now();
    EXPECT_EQ(libpmx_getinfo_from_db_with_block(&k12.key, LIBPMX_DB_PMX, 1, decode_gphyid, &gphyid, 2), 0);
    EXPECT_EQ(gphyid, 0x07000001u);
    EXPECT_EQ(libpmx_hget_info_from_db(&k12.key, LIBPMX_DB_PMX, decode_to_42, nullptr), 42);
    // The hash record is not a plain one: the plain read fails, it does not half-decode.
    EXPECT_EQ(libpmx_get_info_from_db(&k12.key, LIBPMX_DB_PMX, decode_gphyid, &gphyid), LIBPMX_E_FAIL);
    // Missing, and op other than 2: one attempt.
    EXPECT_EQ(libpmx_getinfo_from_db_with_block(&k13.key, LIBPMX_DB_PMX, 1, decode_gphyid, &gphyid, 1),
              LIBPMX_E_NOT_FOUND);
    EXPECT_LT(seconds_since(t0), pmx_test::at_most_seconds(0.09));
    EXPECT_NE(dump_text().find("-- total 0 --"), std::string::npos);
    EXPECT_EQ(libpmx_no_block_to_read_db(), 0);
}

TEST_P(MomReads, WaitToTheLimitBarsTheThread)
{
    IfxKey k(13);
    uint32_t gphyid = 0;
    LogCapture log(2);
    auto t0 = Clock::now();
    EXPECT_EQ(libpmx_getinfo_from_db_with_block(&k.key, LIBPMX_DB_PMX, 1, decode_gphyid, &gphyid, 2),
              LIBPMX_E_NOT_FOUND);
    EXPECT_GE(seconds_since(t0), 0.5);
    EXPECT_TRUE(log.has(LIBPMX_ZLOG_WARN, "UIntf__IfxIndex, db 26, ret -7, slept 5, max 5, op 2, no_block 1"));
    EXPECT_TRUE(log.has(LIBPMX_ZLOG_ERROR, "block read db: 26, slept (0.1 sec) * 5"));
    EXPECT_EQ(libpmx_no_block_to_read_db(), 1);
    EXPECT_NE(dump_text().find("-- total 1 --"), std::string::npos);
    EXPECT_EQ(qv_thread_master_pending(ctx_->master), 1u); // the timer that lifts the bar

    // Barred: a waiting read is a single attempt, and keeps no record.
    t0 = Clock::now();
    EXPECT_EQ(libpmx_getinfo_from_db_with_block(&k.key, LIBPMX_DB_PMX, 1, decode_gphyid, &gphyid, 2),
              LIBPMX_E_NOT_FOUND);
    EXPECT_LT(seconds_since(t0), pmx_test::at_most_seconds(0.09));
    EXPECT_NE(dump_text().find("-- total 1 --"), std::string::npos);

    // The bar lifts after ten seconds of the thread's timer loop (the store plays no part).
    if (GetParam() != "embedded") return;
    timeval t{9, 500000};
    qv_thread_master_run_for(ctx_->master, &t);
    EXPECT_EQ(libpmx_no_block_to_read_db(), 1);
    t = {1, 0};
    qv_thread_master_run_for(ctx_->master, &t);
    EXPECT_EQ(libpmx_no_block_to_read_db(), 0);
}

TEST_P(MomReads, ValuesThatDoNotUnpackAreFailedReads)
{
    // Field 7 (gphyid, a varint) carried as length-delimited bytes.
    const std::string wrong_wire("\x3a\x02\x01\x02", 4);
    IfxKey plain(20), hash(21);
    raw_set(plain.key, wrong_wire, false);
    raw_set(hash.key, wrong_wire, true);
    uint32_t gphyid = 7;
    LogCapture log(1);
    EXPECT_EQ(libpmx_get_info_from_db(&plain.key, LIBPMX_DB_PMX, decode_gphyid, &gphyid), LIBPMX_E_FAIL);
    EXPECT_EQ(libpmx_hget_info_from_db(&hash.key, LIBPMX_DB_PMX, decode_gphyid, &gphyid), LIBPMX_E_FAIL);
    EXPECT_EQ(gphyid, 7u);
    EXPECT_TRUE(log.has(LIBPMX_ZLOG_ERROR, "res->value is null, hget proto UIntf__IfxIndex"));
}

TEST_P(MomReads, WaitEndsWhenAnotherThreadWrites)
{
    libpmx_cap_set_block_times(30);
    IfxKey k(30);
    std::thread writer([this] {
        ASSERT_NE(qv_mom_thread_attach(glb_, nullptr), nullptr);
        std::this_thread::sleep_for(std::chrono::milliseconds(500));
        write_ifx(30, 0x07000030);
        qv_mom_thread_detach();
    });
    uint32_t gphyid = 0;
    const auto t0 = Clock::now();
    EXPECT_EQ(libpmx_getinfo_from_db_with_block(&k.key, LIBPMX_DB_PMX, 1, decode_gphyid, &gphyid, 2), 0);
    const double took = seconds_since(t0);
    writer.join();
    EXPECT_EQ(gphyid, 0x07000030u);
    EXPECT_GE(took, 0.45);
    EXPECT_LT(took, pmx_test::at_most_seconds(2.0));
    EXPECT_EQ(libpmx_no_block_to_read_db(), 0);
}

std::string backend_name(const ::testing::TestParamInfo<std::string> &p) { return p.param; }

INSTANTIATE_TEST_SUITE_P(Backends, MomReads, ::testing::Values("embedded", "redis"), backend_name);

class MomReadsEmbedded : public MomReads
{
};

TEST_P(MomReadsEmbedded, TenNewestBlockRecordsAreKept)
{
    pthread_setname_np(pthread_self(), "pmx-reader");
    libpmx_cap_set_block_times(1);
    for (uint32_t ifx = 1; ifx <= 11; ++ifx) {
        IfxKey k(ifx);
        uint32_t gphyid = 0;
        libpmx_set_can_block_to_read_db(1);
        EXPECT_EQ(libpmx_getinfo_from_db_with_block(&k.key, LIBPMX_DB_PMX, 1, decode_gphyid, &gphyid, 2),
                  LIBPMX_E_NOT_FOUND);
    }
    const std::string dump = dump_text();
    EXPECT_EQ(dump.find("{ifx:1}"), std::string::npos);
    const std::regex first("^all blocking-records :\n"
                           "walltime begin: \\d{4}-\\d\\d-\\d\\d \\d\\d:\\d\\d:\\d\\d \\d{6}  ---- 1\n"
                           "monotime begin: [^\n]+\n"
                           "monotime end  : [^\n]+\n"
                           "read db: 26, slept \\(0.1 sec\\) \\* 1\n"
                           "thread : pmx-reader, thread \\d+, UIntf__IfxIndex-\\{ifx:2\\}\n\n");
    EXPECT_TRUE(std::regex_search(dump, first)) << dump;
    EXPECT_NE(dump.find("UIntf__IfxIndex-{ifx:11}\n\n-- total 10 --\n"), std::string::npos) << dump;
    libpmx_clear_block_info();
    EXPECT_EQ(dump_text(), "all blocking-records :\n-- total 0 --\n");
}

TEST_P(MomReadsEmbedded, BlockTimesCommandAndLimit)
{
    testing::internal::CaptureStdout();
    EXPECT_EQ(libpmx_dbg_cmd_set_block_times("times=5"), 0);
    EXPECT_EQ(libpmx_dbg_cmd_set_block_times("times=-1"), LIBPMX_E_INVAL);
    EXPECT_EQ(libpmx_dbg_cmd_set_block_times("times=3000"), 0);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "now max-block-times 5, block-interval 100000us, = 0.01 min\n"
              "now max-block-times 5, block-interval 100000us, = 0.01 min\n"
              "now max-block-times 3000, block-interval 100000us, = 5.00 min\n");
    EXPECT_EQ(libpmx_cap_get_block_times(), 3000);
}

INSTANTIATE_TEST_SUITE_P(Embedded, MomReadsEmbedded, ::testing::Values("embedded"), backend_name);

TEST(MomReadsRedis, WaitEndsWithMinus20WhenTheServerDies)
{
    pmx_test::RedisServer server;
    ASSERT_TRUE(server.start()) << server.error();
    char err[256] = "";
    qv_mom_glb_t *glb = qv_mom_glb_create(server.url().c_str(), err, sizeof err);
    ASSERT_NE(glb, nullptr) << err;
    ASSERT_NE(qv_mom_thread_attach(glb, nullptr), nullptr);
    libpmx_cap_set_block_times(100);
    std::thread killer([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(300));
        server.kill9();
    });
    IfxKey k(40);
    uint32_t gphyid = 0;
    const auto t0 = Clock::now();
    EXPECT_EQ(libpmx_getinfo_from_db_with_block(&k.key, LIBPMX_DB_PMX, 1, decode_gphyid, &gphyid, 2),
              LIBPMX_E_NO_DB);
    EXPECT_LT(seconds_since(t0), pmx_test::at_most_seconds(3.0));
    killer.join();
    qv_mom_thread_detach();
    qv_mom_glb_destroy(glb);
    libpmx_cap_set_block_times(LIBPMX_DEFAULT_BLOCK_TIMES);
}

} // namespace

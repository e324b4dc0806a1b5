// Library frame: start-up order and retries, the derived name, the level file, the debug level
// and its temporary recording.
#include <gtest/gtest.h>

#include <unistd.h>

#include <cstdlib>
#include <string>

#include "libpmx.h"
#include "libpmx_dbg.h"
#include "libpmx_mom.h"
#include "log_capture.h"
#include "qv_mom.h"
#include "ssat.h"
#include "ssat_client.h"
#include "temp_dir.h"

namespace {

std::string derived(const char *path)
{
    std::string p = path;
    char name[LIBPMX_APP_NAME_SIZE] = {0};
    EXPECT_EQ(libpmx_app_name_from_path(p.data(), name, sizeof name), 0);
    return name;
}

// The level a level file of this content gives, starting from level `from`.
int32_t level_from_file(const pmx_test::TempDir &dir, const char *content, int32_t from)
{
    dir.write("libpmx/libpmx_dbg", content);
    g_libpmx_zlog_level = from;
    EXPECT_EQ(libpmx_dbg_zlog_init("libpmx_nobody"), 0);
    return g_libpmx_zlog_level;
}

// Runs one command line in this process's debug shell of the library: its output and "=> code".
std::string shell(const char *line)
{
    ssat_client_t *client = nullptr;
    char out[4096] = "";
    int32_t code = -100;
    EXPECT_EQ(ssat_client_connect("libpmx_test_libpmx_init", getpid(), &client), SSAT_CLIENT_OK)
        << ssat_client_last_error();
    EXPECT_EQ(ssat_client_run_buf(client, line, out, sizeof out, nullptr, &code), SSAT_CLIENT_OK)
        << ssat_client_last_error();
    ssat_client_close(client);
    return out + std::string("=> ") + std::to_string(code);
}

// True when the recording's timer fires in at most `secs` seconds, and not much sooner.
bool recording_ends_in(long secs)
{
    timeval left{};
    EXPECT_EQ(qv_thread_timer_remaining(g_libpmx.record_timer, &left), 0);
    return left.tv_sec > secs - 5 && left.tv_sec <= secs;
}

} // namespace

TEST(LibpmxInit, BadArgumentsFailedStepRetrySecondCallAndRecording)
{
    pmx_test::TempDir run, dbg;
    setenv(LIBPMX_DBG_DIR_ENV, dbg.path().c_str(), 1);
    char err[256] = {0};
    qv_mom_glb_t *glb = qv_mom_glb_create("embedded:init", err, sizeof err);
    ASSERT_NE(glb, nullptr) << err;
    ASSERT_NE(qv_mom_thread_attach(glb, nullptr), nullptr);
    LogCapture log(2);

    EXPECT_EQ(libpmx_init(nullptr, "x"), LIBPMX_E_INVAL);
    EXPECT_EQ(libpmx_init(glb, nullptr), LIBPMX_E_INVAL);
    EXPECT_TRUE(log.has(LIBPMX_ZLOG_ERROR, "input param error, glb:(nil) app_name:x"));
    EXPECT_EQ(g_libpmx.init_done, 0);

    // The debug shell cannot make its socket under a regular file: the last step fails.
    setenv("PMX_RUN_DIR", "/dev/null/pmx", 1);
    EXPECT_EQ(libpmx_init(glb, "x"), LIBPMX_E_FAIL);
    EXPECT_EQ(g_libpmx.init_done, 0);
    EXPECT_TRUE(log.has(LIBPMX_ZLOG_ERROR, "libpmx_dbg_ut_init fail, ret:-11"));
    void *ab = g_libpmx_mom_ab;
    ASSERT_NE(ab, nullptr);

    // Retried: the handle of the first call is kept, every later step runs again; the level
    // file of the derived name applies. A second call then repeats nothing.
    setenv("PMX_RUN_DIR", run.path().c_str(), 1);
    dbg.write("libpmx_test_libpmx_init/libpmx_test_libpmx_init_dbg", "3\n");
    EXPECT_EQ(libpmx_init(glb, "x"), LIBPMX_OK);
    EXPECT_TRUE(g_libpmx_mom_ab == ab && g_libpmx_zlog_level == 3);
    EXPECT_STREQ(g_libpmx.app_name, "libpmx_test_libpmx_init");
    const int32_t ds = g_libpmx_mom.ds;
    log.clear();
    g_libpmx_zlog_level = 5;
    EXPECT_EQ(libpmx_init(glb, "x"), LIBPMX_OK);
    EXPECT_EQ(g_libpmx_mom.ds, ds);
    const auto lines = log.lines();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].text, "[app_name:x] libpmx_init ok, return");

    // The debug commands are served under the derived name; the shell thread has a timer
    // master of its own for the recording.
    EXPECT_EQ(shell("record_log_tmp minutes=20"),
              "proc_name=libpmx, dbg_level=5\nstart recording log for 15 minutes. \n=> 0");
    EXPECT_EQ(shell("dump_dbg_level"), "proc_name=libpmx, dbg_level=5\n=> 0");
    EXPECT_EQ(shell("record_log_tmp minutes=0"),
              "proc_name=libpmx, dbg_level=1\nstop the last recording.invalid minutes 0. \n=> 0");
    EXPECT_EQ(shell("set_dbg_level 4"),
              "usage: set_dbg_level dbg_level=%d  (OFF:0, ERROR:1 WARM:2 NOTICE:3 INFO:4 DEBUG:5)\n=> " +
                  std::to_string(LIBPMX_E_INVAL));
    ssat_multi_thread_stop("libpmx_test_libpmx_init");
    unsetenv("PMX_RUN_DIR");
    unsetenv(LIBPMX_DBG_DIR_ENV);

    // The recording in this thread, on the timer master of its database context. With none
    // running, 0 only prints.
    auto *ctx = static_cast<qv_mom_thread_global_t *>(qv_mom_get_thread_local_global());
    g_libpmx_zlog_level = 2;
    testing::internal::CaptureStdout();
    libpmx_dbg_record_log_tmp(0);
    EXPECT_EQ(g_libpmx_zlog_level, 2);
    // 30 minutes run for 15; 5 while recording replace the running timer, counting from now.
    libpmx_dbg_record_log_tmp(30);
    EXPECT_EQ(g_libpmx_zlog_level, 5);
    ASSERT_NE(g_libpmx.record_timer, nullptr);
    EXPECT_TRUE(recording_ends_in(15 * 60));
    libpmx_dbg_record_log_tmp(5);
    EXPECT_EQ(qv_thread_master_pending(ctx->master), 1u);
    EXPECT_TRUE(recording_ends_in(5 * 60));
    // 0 stops and reverts to ERROR, whatever the level was before.
    libpmx_dbg_record_log_tmp(0);
    EXPECT_TRUE(g_libpmx_zlog_level == 1 && g_libpmx.record_timer == nullptr);
    EXPECT_EQ(qv_thread_master_pending(ctx->master), 0u);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "invalid minutes 0. \n"
              "proc_name=libpmx, dbg_level=5\nstart recording log for 15 minutes. \n"
              "proc_name=libpmx, dbg_level=5\nstart recording log for 5 minutes. \n"
              "proc_name=libpmx, dbg_level=1\nstop the last recording.invalid minutes 0. \n");
    // The timer's expiry reverts too.
    testing::internal::CaptureStdout();
    libpmx_dbg_record_log_tmp(1);
    qv_thread_t *timer = g_libpmx.record_timer;
    ASSERT_NE(timer, nullptr);
    libpmx_revert_dbg_level(timer);
    qv_thread_cancel(timer);
    EXPECT_TRUE(g_libpmx_zlog_level == 1 && g_libpmx.record_timer == nullptr);
    testing::internal::GetCapturedStdout();
    qv_mom_thread_detach();
    qv_mom_glb_destroy(glb);
}

// Without a database context in the thread: the name, the level file and the level commands.
TEST(LibpmxInit, DerivedNameLevelFileAndLevelCommands)
{
    EXPECT_EQ(derived("/usr/sbin/foo.bar"), "libpmx_foo_bar");
    EXPECT_EQ(derived("/opt/v1.2/tool"), "libpmx_tool"); // dots of directories do not matter
    EXPECT_EQ(derived("a.b.c"), "libpmx_a_b_c");
    LogCapture log(1);
    EXPECT_EQ(derived(("/bin/" + std::string(200, 'n')).c_str()).size(), LIBPMX_APP_NAME_SIZE - 1u);
    EXPECT_TRUE(log.has(LIBPMX_ZLOG_ERROR, "app name has been truncated."));
    char name[LIBPMX_APP_NAME_SIZE] = {0};
    EXPECT_EQ(libpmx_get_app_name(name, sizeof name), 0);
    EXPECT_STREQ(name, "libpmx_test_libpmx_init");

    pmx_test::TempDir dbg;
    setenv(LIBPMX_DBG_DIR_ENV, dbg.path().c_str(), 1);
    char path[512] = {0};
    libpmx_dbg_level_file("libpmx_foo_bar", path, sizeof path);
    EXPECT_EQ(std::string(path), dbg.path() + "/libpmx/libpmx_dbg");
    dbg.write("libpmx_foo_bar/keep", "");
    libpmx_dbg_level_file("libpmx_foo_bar", path, sizeof path);
    EXPECT_EQ(std::string(path), dbg.path() + "/libpmx_foo_bar/libpmx_foo_bar_dbg");
    EXPECT_EQ(level_from_file(dbg, "3\n", 1), 3);
    EXPECT_EQ(level_from_file(dbg, "", 4), 4);      // empty: the level stays
    EXPECT_EQ(level_from_file(dbg, "debug", 4), 0); // no digits: logging off
    EXPECT_EQ(level_from_file(dbg, "9", 1), 9);     // not range-checked
    // Beyond 32 bits: the nearest level that fits, on 32- and 64-bit hosts alike.
    EXPECT_EQ(level_from_file(dbg, "2147483648", 1), INT32_MAX);
    EXPECT_EQ(level_from_file(dbg, "-4294967301", 1), INT32_MIN);
    std::filesystem::remove(dbg.path() + "/libpmx/libpmx_dbg");
    EXPECT_EQ(level_from_file(dbg, "", 2), 2);      // missing file too
    unsetenv(LIBPMX_DBG_DIR_ENV);

    g_libpmx_zlog_level = 2;
    testing::internal::CaptureStdout();
    EXPECT_EQ(libpmx_dbg_set_dbg_level(6), LIBPMX_E_INVAL);
    EXPECT_EQ(libpmx_dbg_set_dbg_level(static_cast<unsigned>(-1)), LIBPMX_E_INVAL);
    EXPECT_EQ(g_libpmx_zlog_level, 2);
    EXPECT_EQ(libpmx_dbg_cmd_set_dbg_level("dbg_level=4"), LIBPMX_OK);
    EXPECT_EQ(libpmx_dbg_cmd_set_dbg_level("level 4"), LIBPMX_E_INVAL);
    EXPECT_EQ(g_libpmx_zlog_level, 4);
    libpmx_dbg_record_log_tmp(5); // no timer master in this thread: nothing changes
    EXPECT_EQ(g_libpmx_zlog_level, 4);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "set_val=6 invalid. OFF:0, ERROR:1 WARM:2 NOTICE:3 INFO:4 DEBUG:5\n"
              "set_val=-1 invalid. OFF:0, ERROR:1 WARM:2 NOTICE:3 INFO:4 DEBUG:5\n"
              "proc_name=libpmx, dbg_level=4\n"
              "usage: set_dbg_level dbg_level=%d  (OFF:0, ERROR:1 WARM:2 NOTICE:3 INFO:4 DEBUG:5)\n"
              "failed to get thread global. ");
}

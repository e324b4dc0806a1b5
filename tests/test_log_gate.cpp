// The log gate: which statements pass at which debug level, and what reaches the category.
// Built with the library's logging frame compiled in, so the gate macro itself is exercised.
#define LIBPMX_LOG_SOURCE "tests/test_log_gate"
#include "libpmx_log.h"

#include <gtest/gtest.h>

#include <string>

#include "log_capture.h"

namespace {

void log_every_level()
{
    PMX_DEBUG("debug %d", 5);
    PMX_INFO("info %d", 4);
    PMX_NOTICE("notice %d", 3);
    PMX_WARN("warn %d", 2);
    PMX_ERROR("error %d", 1);
}

} // namespace

TEST(LogGate, EachLevelLetsThroughItsStatementsOnly)
{
    const int numbers[] = {LIBPMX_ZLOG_ERROR, LIBPMX_ZLOG_WARN, LIBPMX_ZLOG_NOTICE, LIBPMX_ZLOG_INFO,
                           LIBPMX_ZLOG_DEBUG};
    for (int level = -1; level <= 9; ++level) {
        LogCapture cap(level);
        log_every_level();
        const auto lines = cap.lines();
        // Level L writes the L most severe statement levels (0 and below: none, 5 and up: all).
        const size_t expected = level <= 0 ? 0 : level >= 5 ? 5 : static_cast<size_t>(level);
        ASSERT_EQ(lines.size(), expected) << "level " << level;
        for (size_t i = 0; i < lines.size(); ++i) {
            const auto &l = lines[lines.size() - 1 - i]; // error was logged last
            EXPECT_EQ(l.level, numbers[i]);
            EXPECT_EQ(l.func, "log_every_level");
        }
    }
}

TEST(LogGate, TextIsBoundedAndNeedsAnOpenCategory)
{
    LogCapture cap(5);
    PMX_LOG_AS("libpmx_get_app_name", LIBPMX_ZLOG_INFO, "app name:%s", std::string(3000, 'x').c_str());
    ASSERT_EQ(cap.lines().size(), 1u);
    EXPECT_EQ(cap.lines()[0].func, "libpmx_get_app_name");
    EXPECT_EQ(cap.lines()[0].text, "app name:" + std::string(1023 - 9, 'x')) << "a 1024-byte buffer";
    // With no category open, statements that pass the gate are dropped.
    g_libpmx_zlog_category = nullptr;
    PMX_ERROR("dropped");
    EXPECT_EQ(cap.lines().size(), 1u);
}

// Test helper: records what the library logged, through the platform's capture hook.
#pragma once

#include <mutex>
#include <string>
#include <vector>

#include "qv_zlog.h"

// Suites of the platform alone (without the library's headers) capture the platform's lines;
// the others also open the library's log category at the level asked for.
#if __has_include("libpmx_dbg.h")
#include "libpmx_dbg.h"
#define LOG_CAPTURE_LIBPMX 1
#endif

struct LoggedLine {
    int level;
    std::string func;
    std::string text;
};

// While alive: the log category is open, the level is `level`, and every line is kept.
class LogCapture {
public:
#ifdef LOG_CAPTURE_LIBPMX
    // The level is written as the library writes it: other threads (event, shell) read it meanwhile.
    explicit LogCapture(int level = 5)
        : saved_level_(__atomic_load_n(&g_libpmx_zlog_level, __ATOMIC_RELAXED)),
          saved_cat_(__atomic_load_n(&g_libpmx_zlog_category, __ATOMIC_ACQUIRE))
    {
        __atomic_store_n(&g_libpmx_zlog_category, qv_zlog_init("libpmx"), __ATOMIC_RELEASE);
        __atomic_store_n(&g_libpmx_zlog_level, level, __ATOMIC_RELAXED);
        qv_zlog_set_capture(&LogCapture::hook, this);
    }
    ~LogCapture()
    {
        qv_zlog_set_capture(nullptr, nullptr);
        __atomic_store_n(&g_libpmx_zlog_level, saved_level_, __ATOMIC_RELAXED);
        __atomic_store_n(&g_libpmx_zlog_category, saved_cat_, __ATOMIC_RELEASE);
    }
#else
    LogCapture() { qv_zlog_set_capture(&LogCapture::hook, this); }
    ~LogCapture() { qv_zlog_set_capture(nullptr, nullptr); }
#endif
    LogCapture(const LogCapture &) = delete;
    LogCapture &operator=(const LogCapture &) = delete;

    std::vector<LoggedLine> lines() const
    {
        std::lock_guard<std::mutex> lock(mutex_);
        return lines_;
    }
    void clear()
    {
        std::lock_guard<std::mutex> lock(mutex_);
        lines_.clear();
    }
    // True when a line with exactly this level and text was logged.
    bool has(int level, const std::string &text) const
    {
        std::lock_guard<std::mutex> lock(mutex_);
        for (const auto &l : lines_)
            if (l.level == level && l.text == text) return true;
        return false;
    }

private:
    static void hook(int level, const char *func, const char *text, void *arg)
    {
        auto *self = static_cast<LogCapture *>(arg);
        std::lock_guard<std::mutex> lock(self->mutex_);
        self->lines_.push_back({level, func ? func : "", text ? text : ""});
    }

    mutable std::mutex mutex_;
    std::vector<LoggedLine> lines_;
#ifdef LOG_CAPTURE_LIBPMX
    int32_t saved_level_;
    struct qv_zlog_category *saved_cat_;
#endif
};

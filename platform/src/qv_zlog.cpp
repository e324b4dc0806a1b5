// Host logging: categories are spdlog loggers sharing one sink chosen from the environment.
#include "qv_zlog.h"

#include <spdlog/sinks/basic_file_sink.h>
#include <spdlog/sinks/stdout_sinks.h>
#include <spdlog/sinks/syslog_sink.h>
#include <spdlog/spdlog.h>

#include <cstdio>
#include <cstdlib>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>

struct qv_zlog_category {
    std::shared_ptr<spdlog::logger> logger;
};

namespace {

std::mutex g_mutex;
std::map<std::string, std::unique_ptr<qv_zlog_category>> g_categories;
spdlog::sink_ptr g_sink;
qv_zlog_capture_fn g_capture_fn = nullptr;
void *g_capture_arg = nullptr;

spdlog::sink_ptr make_sink()
{
    const char *file = std::getenv("PMX_LOG_FILE");
    if (file != nullptr && *file != '\0')
        return std::make_shared<spdlog::sinks::basic_file_sink_mt>(file);
    const char *syslog = std::getenv("PMX_LOG_SYSLOG");
    if (syslog != nullptr && *syslog != '\0')
        return std::make_shared<spdlog::sinks::syslog_sink_mt>("libpmx", 0, LOG_USER, true);
    return std::make_shared<spdlog::sinks::stderr_sink_mt>();
}

// Lowest level written: $PMX_LOG_LEVEL (debug, info, warn or error), everything by default.
// Callers' own gates (the library's debug level) come first; this only trims the sink.
spdlog::level::level_enum sink_threshold()
{
    const char *name = std::getenv("PMX_LOG_LEVEL");
    if (name == nullptr || *name == '\0') return spdlog::level::trace;
    const spdlog::level::level_enum level = spdlog::level::from_str(name);
    return level == spdlog::level::off && std::string_view(name) != "off" ? spdlog::level::trace : level;
}

spdlog::level::level_enum to_spdlog(int level)
{
    if (level >= QV_ZLOG_LEVEL_ERROR) return spdlog::level::err;
    if (level >= QV_ZLOG_LEVEL_WARN) return spdlog::level::warn;
    if (level >= QV_ZLOG_LEVEL_INFO) return spdlog::level::info; /* notice has no level of its own */
    return spdlog::level::debug;
}

} // namespace

extern "C" qv_zlog_category_t *qv_zlog_init(const char *category)
{
    if (category == nullptr || *category == '\0') return nullptr;
    std::lock_guard<std::mutex> lock(g_mutex);
    auto it = g_categories.find(category);
    if (it != g_categories.end()) return it->second.get();
    try {
        if (!g_sink) g_sink = make_sink();
        auto cat = std::make_unique<qv_zlog_category>();
        cat->logger = std::make_shared<spdlog::logger>(category, g_sink);
        cat->logger->set_level(sink_threshold());
        cat->logger->set_pattern("%Y-%m-%d %H:%M:%S.%e %n %^%l%$ %s:%# %! %v");
        auto *raw = cat.get();
        g_categories.emplace(category, std::move(cat));
        return raw;
    } catch (const std::exception &e) {
        std::fprintf(stderr, "qv_zlog_init(%s): %s\n", category, e.what());
        return nullptr;
    }
}

extern "C" void qvdf_zlog(qv_zlog_category_t *category, const char *file, size_t filelen,
                          const char *func, size_t funclen, long line, int level, const char *format,
                          ...)
{
    (void)filelen;
    (void)funclen;
    if (category == nullptr || format == nullptr) return;
    char text[2048];
    va_list ap;
    va_start(ap, format);
    std::vsnprintf(text, sizeof text, format, ap);
    va_end(ap);

    qv_zlog_capture_fn fn;
    void *arg;
    {
        std::lock_guard<std::mutex> lock(g_mutex);
        fn = g_capture_fn;
        arg = g_capture_arg;
    }
    if (fn != nullptr) fn(level, func, text, arg);
    category->logger->log(spdlog::source_loc{file, static_cast<int>(line), func}, to_spdlog(level),
                          "{}", text);
}

extern "C" int at_snprintf(char *buf, size_t size, const char *format, ...)
{
    va_list ap;
    va_start(ap, format);
    int n = std::vsnprintf(buf, size, format, ap);
    va_end(ap);
    return n;
}

extern "C" void qv_zlog_set_capture(qv_zlog_capture_fn fn, void *arg)
{
    std::lock_guard<std::mutex> lock(g_mutex);
    g_capture_fn = fn;
    g_capture_arg = arg;
}

// Host capabilities: one JSON file read at load; queries walk the parsed document by name.
#include "qv_cap.h"

#include "host_log.h"
#include "qv_zlog.h"

#include <nlohmann/json.hpp>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <limits>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <dlfcn.h>

using json = nlohmann::json;

// Immutable once loaded, so queries take no lock.
struct libqv_cap_ctrl_info {
    std::string path;
    json root;
};

namespace {

qv_zlog_category_t *log_category()
{
    static qv_zlog_category_t *cat = qv_zlog_init("qv_cap");
    return cat;
}

#define QV_CAP_ERROR(...) QV_HOST_LOG(log_category(), QV_ZLOG_LEVEL_ERROR, __VA_ARGS__)
// A capability that the file does not have: normal for optional values (callers keep defaults).
#define QV_CAP_DEBUG(...) QV_HOST_LOG(log_category(), QV_ZLOG_LEVEL_DEBUG, __VA_ARGS__)

// The defaults: the process one (the first info loaded while none was set) and one per thread
// (libqv_cap_init_thread). Freeing an info clears every default that names it, so each thread
// registers its slot here.
std::mutex g_mutex;
std::atomic<const libqv_cap_ctrl_info *> g_process_default{nullptr};

struct ThreadDefault;
std::set<ThreadDefault *> &thread_defaults()
{
    static auto *slots = new std::set<ThreadDefault *>; // never freed: it outlives every thread
    return *slots;
}

struct ThreadDefault {
    std::atomic<const libqv_cap_ctrl_info *> info{nullptr};
    bool registered = false;
    ~ThreadDefault()
    {
        if (!registered) return;
        std::lock_guard<std::mutex> lock(g_mutex);
        thread_defaults().erase(this);
    }
};
thread_local ThreadDefault t_default;

// The installed default lies at a fixed place relative to this library's own directory, so a
// moved install (or the build tree, which mirrors it) finds its own file.
std::string installed_default()
{
    Dl_info where{};
    if (dladdr(reinterpret_cast<void *>(&libqv_cap_ctrl_info_init), &where) == 0 || where.dli_fname == nullptr) {
        QV_CAP_ERROR("no default capability file: cannot tell where the library is loaded from");
        return {};
    }
    std::error_code ec;
    std::filesystem::path lib = std::filesystem::canonical(where.dli_fname, ec);
    if (ec) lib = where.dli_fname;
    return (lib.parent_path() / PMX_CAP_FILE_FROM_LIBDIR).lexically_normal().string();
}

std::string choose_path(const char *path)
{
    if (path != nullptr && *path != '\0') return path;
    const char *env = std::getenv("PMX_CAP_FILE");
    if (env != nullptr && *env != '\0') return env;
    return installed_default();
}

// Line and column (both from 1) of a byte offset, for parse errors.
void position_of(const std::string &text, size_t offset, size_t *line, size_t *column)
{
    *line = 1;
    *column = 1;
    for (size_t i = 0; i < offset && i < text.size(); ++i) {
        if (text[i] == '\n') {
            ++*line;
            *column = 1;
        } else {
            ++*column;
        }
    }
}

// Reads the whole file; false (errno set) when it cannot be opened or read, e.g. a directory.
bool read_file(const char *path, std::string *text)
{
    std::FILE *f = std::fopen(path, "rb");
    if (f == nullptr) return false;
    char chunk[4096];
    size_t n;
    while ((n = std::fread(chunk, 1, sizeof chunk, f)) > 0) text->append(chunk, n);
    bool ok = std::ferror(f) == 0;
    int saved = errno;
    std::fclose(f);
    errno = saved;
    return ok;
}

int load(const char *path, libqv_cap_ctrl_info *info)
{
    std::string text;
    if (!read_file(path, &text)) {
        QV_CAP_ERROR("cannot read capability file %s: %s", path, std::strerror(errno));
        return LIBQV_CAP_E_FILE;
    }
    try {
        info->root = json::parse(text, nullptr, true, true);
    } catch (const json::parse_error &e) {
        // e.byte counts from 1 and points at the last byte read.
        size_t line, column;
        position_of(text, e.byte > 0 ? e.byte - 1 : 0, &line, &column);
        // The library's own text repeats a position past the bad byte; keep only the reason.
        const char *what = e.what();
        const char *reason = std::strstr(what, "syntax error");
        QV_CAP_ERROR("capability file %s is not valid JSON at line %zu, column %zu: %s", path, line,
                     column, reason != nullptr ? reason : what);
        return LIBQV_CAP_E_PARSE;
    } catch (const json::exception &e) {
        // A number too large for a double ("1e400"): the library tells no position.
        const char *what = e.what();
        const char *tag_end = std::strstr(what, "] ");
        QV_CAP_ERROR("capability file %s is not valid JSON: %s", path,
                     tag_end != nullptr ? tag_end + 2 : what);
        return LIBQV_CAP_E_PARSE;
    }
    if (!info->root.is_object()) {
        QV_CAP_ERROR("capability file %s: the top level must be an object, not %s", path,
                     info->root.type_name());
        return LIBQV_CAP_E_PARSE;
    }
    return LIBQV_CAP_OK;
}

// The info a query uses: the given one, else the thread's, else the process default.
const libqv_cap_ctrl_info *resolve(const libqv_cap_ctrl_info *info, const char *name)
{
    if (info == nullptr) info = t_default.info.load(std::memory_order_acquire);
    if (info == nullptr) info = g_process_default.load(std::memory_order_acquire);
    if (info == nullptr) QV_CAP_ERROR("capability %s: no capability file is loaded", name);
    return info;
}

bool parse_index(const std::string &step, size_t *index)
{
    if (step.empty() || step.size() > 9) return false;
    size_t v = 0;
    for (char c : step) {
        if (c < '0' || c > '9') return false;
        v = v * 10 + static_cast<size_t>(c - '0');
    }
    *index = v;
    return true;
}

// Finds a capability for a query; null (logged, *rc set) on a failure. *used is the info read.
const json *find(const libqv_cap_ctrl_info *info, const char *name, bool has_output,
                 const libqv_cap_ctrl_info **used, int *rc)
{
    *rc = LIBQV_CAP_E_INVAL;
    info = resolve(info, name != nullptr ? name : "(null)");
    if (info == nullptr) return nullptr;
    *used = info;
    if (name == nullptr || !has_output) {
        if (name == nullptr)
            QV_CAP_ERROR("capability query in %s without a name", info->path.c_str());
        else
            QV_CAP_ERROR("capability %s in %s: no output buffer", name, info->path.c_str());
        return nullptr;
    }
    const json *node = &info->root;
    const std::string full(name);
    size_t begin = 0;
    for (;;) {
        size_t end = full.find('/', begin);
        const std::string step = full.substr(begin, end == std::string::npos ? end : end - begin);
        const json *next = nullptr;
        size_t index = 0;
        if (node->is_object()) {
            auto it = node->find(step);
            if (it != node->end()) next = &*it;
        } else if (node->is_array() && parse_index(step, &index) && index < node->size()) {
            next = &(*node)[index];
        }
        if (next == nullptr) {
            QV_CAP_DEBUG("capability %s not found in %s: no \"%s\" in the %s", name,
                         info->path.c_str(), step.c_str(), node->type_name());
            *rc = LIBQV_CAP_E_MISSING;
            return nullptr;
        }
        node = next;
        if (end == std::string::npos) break;
        begin = end + 1;
    }
    *rc = LIBQV_CAP_OK;
    return node;
}

int wrong_type(const libqv_cap_ctrl_info *info, const char *name, const json &value, const char *wanted)
{
    std::string shown = value.dump();
    if (shown.size() > 64) shown = shown.substr(0, 64) + "...";
    QV_CAP_ERROR("capability %s in %s is not %s: %s %s", name, info->path.c_str(), wanted,
                 value.type_name(), shown.c_str());
    return LIBQV_CAP_E_TYPE;
}

} // namespace

extern "C" int libqv_cap_ctrl_info_init(libqv_cap_ctrl_info_t **info, const char *path)
{
    if (info == nullptr) {
        QV_CAP_ERROR("capability load without a place for the result");
        return LIBQV_CAP_E_INVAL;
    }
    std::string chosen;
    try {
        chosen = choose_path(path);
        auto loaded = std::make_unique<libqv_cap_ctrl_info>();
        loaded->path = chosen;
        int rc = load(loaded->path.c_str(), loaded.get());
        if (rc != LIBQV_CAP_OK) return rc;
        *info = loaded.release();
    } catch (const std::exception &e) {
        QV_CAP_ERROR("cannot load capability file %s: %s", chosen.empty() ? "(default)" : chosen.c_str(), e.what());
        return LIBQV_CAP_E_FILE;
    }
    std::lock_guard<std::mutex> lock(g_mutex);
    if (g_process_default.load(std::memory_order_relaxed) == nullptr)
        g_process_default.store(*info, std::memory_order_release);
    return LIBQV_CAP_OK;
}

extern "C" void libqv_cap_ctrl_info_free(libqv_cap_ctrl_info_t *info)
{
    if (info == nullptr) return;
    {
        std::lock_guard<std::mutex> lock(g_mutex);
        const libqv_cap_ctrl_info *expected = info;
        g_process_default.compare_exchange_strong(expected, nullptr);
        for (ThreadDefault *slot : thread_defaults()) {
            expected = info;
            slot->info.compare_exchange_strong(expected, nullptr);
        }
    }
    delete info;
}

extern "C" const char *libqv_cap_ctrl_info_path(const libqv_cap_ctrl_info_t *info)
{
    return info != nullptr ? info->path.c_str() : nullptr;
}

extern "C" int libqv_cap_init_thread(libqv_cap_ctrl_info_t *info)
{
    if (info == nullptr) {
        QV_CAP_ERROR("capability thread set-up without capability data");
        return LIBQV_CAP_E_INVAL;
    }
    if (!t_default.registered) {
        std::lock_guard<std::mutex> lock(g_mutex);
        try {
            thread_defaults().insert(&t_default);
        } catch (const std::bad_alloc &) {
            QV_CAP_ERROR("capability thread set-up for %s: out of memory", info->path.c_str());
            return LIBQV_CAP_E_INVAL;
        }
        t_default.registered = true;
    }
    t_default.info.store(info, std::memory_order_release);
    return LIBQV_CAP_OK;
}

extern "C" int libqv_cap_get_capacity_int32(const libqv_cap_ctrl_info_t *info, const char *name, int32_t *out)
{
    int rc;
    const libqv_cap_ctrl_info *used = nullptr;
    const json *v = find(info, name, out != nullptr, &used, &rc);
    if (v == nullptr) return rc;
    if (v->is_number_integer()) {
        bool fits = v->is_number_unsigned()
                        ? v->get<uint64_t>() <= static_cast<uint64_t>(std::numeric_limits<int32_t>::max())
                        : v->get<int64_t>() >= std::numeric_limits<int32_t>::min() &&
                              v->get<int64_t>() <= std::numeric_limits<int32_t>::max();
        if (fits) {
            *out = static_cast<int32_t>(v->get<int64_t>());
            return LIBQV_CAP_OK;
        }
    }
    return wrong_type(used, name, *v, "a 32-bit integer");
}

extern "C" int libqv_cap_get_capacity_bool(const libqv_cap_ctrl_info_t *info, const char *name, bool *out)
{
    int rc;
    const libqv_cap_ctrl_info *used = nullptr;
    const json *v = find(info, name, out != nullptr, &used, &rc);
    if (v == nullptr) return rc;
    if (v->is_boolean()) {
        *out = v->get<bool>();
        return LIBQV_CAP_OK;
    }
    if (v->is_number_integer() && (*v == 0 || *v == 1)) {
        *out = *v == 1;
        return LIBQV_CAP_OK;
    }
    return wrong_type(used, name, *v, "a boolean (true, false, 0 or 1)");
}

extern "C" int libqv_cap_get_capacity_str(const libqv_cap_ctrl_info_t *info, const char *name, char *buf,
                                          size_t size)
{
    int rc;
    const libqv_cap_ctrl_info *used = nullptr;
    const json *v = find(info, name, buf != nullptr && size > 0, &used, &rc);
    if (v == nullptr) return rc;
    if (!v->is_string()) return wrong_type(used, name, *v, "a string");
    const std::string &s = v->get_ref<const std::string &>();
    if (s.size() >= size) {
        QV_CAP_ERROR("capability %s in %s: the string of %zu bytes does not fit a buffer of %zu", name,
                     used->path.c_str(), s.size(), size);
        return LIBQV_CAP_E_TYPE;
    }
    std::memcpy(buf, s.c_str(), s.size() + 1);
    return LIBQV_CAP_OK;
}

// Fuzzes the capability file reader: each input is the content of a capability file, loaded with
// libqv_cap_ctrl_info_init. A file is loaded exactly when it is JSON (comments allowed) with an
// object at the top; a refused file leaves no info and no process default behind, and its
// failure is logged with the file's path. From a loaded file, every value reachable by a name
// (up to a bound) is queried as an integer, a boolean and a string, and each result must be what
// the query rules give for that value, with the output left alone on a failure.
#include <fcntl.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <limits>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>
#include <vector>

#include "qv_cap.h"
#include "qv_zlog.h"

namespace
{

using json = nlohmann::json;

constexpr size_t kMaxNames = 64; // names queried per file
constexpr size_t kMaxDepth = 8;

std::string g_dir;
std::string g_file;
bool g_logged_path = false; // an error line named the file since the last reset

[[noreturn]] void broken(const std::string &what, size_t size)
{
    std::fprintf(stderr, "fuzz_cap_file: %s (file of %zu bytes)\n", what.c_str(), size);
    std::abort();
}

void capture(int level, const char *, const char *text, void *)
{
    if (level >= QV_ZLOG_LEVEL_ERROR && std::strstr(text, g_file.c_str()) != nullptr) g_logged_path = true;
}

void remove_dir()
{
    std::error_code ec;
    std::filesystem::remove_all(g_dir, ec);
}

// Names of the values of doc, breadth first: members by key, elements by index.
std::vector<std::string> names_of(const json &doc)
{
    struct Item {
        const json *value;
        std::string name;
        size_t depth;
    };
    std::vector<Item> queue{{&doc, "", 0}};
    std::vector<std::string> names;
    for (size_t at = 0; at < queue.size() && names.size() < kMaxNames; ++at) {
        Item item = queue[at]; // a copy: the queue grows below
        if (item.depth > 0) names.push_back(item.name);
        if (item.depth == kMaxDepth) continue;
        std::string prefix = item.depth > 0 ? item.name + "/" : "";
        if (item.value->is_object()) {
            for (const auto &[key, v] : item.value->items())
                queue.push_back({&v, prefix + key, item.depth + 1});
        } else if (item.value->is_array()) {
            for (size_t i = 0; i < item.value->size(); ++i)
                queue.push_back({&(*item.value)[i], prefix + std::to_string(i), item.depth + 1});
        }
        if (queue.size() > 4 * kMaxNames) queue.resize(4 * kMaxNames);
    }
    return names;
}

// The value a name reaches by the query rules ('/' steps into a member, or into an element by
// up to 9 decimal digits); null when there is none.
const json *walk(const json &doc, const std::string &name)
{
    const json *node = &doc;
    size_t begin = 0;
    for (;;) {
        size_t end = name.find('/', begin);
        std::string step = name.substr(begin, end == std::string::npos ? std::string::npos : end - begin);
        const json *next = nullptr;
        if (node->is_object()) {
            auto it = node->find(step);
            if (it != node->end()) next = &*it;
        } else if (node->is_array() && !step.empty() && step.size() <= 9 &&
                   step.find_first_not_of("0123456789") == std::string::npos) {
            size_t index = std::stoul(step);
            if (index < node->size()) next = &(*node)[index];
        }
        if (next == nullptr) return nullptr;
        node = next;
        if (end == std::string::npos) return node;
        begin = end + 1;
    }
}

void check_queries(const libqv_cap_ctrl_info_t *info, const json &doc, const std::string &key_path, size_t size)
{
    // A key may hold a NUL: the query sees the name up to it.
    const std::string name(key_path.c_str());
    const json *v = walk(doc, name);
    const int missing = LIBQV_CAP_E_MISSING;

    // Integers: any integer in the range of int32.
    for (const libqv_cap_ctrl_info_t *asked : {info, static_cast<const libqv_cap_ctrl_info_t *>(nullptr)}) {
        int32_t out = 0x5a5a5a5a;
        int rc = libqv_cap_get_capacity_int32(asked, name.c_str(), &out);
        int want = missing;
        int64_t value = 0;
        if (v != nullptr) {
            want = LIBQV_CAP_E_TYPE;
            if (v->is_number_unsigned()) {
                if (v->get<uint64_t>() <= INT32_MAX) {
                    want = LIBQV_CAP_OK;
                    value = static_cast<int64_t>(v->get<uint64_t>());
                }
            } else if (v->is_number_integer() && v->get<int64_t>() >= INT32_MIN && v->get<int64_t>() <= INT32_MAX) {
                want = LIBQV_CAP_OK;
                value = v->get<int64_t>();
            }
        }
        if (rc != want) broken("int32 query of '" + name + "': result " + std::to_string(rc), size);
        if (rc == LIBQV_CAP_OK ? out != value : out != 0x5a5a5a5a)
            broken("int32 query of '" + name + "': wrong output", size);
    }

    // Booleans: true, false, 0 or 1.
    {
        bool out = true;
        int rc = libqv_cap_get_capacity_bool(info, name.c_str(), &out);
        int want = missing;
        bool value = true;
        if (v != nullptr) {
            want = LIBQV_CAP_E_TYPE;
            if (v->is_boolean()) {
                want = LIBQV_CAP_OK;
                value = v->get<bool>();
            } else if (v->is_number_integer() && !v->is_number_float() && (*v == 0 || *v == 1)) {
                want = LIBQV_CAP_OK;
                value = *v == 1;
            }
        }
        if (rc != want) broken("bool query of '" + name + "': result " + std::to_string(rc), size);
        if (rc == LIBQV_CAP_OK ? out != value : !out) broken("bool query of '" + name + "': wrong output", size);
    }

    // Strings: copied with the terminator into a buffer just large enough; one byte less fails.
    size_t len = v != nullptr && v->is_string() ? v->get_ref<const std::string &>().size() : 0;
    for (size_t room : {len + 1, len}) {
        if (room == 0) continue;
        std::vector<char> buf(room, '\x7f');
        int rc = libqv_cap_get_capacity_str(info, name.c_str(), buf.data(), buf.size());
        int want = v == nullptr ? missing : v->is_string() && room > len ? LIBQV_CAP_OK : LIBQV_CAP_E_TYPE;
        if (rc != want) broken("string query of '" + name + "': result " + std::to_string(rc), size);
        if (rc == LIBQV_CAP_OK) {
            const std::string &s = v->get_ref<const std::string &>();
            if (std::memcmp(buf.data(), s.c_str(), s.size() + 1) != 0)
                broken("string query of '" + name + "': wrong output", size);
        } else {
            for (char c : buf)
                if (c != '\x7f') broken("string query of '" + name + "': output written on a failure", size);
        }
    }
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    std::string base = std::filesystem::is_directory("/dev/shm") ? "/dev/shm" : "/tmp";
    std::string templ = base + "/pmx-fuzz-cap.XXXXXX";
    if (mkdtemp(templ.data()) == nullptr) {
        std::perror("fuzz_cap_file: mkdtemp");
        std::abort();
    }
    g_dir = templ;
    g_file = g_dir + "/caps.json";
    std::atexit(remove_dir);
    setenv("PMX_LOG_FILE", "/dev/null", 1); // every refused file and failed query logs a line
    qv_zlog_set_capture(capture, nullptr);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    int fd = open(g_file.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (fd < 0 || write(fd, data, size) != static_cast<ssize_t>(size) || close(fd) != 0) {
        std::perror("fuzz_cap_file: writing the capability file");
        std::abort();
    }
    const json doc = json::parse(data, data + size, nullptr, false, true);
    const bool loadable = !doc.is_discarded() && doc.is_object();

    libqv_cap_ctrl_info_t *info = nullptr;
    g_logged_path = false;
    int rc = libqv_cap_ctrl_info_init(&info, g_file.c_str());
    if (!loadable) {
        if (rc != LIBQV_CAP_E_PARSE) broken("a file that is not a JSON object gave " + std::to_string(rc), size);
        if (info != nullptr) broken("a refused file left an info", size);
        if (!g_logged_path) broken("a refused file was not logged with its path", size);
        int32_t out = 7;
        if (libqv_cap_get_capacity_int32(nullptr, "max-block-times", &out) != LIBQV_CAP_E_INVAL || out != 7)
            broken("a refused file left a process default", size);
        return 0;
    }
    if (rc != LIBQV_CAP_OK || info == nullptr) broken("a JSON object was refused: " + std::to_string(rc), size);
    if (g_file != libqv_cap_ctrl_info_path(info)) broken("the info names another file", size);

    for (const std::string &name : names_of(doc))
        check_queries(info, doc, name, size);
    check_queries(info, doc, "", size);
    check_queries(info, doc, "max-block-times/0", size);

    libqv_cap_ctrl_info_free(info);
    int32_t out = 7;
    if (libqv_cap_get_capacity_int32(nullptr, "max-block-times", &out) != LIBQV_CAP_E_INVAL || out != 7)
        broken("a freed info is still the process default", size);
    return 0;
}

// Fuzzes the debug-level file: each input is the content of the library's level file under a
// private PMX_DBG_DIR, read by libpmx_dbg_zlog_init. The level must be the file's leading
// decimal number (after white space, with a sign), limited to the range of a 32-bit level; no
// number gives 0; an empty file keeps the level it found.
#include <fcntl.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <string_view>

#include "libpmx_dbg.h"
#include "libpmx_errno.h"

namespace
{

constexpr size_t kRead = 16;       // the reader looks at this many bytes of the file
constexpr int32_t kBefore = 2;     // the level before each read: not one a file gives by chance

std::string g_root;
std::string g_file;

[[noreturn]] void broken(const char *what, std::string_view content, int32_t level)
{
    std::fprintf(stderr, "fuzz_level_file: %s (file of %zu bytes, level %d)\n", what, content.size(),
                 level);
    std::abort();
}

// The level the file's content must give, read without the C library's number parsing.
int32_t expected_level(std::string_view content)
{
    if (content.empty()) return kBefore;
    std::string_view text = content.substr(0, kRead);
    text = text.substr(0, text.find('\0'));
    size_t i = 0;
    while (i < text.size() && (text[i] == ' ' || (text[i] >= '\t' && text[i] <= '\r')))
        ++i;
    bool negative = false;
    if (i < text.size() && (text[i] == '+' || text[i] == '-')) negative = text[i++] == '-';
    int64_t value = 0; // at most 16 digits: no overflow
    for (; i < text.size() && text[i] >= '0' && text[i] <= '9'; ++i)
        value = value * 10 + (text[i] - '0');
    if (negative) value = -value;
    if (value > INT32_MAX) return INT32_MAX;
    if (value < INT32_MIN) return INT32_MIN;
    return static_cast<int32_t>(value);
}

void remove_root()
{
    std::error_code ec;
    std::filesystem::remove_all(g_root, ec);
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    const char *tmp = std::getenv("TMPDIR");
    std::string base = std::filesystem::is_directory("/dev/shm") ? "/dev/shm" : (tmp != nullptr && *tmp != '\0' ? tmp : "/tmp");
    std::string templ = base + "/pmx-fuzz-dbg.XXXXXX";
    if (mkdtemp(templ.data()) == nullptr) {
        std::perror("fuzz_level_file: mkdtemp");
        std::abort();
    }
    g_root = templ;
    std::atexit(remove_root);
    std::filesystem::create_directory(g_root + "/libpmx");
    g_file = g_root + "/libpmx/libpmx_dbg";
    setenv(LIBPMX_DBG_DIR_ENV, g_root.c_str(), 1);
    setenv("PMX_LOG_FILE", "/dev/null", 1); // the reader logs the level it set, every run

    // No directory of its own: the name reads the library's file.
    char path[512] = {0};
    libpmx_dbg_level_file("libpmx_fuzz", path, sizeof path);
    if (g_file != path) {
        std::fprintf(stderr, "fuzz_level_file: the level file is %s, not %s\n", path, g_file.c_str());
        std::abort();
    }
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    std::string_view content(reinterpret_cast<const char *>(data), size);
    int fd = open(g_file.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (fd < 0 || write(fd, data, size) != static_cast<ssize_t>(size) || close(fd) != 0) {
        std::perror("fuzz_level_file: writing the level file");
        std::abort();
    }
    g_libpmx_zlog_level = kBefore;
    int rc = libpmx_dbg_zlog_init("libpmx_fuzz");
    int32_t level = g_libpmx_zlog_level;
    if (rc != LIBPMX_OK) broken("reading the level file failed", content, level);
    if (g_libpmx_zlog_category == nullptr) broken("the log category is not open", content, level);
    if (level != expected_level(content)) broken("the level is not the file's number", content, level);
    return 0;
}

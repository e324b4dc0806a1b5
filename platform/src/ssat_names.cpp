// Run directory, socket file names and the liveness probe of the debug shell.
#include "ssat_names.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace ssat_names
{
namespace
{

constexpr size_t kMaxPidDigits = 10;
constexpr std::string_view kSuffix = ".sock";
constexpr size_t kHashText = 1 + 8; // '~' and 8 hex digits

uint32_t fnv1a(std::string_view text)
{
    uint32_t h = 2166136261u;
    for (char c : text) {
        h ^= static_cast<unsigned char>(c);
        h *= 16777619u;
    }
    return h;
}

bool module_char(char c)
{
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_' ||
           c == '-' || c == '.';
}

} // namespace

bool valid_module(std::string_view module)
{
    if (module.empty() || module.size() > kMaxModule || module[0] == '.') return false;
    for (char c : module)
        if (!module_char(c)) return false;
    return true;
}

RunDir run_dir()
{
    RunDir dir;
    const char *env = std::getenv("PMX_RUN_DIR");
    const char *xdg = std::getenv("XDG_RUNTIME_DIR");
    if (env != nullptr && *env != '\0')
        dir = {env, false};
    else if (xdg != nullptr && *xdg != '\0')
        dir = {std::string(xdg) + "/pmx", true};
    else
        dir = {"/tmp/pmx-" + std::to_string(geteuid()), true};
    // "/run/x/" and "/run/x" must give the same stems.
    while (dir.path.size() > 1 && dir.path.back() == '/')
        dir.path.pop_back();
    return dir;
}

bool socket_stem(const std::string &dir, std::string_view module, std::string *stem,
                 std::string *why)
{
    const size_t fixed =
        dir.size() + 1 + 1 + kMaxPidDigits + kSuffix.size(); // "/", ".<pid>", ".sock"
    const size_t room = fixed < kMaxPath ? kMaxPath - fixed : 0;
    if (module.size() <= room) {
        *stem = module;
        return true;
    }
    if (room < 1 + kHashText) {
        *why = "the run directory " + dir + " is too long for a socket name (" +
               std::to_string(dir.size()) + " bytes; a socket path holds " +
               std::to_string(kMaxPath) + "): set PMX_RUN_DIR to a shorter directory";
        return false;
    }
    char hash[kHashText + 1];
    std::snprintf(hash, sizeof hash, "~%08x", static_cast<unsigned>(fnv1a(module)));
    *stem = std::string(module.substr(0, room - kHashText)) + hash;
    return true;
}

bool shortened(std::string_view stem)
{
    return stem.size() > kHashText && stem[stem.size() - kHashText] == '~';
}

std::string socket_file(std::string_view stem, pid_t pid)
{
    return std::string(stem) + "." + std::to_string(pid) + std::string(kSuffix);
}

bool parse_socket_file(std::string_view file, std::string *stem, pid_t *pid)
{
    if (file.size() <= kSuffix.size() || !file.ends_with(kSuffix)) return false;
    file.remove_suffix(kSuffix.size());
    const size_t dot = file.rfind('.');
    if (dot == std::string_view::npos || dot == 0) return false;
    std::string_view digits = file.substr(dot + 1);
    // Decimal digits only, without a leading zero: from_chars alone would take a sign.
    if (digits.empty() || digits.size() > kMaxPidDigits || digits[0] < '1' || digits[0] > '9')
        return false;
    long long value = 0;
    auto [end, ec] = std::from_chars(digits.data(), digits.data() + digits.size(), value);
    if (ec != std::errc() || end != digits.data() + digits.size() || value > INT32_MAX)
        return false;
    std::string_view name = file.substr(0, dot);
    if (shortened(name)) {
        const size_t tilde = name.size() - kHashText;
        if (name.substr(tilde + 1).find_first_not_of("0123456789abcdef") != std::string_view::npos)
            return false;
        name = name.substr(0, tilde);
    }
    if (!valid_module(name)) return false;
    *stem = file.substr(0, dot);
    *pid = static_cast<pid_t>(value);
    return true;
}

bool socket_answers(const std::string &path)
{
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    if (path.size() >= sizeof addr.sun_path) return false;
    std::memcpy(addr.sun_path, path.c_str(), path.size() + 1);
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (fd < 0) return true; // cannot tell: take it as alive
    int rc = connect(fd, reinterpret_cast<const sockaddr *>(&addr), sizeof addr);
    int err = errno;
    close(fd);
    return rc == 0 || err == EAGAIN || err == EINPROGRESS;
}

} // namespace ssat_names

// Modes and group of the debug shell's directory and sockets.
#include "ssat_access.h"

#include <grp.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

namespace ssat_access
{
namespace
{

std::string errno_text(int e)
{
    return std::strerror(e);
}

std::string mode_text(mode_t m)
{
    char buf[8];
    std::snprintf(buf, sizeof buf, "%04o", static_cast<unsigned>(m & 07777));
    return buf;
}

// Gives path to the group with mode; false with *why.
bool give_to_group(const std::string &path, const Access &a, mode_t mode, std::string *why)
{
    if (chown(path.c_str(), static_cast<uid_t>(-1), a.gid) != 0) {
        *why = "cannot give " + path + " to group " + a.name + " (" + kGroupVariable + "): " +
               errno_text(errno);
        return false;
    }
    if (chmod(path.c_str(), mode) != 0) {
        *why = "cannot set mode " + mode_text(mode) + " on " + path + ": " + errno_text(errno);
        return false;
    }
    return true;
}

} // namespace

bool from_environment(Access *out, std::string *why)
{
    *out = Access{};
    const char *v = std::getenv(kGroupVariable);
    if (v == nullptr || *v == '\0') return true;
    out->group = true;
    out->name = v;
    const char *end = v + std::strlen(v);
    unsigned long id = 0;
    auto [p, ec] = std::from_chars(v, end, id);
    if (ec == std::errc() && p == end) {
        // (gid_t)-1 would tell chown to leave the group as it is.
        if (id >= static_cast<unsigned long>(static_cast<gid_t>(-1))) {
            *why = std::string(kGroupVariable) + "=" + v + " is no group number";
            return false;
        }
        out->gid = static_cast<gid_t>(id);
        return true;
    }
    group g{};
    group *found = nullptr;
    std::vector<char> buf(4096);
    int rc;
    while ((rc = getgrnam_r(v, &g, buf.data(), buf.size(), &found)) == ERANGE && buf.size() < (1u << 20))
        buf.resize(buf.size() * 2);
    if (rc != 0 || found == nullptr) {
        *why = std::string(kGroupVariable) + " names group '" + v + "', which this machine does not know" +
               (rc != 0 ? ": " + errno_text(rc) : std::string());
        return false;
    }
    out->gid = g.gr_gid;
    return true;
}

bool prepare_dir(const ssat_names::RunDir &dir, const Access &access, std::string *why)
{
    const bool made = mkdir(dir.path.c_str(), dir_mode(access)) == 0;
    if (!made && errno != EEXIST) {
        *why = "cannot create directory " + dir.path + ": " + errno_text(errno);
        return false;
    }
    // A directory of the environment's naming is used as it stands, once it exists.
    if (made && access.group && !give_to_group(dir.path, access, dir_mode(access), why)) return false;
    // The default directory must be the directory itself, not a link planted in its place.
    struct stat st;
    if ((dir.must_be_private ? lstat(dir.path.c_str(), &st) : stat(dir.path.c_str(), &st)) != 0) {
        *why = "cannot examine " + dir.path + ": " + errno_text(errno);
        return false;
    }
    if (!S_ISDIR(st.st_mode)) {
        *why = dir.path + " is not a directory";
        return false;
    }
    if (!dir.must_be_private) return true;
    if (st.st_uid != geteuid()) {
        *why = dir.path + " is owned by uid " + std::to_string(st.st_uid) + ", not by this user (uid " +
               std::to_string(geteuid()) + ")";
        return false;
    }
    if (!access.group) {
        if ((st.st_mode & 077) != 0) {
            *why = dir.path + " is open to group or others (mode " + mode_text(st.st_mode) + "); it must be 0700";
            return false;
        }
        return true;
    }
    if ((st.st_mode & 07) != 0) {
        *why = dir.path + " is open to others (mode " + mode_text(st.st_mode) + "); it must be 0750";
        return false;
    }
    if (st.st_gid != access.gid || (st.st_mode & 0777) != 0750)
        return give_to_group(dir.path, access, dir_mode(access), why);
    return true;
}

bool open_socket(const std::string &path, const Access &access, std::string *why)
{
    if (access.group) return give_to_group(path, access, socket_mode(access), why);
    if (chmod(path.c_str(), socket_mode(access)) != 0) {
        *why = "cannot set mode " + mode_text(socket_mode(access)) + " on " + path + ": " + errno_text(errno);
        return false;
    }
    return true;
}

std::string reach_warning(const ssat_names::RunDir &dir, const Access &access)
{
    if (!access.group) return {};
    const size_t slash = dir.path.rfind('/');
    const std::string parent = slash == 0 ? "/" : slash == std::string::npos ? "." : dir.path.substr(0, slash);
    struct stat st;
    if (stat(parent.c_str(), &st) != 0) return {};
    const bool reachable = (st.st_mode & 01) != 0 || ((st.st_mode & 010) != 0 && st.st_gid == access.gid);
    if (reachable) return {};
    return "group " + access.name + " cannot reach " + dir.path + ": its parent " + parent + " has mode " +
           mode_text(st.st_mode) + "; set PMX_RUN_DIR to a directory the group can reach";
}

} // namespace ssat_access

// Who may attach to the debug shell's sockets besides their owner.
//
// By default nobody: the directory is 0700 and each socket 0600. PMX_SHELL_GROUP names a group
// (by name or number) whose members may attach too: the default directory becomes 0750 and each
// socket 0660, both given to that group. Everyone else is kept out by the file system itself.
#ifndef SSAT_ACCESS_H
#define SSAT_ACCESS_H

#include <sys/types.h>

#include <string>

#include "ssat_names.h"

namespace ssat_access
{

inline constexpr const char *kGroupVariable = "PMX_SHELL_GROUP";

struct Access {
    bool group = false; // a group may attach
    gid_t gid = 0;
    std::string name; // as the variable gives it, for messages
};

// Reads PMX_SHELL_GROUP; false with *why when it names no group of this machine.
bool from_environment(Access *out, std::string *why);

// Mode of the default directory and of each socket.
inline mode_t dir_mode(const Access &a) { return a.group ? 0750 : 0700; }
inline mode_t socket_mode(const Access &a) { return a.group ? 0660 : 0600; }

// Creates the run directory when missing and checks it: the default one must be ours, a real
// directory, and closed to everyone but us (and the group, when one may attach); a group
// directory found with other modes is set to 0750 and given to the group. False with *why.
bool prepare_dir(const ssat_names::RunDir &dir, const Access &access, std::string *why);

// Gives a new socket (bound, not yet listening) its mode and group. False with *why.
bool open_socket(const std::string &path, const Access &access, std::string *why);

// A warning to log when the group cannot reach dir through its parent (e.g. a 0700
// $XDG_RUNTIME_DIR); empty when it can or when no group may attach.
std::string reach_warning(const ssat_names::RunDir &dir, const Access &access);

} // namespace ssat_access

#endif // SSAT_ACCESS_H

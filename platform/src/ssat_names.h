// Where the debug shell's sockets live and how they are named, shared by the server and the
// client.
//
// A process serves module on <run dir>/<stem>.<pid>.sock. The stem is the module name when the
// path fits a socket address (107 bytes) for any pid of up to 10 digits; otherwise it is the
// longest prefix of the name that fits, '~' and the 8 hex digits of the name's FNV-1a hash. A
// module name has no '~', so a shortened stem never equals a full name, and a client finds the
// sockets of a module from its name alone. The full name of a shortened stem is asked of the
// process itself (kModuleQuery).
#ifndef SSAT_NAMES_H
#define SSAT_NAMES_H

#include <sys/types.h>

#include <cstddef>
#include <string>
#include <string_view>

namespace ssat_names
{

inline constexpr size_t kMaxModule = 127; // the library derives names of up to 127 characters
inline constexpr size_t kMaxPath = 107;   // a Unix socket address holds 108 bytes with its NUL
// Answered by every module with its full name and a newline; help does not list it.
inline constexpr std::string_view kModuleQuery = ".module";

// Letters, digits, '_', '-' and '.', not leading '.', at most kMaxModule characters.
bool valid_module(std::string_view module);

struct RunDir {
    std::string path;     // without trailing '/'
    bool must_be_private; // the default directory, rather than one the environment names
};
// $PMX_RUN_DIR, else $XDG_RUNTIME_DIR/pmx, else /tmp/pmx-<uid>.
RunDir run_dir();

// The stem of module's socket files in dir; false with *why (naming dir and PMX_RUN_DIR) when
// dir is too long for any socket name.
bool socket_stem(const std::string &dir, std::string_view module, std::string *stem,
                 std::string *why);
// True for a stem that is not the full module name.
bool shortened(std::string_view stem);
std::string socket_file(std::string_view stem, pid_t pid);
// Splits a file name "<stem>.<pid>.sock"; false when it is not one.
bool parse_socket_file(std::string_view file, std::string *stem, pid_t *pid);

// True when a process accepts connections on the socket at path (a full backlog counts).
bool socket_answers(const std::string &path);

} // namespace ssat_names

#endif // SSAT_NAMES_H

// Fuzzes the debug shell's wire format. Each input is read three ways:
//  - as a command line: line_problem must refuse exactly the lines the format refuses, and a
//    line it accepts must split into a name and argument text that put back together (with the
//    blanks between them) give the line again;
//  - as a server's reply stream, read through a socket by read_reply: the frames and the result
//    code (or the refusal) must be what an independent reading of the bytes gives, and sending
//    the frames again must give the same bytes and read back the same;
//  - as a socket file name: a name that parses must be the one socket_file makes of its parts;
//    and as a module name, whose socket file stem must fit and parse back.
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "ssat_names.h"
#include "ssat_wire.h"

namespace
{

using ssat_wire::Frame;

[[noreturn]] void broken(const char *what, std::string_view input)
{
    std::fprintf(stderr, "fuzz_ssat_wire: %s (input of %zu bytes)\n", what, input.size());
    std::abort();
}

bool blank(char c)
{
    return c == ' ' || c == '\t';
}

void check_command_line(std::string_view line)
{
    bool acceptable = line.size() <= ssat_wire::kMaxLine;
    for (char ch : line) {
        auto c = static_cast<unsigned char>(ch);
        if (c != '\t' && (c < 0x20 || c == 0x7f)) acceptable = false;
    }
    std::string problem = ssat_wire::line_problem(line);
    if (problem.empty() != acceptable) broken("line_problem disagrees with the line rules", line);
    if (!acceptable) return;

    ssat_wire::CommandLine cmd = ssat_wire::split_line(line);
    size_t begin = 0;
    while (begin < line.size() && blank(line[begin]))
        ++begin;
    size_t end = line.size();
    while (end > begin && blank(line[end - 1]))
        --end;
    std::string_view trimmed = line.substr(begin, end - begin);
    if (trimmed.empty()) {
        if (!cmd.name.empty() || !cmd.args.empty()) broken("a blank line has a command", line);
        return;
    }
    if (cmd.name.empty()) broken("a line with text has no command name", line);
    for (char c : cmd.name)
        if (blank(c)) broken("the command name has a blank", line);
    if (!cmd.args.empty() && (blank(cmd.args.front()) || blank(cmd.args.back())))
        broken("the argument text keeps blanks around it", line);
    if (!trimmed.starts_with(cmd.name)) broken("the name is not the line's first word", line);
    std::string_view rest = trimmed.substr(cmd.name.size());
    if (cmd.args.empty()) {
        if (!rest.empty()) broken("text after the name was lost", line);
        return;
    }
    if (!rest.ends_with(cmd.args)) broken("the argument text is not the end of the line", line);
    std::string_view between = rest.substr(0, rest.size() - cmd.args.size());
    if (between.empty()) broken("no blank between the name and the arguments", line);
    for (char c : between)
        if (!blank(c)) broken("text between the name and the arguments was lost", line);
}

struct Reply {
    std::vector<std::pair<Frame, std::string>> texts;
    int32_t code = 0;
    bool ok = false;
    size_t used = 0; // bytes of the stream up to the end frame
};

// The reply the format makes of bytes, read without the library.
Reply expected_reply(std::string_view bytes)
{
    Reply r;
    size_t at = 0;
    while (bytes.size() - at >= ssat_wire::kHeaderSize) {
        auto type = static_cast<unsigned char>(bytes[at]);
        uint32_t value = 0;
        for (size_t i = 1; i < ssat_wire::kHeaderSize; ++i)
            value = value << 8 | static_cast<unsigned char>(bytes[at + i]);
        at += ssat_wire::kHeaderSize;
        if (type == 'e') {
            r.code = static_cast<int32_t>(value);
            r.ok = true;
            r.used = at;
            return r;
        }
        if ((type != 'o' && type != 'm') || value > ssat_wire::kMaxFrame) return r;
        if (bytes.size() - at < value) return r;
        r.texts.emplace_back(static_cast<Frame>(type), std::string(bytes.substr(at, value)));
        at += value;
    }
    return r;
}

struct Pair {
    int fd[2] = {-1, -1};
    Pair()
    {
        if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fd) != 0) {
            std::perror("fuzz_ssat_wire: socketpair");
            std::abort();
        }
    }
    ~Pair()
    {
        for (int f : fd)
            if (f >= 0) close(f);
    }
    // No more bytes will come: the reader sees the end of the stream after what was sent.
    void end_writing()
    {
        close(fd[1]);
        fd[1] = -1;
    }
};

// What read_reply makes of the bytes sent on a fresh connection that then closes.
Reply read_back(std::string_view bytes, std::string *error)
{
    Pair p;
    if (!ssat_wire::send_all(p.fd[1], bytes.data(), bytes.size())) broken("send_all failed", bytes);
    p.end_writing();
    Reply r;
    r.ok = ssat_wire::read_reply(
        p.fd[0], [&](Frame type, std::string_view text) { r.texts.emplace_back(type, text); },
        &r.code, error);
    return r;
}

void check_reply(std::string_view bytes)
{
    Reply want = expected_reply(bytes);
    std::string error;
    Reply got = read_back(bytes, &error);
    if (got.ok != want.ok) broken("read_reply accepts what the format refuses, or the reverse", bytes);
    if (!got.ok) {
        if (error.empty()) broken("a refused reply has no error text", bytes);
        return;
    }
    if (got.texts != want.texts || got.code != want.code)
        broken("read_reply's frames differ from the stream's", bytes);

    // Sent again, the frames give the same stream (empty frames are never sent) and read back
    // the same.
    std::string expected_bytes;
    bool has_empty = false;
    for (const auto &[type, text] : want.texts)
        has_empty = has_empty || text.empty();
    Pair p;
    for (const auto &[type, text] : want.texts)
        if (!ssat_wire::send_text(p.fd[1], type, text.data(), text.size()))
            broken("send_text failed", bytes);
    if (!ssat_wire::send_end(p.fd[1], want.code)) broken("send_end failed", bytes);
    p.end_writing();
    std::string sent;
    char buf[4096];
    for (ssize_t n; (n = read(p.fd[0], buf, sizeof buf)) > 0;)
        sent.append(buf, static_cast<size_t>(n));
    if (!has_empty && sent != bytes.substr(0, want.used))
        broken("the frames sent again differ from the stream", bytes);
    Reply again = read_back(sent, &error);
    std::vector<std::pair<Frame, std::string>> non_empty;
    for (const auto &t : want.texts)
        if (!t.second.empty()) non_empty.push_back(t);
    if (!again.ok || again.texts != non_empty || again.code != want.code)
        broken("the frames sent again read back differently", bytes);
}

void check_socket_file(std::string_view file)
{
    std::string stem;
    pid_t pid = 0;
    if (!ssat_names::parse_socket_file(file, &stem, &pid)) return;
    if (pid <= 0) broken("a socket file parsed to a pid below 1", file);
    if (ssat_names::socket_file(stem, pid) != file)
        broken("a parsed socket file name is not the one its parts make", file);
}

// A module's socket file in a run directory: its full path fits a socket address for any pid,
// it names the module in full when that fits, else the longest prefix that does and a hash, and
// it parses back to its parts.
void check_module_stem(std::string_view module, const std::string &dir)
{
    if (!ssat_names::valid_module(module)) return;
    std::string stem, why;
    if (!ssat_names::socket_stem(dir, module, &stem, &why)) broken("no stem in a short run directory", module);
    const size_t longest = dir.size() + 1 + stem.size() + std::strlen(".2147483647.sock");
    if (longest > ssat_names::kMaxPath) broken("a socket path does not fit its address", module);
    if (stem == module) {
        if (ssat_names::shortened(stem)) broken("a full module name counts as shortened", module);
    } else {
        if (!ssat_names::shortened(stem)) broken("a shortened stem does not count as one", module);
        std::string_view prefix = std::string_view(stem).substr(0, stem.size() - 9);
        if (!module.starts_with(prefix) || prefix.size() >= module.size())
            broken("a shortened stem is not a prefix of the name", module);
        if (longest != ssat_names::kMaxPath) broken("a shortened stem is shorter than room allows", module);
    }
    std::string parsed;
    pid_t pid = 0;
    if (!ssat_names::parse_socket_file(ssat_names::socket_file(stem, 2147483647), &parsed, &pid) ||
        parsed != stem || pid != 2147483647)
        broken("a module's socket file does not parse back", module);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    std::string_view input(reinterpret_cast<const char *>(data), size);
    check_command_line(input);
    check_reply(input);
    check_socket_file(input);
    // A short run directory, and one that leaves room for 40 bytes of a name.
    static const std::string short_dir = "/run/pmx";
    static const std::string long_dir = "/run/" + std::string(ssat_names::kMaxPath - 5 - 1 - 16 - 40, 'd');
    check_module_stem(input, short_dir);
    check_module_stem(input, long_dir);
    return 0;
}

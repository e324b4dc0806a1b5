// Framing of the debug shell: line checks, frame writing and the client's reading side.
#include "ssat_wire.h"

#include <arpa/inet.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <system_error>
#include <vector>

namespace ssat_wire
{
namespace
{

std::string errno_text(int err)
{
    return std::generic_category().message(err);
}

void put_header(uint8_t *out, Frame type, uint32_t value)
{
    out[0] = static_cast<uint8_t>(type);
    uint32_t be = htonl(value);
    std::memcpy(out + 1, &be, sizeof be);
}

// Reads exactly size bytes; false with *error set on end of stream or failure.
bool recv_all(int fd, void *data, size_t size, std::string *error)
{
    auto *p = static_cast<char *>(data);
    while (size > 0) {
        ssize_t n = recv(fd, p, size, 0);
        if (n > 0) {
            p += n;
            size -= static_cast<size_t>(n);
        } else if (n == 0) {
            *error = "the shell closed the connection";
            return false;
        } else if (errno != EINTR) {
            *error = errno == EAGAIN || errno == EWOULDBLOCK
                         ? std::string(kNoAnswerInTime)
                         : "cannot read from the shell: " + errno_text(errno);
            return false;
        }
    }
    return true;
}

} // namespace

std::string line_problem(std::string_view line)
{
    if (line.size() > kMaxLine)
        return "the command line is " + std::to_string(line.size()) + " bytes long; at most " +
               std::to_string(kMaxLine) + " are accepted";
    for (size_t i = 0; i < line.size(); ++i) {
        auto c = static_cast<unsigned char>(line[i]);
        if (c == '\t' || (c >= 0x20 && c != 0x7f)) continue;
        char what[48];
        if (c == 0)
            std::snprintf(what, sizeof what, "a NUL byte");
        else
            std::snprintf(what, sizeof what, "the control character 0x%02x", c);
        return "the command line has " + std::string(what) + " at position " +
               std::to_string(i + 1) + ": only printable text and tabs are accepted";
    }
    return {};
}

CommandLine split_line(std::string_view line)
{
    constexpr std::string_view blanks = " \t";
    size_t begin = line.find_first_not_of(blanks);
    if (begin == std::string_view::npos) return {};
    size_t end = std::min(line.find_first_of(blanks, begin), line.size());
    size_t args_at = std::min(line.find_first_not_of(blanks, end), line.size());
    size_t args_end = std::max(line.find_last_not_of(blanks) + 1, args_at);
    return {std::string(line.substr(begin, end - begin)),
            std::string(line.substr(args_at, args_end - args_at))};
}

bool send_all(int fd, const void *data, size_t size)
{
    const auto *p = static_cast<const char *>(data);
    while (size > 0) {
        ssize_t n = send(fd, p, size, MSG_NOSIGNAL);
        if (n < 0) {
            if (errno == EINTR) continue;
            return false;
        }
        p += n;
        size -= static_cast<size_t>(n);
    }
    return true;
}

bool send_text(int fd, Frame type, const char *text, size_t size)
{
    while (size > 0) {
        size_t part = size < kMaxFrame ? size : kMaxFrame;
        uint8_t header[kHeaderSize];
        put_header(header, type, static_cast<uint32_t>(part));
        if (!send_all(fd, header, sizeof header) || !send_all(fd, text, part)) return false;
        text += part;
        size -= part;
    }
    return true;
}

bool send_end(int fd, int32_t code)
{
    uint8_t header[kHeaderSize];
    put_header(header, Frame::End, static_cast<uint32_t>(code));
    return send_all(fd, header, sizeof header);
}

int connect_socket(const std::string &path, std::string *error)
{
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    if (path.size() >= sizeof addr.sun_path) {
        *error = "socket path " + path + " is too long";
        return -1;
    }
    std::memcpy(addr.sun_path, path.c_str(), path.size() + 1);
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        *error = "cannot make a socket: " + errno_text(errno);
        return -1;
    }
    if (connect(fd, reinterpret_cast<const sockaddr *>(&addr), sizeof addr) != 0) {
        *error = "cannot connect to " + path + ": " + errno_text(errno);
        close(fd);
        return -1;
    }
    return fd;
}

bool read_reply(int fd, const TextSink &on_text, int32_t *code, std::string *error)
{
    std::vector<char> text;
    for (;;) {
        uint8_t header[kHeaderSize];
        if (!recv_all(fd, header, sizeof header, error)) return false;
        uint32_t be;
        std::memcpy(&be, header + 1, sizeof be);
        uint32_t value = ntohl(be);
        auto type = static_cast<Frame>(header[0]);
        if (type == Frame::End) {
            *code = static_cast<int32_t>(value);
            return true;
        }
        if ((type != Frame::Output && type != Frame::Message) || value > kMaxFrame) {
            char what[64];
            std::snprintf(what, sizeof what, "bad frame from the shell (type 0x%02x, length %u)",
                          header[0], value);
            *error = what;
            return false;
        }
        text.resize(value);
        if (!recv_all(fd, text.data(), value, error)) return false;
        on_text(type, std::string_view(text.data(), value));
    }
}

bool run_line(int fd, std::string_view line, const TextSink &on_text, int32_t *code,
              std::string *error)
{
    std::string framed(line);
    framed += '\n';
    if (!send_all(fd, framed.data(), framed.size())) {
        *error = "cannot send to the shell: " + errno_text(errno);
        return false;
    }
    return read_reply(fd, on_text, code, error);
}

} // namespace ssat_wire

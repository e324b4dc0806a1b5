// Wire format of the debug shell, shared by the server and `pmx shell`.
//
// Client to server: one command line at a time, terminated by '\n'. The line (without the
// '\n') holds at most kMaxLine bytes of printable text; tab is the only control character
// allowed. The first word names the command; the rest of the line, without the blanks around
// it, is its argument text.
//
// Server to client: for each line, zero or more text frames and then one end frame.
// Every frame starts with a 5-byte header: 1 type byte, then a 32-bit value in network order.
//   'o' output:  value = length; that many bytes of command output follow.
//   'm' message: value = length; that many bytes of text from the shell itself follow
//                (unknown command, rejected line): a client shows them as errors.
//   'e' end:     value = the command's result code (int32, two's complement); nothing follows.
// After answering a line that is too long the server closes the connection.
#ifndef SSAT_WIRE_H
#define SSAT_WIRE_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

namespace ssat_wire
{

inline constexpr size_t kMaxLine = 4096;
inline constexpr size_t kHeaderSize = 5;
// A client refuses a text frame longer than this: the stream is not a shell.
inline constexpr uint32_t kMaxFrame = 1U << 24;

enum class Frame : uint8_t { Output = 'o', Message = 'm', End = 'e' };

// Why line cannot be sent as a command line; empty when it can.
std::string line_problem(std::string_view line);

// A command line split into the command name (its first word) and the argument text (the rest,
// without the blanks around it); both are empty for a blank line. Blanks are spaces and tabs.
struct CommandLine {
    std::string name;
    std::string args;
};
CommandLine split_line(std::string_view line);

// Writes all of data; false on any failure (never raises SIGPIPE).
bool send_all(int fd, const void *data, size_t size);
// Sends one text frame (Output or Message).
bool send_text(int fd, Frame type, const char *text, size_t size);
bool send_end(int fd, int32_t code);

// Client side. Connects to the socket at path (close-on-exec); -1 with *error set on failure.
int connect_socket(const std::string &path, std::string *error);
using TextSink = std::function<void(Frame, std::string_view)>;
// The error of a read that met the socket's receive timeout.
inline constexpr std::string_view kNoAnswerInTime = "no answer from the shell in time";
// Reads one answer: on_text sees every text frame as it arrives, *code gets the result code.
// False with *error set when the connection fails or the stream is malformed.
bool read_reply(int fd, const TextSink &on_text, int32_t *code, std::string *error);
// Sends line (which must have no line_problem) with its '\n' and reads the answer.
bool run_line(int fd, std::string_view line, const TextSink &on_text, int32_t *code,
              std::string *error);

} // namespace ssat_wire

#endif // SSAT_WIRE_H

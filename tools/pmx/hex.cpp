#include "hex.h"

#include <cctype>
#include <cstdio>

namespace pmx_tool
{
namespace
{

int hex_value(char c)
{
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

bool is_space(char c)
{
    return std::isspace(static_cast<unsigned char>(c)) != 0;
}

// "position 7", or "line 2, column 5" once the text has more than one line.
std::string where(std::string_view text, size_t at)
{
    size_t line = 1;
    size_t line_start = 0;
    for (size_t i = 0; i < at; ++i) {
        if (text[i] == '\n') {
            ++line;
            line_start = i + 1;
        }
    }
    size_t last = text.find_last_not_of(" \t\r\n");
    bool multiline =
        last != std::string_view::npos && text.substr(0, last).find('\n') != std::string_view::npos;
    if (!multiline) return "position " + std::to_string(at + 1);
    return "line " + std::to_string(line) + ", column " + std::to_string(at - line_start + 1);
}

std::string shown(char c)
{
    auto u = static_cast<unsigned char>(c);
    if (std::isprint(u)) return std::string("'") + c + "'";
    char buf[8];
    std::snprintf(buf, sizeof buf, "\\x%02X", u);
    return buf;
}

} // namespace

HexResult parse_hex(std::string_view text)
{
    HexResult result;
    size_t i = 0;
    while (i < text.size() && is_space(text[i]))
        ++i;
    if (text.size() - i >= 2 && text[i] == '0' && (text[i + 1] == 'x' || text[i + 1] == 'X'))
        i += 2;

    int high = -1;
    size_t high_at = 0;
    for (; i < text.size(); ++i) {
        char c = text[i];
        if (is_space(c)) continue;
        int v = hex_value(c);
        if (v < 0) {
            result.error = "non-hex character " + shown(c) + " at " + where(text, i);
            result.bytes.clear();
            return result;
        }
        if (high < 0) {
            high = v;
            high_at = i;
        } else {
            result.bytes.push_back(static_cast<std::uint8_t>(high << 4 | v));
            high = -1;
        }
    }
    if (high >= 0) {
        result.error =
            "odd number of hex digits: the digit at " + where(text, high_at) + " has no pair";
        result.bytes.clear();
    }
    return result;
}

std::string hex32(std::uint32_t v)
{
    char b[16];
    std::snprintf(b, sizeof b, "0x%08x", static_cast<unsigned>(v));
    return b;
}

} // namespace pmx_tool

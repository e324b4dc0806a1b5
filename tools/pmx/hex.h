// Hex text to bytes, for records given on the command line; ids as hex text.
#ifndef PMX_TOOL_HEX_H
#define PMX_TOOL_HEX_H

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace pmx_tool
{

struct HexResult {
    std::vector<std::uint8_t> bytes;
    std::string error; // empty on success; otherwise says what is wrong and where

    bool ok() const { return error.empty(); }
};

// Whitespace may appear anywhere, and the text may start with 0x or 0X (after leading
// whitespace). Positions in errors count characters of the text from 1.
HexResult parse_hex(std::string_view text);

// A 32-bit id as the tables print it: 0x and eight hex digits.
std::string hex32(std::uint32_t v);

} // namespace pmx_tool

#endif // PMX_TOOL_HEX_H

// The tool's error line on standard error: "pmx: " and what went wrong.
#ifndef PMX_TOOL_TOOL_ERRORS_H
#define PMX_TOOL_TOOL_ERRORS_H

#include <cstdio>
#include <string>

namespace pmx_tool
{

inline void fail(const std::string &text)
{
    std::fprintf(stderr, "pmx: %s\n", text.c_str());
}

} // namespace pmx_tool

#endif // PMX_TOOL_TOOL_ERRORS_H

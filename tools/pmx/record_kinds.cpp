#include "record_kinds.h"

#include <algorithm>
#include <cstring>

#include "libpmx_protoc_fmt.h"

namespace pmx_tool
{
namespace
{

std::string_view short_name(std::string_view full_name)
{
    size_t dot = full_name.rfind('.');
    return dot == std::string_view::npos ? full_name : full_name.substr(dot + 1);
}

} // namespace

const ProtobufCMessageDescriptor *find_kind(std::string_view full_name)
{
    std::string name(full_name);
    return libpmx_protoc_find_message(name.c_str());
}

std::vector<const ProtobufCMessageDescriptor *> all_kinds()
{
    std::vector<const ProtobufCMessageDescriptor *> kinds;
    size_t n = libpmx_protoc_message_count();
    kinds.reserve(n);
    for (size_t i = 0; i < n; ++i) {
        if (const auto *d = libpmx_protoc_message_at(i)) kinds.push_back(d);
    }
    std::sort(kinds.begin(), kinds.end(),
              [](const auto *a, const auto *b) { return std::strcmp(a->name, b->name) < 0; });
    return kinds;
}

std::string unknown_kind_error(std::string_view full_name)
{
    std::string text = "unknown record kind '" + std::string(full_name) + "'";
    std::vector<std::string> similar;
    for (const auto *d : all_kinds()) {
        if (short_name(d->name) == short_name(full_name)) similar.emplace_back(d->name);
    }
    if (!similar.empty()) {
        text += "; did you mean";
        for (size_t i = 0; i < similar.size(); ++i)
            text += (i == 0 ? " '" : " or '") + similar[i] + "'";
        text += "?";
    } else {
        text += " (pmx decode --list shows every kind)";
    }
    return text;
}

} // namespace pmx_tool

// The record kinds that libpmx knows, looked up by their full protobuf name.
#ifndef PMX_TOOL_RECORD_KINDS_H
#define PMX_TOOL_RECORD_KINDS_H

#include <protobuf-c/protobuf-c.h>

#include <string>
#include <string_view>
#include <vector>

namespace pmx_tool
{

// Null when the library has no such record kind.
const ProtobufCMessageDescriptor *find_kind(std::string_view full_name);

// Every record kind, sorted by full name.
std::vector<const ProtobufCMessageDescriptor *> all_kinds();

// The error text for a kind that is not known, with the kinds of the same message name in
// other packages as suggestions ("pmx_ifx_tbl" suggests "u_intf.pmx_ifx_tbl").
std::string unknown_kind_error(std::string_view full_name);

// A decoded record as its kind's struct; the caller has checked the descriptor.
template <typename T> const T *as(const ProtobufCMessage *m)
{
    return static_cast<const T *>(static_cast<const void *>(m));
}
template <typename T> T *as(ProtobufCMessage *m)
{
    return static_cast<T *>(static_cast<void *>(m));
}

} // namespace pmx_tool

#endif // PMX_TOOL_RECORD_KINDS_H

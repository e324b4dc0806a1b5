// Record formatter: walks a protobuf-c message through its descriptor and prints it through a
// table of element operations into a printf-style sink (standard output or a caller's buffer).
#define LIBPMX_LOG_SOURCE "app/libpmx/libpmx_protoc_fmt"
#include "libpmx_log.h"

#include "libpmx_errno.h"
#include "libpmx_protoc_fmt.h"
#include "ssat.h"

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>

// The record kinds of the schema, generated at build time.
extern "C" const ProtobufCMessageDescriptor *const pmx_proto_messages[];
extern "C" const size_t pmx_proto_message_count;

namespace
{

constexpr int kIndentWidth = 4;

// Generated enums are forced to int size; repeated enum elements are read as int32_t.
static_assert(sizeof(ProtobufCType) == sizeof(int32_t));

// Field storage inside a message or an array may be reached through any byte offset; reading it
// by copy keeps the walk free of alignment assumptions on strict-alignment targets.
template <class T> T load(const void *p)
{
    T v;
    std::memcpy(&v, p, sizeof v);
    return v;
}

const void *member(const ProtobufCMessage *msg, unsigned offset)
{
    return reinterpret_cast<const char *>(msg) + offset;
}

// Size of one element of a repeated field of this type in the generated C struct; 0 if unknown.
size_t element_size(ProtobufCType type)
{
    switch (type) {
    case PROTOBUF_C_TYPE_INT32:
    case PROTOBUF_C_TYPE_SINT32:
    case PROTOBUF_C_TYPE_SFIXED32:
        return sizeof(int32_t);
    case PROTOBUF_C_TYPE_UINT32:
    case PROTOBUF_C_TYPE_FIXED32:
        return sizeof(uint32_t);
    case PROTOBUF_C_TYPE_INT64:
    case PROTOBUF_C_TYPE_SINT64:
    case PROTOBUF_C_TYPE_SFIXED64:
        return sizeof(int64_t);
    case PROTOBUF_C_TYPE_UINT64:
    case PROTOBUF_C_TYPE_FIXED64:
        return sizeof(uint64_t);
    case PROTOBUF_C_TYPE_FLOAT:
        return sizeof(float);
    case PROTOBUF_C_TYPE_DOUBLE:
        return sizeof(double);
    case PROTOBUF_C_TYPE_BOOL:
        return sizeof(protobuf_c_boolean);
    case PROTOBUF_C_TYPE_ENUM:
        return sizeof(int32_t);
    case PROTOBUF_C_TYPE_STRING:
        return sizeof(char *);
    case PROTOBUF_C_TYPE_BYTES:
        return sizeof(ProtobufCBinaryData);
    case PROTOBUF_C_TYPE_MESSAGE:
        return sizeof(ProtobufCMessage *);
    }
    return 0;
}

bool usable(const libpmx_fmter_t *fmter)
{
    return fmter != nullptr && fmter->output != nullptr && fmter->ops != nullptr;
}

int indent_width(const libpmx_fmter_t *fmter)
{
    return std::max(0, (fmter->msg_depth + fmter->array_depth) * kIndentWidth);
}

// The element operations check their formatter through this (they are exported one by one).
#define FMTER_OR_RETURN(fmter)                                                                     \
    do {                                                                                           \
        if ((fmter) == nullptr || (fmter)->output == nullptr) {                                    \
            PMX_ERROR("null param");                                                               \
            return LIBPMX_E_INVAL;                                                                 \
        }                                                                                          \
    } while (0)

constexpr libpmx_fmt_ops_t kIndentedOps = {
    .field_name = libpmx_fmt_field_name,
    .message_begin = libpmx_fmt_message_begin,
    .message_end = libpmx_fmt_message_end,
    .array_begin = libpmx_fmt_array_begin,
    .array_end = libpmx_fmt_array_end,
    .comma = libpmx_fmt_comma,
    .value_int32 = libpmx_fmt_field_value_int32,
    .value_uint32 = libpmx_fmt_field_value_uint32,
    .value_int64 = libpmx_fmt_field_value_int64,
    .value_uint64 = libpmx_fmt_field_value_uint64,
    .value_float = libpmx_fmt_field_value_float,
    .value_double = libpmx_fmt_field_value_double,
    .value_bool = libpmx_fmt_field_value_bool,
    .value_string = libpmx_fmt_field_value_string,
    .value_enum = libpmx_fmt_field_value_enum,
    .value_bytes = libpmx_fmt_field_value_bytes,
};

// The compact form changes only the layout operations; values print the same in both forms.
constexpr libpmx_fmt_ops_t compact_layout(libpmx_fmt_ops_t ops)
{
    ops.field_name = libpmx_fmt_field_name_compact;
    ops.message_begin = libpmx_fmt_message_begin_compact;
    ops.message_end = libpmx_fmt_message_end_compact;
    ops.array_begin = libpmx_fmt_array_begin_compact;
    ops.array_end = libpmx_fmt_array_end_compact;
    ops.comma = libpmx_fmt_comma_compact;
    return ops;
}
constexpr libpmx_fmt_ops_t kCompactOps = compact_layout(kIndentedOps);

void set_current_field(libpmx_fmter_t *fmter, const ProtobufCFieldDescriptor *field)
{
    fmter->field = field;
    fmter->hex = std::strstr(field->name, "phyid") != nullptr ? 1 : 0;
}

// A nested message value. The key message of a field named "index" is printed on one line
// even in the indented form; the current field is restored for the caller's next element.
int format_nested(libpmx_fmter_t *fmter, const ProtobufCFieldDescriptor *field,
                  const ProtobufCMessage *sub)
{
    const libpmx_fmt_ops_t *saved_ops = fmter->ops;
    if (fmter->ops == &kIndentedOps && std::strcmp(field->name, "index") == 0)
        fmter->ops = &kCompactOps;
    const int rc = libpmx_protoc_format_message(fmter, sub);
    fmter->ops = saved_ops;
    set_current_field(fmter, field);
    return rc;
}

// One value of field, stored at p (a message member or an array element).
int format_value(libpmx_fmter_t *fmter, const ProtobufCFieldDescriptor *field, const void *p)
{
    const libpmx_fmt_ops_t *ops = fmter->ops;
    switch (field->type) {
    case PROTOBUF_C_TYPE_INT32:
    case PROTOBUF_C_TYPE_SINT32:
    case PROTOBUF_C_TYPE_SFIXED32:
        return ops->value_int32(fmter, load<int32_t>(p));
    case PROTOBUF_C_TYPE_UINT32:
    case PROTOBUF_C_TYPE_FIXED32:
        return ops->value_uint32(fmter, load<uint32_t>(p));
    case PROTOBUF_C_TYPE_INT64:
    case PROTOBUF_C_TYPE_SINT64:
    case PROTOBUF_C_TYPE_SFIXED64:
        return ops->value_int64(fmter, load<int64_t>(p));
    case PROTOBUF_C_TYPE_UINT64:
    case PROTOBUF_C_TYPE_FIXED64:
        return ops->value_uint64(fmter, load<uint64_t>(p));
    case PROTOBUF_C_TYPE_FLOAT:
        return ops->value_float(fmter, load<float>(p));
    case PROTOBUF_C_TYPE_DOUBLE:
        return ops->value_double(fmter, load<double>(p));
    case PROTOBUF_C_TYPE_BOOL:
        return ops->value_bool(fmter, load<protobuf_c_boolean>(p));
    case PROTOBUF_C_TYPE_ENUM:
        return ops->value_enum(fmter,
                               static_cast<const ProtobufCEnumDescriptor *>(field->descriptor),
                               load<int32_t>(p));
    case PROTOBUF_C_TYPE_STRING:
        return ops->value_string(fmter, load<const char *>(p));
    case PROTOBUF_C_TYPE_BYTES: {
        const auto bytes = load<ProtobufCBinaryData>(p);
        return ops->value_bytes(fmter, &bytes);
    }
    case PROTOBUF_C_TYPE_MESSAGE:
        return format_nested(fmter, field, load<const ProtobufCMessage *>(p));
    }
    PMX_LOG_AS("libpmx_protoc_format_message", LIBPMX_ZLOG_ERROR, "%s unknowned proto type %d",
               field->name, static_cast<int>(field->type));
    return LIBPMX_E_INVAL;
}

enum class Presence { skip, value, array };

// Whether and how a field of msg prints, by its oneof membership and label.
Presence presence_of(const ProtobufCMessage *msg, const ProtobufCFieldDescriptor *field)
{
    const bool oneof = (field->flags & PROTOBUF_C_FIELD_FLAG_ONEOF) != 0;
    if (oneof && load<uint32_t>(member(msg, field->quantifier_offset)) != field->id)
        return Presence::skip;
    switch (field->label) {
    case PROTOBUF_C_LABEL_REQUIRED:
    case PROTOBUF_C_LABEL_NONE:
        return Presence::value;
    case PROTOBUF_C_LABEL_OPTIONAL:
        // The case member of a oneof stands in for the presence flag.
        if (oneof) return Presence::value;
        if (field->type == PROTOBUF_C_TYPE_STRING || field->type == PROTOBUF_C_TYPE_MESSAGE)
            return load<const void *>(member(msg, field->offset)) != nullptr ? Presence::value
                                                                             : Presence::skip;
        return load<protobuf_c_boolean>(member(msg, field->quantifier_offset)) ? Presence::value
                                                                               : Presence::skip;
    case PROTOBUF_C_LABEL_REPEATED:
        return Presence::array;
    }
    PMX_LOG_AS("libpmx_protoc_format_message", LIBPMX_ZLOG_ERROR, "%s unknowned proto label %d",
               field->name, static_cast<int>(field->label));
    return Presence::skip;
}

int format_field(libpmx_fmter_t *fmter, const ProtobufCMessage *msg,
                 const ProtobufCFieldDescriptor *field, Presence how, bool first)
{
    const libpmx_fmt_ops_t *ops = fmter->ops;
    set_current_field(fmter, field);
    int rc = first ? LIBPMX_OK : ops->comma(fmter);
    if (rc == LIBPMX_OK) rc = ops->field_name(fmter, field->name);
    if (rc != LIBPMX_OK) return rc;
    if (how == Presence::value) return format_value(fmter, field, member(msg, field->offset));
    return libpmx_protoc_format_array(fmter, load<const void *>(member(msg, field->offset)),
                                      element_size(field->type),
                                      load<size_t>(member(msg, field->quantifier_offset)));
}

} // namespace

// ---- sinks ----

extern "C" int libpmx_printf(libpmx_fmter_t *fmter, const char *fmt, ...)
{
    (void)fmter;
    va_list ap;
    va_start(ap, fmt);
    const int res = ssat_vprintf(fmt, ap); // the debug shell's client inside a command
    va_end(ap);
    if (res < 0) {
        PMX_ERROR("printf error %d, res %d", errno, res);
        return LIBPMX_E_FAIL;
    }
    return LIBPMX_OK;
}

extern "C" int libpmx_snprintf(libpmx_fmter_t *fmter, const char *fmt, ...)
{
    libpmx_fmt_buf_t *st = fmter != nullptr ? fmter->buf : nullptr;
    if (st == nullptr || st->pos == nullptr || st->len < 2) {
        PMX_ERROR("invalid buffer, or not enough buffer");
        if (st == nullptr || st->pos == nullptr) return LIBPMX_E_INVAL;
        if (st->len == 1) *st->pos = '\0';
        return LIBPMX_E_BUF_FULL;
    }
    va_list ap;
    va_start(ap, fmt);
    const int res = std::vsnprintf(st->pos, st->len, fmt, ap);
    va_end(ap);
    if (res < 0) {
        PMX_ERROR("snprintf error %d, res %d", errno, res);
        *st->pos = '\0';
        return LIBPMX_E_FAIL;
    }
    const size_t n = std::min(static_cast<size_t>(res), st->len - 1);
    st->pos += n;
    st->len -= n;
    st->written += n;
    if (st->len < 2) {
        PMX_ERROR("buffer is full.");
        return LIBPMX_E_BUF_FULL;
    }
    return LIBPMX_OK;
}

// ---- set-up ----

static void fmter_reset(libpmx_fmter_t *fmter, libpmx_fmt_output_fn output, int32_t flags)
{
    fmter->output = output;
    fmter->ops = (flags & LIBPMX_FMT_COMPACT) != 0 ? &kCompactOps : &kIndentedOps;
    fmter->msg_depth = 0;
    fmter->array_depth = 0;
    fmter->field = nullptr;
    fmter->hex = 0;
    fmter->buf = nullptr;
    fmter->flags = flags;
}

extern "C" int libpmx_fmter_init_with_printf(libpmx_fmter_t *fmter, int32_t flags)
{
    if (fmter == nullptr) {
        PMX_ERROR("null param");
        return LIBPMX_E_INVAL;
    }
    fmter_reset(fmter, libpmx_printf, flags);
    return LIBPMX_OK;
}

extern "C" int libpmx_fmter_init_with_buffer(libpmx_fmter_t *fmter, libpmx_fmt_buf_t *state,
                                             int32_t flags)
{
    if (fmter == nullptr || state == nullptr) {
        PMX_ERROR("null param");
        return LIBPMX_E_INVAL;
    }
    if (state->pos == nullptr || state->len == 0) {
        PMX_ERROR("invalid buff");
        return LIBPMX_E_INVAL;
    }
    fmter_reset(fmter, libpmx_snprintf, flags);
    fmter->buf = state;
    *state->pos = '\0';
    return LIBPMX_OK;
}

// ---- walk ----

extern "C" int libpmx_protoc_format_message(libpmx_fmter_t *fmter, const ProtobufCMessage *msg)
{
    if (!usable(fmter)) {
        PMX_ERROR("null param");
        return LIBPMX_E_INVAL;
    }
    if (msg == nullptr) return fmter->output(fmter, "<null>");
    const ProtobufCMessageDescriptor *desc = msg->descriptor;
    if (desc == nullptr) {
        PMX_ERROR("null descriptor");
        return LIBPMX_E_INVAL;
    }
    int rc = fmter->ops->message_begin(fmter, desc->c_name);
    bool first = true;
    for (unsigned i = 0; rc == LIBPMX_OK && i < desc->n_fields; ++i) {
        const ProtobufCFieldDescriptor *field = &desc->fields[i];
        const Presence how = presence_of(msg, field);
        if (how == Presence::skip) continue;
        if (element_size(field->type) == 0) {
            // Left out before its comma, so the text stays well formed.
            if (how == Presence::array)
                PMX_ERROR("unknowned proto type %d", static_cast<int>(field->type));
            else
                PMX_ERROR("%s unknowned proto type %d", field->name, static_cast<int>(field->type));
            continue;
        }
        rc = format_field(fmter, msg, field, how, first);
        first = false;
    }
    if (rc == LIBPMX_OK) rc = fmter->ops->message_end(fmter);
    return rc;
}

extern "C" int libpmx_protoc_format_array(libpmx_fmter_t *fmter, const void *elements, size_t width,
                                          size_t count)
{
    if (!usable(fmter) || fmter->field == nullptr || (elements == nullptr && count != 0)) {
        PMX_ERROR("null param");
        return LIBPMX_E_INVAL;
    }
    const ProtobufCFieldDescriptor *field = fmter->field;
    const size_t expected = element_size(field->type);
    if (expected == 0) {
        PMX_ERROR("unknowned proto type %d", static_cast<int>(field->type));
        return LIBPMX_E_INVAL;
    }
    if (width != expected) {
        PMX_ERROR("%s: element width %zu, expected %zu", field->name, width, expected);
        return LIBPMX_E_INVAL;
    }
    const auto *base = static_cast<const char *>(elements);
    int rc = fmter->ops->array_begin(fmter);
    for (size_t i = 0; rc == LIBPMX_OK && i < count; ++i) {
        if (i != 0) rc = fmter->ops->comma(fmter);
        if (rc == LIBPMX_OK) rc = format_value(fmter, field, base + i * width);
    }
    if (rc == LIBPMX_OK) rc = fmter->ops->array_end(fmter);
    return rc;
}

// ---- one-call forms ----

extern "C" int libpmx_protoc_format_message_to_console(int32_t flags, const ProtobufCMessage *msg)
{
    if (msg == nullptr) {
        PMX_ERROR("null msg");
        return LIBPMX_E_INVAL;
    }
    libpmx_fmter_t fmter;
    int rc = libpmx_fmter_init_with_printf(&fmter, flags);
    if (rc != LIBPMX_OK) {
        PMX_ERROR("fmter init failed: %d", rc);
        return rc;
    }
    rc = libpmx_protoc_format_message(&fmter, msg);
    if (rc != LIBPMX_OK) {
        PMX_ERROR("format message failed: %d", rc);
        return rc;
    }
    return fmter.output(&fmter, "\n");
}

extern "C" int libpmx_protoc_format_message_to_buffer(char *buf, size_t len, int32_t flags,
                                                      const ProtobufCMessage *msg)
{
    if (buf == nullptr || len == 0) {
        PMX_ERROR("invalid buffer %p len %zu.", static_cast<void *>(buf), len);
        return LIBPMX_E_INVAL;
    }
    buf[0] = '\0';
    if (msg == nullptr) {
        PMX_ERROR("null msg");
        return LIBPMX_E_INVAL;
    }
    libpmx_fmt_buf_t state = {buf, len, 0};
    libpmx_fmter_t fmter;
    int rc = libpmx_fmter_init_with_buffer(&fmter, &state, flags);
    if (rc != LIBPMX_OK) {
        PMX_ERROR("fmter init failed: %d", rc);
        return rc;
    }
    rc = libpmx_protoc_format_message(&fmter, msg);
    if (rc != LIBPMX_OK) {
        PMX_ERROR("format message failed: %d", rc);
        return rc;
    }
    return LIBPMX_OK;
}

// ---- element operations ----

extern "C" int libpmx_fmt_field_name(libpmx_fmter_t *fmter, const char *name)
{
    FMTER_OR_RETURN(fmter);
    return fmter->output(fmter, "%-10s : ", name != nullptr ? name : "<null>");
}

extern "C" int libpmx_fmt_field_name_compact(libpmx_fmter_t *fmter, const char *name)
{
    FMTER_OR_RETURN(fmter);
    return fmter->output(fmter, "%s:", name != nullptr ? name : "<null>");
}

extern "C" int libpmx_fmt_field_value_int32(libpmx_fmter_t *fmter, int32_t value)
{
    FMTER_OR_RETURN(fmter);
    if (fmter->hex) return fmter->output(fmter, "0x%08x", static_cast<unsigned>(value));
    return fmter->output(fmter, "%d", static_cast<int>(value));
}

extern "C" int libpmx_fmt_field_value_uint32(libpmx_fmter_t *fmter, uint32_t value)
{
    FMTER_OR_RETURN(fmter);
    if (fmter->hex) return fmter->output(fmter, "0x%08x", static_cast<unsigned>(value));
    return fmter->output(fmter, "%u", static_cast<unsigned>(value));
}

extern "C" int libpmx_fmt_field_value_int64(libpmx_fmter_t *fmter, int64_t value)
{
    FMTER_OR_RETURN(fmter);
    return fmter->output(fmter, "%lld", static_cast<long long>(value));
}

extern "C" int libpmx_fmt_field_value_uint64(libpmx_fmter_t *fmter, uint64_t value)
{
    FMTER_OR_RETURN(fmter);
    return fmter->output(fmter, "%llu", static_cast<unsigned long long>(value));
}

extern "C" int libpmx_fmt_field_value_float(libpmx_fmter_t *fmter, float value)
{
    FMTER_OR_RETURN(fmter);
    return fmter->output(fmter, "%g", static_cast<double>(value));
}

extern "C" int libpmx_fmt_field_value_double(libpmx_fmter_t *fmter, double value)
{
    FMTER_OR_RETURN(fmter);
    return fmter->output(fmter, "%g", value);
}

extern "C" int libpmx_fmt_field_value_bool(libpmx_fmter_t *fmter, protobuf_c_boolean value)
{
    FMTER_OR_RETURN(fmter);
    return fmter->output(fmter, "%s", value ? "true" : "false");
}

extern "C" int libpmx_fmt_field_value_string(libpmx_fmter_t *fmter, const char *value)
{
    FMTER_OR_RETURN(fmter);
    if (value == nullptr) return fmter->output(fmter, "<null>");
    return fmter->output(fmter, "\"%s\"", value);
}

extern "C" int libpmx_fmt_field_value_enum(libpmx_fmter_t *fmter,
                                           const ProtobufCEnumDescriptor *desc, int32_t value)
{
    FMTER_OR_RETURN(fmter);
    const int v = static_cast<int>(value);
    const ProtobufCEnumValue *ev =
        desc != nullptr ? protobuf_c_enum_descriptor_get_value(desc, v) : nullptr;
    if (ev != nullptr) return fmter->output(fmter, "%d-%s", v, ev->name);
    PMX_ERROR("%s: %d is out of range.", desc != nullptr ? desc->c_name : "<null>", v);
    return fmter->output(fmter, "%d-%s", v, desc != nullptr ? desc->name : "<null>");
}

extern "C" int libpmx_fmt_field_value_bytes(libpmx_fmter_t *fmter, const ProtobufCBinaryData *value)
{
    FMTER_OR_RETURN(fmter);
    if (value == nullptr) return fmter->output(fmter, "<null>");
    int rc = fmter->output(fmter, "%zu-bytes", value->len);
    if (rc != LIBPMX_OK) {
        PMX_ERROR("empty bytes.");
        return rc;
    }
    if (value->len == 0 || value->data == nullptr) return LIBPMX_OK;
    rc = fmter->output(fmter, "-");
    // Same text as one "%02X" per byte, written a chunk at a time.
    static constexpr char kHex[] = "0123456789ABCDEF";
    constexpr size_t kChunk = 64;
    char text[2 * kChunk + 1];
    for (size_t done = 0; rc == LIBPMX_OK && done < value->len;) {
        const size_t n = std::min(kChunk, value->len - done);
        for (size_t i = 0; i < n; ++i) {
            const uint8_t b = value->data[done + i];
            text[2 * i] = kHex[b >> 4];
            text[2 * i + 1] = kHex[b & 0x0f];
        }
        text[2 * n] = '\0';
        rc = fmter->output(fmter, "%s", text);
        done += n;
    }
    return rc;
}

extern "C" int libpmx_fmt_message_begin(libpmx_fmter_t *fmter, const char *name)
{
    FMTER_OR_RETURN(fmter);
    fmter->msg_depth++;
    return fmter->output(fmter, "%s-{\n%*s", name != nullptr ? name : "<null>", indent_width(fmter),
                         "");
}

extern "C" int libpmx_fmt_message_end(libpmx_fmter_t *fmter)
{
    FMTER_OR_RETURN(fmter);
    fmter->msg_depth--;
    return fmter->output(fmter, "\n%*s}", indent_width(fmter), "");
}

extern "C" int libpmx_fmt_message_begin_compact(libpmx_fmter_t *fmter, const char *name)
{
    FMTER_OR_RETURN(fmter);
    return fmter->output(fmter, "%s-{", name != nullptr ? name : "<null>");
}

extern "C" int libpmx_fmt_message_end_compact(libpmx_fmter_t *fmter)
{
    FMTER_OR_RETURN(fmter);
    return fmter->output(fmter, "}");
}

extern "C" int libpmx_fmt_array_begin(libpmx_fmter_t *fmter)
{
    FMTER_OR_RETURN(fmter);
    fmter->array_depth++;
    return fmter->output(fmter, "[\n%*s", indent_width(fmter), "");
}

extern "C" int libpmx_fmt_array_end(libpmx_fmter_t *fmter)
{
    FMTER_OR_RETURN(fmter);
    fmter->array_depth--;
    return fmter->output(fmter, "\n%*s]", indent_width(fmter), "");
}

extern "C" int libpmx_fmt_array_begin_compact(libpmx_fmter_t *fmter)
{
    FMTER_OR_RETURN(fmter);
    return fmter->output(fmter, "[");
}

extern "C" int libpmx_fmt_array_end_compact(libpmx_fmter_t *fmter)
{
    FMTER_OR_RETURN(fmter);
    return fmter->output(fmter, "]");
}

extern "C" int libpmx_fmt_comma(libpmx_fmter_t *fmter)
{
    FMTER_OR_RETURN(fmter);
    return fmter->output(fmter, ",\n%*s", indent_width(fmter), "");
}

extern "C" int libpmx_fmt_comma_compact(libpmx_fmter_t *fmter)
{
    FMTER_OR_RETURN(fmter);
    return fmter->output(fmter, ",");
}

extern "C" int libpmx_fmt_indents(libpmx_fmter_t *fmter)
{
    FMTER_OR_RETURN(fmter);
    return fmter->output(fmter, "%*s", indent_width(fmter), "");
}

// ---- record kinds ----

extern "C" const ProtobufCMessageDescriptor *libpmx_protoc_find_message(const char *full_name)
{
    if (full_name == nullptr) return nullptr;
    // A few hundred kinds, looked up by the tool and the debug commands: a scan is enough.
    for (size_t i = 0; i < pmx_proto_message_count; ++i) {
        const ProtobufCMessageDescriptor *desc = pmx_proto_messages[i];
        if (desc != nullptr && desc->name != nullptr && std::strcmp(desc->name, full_name) == 0)
            return desc;
    }
    return nullptr;
}

extern "C" size_t libpmx_protoc_message_count(void)
{
    return pmx_proto_message_count;
}

extern "C" const ProtobufCMessageDescriptor *libpmx_protoc_message_at(size_t i)
{
    return i < pmx_proto_message_count ? pmx_proto_messages[i] : nullptr;
}

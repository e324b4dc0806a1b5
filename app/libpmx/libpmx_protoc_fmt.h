/* Record formatter: prints any protobuf-c message, through its descriptor, as indented text
 * (one field a line) or compact text (one line), to standard output or into a caller's buffer.
 *
 * Indented form of a u_intf.pmx_ifx_tbl record (the message name is the descriptor's c_name):
 *
 *     UIntf__PmxIfxTbl-{
 *         index      : UIntf__IfxIndex-{ifx:12},
 *         ifx        : 12,
 *         gphyid     : 0x07000001,
 *         ...
 *         sslot      : 0
 *     }
 *
 * Compact form: UIntf__PmxIfxTbl-{index:UIntf__IfxIndex-{ifx:12},ifx:12,gphyid:0x07000001,...}
 * Repeated fields print as [a,b] in the compact form and one element a line in the indented one.
 *
 * Rules worth knowing:
 * - A field whose name contains "phyid" prints its 32-bit values as 0x%08x.
 * - Key messages read at a glance: a message-typed field named "index" is printed in the
 *   compact form even inside the indented form.
 * - Optional fields print only when present (has_ flag, or non-null string/message pointer);
 *   a oneof member prints only when it is the one set.
 * - The buffer sink stops with LIBPMX_E_BUF_FULL (-6) once fewer than 2 bytes remain; the text
 *   written so far stays and is always zero-terminated.
 * Every operation returns 0 or a negative libpmx result code; the first failure ends the walk.
 */
#ifndef LIBPMX_PROTOC_FMT_H
#define LIBPMX_PROTOC_FMT_H

#include <stddef.h>
#include <stdint.h>

#include <protobuf-c/protobuf-c.h>

#include "libpmx_export.h"

LIBPMX_BEGIN_DECLS

/* Formatter flags. */
#define LIBPMX_FMT_COMPACT 1 /* one line instead of one field a line */

/* The caller's buffer for the buffer sink: next write position, bytes remaining at pos
 * (terminator included) and bytes written so far. */
typedef struct libpmx_fmt_buf {
    char *pos;
    size_t len;
    size_t written;
} libpmx_fmt_buf_t;

typedef struct libpmx_fmter libpmx_fmter_t;

/* Output sink, printf-style: 0 or a negative result code. */
typedef int (*libpmx_fmt_output_fn)(libpmx_fmter_t *fmter, const char *fmt, ...)
    __attribute__((format(printf, 2, 3)));

/* One operation per element of the output; the indented and compact forms differ only in the
 * structural ones (field name, message and array brackets, comma). */
typedef struct libpmx_fmt_ops {
    int (*field_name)(libpmx_fmter_t *fmter, const char *name);
    int (*message_begin)(libpmx_fmter_t *fmter, const char *name);
    int (*message_end)(libpmx_fmter_t *fmter);
    int (*array_begin)(libpmx_fmter_t *fmter);
    int (*array_end)(libpmx_fmter_t *fmter);
    int (*comma)(libpmx_fmter_t *fmter);
    int (*value_int32)(libpmx_fmter_t *fmter, int32_t value);
    int (*value_uint32)(libpmx_fmter_t *fmter, uint32_t value);
    int (*value_int64)(libpmx_fmter_t *fmter, int64_t value);
    int (*value_uint64)(libpmx_fmter_t *fmter, uint64_t value);
    int (*value_float)(libpmx_fmter_t *fmter, float value);
    int (*value_double)(libpmx_fmter_t *fmter, double value);
    int (*value_bool)(libpmx_fmter_t *fmter, protobuf_c_boolean value);
    int (*value_string)(libpmx_fmter_t *fmter, const char *value);
    int (*value_enum)(libpmx_fmter_t *fmter, const ProtobufCEnumDescriptor *desc, int32_t value);
    int (*value_bytes)(libpmx_fmter_t *fmter, const ProtobufCBinaryData *value);
} libpmx_fmt_ops_t;

/* Set up by one of the libpmx_fmter_init_* calls; lives on the caller's stack. */
struct libpmx_fmter {
    libpmx_fmt_output_fn output;
    const libpmx_fmt_ops_t *ops;
    int32_t msg_depth;                     /* nesting of messages being printed */
    int32_t array_depth;                   /* nesting of repeated fields being printed */
    const ProtobufCFieldDescriptor *field; /* field being printed, null outside a message */
    int32_t hex;                           /* non-zero: 32-bit integers print as 0x%08x */
    libpmx_fmt_buf_t *buf;                 /* buffer sink only */
    int32_t flags;                         /* LIBPMX_FMT_* */
};

/* Sinks. libpmx_printf writes to the debug-shell client while a command runs, to standard
 * output otherwise. libpmx_snprintf writes at fmter->buf: -4 for a missing buffer, -11 on a
 * formatting error, -6 when the buffer is (then) full. */
LIBPMX_API int libpmx_printf(libpmx_fmter_t *fmter, const char *fmt, ...)
    __attribute__((format(printf, 2, 3)));
LIBPMX_API int libpmx_snprintf(libpmx_fmter_t *fmter, const char *fmt, ...)
    __attribute__((format(printf, 2, 3)));

/* Set-up: 0, or -4 for a null formatter/state, a null position or a zero length. The buffer
 * set-up zero-terminates the buffer at once. */
LIBPMX_API int libpmx_fmter_init_with_printf(libpmx_fmter_t *fmter, int32_t flags);
LIBPMX_API int libpmx_fmter_init_with_buffer(libpmx_fmter_t *fmter, libpmx_fmt_buf_t *state,
                                             int32_t flags);

/* Formats one message and everything under it; a null message prints "<null>". */
LIBPMX_API int libpmx_protoc_format_message(libpmx_fmter_t *fmter, const ProtobufCMessage *msg);

/* Formats count elements of width bytes each, as the repeated field fmter->field; width must be
 * the size of that field's C element type (-4 otherwise). */
LIBPMX_API int libpmx_protoc_format_array(libpmx_fmter_t *fmter, const void *elements, size_t width,
                                          size_t count);

/* One-call forms. The console form ends the text with a newline. */
LIBPMX_API int libpmx_protoc_format_message_to_console(int32_t flags, const ProtobufCMessage *msg);
LIBPMX_API int libpmx_protoc_format_message_to_buffer(char *buf, size_t len, int32_t flags,
                                                      const ProtobufCMessage *msg);

/* Element operations (the entries of the two operation tables). */
LIBPMX_API int libpmx_fmt_field_name(libpmx_fmter_t *fmter, const char *name);
LIBPMX_API int libpmx_fmt_field_name_compact(libpmx_fmter_t *fmter, const char *name);
LIBPMX_API int libpmx_fmt_field_value_int32(libpmx_fmter_t *fmter, int32_t value);
LIBPMX_API int libpmx_fmt_field_value_uint32(libpmx_fmter_t *fmter, uint32_t value);
LIBPMX_API int libpmx_fmt_field_value_int64(libpmx_fmter_t *fmter, int64_t value);
LIBPMX_API int libpmx_fmt_field_value_uint64(libpmx_fmter_t *fmter, uint64_t value);
LIBPMX_API int libpmx_fmt_field_value_float(libpmx_fmter_t *fmter, float value);
LIBPMX_API int libpmx_fmt_field_value_double(libpmx_fmter_t *fmter, double value);
LIBPMX_API int libpmx_fmt_field_value_bool(libpmx_fmter_t *fmter, protobuf_c_boolean value);
LIBPMX_API int libpmx_fmt_field_value_string(libpmx_fmter_t *fmter, const char *value);
/* Prints "value-NAME"; a value the enum lacks prints with the enum's full name instead. */
LIBPMX_API int libpmx_fmt_field_value_enum(libpmx_fmter_t *fmter,
                                           const ProtobufCEnumDescriptor *desc, int32_t value);
LIBPMX_API int libpmx_fmt_field_value_bytes(libpmx_fmter_t *fmter,
                                            const ProtobufCBinaryData *value);
LIBPMX_API int libpmx_fmt_message_begin(libpmx_fmter_t *fmter, const char *name);
LIBPMX_API int libpmx_fmt_message_end(libpmx_fmter_t *fmter);
LIBPMX_API int libpmx_fmt_message_begin_compact(libpmx_fmter_t *fmter, const char *name);
LIBPMX_API int libpmx_fmt_message_end_compact(libpmx_fmter_t *fmter);
LIBPMX_API int libpmx_fmt_array_begin(libpmx_fmter_t *fmter);
LIBPMX_API int libpmx_fmt_array_end(libpmx_fmter_t *fmter);
LIBPMX_API int libpmx_fmt_array_begin_compact(libpmx_fmter_t *fmter);
LIBPMX_API int libpmx_fmt_array_end_compact(libpmx_fmter_t *fmter);
LIBPMX_API int libpmx_fmt_comma(libpmx_fmter_t *fmter);
LIBPMX_API int libpmx_fmt_comma_compact(libpmx_fmter_t *fmter);
/* Writes (message depth + array depth) x 4 spaces. */
LIBPMX_API int libpmx_fmt_indents(libpmx_fmter_t *fmter);

/* Record kinds of the schema, by full protobuf name ("u_intf.pmx_ifx_tbl"); null when unknown. */
LIBPMX_API const ProtobufCMessageDescriptor *libpmx_protoc_find_message(const char *full_name);
LIBPMX_API size_t libpmx_protoc_message_count(void);
LIBPMX_API const ProtobufCMessageDescriptor *libpmx_protoc_message_at(size_t i);

LIBPMX_END_DECLS

#endif /* LIBPMX_PROTOC_FMT_H */

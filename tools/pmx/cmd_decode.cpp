// pmx decode: prints a packed record as text.
#include <CLI/CLI.hpp>

#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "commands.h"
#include "hex.h"
#include "libpmx_protoc_fmt.h"
#include "record_kinds.h"
#include "tool_errors.h"

namespace pmx_tool
{
namespace
{

struct DecodeOptions {
    std::string kind;
    std::vector<std::string> input; // hex words, joined with spaces; or the single word "-"
    bool compact = false;
    bool raw = false;
    bool list = false;
};

// False on a read error.
bool read_stdin(std::vector<std::uint8_t> *data)
{
    std::uint8_t chunk[4096];
    size_t n;
    while ((n = std::fread(chunk, 1, sizeof chunk, stdin)) > 0)
        data->insert(data->end(), chunk, chunk + n);
    if (std::ferror(stdin)) {
        fail("cannot read standard input");
        return false;
    }
    return true;
}

int list_kinds()
{
    for (const auto *d : all_kinds())
        std::printf("%s\n", d->name);
    return kExitOk;
}

int decode(const DecodeOptions &opt)
{
    if (opt.list) {
        if (!opt.kind.empty() || !opt.input.empty()) {
            fail("decode --list takes no record kind or bytes");
            return kExitUsage;
        }
        return list_kinds();
    }
    if (opt.kind.empty() || opt.input.empty()) {
        fail("decode needs a record kind and its packed bytes (hex, or - for standard input); "
             "see pmx decode --help");
        return kExitUsage;
    }
    bool from_stdin = opt.input.size() == 1 && opt.input[0] == "-";
    if (opt.raw && !from_stdin) {
        fail("--raw reads the bytes from standard input: give - in place of the hex text");
        return kExitUsage;
    }

    const ProtobufCMessageDescriptor *desc = find_kind(opt.kind);
    if (desc == nullptr) {
        fail(unknown_kind_error(opt.kind));
        return kExitFailed;
    }

    std::vector<std::uint8_t> bytes;
    if (opt.raw) {
        if (!read_stdin(&bytes)) return kExitFailed;
    } else {
        std::string text;
        if (from_stdin) {
            std::vector<std::uint8_t> in;
            if (!read_stdin(&in)) return kExitFailed;
            text.assign(in.begin(), in.end());
        } else {
            for (const auto &word : opt.input)
                text += (text.empty() ? "" : " ") + word;
        }
        HexResult hex = parse_hex(text);
        if (!hex.ok()) {
            fail("bad hex: " + hex.error);
            return kExitFailed;
        }
        bytes = std::move(hex.bytes);
    }

    // The library's descriptors carry no unpack functions of their own; the runtime's generic
    // ones work from the descriptor.
    auto free_msg = [](ProtobufCMessage *m) { protobuf_c_message_free_unpacked(m, nullptr); };
    std::unique_ptr<ProtobufCMessage, decltype(free_msg)> msg(
        protobuf_c_message_unpack(desc, nullptr, bytes.size(), bytes.data()), free_msg);
    if (!msg) {
        fail(std::to_string(bytes.size()) + (bytes.size() == 1 ? " byte does" : " bytes do") +
             " not unpack as " + desc->name);
        return kExitFailed;
    }

    int rc =
        libpmx_protoc_format_message_to_console(opt.compact ? LIBPMX_FMT_COMPACT : 0, msg.get());
    std::fflush(stdout);
    if (rc != 0) {
        fail("formatting " + std::string(desc->name) + " failed: " + std::to_string(rc));
        return kExitFailed;
    }
    return kExitOk;
}

} // namespace

Command add_decode_command(CLI::App &app)
{
    auto opt = std::make_shared<DecodeOptions>();
    CLI::App *sub = app.add_subcommand("decode", "Print a packed record as text");
    sub->footer("Examples:\n"
                "  pmx decode u_intf.pmx_ifx_tbl 2a02080c 300c\n"
                "  pmx decode --compact u_intf.pmx_ifx_tbl - < record.hex\n"
                "  pmx decode --raw p_dev.card_info - < record.bin\n"
                "  pmx decode --list");
    sub->add_option("kind", opt->kind, "Full name of the record kind, e.g. u_intf.pmx_ifx_tbl");
    sub->add_option("bytes", opt->input,
                    "The packed record as hex (whitespace and a leading 0x allowed), "
                    "or - to read it from standard input");
    sub->add_flag("--compact", opt->compact, "Print on one line");
    sub->add_flag("--raw", opt->raw, "With -, standard input holds the raw bytes instead of hex");
    sub->add_flag("--list", opt->list, "List every record kind known and exit");
    return Command{sub, [opt] { return decode(*opt); }};
}

} // namespace pmx_tool

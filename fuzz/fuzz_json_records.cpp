// Fuzzes the record-file reader of `pmx load`: each input is a record file, read with
// read_record_file (the step before anything is written to a database). A refused file must
// give an error naming the file and hand back nothing; a read file must give one record per
// entry, each with its key and a database in range, and must round-trip: the records written
// back as a record file (record_to_json) read again to the same records, packed byte for byte,
// in the same databases and forms, and write back to the same text.
#include <fcntl.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

#include "json_records.h"
#include "qv_mom.h"

namespace
{

using nlohmann::json;
using nlohmann::ordered_json;
using pmx_tool::Record;

std::string g_dir;
std::string g_input;  // the fuzzer's file
std::string g_again;  // the records written back

[[noreturn]] void broken(const std::string &what, size_t size)
{
    std::fprintf(stderr, "fuzz_json_records: %s (file of %zu bytes)\n", what.c_str(), size);
    std::abort();
}

void remove_dir()
{
    std::error_code ec;
    std::filesystem::remove_all(g_dir, ec);
}

void write_file(const std::string &path, const void *data, size_t size)
{
    int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (fd < 0 || write(fd, data, size) != static_cast<ssize_t>(size) || close(fd) != 0) {
        std::perror("fuzz_json_records: writing a record file");
        std::abort();
    }
}

std::string packed(const ProtobufCMessage *msg)
{
    std::string out(protobuf_c_message_get_packed_size(msg), '\0');
    size_t n = protobuf_c_message_pack(msg, reinterpret_cast<uint8_t *>(out.data()));
    out.resize(n);
    return out;
}

ordered_json as_file(const std::vector<Record> &records)
{
    ordered_json file = ordered_json::object();
    file["records"] = ordered_json::array();
    for (const Record &r : records)
        file["records"].push_back(pmx_tool::record_to_json(r.value.get(), r.db, r.form));
    return file;
}

void check_record(const Record &r, size_t size)
{
    const std::string kind = r.kind()->name;
    if (!protobuf_c_message_check(r.value.get())) broken(kind + ": the record fails the schema check", size);
    if (r.db < 0 || r.db >= QV_MOM_DB_COUNT) broken(kind + ": database " + std::to_string(r.db), size);
    if (r.key == nullptr) broken(kind + ": no key", size);
    const ProtobufCMessageDescriptor *key = pmx_tool::key_descriptor(r.kind());
    if (key == nullptr ? r.key != r.value.get() : r.key->descriptor != key)
        broken(kind + ": the key is not the record's own key message", size);
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    std::string base = std::filesystem::is_directory("/dev/shm") ? "/dev/shm" : "/tmp";
    std::string templ = base + "/pmx-fuzz-json.XXXXXX";
    if (mkdtemp(templ.data()) == nullptr) {
        std::perror("fuzz_json_records: mkdtemp");
        std::abort();
    }
    g_dir = templ;
    g_input = g_dir + "/records.json";
    g_again = g_dir + "/again.json";
    std::atexit(remove_dir);
    setenv("PMX_LOG_FILE", "/dev/null", 1);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    write_file(g_input, data, size);
    std::vector<Record> records;
    records.emplace_back(); // an empty record that a refused file must leave where it is
    const Record *before = &records.front();
    std::string error;
    if (!pmx_tool::read_record_file(g_input, &records, &error)) {
        // "FILE: ..." or, for an error in one record, "FILE:LINE: record N ...".
        if (!error.starts_with(g_input + ":")) broken("the error does not name the file: " + error, size);
        if (records.size() != 1 || &records.front() != before) broken("a refused file handed back records", size);
        return 0;
    }
    const json doc = json::parse(data, data + size, nullptr, false);
    if (doc.is_discarded() || !doc.is_object() || !doc.contains("records"))
        broken("a file that is not a record file was read", size);
    if (records.size() != doc["records"].size()) broken("not one record per entry", size);
    for (const Record &r : records)
        check_record(r, size);

    const std::string text = as_file(records).dump(2);
    write_file(g_again, text.data(), text.size());
    std::vector<Record> again;
    if (!pmx_tool::read_record_file(g_again, &again, &error)) broken("written back, the records are refused: " + error, size);
    if (again.size() != records.size()) broken("written back, the record count changed", size);
    for (size_t i = 0; i < records.size(); ++i) {
        const Record &a = records[i];
        const Record &b = again[i];
        const std::string at = "record " + std::to_string(i + 1) + " (" + a.kind()->name + ")";
        if (b.kind() != a.kind() || b.db != a.db || b.form != a.form)
            broken(at + ": written back, the kind, database or form changed", size);
        if (packed(b.value.get()) != packed(a.value.get())) broken(at + ": written back, the record changed", size);
        check_record(b, size);
    }
    if (as_file(again).dump(2) != text) broken("written back twice, the text changed", size);
    return 0;
}

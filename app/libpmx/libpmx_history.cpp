// The change history ring, its key index and the "history" debug command.
#define LIBPMX_LOG_SOURCE "app/libpmx/libpmx_dbg"
#include "libpmx_log.h"

#include "libpmx_history.hpp"

#include <time.h>

#include <cinttypes>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "libpmx_dbg.h"
#include "libpmx_dbg_args.hpp"
#include "libpmx_dbg_json.hpp"
#include "libpmx_errno.h"
#include "libpmx_protoc_fmt.h"
#include "qv_mom.h"
#include "ssat.h"

namespace pmx::history
{
namespace
{

constexpr size_t kDefaultEntries = 4096;
constexpr size_t kMaxValueBytes = 4u << 20; // of all the values the ring holds
constexpr size_t kShownByDefault = 50;

enum class Op : uint8_t { Add, Change, Delete };

const char *op_name(Op op)
{
    return op == Op::Add ? "add" : op == Op::Change ? "change" : "delete";
}

using Value = std::shared_ptr<const std::string>; // packed message; shared by a change and the next

struct Entry {
    uint64_t seq;
    timespec when;
    Op op;
    bool old_kept; // false: the key's last change left the ring before this one came
    const ProtobufCMessageDescriptor *record;
    const ProtobufCMessageDescriptor *key_type; // null for a record with no key
    std::string key;                            // packed key
    Value old_value, new_value;                 // null where there is none
};

// Key fingerprint -> seq of its last entry: open addressing, linear probing, deletion by
// backward shift (no tombstones). Fingerprint 0 marks a free slot.
class KeyIndex
{
public:
    uint64_t *find(uint64_t fp)
    {
        if (slots_.empty()) return nullptr;
        for (size_t i = fp & mask();; i = (i + 1) & mask()) {
            if (slots_[i].fp == fp) return &slots_[i].seq;
            if (slots_[i].fp == 0) return nullptr;
        }
    }
    void put(uint64_t fp, uint64_t seq)
    {
        if (uint64_t *s = find(fp)) {
            *s = seq;
            return;
        }
        if ((used_ + 1) * 10 > slots_.size() * 7) grow();
        size_t i = fp & mask();
        while (slots_[i].fp != 0) i = (i + 1) & mask();
        slots_[i] = {fp, seq};
        ++used_;
    }
    void erase(uint64_t fp)
    {
        if (slots_.empty()) return;
        size_t i = fp & mask();
        while (slots_[i].fp != fp) {
            if (slots_[i].fp == 0) return;
            i = (i + 1) & mask();
        }
        // Shift back every later slot of the run that may move into the hole.
        for (size_t j = (i + 1) & mask(); slots_[j].fp != 0; j = (j + 1) & mask()) {
            const size_t home = slots_[j].fp & mask();
            if (((j - home) & mask()) >= ((j - i) & mask())) {
                slots_[i] = slots_[j];
                i = j;
            }
        }
        slots_[i] = {};
        --used_;
    }
    size_t size() const { return used_; }
    size_t bytes() const { return slots_.size() * sizeof(Slot); }

private:
    struct Slot {
        uint64_t fp = 0, seq = 0;
    };
    size_t mask() const { return slots_.size() - 1; }
    void grow()
    {
        std::vector<Slot> old(slots_.empty() ? 64 : slots_.size() * 2);
        old.swap(slots_);
        used_ = 0;
        for (const Slot &s : old)
            if (s.fp != 0) put(s.fp, s.seq);
    }
    std::vector<Slot> slots_;
    size_t used_ = 0;
};

struct Ring {
    std::mutex mutex;
    std::deque<Entry> entries; // oldest first
    size_t value_bytes = 0;
    uint64_t next_seq = 1;
    uint64_t dropped = 0;
    KeyIndex index;
};

// Never destroyed: the event thread and the debug shell may still use it while the process exits.
Ring &g_ring = *new Ring;

size_t entries_from_environment()
{
    const char *v = std::getenv("PMX_HISTORY_SIZE");
    if (v == nullptr || *v == '\0') return kDefaultEntries;
    char *end = nullptr;
    const unsigned long long n = std::strtoull(v, &end, 10);
    if (*end != '\0' || n > (1u << 20)) {
        PMX_WARN("PMX_HISTORY_SIZE=%s is not a count of entries up to 1048576; keeping %zu", v, kDefaultEntries);
        return kDefaultEntries;
    }
    return static_cast<size_t>(n);
}

// PMX_HISTORY_SIZE, read on first use.
size_t configured_entries()
{
    static const size_t n = entries_from_environment();
    return n;
}

bool enabled()
{
    return configured_entries() != 0;
}

Value pack(const ProtobufCMessage *m)
{
    auto text = std::make_shared<std::string>(protobuf_c_message_get_packed_size(m), '\0');
    protobuf_c_message_pack(m, reinterpret_cast<uint8_t *>(text->data()));
    return text;
}

uint64_t fingerprint(const ProtobufCMessageDescriptor *record, const std::string &key)
{
    uint64_t h = 14695981039346656037ull;
    auto mix = [&h](std::string_view bytes) {
        for (unsigned char c : bytes) {
            h ^= c;
            h *= 1099511628211ull;
        }
    };
    mix(record->name);
    mix(std::string_view("\0", 1));
    mix(key);
    return h != 0 ? h : 1;
}

// The entry of seq while the ring still holds it; the caller holds the mutex.
const Entry *entry_of(const Ring &r, uint64_t seq)
{
    if (r.entries.empty() || seq < r.entries.front().seq || seq >= r.next_seq) return nullptr;
    return &r.entries[seq - r.entries.front().seq];
}

// The bytes an entry is charged: its values, a shared old one included (it may outlive the
// entry that brought it), so that the budget bounds what the ring keeps alive.
size_t charge(const Entry &e)
{
    return (e.old_value ? e.old_value->size() : 0) + (e.new_value ? e.new_value->size() : 0);
}

void drop_oldest(Ring &r)
{
    const Entry &e = r.entries.front();
    r.value_bytes -= charge(e);
    r.entries.pop_front();
    ++r.dropped;
}

} // namespace

void note(int event, const ProtobufCMessage *key, const ProtobufCMessage *record)
{
    if (record == nullptr || record->descriptor == nullptr || !enabled()) return;
    Ring &r = g_ring;
    Entry e{};
    clock_gettime(CLOCK_REALTIME, &e.when);
    e.record = record->descriptor;
    // A record that is its own key (a singleton) has no key of its own.
    if (key != nullptr && key != record && key->descriptor != record->descriptor) {
        e.key_type = key->descriptor;
        e.key = *pack(key);
    }
    Value value = pack(record);
    const uint64_t fp = fingerprint(e.record, e.key);

    std::lock_guard<std::mutex> lock(r.mutex);
    const uint64_t *last = r.index.find(fp);
    const Entry *previous = last != nullptr ? entry_of(r, *last) : nullptr;
    if (event == QV_MOM_EVENT_DEL) {
        // The delete hands over the value the key held last.
        e.op = Op::Delete;
        e.old_kept = true;
        e.old_value = std::move(value);
        r.index.erase(fp);
    } else {
        e.op = last != nullptr ? Op::Change : Op::Add;
        e.old_kept = last == nullptr || previous != nullptr;
        if (previous != nullptr) e.old_value = previous->new_value;
        e.new_value = std::move(value);
    }
    r.value_bytes += charge(e);
    e.seq = r.next_seq++;
    if (e.op != Op::Delete) r.index.put(fp, e.seq);
    r.entries.push_back(std::move(e));
    while (r.entries.size() > configured_entries() || (r.value_bytes > kMaxValueBytes && r.entries.size() > 1))
        drop_oldest(r);
}

namespace
{

// A packed message as one line of compact text.
std::string compact(const ProtobufCMessageDescriptor *type, const std::string &packed)
{
    ProtobufCMessage *m = protobuf_c_message_unpack(type, nullptr, packed.size(),
                                                    reinterpret_cast<const uint8_t *>(packed.data()));
    if (m == nullptr) return "(does not unpack)";
    thread_local std::vector<char> buf(64 * 1024);
    buf[0] = '\0';
    libpmx_protoc_format_message_to_buffer(buf.data(), buf.size(), LIBPMX_FMT_COMPACT, m);
    protobuf_c_message_free_unpacked(m, nullptr);
    return buf.data();
}

std::string time_text(const timespec &t)
{
    struct tm tm{};
    localtime_r(&t.tv_sec, &tm);
    char buf[48];
    const size_t n = strftime(buf, sizeof buf, "%Y-%m-%d %H:%M:%S", &tm);
    std::snprintf(buf + n, sizeof buf - n, ".%06ld", t.tv_nsec / 1000);
    return buf;
}

struct Shown {
    uint64_t seq;
    timespec when;
    Op op;
    bool old_kept;
    const char *record;
    std::string key, old_text, new_text;
};

// The arguments: count=N, json=1, record=TEXT, and key=TEXT, which takes the rest of the line.
struct Query {
    size_t count = kShownByDefault;
    bool json = false;
    std::string record, key;
};

bool parse(const char *args, Query *q, std::string *why)
{
    std::string_view rest = args != nullptr ? args : "";
    size_t key_at = rest.find("key=");
    while (key_at != std::string_view::npos && key_at != 0 && rest[key_at - 1] != ' ' && rest[key_at - 1] != '\t')
        key_at = rest.find("key=", key_at + 1);
    if (key_at != std::string_view::npos) {
        std::string_view k = rest.substr(key_at + 4);
        while (!k.empty() && k.back() == ' ') k.remove_suffix(1);
        q->key = k;
        rest = rest.substr(0, key_at);
    }
    std::string numeric;
    while (!rest.empty()) {
        const size_t start = rest.find_first_not_of(" \t");
        if (start == std::string_view::npos) break;
        rest.remove_prefix(start);
        const std::string_view word = rest.substr(0, rest.find_first_of(" \t"));
        rest.remove_prefix(word.size());
        if (word.substr(0, 7) == "record=")
            q->record = word.substr(7);
        else
            numeric += std::string(word) + " ";
    }
    DbgArgs a(numeric.c_str(), {"count", "json"});
    if (!a.error().empty()) {
        *why = a.error();
        return false;
    }
    const int64_t count = a.get("count", static_cast<int64_t>(kShownByDefault));
    if (count < 1) {
        *why = "count must be at least 1";
        return false;
    }
    q->count = static_cast<size_t>(count);
    q->json = a.get("json", 0) != 0;
    return true;
}

int cmd_history(const char *args)
{
    Query q;
    std::string why;
    if (!parse(args, &q, &why))
        return dbg_usage("history", "[count=%u] [json=1] [record=NAME] [key=TEXT (the rest of the line)]", why);
    // Select under the lock, newest first; format after it.
    std::vector<Entry> picked; // copies: the values are shared, not copied
    size_t held = 0, max_entries = 0, index_keys = 0, index_bytes = 0, value_bytes = 0;
    uint64_t dropped = 0;
    {
        std::lock_guard<std::mutex> lock(g_ring.mutex);
        held = g_ring.entries.size();
        max_entries = configured_entries();
        index_keys = g_ring.index.size();
        index_bytes = g_ring.index.bytes();
        value_bytes = g_ring.value_bytes;
        dropped = g_ring.dropped;
        for (auto it = g_ring.entries.rbegin(); it != g_ring.entries.rend(); ++it) {
            if (!q.record.empty() && std::strstr(it->record->name, q.record.c_str()) == nullptr) continue;
            picked.push_back(*it);
            if (q.key.empty() && picked.size() >= q.count) break;
        }
    }
    std::vector<Shown> shown;
    for (const Entry &e : picked) {
        Shown s{e.seq, e.when, e.op, e.old_kept, e.record->name, {}, {}, {}};
        if (e.key_type != nullptr) s.key = compact(e.key_type, e.key);
        if (!q.key.empty() && s.key.find(q.key) == std::string::npos) continue;
        if (e.old_value) s.old_text = compact(e.record, *e.old_value);
        if (e.new_value) s.new_text = compact(e.record, *e.new_value);
        shown.push_back(std::move(s));
        if (shown.size() >= q.count) break;
    }
    if (q.json) {
        JsonTable table("history");
        for (const Shown &s : shown) {
            const std::string when = time_text(s.when);
            table.row({num("seq", static_cast<int64_t>(s.seq)), text("time", when.c_str()), text("op", op_name(s.op)),
                       text("record", s.record), text("key", s.key.c_str()),
                       text("old", s.old_kept ? s.old_text.c_str() : "(not kept)"), text("new", s.new_text.c_str())});
        }
        table.end();
        return LIBPMX_OK;
    }
    for (const Shown &s : shown) {
        ssat_printf("%s #%" PRIu64 " %-6s %s%s%s\n", time_text(s.when).c_str(), s.seq, op_name(s.op), s.record,
                    s.key.empty() ? "" : " ", s.key.c_str());
        if (s.op != Op::Add) ssat_printf("    old %s\n", s.old_kept ? s.old_text.c_str() : "(not kept: older than the history)");
        if (s.op != Op::Delete) ssat_printf("    new %s\n", s.new_text.c_str());
    }
    ssat_printf("%zu shown of %zu held (at most %zu entries, %zu bytes of values held), %" PRIu64
                " older dropped; key index: %zu keys in %zu bytes\n",
                shown.size(), held, max_entries, value_bytes, dropped, index_keys, index_bytes);
    return LIBPMX_OK;
}

const libpmx_dbg_cmd_t kHistoryCommands[] = {
    {"history", "[count=%u] [json=1] [record=NAME] [key=TEXT]  the last changes applied from the database, newest "
                "first (key= takes the rest of the line)",
     cmd_history},
};

} // namespace

void add_cmds()
{
    libpmx_dbg_add_cmds(kHistoryCommands, sizeof kHistoryCommands / sizeof kHistoryCommands[0]);
}

} // namespace pmx::history

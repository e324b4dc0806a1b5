// pmx churn: changes a generated chassis in a store at a steady rate, for load and convergence
// trials of the processes that follow it. Interfaces are deleted, re-added and moved to other
// front-panel ports, module tables deleted, re-added and taken back, sub-interfaces added,
// changed and deleted. The sequence of changes depends on the seed alone; the rate only decides
// when each one is written. A server that goes away is waited for: failed writes are sent again
// once it answers, in their order.
#include <CLI/CLI.hpp>

#include <time.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cinttypes>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <memory>
#include <set>
#include <new>
#include <string>
#include <thread>
#include <unordered_set>
#include <vector>

#include "commands.h"
#include "db_session.h"
#include "hex.h"
#include "record_kinds.h"
#include "tool_errors.h"
#include "topology.h"
#include "u_intf.pb-c.h"

namespace pmx_tool
{
namespace
{

struct ChurnOptions {
    std::string topology;
    DbOptions db;
    std::string rate = "1000";
    double seconds = 0; // 0: no time limit
    long changes = 0;   // 0: no count limit
    uint64_t seed = 1;
    std::string journal;
    GenOptions gen;
};

// Set by SIGINT and SIGTERM, which may land on any thread (the client's event thread too): a
// lock-free atomic, safe in a handler.
std::atomic<bool> g_stop{false};
static_assert(std::atomic<bool>::is_always_lock_free);

void on_stop_signal(int)
{
    g_stop.store(true, std::memory_order_relaxed);
}

// CLOCK_MONOTONIC in seconds: the clock of the journal, shared by every process of the machine.
double mono_now()
{
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) / 1e9;
}

// A copy that the record's own deleter frees: packed and unpacked again.
MessagePtr copy_message(const ProtobufCMessage *m)
{
    std::vector<uint8_t> buf(protobuf_c_message_get_packed_size(m));
    protobuf_c_message_pack(m, buf.data());
    ProtobufCMessage *copy = protobuf_c_message_unpack(m->descriptor, nullptr, buf.size(), buf.data());
    if (copy == nullptr) throw std::bad_alloc();
    return MessagePtr(copy);
}

// A record ready to write, keyed by its own index field.
Record make_record(MessagePtr value)
{
    Record r;
    const ProtobufCFieldDescriptor *f = protobuf_c_message_descriptor_get_field_by_name(value->descriptor, "index");
    // The field's place, through void*: a message field is as aligned as the message it sits in.
    const void *field = reinterpret_cast<const char *>(value.get()) + f->offset;
    r.key = *static_cast<ProtobufCMessage *const *>(field);
    default_placement(value->descriptor, &r.db, &r.form);
    r.value = std::move(value);
    return r;
}

// A set of small integers with an O(1) random member.
class Pool
{
  public:
    void reset(size_t universe)
    {
        at_.assign(universe, kNone);
        items_.clear();
    }
    void insert(int v)
    {
        if (at_[static_cast<size_t>(v)] != kNone) return;
        at_[static_cast<size_t>(v)] = items_.size();
        items_.push_back(v);
    }
    void erase(int v)
    {
        size_t i = at_[static_cast<size_t>(v)];
        if (i == kNone) return;
        items_[i] = items_.back();
        at_[static_cast<size_t>(items_[i])] = i;
        items_.pop_back();
        at_[static_cast<size_t>(v)] = kNone;
    }
    bool contains(int v) const { return at_[static_cast<size_t>(v)] != kNone; }
    size_t size() const { return items_.size(); }
    int at(size_t i) const { return items_[i]; }

  private:
    static constexpr size_t kNone = static_cast<size_t>(-1);
    std::vector<size_t> at_;
    std::vector<int> items_;
};

enum class Area { Interface, Module, SubInterface };

// Changes in their order: the record to store, or for a delete the record whose key goes.
struct Changes {
    std::vector<Record> records;
    std::vector<uint8_t> del;
    std::vector<Area> area;

    void add(Area a, bool d, Record r)
    {
        records.push_back(std::move(r));
        del.push_back(d ? 1 : 0);
        area.push_back(a);
    }
    size_t size() const { return records.size(); }
    void clear()
    {
        records.clear();
        del.clear();
        area.clear();
    }
};

// The model of what the store holds, and the changes drawn from it. Interfaces and front-panel
// ports are as many: every present interface holds a port no other one holds, so no two present
// interfaces ever share a gphyid, and a deleted interface leaves a port free to move to.
class Plan
{
  public:
    Plan(const Chassis &c, uint64_t seed) : rng_(seed * 0x9E3779B97F4A7C15ULL + 1)
    {
        std::set<uint32_t> port_ifx;
        uint32_t max_ifx = 0;
        for (const TruthRow &row : c.truth) {
            max_ifx = std::max(max_ifx, row.ifx);
            if (row.kind == PortKind::Port) {
                port_ifx.insert(row.ifx);
                parents_.push_back(row.gphyid);
            }
        }
        for (const Record &r : c.records) {
            const ProtobufCMessageDescriptor *kind = r.kind();
            if (kind == &u_intf__pmx_ifx_tbl__descriptor) {
                const auto *ifx = as<UIntf__PmxIfxTbl>(r.value.get());
                if (port_ifx.count(ifx->index->ifx) != 0) ports_.push_back(ifx);
            } else if (kind == &u_intf__pmx_mod_tbl__descriptor) {
                tables_.push_back(as<UIntf__PmxModTbl>(r.value.get()));
            } else if (kind == &u_intf__pmx_sub_ap_intf__descriptor) {
                subs_.push_back({as<UIntf__PmxSubApIntf>(r.value.get())->index->ifx, true});
            } else if (kind == &u_intf__pmx_sub_route_intf__descriptor) {
                subs_.push_back({as<UIntf__PmxSubRouteIntf>(r.value.get())->index->ifx, false});
            }
        }
        initial_subs_ = subs_.size();
        for (const Sub &sub : subs_) initial_keys_.insert(sub_key(sub.ifx, sub.ap));
        // Sub-interfaces that come and go, numbered past every interface of the chassis.
        const size_t extra = std::max<size_t>(8, initial_subs_ / 4);
        for (size_t i = 0; i < extra && max_ifx + 1 + i <= 0xFFFFFF; ++i)
            subs_.push_back({max_ifx + 1 + static_cast<uint32_t>(i), pick(2) == 0});

        at_.resize(ports_.size());
        for (size_t i = 0; i < ports_.size(); ++i) at_[i] = static_cast<int>(i);
        free_ports_.reset(ports_.size());
        deleted_.reset(ports_.size());
        table_state_.assign(tables_.size(), kValid);
        sub_present_.assign(subs_.size(), 0);
        std::fill(sub_present_.begin(), sub_present_.begin() + static_cast<std::ptrdiff_t>(initial_subs_), 1);
    }

    size_t interfaces() const { return ports_.size(); }
    size_t tables() const { return tables_.size(); }
    size_t initial_subs() const { return initial_subs_; }
    size_t extra_subs() const { return subs_.size() - initial_subs_; }
    // The sub-interface keys of the model, for removing leftovers of an earlier run.
    bool is_initial_sub(uint32_t ifx, bool ap) const { return initial_keys_.count(sub_key(ifx, ap)) != 0; }

    // Draws the next change into out, and applies it to the model.
    void next(Changes *out)
    {
        // Interfaces 45 %, module tables 10 %, sub-interfaces 45 %, among those the chassis has.
        for (;;) {
            const uint64_t r = pick(100);
            if (r < 45 && !ports_.empty()) return interface_change(out);
            if (r >= 45 && r < 55 && !tables_.empty()) return module_change(out);
            if (r >= 55 && !subs_.empty()) return sub_change(out);
        }
    }

  private:
    static constexpr int kAbsent = 0, kValid = 1, kNone = 2;

    struct Sub {
        uint32_t ifx;
        bool ap;
    };
    static uint64_t sub_key(uint32_t ifx, bool ap) { return uint64_t{ifx} << 1 | (ap ? 1u : 0u); }

    // Uniform enough for a load generator, and the same on every platform for a seed.
    uint64_t pick(uint64_t n)
    {
        return rng_() % n;
    }

    // Interface i on port p: the port's generated record with i's interface index.
    Record interface_record(int i, int p)
    {
        MessagePtr value = copy_message(&ports_[static_cast<size_t>(p)]->base);
        auto *rec = as<UIntf__PmxIfxTbl>(value.get());
        rec->index->ifx = rec->ifx = ports_[static_cast<size_t>(i)]->index->ifx;
        return make_record(std::move(value));
    }

    void interface_change(Changes *out)
    {
        const size_t n = ports_.size(), d = deleted_.size();
        const size_t wanted = std::max<size_t>(1, n / 8); // interfaces deleted at a time, about
        enum { Delete, Readd, Move } op;
        if (d == 0) {
            op = Delete;
        } else if (d == n) {
            op = Readd;
        } else {
            const uint64_t r = pick(100);
            if (d < wanted)
                op = r < 40 ? Delete : r < 70 ? Readd : Move;
            else
                op = r < 20 ? Delete : r < 60 ? Readd : Move;
        }
        if (op == Readd) {
            const int i = deleted_.at(pick(d));
            const int p = free_ports_.contains(i) ? i : free_ports_.at(pick(free_ports_.size()));
            deleted_.erase(i);
            take(i, p);
            return out->add(Area::Interface, false, interface_record(i, p));
        }
        // A present interface: any but the deleted ones.
        int i;
        do
            i = static_cast<int>(pick(n));
        while (deleted_.contains(i));
        if (op == Delete) {
            release(i);
            deleted_.insert(i);
            return out->add(Area::Interface, true, interface_record(i, i));
        }
        const int p = free_ports_.at(pick(free_ports_.size()));
        release(i);
        take(i, p);
        out->add(Area::Interface, false, interface_record(i, p));
    }

    void take(int i, int p)
    {
        free_ports_.erase(p);
        at_[static_cast<size_t>(i)] = p;
    }
    void release(int i)
    {
        free_ports_.insert(at_[static_cast<size_t>(i)]);
        at_[static_cast<size_t>(i)] = -1;
    }

    void module_change(Changes *out)
    {
        const size_t t = pick(tables_.size());
        int &state = table_state_[t];
        int next;
        if (state == kValid)
            next = pick(2) == 0 ? kNone : kAbsent;
        else if (state == kNone)
            next = pick(5) == 0 ? kAbsent : kValid;
        else
            next = kValid;
        state = next;
        MessagePtr value = copy_message(&tables_[t]->base);
        if (next == kNone) as<UIntf__PmxModTbl>(value.get())->status = U_INTF__SLOT_MODID_ST_E__MODID_NONE;
        out->add(Area::Module, next == kAbsent, make_record(std::move(value)));
    }

    void sub_change(Changes *out)
    {
        const size_t s = pick(subs_.size());
        const Sub &sub = subs_[s];
        const bool del = sub_present_[s] != 0 && pick(5) >= 3;
        sub_present_[s] = del ? 0 : 1;
        UIntf__IfxIndex index = U_INTF__IFX_INDEX__INIT;
        index.ifx = sub.ifx;
        const uint32_t evlan = 1 + static_cast<uint32_t>(pick(4094));
        const uint32_t master = parents_.empty() ? 0 : parents_[pick(parents_.size())];
        MessagePtr value;
        if (sub.ap) {
            UIntf__PmxSubApIntf rec = U_INTF__PMX_SUB_AP_INTF__INIT;
            rec.index = &index;
            rec.phyid = 20u << 24 | sub.ifx;
            rec.evlan = evlan;
            rec.trunk = 1 + static_cast<uint32_t>(pick(64));
            rec.master_phyid = master;
            value = copy_message(&rec.base);
        } else {
            UIntf__PmxSubRouteIntf rec = U_INTF__PMX_SUB_ROUTE_INTF__INIT;
            rec.index = &index;
            rec.phyid = 19u << 24 | sub.ifx;
            rec.evlan = evlan;
            rec.master_phyid = master;
            value = copy_message(&rec.base);
        }
        out->add(Area::SubInterface, del, make_record(std::move(value)));
    }

    // A splitmix-style generator: fixed arithmetic, so a seed gives the same changes everywhere.
    struct Rng {
        uint64_t state;
        explicit Rng(uint64_t s) : state(s) {}
        uint64_t operator()()
        {
            uint64_t z = (state += 0x9E3779B97F4A7C15ULL);
            z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ULL;
            z = (z ^ (z >> 27)) * 0x94D049BB133111EBULL;
            return z ^ (z >> 31);
        }
    } rng_;

    std::vector<const UIntf__PmxIfxTbl *> ports_; // port i's generated interface record
    std::vector<int> at_;                         // interface -> its port, -1 deleted
    Pool free_ports_;
    Pool deleted_;
    std::vector<const UIntf__PmxModTbl *> tables_;
    std::vector<int> table_state_;
    std::vector<Sub> subs_;
    size_t initial_subs_ = 0;
    std::unordered_set<uint64_t> initial_keys_;
    std::vector<uint8_t> sub_present_;
    std::vector<uint32_t> parents_; // gphyids of the front-panel ports
};

std::string key_text(const Record &r)
{
    qv_mom_key_t key{r.key, r.kind()};
    char buf[256];
    const int n = qv_mom_key_text(&key, buf, sizeof buf);
    return n >= 0 && static_cast<size_t>(n) < sizeof buf ? std::string(buf, static_cast<size_t>(n)) : r.kind()->name;
}

// One journal line: when the change was first sent, its key and what the key holds after it.
void journal_line(FILE *out, double t, const Record &rec, bool del)
{
    std::string line = "{\"t\":";
    char num[32];
    std::snprintf(num, sizeof num, "%.6f", t);
    line += num;
    line += ",\"key\":\"" + key_text(rec) + "\",\"op\":\"" + (del ? "del" : "set") + "\"";
    const ProtobufCMessage *m = rec.value.get();
    if (!del) {
        if (m->descriptor == &u_intf__pmx_ifx_tbl__descriptor) {
            const auto *r = as<UIntf__PmxIfxTbl>(m);
            line += ",\"gphyid\":\"" + hex32(r->gphyid) + "\",\"lphyid\":\"" + hex32(r->lphyid) + "\"";
        } else if (m->descriptor == &u_intf__pmx_mod_tbl__descriptor) {
            line += ",\"status\":" + std::to_string(as<UIntf__PmxModTbl>(m)->status);
        } else if (m->descriptor == &u_intf__pmx_sub_ap_intf__descriptor) {
            const auto *r = as<UIntf__PmxSubApIntf>(m);
            line += ",\"phyid\":\"" + hex32(r->phyid) + "\",\"evlan\":" + std::to_string(r->evlan) +
                    ",\"trunk\":" + std::to_string(r->trunk) + ",\"master_phyid\":\"" + hex32(r->master_phyid) + "\"";
        } else if (m->descriptor == &u_intf__pmx_sub_route_intf__descriptor) {
            const auto *r = as<UIntf__PmxSubRouteIntf>(m);
            line += ",\"phyid\":\"" + hex32(r->phyid) + "\",\"evlan\":" + std::to_string(r->evlan) +
                    ",\"master_phyid\":\"" + hex32(r->master_phyid) + "\"";
        }
    }
    line += "}\n";
    std::fputs(line.c_str(), out);
}

// Writes changes in their order: each run of sets as one batch (one pipeline on Redis), each
// delete on its own. A write that fails is sent again until it goes through; the first failure
// of an outage and the end of it are told on standard error.
class Writer
{
  public:
    Writer(DbSession &session, FILE *journal) : session_(session), journal_(journal) {}

    // False when the store refused a write for good, or a stop was asked while it was away.
    bool write(const Changes &changes, bool journaled = true)
    {
        FILE *journal = journaled ? journal_ : nullptr;
        const std::vector<Record> &records = changes.records;
        for (size_t i = 0; i < records.size();) {
            size_t end = i + 1;
            if (changes.del[i] == 0) {
                while (end < records.size() && changes.del[end] == 0 && end - i < kBatch) ++end;
            }
            const double sent = mono_now();
            size_t from = i;
            const bool ok = retry([&] { return "writing " + key_text(records[from]); },
                                  [&] {
                                      if (changes.del[from] != 0) return session_.erase(records[from]);
                                      size_t failed = from;
                                      const int rc = session_.write_batch(records, from, end, &failed);
                                      if (rc != QV_MOM_OK) from = failed; // those before it are stored
                                      return rc;
                                  });
            if (!ok) return false;
            if (journal != nullptr)
                for (size_t k = i; k < end; ++k) journal_line(journal, sent, records[k], changes.del[k] != 0);
            i = end;
        }
        if (journal != nullptr) std::fflush(journal);
        return true;
    }

    // Records as they are, in batches of 1,000 (not journaled).
    bool write_all(const std::vector<Record> &records)
    {
        for (size_t i = 0; i < records.size(); i += 1000) {
            const size_t end = std::min(records.size(), i + 1000);
            size_t from = i;
            const bool ok = retry([&] { return "writing " + key_text(records[from]); },
                                  [&] {
                                      size_t failed = from;
                                      const int rc = session_.write_batch(records, from, end, &failed);
                                      if (rc != QV_MOM_OK) from = failed;
                                      return rc;
                                  });
            if (!ok) return false;
        }
        return true;
    }

    // Runs attempt until it gives QV_MOM_OK; what() names what it does, for the messages.
    template <typename What, typename Attempt> bool retry(What what, Attempt attempt)
    {
        double backoff = 0.02;
        for (;;) {
            const int rc = attempt();
            if (rc == QV_MOM_OK) {
                if (down_since_ > 0) {
                    const double away = mono_now() - down_since_;
                    away_ += away;
                    std::fprintf(stderr, "pmx churn: %s answers again after %.2f s; going on\n",
                                 session_.url().c_str(), away);
                    down_since_ = 0;
                }
                return true;
            }
            // A request the client refuses before sending it will never go through.
            if (rc == QV_MOM_E_INVAL || rc == QV_MOM_E_NOMEM) {
                fail(what() + " in " + session_.url() + ": " + mom_error_text(rc));
                return false;
            }
            if (down_since_ == 0) {
                down_since_ = mono_now();
                ++outages_;
                std::fprintf(stderr, "pmx churn: %s in %s: %s; retrying until it answers\n", what().c_str(),
                             session_.url().c_str(), mom_error_text(rc).c_str());
            }
            if (g_stop.load(std::memory_order_relaxed)) {
                fail("stopped while " + session_.url() + " was away: the last changes are not written");
                return false;
            }
            std::this_thread::sleep_for(std::chrono::duration<double>(backoff));
            backoff = std::min(backoff * 2, 0.5);
        }
    }

    int outages() const { return outages_; }
    double away_seconds() const { return away_; }

  private:
    static constexpr size_t kBatch = 256;

    DbSession &session_;
    FILE *journal_;
    double down_since_ = 0;
    double away_ = 0;
    int outages_ = 0;
};

// Rate text: "N" or "N/s", N above 0.
bool parse_rate(const std::string &text, double *rate)
{
    std::string t = text;
    if (t.ends_with("/s")) t.resize(t.size() - 2);
    char *end = nullptr;
    errno = 0;
    const double r = std::strtod(t.c_str(), &end);
    if (t.empty() || end == nullptr || *end != '\0' || errno != 0 || !(r > 0) || r > 1e7) return false;
    *rate = r;
    return true;
}

// The generated records first, so the churn starts from the generated chassis whatever an
// earlier run left (the same value written again is no change for a follower), then the
// sub-interfaces an earlier run added are removed. None of this is journaled: the journal starts
// from the generated records.
bool write_chassis(DbSession &session, const Chassis &c, const Plan &plan, Writer &writer)
{
    if (!writer.write_all(c.records)) return false;
    Changes leftovers;
    for (const ProtobufCMessageDescriptor *kind : {&u_intf__pmx_sub_ap_intf__descriptor, &u_intf__pmx_sub_route_intf__descriptor}) {
        struct Scan {
            const Plan *plan;
            bool ap;
            Changes found;
        } scan{&plan, kind == &u_intf__pmx_sub_ap_intf__descriptor, {}};
        int db = 0;
        Form form;
        default_placement(kind, &db, &form);
        const bool ok = writer.retry([&] { return std::string("scanning ") + kind->name; },
                                     [&] {
                                         scan.found.clear();
                                         const int rc = qv_mom_scan_sync(
                                             qv_mom_get_thread_local_global(), db, kind,
                                             [](const char *, const ProtobufCMessage *record, void *arg) {
                                                 auto *sc = static_cast<Scan *>(arg);
                                                 if (record == nullptr) return 0;
                                                 const UIntf__IfxIndex *index =
                                                     sc->ap ? as<UIntf__PmxSubApIntf>(record)->index
                                                            : as<UIntf__PmxSubRouteIntf>(record)->index;
                                                 if (index == nullptr || sc->plan->is_initial_sub(index->ifx, sc->ap))
                                                     return 0;
                                                 sc->found.add(Area::SubInterface, true, make_record(copy_message(record)));
                                                 return 0;
                                             },
                                             &scan);
                                         return rc < 0 ? rc : QV_MOM_OK;
                                     });
        if (!ok) return false;
        for (size_t i = 0; i < scan.found.size(); ++i)
            leftovers.add(Area::SubInterface, true, std::move(scan.found.records[i]));
    }
    if (!writer.write(leftovers, false)) return false;
    std::printf("wrote %zu records of the chassis into %s", c.records.size(), session.url().c_str());
    if (leftovers.size() > 0) std::printf("; removed %zu sub-interfaces of an earlier run", leftovers.size());
    std::printf("\n");
    return true;
}

int churn(const ChurnOptions &opt)
{
    double rate = 0;
    if (!parse_rate(opt.rate, &rate)) {
        fail("--rate " + opt.rate + ": give the changes per second, a number above 0 (\"5000\" or \"5000/s\")");
        return kExitUsage;
    }
    Chassis c;
    std::string error;
    if (!generate_chassis(opt.topology, opt.gen, &c, &error)) {
        fail(error);
        return kExitFailed;
    }
    Plan plan(c, opt.seed);
    if (plan.interfaces() == 0) {
        fail(opt.topology + ": the chassis has no front-panel port: nothing to churn");
        return kExitFailed;
    }
    std::unique_ptr<FILE, int (*)(FILE *)> journal(nullptr, std::fclose);
    if (!opt.journal.empty()) {
        journal.reset(std::fopen(opt.journal.c_str(), "w"));
        if (!journal) {
            fail("cannot write the journal " + opt.journal + ": " + std::strerror(errno));
            return kExitFailed;
        }
    }
    DbSession session;
    if (!session.open(opt.db)) return kExitFailed;
    std::signal(SIGINT, on_stop_signal);
    std::signal(SIGTERM, on_stop_signal);
    Writer writer(session, journal.get());
    if (!write_chassis(session, c, plan, writer)) return kExitFailed;
    std::printf("churning %zu interfaces, %zu module tables and %zu sub-interfaces (%zu more come and go) "
                "at %g changes/s, seed %" PRIu64 "\n",
                plan.interfaces(), plan.tables(), plan.initial_subs(), plan.extra_subs(), rate, opt.seed);
    std::fflush(stdout);

    // Ticks of 10 ms, each writing what the rate has made due since the start. A backlog (a slow
    // or absent server, a stopped process) is never made up beyond 0.1 s of changes: the rate
    // reported is what was achieved.
    using MonoClock = std::chrono::steady_clock;
    constexpr auto kTick = std::chrono::milliseconds(10);
    const double max_backlog = std::max(1.0, rate * 0.1);
    const double start = mono_now();
    double skipped = 0; // seconds of schedule given up
    long done = 0;
    long by_area[3] = {0, 0, 0};
    auto next_tick = MonoClock::now();
    Changes tick;
    bool ok = true;
    while (!g_stop.load(std::memory_order_relaxed)) {
        double now = mono_now() - start;
        const bool last = opt.seconds > 0 && now >= opt.seconds;
        if (last) now = opt.seconds;
        double due = rate * (now - skipped) - static_cast<double>(done);
        if (due > max_backlog) {
            skipped += (due - max_backlog) / rate;
            due = max_backlog;
        }
        long n = static_cast<long>(due);
        if (opt.changes > 0) n = std::min(n, opt.changes - done);
        tick.clear();
        for (long k = 0; k < n; ++k) plan.next(&tick);
        if (!writer.write(tick)) {
            ok = false;
            break;
        }
        for (Area a : tick.area) ++by_area[static_cast<int>(a)];
        done += n;
        if (last || (opt.changes > 0 && done >= opt.changes)) break;
        next_tick += kTick;
        if (next_tick < MonoClock::now()) next_tick = MonoClock::now();
        std::this_thread::sleep_until(next_tick);
    }
    const double elapsed = mono_now() - start;
    std::printf("%ld changes in %.2f s: %.0f changes/s (asked %g/s); %ld interface, %ld module-table and %ld "
                "sub-interface changes",
                done, elapsed, elapsed > 0 ? static_cast<double>(done) / elapsed : 0.0, rate, by_area[0],
                by_area[1], by_area[2]);
    if (writer.outages() > 0)
        std::printf("; the server was away %d times, %.2f s in all", writer.outages(), writer.away_seconds());
    std::printf("\n");
    std::fflush(stdout);
    return ok ? kExitOk : kExitFailed;
}

} // namespace

Command add_churn_command(CLI::App &app)
{
    auto opt = std::make_shared<ChurnOptions>();
    CLI::App *sub = app.add_subcommand(
        "churn", "Change a generated chassis in a store at a steady rate (interfaces, module tables, "
                 "sub-interfaces)");
    sub->footer("Writes the chassis of the topology first, then changes it until --seconds or --changes\n"
                "is reached, or SIGINT/SIGTERM. A server that goes away is waited for and the failed\n"
                "writes are sent again. Format of the journal: docs/chassis.md.\n"
                "Example:\n"
                "  pmx churn examples/chassis/small.topo.json --db unix:///tmp/pmxdb/redis.sock \\\n"
                "      --rate 2000/s --seconds 10 --journal churn.jsonl");
    sub->add_option("topology", opt->topology, "The topology file (JSON)")->required();
    sub->add_option("--db", opt->db.url,
                    "Database URL: embedded, redis://HOST:PORT or unix:///path/redis.sock "
                    "(default: $PMX_DB, else embedded)")
        ->type_name("URL");
    sub->add_option("--rate", opt->rate, "Changes per second (default 1000)")->type_name("N/s");
    auto *seconds = sub->add_option("--seconds", opt->seconds, "Stop after this many seconds")
                        ->type_name("S")
                        ->check(CLI::PositiveNumber);
    sub->add_option("--changes", opt->changes, "Stop after this many changes")
        ->type_name("N")
        ->check(CLI::PositiveNumber)
        ->excludes(seconds);
    sub->add_option("--seed", opt->seed, "Seed of the sequence of changes (default 1)")->type_name("K");
    sub->add_option("--journal", opt->journal, "Write one JSON line per change applied here")->type_name("FILE");
    sub->add_option("--card", opt->gen.card, "The local card the local records describe (as pmx gen)")
        ->type_name("DEV/SLOT[/SSLOT]");
    sub->add_option("--caps", opt->gen.caps, "Capability file (as pmx gen)")->type_name("FILE");
    return Command{sub, [opt] { return churn(*opt); }};
}

} // namespace pmx_tool

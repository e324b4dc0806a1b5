// libpmx following a Redis store end to end, across processes. This process is the follower: it
// opens the database client, starts the library (its subscriptions fill the caches) and asks the
// caches only (read mode 0). Children write: pmx gen the chassis, pmx churn a steady stream of
// changes to interfaces, module tables and sub-interfaces, with a journal of every change.
//   - After the writers stop, every cache answers what the database holds, table by table.
//   - While they write, every answer is a value its key held at some moment no later than the
//     answer (the generated records and the journal say which and since when), and "not found"
//     only for a key that was absent at some such moment.
//   - The server killed with SIGKILL and restarted in the middle of the churn (its data on an
//     append-only file), or a replica followed while the primary takes the writes and is killed:
//     after each restart the caches converge, and nothing a writer was told is stored is lost.
// Sizes: a short run by default; PMX_E2E_LONG=1 runs 100 restarts and 60 s of churn at 10,000
// changes/s (the ctest test test_events_e2e_long, label "long": make test-long).
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cinttypes>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <functional>
#include <limits>
#include <map>
#include <mutex>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <tuple>
#include <unordered_map>
#include <vector>

#include "libpmx.h"
#include "libpmx_dbg.h"
#include "libpmx_intf.h"
#include "libpmx_mod.h"
#include "libpmx_mom.h"
#include "libpmx_port.h"
#include "libpmx_split.h"
#include "p_dev.pb-c.h"
#include "qv_mom.h"
#include "redis_fleet.h"
#include "ssat_client.h"
#include "time_scale.h"
#include "topology.h"
#include "u_intf.pb-c.h"

extern char **environ;

namespace {

using pmx_tool::PortKind;
using Clock = std::chrono::steady_clock;
constexpr double kNever = -std::numeric_limits<double>::infinity();

struct Sizes {
    int restarts;         // server restarts of the fault cases
    double churn_seconds; // length of the churn read by the reader threads
    int rate;             // changes per second of every churn
};

Sizes sizes()
{
    const char *e = std::getenv("PMX_E2E_LONG");
    const bool long_run = e != nullptr && *e != '\0' && std::strcmp(e, "0") != 0;
    return long_run ? Sizes{100, 60, 10000} : Sizes{3, 3, 1000};
}

// CLOCK_MONOTONIC in seconds, the clock of the churn journal.
double mono_now()
{
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) / 1e9;
}

std::string hex(uint32_t v)
{
    char b[16];
    std::snprintf(b, sizeof b, "0x%08" PRIx32, v);
    return b;
}

template <typename T> const T *as(const ProtobufCMessage *m)
{
    return static_cast<const T *>(static_cast<const void *>(m));
}

// ---- child processes ----

// A program run with its standard output and error in a file; killed if the test ends first.
class Child {
public:
    ~Child()
    {
        if (pid_ > 0) {
            ::kill(pid_, SIGKILL);
            ::waitpid(pid_, nullptr, 0);
        }
    }
    bool start(const std::vector<std::string> &args, const std::string &out)
    {
        out_ = out;
        std::remove(out.c_str());
        return pmx_test::spawn_tied(args, out, &pid_) == 0;
    }
    // The exit status, or -1 when it did not exit normally.
    int wait()
    {
        int status = 0;
        if (pid_ <= 0 || ::waitpid(pid_, &status, 0) != pid_) return -1;
        pid_ = 0;
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }
    void signal(int sig) const
    {
        if (pid_ > 0) ::kill(pid_, sig);
    }
    std::string output() const
    {
        std::stringstream text;
        text << std::ifstream(out_).rdbuf();
        return text.str();
    }

private:
    pid_t pid_ = 0;
    std::string out_;
};

// The pmx tool (behind the emulator of a cross build) with these arguments.
std::vector<std::string> pmx(std::vector<std::string> args)
{
    std::vector<std::string> words;
    std::istringstream tool(PMX_TOOL);
    for (std::string w; tool >> w;) words.push_back(w);
    words.insert(words.end(), args.begin(), args.end());
    return words;
}

// The library follows one store per process, from its first libpmx_init on: a test case that
// finds this process following already runs again alone, in a fresh process of this program.
bool ran_in_own_process()
{
    if (g_libpmx.init_done == 0) return false;
    const ::testing::TestInfo *info = ::testing::UnitTest::GetInstance()->current_test_info();
    const std::string filter = std::string("--gtest_filter=") + info->test_suite_name() + "." + info->name();
    std::string self = "/proc/self/exe", arg = filter;
    char *argv[] = {self.data(), arg.data(), nullptr};
    pid_t pid = 0;
    EXPECT_EQ(::posix_spawn(&pid, self.c_str(), nullptr, nullptr, argv, environ), 0);
    int status = 0;
    EXPECT_EQ(::waitpid(pid, &status, 0), pid);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "the case failed in its own process " << pid;
    return true;
}

// ---- what the store holds ----

using Slot = std::tuple<int32_t, int32_t, int32_t>;

struct IfxRec {
    uint32_t gphyid, lphyid;
    int32_t modid, mport, unit, port, dev, slot, sslot, lport, core, count;
};

struct Snapshot {
    bool ok = false;
    std::string error;
    std::map<uint32_t, IfxRec> ifx; // by ifx
    std::map<uint32_t, IfxRec> phy; // by gphyid
    std::map<uint32_t, libpmx_sub_ap_info_t> sub_ap;
    std::map<uint32_t, libpmx_sub_route_info_t> sub_route;
    std::map<Slot, libpmx_mod_tbl_info_t> mod;
    std::map<Slot, int32_t> card_type;                                        // p_dev.card_info
    std::map<std::pair<int32_t, int32_t>, std::pair<int32_t, int32_t>> card_addr; // -> cid, scid
};

template <typename R> IfxRec ifx_rec(const R *r)
{
    return IfxRec{r->gphyid, r->lphyid, r->modid, r->mport, r->unit, r->port, r->dev, r->slot, r->sslot, r->lport,
                  r->core, r->count};
}

bool same(const IfxRec &a, const IfxRec &b)
{
    return std::tie(a.gphyid, a.lphyid, a.modid, a.mport, a.unit, a.port, a.dev, a.slot, a.sslot, a.lport, a.core,
                    a.count) == std::tie(b.gphyid, b.lphyid, b.modid, b.mport, b.unit, b.port, b.dev, b.slot,
                                         b.sslot, b.lport, b.core, b.count);
}

// The values of keys as the journal writes them, to compare answers with what keys held.
std::string ifx_value(uint32_t gphyid, uint32_t lphyid)
{
    return hex(gphyid) + "/" + hex(lphyid);
}
std::string sub_ap_value(const libpmx_sub_ap_info_t &s)
{
    return hex(s.phyid) + "/" + std::to_string(s.evlan) + "/" + std::to_string(s.trunk) + "/" + hex(s.master_phyid);
}
std::string sub_route_value(const libpmx_sub_route_info_t &s)
{
    return hex(s.phyid) + "/" + std::to_string(s.evlan) + "/" + hex(s.master_phyid);
}

void add_record(Snapshot *s, const ProtobufCMessage *m)
{
    const ProtobufCMessageDescriptor *d = m->descriptor;
    if (d == &u_intf__pmx_ifx_tbl__descriptor) {
        const auto *r = as<UIntf__PmxIfxTbl>(m);
        s->ifx[r->index->ifx] = ifx_rec(r);
    } else if (d == &u_intf__pmx_phy_tbl__descriptor) {
        const auto *r = as<UIntf__PmxPhyTbl>(m);
        s->phy[r->index->phyid] = ifx_rec(r);
    } else if (d == &u_intf__pmx_sub_ap_intf__descriptor) {
        const auto *r = as<UIntf__PmxSubApIntf>(m);
        s->sub_ap[r->index->ifx] = {r->index->ifx, r->phyid, r->evlan, r->trunk, r->master_phyid};
    } else if (d == &u_intf__pmx_sub_route_intf__descriptor) {
        const auto *r = as<UIntf__PmxSubRouteIntf>(m);
        s->sub_route[r->index->ifx] = {r->index->ifx, r->phyid, r->evlan, r->master_phyid};
    } else if (d == &u_intf__pmx_mod_tbl__descriptor) {
        libpmx_mod_tbl_info_t info{};
        libpmx_mod_tbl_decode(m, &info);
        s->mod[{info.dev, info.slot, info.sslot}] = info;
    } else if (d == &p_dev__card_info__descriptor) {
        const auto *r = as<PDev__CardInfo>(m);
        if (r->index->t_mod == 0 && r->static_info != nullptr && r->static_info->index != nullptr)
            s->card_type[{r->index->devid, r->index->slotid, r->index->sslotid}] = r->static_info->index->type;
    } else if (d == &u_intf__pmx_card_address_id__descriptor) {
        const auto *r = as<UIntf__PmxCardAddressId>(m);
        s->card_addr[{r->index->card_type, r->index->subcard_type}] = {r->card_pmx_id, r->subcard_pmx_id};
    }
}

// Everything of the compared kinds, read through a thread of its own attached to glb.
Snapshot read_store(qv_mom_glb_t *glb)
{
    Snapshot s;
    std::thread reader([&] {
        if (qv_mom_thread_attach(glb, nullptr) == nullptr) {
            s.error = "cannot attach";
            return;
        }
        s.ok = true;
        for (const ProtobufCMessageDescriptor *kind :
             {&u_intf__pmx_ifx_tbl__descriptor, &u_intf__pmx_phy_tbl__descriptor, &u_intf__pmx_sub_ap_intf__descriptor,
              &u_intf__pmx_sub_route_intf__descriptor, &u_intf__pmx_mod_tbl__descriptor, &p_dev__card_info__descriptor,
              &u_intf__pmx_card_address_id__descriptor}) {
            const libpmx_record_kind_t *k = libpmx_record_kind_find(kind->name);
            const int rc = qv_mom_scan_sync(
                qv_mom_get_thread_local_global(), k->db, kind,
                [](const char *, const ProtobufCMessage *record, void *arg) {
                    if (record != nullptr) add_record(static_cast<Snapshot *>(arg), record);
                    return 0;
                },
                &s);
            if (rc < 0) {
                s.ok = false;
                s.error = std::string("scan of ") + kind->name + " failed: " + std::to_string(rc);
                break;
            }
        }
        qv_mom_thread_detach();
    });
    reader.join();
    return s;
}

// The keys a comparison asks about, present or not: every key of the generated chassis and every
// sub-interface the churn may add.
struct Universe {
    std::set<uint32_t> ifx, gphyids, sub_ifx;
    std::map<Slot, libpmx_mod_tbl_info_t> mod; // as generated, for the module ids of each slot
    std::string local;                         // "1/3/0"
    uint32_t max_ifx = 0;

    explicit Universe(const pmx_tool::Chassis &c)
    {
        for (const pmx_tool::Record &r : c.records) add_record(&generated, r.value.get());
        for (const auto &[n, rec] : generated.ifx) {
            ifx.insert(n);
            gphyids.insert(rec.gphyid);
            max_ifx = std::max(max_ifx, n);
        }
        for (const auto &[n, rec] : generated.sub_ap) sub_ifx.insert(n);
        for (const auto &[n, rec] : generated.sub_route) sub_ifx.insert(n);
        // The churn's own sub-interfaces are numbered right past the chassis.
        for (uint32_t i = 1; i <= kExtraSubs; ++i) sub_ifx.insert(max_ifx + i);
        mod = generated.mod;
        local = c.local;
    }
    static constexpr uint32_t kExtraSubs = 32;
    Snapshot generated;
};

// Every record of a snapshot as key text -> value text, to compare two stores.
std::map<std::string, std::string> canonical(const Snapshot &s)
{
    std::map<std::string, std::string> out;
    auto rec = [](const IfxRec &r) {
        return ifx_value(r.gphyid, r.lphyid) + " " + std::to_string(r.modid) + "/" + std::to_string(r.mport) + " " +
               std::to_string(r.unit) + "/" + std::to_string(r.port) + " " + std::to_string(r.dev) + "/" +
               std::to_string(r.slot) + "/" + std::to_string(r.sslot) + "/" + std::to_string(r.lport) + " " +
               std::to_string(r.core) + " " + std::to_string(r.count);
    };
    for (const auto &[k, r] : s.ifx) out["ifx " + std::to_string(k)] = rec(r);
    for (const auto &[k, r] : s.phy) out["phy " + hex(k)] = rec(r);
    for (const auto &[k, r] : s.sub_ap) out["sub-ap " + std::to_string(k)] = sub_ap_value(r);
    for (const auto &[k, r] : s.sub_route) out["sub-route " + std::to_string(k)] = sub_route_value(r);
    for (const auto &[k, m] : s.mod) {
        std::string v = std::to_string(m.tbl.status) + " " + std::to_string(m.tbl.card_type);
        for (uint32_t i = 0; i < m.tbl.fuid_num && i < LIBPMX_FUID_UNITS_PER_SLOT; ++i)
            for (int8_t id = 0; id < m.tbl.fuid[i].idnum; ++id) v += " " + std::to_string(m.tbl.fuid[i].modid[id]);
        out["mod " + std::to_string(std::get<0>(k)) + "/" + std::to_string(std::get<1>(k))] = v;
    }
    for (const auto &[k, t] : s.card_type)
        out["card " + std::to_string(std::get<0>(k)) + "/" + std::to_string(std::get<1>(k)) + "/" +
            std::to_string(std::get<2>(k))] = std::to_string(t);
    for (const auto &[k, ids] : s.card_addr)
        out["cid " + std::to_string(k.first) + "/" + std::to_string(k.second)] =
            std::to_string(ids.first) + "/" + std::to_string(ids.second);
    return out;
}

// ---- the caches against the store ----

struct Differences {
    std::vector<std::string> first;
    size_t count = 0;
    void add(const std::string &what)
    {
        if (first.size() < 12) first.push_back(what);
        ++count;
    }
    std::string text() const
    {
        std::string t = std::to_string(count) + " differences:";
        for (const std::string &s : first) t += "\n  " + s;
        return t;
    }
};

std::string slot_text(const Slot &s)
{
    return std::to_string(std::get<0>(s)) + "/" + std::to_string(std::get<1>(s)) + "/" + std::to_string(std::get<2>(s));
}

// The card-info cache, through the library's own debug command (which holds its lock).
std::map<Slot, int32_t> cached_card_types(std::string *error)
{
    std::map<Slot, int32_t> out;
    ssat_client_t *client = nullptr;
    if (ssat_client_connect(g_libpmx.app_name, getpid(), &client) != SSAT_CLIENT_OK) {
        *error = std::string("debug shell: ") + ssat_client_last_error();
        return out;
    }
    std::vector<char> buf(1 << 20);
    int32_t code = -1;
    const int rc = ssat_client_run_buf(client, "dump_card_info json=1", buf.data(), buf.size(), nullptr, &code);
    ssat_client_close(client);
    if (rc != SSAT_CLIENT_OK || code != 0) {
        *error = "dump_card_info failed";
        return out;
    }
    const nlohmann::json j = nlohmann::json::parse(buf.data(), nullptr, false);
    if (!j.is_object() || !j.contains("rows")) {
        *error = std::string("dump_card_info: not a table: ") + buf.data();
        return out;
    }
    for (const auto &row : j["rows"]) out[{row["dev"], row["slot"], row["sslot"]}] = row["card_type"];
    return out;
}

// Every table of the caches against the store: interfaces both ways, split maps, sub-AP and
// sub-route caches, module tables, card info, card ids. `whole` adds what only a store of the
// generated chassis settles: conversions, system ports, the identity and the local ports.
Differences compare(const Snapshot &db, const Universe &u, bool whole)
{
    Differences d;
    for (uint32_t ifx : u.ifx) {
        libpmx_intf_info_t node{};
        uint32_t g = 0;
        const int rc = libpmx_get_intf_node_by_ifx(ifx, &node);
        const int rc_ext = libpmx_get_phyid_by_ifx_ext(ifx, &g);
        auto it = db.ifx.find(ifx);
        if (it == db.ifx.end()) {
            if (rc != LIBPMX_E_NOT_FOUND || rc_ext != LIBPMX_E_NOT_FOUND)
                d.add("ifx " + std::to_string(ifx) + " is deleted, the interface table has it (" + std::to_string(rc) + ")");
            continue;
        }
        const IfxRec &r = it->second;
        const IfxRec cached{node.gphyid, node.lphyid, node.modid, node.mport, node.unit, node.port, node.dev,
                            node.slot, node.sslot, node.lport, node.core, r.count};
        if (rc != 0 || !same(cached, r) || rc_ext != 0 || g != r.gphyid)
            d.add("ifx " + std::to_string(ifx) + ": store " + ifx_value(r.gphyid, r.lphyid) + " slot " +
                  std::to_string(r.slot) + " lport " + std::to_string(r.lport) + ", cache (" + std::to_string(rc) +
                  ") " + ifx_value(node.gphyid, node.lphyid) + " slot " + std::to_string(node.slot) + " lport " +
                  std::to_string(node.lport));
    }
    std::map<uint32_t, std::vector<uint32_t>> holders;
    for (const auto &[ifx, r] : db.ifx) holders[r.gphyid].push_back(ifx);
    for (uint32_t g : u.gphyids) {
        uint32_t ifx = 0;
        const int rc = libpmx_get_ifx_by_phyid_ext(g, &ifx);
        const auto &h = holders[g];
        if (h.empty() ? rc != LIBPMX_E_NOT_FOUND : (rc != 0 || ifx != h.front()))
            d.add("gphyid " + hex(g) + ": store ifx " + (h.empty() ? "none" : std::to_string(h.front())) +
                  ", cache (" + std::to_string(rc) + ") " + std::to_string(ifx));
    }
    // Split maps, from the physical-port records of the members.
    for (const auto &[g, r] : db.phy) {
        uint32_t modid = 0, port = 0, back = 0, lport = 0;
        const int rc = libpmx_split_cache_get_mod_port_by_phyid(g, &modid, &port);
        if (r.count <= 1) {
            if (rc != LIBPMX_E_NOT_FOUND) d.add("gphyid " + hex(g) + " is no split port, the split map has it");
            continue;
        }
        const int32_t gslot = libpmx_get_gslot_by_dev_slot_sslot(r.dev, r.slot, r.sslot);
        const int rc_back = libpmx_split_cache_get_phyid_by_mod_port(static_cast<uint32_t>(r.modid),
                                                                     static_cast<uint32_t>(r.mport), UINT32_MAX, &back);
        const int rc_lport = libpmx_split_cache_get_lport_by_gslot_unit_port(gslot, static_cast<uint32_t>(r.unit),
                                                                             static_cast<uint32_t>(r.port), &lport);
        if (rc != 0 || modid != static_cast<uint32_t>(r.modid) || port != static_cast<uint32_t>(r.mport) ||
            rc_back != 0 || back != g || rc_lport != 0 || lport != static_cast<uint32_t>(r.lport))
            d.add("split member " + hex(g) + ": modid/port " + std::to_string(modid) + "/" + std::to_string(port) +
                  " (" + std::to_string(rc) + "), back " + hex(back) + " (" + std::to_string(rc_back) + "), lport " +
                  std::to_string(lport) + " (" + std::to_string(rc_lport) + ")");
        if (slot_text({r.dev, r.slot, r.sslot}) == u.local) {
            uint32_t unit = 0, uport = 0;
            if (libpmx_split_cache_get_unit_port_by_lphyid(r.lphyid, &unit, &uport) != 0 ||
                unit != static_cast<uint32_t>(r.unit) || uport != static_cast<uint32_t>(r.port))
                d.add("local split member " + hex(r.lphyid) + ": unit/port " + std::to_string(unit) + "/" +
                      std::to_string(uport));
        }
    }
    for (uint32_t ifx : u.sub_ifx) {
        libpmx_sub_ap_info_t ap{};
        const int rc_ap = libpmx_get_sub_ap_info_by_phyid_detail(20u << 24 | ifx, &ap, 0);
        auto a = db.sub_ap.find(ifx);
        if (a == db.sub_ap.end() ? rc_ap != LIBPMX_E_NOT_FOUND
                                 : rc_ap != 0 || sub_ap_value(ap) != sub_ap_value(a->second) || ap.ifx != ifx)
            d.add("sub-AP " + std::to_string(ifx) + ": store " +
                  (a == db.sub_ap.end() ? std::string("none") : sub_ap_value(a->second)) + ", cache (" +
                  std::to_string(rc_ap) + ") " + sub_ap_value(ap));
        libpmx_sub_route_info_t route{};
        const int rc_route = libpmx_get_sub_route_info_by_phyid_detail(19u << 24 | ifx, &route, 0);
        auto s = db.sub_route.find(ifx);
        if (s == db.sub_route.end() ? rc_route != LIBPMX_E_NOT_FOUND
                                    : rc_route != 0 || sub_route_value(route) != sub_route_value(s->second) ||
                                          route.ifx != ifx)
            d.add("sub-route " + std::to_string(ifx) + ": store " +
                  (s == db.sub_route.end() ? std::string("none") : sub_route_value(s->second)) + ", cache (" +
                  std::to_string(rc_route) + ") " + sub_route_value(route));
    }
    // Module tables: an allocated table answers its module ids and is the slot's record; a table
    // taken back or deleted answers none of its ids.
    for (const auto &[slot, generated] : u.mod) {
        auto it = db.mod.find(slot);
        const bool valid = it != db.mod.end() && it->second.tbl.status == LIBPMX_MOD_TBL_ALLOC;
        for (uint32_t i = 0; i < generated.tbl.fuid_num && i < LIBPMX_FUID_UNITS_PER_SLOT; ++i) {
            const libpmx_fuid_unit_t &unit = generated.tbl.fuid[i];
            for (int8_t k = 0; k < unit.idnum; ++k) {
                int32_t dev = 0, s = 0, un = 0;
                const int rc = libpmx_get_dev_slot_unit_by_modid_ext(static_cast<int32_t>(unit.modid[k]), &dev, &s, &un);
                if (valid ? rc != 0 || std::make_tuple(dev, s, un) != std::make_tuple(std::get<0>(slot), std::get<1>(slot),
                                                                                      static_cast<int32_t>(unit.unit))
                          : rc != LIBPMX_E_NOT_FOUND)
                    d.add("modid " + std::to_string(unit.modid[k]) + " of " + slot_text(slot) + " (table " +
                          (valid ? "allocated" : "taken back or deleted") + "): cache (" + std::to_string(rc) + ") " +
                          std::to_string(dev) + "/" + std::to_string(s) + " unit " + std::to_string(un));
            }
        }
        if (!valid) continue;
        ce_pmx_fuid_info_per_slot_t cached{};
        const libpmx_mod_tbl_info_t &want = it->second;
        const int rc = libpmx_get_fuid_info_by_gslot(libpmx_get_gslot_by_dev_slot_sslot(want.dev, want.slot, want.sslot),
                                                     &cached);
        bool equal = rc == 0 && cached.status == want.tbl.status && cached.card_type == want.tbl.card_type &&
                     cached.fuid_num == want.tbl.fuid_num;
        for (uint32_t i = 0; equal && i < want.tbl.fuid_num && i < LIBPMX_FUID_UNITS_PER_SLOT; ++i)
            equal = cached.fuid[i].unit == want.tbl.fuid[i].unit && cached.fuid[i].idnum == want.tbl.fuid[i].idnum &&
                    cached.fuid[i].modid_type == want.tbl.fuid[i].modid_type &&
                    std::equal(want.tbl.fuid[i].modid, want.tbl.fuid[i].modid + want.tbl.fuid[i].idnum,
                               cached.fuid[i].modid);
        if (!equal) d.add("module table of " + slot_text(slot) + ": the slot's record differs (" + std::to_string(rc) + ")");
    }
    std::string error;
    const std::map<Slot, int32_t> cards = cached_card_types(&error);
    if (!error.empty())
        d.add(error);
    else if (cards != db.card_type)
        d.add("card info: " + std::to_string(cards.size()) + " cached, " + std::to_string(db.card_type.size()) +
              " in the store, or a card type differs");
    for (const auto &[types, ids] : db.card_addr) {
        int32_t cid = -1, scid = -1;
        if (libpmx_get_cid_with_card_type(types.first, types.second, &cid, 0) != 0 || cid != ids.first)
            d.add("cid of card type " + std::to_string(types.first) + "/" + std::to_string(types.second) + ": " +
                  std::to_string(cid));
        if (types.second != 0 && (libpmx_get_scid_with_subcard_type(types.second, &scid, 0) != 0 || scid != ids.second))
            d.add("scid of subcard type " + std::to_string(types.second) + ": " + std::to_string(scid));
    }
    if (!whole) return d;

    // Conversions and system ports of every port, from the caches alone.
    for (const auto &[ifx, r] : db.ifx) {
        if (r.gphyid >> 24 != LIBPMX_PHYID_GLOBAL && r.gphyid >> 24 != LIBPMX_PHYID_POWER) continue;
        uint32_t modid = 0, port = 0, g = 0, phy = 0, sysport = 0;
        if (libpmx_get_mod_port_by_phyid_ext(r.gphyid, &modid, &port) != 0 || modid != static_cast<uint32_t>(r.modid) ||
            port != static_cast<uint32_t>(r.mport))
            d.add("mod/port of " + hex(r.gphyid) + ": " + std::to_string(modid) + "/" + std::to_string(port));
        // A subcard's ports are learnt by a lookup that may read: mode 0 knows the card's own.
        if (r.sslot == 0 && (libpmx_get_phyid_by_mod_port_ext(r.modid, r.mport, &g) != 0 || g != r.gphyid))
            d.add("gphyid of mod/port " + std::to_string(r.modid) + "/" + std::to_string(r.mport) + ": " + hex(g));
        sysport = static_cast<uint32_t>(libpmx_get_gslot_by_dev_slot_sslot(r.dev, r.slot, r.sslot)) * 256 +
                  static_cast<uint32_t>(r.lport);
        // A split port's members share their panel port's system port, which names one of them.
        const bool ok = libpmx_get_phyid_by_sysport_detail(sysport, &phy, 0) == 0 &&
                        (r.count > 1 ? db.phy.count(phy) != 0 && db.phy.at(phy).lport == r.lport : phy == r.gphyid);
        if (!ok) d.add("system port " + std::to_string(sysport) + " of " + hex(r.gphyid) + ": " + hex(phy));
        if (slot_text({r.dev, r.slot, r.sslot}) == u.local && r.count <= 1) {
            int32_t lport = -1;
            if (libpmx_get_lport_by_unit_port_ext(r.unit, r.port, &lport) != 0 || lport != r.lport)
                d.add("local port " + std::to_string(r.unit) + "/" + std::to_string(r.port) + ": lport " +
                      std::to_string(lport));
        }
    }
    const std::string me = std::to_string(libpmx_get_my_dev_id(0)) + "/" + std::to_string(libpmx_get_my_slot(0)) + "/" +
                           std::to_string(libpmx_get_my_sslot(0));
    if (me != u.local) d.add("identity: the cache says " + me + ", the local card is " + u.local);
    return d;
}

// Polls until the caches answer what the store holds (what store_glb reads), or the limit.
Differences wait_converged(qv_mom_glb_t *store_glb, const Universe &u, bool whole,
                           std::chrono::seconds limit = std::chrono::seconds(15))
{
    const auto end = Clock::now() + pmx_test::at_most(limit);
    Differences d;
    for (;;) {
        const Snapshot db = read_store(store_glb);
        d = Differences{};
        if (!db.ok)
            d.add("cannot read the store: " + db.error);
        else
            d = compare(db, u, whole);
        if (d.count == 0 || Clock::now() > end) return d;
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
}

// ---- the follower ----

struct Hooks {
    std::mutex mutex;
    std::vector<int> fired;
} g_hooks;

void on_notify(void *, int type, int, void *)
{
    std::lock_guard<std::mutex> lock(g_hooks.mutex);
    g_hooks.fired.push_back(type);
}

std::vector<int> hooks_fired()
{
    std::lock_guard<std::mutex> lock(g_hooks.mutex);
    return g_hooks.fired;
}

bool wait_for(const std::function<bool()> &done, std::chrono::seconds limit)
{
    const auto end = Clock::now() + pmx_test::at_most(limit);
    while (!done()) {
        if (Clock::now() > end) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return true;
}

// The follower's client on url, the calling thread attached: the process default store, which
// the library follows once started.
::testing::AssertionResult open_follower(const std::string &url, const pmx_tool::Chassis &c, const std::string &dir,
                                         qv_mom_glb_t **glb)
{
    setenv("PMX_CAP_FILE", c.caps_path.c_str(), 1);
    setenv("PMX_RUN_DIR", (dir + "/run").c_str(), 1);
    setenv("PMX_DBG_DIR", (dir + "/dbg").c_str(), 1);
    setenv("PMX_DB_BACKOFF_MS", "10", 1);
    char err[256] = "";
    *glb = qv_mom_glb_create(url.c_str(), err, sizeof err);
    if (*glb == nullptr) return ::testing::AssertionFailure() << "cannot open " << url << ": " << err;
    if (qv_mom_thread_attach(*glb, nullptr) == nullptr) return ::testing::AssertionFailure() << "cannot attach";
    return ::testing::AssertionSuccess();
}

// The library started on the follower's client, hooks of types 1 to 7 registered first.
::testing::AssertionResult start_library(qv_mom_glb_t *glb)
{
    for (int type = LIBPMX_NOTIFY_DS_ALL_EVENT; type <= LIBPMX_NOTIFY_MYCHSS_EVENT; ++type)
        if (libpmx_notify_reg(type, on_notify) != 0)
            return ::testing::AssertionFailure() << "libpmx_notify_reg(" << type << ") failed";
    const int rc = libpmx_init(glb, "test_events_e2e");
    if (rc != 0) return ::testing::AssertionFailure() << "libpmx_init: " << rc;
    // Every miss of a cache-only lookup is logged as an error, and the checks make a great many;
    // they say themselves what differs. (The event thread reads the level as it logs.)
    std::atomic_ref<int32_t>(g_libpmx_zlog_level).store(0, std::memory_order_relaxed);
    return ::testing::AssertionSuccess();
}

// A second client, for reading another server than the followed one.
qv_mom_glb_t *open_store(const std::string &url)
{
    char err[256] = "";
    qv_mom_glb_t *glb = qv_mom_glb_create(url.c_str(), err, sizeof err);
    EXPECT_NE(glb, nullptr) << err;
    return glb;
}

::testing::AssertionResult run_gen(const std::string &topology, const std::string &url, const std::string &dir)
{
    Child gen;
    if (!gen.start(pmx({"gen", topology, "--db", url}), dir + "/gen.out"))
        return ::testing::AssertionFailure() << "cannot run " << PMX_TOOL;
    const int status = gen.wait();
    if (status != 0) return ::testing::AssertionFailure() << "pmx gen ended with " << status << ":\n" << gen.output();
    return ::testing::AssertionSuccess();
}

pmx_tool::Chassis generate(const std::string &topology)
{
    pmx_tool::Chassis c;
    std::string error;
    EXPECT_TRUE(pmx_tool::generate_chassis(topology, {}, &c, &error)) << error;
    return c;
}

std::string topology_path(const char *name)
{
    return std::string(PMX_SOURCE_DIR) + "/examples/chassis/" + name;
}

// The churn's summary line ("N changes in S s: R changes/s (asked ...)"), shown with the results.
void show_churn_summary(const std::string &output)
{
    std::istringstream lines(output);
    for (std::string line; std::getline(lines, line);)
        if (line.find(" changes in ") != std::string::npos) std::printf("pmx churn: %s\n", line.c_str());
}

// ---- the journal: which value each key held, since when ----

// The earliest moment each value of a key was held ("-" is absence); the generated value and the
// absence of a key the chassis lacks are held from the start.
struct History {
    std::map<std::string, double> first;
    std::string last;
};

struct Journal {
    std::map<std::string, History> keys;
    std::map<uint32_t, double> first_free; // gphyid -> earliest moment no interface held it
    size_t lines = 0;
    std::string error;

    double held_since(const std::string &key, const std::string &value) const
    {
        auto k = keys.find(key);
        if (k == keys.end()) return std::numeric_limits<double>::infinity();
        auto v = k->second.first.find(value);
        return v == k->second.first.end() ? std::numeric_limits<double>::infinity() : v->second;
    }
};

std::string ifx_key(uint32_t ifx)
{
    return "u_intf.pmx_ifx_tbl|" + std::to_string(ifx);
}
std::string sub_key(bool ap, uint32_t ifx)
{
    return std::string(ap ? "u_intf.pmx_sub_ap_intf|" : "u_intf.pmx_sub_route_intf|") + std::to_string(ifx);
}
std::string mod_key(const Slot &s)
{
    return "u_intf.pmx_mod_tbl|" + std::to_string(std::get<0>(s)) + "|" + std::to_string(std::get<1>(s)) + "|" +
           std::to_string(std::get<2>(s));
}

uint32_t hex_field(const nlohmann::json &j, const char *name)
{
    return static_cast<uint32_t>(std::stoul(j.at(name).get<std::string>(), nullptr, 16));
}

Journal read_journal(const std::string &path, const Universe &u)
{
    Journal j;
    auto hold = [&j](const std::string &key, const std::string &value, double t) {
        History &h = j.keys[key];
        if (h.first.empty()) h.first["-"] = kNever; // a key the chassis lacks: absent from the start
        auto [it, fresh] = h.first.emplace(value, t);
        if (!fresh) it->second = std::min(it->second, t);
        h.last = value;
    };
    const Snapshot &g = u.generated;
    std::map<uint32_t, std::set<uint32_t>> holders; // gphyid -> the interfaces on it
    std::map<uint32_t, uint32_t> on;               // ifx -> its gphyid
    for (const auto &[ifx, r] : g.ifx) {
        j.keys[ifx_key(ifx)] = {{{ifx_value(r.gphyid, r.lphyid), kNever}}, ifx_value(r.gphyid, r.lphyid)};
        holders[r.gphyid].insert(ifx);
        on[ifx] = r.gphyid;
    }
    for (const auto &[ifx, s] : g.sub_ap) j.keys[sub_key(true, ifx)] = {{{sub_ap_value(s), kNever}}, sub_ap_value(s)};
    for (const auto &[ifx, s] : g.sub_route)
        j.keys[sub_key(false, ifx)] = {{{sub_route_value(s), kNever}}, sub_route_value(s)};
    for (const auto &[slot, m] : g.mod) {
        const std::string v = std::to_string(m.tbl.status);
        j.keys[mod_key(slot)] = {{{v, kNever}}, v};
    }
    std::ifstream in(path);
    for (std::string line; std::getline(in, line);) {
        const nlohmann::json e = nlohmann::json::parse(line, nullptr, false);
        if (!e.is_object() || !e.contains("t") || !e.contains("key") || !e.contains("op")) {
            j.error = "not a journal line: " + line;
            return j;
        }
        ++j.lines;
        const double t = e["t"].get<double>();
        const std::string key = e["key"];
        const bool del = e["op"] == "del";
        std::string value = "-";
        if (key.starts_with("u_intf.pmx_ifx_tbl|")) {
            const uint32_t ifx = static_cast<uint32_t>(std::stoul(key.substr(key.find('|') + 1)));
            // The port it leaves may be free from now on.
            if (auto o = on.find(ifx); o != on.end()) {
                holders[o->second].erase(ifx);
                if (holders[o->second].empty() && j.first_free.count(o->second) == 0) j.first_free[o->second] = t;
                on.erase(o);
            }
            if (!del) {
                value = ifx_value(hex_field(e, "gphyid"), hex_field(e, "lphyid"));
                on[ifx] = hex_field(e, "gphyid");
                holders[on[ifx]].insert(ifx);
            }
        } else if (key.starts_with("u_intf.pmx_sub_ap_intf|") && !del) {
            value = sub_ap_value({0, hex_field(e, "phyid"), e["evlan"], e["trunk"], hex_field(e, "master_phyid")});
        } else if (key.starts_with("u_intf.pmx_sub_route_intf|") && !del) {
            value = sub_route_value({0, hex_field(e, "phyid"), e["evlan"], hex_field(e, "master_phyid")});
        } else if (key.starts_with("u_intf.pmx_mod_tbl|") && !del) {
            value = std::to_string(e["status"].get<int>());
        }
        hold(key, value, t);
    }
    return j;
}

// The store against the last value of every key of the journal (and the generated one of the
// rest): what the churn was told is stored is there.
Differences lost_changes(const Snapshot &db, const Journal &j)
{
    Differences d;
    auto check = [&d](const std::string &key, const std::string &want, const std::string &have) {
        if (want != have) d.add(key + ": the journal ends with " + want + ", the store has " + have);
    };
    for (const auto &[key, h] : j.keys) {
        const uint32_t n = static_cast<uint32_t>(std::strtoul(key.substr(key.find('|') + 1).c_str(), nullptr, 10));
        if (key.starts_with("u_intf.pmx_ifx_tbl|")) {
            auto it = db.ifx.find(n);
            check(key, h.last, it == db.ifx.end() ? "-" : ifx_value(it->second.gphyid, it->second.lphyid));
        } else if (key.starts_with("u_intf.pmx_sub_ap_intf|")) {
            auto it = db.sub_ap.find(n);
            check(key, h.last, it == db.sub_ap.end() ? "-" : sub_ap_value(it->second));
        } else if (key.starts_with("u_intf.pmx_sub_route_intf|")) {
            auto it = db.sub_route.find(n);
            check(key, h.last, it == db.sub_route.end() ? "-" : sub_route_value(it->second));
        } else if (key.starts_with("u_intf.pmx_mod_tbl|")) {
            int dev = 0, slot = 0, sslot = 0;
            std::sscanf(key.c_str(), "u_intf.pmx_mod_tbl|%d|%d|%d", &dev, &slot, &sslot);
            auto it = db.mod.find({dev, slot, sslot});
            check(key, h.last, it == db.mod.end() ? "-" : std::to_string(it->second.tbl.status));
        }
    }
    return d;
}

// ---- readers ----

// What the reader threads saw: each distinct answer (key, value) with the earliest moment it was
// seen complete.
struct Seen {
    std::unordered_map<std::string, double> earliest;
    void add(const std::string &what, double t)
    {
        auto [it, fresh] = earliest.emplace(what, t);
        if (!fresh) it->second = std::min(it->second, t);
    }
};

// Asks the caches continuously, at random, until stop: interfaces by ifx and by gphyid,
// sub-AP and sub-route interfaces, module ids.
void read_continuously(const Universe &u, uint64_t seed, const std::atomic<bool> &stop, Seen *seen, long *asked)
{
    const std::vector<uint32_t> ifxs(u.ifx.begin(), u.ifx.end()), gphyids(u.gphyids.begin(), u.gphyids.end()),
        subs(u.sub_ifx.begin(), u.sub_ifx.end());
    std::vector<std::pair<Slot, int32_t>> modids;
    for (const auto &[slot, m] : u.mod)
        for (uint32_t i = 0; i < m.tbl.fuid_num && i < LIBPMX_FUID_UNITS_PER_SLOT; ++i)
            for (int8_t k = 0; k < m.tbl.fuid[i].idnum; ++k)
                modids.emplace_back(slot, static_cast<int32_t>(m.tbl.fuid[i].modid[k]));
    uint64_t r = seed;
    auto pick = [&r](size_t n) {
        r = r * 6364136223846793005ULL + 1442695040888963407ULL;
        return static_cast<size_t>((r >> 33) % n);
    };
    long n = 0;
    while (!stop.load(std::memory_order_relaxed)) {
        ++n;
        const size_t what = pick(8);
        if (what <= 2) {
            const uint32_t ifx = ifxs[pick(ifxs.size())];
            libpmx_intf_info_t node{};
            const int rc = libpmx_get_intf_node_by_ifx(ifx, &node);
            seen->add("ifx " + std::to_string(ifx) + "=" + (rc == 0 ? ifx_value(node.gphyid, node.lphyid) : std::to_string(rc)),
                      mono_now());
        } else if (what == 3) {
            const uint32_t g = gphyids[pick(gphyids.size())];
            uint32_t ifx = 0;
            const int rc = libpmx_get_ifx_by_phyid_ext(g, &ifx);
            seen->add("gphyid " + hex(g) + "=" + (rc == 0 ? std::to_string(ifx) : "r" + std::to_string(rc)), mono_now());
        } else if (what <= 5) {
            const uint32_t ifx = subs[pick(subs.size())];
            if (what == 4) {
                libpmx_sub_ap_info_t ap{};
                const int rc = libpmx_get_sub_ap_info_by_phyid_detail(20u << 24 | ifx, &ap, 0);
                seen->add("sub-ap " + std::to_string(ifx) + "=" + (rc == 0 ? sub_ap_value(ap) : std::to_string(rc)),
                          mono_now());
            } else {
                libpmx_sub_route_info_t route{};
                const int rc = libpmx_get_sub_route_info_by_phyid_detail(19u << 24 | ifx, &route, 0);
                seen->add("sub-route " + std::to_string(ifx) + "=" + (rc == 0 ? sub_route_value(route) : std::to_string(rc)),
                          mono_now());
            }
        } else if (!modids.empty()) {
            const auto &[slot, modid] = modids[pick(modids.size())];
            int32_t dev = 0, s = 0, unit = 0;
            const int rc = libpmx_get_dev_slot_unit_by_modid_ext(modid, &dev, &s, &unit);
            seen->add("modid " + std::to_string(modid) + "=" +
                          (rc == 0 ? slot_text({dev, s, 0}) + " unit " + std::to_string(unit) : std::to_string(rc)),
                      mono_now());
        }
    }
    *asked = n;
}

// Each answer against the history of its key: a value held, or an absence, since no later than
// the moment the answer was complete.
Differences impossible_answers(const Seen &seen, const Journal &j, const Universe &u, size_t *distinct_values)
{
    Differences d;
    std::map<int32_t, std::pair<Slot, int32_t>> modid_home; // modid -> its slot and unit
    for (const auto &[slot, m] : u.mod)
        for (uint32_t i = 0; i < m.tbl.fuid_num && i < LIBPMX_FUID_UNITS_PER_SLOT; ++i)
            for (int8_t k = 0; k < m.tbl.fuid[i].idnum; ++k)
                modid_home[static_cast<int32_t>(m.tbl.fuid[i].modid[k])] = {slot, m.tbl.fuid[i].unit};
    std::set<std::string> keys_seen;
    *distinct_values = 0;
    for (const auto &[what, t] : seen.earliest) {
        const size_t eq = what.find('=');
        const std::string subject = what.substr(0, eq), answer = what.substr(eq + 1);
        const bool missing = answer == std::to_string(LIBPMX_E_NOT_FOUND) || answer == "r" + std::to_string(LIBPMX_E_NOT_FOUND);
        const uint32_t n = static_cast<uint32_t>(std::strtoul(subject.substr(subject.find(' ') + 1).c_str(), nullptr, 0));
        double since = std::numeric_limits<double>::infinity();
        if (subject.starts_with("ifx ")) {
            since = j.held_since(ifx_key(n), missing ? "-" : answer);
        } else if (subject.starts_with("sub-ap ") || subject.starts_with("sub-route ")) {
            const std::string key = sub_key(subject.starts_with("sub-ap "), n);
            since = j.keys.count(key) != 0 ? j.held_since(key, missing ? "-" : answer) : missing ? kNever : since;
        } else if (subject.starts_with("gphyid ")) {
            if (missing) {
                auto f = j.first_free.find(n);
                if (f != j.first_free.end()) since = f->second;
            } else {
                // The interface answered held this gphyid, with some lphyid.
                const auto k = j.keys.find(ifx_key(static_cast<uint32_t>(std::stoul(answer))));
                if (k != j.keys.end())
                    for (const auto &[value, first] : k->second.first)
                        if (value.starts_with(hex(n) + "/")) since = std::min(since, first);
            }
        } else if (subject.starts_with("modid ")) {
            const auto &[slot, unit] = modid_home.at(static_cast<int32_t>(n));
            const std::string key = mod_key(slot);
            if (missing) {
                since = std::min(j.held_since(key, "0"), j.held_since(key, "-"));
            } else if (answer == slot_text({std::get<0>(slot), std::get<1>(slot), 0}) + " unit " + std::to_string(unit)) {
                since = j.held_since(key, "1");
            }
        }
        if (!missing) {
            ++*distinct_values;
            keys_seen.insert(subject);
        }
        if (!(since <= t))
            d.add(subject + " answered " + answer + " at " + std::to_string(t) +
                  (std::isinf(since) ? ": never held" : ": held only from " + std::to_string(since)));
    }
    *distinct_values -= std::min(*distinct_values, keys_seen.size()); // the answers beyond one per key
    return d;
}

// ---- the cases ----

class EventsE2E : public ::testing::Test {
public:
    // The clients stop their event threads before the process ends.
    void TearDown() override
    {
        if (producer != nullptr) qv_mom_glb_destroy(producer);
        if (glb != nullptr) {
            qv_mom_thread_detach();
            qv_mom_glb_destroy(glb);
        }
    }

    pmx_test::FleetDir dir;
    qv_mom_glb_t *glb = nullptr;      // the follower's client
    qv_mom_glb_t *producer = nullptr; // a client of the producer's server, when it is another one
};

// The hooks fired once each, in an order their rules allow (docs/events.md): all loaded (1)
// before the card kinds (2, 3, 4), which need its bit; the local module ids (5) before 3 and 4,
// which need its bit too; 2, 3 and 4 in that order, as the completeness record raises them.
void expect_hook_order(const std::vector<int> &fired)
{
    std::map<int, size_t> at;
    for (size_t i = 0; i < fired.size(); ++i) EXPECT_TRUE(at.emplace(fired[i], i).second) << "type " << fired[i] << " fired twice";
    std::string order, missing;
    for (int t : fired) order += " " + std::to_string(t);
    for (int type = 1; type <= 7; ++type)
        if (at.count(type) == 0) missing += " " + std::to_string(type);
    ASSERT_TRUE(missing.empty()) << "never fired:" << missing << "; fired in this order:" << order;
    const std::pair<int, int> before[] = {{1, 2}, {1, 3}, {1, 4}, {5, 3}, {5, 4}, {2, 3}, {3, 4}};
    for (const auto &[a, b] : before) EXPECT_LT(at[a], at[b]) << "type " << a << " after type " << b << "; order: " << order;
}

void gen_while_following(EventsE2E *t, const char *name)
{
    const std::string topology = topology_path(name);
    const pmx_tool::Chassis c = generate(topology);
    const Universe u(c);
    pmx_test::FleetServer server(t->dir.path() + "/db", {});
    ASSERT_TRUE(server.start()) << server.error();
    ASSERT_TRUE(open_follower(server.url(), c, t->dir.path(), &t->glb));
    ASSERT_TRUE(start_library(t->glb));
    // The empty store is loaded first: the chassis then arrives as changes.
    ASSERT_TRUE(wait_for([] { return !hooks_fired().empty(); }, std::chrono::seconds(10)))
        << "all loaded never fired on the empty store";
    ASSERT_TRUE(run_gen(topology, server.url(), t->dir.path()));
    const Differences d = wait_converged(t->glb, u, true);
    EXPECT_EQ(d.count, 0u) << d.text();
    wait_for([] { return hooks_fired().size() >= 7; }, std::chrono::seconds(5));
    expect_hook_order(hooks_fired());
}

TEST_F(EventsE2E, SmallChassisWrittenWhileFollowing)
{
    if (ran_in_own_process()) return;
    gen_while_following(this, "small.topo.json");
}

TEST_F(EventsE2E, MixedChassisWrittenWhileFollowing)
{
    if (ran_in_own_process()) return;
    gen_while_following(this, "mixed.topo.json");
}

// Two readers ask the caches all through a churn: no answer is a value its key never held, nor
// one from the future; afterwards the caches are the store and the store is the journal's end.
TEST_F(EventsE2E, ReadersDuringChurnSeeOnlyHeldValues)
{
    if (ran_in_own_process()) return;
    const Sizes size = sizes();
    const std::string topology = topology_path("mixed.topo.json");
    const pmx_tool::Chassis c = generate(topology);
    const Universe u(c);
    pmx_test::FleetServer server(dir.path() + "/db", {});
    ASSERT_TRUE(server.start()) << server.error();
    ASSERT_TRUE(open_follower(server.url(), c, dir.path(), &glb));
    // The chassis is there before the library starts (the order of a chassis written while it
    // follows is the cases above's): it arrives as the first snapshot.
    ASSERT_TRUE(run_gen(topology, server.url(), dir.path()));
    ASSERT_TRUE(start_library(glb));
    Differences d = wait_converged(glb, u, true);
    ASSERT_EQ(d.count, 0u) << d.text();

    std::atomic<bool> stop{false};
    Seen seen[2];
    long asked[2] = {0, 0};
    std::thread readers[2];
    for (int i = 0; i < 2; ++i)
        readers[i] = std::thread(read_continuously, std::cref(u), 17u + static_cast<uint64_t>(i), std::cref(stop),
                                 &seen[i], &asked[i]);
    const std::string journal = dir.path() + "/churn.jsonl";
    Child churn;
    ASSERT_TRUE(churn.start(pmx({"churn", topology, "--db", server.url(), "--rate", std::to_string(size.rate),
                                 "--seconds", std::to_string(size.churn_seconds), "--seed", "7", "--journal", journal}),
                            dir.path() + "/churn.out"));
    const int status = churn.wait();
    stop = true;
    for (std::thread &r : readers) r.join();
    ASSERT_EQ(status, 0) << churn.output();
    show_churn_summary(churn.output());

    const Journal j = read_journal(journal, u);
    ASSERT_TRUE(j.error.empty()) << j.error;
    EXPECT_GT(j.lines, static_cast<size_t>(size.rate * size.churn_seconds / 2)) << churn.output();
    for (const auto &[key, h] : j.keys)
        if (key.starts_with("u_intf.pmx_sub_")) {
            EXPECT_TRUE(u.sub_ifx.count(static_cast<uint32_t>(std::stoul(key.substr(key.find('|') + 1)))))
                << key << " is beyond what the readers ask";
        }
    Seen all = seen[0];
    for (const auto &[what, t] : seen[1].earliest) all.add(what, t);
    size_t changed_answers = 0;
    d = impossible_answers(all, j, u, &changed_answers);
    EXPECT_EQ(d.count, 0u) << d.text();
    EXPECT_GT(asked[0] + asked[1], 1000) << "the readers hardly ran";
    // The readers saw the churn: keys answered with more than one value in the run.
    EXPECT_GT(changed_answers, 10u) << "the caches hardly changed while the store did";

    d = wait_converged(glb, u, false);
    EXPECT_EQ(d.count, 0u) << d.text();
    const Snapshot db = read_store(glb);
    ASSERT_TRUE(db.ok) << db.error;
    d = lost_changes(db, j);
    EXPECT_EQ(d.count, 0u) << d.text();
}

// The churn paused (SIGSTOP) after each restart, so the store stands still while the caches catch
// up; the store must then hold the end of the journal.
void restarts_during_churn(const std::string &topology, const std::string &producer_url, qv_mom_glb_t *store_glb,
                           qv_mom_glb_t *producer_glb, const Universe &u, const std::string &dir,
                           const std::function<bool(int)> &restart, const std::function<bool()> &store_settled)
{
    const Sizes size = sizes();
    const std::string journal = dir + "/churn.jsonl";
    Child churn;
    ASSERT_TRUE(churn.start(pmx({"churn", topology, "--db", producer_url, "--rate", std::to_string(size.rate),
                                 "--seed", "11", "--journal", journal}),
                            dir + "/churn.out"));
    // The restarts fall in the churn, not in its writing of the chassis.
    ASSERT_TRUE(wait_for([&] { return churn.output().find("churning ") != std::string::npos; }, std::chrono::seconds(30)))
        << churn.output();
    for (int i = 0; i < size.restarts; ++i) {
        SCOPED_TRACE("restart " + std::to_string(i + 1));
        std::this_thread::sleep_for(std::chrono::milliseconds(200 + 37 * (i % 7)));
        ASSERT_TRUE(restart(i));
        std::this_thread::sleep_for(std::chrono::milliseconds(300)); // the churn goes on
        churn.signal(SIGSTOP);
        ASSERT_TRUE(wait_for(store_settled, std::chrono::seconds(30))) << "the store did not settle";
        const Differences d = wait_converged(store_glb, u, false);
        churn.signal(SIGCONT);
        ASSERT_EQ(d.count, 0u) << d.text();
    }
    churn.signal(SIGTERM);
    const int status = churn.wait();
    const std::string out = churn.output();
    ASSERT_EQ(status, 0) << out;
    show_churn_summary(out);
    EXPECT_NE(out.find("retrying until it answers"), std::string::npos) << "the churn saw no outage:\n" << out;
    ASSERT_TRUE(wait_for(store_settled, std::chrono::seconds(30))) << "the store did not settle";
    const Differences d = wait_converged(store_glb, u, false);
    EXPECT_EQ(d.count, 0u) << d.text();
    const Journal j = read_journal(journal, u);
    ASSERT_TRUE(j.error.empty()) << j.error;
    const Snapshot db = read_store(producer_glb);
    ASSERT_TRUE(db.ok) << db.error;
    const Differences lost = lost_changes(db, j);
    EXPECT_EQ(lost.count, 0u) << lost.text();
}

// SIGKILL, a tenth of a second down, and the server started again on its files.
bool kill_and_start(pmx_test::FleetServer &server)
{
    bool ok = server.kill9();
    if (ok) {
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        ok = server.start();
    }
    EXPECT_TRUE(ok) << server.error();
    return ok;
}

TEST_F(EventsE2E, ServerKilledDuringChurnLosesNothing)
{
    if (ran_in_own_process()) return;
    const std::string topology = topology_path("mixed.topo.json");
    const pmx_tool::Chassis c = generate(topology);
    const Universe u(c);
    pmx_test::FleetServer server(dir.path() + "/db", {});
    ASSERT_TRUE(server.start()) << server.error();
    ASSERT_TRUE(open_follower(server.url(), c, dir.path(), &glb));
    // The chassis is there before the library starts (the order of a chassis written while it
    // follows is the cases above's): it arrives as the first snapshot.
    ASSERT_TRUE(run_gen(topology, server.url(), dir.path()));
    ASSERT_TRUE(start_library(glb));
    const Differences d = wait_converged(glb, u, true);
    ASSERT_EQ(d.count, 0u) << d.text();
    restarts_during_churn(
        topology, server.url(), glb, glb, u, dir.path(),
        [&](int) { return kill_and_start(server); }, [] { return true; });
}

// The follower reads a replica; the producer writes to the primary. The replica and the primary
// are killed in turn: the replica resynchronises from the primary, the follower from the replica.
TEST_F(EventsE2E, ReplicaFollowerConverges)
{
    if (ran_in_own_process()) return;
    const std::string topology = topology_path("mixed.topo.json");
    const pmx_tool::Chassis c = generate(topology);
    const Universe u(c);
    pmx_test::FleetServer primary(dir.path() + "/primary", {true, 0});
    ASSERT_TRUE(primary.start()) << primary.error();
    pmx_test::FleetServer replica(dir.path() + "/replica", {false, primary.port()});
    ASSERT_TRUE(replica.start()) << replica.error();
    ASSERT_TRUE(wait_for([&] { return replica.linked(); }, std::chrono::seconds(10))) << "the replica never linked";
    ASSERT_TRUE(open_follower(replica.url(), c, dir.path(), &glb));
    producer = open_store(primary.url());
    ASSERT_NE(producer, nullptr);
    // The replica holds what the primary holds, read through each.
    auto replicated = [&] {
        if (!replica.linked()) return false;
        const Snapshot a = read_store(producer), b = read_store(glb);
        return a.ok && b.ok && canonical(a) == canonical(b);
    };
    ASSERT_TRUE(run_gen(topology, primary.url(), dir.path()));
    ASSERT_TRUE(wait_for(replicated, std::chrono::seconds(30)));
    ASSERT_TRUE(start_library(glb));
    const Differences d = wait_converged(glb, u, true);
    ASSERT_EQ(d.count, 0u) << d.text();
    restarts_during_churn(
        topology, primary.url(), glb, producer, u, dir.path(),
        [&](int i) { return kill_and_start(i % 2 == 0 ? replica : primary); }, replicated);
}

} // namespace

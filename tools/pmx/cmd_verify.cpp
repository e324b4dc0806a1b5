// pmx verify: generates a chassis and, from the point of view of each card in turn (a process of
// its own, as on the switch: the library's local state is process-wide), fills the caches from
// the records as the change callbacks would, runs every physical-id conversion in modes 0, 1 and
// 2 for every port of the chassis and the card's static module ids, and compares each answer with
// the generator's truth table.
#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <tuple>
#include <vector>

#include "commands.h"
#include "db_session.h"
#include "hex.h"
#include "libpmx_cap.h"
#include "libpmx_errno.h"
#include "libpmx_intf.h"
#include "libpmx_mod.h"
#include "progress_bar.h"
#include "topology.h"
#include "u_intf.pb-c.h"

namespace pmx_tool
{
namespace
{

using Json = nlohmann::ordered_json;

struct VerifyOptions {
    std::string topology;
    std::string db; // empty: a private embedded store per card
    int show = 10;  // mismatches listed in full
    int jobs = 2;   // card processes at once
    bool progress = true;
    bool json = false;
};

// Mode 0 last: a subcard port's sub-slot is learnt by the first lookup that may read.
constexpr int kModes[] = {1, 2, 0};

// One card's checks, run in its own process; the result as one JSON object.
class CardCheck
{
public:
    CardCheck(const Chassis &c, const std::string &card) : chassis_(c), card_(card) {}

    Json run()
    {
        for (const TruthRow &row : chassis_.truth) {
            if (row.kind == PortKind::SubAp || row.kind == PortKind::SubRoute) continue;
            const bool mine = card_ == place(row);
            const bool host = mine && row.sslot == 0; // a subcard's chips are its host's
            for (int mode : kModes) {
                check_mod_port(row, mode);
                if (mine) check_local(row, mode, host);
            }
            if (mine) ++ports_;
        }
        check_static_modids();
        Json by = Json::object();
        for (const auto &[key, n] : mismatches_by_) by[key] = n;
        return Json{{"card", card_}, {"ports", ports_}, {"checked", checked_}, {"mismatches", bad_},
                    {"by", by}, {"first", first_}};
    }

private:
    static std::string place(const TruthRow &r)
    {
        return std::to_string(r.dev) + "/" + std::to_string(r.slot) + "/" + std::to_string(r.sslot);
    }

    void expect(const char *conv, int mode, const std::string &asked, int rc, const std::string &got,
                const std::string &want)
    {
        ++checked_;
        if (rc == LIBPMX_OK && got == want) return;
        ++bad_;
        ++mismatches_by_[std::string(conv) + " mode " + std::to_string(mode)];
        if (first_.size() < 50)
            first_.push_back({{"card", card_}, {"conversion", conv}, {"mode", mode}, {"asked", asked},
                              {"want", want}, {"got", rc == LIBPMX_OK ? got : "result " + std::to_string(rc)}});
    }

    // Conversions every card can make for any port of the chassis.
    void check_mod_port(const TruthRow &r, int mode)
    {
        uint32_t g = 0, m = 0, p = 0;
        int rc = libpmx_get_phyid_by_mod_port_detail(r.modid, r.port, &g, mode);
        expect("phyid_by_mod_port", mode, std::to_string(r.modid) + "/" + std::to_string(r.port), rc, hex32(g),
               hex32(r.gphyid));
        rc = libpmx_get_mod_port_by_phyid_detail(r.gphyid, &m, &p, mode);
        expect("mod_port_by_phyid", mode, hex32(r.gphyid), rc, std::to_string(m) + "/" + std::to_string(p),
               std::to_string(r.modid) + "/" + std::to_string(r.port));
    }

    // Conversions of the card's own ports (a subcard has no modids of its own).
    void check_local(const TruthRow &r, int mode, bool host)
    {
        const std::string unit_port = std::to_string(r.unit) + "/" + std::to_string(r.port);
        uint32_t l = 0, g = 0, u = 0, p = 0, m = 0;
        int rc = libpmx_get_lphyid_by_unit_port_detail(r.unit, r.port, &l, mode);
        expect("lphyid_by_unit_port", mode, unit_port, rc, hex32(l), hex32(r.lphyid));
        if (mode == 0) { // the unit-port conversion has a plain and an _ext form only
            rc = libpmx_get_unit_port_by_lphyid_ext(r.lphyid, &u, &p);
            expect("unit_port_by_lphyid_ext", mode, hex32(r.lphyid), rc, std::to_string(u) + "/" + std::to_string(p),
                   unit_port);
        } else if (mode == 2) {
            rc = libpmx_get_unit_port_by_lphyid(r.lphyid, &u, &p);
            expect("unit_port_by_lphyid", mode, hex32(r.lphyid), rc, std::to_string(u) + "/" + std::to_string(p),
                   unit_port);
        }
        if (!host) return;
        rc = libpmx_get_gphyid_by_lphyid_detail(r.lphyid, &g, mode);
        expect("gphyid_by_lphyid", mode, hex32(r.lphyid), rc, hex32(g), hex32(r.gphyid));
        rc = libpmx_get_lphyid_by_gphyid_detail(r.gphyid, &l, mode);
        expect("lphyid_by_gphyid", mode, hex32(r.gphyid), rc, hex32(l), hex32(r.lphyid));
        rc = libpmx_get_mod_port_by_phyid_detail(r.lphyid, &m, &p, mode);
        expect("mod_port_by_phyid", mode, hex32(r.lphyid), rc, std::to_string(m) + "/" + std::to_string(p),
               std::to_string(r.modid) + "/" + std::to_string(r.port));
    }

    // The card's static module ids against the ids of its module table.
    void check_static_modids()
    {
        std::vector<uint32_t> want;
        for (const Record &rec : chassis_.records) {
            if (rec.kind() != &u_intf__pmx_mod_tbl__descriptor) continue;
            const auto *t = static_cast<const UIntf__PmxModTbl *>(static_cast<const void *>(rec.value.get()));
            if (t->index != nullptr && card_ == std::to_string(t->index->devid) + "/" +
                                                   std::to_string(t->index->slotid) + "/" +
                                                   std::to_string(t->index->sslotid))
                want.assign(t->id, t->id + t->n_id);
        }
        if (want.empty()) return;
        std::vector<uint32_t> ids(64, 0);
        int32_t n = 0;
        const int rc = libpmx_get_static_modid(ids.data(), 64, &n);
        ids.resize(rc == LIBPMX_OK ? static_cast<size_t>(n) : 0);
        auto text = [](const std::vector<uint32_t> &v) {
            std::string s;
            for (uint32_t id : v) s += (s.empty() ? "" : " ") + std::to_string(id);
            return s;
        };
        expect("static_modid", 2, card_, rc, text(ids), text(want));
    }

    const Chassis &chassis_;
    std::string card_;
    int64_t ports_ = 0, checked_ = 0, bad_ = 0;
    std::map<std::string, int64_t> mismatches_by_;
    Json first_ = Json::array();
};

// The child: the store of this card's point of view, its caches filled, its checks run.
[[noreturn]] void check_in_child(const VerifyOptions &opt, const Chassis &c, const std::string &card, int fd)
{
    Json result;
    if (!c.caps_path.empty()) setenv("PMX_CAP_FILE", c.caps_path.c_str(), 1);
    libpmx_cap_init(nullptr, "pmx");
    DbSession session;
    DbOptions db;
    db.url = opt.db.empty() ? "embedded:verify-" + card : opt.db;
    size_t failed = 0;
    if (!session.open(db) || session.write_batch(c.records, 0, c.records.size(), &failed) != 0 ||
        apply_followed_records() != 0) {
        result = {{"card", card}, {"error", "cannot write or apply the records of " + card}};
    } else {
        result = CardCheck(c, card).run();
    }
    const std::string text = result.dump() + "\n";
    for (size_t done = 0; done < text.size();) {
        const ssize_t w = write(fd, text.data() + done, text.size() - done);
        if (w <= 0) break;
        done += static_cast<size_t>(w);
    }
    close(fd);
    std::fflush(nullptr);
    _exit(0);
}

// A card's check process: its pid and the read end of its result pipe.
struct Running {
    std::string card;
    pid_t pid = -1;
    int fd = -1;
};

// Starts one card's checks in a child process; an error object when it cannot.
Json start_card(const VerifyOptions &opt, const std::string &card, Running *run)
{
    Chassis c;
    std::string error;
    GenOptions gen;
    gen.card = card;
    if (!generate_chassis(opt.topology, gen, &c, &error)) return Json{{"card", card}, {"error", error}};
    int fds[2];
    if (pipe(fds) != 0) return Json{{"card", card}, {"error", "no pipe"}};
    std::fflush(nullptr);
    const pid_t pid = fork();
    if (pid == 0) {
        close(fds[0]);
        check_in_child(opt, c, card, fds[1]);
    }
    close(fds[1]);
    if (pid < 0) {
        close(fds[0]);
        return Json{{"card", card}, {"error", "cannot start the check process of " + card}};
    }
    *run = Running{card, pid, fds[0]};
    return nullptr;
}

// The result of a started card's checks, once its process has ended.
Json finish_card(const Running &run)
{
    std::string text;
    char buf[4096];
    for (ssize_t n; (n = read(run.fd, buf, sizeof buf)) > 0;) text.append(buf, static_cast<size_t>(n));
    close(run.fd);
    int status = 0;
    waitpid(run.pid, &status, 0);
    if (text.empty())
        return Json{{"card", run.card}, {"error", "the check process of " + run.card +
                                                      " ended without a result (status " + std::to_string(status) + ")"}};
    return Json::parse(text, nullptr, false);
}

int verify(VerifyOptions opt)
{
    if (!opt.db.empty()) opt.jobs = 1; // the cards' local records are singletons of one store
    Chassis chassis;
    std::string error;
    if (!generate_chassis(opt.topology, {}, &chassis, &error)) {
        std::fprintf(stderr, "pmx: %s\n", error.c_str());
        return kExitFailed;
    }
    std::vector<std::string> cards; // every card with ports, in chassis order
    std::set<std::string> seen;
    for (const TruthRow &r : chassis.truth) {
        if (r.kind == PortKind::SubAp || r.kind == PortKind::SubRoute) continue;
        const std::string card = std::to_string(r.dev) + "/" + std::to_string(r.slot) + "/" + std::to_string(r.sslot);
        if (seen.insert(card).second) cards.push_back(card);
    }
    int64_t ports = 0, checked = 0, bad = 0, errors = 0;
    std::map<std::string, int64_t> by;
    Json first = Json::array();
    size_t done = 0;
    ProgressBar bar("pmx verify:", "cards", cards.size(),
                    opt.progress ? ProgressBar::Show::Always : ProgressBar::Show::Never);
    auto take = [&](const Json &r, const std::string &card) {
        bar.update(++done, card);
        if (r.is_discarded() || r.contains("error")) {
            ++errors;
            std::fprintf(stderr, "\npmx: card %s: %s\n", card.c_str(),
                         r.is_discarded() ? "unreadable result" : r["error"].get<std::string>().c_str());
            return;
        }
        ports += r["ports"].get<int64_t>();
        checked += r["checked"].get<int64_t>();
        bad += r["mismatches"].get<int64_t>();
        for (const auto &[key, n] : r["by"].items()) by[key] += n.get<int64_t>();
        for (const Json &m : r["first"])
            if (static_cast<int>(first.size()) < opt.show) first.push_back(m);
    };
    // Up to opt.jobs card processes at once; results taken in the order the cards started.
    std::vector<Running> running;
    for (const std::string &card : cards) {
        if (static_cast<int>(running.size()) >= opt.jobs) {
            take(finish_card(running.front()), running.front().card);
            running.erase(running.begin());
        }
        Running run;
        const Json failed = start_card(opt, card, &run);
        if (!failed.is_null())
            take(failed, card);
        else
            running.push_back(run);
    }
    for (const Running &run : running) take(finish_card(run), run.card);
    bar.finish();
    if (opt.json) {
        Json summary = {{"topology", opt.topology}, {"cards", cards.size()}, {"ports", ports},
                        {"answers", checked},       {"mismatches", bad},     {"errors", errors}};
        summary["by_conversion_and_mode"] = Json::object();
        for (const auto &[key, n] : by) summary["by_conversion_and_mode"][key] = n;
        summary["first"] = first;
        std::printf("%s\n", summary.dump().c_str());
        return bad == 0 && errors == 0 ? kExitOk : kExitFailed;
    }
    std::printf("verified %s: %zu cards, %lld ports, %lld answers checked, %lld mismatches\n", opt.topology.c_str(),
                cards.size(), static_cast<long long>(ports), static_cast<long long>(checked),
                static_cast<long long>(bad));
    for (const auto &[key, n] : by) std::printf("  %-36s %lld mismatches\n", key.c_str(), static_cast<long long>(n));
    for (const Json &m : first)
        std::printf("  card %s: %s mode %d of %s: want %s, got %s\n", m["card"].get<std::string>().c_str(),
                    m["conversion"].get<std::string>().c_str(), m["mode"].get<int>(),
                    m["asked"].get<std::string>().c_str(), m["want"].get<std::string>().c_str(),
                    m["got"].get<std::string>().c_str());
    return bad == 0 && errors == 0 ? kExitOk : kExitFailed;
}

} // namespace

Command add_verify_command(CLI::App &app)
{
    auto opt = std::make_shared<VerifyOptions>();
    CLI::App *sub = app.add_subcommand("verify", "Check every conversion of a generated chassis against its truth table");
    sub->footer("Each card with ports takes its turn as the local card, in a process of its own: the\n"
                "chassis records (with that card's local records) go into a store, the caches are\n"
                "filled from them as the change callbacks fill them, and every physical-id conversion\n"
                "runs in modes 0, 1 and 2 for every port of the chassis (the card's own ports for the\n"
                "local conversions), with the card's static module ids. Exit status 1 on any mismatch.\n"
                "Examples:\n"
                "  pmx verify examples/chassis/small.topo.json\n"
                "  pmx verify examples/chassis/large.topo.json --db unix:///tmp/pmxdb/redis.sock");
    sub->add_option("topology", opt->topology, "The chassis topology")->required();
    sub->add_option("--db", opt->db, "A database server for the stores (default: a private embedded store per card)");
    sub->add_option("--show", opt->show, "Mismatches listed in full (default 10)");
    sub->add_option("--jobs", opt->jobs, "Card processes at once (default 2; 1 with --db, whose singletons they share)")
        ->check(CLI::Range(1, 64));
    sub->add_flag("!--no-progress", opt->progress, "No progress bar on standard error");
    sub->add_flag("--json", opt->json, "Print the summary as one JSON object (counts, mismatches by conversion and "
                                       "mode, the first mismatches)");
    return Command{sub, [opt] { return verify(*opt); }};
}

} // namespace pmx_tool

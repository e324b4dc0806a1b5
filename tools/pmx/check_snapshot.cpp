#include "check_snapshot.h"

#include "progress_bar.h"

#include <charconv>
#include <chrono>
#include <cstdio>
#include <cstring>

#include "db_session.h"
#include "libpmx_mom.h"
#include "p_dev.pb-c.h"
#include "record_kinds.h"
#include "u_intf.pb-c.h"

namespace pmx_tool
{
namespace
{

using Clock = std::chrono::steady_clock;

// The numbers of a key text after the record name ("u_intf.pmx_mod_tbl|1|3|0": 1 3 0); false
// when a part is no number.
bool key_numbers(const std::string &key, std::vector<long long> *out)
{
    size_t at = key.find('|');
    while (at != std::string::npos) {
        const size_t next = key.find('|', at + 1);
        const char *first = key.data() + at + 1;
        const char *last = next == std::string::npos ? key.data() + key.size() : key.data() + next;
        long long v = 0;
        const auto [end, ec] = std::from_chars(first, last, v);
        if (ec != std::errc() || end != last) return false;
        out->push_back(v);
        at = next;
    }
    return true;
}

// The single key field of an interface or physical-port key; the record's own index when the
// key text does not give it.
template <typename Rec, typename Index> uint32_t port_key(const std::string &key, const Rec *r, uint32_t Index::*field)
{
    std::vector<long long> v;
    if (key_numbers(key, &v) && v.size() == 1) return static_cast<uint32_t>(v[0]);
    return r->index != nullptr ? r->index->*field : 0;
}

template <typename Rec> PortRecord port_record(const std::string &key, const Rec *r)
{
    PortRecord p;
    p.key = key;
    p.ifx = r->ifx;
    p.gphyid = r->gphyid;
    p.lphyid = r->lphyid;
    p.modid = r->modid;
    p.mport = r->mport;
    p.unit = r->unit;
    p.port = r->port;
    p.dev = r->dev;
    p.slot = r->slot;
    p.sslot = r->sslot;
    p.lport = r->lport;
    p.core = r->core;
    p.count = r->count;
    return p;
}

void take_mod_table(const std::string &key, const UIntf__PmxModTbl *r, Snapshot *out)
{
    ModTable t;
    t.key = key;
    if (r->index != nullptr) {
        t.dev = r->index->devid;
        t.slot = r->index->slotid;
        t.sslot = r->index->sslotid;
    }
    std::vector<long long> v;
    if (key_numbers(key, &v) && v.size() == 3) {
        t.dev = static_cast<int32_t>(v[0]);
        t.slot = static_cast<int32_t>(v[1]);
        t.sslot = static_cast<int32_t>(v[2]);
    }
    t.status = r->status;
    t.card_type = r->card_type;
    t.id_num = r->id_num;
    t.ids.assign(r->id, r->id + r->n_id);
    for (size_t i = 0; i < r->n_fuid_info; ++i)
        if (const UIntf__PmxFuidInfo *f = r->fuid_info[i]; f != nullptr)
            t.units.push_back(ModUnit{f->unit, std::vector<uint32_t>(f->id, f->id + f->n_id)});
    out->mod_tables.push_back(std::move(t));
}

void take_card(const std::string &key, const PDev__CardInfo *r, Snapshot *out)
{
    CardRecord c;
    c.key = key;
    if (r->index != nullptr) {
        c.t_mod = r->index->t_mod;
        c.dev = r->index->devid;
        c.slot = r->index->slotid;
        c.sslot = r->index->sslotid;
    }
    std::vector<long long> v;
    if (key_numbers(key, &v) && v.size() == 4) {
        c.t_mod = static_cast<int32_t>(v[0]);
        c.dev = static_cast<int32_t>(v[1]);
        c.slot = static_cast<int32_t>(v[2]);
        c.sslot = static_cast<int32_t>(v[3]);
    }
    // The card type as the library reads it: the type of the card's static information.
    if (r->static_info != nullptr) {
        c.node_type = r->static_info->node_type;
        if (r->static_info->index != nullptr) c.card_type = r->static_info->index->type;
    }
    out->cards.push_back(std::move(c));
}

void take_card_address(const std::string &key, const UIntf__PmxCardAddressId *r, Snapshot *out)
{
    CardAddress a;
    a.key = key;
    if (r->index != nullptr) {
        a.card_type = r->index->card_type;
        a.subcard_type = r->index->subcard_type;
    }
    std::vector<long long> v;
    if (key_numbers(key, &v) && v.size() == 2) {
        a.card_type = static_cast<int32_t>(v[0]);
        a.subcard_type = static_cast<int32_t>(v[1]);
    }
    a.cid = r->card_pmx_id;
    a.scid = r->subcard_pmx_id;
    out->card_addresses.push_back(std::move(a));
}

void take(const char *key_text, const ProtobufCMessage *m, Snapshot *out)
{
    const std::string key = key_text;
    const ProtobufCMessageDescriptor *d = m->descriptor;
    if (d == &u_intf__pmx_ifx_tbl__descriptor) {
        const auto *r = as<UIntf__PmxIfxTbl>(m);
        out->interfaces[port_key(key, r, &UIntf__IfxIndex::ifx)] = port_record(key, r);
    } else if (d == &u_intf__pmx_phy_tbl__descriptor) {
        const auto *r = as<UIntf__PmxPhyTbl>(m);
        out->phys[port_key(key, r, &UIntf__PhyIndex::phyid)] = port_record(key, r);
    } else if (d == &u_intf__pmx_mod_tbl__descriptor) {
        take_mod_table(key, as<UIntf__PmxModTbl>(m), out);
    } else if (d == &p_dev__card_info__descriptor) {
        take_card(key, as<PDev__CardInfo>(m), out);
    } else if (d == &u_intf__pmx_card_address_id__descriptor) {
        take_card_address(key, as<UIntf__PmxCardAddressId>(m), out);
    } else if (d == &p_dev__dm_card_stattr_t__descriptor) {
        const auto *r = as<PDev__DmCardStattrT>(m);
        if (r->index != nullptr && r->chipid_card_mode != nullptr)
            out->alloc_type[r->index->type] = r->chipid_card_mode->alloc_type;
    }
}

struct ScanState {
    Snapshot *out;
    const libpmx_record_kind_t *kind;
    ProgressBar *progress;
    size_t kinds_done;
};

int on_record(const char *key, const ProtobufCMessage *record, void *arg)
{
    auto *s = static_cast<ScanState *>(arg);
    ++s->out->records;
    if (record == nullptr)
        s->out->unpackable.push_back(RecordRef{s->kind->record, key});
    else
        take(key, record, s->out);
    s->progress->update(s->kinds_done, std::to_string(s->out->records) + " records, " + s->kind->record->name);
    return 0;
}

} // namespace

int read_snapshot(const std::string &url, Snapshot *out, const ReadProgress &progress, std::string *error)
{
    std::vector<const libpmx_record_kind_t *> kinds;
    for (uint32_t i = 0; const libpmx_record_kind_t *k = libpmx_record_kind_at(i); ++i)
        if (k->followed != 0) kinds.push_back(k);
    ProgressBar line("pmx check: reading", "kinds", kinds.size(),
                     progress.show ? ProgressBar::Show::Always : ProgressBar::Show::Never);
    void *ctx = qv_mom_get_thread_local_global();
    for (size_t i = 0; i < kinds.size(); ++i) {
        ScanState state{out, kinds[i], &line, i};
        const int rc = qv_mom_scan_sync(ctx, kinds[i]->db, kinds[i]->record, on_record, &state);
        if (rc < 0) {
            line.finish();
            *error = "cannot read " + std::string(kinds[i]->record->name) + " from database " +
                     std::to_string(kinds[i]->db) + " of " + url + ": " + mom_error_text(rc);
            return rc;
        }
        ++out->kinds;
        line.update(i + 1, std::to_string(out->records) + " records");
    }
    line.finish();
    return 0;
}

} // namespace pmx_tool

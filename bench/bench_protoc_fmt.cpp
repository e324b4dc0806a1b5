// Record formatter throughput: records per second written into a buffer, indented (arg 0) and
// compact (arg 1), for an interface record and a line card's static attributes. References run
// in the same process: one snprintf writing the interface record's exact text, and protobuf-c
// packing the card record (the same descriptor walk, binary output).
#include <benchmark/benchmark.h>

#include <cinttypes>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "libpmx_protoc_fmt.h"
#include "p_dev.pb-c.h"
#include "u_intf.pb-c.h"

namespace
{

constexpr size_t kBufSize = 1 << 20;

void set_rate(benchmark::State &state, size_t bytes_per_record)
{
    state.counters["records/s"] =
        benchmark::Counter(static_cast<double>(state.iterations()), benchmark::Counter::kIsRate);
    state.counters["bytes/record"] = static_cast<double>(bytes_per_record);
}

struct IfxRecord {
    UIntf__IfxIndex key = U_INTF__IFX_INDEX__INIT;
    UIntf__PmxIfxTbl rec = U_INTF__PMX_IFX_TBL__INIT;
    IfxRecord()
    {
        key.ifx = 4123;
        rec.index = &key;
        rec.ifx = 4123;
        rec.gphyid = 0x07061a05;
        rec.lphyid = 0x08000105;
        rec.user_phyid = 0x07061a05;
        rec.modid = 26;
        rec.mport = 5;
        rec.unit = 1;
        rec.port = 5;
        rec.dev = 1;
        rec.slot = 3;
        rec.lport = 6;
        rec.vid = 0;
        rec.llcbtype = 2;
        rec.is_valid = 1;
        rec.count = 1;
        rec.core = 0;
        rec.sslot = 0;
    }
};

// The interface record's text written by hand, in either form.
int ifx_reference(char *buf, size_t len, const UIntf__PmxIfxTbl &r, bool compact)
{
#define IFX_ARGS                                                                                   \
    r.index->ifx, r.ifx, r.gphyid, r.lphyid, r.user_phyid, r.modid, r.mport, r.unit, r.port,       \
        r.dev, r.slot, r.lport, r.vid, r.llcbtype, r.is_valid, r.count, r.core, r.sslot
    if (compact)
        return std::snprintf(
            buf, len,
            "UIntf__PmxIfxTbl-{index:UIntf__IfxIndex-{ifx:%u},ifx:%u,gphyid:0x%08x,lphyid:0x%08x,"
            "user_phyid:0x%08x,modid:%d,mport:%d,unit:%d,port:%d,dev:%d,slot:%d,lport:%d,vid:%d,"
            "llcbtype:%d,is_valid:%d,count:%d,core:%d,sslot:%d}",
            IFX_ARGS);
    return std::snprintf(
        buf, len,
        "UIntf__PmxIfxTbl-{\n    index      : UIntf__IfxIndex-{ifx:%u},\n"
        "    ifx        : %u,\n    gphyid     : 0x%08x,\n    lphyid     : 0x%08x,\n"
        "    user_phyid : 0x%08x,\n    modid      : %d,\n    mport      : %d,\n"
        "    unit       : %d,\n    port       : %d,\n    dev        : %d,\n"
        "    slot       : %d,\n    lport      : %d,\n    vid        : %d,\n"
        "    llcbtype   : %d,\n    is_valid   : %d,\n    count      : %d,\n"
        "    core       : %d,\n    sslot      : %d\n}",
        IFX_ARGS);
#undef IFX_ARGS
}

// A 48-port line card: two chips of 24 ports each, every port with its string and speed lists.
struct CardRecord {
    static constexpr int kChips = 2;
    static constexpr int kPortsPerChip = 24;

    PDev__DmCardStattrIndex key;
    PDev__DmCardStattrT rec;
    PDev__ChipidCardMode mode;
    std::vector<PDev__DmChipAttrT> chips;
    std::vector<PDev__DmChipAttrT *> chip_ptrs;
    std::vector<PDev__DmPortAttrT> ports;
    std::vector<std::vector<PDev__DmPortAttrT *>> port_ptrs;
    std::vector<std::string> names;
    std::vector<char *> intf_attrs;
    std::vector<char *> cap_flags;
    std::vector<int32_t> speeds = {1000, 10000, 25000};
    std::vector<char *> cpu_names;
    std::vector<int32_t> cpu_types = {3};
    std::string card_name = "M6000-48XS6CQ", memory_type = "DDR4", card_class = "LC";
    std::string attr_a = "ETH", attr_b = "SPLIT", cap_a = "FEC", cap_b = "AUTONEG", cpu = "cpu0";

    CardRecord() : chips(kChips), ports(kChips * kPortsPerChip), port_ptrs(kChips)
    {
        intf_attrs = {attr_a.data(), attr_b.data()};
        cap_flags = {cap_a.data(), cap_b.data()};
        cpu_names = {cpu.data()};
        names.reserve(ports.size() + kChips); // their texts must not move
        // The library exports the descriptors, not the generated init functions.
        protobuf_c_message_init(&p_dev__dm_card_stattr_index__descriptor, &key);
        protobuf_c_message_init(&p_dev__dm_card_stattr_t__descriptor, &rec);
        protobuf_c_message_init(&p_dev__chipid_card_mode__descriptor, &mode);
        key.type = 0x1a05;
        rec.index = &key;
        rec.type = 0x1a05;
        rec.mib_type = 17;
        rec.name = card_name.data();
        rec.chip_num = kChips;
        rec.switch_num = kChips;
        rec.cpu_num = 1;
        rec.temp_num = 4;
        rec.consume = 180;
        rec.memory_type = memory_type.data();
        rec.memory_size = 8192;
        rec.nandflash_size = 4096;
        rec.node_name = P_DEV__NODE_NAME__LC;
        rec.mgmt_type = P_INTF__INTFTYPE_E__GIGABITETHERNET;
        rec.n_cpu_name_array = cpu_names.size();
        rec.cpu_name_array = cpu_names.data();
        rec.n_cpu_type_array = cpu_types.size();
        rec.cpu_type_array = cpu_types.data();
        rec.card_class = card_class.data();
        mode.alloc_type = P_DEV__ALLOC_TYPE__STATIC;
        mode.id_num = 2;
        mode.idnum_per_unit = 1;
        rec.chipid_card_mode = &mode;
        rec.def_mtu = 1500;
        rec.min_mtu = 64;
        rec.max_mtu = 9216;
        for (int c = 0; c < kChips; ++c) {
            PDev__DmChipAttrT &chip = chips[static_cast<size_t>(c)];
            protobuf_c_message_init(&p_dev__dm_chip_attr_t__descriptor, &chip);
            names.push_back("chip" + std::to_string(c));
            chip.name = names.back().data();
            chip.port_num = kPortsPerChip;
            chip.is_switch_chip = 1;
            chip.chip_type = 88;
            for (int p = 0; p < kPortsPerChip; ++p) {
                PDev__DmPortAttrT &port = ports[static_cast<size_t>(c * kPortsPerChip + p)];
                fill_port(port, c, p);
                port_ptrs[static_cast<size_t>(c)].push_back(&port);
            }
            chip.n_port_attr = kPortsPerChip;
            chip.port_attr = port_ptrs[static_cast<size_t>(c)].data();
            chip_ptrs.push_back(&chip);
        }
        rec.n_chip_attr_array = chip_ptrs.size();
        rec.chip_attr_array = chip_ptrs.data();
    }

    void fill_port(PDev__DmPortAttrT &port, int unit, int p)
    {
        protobuf_c_message_init(&p_dev__dm_port_attr_t__descriptor, &port);
        port.type = P_INTF__INTFTYPE_E__TWENTYFIVEGIGABITETHERNET;
        port.unit = unit;
        port.port = p + 1;
        port.lport = unit * kPortsPerChip + p + 1;
        port.user_port = port.lport;
        port.mport = p + 1;
        port.n_intf_attr_array = intf_attrs.size();
        port.intf_attr_array = intf_attrs.data();
        port.intf_attr = 0x3;
        port.n_cap_flag_array = cap_flags.size();
        port.cap_flag_array = cap_flags.data();
        port.cap_flag = 0x30000;
        port.switchport = 1;
        port.medium_type = P_INTF__MEDIUM_TYPE_E__FIBER;
        port.speed_cap = 25000;
        port.n_supp_speed = speeds.size();
        port.supp_speed = speeds.data();
        names.push_back("xe" + std::to_string(unit) + "/" + std::to_string(p));
        port.hardware_name = names.back().data();
        port.def_mtu = 1500;
        port.min_mtu = 64;
        port.max_mtu = 9216;
        port.bandwidth = 25000000;
        port.enc_proto = P_INTF__INTF_ENCAP_TYPE_E__ETHERII;
        port.fec_mode = P_INTF__FEC_MODE_E__FEC_MODE_RS;
        port.lane_num = 1;
    }
};

void BM_FormatIfxRecord(benchmark::State &state)
{
    static const IfxRecord r;
    auto buf = std::make_unique<char[]>(kBufSize);
    const int32_t flags = state.range(0) != 0 ? LIBPMX_FMT_COMPACT : 0;
    for (auto _ : state) {
        const int rc =
            libpmx_protoc_format_message_to_buffer(buf.get(), kBufSize, flags, &r.rec.base);
        benchmark::DoNotOptimize(rc);
        benchmark::ClobberMemory();
    }
    set_rate(state, std::string(buf.get()).size());
}
BENCHMARK(BM_FormatIfxRecord)->Arg(0)->Arg(1);

void BM_ReferenceIfxSnprintf(benchmark::State &state)
{
    static const IfxRecord r;
    auto buf = std::make_unique<char[]>(kBufSize);
    auto check = std::make_unique<char[]>(kBufSize);
    const bool compact = state.range(0) != 0;
    libpmx_protoc_format_message_to_buffer(check.get(), kBufSize, compact ? LIBPMX_FMT_COMPACT : 0,
                                           &r.rec.base);
    ifx_reference(buf.get(), kBufSize, r.rec, compact);
    if (std::string(buf.get()) != check.get()) {
        state.SkipWithError("reference text differs from the formatter's");
        return;
    }
    for (auto _ : state) {
        const int n = ifx_reference(buf.get(), kBufSize, r.rec, compact);
        benchmark::DoNotOptimize(n);
        benchmark::ClobberMemory();
    }
    set_rate(state, std::string(buf.get()).size());
}
BENCHMARK(BM_ReferenceIfxSnprintf)->Arg(0)->Arg(1);

void BM_FormatCardRecord(benchmark::State &state)
{
    static const CardRecord card;
    auto buf = std::make_unique<char[]>(kBufSize);
    const int32_t flags = state.range(0) != 0 ? LIBPMX_FMT_COMPACT : 0;
    for (auto _ : state) {
        const int rc =
            libpmx_protoc_format_message_to_buffer(buf.get(), kBufSize, flags, &card.rec.base);
        if (rc != 0) {
            state.SkipWithError("format failed");
            return;
        }
        benchmark::ClobberMemory();
    }
    set_rate(state, std::string(buf.get()).size());
}
BENCHMARK(BM_FormatCardRecord)->Arg(0)->Arg(1);

void BM_ReferenceCardPack(benchmark::State &state)
{
    static const CardRecord card;
    auto buf = std::make_unique<uint8_t[]>(kBufSize);
    size_t n = 0;
    for (auto _ : state) {
        n = protobuf_c_message_pack(&card.rec.base, buf.get());
        benchmark::DoNotOptimize(n);
        benchmark::ClobberMemory();
    }
    set_rate(state, n);
}
BENCHMARK(BM_ReferenceCardPack);

} // namespace

BENCHMARK_MAIN();

// Builds the seed corpus of fuzz_records from the sample records: for each hex file named
// <record full name>.<what>.hex it writes the record behind the input header, once with a
// buffer that holds most records and once with one that fills; the first sample also gets
// the two refused buffer sizes, 0 and 1.
// Usage: make_seeds <output dir> <hex file>...
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "hex.h"
#include "libpmx_protoc_fmt.h"
#include "record_input.h"

namespace fs = std::filesystem;

namespace
{

bool write_seed(const fs::path &path, size_t selector, size_t buffer_size,
                const std::vector<uint8_t> &packed)
{
    std::vector<uint8_t> seed;
    seed.push_back(static_cast<uint8_t>(selector & 0xff));
    if (pmx_fuzz::selector_width(libpmx_protoc_message_count()) == 2)
        seed.push_back(static_cast<uint8_t>(selector >> 8));
    seed.push_back(static_cast<uint8_t>(buffer_size & 0xff));
    seed.push_back(static_cast<uint8_t>(buffer_size >> 8));
    seed.insert(seed.end(), packed.begin(), packed.end());
    std::ofstream out(path, std::ios::binary);
    out.write(reinterpret_cast<const char *>(seed.data()),
              static_cast<std::streamsize>(seed.size()));
    return static_cast<bool>(out);
}

int make_seeds(const fs::path &dir, const fs::path &sample, bool first)
{
    std::string stem = sample.stem().string(); // u_intf.pmx_ifx_tbl.ifx12
    size_t dot = stem.find('.');
    size_t kind_end = dot == std::string::npos ? dot : stem.find('.', dot + 1);
    std::string kind = stem.substr(0, kind_end);

    const ProtobufCMessageDescriptor *desc = libpmx_protoc_find_message(kind.c_str());
    size_t selector = 0;
    while (selector < libpmx_protoc_message_count() && libpmx_protoc_message_at(selector) != desc)
        ++selector;
    if (desc == nullptr || selector == libpmx_protoc_message_count()) {
        std::fprintf(stderr, "make_seeds: %s: unknown record kind '%s'\n", sample.c_str(),
                     kind.c_str());
        return 1;
    }

    std::ifstream in(sample);
    std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    pmx_tool::HexResult hex = pmx_tool::parse_hex(text);
    if (!in.good() && !in.eof()) hex.error = "cannot read the file";
    if (!hex.ok()) {
        std::fprintf(stderr, "make_seeds: %s: %s\n", sample.c_str(), hex.error.c_str());
        return 1;
    }
    ProtobufCMessage *msg =
        protobuf_c_message_unpack(desc, nullptr, hex.bytes.size(), hex.bytes.data());
    if (msg == nullptr) {
        std::fprintf(stderr, "make_seeds: %s: does not unpack as %s\n", sample.c_str(),
                     kind.c_str());
        return 1;
    }
    protobuf_c_message_free_unpacked(msg, nullptr);

    std::vector<size_t> sizes{pmx_fuzz::kBufferSizeLimit - 1, 48};
    if (first) sizes.insert(sizes.end(), {0, 1});
    for (size_t size : sizes) {
        fs::path path = dir / (stem + ".buf" + std::to_string(size));
        if (!write_seed(path, selector, size, hex.bytes)) {
            std::fprintf(stderr, "make_seeds: cannot write %s\n", path.c_str());
            return 1;
        }
    }
    return 0;
}

} // namespace

int main(int argc, char **argv)
{
    if (argc < 3) {
        std::fprintf(stderr, "usage: make_seeds <output dir> <hex file>...\n");
        return 2;
    }
    fs::path dir = argv[1];
    std::error_code ec;
    fs::create_directories(dir, ec);
    if (ec) {
        std::fprintf(stderr, "make_seeds: cannot create %s: %s\n", dir.c_str(),
                     ec.message().c_str());
        return 1;
    }
    for (int i = 2; i < argc; ++i) {
        if (make_seeds(dir, argv[i], i == 2) != 0) return 1;
    }
    return 0;
}

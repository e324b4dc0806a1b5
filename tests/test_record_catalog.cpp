// The record catalogue against what depends on it: the documented table, the data source's
// in-keys, and the codes the data-source registration returns.
#include <gtest/gtest.h>

#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "libpmx_mom.h"
#include "log_capture.h"

namespace {

// "| `p_dev.card_info` | `p_dev.card_info_index` | 1 | hash | waits | yes | ..." from the table of
// docs/database.md under "The library's records".
std::vector<std::string> documented_rows()
{
    std::ifstream doc(PMX_SOURCE_DIR "/docs/database.md");
    std::vector<std::string> rows;
    std::string line;
    bool in_section = false;
    while (std::getline(doc, line)) {
        if (line.starts_with("## ")) in_section = line == "## The library's records";
        if (in_section && line.starts_with("| `")) rows.push_back(line.substr(0, line.rfind(" | ")));
    }
    return rows;
}

std::string catalogue_row(const libpmx_record_kind_t &k)
{
    std::ostringstream row;
    row << "| `" << k.record->name << "` | "
        << (k.key == k.record ? std::string("(singleton)") : "`" + std::string(k.key->name) + "`") << " | " << k.db
        << " | " << (k.hash ? "hash" : "plain") << " | " << (k.waits ? "waits" : "once") << " | "
        << (k.followed ? "yes" : "no");
    return row.str();
}

} // namespace

// The in-keys are the followed kinds in catalogue order, which the documented table pins.
TEST(RecordCatalogue, DocumentedTableAndInKeysAreTheCatalogue)
{
    std::vector<std::string> catalogue;
    const qv_mom_key_desc_t *keys = libpmx_mom_in_keys();
    int n = 0;
    for (uint32_t i = 0; const libpmx_record_kind_t *k = libpmx_record_kind_at(i); ++i) {
        catalogue.push_back(catalogue_row(*k));
        EXPECT_EQ(libpmx_record_kind_find(k->record->name), k);
        if (k->followed == 0) continue;
        ASSERT_LT(n, LIBPMX_MOM_IN_KEYS);
        EXPECT_TRUE(keys[n].key == k->key && keys[n].value == k->record && keys[n].db == k->db) << n;
        EXPECT_STREQ(keys[n++].owner, "libpmx");
    }
    EXPECT_EQ(n, LIBPMX_MOM_IN_KEYS);
    EXPECT_EQ(documented_rows(), catalogue);
    EXPECT_EQ(libpmx_record_kind_find("u_intf.pmx_nope"), nullptr);
}

// Without the library's database handle the registration fails in the platform; the caller gets
// the library's code, the log has both.
TEST(RecordCatalogue, RegistrationFailureReturnsTheLibrarysCode)
{
    LogCapture log(1);
    ASSERT_EQ(g_libpmx_mom_ab, nullptr);
    EXPECT_EQ(libpmx_mom_init(nullptr, "x"), LIBPMX_E_FAIL);
    EXPECT_TRUE(log.has(LIBPMX_ZLOG_ERROR, "reg ds fail, ds_id:" + std::to_string(QV_MOM_E_INVAL) + "\n"));
    EXPECT_TRUE(log.has(LIBPMX_ZLOG_ERROR, "libpmx ds register failed, ret:-11\n"));
    EXPECT_EQ(g_libpmx_mom.ds, -1);
}

// Host capabilities: lookups by path, every failure kind with its log line, and the defaults.
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <future>
#include <string>
#include <thread>
#include <tuple>
#include <utility>

#include "log_capture.h"
#include "qv_cap.h"
#include "temp_dir.h"

namespace {

const pmx_test::TempDir g_dir; // the files this run writes

libqv_cap_ctrl_info_t *load(const std::string &path, int expected_rc = LIBQV_CAP_OK)
{
    libqv_cap_ctrl_info_t *info = nullptr;
    EXPECT_EQ(libqv_cap_ctrl_info_init(&info, path.c_str()), expected_rc) << path;
    return info;
}

int32_t int_of(const libqv_cap_ctrl_info_t *info, const char *name)
{
    int32_t v = -1;
    EXPECT_EQ(libqv_cap_get_capacity_int32(info, name, &v), LIBQV_CAP_OK) << name;
    return v;
}

// True when a logged line names both the file and the capability (or detail).
bool logged(const LogCapture &log, const std::string &file, const std::string &what)
{
    for (const auto &l : log.lines())
        if (l.text.find(file) != std::string::npos && l.text.find(what) != std::string::npos) return true;
    return false;
}

const char *const kCaps = R"({
  // comments are allowed
  "max-block-times": 3000, "min-int": -2147483648, "too-big": 2147483648, "too-small": -2147483649,
  "ratio": 1.5, "flag-true": true, "flag-one": 1, "flag-two": 2, "board": "demo-board",
  "modid-info": { "26": { "min": 4, "max": 1023 } },
  "slots": [ { "name": "a" }, { "ids": [7, 9] } ]
})";

} // namespace

TEST(QvCap, ReadsNestedNamesAndArraysAndReportsEachFailure)
{
    std::string path = g_dir.write("caps.json", kCaps);
    libqv_cap_ctrl_info_t *info = load(path);
    ASSERT_NE(info, nullptr);
    EXPECT_EQ(int_of(info, "min-int"), INT32_MIN);
    EXPECT_EQ(int_of(info, "modid-info/26/min"), 4);
    EXPECT_EQ(int_of(info, "slots/1/ids/1"), 9);
    bool flag = false;
    EXPECT_TRUE(libqv_cap_get_capacity_bool(info, "flag-one", &flag) == LIBQV_CAP_OK && flag);
    char buf[11]; // exactly "demo-board" and its terminator
    EXPECT_EQ(libqv_cap_get_capacity_str(info, "board", buf, sizeof buf), LIBQV_CAP_OK);
    EXPECT_STREQ(buf, "demo-board");

    // A failure leaves the output as it was and logs the file and the name.
    LogCapture log;
    const std::pair<const char *, int> int_failures[] = {
        {"no-such", LIBQV_CAP_E_MISSING}, {"modid-info/27/min", LIBQV_CAP_E_MISSING},
        {"slots/2", LIBQV_CAP_E_MISSING}, {"slots/x", LIBQV_CAP_E_MISSING},
        {"board/0", LIBQV_CAP_E_MISSING}, {"board", LIBQV_CAP_E_TYPE},
        {"too-big", LIBQV_CAP_E_TYPE},    {"too-small", LIBQV_CAP_E_TYPE},
        {"ratio", LIBQV_CAP_E_TYPE},      {"flag-true", LIBQV_CAP_E_TYPE},
    };
    for (const auto &[name, rc] : int_failures) {
        log.clear();
        int32_t v = 77;
        EXPECT_EQ(libqv_cap_get_capacity_int32(info, name, &v), rc) << name;
        EXPECT_TRUE(v == 77 && logged(log, path, name)) << name;
    }
    log.clear();
    EXPECT_EQ(libqv_cap_get_capacity_bool(info, "flag-two", &flag), LIBQV_CAP_E_TYPE);
    EXPECT_TRUE(flag && logged(log, path, "flag-two"));
    log.clear();
    char small[10] = "untouched";
    EXPECT_EQ(libqv_cap_get_capacity_str(info, "board", small, sizeof small), LIBQV_CAP_E_TYPE);
    EXPECT_TRUE(std::string(small) == "untouched" && logged(log, path, "board"));
    libqv_cap_ctrl_info_free(info);
}

TEST(QvCap, ThreadDefaultOverProcessDefaultAndFreeClearsThem)
{
    libqv_cap_ctrl_info_t *first = load(g_dir.write("first.json", R"({"who": 1})"));
    libqv_cap_ctrl_info_t *second = load(g_dir.write("second.json", R"({"who": 2})"));
    EXPECT_EQ(int_of(nullptr, "who"), 1); // the first loaded is the process default

    std::promise<void> set_up, freed;
    int32_t own = 0, after_free = 0;
    std::thread reader([&] {
        EXPECT_EQ(libqv_cap_init_thread(second), LIBQV_CAP_OK);
        own = int_of(nullptr, "who");
        set_up.set_value();
        freed.get_future().wait();
        after_free = int_of(nullptr, "who");
    });
    set_up.get_future().wait();
    EXPECT_EQ(int_of(nullptr, "who"), 1); // other threads keep the process default
    libqv_cap_ctrl_info_free(second);
    freed.set_value();
    reader.join();
    EXPECT_TRUE(own == 2 && after_free == 1) << own << " " << after_free;

    EXPECT_EQ(libqv_cap_init_thread(first), LIBQV_CAP_OK);
    libqv_cap_ctrl_info_free(first); // clears this thread's default and the process default
    int32_t v = 5;
    EXPECT_EQ(libqv_cap_get_capacity_int32(nullptr, "who", &v), LIBQV_CAP_E_INVAL);
    libqv_cap_ctrl_info_t *third = load(g_dir.write("third.json", R"({"who": 3})"));
    EXPECT_EQ(int_of(nullptr, "who"), 3);
    libqv_cap_ctrl_info_free(third);
}

TEST(QvCap, FileFromArgumentEnvironmentOrBesideTheLibraryAndLoadFailures)
{
    LogCapture log;
    const std::tuple<std::string, int, const char *> failures[] = {
        {g_dir.path() + "/absent.json", LIBQV_CAP_E_FILE, "No such file"},
        {g_dir.path(), LIBQV_CAP_E_FILE, "directory"},
        {g_dir.write("bad.json", "{\n  \"a\": 1,\n  \"b\": tru\n}"), LIBQV_CAP_E_PARSE, "line 3, column 11"},
        {g_dir.write("array.json", "[1, 2]"), LIBQV_CAP_E_PARSE, "not array"},
        {g_dir.write("huge.json", "{\"a\": 1e400}"), LIBQV_CAP_E_PARSE, "number overflow"},
    };
    for (const auto &[path, rc, detail] : failures) {
        log.clear();
        EXPECT_EQ(load(path, rc), nullptr);
        EXPECT_TRUE(logged(log, path, detail)) << path;
    }

    std::string path = g_dir.write("env.json", "{}");
    ASSERT_EQ(setenv("PMX_CAP_FILE", path.c_str(), 1), 0);
    libqv_cap_ctrl_info_t *info = load("");
    ASSERT_NE(info, nullptr);
    EXPECT_EQ(libqv_cap_ctrl_info_path(info), path);
    libqv_cap_ctrl_info_free(info);
    ASSERT_EQ(unsetenv("PMX_CAP_FILE"), 0);

    // The build tree lays the library and its data out as an install does: the copy under its
    // data directory is the default, not the source checkout's file.
    info = load("");
    ASSERT_NE(info, nullptr);
    EXPECT_EQ(libqv_cap_ctrl_info_path(info), std::filesystem::canonical(PMX_TEST_BUILD_CAP_FILE).string());
    EXPECT_EQ(int_of(info, "max-block-times"), 3000);
    libqv_cap_ctrl_info_free(info);
}

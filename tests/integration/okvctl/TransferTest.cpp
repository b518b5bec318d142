#include "ToolRun.h"

#include "support/Files.h"

#include <JsonForm.h>

#include <nlohmann/json.hpp>

#include <gmock/gmock.h>

namespace okvctl_test::transfer {

using nlohmann::json;
using support::TempFolder;
using testing::AllOf;
using testing::HasSubstr;
using Words = std::vector<std::string>;

namespace {

std::string done(const Words& words, const std::string& input = {}) {
    const auto ran = run(words, input);
    EXPECT_EQ(ran.code, 0) << testing::PrintToString(words) << ran.error;
    EXPECT_EQ(ran.error, "");
    return ran.out;
}

/// An export without what tells only which store it comes from.
json exported() {
    auto store = json::parse(done({"export"}));
    store.erase("epoch");
    store.erase("revision");
    return store;
}

void fillStore() {
    done({"set", "dc-a=text", "dc-bytes=\xFF\xFE", "dc-empty="});
    done({"set", "--type=json", "dc-json=[1, 2.5, {\"a\": null}, {\"$date\": 0.25}]"});
    done({"set", "--type=data", "dc-syscmnf-data=AP8="});
    done({"users", "assign", "501", "7"});
    done({"users", "assign", "502", "9"});
    done({"users", "switch", "501", "1"});
    done({"users", "current", "7"});
    done({"set", "--user=7", "dc-a=own"});
    done({"lists", "set", "hammer_list", "--user=7", "--type=json", "[\"x\"]"});
    done({"lock", "dc-a"});
    done({"procs", "kill", "add", "A b.app=ProcessA"});
    done({"clock", "set", "2026-01-31T23:59:59Z"});
}

}  // namespace

TEST(Export, ComesBackEqualFromAFreshStore) {
    const TempFolder folder;
    json before;
    {
        const DataCenter server;
        fillStore();
        before = exported();
        done({"export", folder / "store.json"});
    }
    const DataCenter fresh;
    EXPECT_NE(exported(), before);
    done({"import", folder / "store.json"});
    EXPECT_EQ(exported(), before);
}

TEST(Export, GoesThroughAPipeIntoImport) {
    const DataCenter server;
    fillStore();
    const auto before = exported();
    const auto text = done({"export", "-"});
    done({"unset", "dc-a", "dc-json"});
    done({"users", "remove", "9"});
    done({"import", "-"}, text);
    EXPECT_EQ(exported(), before);
}

TEST(Export, IsAPropertyListByFormatOrByName) {
    const DataCenter server;
    const TempFolder folder;
    done({"set", "dc-a=text"});
    done({"users", "assign", "501", "7"});
    const auto before = exported();
    const auto file = folder / "store.plist";
    done({"export", file});
    EXPECT_THAT(support::bytesOf(file), HasSubstr("<key>dc-a</key>"));
    EXPECT_EQ(done({"export", "--format=plist"}), support::bytesOf(file));
    EXPECT_TRUE(json::accept(done({"export", "--json"})));
    done({"export", "--json", file});
    EXPECT_TRUE(json::accept(support::bytesOf(file)));
    done({"export", "--format=plist", file});
    done({"unset", "dc-a"});
    done({"import", file});
    EXPECT_EQ(exported(), before);
}

TEST(Export, NamesTheKeyThatAPropertyListHasNoFormFor) {
    const DataCenter server;
    done({"set", "--type=json", "dc-odd=[null]"});
    const TempFolder folder;
    const auto ran = run({"export", folder / "store.plist"});
    EXPECT_EQ(ran.code, 1);
    EXPECT_THAT(ran.error, AllOf(HasSubstr("dc-odd"), HasSubstr("--format json has")));
    EXPECT_EQ(support::bytesOf(folder / "store.plist"), "");
}

TEST(Import, TakesABinaryPropertyList) {
    const DataCenter server;
    const TempFolder folder;
    // {"format": 1, "everybody": {"dc-a": "b"}}
    std::string list("bplist00");
    list += "\xD2\x01\x02\x03\x04";  // 8: {1: 3, 2: 4}
    list +=
        "\x56"
        "format"
        "\x59"
        "everybody";                     // 13, 20
    list += std::string("\x10\x01", 2);  // 30: 1
    list +=
        "\xD1\x05\x06"
        "\x54"
        "dc-a"
        "\x51"
        "b";  // 32, 35, 40
    list += std::string("\x08\x0D\x14\x1E\x20\x23\x28", 7);
    list += std::string(6, '\0') + std::string("\x01\x01", 2) + std::string(7, '\0') + "\x07" +
            std::string(8, '\0') + std::string(7, '\0') + "\x2A";
    done({"import", folder.write("store", list)});
    EXPECT_EQ(done({"get", "dc-a"}), "b\n");
}

TEST(Import, DryRunTellsTheDifferenceAndStoresNothing) {
    const DataCenter server;
    const TempFolder folder;
    done({"set", "dc-same=1", "dc-other=1", "dc-gone=1"});
    done({"set", "--user=1", "dc-own=1"});
    const auto before = done({"export"});
    const auto file = folder.write("new.json", R"({"format": 1,
        "everybody": {"dc-same": "1", "dc-other": "2", "dc-new": "1"},
        "users": {"1": {"settings": {"dc-mine": 5}}}})");
    EXPECT_EQ(done({"--no-legend", "import", "--dry-run", file}),
              "settings  everybody  changed  dc-other\n"
              "settings  everybody  added    dc-new\n"
              "settings  everybody  removed  dc-gone\n"
              "settings  user 1     added    dc-mine\n"
              "settings  user 1     removed  dc-own\n");
    const auto told = json::parse(done({"--json", "import", "--dry-run", file}))["changes"];
    ASSERT_EQ(told.size(), 5U);
    EXPECT_EQ(told[0], json::parse(R"({"part": "settings", "whose": "everybody",
        "change": "changed", "key": "dc-other", "before": "1", "after": "2"})"));
    EXPECT_EQ(done({"export"}), before);
}

TEST(Import, DryRunTellsExactlyWhatTheImportThenChanges) {
    const DataCenter server;
    const TempFolder folder;
    fillStore();
    const auto file = folder.write("store.json", done({"export"}));
    EXPECT_EQ(done({"--no-legend", "import", "--dry-run", file}), "");
    done({"set", "dc-a=changed"});
    done({"unlock", "dc-a"});
    done({"unset", "--user=7", "dc-a"});
    EXPECT_NE(done({"--no-legend", "import", "--dry-run", file}), "");
    done({"import", file});
    EXPECT_EQ(done({"--no-legend", "import", "--dry-run", file}), "");
}

TEST(Import, OfABadEntryNamesItAndStoresNothing) {
    const DataCenter server;
    done({"set", "dc-a=1"});
    const auto before = exported();
    const std::string large(300000, 'x');
    const struct {
        std::string file;
        const char* named;
    } rows[] = {
        {R"({"format": 1, "everybody": {"dc-b": 1, "dc\u0001c": 1}})", "everybody.\"dc\\u0001c\""},
        {R"({"format": 1, "everybody": {"dc-b": {"$data": "?"}}})", "in everybody.dc-b"},
        {R"({"format": 1, "everybody": {"dc-b": 1,}})", "no JSON at byte"},
        {R"({"format": 1, "everybody": {"dc-b": 1, "dc-b": 2}})", "\"dc-b\" stands twice"},
        {R"({"format": 1, "users": {"1": {"settings": {"dc-syscmnf-x": 1}}}})",
         "users.1.settings.dc-syscmnf-x"},
        {R"({"format": 1, "everybody": {"dc-b": ")" + large + "\"}}", "dc-b: larger than 262144"},
        {R"({"format": 1, "users": {"1": {}, "3": {"settings": {"dc-b": ")" + large + "\"}}}}",
         "user 3, dc-b: larger than"},
        {"<plist><dict><key>format</key><integer>x</integer></dict></plist>", "line 1, column"},
    };
    const TempFolder folder;
    for (const auto& row : rows) {
        const auto ran = run({"import", folder.write("file", row.file)});
        EXPECT_EQ(ran.code, 1);
        EXPECT_EQ(ran.out, "");
        EXPECT_THAT(ran.error, HasSubstr(row.named));
        EXPECT_EQ(std::count(ran.error.begin(), ran.error.end(), '\n'), 1);
    }
    EXPECT_EQ(exported(), before);
}

TEST(Import, ReadsOnlyRegularFilesOfABoundedSize) {
    const DataCenter server;
    for (const auto* file : {"/dev/zero", "/tmp", "/no/such/file"}) {
        const auto ran = run({"import", file});
        EXPECT_EQ(ran.code, 1);
        EXPECT_THAT(ran.error, HasSubstr(file));
    }
    const TempFolder folder;
    const auto file = folder.write("large", "");
    ASSERT_EQ(truncate(file.c_str(), 65L << 20), 0);
    EXPECT_EQ(run({"import", file}).code, 1);
    Child shell("/bin/sh", {"-c", OKVCTL_PROGRAM " import - </dev/zero 2>/dev/null"});
    EXPECT_EQ(shell.wait(), 1);
}

TEST(Import, OfAManyEntriesIsOneChange) {
    const DataCenter server;
    auto store = json::parse(R"({"format": 1})");
    for (int i = 0; i < 9000; ++i) store["everybody"]["dc-many-" + std::to_string(i)] = i;
    const TempFolder folder;
    done({"import", folder.write("many.json", store.dump())});
    EXPECT_EQ(json::parse(done({"--json", "status"}))["revision"], 1);
    EXPECT_EQ(json::parse(done({"--json", "list"})).size(), 9000U);
}

TEST(Import, ByWhomItIsNotAllowedEndsWith4) {
    if (geteuid() != 0) GTEST_SKIP() << "only root can be another account";
    const DataCenter server;
    const TempFolder folder;
    for (const Words& words : {Words{"export"}, Words{"import", "-"}}) {
        const auto ran = run(words, "{\"format\": 1}", 65533);
        EXPECT_EQ(ran.code, 4) << ran.error;
        EXPECT_THAT(ran.error, HasSubstr("okvadmin"));
    }
}

}  // namespace okvctl_test::transfer

#include "ToolRun.h"

#include "support/Files.h"

#include <StoreFile.h>
#include <Verb.h>

#include <nlohmann/json.hpp>

#include <gmock/gmock.h>

#include <set>

namespace okvctl_test::formats {

using support::TempFolder;
using testing::AllOf;
using testing::HasSubstr;
using Words = std::vector<std::string>;

namespace {

Ran as(const char* format, Words words) {
    words.insert(words.begin(), {"--format", format});
    return run(words);
}

void done(const Words& words) {
    const auto ran = run(words);
    ASSERT_EQ(ran.code, 0) << testing::PrintToString(words) << ran.error;
}

/// What a call can be printed as; the same call in each of them, one after the other.
struct Row {
    Words words;
    const char* formats;
};

constexpr char kTables[] = "table json plist";
constexpr char kValues[] = "table json plist raw";
constexpr char kDocuments[] = "json plist";

// One after the other: later ones need what earlier ones did.
std::vector<Row> verbsOfSettingsAndUsers() {
    return {{{"set", "dc-a=1"}, kDocuments},
            {{"set", "--user=1", "dc-a=x"}, kDocuments},
            {{"get", "dc-a", "--user=1"}, kValues},
            {{"get", "dc-a", "dc-a"}, kValues},
            {{"list"}, kTables},
            {{"describe", "dc-a", "--user=1"}, kTables},
            {{"lock", "dc-a"}, kDocuments},
            {{"locks"}, kTables},
            {{"unlock", "dc-a"}, kDocuments},
            {{"unset", "dc-none"}, kDocuments},
            {{"users", "assign", "501", "2"}, kDocuments},
            {{"users"}, kTables},
            {{"users", "list"}, kTables},
            {{"users", "default"}, kValues},
            {{"users", "max"}, kValues},
            {{"users", "current"}, kValues},
            {{"users", "current", "1"}, kDocuments},
            {{"users", "switch", "501", "1"}, kDocuments},
            {{"lists", "set", "user_setting", "x", "--user=1"}, kDocuments},
            {{"lists", "get", "user_setting", "--user=1"}, kValues}};
}

std::vector<Row> otherVerbs(const std::string& file) {
    return {{{"procs", "white", "add", "a=b"}, kDocuments},
            {{"procs", "white"}, kTables},
            {{"procs", "white", "remove", "z"}, kDocuments},
            {{"procs", "system"}, kTables},
            {{"urls"}, kTables},
            {{"clock", "set", "2026-01-31T00:00:00Z"}, kDocuments},
            {{"clock", "get"}, kValues},
            {{"clock", "start"}, kDocuments},
            {{"clock", "stop"}, kDocuments},
            {{"export"}, kDocuments},
            {{"import", file}, kDocuments},
            {{"import", "--dry-run", file}, kTables},
            {{"status"}, kTables},
            {{"ping"}, kTables},
            {{"doctor"}, kTables},
            {{"ps"}, kTables},
            {{"ps", "--managed"}, kTables},
            {{"category", "encode", std::string(128, '1')}, kValues},
            {{"category", "decode", "gAAAAAAAAAAAAAAAAAAAAQ=="}, kValues},
            {{"completions", "bash"}, "json plist raw"}};
}

std::vector<Row> everyVerb(const std::string& file) {
    auto rows = verbsOfSettingsAndUsers();
    for (auto& row : otherVerbs(file)) rows.push_back(std::move(row));
    return rows;
}

void expectDocument(const std::string& format, const Words& words, const Ran& ran) {
    if (format == "json") {
        EXPECT_TRUE(nlohmann::json::parse(ran.out).is_object()) << testing::PrintToString(words);
        EXPECT_EQ(ran.out.find('\n'), ran.out.size() - 1) << testing::PrintToString(words);
    }
    if (format == "plist") {
        const auto parsed = okvctl::parseStore(ran.out);
        EXPECT_TRUE(parsed && parsed.value->is<okv::Dictionary>())
            << testing::PrintToString(words) << parsed.error;
    }
}

void tryFormat(const std::string& format, const Row& row) {
    const auto ran = as(format.c_str(), row.words);
    const auto shown = testing::PrintToString(row.words) + format;
    if (std::string(row.formats).find(format) != std::string::npos) {
        EXPECT_EQ(ran.code, 0) << shown << ran.error;
        EXPECT_NE(ran.out, "") << shown;
        return expectDocument(format, row.words, ran);
    }
    EXPECT_EQ(ran.code, 2) << shown;
    EXPECT_EQ(ran.out, "") << shown;
    EXPECT_THAT(ran.error, AllOf(HasSubstr("it prints no " + format), HasSubstr("usage: okvctl")));
}

}  // namespace

TEST(Formats, OfEveryVerbParseOrAreRefusedAsUsage) {
    const DataCenter server;
    const TempFolder folder;
    const auto file = folder.write("store.json", "{\"format\": 1}");
    std::set<std::string> tried;
    for (const auto& row : everyVerb(file)) {
        tried.insert(row.words[0]);
        for (const auto* format : {"table", "json", "plist", "raw"}) tryFormat(format, row);
    }
    // Both take something away, so each of them is asked once.
    const Row gone[] = {{{"users", "unassign", "501"}, kDocuments},
                        {{"users", "remove", "2"}, kDocuments}};
    for (const auto& row : gone) {
        tryFormat("raw", row);
        tryFormat("table", row);
        tryFormat("json", row);
    }
    // WatchTest, CompletionScriptTest and ProcessVerbsTest read what these print.
    tried.insert({"watch", "complete", "quit"});
    for (const auto* verb : okvctl::verbs())
        EXPECT_TRUE(tried.count(std::string(verb->name)) == 1) << verb->name;
}

TEST(Formats, ThatAreRefusedChangeNothing) {
    const DataCenter server;
    for (const Words& words : {Words{"set", "dc-a=1"}, Words{"users", "assign", "501", "2"},
                               Words{"lock", "dc-a"}, Words{"procs", "kill", "add", "a=b"},
                               Words{"clock", "start"}, Words{"users", "switch", "501", "1"}}) {
        EXPECT_EQ(as("raw", words).code, 2) << testing::PrintToString(words);
    }
    EXPECT_EQ(nlohmann::json::parse(run({"--json", "status"}).out)["revision"], 0);
}

TEST(Formats, RawIsAValuesBytesAndNothingElse) {
    const DataCenter server;
    done({"set", "dc-text=two\nlines", "dc-bytes=\xFF"});
    done({"set", "--type=data", "dc-data=AP8="});
    done({"set", "--type=json", "dc-list=[1, \"x\"]"});
    EXPECT_EQ(as("raw", {"get", "dc-text"}).out, "two\nlines");
    EXPECT_EQ(as("raw", {"get", "dc-bytes"}).out, "\xFF");
    EXPECT_EQ(as("raw", {"get", "dc-data"}).out, std::string("\0\xFF", 2));
    EXPECT_EQ(as("raw", {"get", "dc-list"}).out, "[1,\"x\"]");
    EXPECT_EQ(as("raw", {"get", "dc-bytes", "dc-text"}).out, "\xFFtwo\nlines");
    EXPECT_EQ(as("raw", {"users", "max"}).out, "1");
    EXPECT_EQ(as("raw", {"get", "dc-none"}).code, 10);
}

TEST(Formats, APropertyListLeavesOutWhatIsNotSetAndNamesWhatItCannotHold) {
    const DataCenter server;
    done({"set", "dc-a=1"});
    done({"set", "--type=json", "dc-odd={\"x\": null}"});
    const auto ran = as("plist", {"get", "dc-a", "dc-none"});
    EXPECT_EQ(ran.code, 10);
    EXPECT_EQ(okvctl::parseStore(ran.out).value, okv::Value(okv::Dictionary{{"dc-a", "1"}}));
    const auto odd = as("plist", {"get", "dc-odd"});
    EXPECT_EQ(odd.code, 1);
    EXPECT_EQ(odd.out, "");
    EXPECT_THAT(odd.error, AllOf(HasSubstr("dc-odd"), HasSubstr("--format json has")));
}

TEST(Formats, OfWatchAreWordsAndJson) {
    const DataCenter server;
    EXPECT_EQ(as("plist", {"watch"}).code, 2);
    EXPECT_EQ(as("raw", {"watch"}).code, 2);
}

TEST(Legend, StandsAroundTablesUnlessItIsTurnedOff) {
    const DataCenter server;
    done({"set", "dc-a=1"});
    EXPECT_EQ(run({"list"}).out, "KEY   TYPE    VALUE\ndc-a  string  1\n\n1 key\n");
    EXPECT_EQ(run({"list", "--no-legend"}).out, "dc-a  string  1\n");
    EXPECT_EQ(run({"locks"}).out, "0 locked keys\n");
    EXPECT_EQ(run({"locks", "--no-legend"}).out, "");
    EXPECT_EQ(run({"get", "dc-a", "--format=table", "--no-legend"}).out, "dc-a  string  1\n");
    EXPECT_THAT(run({"describe", "dc-a"}).out, testing::StartsWith("key     dc-a\n"));
}

}  // namespace okvctl_test::formats

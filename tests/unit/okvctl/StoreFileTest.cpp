#include "StoreFile.h"

#include "Output.h"
#include "StoreCheck.h"
#include "StoreDifference.h"
#include "ToolError.h"

#include "support/Files.h"

#include <gmock/gmock.h>

#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

using okv::Array;
using okv::Dictionary;
using okv::Null;
using okv::Value;
using okvctl::checkStore;
using okvctl::differencesBetween;
using okvctl::parseStore;
using okvctl::ToolError;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

namespace {

constexpr char kXml[] =
    "<?xml version=\"1.0\"?><plist version=\"1.0\"><dict><key>a</key><integer>5</integer></dict>"
    "</plist>";

std::string mistakeIn(const Value& store) {
    try {
        checkStore(store);
    } catch (const ToolError& error) {
        EXPECT_EQ(error.code(), okvctl::ExitCode::failure);
        return error.what();
    }
    return "none";
}

/// A store with one part beside what every store has.
Dictionary storeWith(const char* part, const Value& content) {
    return {{"format", 1}, {part, content}};
}

Dictionary accountWith(const char* part, const Value& content) {
    return storeWith("accounts", Dictionary{{"501", Dictionary{{part, content}}}});
}

Dictionary userWith(const char* part, const Value& content) {
    return storeWith("users", Dictionary{{"3", Dictionary{{part, content}}}});
}

struct StoreRow {
    Value store;
    const char* mistake;
};

class Check : public testing::TestWithParam<StoreRow> {};

std::string told(const okvctl::Difference& difference) {
    return difference.part + "|" + difference.whose + "|" + std::string(difference.change) + "|" +
           difference.key;
}

std::vector<std::string> toldBetween(const Dictionary& store, const Dictionary& file) {
    std::vector<std::string> lines;
    for (const auto& difference : differencesBetween(store, file))
        lines.push_back(told(difference));
    return lines;
}

}  // namespace

TEST(StoreFile, IsReadByWhatItsFirstBytesSay) {
    const Value expected(Dictionary{{"a", 5}});
    EXPECT_EQ(parseStore("{\"a\": 5}").value, expected);
    EXPECT_EQ(parseStore(kXml).value, expected);
    EXPECT_EQ(parseStore(std::string("\xEF\xBB\xBF") + kXml).value, expected);
    // {"a": 5} as property lists have it in their binary form.
    const std::string binary(
        "bplist00\xD1\x01\x02Qa\x10\x05\x08\x0B\x0D\0\0\0\0\0\0\x01\x01\0\0\0"
        "\0\0\0\0\x03\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\x0F",
        50);
    EXPECT_EQ(parseStore(binary).value, expected) << parseStore(binary).error;
}

TEST(StoreFile, ThatIsNoneOfTheFormsIsRefusedWithThePlace) {
    EXPECT_THAT(parseStore("").error, HasSubstr("no JSON at byte"));
    EXPECT_THAT(parseStore("<plist><dict>").error, HasSubstr("line 1"));
    EXPECT_THAT(parseStore("bplist00").error, testing::Not(IsEmpty()));
    EXPECT_THAT(parseStore(R"({"users": {"1": {"settings": {"dc-a": {"$date": "x"}}}}})").error,
                HasSubstr("\"$date\" that is known, in users.1.settings.dc-a"));
}

TEST(StoreFile, IsReplacedAsAWholeAndOnlyForItsOwner) {
    const support::TempFolder folder;
    const auto file = folder / "file";
    okvctl::writeStoreFile(file, "first");
    okvctl::writeStoreFile(file, "second");
    EXPECT_EQ(support::bytesOf(file), "second");
    struct stat status {};
    ASSERT_EQ(stat(file.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777U, 0600U);
}

TEST(StoreFile, ThatIsADeviceIsWrittenToAndStays) {
    EXPECT_NO_THROW(okvctl::writeStoreFile("/dev/null", "text"));
    EXPECT_THROW(okvctl::writeStoreFile("/dev/full", "text"), ToolError);
    struct stat status {};
    ASSERT_EQ(stat("/dev/null", &status), 0);
    EXPECT_TRUE(S_ISCHR(status.st_mode));
}

TEST(StoreFile, ThatCannotBeMadeLeavesNothingBehind) {
    EXPECT_THROW(okvctl::writeStoreFile("/no/such/folder/file", "text"), ToolError);
    const support::TempFolder folder;
    const auto taken = folder.makeFolder("file");
    EXPECT_THROW(okvctl::writeStoreFile(taken, "text"), ToolError);
    rmdir(taken.c_str());
    EXPECT_TRUE(std::filesystem::is_empty(folder.path())) << "something was left";
}

TEST(PropertyListText, LeavesOutWhatIsNotSetAndNamesWhatItHasNoFormFor) {
    const auto text = okvctl::plistText(Dictionary{{"a", Null{}}, {"b", 1}});
    EXPECT_EQ(parseStore(text).value, Value(Dictionary{{"b", 1}}));
    try {
        okvctl::plistText(Dictionary{{"dc-x", Array{Null{}}}});
        FAIL();
    } catch (const ToolError& error) {
        EXPECT_THAT(error.what(), testing::AllOf(HasSubstr("dc-x"), HasSubstr("--format json")));
    }
}

TEST(StoreCheck, TakesAWholeStore) {
    const Dictionary user{{"settings", Dictionary{{"dc-a", 1}}}, {"hammer_list", Array{}}};
    const Dictionary store{
        {"format", 1},
        {"epoch", "e"},
        {"revision", 9},
        {"everybody", Dictionary{{"dc-syscmnf-x", Null{}}}},
        {"users", Dictionary{{"1", user}}},
        {"accounts", Dictionary{{"0", Dictionary{{"appuid", 1}, {"current", 1}}}}},
        {"locks", Array{"dc-a"}},
        {"current_user", 1},
        {"highest_user", 1},
        {"clock", Dictionary{{"time", Null{}}, {"running", false}, {"since", okv::Date{0}}}},
        {"flt_proc_white", Dictionary{{"name", "identifier"}}}};
    EXPECT_EQ(mistakeIn(store), "none");
}

TEST_P(Check, NamesTheEntryAndWhatToDo) {
    EXPECT_THAT(mistakeIn(GetParam().store), HasSubstr(GetParam().mistake));
}

INSTANTIATE_TEST_SUITE_P(
    Rows, Check,
    testing::Values(
        StoreRow{5, "the file: a dictionary belongs here, not a int"},
        StoreRow{Dictionary{}, "no \"format\""},
        StoreRow{Dictionary{{"format", 2}}, "format: only files of the form 1"},
        StoreRow{storeWith("evrybody", Dictionary{}),
                 "evrybody: there is no such part; remove it; did"},
        StoreRow{storeWith("everybody", Array{}),
                 "everybody: a dictionary belongs here, not a array"},
        StoreRow{storeWith("everybody", Dictionary{{"", 1}}), "1 to 255 bytes"},
        StoreRow{storeWith("everybody", Dictionary{{"a\nb", 1}}), "rename or remove it"},
        StoreRow{storeWith("everybody", Dictionary{{std::string(256, 'k'), 1}}),
                 "kkk...: a key is"},
        StoreRow{storeWith("users", Dictionary{{"0", Dictionary{}}}),
                 "users.0: a user is a number"},
        StoreRow{storeWith("users", Dictionary{{"x", Dictionary{}}}),
                 "users.x: a user is a number"},
        StoreRow{storeWith("users", Dictionary{{"1", 5}}), "users.1: a dictionary belongs here"},
        StoreRow{userWith("setings", Dictionary{}), "users.3.setings: a user has no such part"},
        StoreRow{userWith("hamer_list", 1), "did you mean hammer_list?"},
        StoreRow{
            userWith("settings", Dictionary{{"dc-syscmnf-x", 1}}),
            "users.3.settings.dc-syscmnf-x: settings of the system are everybody's; move it to"},
        StoreRow{storeWith("accounts", Dictionary{{"-1", Dictionary{}}}),
                 "accounts.-1: an account is"},
        StoreRow{storeWith("accounts", Dictionary{{"1", 1}}), "accounts.1: a dictionary belongs"},
        StoreRow{accountWith("appuid", "2"), "accounts.501.appuid: a number belongs here"},
        StoreRow{accountWith("current", Null{}), "accounts.501.current: a number belongs here"},
        StoreRow{
            accountWith("curent", 2),
            "accounts.501.curent: an account has no such part; remove it; did you mean current"},
        StoreRow{storeWith("locks", Dictionary{}), "locks: an array of keys"},
        StoreRow{storeWith("locks", Array{5}), "locks.5: a key is"},
        StoreRow{storeWith("current_user", "1"), "current_user: a number"},
        StoreRow{storeWith("highest_user", Null{}), "highest_user: a number"},
        StoreRow{storeWith("clock", Dictionary{{"time", 5}}), "clock.time: a date belongs here"},
        StoreRow{storeWith("clock", Dictionary{{"since", okv::Date{HUGE_VAL}}}),
                 "clock.since: a date"},
        StoreRow{storeWith("clock", Dictionary{{"since", Null{}}}), "clock.since: a date"},
        StoreRow{storeWith("clock", Dictionary{{"running", 1}}), "clock.running: true or false"},
        StoreRow{storeWith("clock", Dictionary{{"runing", true}}),
                 "clock.runing: the clock has no such part; remove it; did you mean running?"},
        StoreRow{storeWith("clock", 7), "clock: a dictionary belongs here"},
        StoreRow{storeWith("kill_web_proc", Dictionary{{"", 1}}), "kill_web_proc"},
        StoreRow{Dictionary{{"format", 1}, {"users", Dictionary{}}, {"current_user", 7}},
                 "current_user: there is no user 7; add it to \"users\""},
        StoreRow{Dictionary{{"format", 1},
                            {"users", Dictionary{{"1", Dictionary{}}}},
                            {"accounts", Dictionary{{"501", Dictionary{{"appuid", 2}}}}}},
                 "accounts.501.appuid: there is no user 2"}));

TEST(StoreDifference, TellsWhatIsAddedChangedAndRemovedOfEachUser) {
    const auto user = [](const Dictionary& settings) { return Dictionary{{"settings", settings}}; };
    const Dictionary store{
        {"everybody", Dictionary{{"same", 1}, {"other", 1}, {"gone", 1}}},
        {"users", Dictionary{{"1", user({{"own", "a"}})}, {"2", user({{"x", 1}})}}},
        {"locks", Array{"gone"}}};
    auto first = user({{"own", "b"}});
    first.set("hammer_list", Array{1});
    const Dictionary file{
        {"everybody", Dictionary{{"same", 1}, {"other", 2}, {"new", 1}, {"never", Null{}}}},
        {"users", Dictionary{{"1", first}, {"3", user({})}}},
        {"locks", Array{"new"}}};
    EXPECT_THAT(toldBetween(store, file),
                ElementsAre("settings|everybody|changed|other", "settings|everybody|added|new",
                            "settings|everybody|removed|gone", "settings|user 1|changed|own",
                            "lists|user 1|added|hammer_list", "users|user 3|added|",
                            "users|user 2|removed|", "settings|user 2|removed|x",
                            "locks|everybody|added|new", "locks|everybody|removed|gone"));
}

TEST(StoreDifference, LeavesAloneWhatTheFileDoesNotHold) {
    const Dictionary store{{"everybody", Dictionary{{"a", 1}}}, {"current_user", 1}};
    EXPECT_THAT(toldBetween(store, {{"format", 1}}), IsEmpty());
    EXPECT_THAT(toldBetween(store, {{"current_user", 2}}),
                ElementsAre("current_user|everybody|changed|"));
}

TEST(StoreDifference, KnowsThatIdsStayGivenAndMayBeNumbers) {
    const Dictionary store{{"highest_user", 5},
                           {"accounts", Dictionary{{"501", Dictionary{{"appuid", 1}}}}}};
    const Dictionary file{{"highest_user", 3},
                          {"accounts", Dictionary{{501, Dictionary{{"appuid", 2}}}}}};
    EXPECT_THAT(toldBetween(store, file), ElementsAre("accounts|account 501|changed|appuid"));
}

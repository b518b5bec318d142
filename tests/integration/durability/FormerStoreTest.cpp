#include "Support.h"

#include <gtest/gtest.h>

#include <csignal>
#include <filesystem>

using namespace durability;
using faults::Admin;
using faults::connect;
using faults::Data;
using okv::Array;
using okv::Dictionary;
using okv::Null;
using okv::Value;

// The store in tests/corpus/store_v1 was written by the first server that kept one, the files are
// as it left them. The schema has not changed since: version 1 is still the present one. Once it
// changes, these tests hold the steps that bring a store up to date to losing nothing.

namespace {

class AStoreOfVersion1 : public testing::Test {
protected:
    AStoreOfVersion1() {
        const std::string folder = OKV_CORPUS "/store_v1/";
        std::filesystem::copy_file(folder + "store.db", server.storeFile());
        std::filesystem::copy_file(folder + "store.db.guard", server.storeFile() + ".guard");
    }
    ServerProcess server;
};

Value user2Settings() {
    return Dictionary{{"dc-gui-bool", true},
                      {"dc-gui-data", okv::Data(std::string_view("\0\1\2\xFF", 4))},
                      {"dc-gui-date", okv::Date{1769903999}},
                      {"dc-gui-int", std::int64_t{-9007199254740993}},
                      {"dc-gui-real", 0.1}};
}

// In the order of an export, its clock left out.
Dictionary whatWasWritten() {
    const Dictionary nested{{"a", Array{1, -2, 2.5, true, Null{}, "x"}}, {"b", Dictionary{}}};
    return {{"format", 1},
            {"epoch", "4fa8debc07317b317e2f57ca751aa73a"},
            {"revision", 25},
            {"everybody", Dictionary{{"dc-cmnset-title", "everybody\xE2\x80\x99s title"},
                                     {"dc-gui-colour", "blue"},
                                     {"dc-gui-nested", nested},
                                     {"dc-syscmnf-port", "8080"}}},
            {"users",
             Dictionary{{"1", Dictionary{{"settings", Dictionary{{"dc-gui-colour", "green"}}}}},
                        {"2", Dictionary{{"settings", user2Settings()},
                                         {"user_setting", Dictionary{{"level", 3}}},
                                         {"contents_words", Array{"one", "two"}}}},
                        {"3", Dictionary{{"settings", Dictionary{{"dc-gui-日本", "色"}}},
                                         {"hammer_list", Array{}},
                                         {"black_extension_list", "exe"}}}}},
            {"accounts", Dictionary{{"501", Dictionary{{"appuid", 2}}},
                                    {"502", Dictionary{{"appuid", 3}, {"current", 1}}},
                                    {"777", Dictionary{{"current", 3}}}}},
            {"locks", Array{"dc-gui-colour", "dc-gui-none"}},
            {"current_user", 2},
            {"highest_user", 9},
            {"flt_proc_white",
             Dictionary{{"Safari", "org.example.safari"}, {"Mail", "org.example.mail"}}},
            {"flt_proc_black", Dictionary{{"Game", "org.example.game"}}},
            {"kill_web_proc", Dictionary{{"Web", "org.example.web"}}}};
}

// The order of the keys is no part of what is stored.
Value inOrder(const Value& value) {
    const auto* dictionary = value.getIf<Dictionary>();
    if (dictionary == nullptr) return value;
    std::map<std::string, Value> entries;
    for (const auto& [key, held] : *dictionary) entries[key.as<std::string>()] = inOrder(held);
    Dictionary ordered;
    for (const auto& [key, held] : entries) ordered.set(key, held);
    return ordered;
}

}  // namespace

TEST_F(AStoreOfVersion1, IsServedWithEveryValueListUserAccountAndLockItsRevisionAndItsEpoch) {
    ASSERT_TRUE(server.start());
    auto whole = okv::send<&Admin::exportDataPT>(*connect()).as<Dictionary>();
    const auto clock = whole["clock"].as<Dictionary>();
    whole.erase("clock");
    const auto wanted = inOrder(whatWasWritten()).as<Dictionary>();
    const auto held = inOrder(whole).as<Dictionary>();
    EXPECT_EQ(held.size(), wanted.size());
    for (const auto& [part, content] : wanted)
        EXPECT_EQ(held[part], content) << part.as<std::string>();
    EXPECT_EQ(clock["time"], Value(okv::Date{1769904000}));
    EXPECT_EQ(clock["running"], Value(false));
}

TEST_F(AStoreOfVersion1, TellsWhoWroteWhenAndEveryChange) {
    ASSERT_TRUE(server.start());
    const auto root = connect();
    const auto info = okv::send<&Admin::okvDataInfoPT>(*root, "dc-gui-nested").as<Dictionary>();
    EXPECT_EQ(info["writer"], Value(0));
    EXPECT_EQ(static_cast<std::int64_t>(info["time"].as<okv::Date>().secondsSince1970), 1795257453);
    const auto changes = okv::send<&Admin::changesPT>(*root, 0).as<Dictionary>()["changes"];
    EXPECT_EQ(changes.as<Array>().size(), 25U);
    EXPECT_EQ(changes.as<Array>().back().as<Dictionary>()["revision"], Value(25));
}

TEST_F(AStoreOfVersion1, TakesChangesAndGoesOnCounting) {
    ASSERT_TRUE(server.start());
    const auto root = connect();
    EXPECT_TRUE(okv::send<&Data::setOKVDataPT_value_appUid>(*root, "dc-gui-int", 7, 2));
    EXPECT_EQ(faults::status(*root)["revision"], Value(26));
    okv::send<&Data::setUseridPT_applyUid>(*root, 600, 10);
    EXPECT_EQ(okv::send<&Data::maxUserIdPT>(*root), 10) << "9 was given once";
}

TEST_F(AStoreOfVersion1, IsBackedUpAndRestored) {
    ASSERT_TRUE(server.start());
    ASSERT_TRUE(awaitBackups(*connect(), 1));
    server.signal(SIGTERM);
    server.wait();
    ASSERT_EQ(runServer(server, {"--restore"}).code, 0);
    ASSERT_TRUE(server.start());
    const auto whole = okv::send<&Admin::exportDataPT>(*connect()).as<Dictionary>();
    EXPECT_EQ(inOrder(whole["users"]), inOrder(whatWasWritten()["users"]));
    EXPECT_EQ(whole["revision"], Value(25));
}

TEST(AStoreOfALaterVersion, IsRefusedUntouchedWithItsVersionAlsoWhenToldToBeginAfresh) {
    ServerProcess server;
    std::filesystem::copy_file(OKV_CORPUS "/store_v1/store.db", server.storeFile());
    change(server.storeFile(), "PRAGMA user_version=2; CREATE TABLE of_later(x);");
    const auto bytes = bytesOf(server.storeFile());
    for (const char* how : {"--foreground", "--begin-afresh"}) {
        const auto ran = runServer(server, {how});
        EXPECT_EQ(ran.code, 1);
        EXPECT_EQ(bytesOf(server.storeFile()), bytes);
        EXPECT_EQ(std::count(ran.error.begin(), ran.error.end(), '\n'), 1) << ran.error;
        EXPECT_NE(ran.error.find("is of version 2, newer than this server's 1"), std::string::npos)
            << ran.error;
    }
}

TEST_F(AStoreOfVersion1, IsComeBackToFromALaterVersionWithItsBackup) {
    ASSERT_TRUE(server.start());
    ASSERT_TRUE(awaitBackups(*connect(), 1));
    server.signal(SIGTERM);
    server.wait();
    change(server.storeFile(), "PRAGMA user_version=2");
    const auto later = bytesOf(server.storeFile());
    ASSERT_EQ(runServer(server, {"--restore"}).code, 0);
    EXPECT_EQ(bytesOf(filesOf(server.file(""), "store.db.replaced-").at(0)), later);
    ASSERT_TRUE(server.start());
    EXPECT_EQ(faults::status(*connect())["revision"], Value(25));
}

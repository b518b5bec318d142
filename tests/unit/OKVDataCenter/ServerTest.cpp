#include "Harness.h"

#include "support/Answers.h"

using okv::Array;
using okv::Dictionary;
using okv::Null;
using okv::Value;
using support::expectRefused;
using Kind = okv::Refusal::Kind;

namespace {

constexpr uid_t kUser = 1000;

Harness::Options withSelfService() {
    Harness::Options options;
    options.selfService = true;
    return options;
}

/// An account with a user of its own, and another user.
void giveUsers(Harness& harness) {
    harness.ask<&Data::setUseridPT_applyUid>(static_cast<std::int32_t>(kUser), 2);
    harness.ask<&Data::setUseridPT_applyUid>(1001, 3);
}

}  // namespace

TEST(Server, RefusesWhatTheCallerHasNoRightToWithTheZeroValueAndALine) {
    Harness harness;
    giveUsers(harness);
    for (const auto& who : {account(kUser), account(65534)}) {
        harness.log.clear();
        expectRefused(harness.askAs<&Data::setOKVDataPT_value_appUid>(who, "k", 1, 2),
                      Kind::notAllowed, "a write");
        expectRefused(harness.askAs<&Data::delUseridPT>(who, 1000), Kind::notAllowed, "an int");
        expectRefused(harness.askAs<&Data::endServer>(who), Kind::notAllowed, "no result");
        expectRefused(harness.askAs<&Admin::exportDataPT>(who), Kind::notAllowed, "an object");
        ASSERT_EQ(harness.log.size(), 4U);
        EXPECT_NE(harness.log[0].find("uid " + std::to_string(who.uid)), std::string::npos);
        EXPECT_NE(harness.log[0].find("process 1234"), std::string::npos);
        EXPECT_EQ(harness.log[0].find("k "), std::string::npos);
    }
    EXPECT_EQ(harness.server->view().revision(), 2);
    EXPECT_EQ(harness.ask<&Admin::serverStatusPT>().as<Dictionary>()["refused"], Value(8));
}

TEST(Server, EverybodyReads) {
    Harness harness;
    giveUsers(harness);
    harness.ask<&Data::setOKVDataPT_value_appUid>("k", "v", 2);
    for (const auto& who : {account(kUser), account(65534), account(31337)}) {
        EXPECT_EQ((harness.askAs<&Data::okvDataPT_appUid>(who, "k", 2).value), Value("v"));
        EXPECT_FALSE((harness.askAs<&Data::okvDataPT_appUid>(who, "k", 2).refusal));
    }
}

TEST(Server, WithSelfServiceAnAccountChangesWhatIsItsOwnUsersAlone) {
    Harness harness(withSelfService());
    giveUsers(harness);
    harness.ask<&Admin::lockOKVDataPT>(Array{"locked"});
    const auto who = account(kUser);
    using A = bool;
    const auto set = [&](const Value& key, std::int32_t user) {
        return harness.askAs<&Data::setOKVDataPT_value_appUid>(who, key, 1, user);
    };
    EXPECT_TRUE(set("k", 2).value);
    expectRefused(set("k", 3), Kind::notAllowed, "another user");
    expectRefused(set("k", 1), Kind::notAllowed, "the default user");
    expectRefused(set("dc-syscmnf-x", 2), Kind::notAllowed, "the system's");
    expectRefused(set("locked", 2), Kind::locked, "locked");
    const A byAccount =
        harness.askAs<&Data::setOKVDataPT_value_osUid>(who, "k", 2, static_cast<int>(kUser)).value;
    EXPECT_TRUE(byAccount);
    expectRefused(harness.askAs<&Data::setOKVDataPT_value_osUid>(who, "k", 2, 1001),
                  Kind::notAllowed, "another account");
    EXPECT_TRUE((harness.askAs<&Data::setOKVDataAllPT_appUid>(who, Dictionary{{"a", 1}}, 2).value));
    expectRefused(harness.askAs<&Data::setOKVDataAllPT_appUid>(
                      who, Dictionary{{"a", 2}, {"dc-syscmnf-x", 1}}, 2),
                  Kind::notAllowed, "one of the system's among them");
    expectRefused(harness.askAs<&Data::setOKVDataAllPT_appUid>(who, Dictionary{}, 3),
                  Kind::notAllowed, "nothing, for another user");
    EXPECT_EQ((harness.ask<&Data::okvDataPT_appUid>("a", 2)), Value(1));
    EXPECT_TRUE((harness.askAs<&Data::setOkvHammerListPT_value>(who, 2, Array{}).value));
    expectRefused(harness.askAs<&Data::setOkvHammerListPT_value>(who, 3, Array{}), Kind::notAllowed,
                  "another user's list");
    EXPECT_TRUE(harness.askAs<&Data::setCurrentUserIdForOSPT>(who, 3).value);
    EXPECT_EQ(harness.askAs<&Data::currentUserIdPT>(who).value, 3);
    expectRefused(set("k", 3), Kind::notAllowed, "the current user is not the account's own");
    expectRefused(harness.askAs<&Data::setCurrentUserIdPT>(who, 2), Kind::notAllowed, "for all");
}

TEST(Server, WithSelfServiceASwitchReachesAnyUserAndGivesNoRight) {
    Harness harness(withSelfService());
    giveUsers(harness);
    harness.ask<&Admin::setOKVCommonDataAllPT>(Dictionary{{"locked", "everybody's"}});
    harness.ask<&Data::setOKVDataPT_value_appUid>("locked", "user 3's", 3);
    harness.ask<&Admin::lockOKVDataPT>(Array{"locked"});
    const auto who = account(kUser);
    EXPECT_TRUE(harness.askAs<&Data::setCurrentUserIdForOSPT>(who, 3).value);
    EXPECT_EQ((harness.askAs<&Data::okvDataPT_appUid>(who, "locked", 3).value),
              Value("everybody's"));
    expectRefused(harness.askAs<&Data::setOKVDataPT_value_appUid>(who, "k", 1, 3), Kind::notAllowed,
                  "the user it sits down as");
    expectRefused(harness.askAs<&Data::setOkvHammerListPT_value>(who, 3, Array{}), Kind::notAllowed,
                  "the list of the user it sits down as");
    EXPECT_TRUE((harness.askAs<&Data::setOKVDataPT_value_osUid>(who, "k", "mine",
                                                                static_cast<std::int32_t>(kUser)))
                    .value);
    EXPECT_EQ((harness.ask<&Data::okvDataPT_appUid>("k", 2)), Value("mine")) << "still its own";
    EXPECT_EQ(harness.ask<&Data::userAppuidPT>(static_cast<std::int32_t>(kUser)), 2);
    EXPECT_EQ(harness.askAs<&Data::currentUserIdPT>(account(1001)).value, 3) << "another account";
    EXPECT_EQ(harness.ask<&Data::currentUserIdPT>(), 1) << "the global one";
    expectRefused(harness.askAs<&Data::setCurrentUserIdForOSPT>(who, 99), Kind::invalid,
                  "an unknown user");
    EXPECT_EQ(harness.askAs<&Data::currentUserIdPT>(who).value, 3);
}

TEST(Server, WithSelfServiceAnAccountWithoutAUserAndNobodyChangeNothing) {
    Harness harness(withSelfService());
    giveUsers(harness);
    for (const auto& who : {account(31337), account(65534)}) {
        for (const int user : {1, 2})
            expectRefused(harness.askAs<&Data::setOKVDataPT_value_appUid>(who, "k", 1, user),
                          Kind::notAllowed, "a write");
    }
    expectRefused(harness.askAs<&Data::setCurrentUserIdForOSPT>(account(65534), 2),
                  Kind::notAllowed, "a switch");
}

TEST(Server, TellsEachAcceptedChangeOnceWithItsRevisionAndTheEpoch) {
    Harness harness;
    const auto take = [&](std::size_t count) { return harness.poster.take(count); };
    const auto epoch = Value(harness.store->epoch());
    harness.ask<&Data::setUseridPT_applyUid>(1000, 2);
    EXPECT_EQ(take(1).at(0), (Dictionary{{"revision", 1},
                                         {"epoch", epoch},
                                         {"osuserid", 1000},
                                         {"session_userid", 2},
                                         {"appuid", 2},
                                         {"keys", Array{}}}));
    harness.ask<&Data::setOKVDataPT_value_appUid>("k", 1, 2);
    EXPECT_EQ(take(1).at(0), (Dictionary{{"revision", 2},
                                         {"epoch", epoch},
                                         {"osuserid", -1},
                                         {"session_userid", 0},
                                         {"appuid", 2},
                                         {"keys", Array{"k"}}}));
    harness.ask<&Data::setOKVDataPT_value_appUid>("", 1, 2);
    harness.ask<&Data::setAgentAutoRunPT>(true);
    EXPECT_EQ(take(1).at(0), (Dictionary{{"revision", 3},
                                         {"epoch", epoch},
                                         {"osuserid", -1},
                                         {"session_userid", 0},
                                         {"keys", Array{"dc-syscmnf-agent_auto_run"}}}));
    harness.askAs<&Data::setCurrentUserIdForOSPT>(account(Harness::kServerUid), 2);
    const auto change = take(1).at(0);
    EXPECT_EQ(change["osuserid"], Value(4000));
    EXPECT_EQ(change["session_userid"], Value(2));
    harness.ask<&Data::setCurrentUserIdPT>(2);
    EXPECT_EQ(take(1).at(0)["osuserid"], Value(-1));
    harness.ask<&Data::removeUserInfoPT>(2);
    const auto removed = take(1).at(0);
    EXPECT_EQ(removed["appuid"], Value(2));
    EXPECT_FALSE(removed.contains("keys"));
}

// Whoever hears of one user's change alone would not read everybody's values again.
TEST(Server, TellsAChangeOfAUsersAndEverybodysKeysAsOneOfEverybody) {
    Harness harness;
    for (const auto& settings :
         {Dictionary{{"dc-syscmnf-s", 1}, {"k", 1}}, Dictionary{{"k", 2}, {"dc-syscmnf-s", 2}}}) {
        ASSERT_TRUE((harness.ask<&Data::setOKVDataAllPT_appUid>(settings, 1)));
        const auto told = harness.poster.take(1).at(0);
        EXPECT_FALSE(told.contains("appuid"));
        EXPECT_EQ(told["keys"].as<Array>().size(), 2U);
    }
    ASSERT_TRUE((harness.ask<&Data::setOKVDataAllPT_appUid>(Dictionary{{"k", 3}, {"l", 3}}, 1)));
    EXPECT_EQ(harness.poster.take(1).at(0)["appuid"], Value(1));
    const auto changes = harness.ask<&Admin::changesPT>(0).as<Dictionary>()["changes"].as<Array>();
    EXPECT_FALSE(changes.at(0).as<Dictionary>().contains("appuid"));
    EXPECT_EQ(changes.at(2).as<Dictionary>()["appuid"], Value(1));
}

TEST(Server, AReloadReadsTheStoreAgainAndTellsSoWithoutARevision) {
    Harness harness;
    harness.ask<&Data::setOKVDataPT_value_appUid>("k", 1, 1);
    harness.poster.take(1);
    datacenter::Database(harness.storeFile(), SQLITE_OPEN_READWRITE)
        .execute("UPDATE settings SET value = x'07'");
    EXPECT_EQ((harness.ask<&Data::okvDataPT_appUid>("k", 1)), Value(1));
    EXPECT_TRUE(harness.ask<&Data::reloadDataPT>());
    EXPECT_EQ((harness.ask<&Data::okvDataPT_appUid>("k", 1)), Value(7));
    const auto notice = harness.poster.take(1).at(0);
    EXPECT_EQ(notice["revision"], Value(1));
    EXPECT_FALSE(notice.contains("keys"));
    harness.ask<&Data::useridUpdatePT>();
    harness.server->reload();
    EXPECT_TRUE(harness.ask<&Data::setAgentAutoRunPT>(true));  // carried out after the reload
    EXPECT_EQ(harness.poster.take(3).back()["revision"], Value(2));
}

TEST(Server, AReloadThatFailsKeepsTheViewItHad) {
    Harness harness;
    harness.ask<&Data::setOKVDataPT_value_appUid>("k", 1, 1);
    datacenter::Database other(harness.storeFile(), SQLITE_OPEN_READWRITE);
    other.execute("UPDATE settings SET value = x'FF'");
    EXPECT_FALSE(harness.ask<&Data::reloadDataPT>());
    EXPECT_EQ((harness.ask<&Data::okvDataPT_appUid>("k", 1)), Value(1));
    other.execute("UPDATE settings SET value = x'02'");
    EXPECT_TRUE(harness.ask<&Data::reloadDataPT>());
    EXPECT_EQ((harness.ask<&Data::okvDataPT_appUid>("k", 1)), Value(2));
}

TEST(Server, CountsAClientOncePerConnectionUntilItIsTakenAway) {
    Harness harness;
    const auto port = okv::make<RecordingPort>(account(1000));
    const auto other = okv::make<RecordingPort>(account(1000));
    const okv::detail::LentObject client{7};
    harness.send<&Data::registerAsClient>(port, client);
    harness.send<&Data::registerAsClient>(port, client);
    harness.send<&Data::registerAsClient>(other, client);
    EXPECT_TRUE(answerIn<&Data::registerAsClient>(harness.awaitAnswer(*port, 2)).value);
    EXPECT_EQ(harness.ask<&Data::connectCount>(), 2);
    harness.send<&Data::removeAsClient>(port, client);
    harness.send<&Data::removeAsClient>(port, client);
    EXPECT_EQ(harness.ask<&Data::connectCount>(), 1);
}

TEST(Server, EndsWithAWordToEachRegisteredClientAndToNobodyElse) {
    Harness harness;
    const auto first = okv::make<RecordingPort>(account(1000));
    const auto second = okv::make<RecordingPort>(account(1001));
    const auto removed = okv::make<RecordingPort>(account(1002));
    const okv::detail::LentObject client{7};
    for (const auto& port : {first, second, removed})
        harness.send<&Data::registerAsClient>(port, client);
    harness.send<&Data::removeAsClient>(removed, client);
    const auto ending = okv::make<RecordingPort>(account(0));
    harness.send<&Data::endServer>(ending);
    EXPECT_EQ(first->posted.size(), 1U);
    EXPECT_EQ(second->posted.size(), 1U);
    EXPECT_TRUE(removed->posted.empty());
    EXPECT_TRUE(ending->posted.empty());
}

TEST(Server, EndsWithAWordToEveryClientAndAnswersWhatItHadTaken) {
    Harness harness;
    const auto client = okv::make<RecordingPort>(account(1000));
    harness.send<&Data::registerAsClient>(client, okv::detail::LentObject{7});
    const auto writing = okv::make<RecordingPort>(account(0));
    harness.send<&Data::setOKVDataPT_value_appUid>(writing, "k", "last", 1);
    const auto ending = okv::make<RecordingPort>(account(0));
    harness.send<&Data::endServer>(ending);
    EXPECT_EQ(ending->answers.size(), 1U);
    const auto late = okv::make<RecordingPort>(account(1000));
    harness.send<&Data::registerAsClient>(late, okv::detail::LentObject{7});
    EXPECT_FALSE(answerIn<&Data::registerAsClient>(late->answers.at(0)).value);

    harness.server->run();
    ASSERT_EQ(client->posted.size(), 1U);
    EXPECT_NE(client->posted[0].find("disConnectSrv"), std::string::npos);
    ASSERT_EQ(writing->answers.size(), 1U);
    EXPECT_TRUE(answerIn<&Data::setOKVDataPT_value_appUid>(writing->answers[0]).value);
    const auto after = okv::make<RecordingPort>(account(0));
    harness.send<&Data::setOKVDataPT_value_appUid>(after, "k", "too late", 1);
    expectRefused(answerIn<&Data::setOKVDataPT_value_appUid>(after->answers.at(0)), Kind::failed,
                  "a write after the end");
    harness.server.reset();
    harness.store.reset();
    harness.start();
    EXPECT_EQ((harness.ask<&Data::okvDataPT_appUid>("k", 1)), Value("last"));
}

TEST(Server, SaysToLateWritesThatItIsEnding) {
    Harness harness;
    harness.server->end();
    const auto answer = harness.askAs<&Data::setOKVDataPT_value_appUid>(account(0), "k", 1, 1);
    EXPECT_FALSE(answer.value);
    ASSERT_TRUE(answer.refusal);
    EXPECT_EQ(answer.refusal->reason, "the data server is ending");
}

TEST(Server, ATerminatingSignalSendsClientsNoWord) {
    Harness harness;
    const auto client = okv::make<RecordingPort>(account(1000));
    harness.send<&Data::registerAsClient>(client, okv::detail::LentObject{7});
    harness.restart();
    EXPECT_TRUE(client->posted.empty());
}

TEST(Server, HoldsRequestsToTheirSize) {
    Harness::Options options;
    options.limits.requestBytes = 2000;
    options.limits.importBytes = 4000;
    Harness harness(options);
    expectRefused(
        harness.askAs<&Data::setOKVDataPT_value_appUid>(account(0), "k", std::string(2000, 'v'), 1),
        Kind::tooLarge, "a request");
    expectRefused(harness.askAs<&Data::okvDataPT>(account(0), std::string(2000, 'v')),
                  Kind::tooLarge, "a read");
    const Dictionary whole{{"format", 1}, {"everybody", Dictionary{{"k", std::string(2500, 'v')}}}};
    EXPECT_TRUE(harness.ask<&Admin::importDataPT>(whole));
    expectRefused(harness.askAs<&Admin::importDataPT>(
                      account(0), Dictionary{{"format", std::string(4000, 'v')}}),
                  Kind::tooLarge, "an import");
}

TEST(Server, ReadsNoMoreItemsThanTheKeysOfARead) {
    Harness::Options options;
    options.limits.readKeys = 3;
    Harness harness(options);
    const auto who = account(1000);
    const auto readAll = [&](const Value& keys) {
        return harness.askAs<&Data::okvDataAllPT_appUid>(who, keys, 1);
    };
    EXPECT_EQ(readAll(Array{"a", "b", "c"}).value.as<Dictionary>().size(), 3U);
    expectRefused(readAll(Array{"a", "b", "c", "d"}), Kind::tooLarge, "a fourth key");
    const Dictionary two{{"a", 1}, {"b", 2}}, three{{"a", 1}, {"b", 2}, {"c", 3}};
    EXPECT_EQ(harness.askAs<&Data::okvDataPT>(who, two).value, kNull) << "no key, but few";
    expectRefused(harness.askAs<&Data::okvDataPT>(who, three), Kind::tooLarge, "a dictionary");
    expectRefused(harness.askAs<&Data::okvDataPT>(who, Array{Array{1, 2, 3}, 4}), Kind::tooLarge,
                  "an array in an array");
    expectRefused(harness.askAs<&Admin::okvDataListPT>(who, three), Kind::tooLarge, "a list");
    EXPECT_TRUE((harness.ask<&Data::setOKVDataAllPT_appUid>(three, 1))) << "not of a change";
}

TEST(Server, HoldsAUserToItsRoomAndTakesWhatMakesItSmaller) {
    Harness::Options options;
    options.limits.scopeKeys = 3;
    options.limits.scopeBytes = 1000;
    Harness harness(options);
    const auto set = [&](const Value& settings) {
        return harness.askAs<&Data::setOKVDataAllPT_appUid>(account(0), settings, 1);
    };
    EXPECT_TRUE(set(Dictionary{{"a", 1}, {"b", 1}, {"c", 1}}).value);
    expectRefused(set(Dictionary{{"d", 1}}), Kind::tooLarge, "a fourth key");
    EXPECT_TRUE(set(Dictionary{{"d", 1}, {"a", Null{}}}).value);
    expectRefused(
        harness.askAs<&Data::setOKVDataPT_value_appUid>(account(0), "b", std::string(1000, 'v'), 1),
        Kind::tooLarge, "too many bytes");
    expectRefused(
        harness.askAs<&Data::setOkvHammerListPT_value>(account(0), 1, std::string(1000, 'v')),
        Kind::tooLarge, "too many bytes in a list");
    EXPECT_TRUE((harness.ask<&Data::setOKVDataPT_value_appUid>("b", std::string(900, 'v'), 1)));
    EXPECT_TRUE((harness.ask<&Data::setOKVDataPT_value_appUid>("b", std::string(800, 'v'), 1)));
    expectRefused(harness.askAs<&Admin::setOKVCommonDataAllPT>(
                      account(0), Dictionary{{"1", 1}, {"2", 1}, {"3", 1}, {"4", 1}}),
                  Kind::tooLarge, "everybody's");
}

TEST(Server, HoldsTheAgentsFlagToEverybodysRoom) {
    Harness::Options options;
    options.limits.scopeKeys = 2;
    Harness harness(options);
    const auto setFlag = [&](bool flag) {
        return harness.askAs<&Data::setAgentAutoRunPT>(account(0), flag);
    };
    EXPECT_TRUE(harness.ask<&Admin::setOKVCommonDataAllPT>(Dictionary{{"a", 1}, {"b", 1}}));
    expectRefused(setFlag(true), Kind::tooLarge, "a third key");
    EXPECT_EQ(harness.ask<&Data::okvDataPT>("dc-syscmnf-agent_auto_run"), kNull);
    EXPECT_TRUE(harness.ask<&Admin::setOKVCommonDataAllPT>(Dictionary{{"b", kNull}}));
    EXPECT_TRUE(setFlag(true).value);
    EXPECT_TRUE(setFlag(false).value) << "one that is there";
    EXPECT_TRUE(harness.ask<&Admin::importDataPT>(harness.ask<&Admin::exportDataPT>()));
}

TEST(Server, TellsHowItIsDoing) {
    Harness harness;
    giveUsers(harness);
    harness.ask<&Data::setOKVDataPT_value_appUid>("k", 1, 2);
    const auto status = harness.ask<&Admin::serverStatusPT>().as<Dictionary>();
    EXPECT_EQ(status["revision"], Value(3));
    EXPECT_EQ(status["epoch"], Value(harness.store->epoch()));
    EXPECT_EQ(status["users"], Value(3));
    EXPECT_EQ(status["accounts"], Value(2));
    EXPECT_EQ(status["settings"], Value(1));
    EXPECT_EQ(status["clients"], Value(0));
    EXPECT_EQ(status["waiting"], Value(0));
    EXPECT_EQ(status["self_service"], Value(false));
    EXPECT_EQ(status["log_level"], Value(10));
    EXPECT_TRUE(status["uptime"].is<double>());
    EXPECT_EQ(status["limits"].as<Dictionary>()["scope_keys"], Value(10000));
}

TEST(Server, HoldsTheSameProcessesInMemoryAndOnTheDiskHoweverManyChangeAtOnce) {
    Harness harness;
    Dictionary all;
    for (int i = 0; i < 100; ++i) all.set("p" + std::to_string(i), "id");
    EXPECT_TRUE(harness.ask<&Admin::setOkvKillWebProcListPT>(all));
    Dictionary changed{{"p7", "another"}, {"new", "id"}};
    for (int i = 10; i < 90; ++i) changed.set("p" + std::to_string(i), Null{});
    EXPECT_TRUE(harness.ask<&Admin::setOkvKillWebProcListPT>(changed));
    const auto held = harness.ask<&Data::okvKillWebProcListPT>().as<Dictionary>();
    EXPECT_EQ(held.size(), 21U);
    EXPECT_EQ(held["p7"], Value("another"));
    EXPECT_EQ(held.begin()[20].key, Value("new"));
    EXPECT_TRUE(harness.ask<&Data::okvFltProcWhiteListPT>().as<Dictionary>().empty());
    harness.restart();
    EXPECT_EQ(harness.ask<&Data::okvKillWebProcListPT>(), Value(held));
}

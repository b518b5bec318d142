#include "View.h"

#include <OKVPlatform/values/Cbor.h>

#include <gtest/gtest.h>

using datacenter::View;
using okv::Value;
namespace step = datacenter::step;

namespace {

step::Setting setting(datacenter::Scope scope, const char* key, const Value& value) {
    return {scope, key, value, "encoded", {}};
}

}  // namespace

TEST(View, CountsTheSettingsOfEverybodyAndEveryUser) {
    View view;
    view.apply(step::AddUser{1});
    view.apply(step::AddUser{2});
    view.apply(setting(datacenter::kEverybody, "k", 1));
    view.apply(setting(1, "k", 1));
    view.apply(setting(2, "k", 1));
    view.apply(setting(2, "l", 1));
    view.apply(setting(2, "l", 2));
    EXPECT_EQ(view.settingCount(), 4);
    view.apply(setting(2, "l", okv::Null{}));
    view.apply(setting(2, "never there", okv::Null{}));
    EXPECT_EQ(view.settingCount(), 3);
    view.apply(step::RemoveUser{2});
    view.apply(step::EmptyUser{1});
    EXPECT_EQ(view.settingCount(), 1);
}

TEST(View, TellsTheFullestScope) {
    View view;
    view.apply(step::AddUser{1});
    view.apply(step::AddUser{2});
    view.apply(setting(datacenter::kEverybody, "k", 1));
    EXPECT_EQ(view.fullestScope().keys, 1);
    EXPECT_EQ(view.fullestScope().bytes, 8);
    view.apply(setting(1, "a", 1));
    view.apply(setting(1, "b", 1));
    view.apply(setting(1, "b", 2));
    view.apply(step::List{2, datacenter::UserList::hammerList, "x", std::string(100, 'x')});
    EXPECT_EQ(view.fullestScope().keys, 2);
    EXPECT_EQ(view.fullestScope().bytes, 100);
    view.apply(step::List{2, datacenter::UserList::hammerList, okv::Null{}, {}});
    EXPECT_EQ(view.fullestScope().bytes, 16);
    view.apply(setting(1, "b", okv::Null{}));
    EXPECT_EQ(view.fullestScope().bytes, 8);
    view.apply(step::EmptyUser{1});
    view.apply(setting(datacenter::kEverybody, "k", okv::Null{}));
    EXPECT_EQ(view.fullestScope().bytes, 0);
}

// Destroying it may take long, and reads would wait.
TEST(View, GivesWhatARemovedUserHadToTheStep) {
    View view;
    view.apply(step::AddUser{1});
    view.apply(step::AddUser{2});
    datacenter::Step removing = step::RemoveUser{2};
    datacenter::Step emptying = step::EmptyUser{1};
    view.apply(removing);
    view.apply(emptying);
    EXPECT_TRUE(std::get<step::RemoveUser>(removing).remains);
    EXPECT_TRUE(std::get<step::EmptyUser>(emptying).remains);
}

TEST(View, GivesWhatItHeldToTheStepThatReplacesIt) {
    View view;
    view.apply(setting(datacenter::kEverybody, "old", 1));
    auto other = std::make_shared<View>();
    other->apply(setting(datacenter::kEverybody, "new", 2));
    view.apply(step::Reload{other});
    EXPECT_EQ(view.find(1, "old").setting, nullptr);
    ASSERT_NE(view.find(1, "new").setting, nullptr);
    EXPECT_NE(other->find(1, "old").setting, nullptr);
}

TEST(View, AnEmptiedUserStaysKnownAndKeepsItsAssignments) {
    View view;
    view.apply(step::AddUser{1});
    view.apply(step::Assign{1000, 1});
    view.apply(step::EmptyUser{1});
    EXPECT_NE(view.user(1), nullptr);
    EXPECT_EQ(view.accounts().at(1000).assigned, 1);
}

TEST(View, TellsTheUsersIdsInOrderThroughEveryChangeOfThem) {
    using Ids = okv::Array;
    View view;
    EXPECT_EQ(view.userIds(), Ids());
    view.apply(step::AddUser{7});
    view.apply(step::AddUser{1});
    EXPECT_EQ(view.userIds(), (Ids{1, 7}));
    view.apply(step::RemoveUser{7});
    view.apply(step::AddUser{3});
    EXPECT_EQ(view.userIds(), (Ids{1, 3})) << "as many as before, and not the same";
    view.apply(step::List{2, datacenter::UserList::userSetting, 5, okv::encodeCbor(5)});
    EXPECT_EQ(view.userIds(), (Ids{1, 2, 3})) << "one that comes with what is stored for it";
    auto other = std::make_shared<View>();
    other->apply(step::AddUser{1});
    other->apply(step::AddUser{2});
    view.apply(step::Reload{other});
    EXPECT_EQ(view.userIds(), (Ids{1, 2}));
}

// A store of which one call of the system's fails, one after the other.
#include "Harness.h"
#include "Restore.h"
#include "View.h"

#include <OKVPlatform/values/Cbor.h>

#include <cerrno>
#include <filesystem>

#include "support/FailingCall.h"

using datacenter::Limits;
using datacenter::SqlError;
using datacenter::Store;
using datacenter::StoreError;
using okv::Value;
using Function = FailPlan::Function;
using Kind = FailPlan::Kind;
namespace step = datacenter::step;

namespace {

void put(Store& store, const std::string& key, const Value& value) {
    store.begin();
    store.carryOut(step::Setting{1, key, value, okv::encodeCbor(value), {0, 0}});
    store.commit();
}

void makeStore(const std::string& file) {
    Store store(file, Limits());
    put(store, "old", std::string(10000, 'v'));
}

bool holds(Store& store, const std::string& key) {
    return store.load()->find(1, key).setting != nullptr;
}

// What opening it comes to, with one call failing: it opens and works, or says why not.
void open(const std::string& file, FailingCall& failing) {
    try {
        failing.arm();
        Store store(file, Limits(), Store::Damaged::setAside);
        failing.disarm();
        EXPECT_EQ(store.setAside(), "") << "a sound store was set aside";
        EXPECT_TRUE(holds(store, "old"));
        put(store, "later", 1);
    } catch (const StoreError& error) {
        EXPECT_STRNE(error.what(), "");
    } catch (const std::bad_alloc&) {
    }
}

}  // namespace

class AStoreOfWhichOneCallFails : public testing::TestWithParam<std::tuple<Function, int>> {};

TEST_P(AStoreOfWhichOneCallFails, OpensAndWorksOrIsRefusedAndNeverSetAside) {
    const support::TempFolder folder;
    const auto file = folder / "store";
    makeStore(file);
    const auto [function, error] = GetParam();
    forEachFailingCall(function, Kind::any, error, [&](FailingCall& failing) {
        open(file, failing);
        failing.disarm();
        Store store(file, Limits());
        EXPECT_TRUE(holds(store, "old"));
    });
}

TEST_P(AStoreOfWhichOneCallFails, RefusesAChangeOnlyWhenItWasNotCommitted) {
    const support::TempFolder folder;
    const auto file = folder / "store";
    makeStore(file);
    const auto [function, error] = GetParam();
    forEachFailingCall(function, Kind::any, error, [&](FailingCall& failing) {
        bool accepted = true;
        {
            Store store(file, Limits());
            try {
                failing.arm();
                put(store, "new", std::string(10000, 'n'));
            } catch (const SqlError&) {
                accepted = false;
            } catch (const std::bad_alloc&) {
                accepted = false;
            }
            failing.disarm();
            store.rollback();
            EXPECT_EQ(holds(store, "new"), accepted);
        }
        Store store(file, Limits());
        EXPECT_EQ(holds(store, "new"), accepted);
        put(store, "new", okv::Null{});
    });
}

TEST(ARestoreOfWhichOneRenameFails, LeavesTheStoreAndItsMarkAsTheyWere) {
    const support::TempFolder folder;
    const auto file = folder / "store";
    makeStore(file);
    const auto backups = datacenter::backupFolder(file);
    std::filesystem::create_directory(backups);
    std::filesystem::copy_file(file, backups + '/' + datacenter::backupName(1, 0));
    {
        Store store(file, Limits());
        put(store, "later", 1);
    }
    const auto before = support::bytesOf(file), mark = support::bytesOf(file + ".guard");
    const auto calls =
        forEachFailingCall(Function::rename, Kind::any, EIO, [&](FailingCall& failing) {
            bool restored = true;
            try {
                failing.arm();
                datacenter::restoreStore(file, [](const std::string&) {});
            } catch (const StoreError&) {
                restored = false;
            }
            failing.disarm();
            EXPECT_NE(restored, failing.hasFailed());
            EXPECT_EQ(support::bytesOf(file) == before, !restored);
            EXPECT_EQ(support::bytesOf(file + ".guard") == mark, !restored);
        });
    EXPECT_EQ(calls, 4U) << "the store, the two files beside it, the copy";
}

TEST(AStoreThatCannotBeLocked, IsNotCalledAnotherServers) {
    const support::TempFolder folder;
    FailingCall failing(Function::lock, Kind::any, ENOLCK, 1);
    failing.arm();
    try {
        const Store store(folder / "store", Limits());
        ADD_FAILURE() << "it was opened";
    } catch (const StoreError& error) {
        EXPECT_EQ(std::string(error.what()),
                  "cannot lock " + (folder / "store.guard") + ": No locks available");
    }
}

INSTANTIATE_TEST_SUITE_P(
    Each, AStoreOfWhichOneCallFails,
    testing::Values(std::tuple{Function::read, EIO}, std::tuple{Function::read, FailPlan::kShort},
                    std::tuple{Function::write, ENOSPC}, std::tuple{Function::write, EIO},
                    std::tuple{Function::write, FailPlan::kShort},
                    std::tuple{Function::open, EMFILE}, std::tuple{Function::sync, EIO},
                    std::tuple{Function::truncate, EIO}, std::tuple{Function::allocate, ENOMEM}));

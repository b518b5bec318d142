#include "Harness.h"
#include "View.h"

#include <sys/resource.h>

#include <csignal>

using okv::Dictionary;
using okv::Value;
using Kind = okv::Refusal::Kind;

namespace {

/// A writer by itself; the batches are taken as they come.
class WriterAlone : public testing::Test {
protected:
    template <auto Method, class... Arguments>
    void queue(const Arguments&... arguments) {
        const auto port = okv::make<RecordingPort>(account(0));
        EXPECT_TRUE(
            writer.queue(requestFor<Method>(port, arguments...), datacenter::methodOf<Method>()));
    }
    void queueSet(const char* key, const Value& value) {
        queue<&Data::setOKVDataPT_value_appUid>(key, value, 1);
    }
    static auto answer(const datacenter::Batch::Answer& held) {
        return answerIn<&Data::setOKVDataPT_value_appUid>(held.frame);
    }

    std::shared_ptr<datacenter::Batch> next() {
        std::unique_lock lock(mutex_);
        EXPECT_TRUE(
            came_.wait_for(lock, std::chrono::seconds(60), [this] { return !batches_.empty(); }));
        auto batch = batches_.front();
        batches_.erase(batches_.begin());
        return batch;
    }
    /// What is queued until `letGo` goes into one transaction.
    void holdWriter() {
        turnstile.hold();
        writer.queueReload();
        turnstile.awaitHeld();
    }
    void letGo() {
        turnstile.letGo();
        EXPECT_EQ(next()->answers.at(0).request, nullptr) << "the reload's own";
    }

    support::TempFolder folder;
    std::mutex mutex_;
    std::condition_variable came_;
    std::vector<std::shared_ptr<datacenter::Batch>> batches_;
    std::vector<std::string> log;  // written before the batch is handed over, read after
    Turnstile turnstile;
    datacenter::Store store{folder / "s", [] {
                                datacenter::Limits limits;
                                limits.storePages = 200;
                                limits.queuedBytes = 1 << 20;
                                limits.groupedSteps = 20;
                                return limits;
                            }()};
    datacenter::Rights rights{{false, 4000, std::nullopt}};
    datacenter::Writer writer{store,
                              rights,
                              [] { return 1.0; },
                              {[this](std::shared_ptr<datacenter::Batch> batch) {
                                   const std::lock_guard lock(mutex_);
                                   batches_.push_back(std::move(batch));
                                   came_.notify_all();
                               },
                               [] {}, [this](const std::string& line) { log.push_back(line); },
                               [this] { turnstile.pass(); }}};
};

}  // namespace

TEST_F(WriterAlone, WhatQueuedUpMeanwhileIsOneTransactionWithOutcomesOfItsOwn) {
    holdWriter();
    queueSet("a", 1);
    queueSet("", 2);
    queueSet("b", 3);
    queue<&Data::setOKVDataAllPT_appUid>(Dictionary{{"c", 4}, {"", 5}}, 1);
    letGo();
    const auto batch = next();
    ASSERT_EQ(batch->answers.size(), 4U);
    EXPECT_TRUE(answer(batch->answers[0]).value);
    EXPECT_FALSE(answer(batch->answers[1]).value);
    EXPECT_TRUE(answer(batch->answers[2]).value);
    EXPECT_FALSE(answer(batch->answers[3]).value);
    ASSERT_EQ(batch->told.size(), 2U);
    EXPECT_EQ(batch->told[0].revision, 1);
    EXPECT_EQ(batch->told[1].revision, 2);  // no gap for what was refused

    datacenter::View view;
    view.begin("", 0, 10);
    view.apply(datacenter::step::AddUser{1});
    for (auto& step : batch->steps) view.apply(step);
    EXPECT_EQ(view.revision(), 2);
    EXPECT_EQ(view.settingCount(), 2);
    EXPECT_EQ(view.find(1, "c").setting, nullptr);
}

TEST_F(WriterAlone, ATransactionOfManyStepsLeavesFurtherRequestsToTheNext) {
    holdWriter();
    Dictionary many;
    for (int i = 0; i < 30; ++i) many.set("k" + std::to_string(i), i);
    queueSet("first", 1);
    queue<&Data::setOKVDataAllPT_appUid>(many, 1);
    queue<&Data::setOKVDataAllPT_appUid>(many, 1);
    queueSet("last", 1);
    const auto bytes = writer.waitingBytes();
    letGo();
    std::int64_t revision = 0;
    for (const std::size_t count : {2U, 1U, 1U}) {
        const auto batch = next();
        ASSERT_EQ(batch->answers.size(), count);
        for (const auto& held : batch->answers) EXPECT_TRUE(answer(held).value);
        EXPECT_GT(batch->told.at(0).revision, revision) << "in the order in which they came";
        revision = batch->told.back().revision;
    }
    EXPECT_GT(bytes, 0U);
    EXPECT_EQ(writer.waitingBytes(), 0U);
    EXPECT_EQ(writer.waiting(), 0U);
}

TEST_F(WriterAlone, ALoneRequestIsCarriedOutAtOnce) {
    queueSet("a", 1);
    EXPECT_EQ(next()->answers.size(), 1U);
}

TEST_F(WriterAlone, TheNextGroupDoesNotWaitUntilTheLastIsAnswered) {
    queueSet("a", 1);
    const auto first = next();
    queueSet("b", 2);
    EXPECT_EQ(next()->told.at(0).revision, 2);
}

TEST_F(WriterAlone, AFullStoreRefusesWhatDoesNotFitAndTakesTheRest) {
    holdWriter();
    queueSet("small", 1);
    queue<&Data::setOkvHammerListPT_value>(1, std::string(900 << 10, 'x'));
    queueSet("small too", 1);
    letGo();
    const auto batch = next();
    ASSERT_EQ(batch->answers.size(), 3U);
    const auto refused = answer(batch->answers[1]);
    EXPECT_FALSE(refused.value);
    ASSERT_TRUE(refused.refusal);
    EXPECT_EQ(refused.refusal->kind, Kind::noSpace);
    EXPECT_NE(refused.refusal->reason, "");
    queueSet("next", 1);
    EXPECT_TRUE(answer(next()->answers.at(0)).value);
}

TEST_F(WriterAlone, TakesNoMoreThanItHasRoomFor) {
    holdWriter();
    const auto port = okv::make<RecordingPort>(account(0));
    const auto large =
        requestFor<&Data::setOKVDataPT_value_appUid>(port, "k", std::string(900 << 10, 'x'), 1);
    const auto method = datacenter::methodOf<&Data::setOKVDataPT_value_appUid>();
    EXPECT_TRUE(writer.queue(large, method));
    EXPECT_FALSE(writer.queue(large, method));
    EXPECT_EQ(writer.waiting(), 1U);
    letGo();
    next();
    EXPECT_TRUE(writer.queue(large, method));
}

TEST_F(WriterAlone, FinishingCarriesOutWhatWasTakenAndTakesNothingMore) {
    holdWriter();
    queueSet("a", 1);
    writer.finish();
    const auto port = okv::make<RecordingPort>(account(0));
    EXPECT_FALSE(writer.queue(requestFor<&Data::setOKVDataPT_value_appUid>(port, "b", 1, 1),
                              datacenter::methodOf<&Data::setOKVDataPT_value_appUid>()));
    letGo();
    EXPECT_EQ(next()->told.size(), 1U);
}

namespace {

/// No file of this process may grow beyond so many bytes while it lives.
class FileSizeLimit {
public:
    explicit FileSizeLimit(rlim_t bytes) {
        std::signal(SIGXFSZ, SIG_IGN);
        getrlimit(RLIMIT_FSIZE, &before_);
        const rlimit limit{bytes, before_.rlim_max};
        setrlimit(RLIMIT_FSIZE, &limit);
    }
    ~FileSizeLimit() { setrlimit(RLIMIT_FSIZE, &before_); }
    FileSizeLimit(const FileSizeLimit&) = delete;
    FileSizeLimit& operator=(const FileSizeLimit&) = delete;

private:
    rlimit before_{};
};

}  // namespace

TEST_F(WriterAlone, AFailedCommitRefusesEveryRequestOfTheGroup) {
    queueSet("before", 1);
    next();
    holdWriter();
    queueSet("a", 1);
    queueSet("b", 2);
    {
        const FileSizeLimit limit(1);
        letGo();
        const auto batch = next();
        ASSERT_EQ(batch->answers.size(), 2U);
        for (const auto& held : batch->answers) {
            EXPECT_FALSE(answer(held).value);
            ASSERT_TRUE(answer(held).refusal);
            EXPECT_EQ(answer(held).refusal->kind, Kind::failed);
        }
        EXPECT_TRUE(batch->steps.empty());
        EXPECT_TRUE(batch->told.empty());
        queueSet("c", 3);
        EXPECT_FALSE(answer(next()->answers.at(0)).value);
    }
    queueSet("after", 3);
    const auto batch = next();
    EXPECT_TRUE(answer(batch->answers.at(0)).value);
    EXPECT_EQ(batch->told.at(0).revision, 2);
    ASSERT_EQ(log.size(), 2U);
    EXPECT_NE(log[0].find("the store fails"), std::string::npos);
    EXPECT_EQ(log[1], "the store works again");
}

TEST(WriterInServer, AChangeIsToldOnceItIsAnsweredAndCanBeRead) {
    Harness harness;
    const auto port = okv::make<RecordingPort>(account(0));
    Value read;
    harness.poster.posting = [&] {
        EXPECT_EQ(port->answers.size(), 1U);
        read = harness.server->view().find(1, "k").setting->value;
    };
    harness.send<&Data::setOKVDataPT_value_appUid>(port, "k", 1, 1);
    harness.awaitAnswer(*port);
    EXPECT_EQ(harness.poster.take(1).at(0)["revision"], Value(1));
    EXPECT_EQ(read, Value(1));
}

TEST(WriterInServer, ReadsDoNotWaitForTheWriter) {
    Harness harness;
    EXPECT_TRUE((harness.ask<&Data::setOKVDataPT_value_appUid>("k", 1, 1)));
    harness.holdWriter();
    const auto port = okv::make<RecordingPort>(account(0));
    harness.send<&Data::setOKVDataPT_value_appUid>(port, "k", 2, 1);
    EXPECT_EQ((harness.ask<&Data::okvDataPT_appUid>("k", 1)), Value(1));
    EXPECT_EQ(harness.ask<&Admin::serverStatusPT>().as<Dictionary>()["waiting"], Value(1));
    EXPECT_TRUE(port->answers.empty());
    harness.letWriterGo();
    harness.awaitAnswer(*port);
    EXPECT_EQ((harness.ask<&Data::okvDataPT_appUid>("k", 1)), Value(2));
}

TEST(WriterInServer, ReadsGoOnWhileNothingCanBeWritten) {
    Harness harness;
    EXPECT_TRUE((harness.ask<&Data::setOKVDataPT_value_appUid>("k", 1, 1)));
    {
        const FileSizeLimit limit(1);
        EXPECT_FALSE((harness.ask<&Data::setOKVDataPT_value_appUid>("k", 2, 1)));
        EXPECT_EQ((harness.ask<&Data::okvDataPT_appUid>("k", 1)), Value(1));
    }
    EXPECT_TRUE((harness.ask<&Data::setOKVDataPT_value_appUid>("k", 3, 1)));
    harness.restart();
    EXPECT_EQ((harness.ask<&Data::okvDataPT_appUid>("k", 1)), Value(3));
}

#include <OKVPlatform/values/AtomicRef.h>

#include <gtest/gtest.h>

#include <thread>

namespace {

class Counted : public okv::Object {
public:
    explicit Counted(int& deallocs) : deallocs_(deallocs) {}

protected:
    void dealloc() override {
        const auto self = okv::Ref<Counted>::retaining(this);
        EXPECT_FALSE(retainUnlessDying());
        ++deallocs_;
    }

private:
    int& deallocs_;
};

}  // namespace

TEST(Object, IsBornWithOneReferenceAndDeallocatedOnceByTheLastRelease) {
    int deallocs = 0;
    auto ref = okv::make<Counted>(deallocs);
    EXPECT_EQ(ref->retainCount(), 1U);
    auto second = ref;
    EXPECT_EQ(ref->retainCount(), 2U);
    ref = nullptr;
    EXPECT_EQ(deallocs, 0);
    second = nullptr;
    EXPECT_EQ(deallocs, 1);
}

TEST(AtomicRef, ClearsOnlyWhatItIsToldToClear) {
    int deallocs = 0;
    okv::AtomicRef<Counted> field;
    auto first = okv::make<Counted>(deallocs);
    auto second = okv::make<Counted>(deallocs);
    field.store(second);
    EXPECT_FALSE(field.clearIf(first.get()));
    EXPECT_TRUE(field.clearIf(second.get()));
    EXPECT_FALSE(static_cast<bool>(field));
    EXPECT_EQ(second->retainCount(), 1U);
}

TEST(AtomicRef, ReadersNeverSeeAnObjectAfterItsLastRelease) {
    okv::AtomicRef<okv::ObjectArray> field;
    std::atomic<bool> done{false};
    std::jthread writer([&] {
        for (int i = 0; i < 20000; ++i) field.store(okv::make<okv::ObjectArray>());
        done = true;
    });
    while (!done) {
        const auto held = field.load();
        EXPECT_TRUE(!held || held->retainCount() >= 1);
    }
}

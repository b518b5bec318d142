#include "support/Processes.h"

#include <OKVPlatform/ipc/RuntimeFolder.h>
#include <OKVTesting/RuntimeFolder.h>

#include <gtest/gtest.h>

namespace {

constexpr char kVariable[] = "OKV_RUNTIME_DIR";

}  // namespace

TEST(ARuntimeFolderForATest, IsTheProcessesWhileItLivesAndThenTheFormerOneIs) {
    const support::Environment former(kVariable, "/former");
    {
        const okv::testing::RuntimeFolder outer;
        EXPECT_EQ(okv::runtimeDirectory(), outer.path());
        {
            const okv::testing::RuntimeFolder inner;
            EXPECT_EQ(okv::runtimeDirectory(), inner.path());
        }
        EXPECT_EQ(okv::runtimeDirectory(), outer.path());
    }
    EXPECT_EQ(okv::runtimeDirectory(), "/former");
}

TEST(AVariableForATest, IsThereWhileItLivesAndThenTheFormerOneIs) {
    const char* const name = "OKV_TEST_VARIABLE";
    {
        const support::Environment outer(name, "outer");
        {
            const support::Environment inner(name, "inner");
            EXPECT_STREQ(std::getenv(name), "inner");
        }
        EXPECT_STREQ(std::getenv(name), "outer");
    }
    EXPECT_EQ(std::getenv(name), nullptr);
}

#include <OKVPlatform/system/SystemVersion.h>

#include <gtest/gtest.h>

#include <sys/utsname.h>

struct ReleaseRow {
    const char* release;
    std::optional<std::uint32_t> version;
};

class Release : public testing::TestWithParam<ReleaseRow> {};

TEST_P(Release, ReadsAsAVersionCode) {
    EXPECT_EQ(okv::systemVersionOf(GetParam().release), GetParam().version);
}

INSTANTIATE_TEST_SUITE_P(
    Rows, Release,
    testing::Values(ReleaseRow{"6.1.0-18-amd64", 0x060100}, ReleaseRow{"5.15.153", 0x050f99},
                    ReleaseRow{"4.9.337", 0x0409ff}, ReleaseRow{"4.9.255", 0x0409ff},
                    ReleaseRow{"6.8", 0x060800}, ReleaseRow{"6", 0x060000},
                    ReleaseRow{"6-rc1.2.3", 0x060000}, ReleaseRow{"6.1-rc3", 0x060100},
                    ReleaseRow{"6..3", 0x060000}, ReleaseRow{"6.300.1", 0x06ff01},
                    ReleaseRow{"99999999999.1.1", 0xffff0101},
                    ReleaseRow{"6.1.99999999999", 0x0601ff}, ReleaseRow{"", std::nullopt},
                    ReleaseRow{"linux", std::nullopt}, ReleaseRow{"-6.1", std::nullopt}));

TEST(SystemVersion, IsTheRunningKernels) {
    utsname names{};
    ASSERT_EQ(uname(&names), 0);
    EXPECT_EQ(okv::systemVersion(), okv::systemVersionOf(names.release));
    EXPECT_TRUE(okv::systemVersion());
}

TEST(SystemVersion, AnotherQueryCanStandIn) {
    okv::setSystemVersionQuery([]() -> std::optional<std::uint32_t> { return 0x1068; });
    EXPECT_EQ(okv::systemVersion(), 0x1068U);
    okv::setSystemVersionQuery(nullptr);
    EXPECT_NE(okv::systemVersion(), 0x1068U);
}

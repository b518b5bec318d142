#include <OKVPlatform/values/ErrorText.h>

#include <gtest/gtest.h>

#include <cerrno>

TEST(ErrorText, IsTheSystemsOwn) {
    EXPECT_EQ(okv::errorText(ENOENT), "No such file or directory");
    EXPECT_EQ(okv::errorText(0), "Success");
}

TEST(ErrorText, OfANumberThatIsNoErrorIsTheNumber) {
    EXPECT_EQ(okv::errorText(99999), "error 99999");
    EXPECT_EQ(okv::errorText(-1), "error -1");
}

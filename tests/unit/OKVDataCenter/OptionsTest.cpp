#include "Options.h"

#include <gtest/gtest.h>

#include <vector>

using datacenter::Options;

namespace {

Options parse(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), "OKVDataCenter");
    std::vector<char*> pointers;
    for (auto& argument : arguments) pointers.push_back(argument.data());
    pointers.push_back(nullptr);
    return Options::parse(static_cast<int>(arguments.size()), pointers.data());
}

}  // namespace

TEST(Options, SayWhereTheStoreIsAndHowToServe) {
    const auto options =
        parse({"--store", "/s", "--runtime-dir=/r", "--foreground", "--self-service"});
    EXPECT_EQ(options.act, Options::Act::serve);
    EXPECT_EQ(options.store, "/s");
    EXPECT_EQ(options.runtimeDirectory, "/r");
    EXPECT_TRUE(options.foreground);
    EXPECT_TRUE(options.selfService);
    EXPECT_FALSE(parse({"--store=/s"}).selfService);
}

TEST(Options, TellWhatIsWrongInOneLine) {
    const struct {
        std::vector<std::string> arguments;
        const char* says;
    } lines[] = {
        {{}, "--store FILE is needed"},
        {{"--store", ""}, "--store FILE is needed"},
        {{"--store"}, "--store needs a value"},
        {{"--bogus"}, "--bogus is no option"},
        {{"-x"}, "-x is no option"},
        {{"--store=/s", "more"}, "more is more than is asked for"},
        {{"--store=/s", "--foreground=yes"}, "is no option"},
    };
    for (const auto& [arguments, says] : lines) {
        const auto options = parse(arguments);
        EXPECT_EQ(options.act, Options::Act::wrong);
        EXPECT_NE(options.error.find(says), std::string::npos) << options.error;
        EXPECT_EQ(options.error.find('\n'), std::string::npos);
    }
}

TEST(Options, AskedForHelpOrTheVersionNothingElseCounts) {
    EXPECT_EQ(parse({"--help"}).act, Options::Act::help);
    EXPECT_EQ(parse({"--version", "--bogus"}).act, Options::Act::version);
}

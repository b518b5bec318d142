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
    EXPECT_EQ(parse({"--store=/s"}).connectionsPerUid, 128U);
    EXPECT_EQ(parse({"--store=/s", "--connections-per-uid=1"}).connectionsPerUid, 1U);
    EXPECT_EQ(parse({"--connections-per-uid", "1024", "--store=/s"}).connectionsPerUid, 1024U);
}

TEST(Options, SayHowOftenABackupIsMadeAndThatOneIsBroughtBack) {
    EXPECT_EQ(parse({"--store=/s"}).backupInterval, std::chrono::hours(24));
    EXPECT_EQ(parse({"--store=/s", "--backup-interval", "0"}).backupInterval.count(), 0);
    EXPECT_EQ(parse({"--store=/s", "--backup-interval=3600"}).backupInterval.count(), 3600);
    const auto restoring = parse({"--restore", "--store=/s"});
    EXPECT_EQ(restoring.act, Options::Act::restore);
    EXPECT_EQ(restoring.store, "/s");
}

TEST(Options, AreAllToldByTheHelp) {
    const std::string help = datacenter::kUsage;
    for (const char* option :
         {"--store", "--runtime-dir", "--foreground", "--self-service", "--begin-afresh",
          "--backup-interval", "--restore", "--help, --version"})
        EXPECT_NE(help.find(std::string("  ") + option), std::string::npos) << option;
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
        {{"--store=/s", "--connections-per-uid"}, "--connections-per-uid needs a value"},
        {{"--store=/s", "--connections-per-uid=0"}, "is a number of 1 to 1024"},
        {{"--store=/s", "--connections-per-uid=1025"}, "is a number of 1 to 1024"},
        {{"--store=/s", "--connections-per-uid=-1"}, "is a number of 1 to 1024"},
        {{"--store=/s", "--connections-per-uid=8x"}, "is a number of 1 to 1024"},
        {{"--store=/s", "--connections-per-uid="}, "is a number of 1 to 1024"},
        {{"--restore"}, "--store FILE is needed"},
        {{"--store=/s", "--restore", "--begin-afresh"}, "exclude each other"},
        {{"--store=/s", "--backup-interval"}, "--backup-interval needs a value"},
        {{"--store=/s", "--backup-interval", ""}, "a number of seconds"},
        {{"--store=/s", "--backup-interval", "day"}, "a number of seconds, not day"},
        {{"--store=/s", "--backup-interval", "-1"}, "a number of seconds"},
        {{"--store=/s", "--backup-interval", "1s"}, "a number of seconds"},
        {{"--store=/s", "--backup-interval", "99999999999999999999"}, "a number of seconds"},
        {{"--store=/s", "--backup-interval=x", "--foreground"}, "a number of seconds"},
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
    EXPECT_EQ(parse({"-h"}).act, Options::Act::help);
    EXPECT_EQ(parse({"-x"}).act, Options::Act::wrong);
    EXPECT_EQ(parse({"--version", "--bogus"}).act, Options::Act::version);
}

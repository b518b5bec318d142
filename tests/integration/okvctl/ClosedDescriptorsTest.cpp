#include "ToolRun.h"

#include "support/Files.h"

#include <OKVTesting/RuntimeFolder.h>

#include <gmock/gmock.h>

#include <csignal>
#include <string>

// Programs that were started without some of the standard descriptors: those that they open
// themselves must not take their place.
namespace okvctl_test::closed_descriptors {

using okv::testing::RuntimeFolder;
using testing::ContainsRegex;

namespace {

/// A command of the shell's; $0 is the tool. All that it prints, in one line each.
std::string shown(const std::string& command) {
    Child shell("/bin/sh", {"-c", command + "; echo \"$?\"", OKVCTL_PROGRAM});
    std::string text;
    for (auto line = shell.line(); !line.empty(); line = shell.line()) text += line + "\n";
    return text;
}

}  // namespace

TEST(ClosedDescriptors, OfTheToolFailWhereTheyAreUsed) {
    const DataCenter server;
    ASSERT_EQ(run({"set", "dc-a=1"}).code, 0);
    EXPECT_EQ(shown("\"$0\" get dc-a 2>&1 >&-"),
              "okvctl: the output cannot be written: Bad file descriptor\n1\n");
    EXPECT_EQ(shown("\"$0\" get dc-a 2>&1 <&- >&-"),
              "okvctl: the output cannot be written: Bad file descriptor\n1\n");
    EXPECT_THAT(shown("\"$0\" import - 2>&1 <&-"), ContainsRegex("Bad file descriptor\n1\n$"));
}

TEST(ClosedDescriptors, OfTheToolHarmNothingWhereTheyAreNotUsed) {
    const DataCenter server;
    EXPECT_EQ(shown("\"$0\" get dc-a 2>&-"), "10\n");
    EXPECT_EQ(shown("\"$0\" set dc-a=1 <&- >&- 2>&-"), "0\n");
    EXPECT_EQ(shown("\"$0\" get dc-a <&- 2>&-"), "1\n0\n");
}

TEST(ClosedDescriptors, OfTheServerLeaveTheFilesBesideItsStoreAlone) {
    for (const char* closed : {"<&- >&-", ">&-", "<&- >&- 2>&-"}) {
        const RuntimeFolder folder;
        const support::TempFolder place;
        const std::string store = place / "store.db";
        Child server("/bin/sh", {"-c", std::string("exec \"$0\" --store \"$1\" ") + closed,
                                 OKV_DATA_CENTER, store});
        // It has told that it is ready before it answers.
        ASSERT_EQ(run({"--wait", "--timeout", "30", "ping"}).code, 0) << closed;
        EXPECT_THAT(support::bytesOf(store + ".guard"), ContainsRegex("^[0-9a-f]+ 0\n$")) << closed;
        EXPECT_EQ(run({"set", "dc-a=1"}).code, 0) << closed;
        server.signal(SIGTERM);
        EXPECT_EQ(server.wait(), 0) << closed;
        EXPECT_THAT(support::bytesOf(store + ".guard"), ContainsRegex("^[0-9a-f]+ 1\n$")) << closed;
    }
}

}  // namespace okvctl_test::closed_descriptors

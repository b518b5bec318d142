#include "ToolRun.h"

#include "support/Files.h"

#include <OKVDataManager/okvDataManager.h>

#include <OKVTesting/FakeDataServer.h>
#include <OKVTesting/RuntimeFolder.h>

#include <gmock/gmock.h>

#include <future>

namespace okvctl_test::terminal {

using support::TempFolder;
using testing::HasSubstr;
using testing::Not;
using Words = std::vector<std::string>;

namespace {

constexpr char kEscape[] = "\x1B[";

std::string shown(const Words& words, const Words& environment = {}) {
    return OnTerminal(words, environment).finish().out;
}

/// Answers an import only when it is told to.
class SlowImport {
public:
    SlowImport() {
        server_.answerBy("importDataPT:", [this](const auto&) {
            go_.get_future().wait();
            return okv::Value(true);
        });
    }
    ~SlowImport() {
        if (!gone_) go();
    }
    void go() {
        gone_ = true;
        go_.set_value();
    }

private:
    const okv::testing::RuntimeFolder folder_;
    bool gone_ = false;
    std::promise<void> go_;
    okv::testing::FakeDataServer server_;
};

}  // namespace

TEST(Terminal, HasABoldHeadAndLockedKeysInYellow) {
    const DataCenter server;
    run({"set", "dc-a=1"});
    run({"lock", "dc-a"});
    EXPECT_THAT(shown({"list"}), HasSubstr("\x1B[1mKEY\x1B[0m"));
    EXPECT_THAT(shown({"locks"}), HasSubstr("\x1B[33mdc-a\x1B[0m"));
    EXPECT_THAT(shown({"describe", "dc-a"}), HasSubstr("\x1B[33mtrue\x1B[0m"));
    EXPECT_THAT(shown({"doctor"}), HasSubstr("\x1B[32mok\x1B[0m"));
}

TEST(Terminal, HasErrorsInRed) {
    EXPECT_EQ(shown({"gte"}).rfind("\x1B[31mokvctl: there is no verb", 0), 0U);
}

TEST(Terminal, HasNoColoursWhereNoneAreWanted) {
    const DataCenter server;
    run({"set", "dc-a=1"});
    run({"lock", "dc-a"});
    for (const Words& environment :
         {Words{"NO_COLOR=1"}, Words{"TERM=dumb"}, Words{"TERM="}, Words{"NO_COLOR=x", "TERM=x"}}) {
        for (const Words& words : {Words{"list"}, Words{"locks"}, Words{"gte"}, Words{"doctor"}})
            EXPECT_THAT(shown(words, environment), Not(HasSubstr(kEscape)));
    }
    // An empty one counts as none.
    EXPECT_THAT(shown({"list"}, {"NO_COLOR="}), HasSubstr(kEscape));
}

TEST(Terminal, IsSentNoColoursInDocumentsAndNothingElseIsEver) {
    const DataCenter server;
    run({"set", "dc-a=1"});
    EXPECT_EQ(shown({"--json", "list"}), "{\"dc-a\":\"1\"}\r\n");
    for (const Words& words : {Words{"list"}, Words{"doctor"}, Words{"gte"}}) {
        const auto piped = run(words);
        EXPECT_THAT(piped.out + piped.error, Not(HasSubstr(kEscape)));
    }
}

TEST(Terminal, IsNotMadeToActByAValue) {
    const DataCenter server;
    run({"set", "dc-a=a\x1B[31mb"});
    EXPECT_EQ(shown({"get", "dc-a"}), "\"a\\u001b[31mb\"\r\n");
    EXPECT_EQ(run({"get", "dc-a"}).out, "a\x1B[31mb\n");
    EXPECT_THAT(shown({"list", "--no-legend"}), Not(HasSubstr(kEscape)));
    EXPECT_THAT(shown({"get", "dc-\x1B[31m"}, {"NO_COLOR=1"}), HasSubstr("\\x1b[31m"));
}

TEST(Terminal, ShowsHowALongImportGoesOnAndWipesItAway) {
    SlowImport slow;
    const TempFolder folder;
    OnTerminal import({"import", folder.write("store", "{\"format\": 1}")});
    EXPECT_TRUE(import.shows("importing [################--------] storing, "));
    slow.go();
    const auto ran = import.finish();
    EXPECT_EQ(ran.code, 0);
    EXPECT_TRUE(ran.out.ends_with("\r\x1B[K")) << ran.out;
    EXPECT_EQ(ran.out.find('\n'), std::string::npos);
}

TEST(Progress, IsShownOnNothingButATerminal) {
    const okv::testing::RuntimeFolder runtime;
    okv::testing::FakeDataServer server;
    bool isAsked = false;
    server.answerBy("importDataPT:", [&isAsked](const auto&) {
        isAsked = true;
        // Longer than it takes until a bar is shown.
        std::this_thread::sleep_for(std::chrono::milliseconds(500));
        return okv::Value(true);
    });
    const TempFolder folder;
    const auto ran = run({"import", folder.write("store", "{\"format\": 1}")});
    EXPECT_EQ(ran.code, 0);
    EXPECT_TRUE(isAsked);
    EXPECT_EQ(ran.out + ran.error, "");
}

}  // namespace okvctl_test::terminal

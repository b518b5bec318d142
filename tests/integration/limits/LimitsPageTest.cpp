#include "../faults/Support.h"
#include "Limits.h"

#include <gtest/gtest.h>

#include <cctype>
#include <cstdio>
#include <fstream>

// docs/limits.md, the server's constants and what okvctl status prints are one.

using namespace faults;
using okv::Dictionary;
using okv::Value;

namespace {

/// The first cell of a row names the limit in code style, the second begins with its number.
std::map<std::string, std::int64_t> limitsOfThePage() {
    std::map<std::string, std::int64_t> limits;
    std::ifstream page(OKV_LIMITS_PAGE);
    for (std::string line; std::getline(page, line);) {
        if (!line.starts_with("| `")) continue;
        const auto end = line.find("` | ");
        EXPECT_NE(end, std::string::npos) << line;
        const auto name = line.substr(3, end - 3);
        EXPECT_TRUE(limits.emplace(name, std::stoll(line.substr(end + 4))).second) << name;
    }
    return limits;
}

std::map<std::string, std::int64_t> limitsOfTheServer() {
    std::map<std::string, std::int64_t> limits;
    for (const auto& [name, value] : datacenter::namedLimits(datacenter::Limits()))
        EXPECT_TRUE(limits.emplace(name, value).second) << name;
    return limits;
}

std::string outputOf(const std::string& command) {
    auto* pipe = popen(command.c_str(), "r");
    std::string text;
    char bytes[4096];
    for (std::size_t count = 0; (count = fread(bytes, 1, sizeof bytes, pipe)) > 0;)
        text.append(bytes, count);
    EXPECT_EQ(pclose(pipe), 0) << command;
    return text;
}

// What the line of the limit tells, the blanks between name and text left out.
std::string lineOf(const std::string& table, const std::string& name) {
    const auto begin = table.find("limits." + name + " ");
    if (begin == std::string::npos) return "no line";
    const auto text = table.find_first_not_of(' ', begin + 7 + name.size());
    return table.substr(text, table.find('\n', begin) - text);
}

}  // namespace

TEST(TheLimitsPage, TellsEveryLimitAsTheServerHasIt) {
    EXPECT_EQ(limitsOfThePage(), limitsOfTheServer());
}

TEST(TheLimitsPage, LeavesOutNone) {
    constexpr std::size_t kOfTheWire = 2;
    EXPECT_EQ(limitsOfTheServer().size(),
              sizeof(datacenter::Limits) / sizeof(std::size_t) + kOfTheWire)
        << "a limit without a name";
}

TEST(TheLimits, ArePrintedAsTheyAreInForceWithWhatIsTaken) {
    ServerProcess server;
    ASSERT_TRUE(server.start({"--connections-per-uid", "7"}));
    const auto root = connect();
    okv::send<&Data::setUseridPT_applyUid>(*root, 501, 2);
    okv::send<&Admin::lockOKVDataPT>(*root, okv::Array{"a", "b"});
    okv::send<&Admin::setOKVCommonDataAllPT>(*root, Dictionary{{"a", 1}, {"b", 2}, {"c", 3}});
    okv::send<&Admin::setOkvKillWebProcListPT>(*root, Dictionary{{"p", "q"}});
    const auto table = outputOf(OKV_OKVCTL " status");
    const std::map<std::string, std::string> taken{
        {"connections", "2 of 1024"},    {"connections_per_uid", "0 of 7"},
        {"ungreeted", "0 of 32"},        {"output_bytes", "0 of 4194304"},
        {"pending_requests", "1 of 64"}, {"queued_bytes", "0 of 67108864"},
        {"users", "2 of 100000"},        {"accounts", "1 of 100000"},
        {"locks", "2 of 10000"},         {"processes", "1 of 10000"},
        {"changes_kept", "4 of 10000"},  {"scope_keys", "3 of 10000"},
        {"scope_bytes", "6 of 16777216"}};
    for (const auto& [name, limit] : limitsOfTheServer()) {
        const auto found = taken.find(name);
        EXPECT_EQ(lineOf(table, name), found != taken.end() ? found->second : std::to_string(limit))
            << name;
    }
    EXPECT_NE(outputOf(OKV_OKVCTL " --json status").find("\"connections_per_uid\":7"),
              std::string::npos);
}

TEST(TheLimits, AreLowerWhereTheProcessHasFewDescriptors) {
    ServerProcess server;
    const auto script = server.file("few");
    std::ofstream(script) << "#!/bin/sh\nulimit -n 100\nexec " OKV_DATA_CENTER " \"$@\"\n";
    ASSERT_EQ(std::system(("chmod +x " + script).c_str()), 0);
    ServerProcess::useProgram(script);
    const bool started = server.start();
    ServerProcess::useProgram(OKV_DATA_CENTER);
    ASSERT_TRUE(started);
    const auto limits = status(*connect())["limits"].as<Dictionary>();
    EXPECT_EQ(limits["connections"], Value(68));
    EXPECT_EQ(limits["kept_connections"], Value(34));
}

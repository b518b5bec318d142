#include "RefusalLog.h"

#include <gtest/gtest.h>

#include <vector>

TEST(RefusalLog, NamesTheCallerAndTheMethodAndNothingElse) {
    std::vector<std::string> lines;
    datacenter::RefusalLog log([&](const std::string& line) { lines.push_back(line); });
    log.note({77, 1000, 1000, {}}, "setOKVDataPT:value:appUid:", 0);
    EXPECT_EQ(lines, std::vector<std::string>{
                         "refused setOKVDataPT:value:appUid: to uid 1000, process 77"});
}

TEST(RefusalLog, ACallerThatAsksWithoutPauseGetsTenLinesInTenSeconds) {
    std::vector<std::string> lines;
    datacenter::RefusalLog log([&](const std::string& line) { lines.push_back(line); });
    for (int i = 0; i < 1000; ++i) log.note({77, 1000, 1000, {}}, "endServer", 5);
    EXPECT_EQ(lines.size(), 10U);
    log.note({77, 1000, 1000, {}}, "endServer", 15);
    ASSERT_EQ(lines.size(), 12U);
    EXPECT_EQ(lines[10], "990 more refused requests");
    EXPECT_EQ(log.count(), 1001);
}

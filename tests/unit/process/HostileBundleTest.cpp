#include <OKVPlatform/process/ProcessManager.h>

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <functional>
#include <string>

#include "Support.h"
#include "support/Bytes.h"

using okv::Dictionary;
using okv::ProcessManager;
using okv::ProcessSerialNumber;
using support::repeated;
using support::TempFolder;
using support::write;

namespace {

constexpr const char* kInformation =
    R"(<?xml version="1.0" encoding="UTF-8"?>
<plist version="1.0"><dict>
<key>CFBundleName</key><string>Good</string>
<key>CFBundleIdentifier</key><string>jp.example.good</string>
</dict></plist>
)";

// A stranger's Info.plist: makes something at the path where it would stand.
struct HostileRow {
    const char* name;
    std::function<void(const std::string& path)> make;
};

void PrintTo(const HostileRow& row, std::ostream* out) {
    *out << row.name;
}

class HostileBundle : public testing::TestWithParam<HostileRow> {
protected:
    void addApplication(int pid, const std::string& bundle) {
        const auto folder = processes_.makeFolder(std::to_string(pid));
        std::filesystem::create_symlink(bundles_ / (bundle + "/Contents/Linux/a"), folder + "/exe");
        bundles_.makeFolder(bundle + "/Contents");
    }

    TempFolder processes_;
    TempFolder bundles_;
};

}  // namespace

TEST_P(HostileBundle, IsPassedOverAndTheNextIsFound) {
    addApplication(4, "Bad.app");
    addApplication(5, "Good.app");
    GetParam().make(bundles_ / "Bad.app/Contents/Info.plist");
    bundles_.write("Good.app/Contents/Info.plist", kInformation);
    // Whoever blocks on a stranger's file is ended here.
    alarm(20);
    ProcessManager manager(processes_.path());
    const auto all = okv::kProcessDictionaryIncludeAllInformationMask;
    ProcessSerialNumber psn;
    ASSERT_EQ(manager.GetNextProcess(&psn), okv::noErr);
    EXPECT_FALSE(manager.ProcessInformationCopyDictionary(&psn, all));
    ASSERT_EQ(manager.GetNextProcess(&psn), okv::noErr);
    EXPECT_EQ(manager.ProcessInformationCopyDictionary(&psn, all),
              (Dictionary{{"CFBundleName", "Good"},
                          {"CFBundleIdentifier", "jp.example.good"},
                          {"pid", 5},
                          {"BundlePath", bundles_ / "Good.app"}}));
    alarm(0);
}

INSTANTIATE_TEST_SUITE_P(
    Rows, HostileBundle,
    testing::Values(
        HostileRow{"missing", [](const std::string&) {}},
        HostileRow{"fifo", [](const std::string& path) { mkfifo(path.c_str(), 0644); }},
        HostileRow{"folder", [](const std::string& path) { mkdir(path.c_str(), 0755); }},
        HostileRow{
            "device",
            [](const std::string& path) { std::filesystem::create_symlink("/dev/zero", path); }},
        HostileRow{"loop",
                   [](const std::string& path) { std::filesystem::create_symlink(path, path); }},
        HostileRow{"sparse 2 GiB",
                   [](const std::string& path) {
                       write(path, kInformation);
                       ASSERT_EQ(truncate(path.c_str(), std::int64_t{2} << 30), 0);
                   }},
        HostileRow{"empty", [](const std::string& path) { write(path, ""); }},
        HostileRow{
            "deep",
            [](const std::string& path) { write(path, "<plist>" + repeated("<array>", 100000)); }},
        HostileRow{"entities",
                   [](const std::string& path) {
                       write(path,
                             "<!DOCTYPE plist [<!ENTITY a \"aaaa\"><!ENTITY b \"&a;&a;\">]>"
                             "<plist><string>&b;</string></plist>");
                   }},
        HostileRow{"no dictionary",
                   [](const std::string& path) {
                       write(path, "<plist version=\"1.0\"><string>x</string></plist>");
                   }}),
    [](const testing::TestParamInfo<HostileRow>& row) {
        std::string name = row.param.name;
        std::erase(name, ' ');
        return name;
    });

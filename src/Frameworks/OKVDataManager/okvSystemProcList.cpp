#include <OKVDataManager/okvSystemProcList.h>

// The irregular tokens are required as they stand: the lower-case "l" of launchd, the capital "I"
// of "UnInstaller" beside "OKVUninstaller.app", and "KVAgent.app" for "ProcessOKVAgent".
okvSystemProc sysBlockProcWhiteListTbl[] = {
    {"Software Update.app", "ProcessOSUpdater"},
    {"softwareupdate", "ProcessOSUpdater-cmd"},
    {"Finder.app", "ProcessOSFinder"},
    {"launchd", "ProcessOSlaunchd-cmd"},
    {"crashreporter.app", "ProcessOSCrashReporter"},
    {"OKVService.app", "ProcessOKVService"},
    {"KVAgent.app", "ProcessOKVAgent"},
    {"sockfilterController.app", "ProcessNKEController"},
    {"OKVGUIController.app", "ProcessOKVGUIController"},
    {"OKVHammer.app", "ProcessOKVHammer"},
    {"OKVDataCenter.app", "ProcessOKVDataCenter"},
    {"OKVUpdater.app", "ProcessOKVUpdater"},
    {"OKVUninstaller.app", "ProcessOKVUnInstaller"},
    {"UninstKick.app", "ProcessUninstKick"},
    {"Launcher.app", "ProcessOKVLauncher"},
    {"Launcher_Stop.app", "ProcessOKVLauncher-Stop"},
    {"Launcher_Version.app", "ProcessOKVLauncher-Version"},
    {"Launcher_Proxy.app", "ProcessOKVLauncher-Proxy"},
    {"Launcher_Key.app", "ProcessOKVLauncher-Key"},
    {"Launcher_Browser.app", "ProcessOKVLauncher-Browser"},
    {"OKVLogParser", "ProcessOKVLogParser"},
    {"UninstallHelpTool", "ProcessOKVUnInstallHelper"},
    {nullptr, nullptr},
};

okvSystemProc sysBlockProcBlackListTbl[] = {
    {nullptr, nullptr},
};

namespace {

template <class Visit>
void walk(const okvSystemProc* row, Visit visit) {
    for (; row->identifier != nullptr && row->processName != nullptr; ++row) visit(*row);
}

okv::Dictionary infoOf(const okvSystemProc* table) {
    okv::Dictionary info;
    walk(table, [&](const okvSystemProc& row) { info.set(row.processName, row.identifier); });
    return info;
}

okv::Array namesOf(const okvSystemProc* table) {
    okv::Array names;
    walk(table, [&](const okvSystemProc& row) { names.emplace_back(row.processName); });
    return names;
}

}  // namespace

okv::Dictionary okvSystemProcList::sysBlockProcWhiteListInfo() {
    return infoOf(sysBlockProcWhiteListTbl);
}

okv::Dictionary okvSystemProcList::sysBlockProcBlackListInfo() {
    return infoOf(sysBlockProcBlackListTbl);
}

okv::Array okvSystemProcList::sysBlockProcWhiteLists() {
    return namesOf(sysBlockProcWhiteListTbl);
}

okv::Array okvSystemProcList::sysBlockProcBlackLists() {
    return namesOf(sysBlockProcBlackListTbl);
}

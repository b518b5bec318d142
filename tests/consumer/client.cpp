// What somebody writes who installed the package: every public header, and a link against each
// library.
#include <OKVDataManager/okvCmnUtil.h>
#include <OKVDataManager/okvDataManager.h>
#include <OKVDataManager/okvSystemProcList.h>
#include <OKVLog/OKVLog.h>
#include <OKVPlatform/ipc/Connection.h>

#include <cstdio>
#include <cstring>

int main() {
    OKVSystemLog(99, "not written at the standard level");
    const auto connection = okv::Connection::connectionWithRegisteredName("jp.nrm.example.nobody");
    const bool tables =
        std::strcmp(sysBlockProcWhiteListTbl[0].processName, "Software Update.app") == 0 &&
        sysBlockProcBlackListTbl[0].processName == nullptr;
    std::printf("%zu system processes\n", okvDataManager::systemWhiteProcs().size());
    return !connection && tables && okvDataManager::systemBlackProcs().empty() ? 0 : 1;
}

// Answers through its exit code (1: yes) whether launchMutexCheck finds what the two arguments say.

#include <OKVDataManager/okvCmnUtil.h>

int main(int count, char** arguments) {
    if (count != 3) return 2;
    return okvCmnUtil::launchMutexCheck_BundleIdentifer(arguments[1], arguments[2]) ? 1 : 0;
}

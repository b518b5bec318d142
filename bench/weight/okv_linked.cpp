// What a process costs that is linked to the library and ends before it used it.
#include <OKVDataManager/okvDataManager.h>

int main(int count, char**) {
    return count > 99 && okvDataManager::sharedDataManager() ? 1 : 0;
}

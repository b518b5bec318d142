// A client of the data server that only connected and registered.
#include "Connected.h"

#include <OKVDataManager/okvDataManager.h>

int main() {
    const auto manager = okvDataManager::sharedDataManager();
    if (!manager) return 1;
    stayConnected();
}

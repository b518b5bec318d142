#include <OKVDataManager/okvDataManager.h>

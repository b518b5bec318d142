#include <OKVDataManager/okvSystemProcList.h>

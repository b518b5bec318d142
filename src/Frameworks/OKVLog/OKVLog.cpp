#include <OKVLog/OKVLog.h>

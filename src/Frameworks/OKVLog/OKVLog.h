#pragma once

#include <OKVPlatform/Export.h>

#pragma once

#include <OKVPlatform/Export.h>
#include <OKVPlatform/values/Value.h>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

/// The suite's toolbox: class operations only, no state. Every operation may be called from any
/// thread.
class OKV_EXPORT okvCmnUtil final {
public:
    okvCmnUtil() = delete;

    // ---- Maintenance settings and log switches ----

    // ---- Date and time ----

    // ---- Process inspection ----

    // ---- Launching and quitting applications ----

    // ---- Category data and byte buffers ----

    // ---- Identifier prefixes and localisation ----

    // ---- Installation layout, file information and user agent ----

    // ---- Published connections and bulk release ----
};

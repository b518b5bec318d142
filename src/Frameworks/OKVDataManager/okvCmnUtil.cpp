#include <OKVDataManager/okvCmnUtil.h>

// ---- Maintenance settings and log switches ----

// ---- Date and time ----

// ---- Process inspection ----

// ---- Launching and quitting applications ----

// ---- Category data and byte buffers ----

// ---- Identifier prefixes and localisation ----

// ---- Installation layout, file information and user agent ----

// ---- Published connections and bulk release ----

#pragma once

/// Marks what a library of the suite shows to those who link it; everything else is hidden.
#define OKV_EXPORT __attribute__((visibility("default")))

#pragma once

#include <OKVPlatform/values/Value.h>

#include <string>

namespace okv {

/// A notice that goes to every process of the machine that observes its name.
struct Notification {
    std::string name;
    Value object;    ///< who sends it: a string, or nil
    Value userInfo;  ///< usually a dictionary, or nil
};

}  // namespace okv

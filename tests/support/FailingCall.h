#pragma once

#include "FailPlan.h"

/// For tests that are linked with fail_nth.cpp: one call of this process that fails, from when it
/// is armed until it is disarmed.
class FailingCall {
public:
    FailingCall(FailPlan::Function function, FailPlan::Kind kind, int error, std::uint32_t nth) {
        plan_.function = function;
        plan_.kind = kind;
        plan_.error = error;
        plan_.nth = nth;
        okvFailPlan = &plan_;
    }
    FailingCall(const FailingCall&) = delete;
    FailingCall& operator=(const FailingCall&) = delete;
    ~FailingCall() { okvFailPlan = nullptr; }

    void arm() { plan_.armed = true; }
    void disarm() { plan_.armed = false; }
    bool hasFailed() const { return plan_.failed; }
    std::uint32_t calls() const { return plan_.calls; }

private:
    FailPlan plan_;
};

/// Runs the body with the first call failing, then with the second one, until a run makes no more;
/// answers how many there were.
template <class Body>
std::uint32_t forEachFailingCall(FailPlan::Function function, FailPlan::Kind kind, int error,
                                 Body body) {
    for (std::uint32_t nth = 1;; ++nth) {
        FailingCall failing(function, kind, error, nth);
        body(failing);
        failing.disarm();
        if (!failing.hasFailed()) return nth - 1;
    }
}

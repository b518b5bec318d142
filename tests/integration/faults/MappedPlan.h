#pragma once

#include "../../support/FailPlan.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <new>
#include <stdexcept>
#include <string>

namespace faults {

/// A plan in a file, as it is seen by everybody who has mapped it.
class MappedPlan {
public:
    /// One that is there.
    explicit MappedPlan(const char* path) : MappedPlan(path, O_RDWR) {}
    /// A new one.
    explicit MappedPlan(const std::string& path) : MappedPlan(path.c_str(), O_RDWR | O_CREAT) {
        new (plan_) FailPlan;
    }
    MappedPlan(const MappedPlan&) = delete;
    MappedPlan& operator=(const MappedPlan&) = delete;
    ~MappedPlan() { munmap(plan_, sizeof(FailPlan)); }

    FailPlan* operator->() const noexcept { return plan_; }

private:
    MappedPlan(const char* path, int flags) {
        const int file = path != nullptr ? open(path, flags | O_CLOEXEC, 0600) : -1;
        if (file < 0 || ftruncate(file, sizeof(FailPlan)) != 0)
            throw std::runtime_error("no plan of what is to fail");
        void* mapped = mmap(nullptr, sizeof(FailPlan), PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
        close(file);
        if (mapped == MAP_FAILED) throw std::runtime_error("the plan cannot be mapped");
        plan_ = static_cast<FailPlan*>(mapped);
    }

    FailPlan* plan_ = nullptr;
};

}  // namespace faults

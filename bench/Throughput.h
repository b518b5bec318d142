#pragma once

#include <functional>
#include <vector>

/// How many calls a second come through when several call at once.
namespace bench {

/// One client's way to call; made by whoever calls.
using MakeCall = std::function<std::function<void()>()>;

double throughputOfThreads(int count, const MakeCall& make);
/// The calling process must not have threads: it forks.
double throughputOfProcesses(int count, const MakeCall& make);

}  // namespace bench

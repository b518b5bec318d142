#include "../Operands.h"
#include "../Printing.h"
#include "Verbs.h"

namespace okvctl {

namespace {

using Data = OKVDataMng_protocol;

ExitCode getClock(Call& call) {
    expectOperands(call, 1, 1, "");
    expectFormats(call, kValueFormats);
    const auto time = call.server.ask<&Data::serverTimePT>("");
    if (time.isMissing())
        throw ToolError(ExitCode::notSet, "the clock was never set; okvctl clock set DATE does");
    printValue(call, okv::Dictionary{{"time", time}}, "time", time);
    return ExitCode::done;
}

ExitCode setClock(Call& call) {
    expectOperands(call, 2, 2, "DATE");
    expectFormats(call, kConfirmFormats);
    const auto date = parseValue(ValueType::date, call.operands()[1]);
    if (!date) throwUsage(date.error);
    call.server.ask<&Data::setServerTimePT>("the clock", *date.value);
    confirm(call, "time", *date.value);
    return ExitCode::done;
}

template <auto Method>
ExitCode letRun(Call& call, bool running) {
    expectOperands(call, 1, 1, "");
    expectFormats(call, kConfirmFormats);
    call.server.ask<Method>("the clock");
    confirm(call, "running", running);
    return ExitCode::done;
}

ExitCode start(Call& call) {
    return letRun<&Data::startServerTimeTimer>(call, true);
}

ExitCode stop(Call& call) {
    return letRun<&Data::stopServerTimeTimer>(call, false);
}

constexpr Action kClockActions[] = {
    {"get", getClock}, {"set", setClock}, {"start", start}, {"stop", stop}};

ExitCode runClock(Call& call) {
    expectOperands(call, 1, 2, "get, set, start or stop");
    return actionNamed(call.operands()[0], kClockActions).run(call);
}

}  // namespace

const Verb kClock{
    "clock",
    "get | set DATE | start | stop",
    "read and set the data server's clock",
    "A DATE is 2026-01-31T23:59:59Z (or with +09:00), @SECONDS since 1970, or now. get ends with\n"
    "10 where no time was ever set. A started clock runs with real time, a stopped one stands.\n",
    kNoOptions,
    runClock,
    {},
    kClockActions,
};

}  // namespace okvctl

#include "../Operands.h"
#include "../Printing.h"
#include "Verbs.h"

#include <chrono>
#include <cstdio>

namespace okvctl {

namespace {

ExitCode runPing(Call& call) {
    using std::chrono::steady_clock;
    expectOperands(call, 0, 0, "");
    expectFormats(call, kTableFormats);
    if (call.line.wait) call.server.connect();  // the time of waiting is not the answer's
    const auto start = steady_clock::now();
    const auto clients = call.server.ask<&OKVDataMng_protocol::connectCount>("");
    const std::chrono::duration<double, std::milli> took = steady_clock::now() - start;
    char text[64];
    std::snprintf(text, sizeof text, "answered in %.3f ms", took.count());
    Table table;
    table.add({text});
    print(call, okv::Dictionary{{"milliseconds", took.count()}, {"clients", clients}}, table);
    return ExitCode::done;
}

}  // namespace

const Verb kPing{
    "ping",
    "",
    "tell whether the data server answers, and how fast",
    "The time is that of connecting and of one question. Without a data server it ends with 8.\n",
    kNoOptions,
    runPing,
};

}  // namespace okvctl

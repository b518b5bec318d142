#include "../Operands.h"
#include "../Printing.h"
#include "Verbs.h"

#include <OKVDataManager/Endpoints.h>

namespace okvctl {

namespace {

using okv::Value;

Value readAs(const okv::ServiceEndpoint& endpoint, const Value& stored) {
    return endpoint.isPort ? Value(okv::portOf(endpoint, stored))
                           : Value(okv::textOf(endpoint, stored));
}

void addPages(okv::Dictionary& urls) {
    const auto base = okv::settingBase(urls["settingServHost"].as<std::string>(),
                                       urls["settingServPort"].intValue());
    for (const auto& page : okv::kServicePages) urls.set(page.name, base + page.path);
}

ExitCode runUrls(Call& call) {
    expectOperands(call, 0, 0, "");
    expectFormats(call, kTableFormats);
    okv::Array keys;
    for (const auto& endpoint : okv::kServiceEndpoints) keys.emplace_back(endpoint.key);
    const auto answer = call.server.ask<&OKVDataMng_protocol::okvDataAllPT>("", keys);
    okv::Dictionary urls;
    for (const auto& endpoint : okv::kServiceEndpoints)
        urls.set(endpoint.name, readAs(endpoint, dictionaryIn(answer)[endpoint.key]));
    addPages(urls);
    Table table;
    for (const auto& [name, value] : urls) table.add({cellText(name), cellText(value)});
    print(call, urls, table);
    return ExitCode::done;
}

}  // namespace

const Verb kUrls{
    "urls",
    "",
    "tell the service endpoints that are in force",
    "Hosts, ports and addresses as the suite's processes use them: what is stored, else the\n"
    "default. They are the settings dc-syscmnf-...; change them with set.\n",
    kNoOptions,
    runUrls,
};

}  // namespace okvctl

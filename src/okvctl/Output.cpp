#include "Output.h"

#include "JsonForm.h"
#include "ToolError.h"
#include "ValueText.h"

#include <OKVPlatform/values/ErrorText.h>
#include <OKVPlatform/values/PropertyListFile.h>
#include <OKVPlatform/values/WriteAll.h>

#include <unistd.h>

#include <cerrno>
#include <stdexcept>
#include <utility>

namespace okvctl {

namespace {

bool isSafeOnTerminal(std::string text) {
    std::erase(text, '\n');
    std::erase(text, '\t');
    return isPrintable(text);
}

// What is not set is left out: property lists have no null object.
okv::Value withoutNulls(const okv::Value& value) {
    const auto* members = value.getIf<okv::Dictionary>();
    if (members == nullptr) return value;
    okv::Dictionary kept;
    for (const auto& [key, member] : *members) {
        if (!member.isMissing()) kept.set(key, member);
    }
    return kept;
}

}  // namespace

void Output::json(const okv::Value& value) {
    line(jsonText(value));
}

std::string plistText(const okv::Value& value) {
    try {
        return okv::writePropertyListXml(withoutNulls(value));
    } catch (const std::invalid_argument& error) {
        const std::string_view what = error.what();
        throw ToolError(ExitCode::failure,
                        std::string(what.substr(what.find(' ') + 1)) +
                            ": a property list has no form for it; --format json has");
    }
}

void Output::table(const Table& table) {
    raw(table.text(legend_, wantsColours(descriptor_)));
}

void Output::bytes(const okv::Value& value) {
    if (const auto* text = value.getIf<std::string>()) return raw(*text);
    if (const auto* data = value.getIf<okv::Data>()) return raw(data->text());
    raw(cellText(value));
}

void Output::value(const okv::Value& value) {
    const auto* text = value.getIf<std::string>();
    const bool asItIs = text != nullptr && (isatty(descriptor_) == 0 || isSafeOnTerminal(*text));
    line(asItIs ? *text : cellText(value));
}

void Output::flush() {
    const auto text = std::exchange(text_, {});
    if (broken_ || okv::writeAll(descriptor_, text)) return;
    broken_ = errno == EPIPE;
    if (broken_) return;
    throw ToolError(ExitCode::failure,
                    std::string("the output cannot be written: ") + okv::errorText(errno));
}

}  // namespace okvctl

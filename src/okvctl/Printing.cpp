#include "Printing.h"

#include "Nearest.h"

namespace okvctl {

namespace {

std::string namesOf(unsigned formats) {
    std::vector<std::string_view> names;
    for (std::size_t place = 0; place < kFormatNames.size(); ++place) {
        if ((formatAt(place) & formats) != 0) names.push_back(kFormatNames[place]);
    }
    return joined(names);
}

bool printDocument(Call& call, const okv::Value& whole) {
    if (call.prints(kJson)) call.out.json(whole);
    if (call.prints(kPlist)) call.out.plist(whole);
    return call.prints(kJson) || call.prints(kPlist);
}

}  // namespace

void expectFormats(const Call& call, unsigned formats) {
    const auto format = call.line.format;
    if (!format || (*format & formats) != 0) return;
    throwUsage("it prints no " + namesOf(*format) +
               (formats != 0 ? "; --format takes " + namesOf(formats) + " here" : ""));
}

void print(Call& call, const okv::Value& whole, const Table& table) {
    if (!printDocument(call, whole)) call.out.table(table);
}

void printValue(Call& call, const okv::Value& whole, std::string_view name,
                const okv::Value& value) {
    if (printDocument(call, whole)) return;
    if (call.prints(kRaw)) return call.out.bytes(value);
    if (!call.prints(kTable)) return call.out.value(value);
    auto table = valueTable();
    addValue(table, name, value);
    call.out.table(table);
}

void confirm(Call& call, std::string_view word, okv::Value what) {
    printDocument(call, okv::Dictionary{{word, std::move(what)}});
}

Table valueTable() {
    return Table({"KEY", "TYPE", "VALUE"}, {"key", "keys"});
}

void addValue(Table& table, const okv::Value& key, const okv::Value& value) {
    table.add({cellText(key), typeName(value), cellText(value)});
}

}  // namespace okvctl

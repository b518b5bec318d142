#include "Numbers.h"

namespace soak {

namespace {

constexpr std::int32_t kUser = 1;
constexpr int kTogether = 4;

std::string keyOf(const Register& place, int part) {
    return place.key + ("." + std::to_string(part));
}

std::int64_t theOneIn(const std::vector<std::int64_t>& numbers, const Register& place) {
    for (const auto number : numbers) {
        if (number != numbers.front())
            throw WrongAnswer(std::string(place.key) + ": what changes together differs");
    }
    return numbers.empty() ? 0 : numbers.front();
}

bool writeSeveral(okv::RemoteObject& root, const Register& place, std::int64_t number) {
    Dictionary all;
    for (int part = 0; part < kTogether; ++part)
        all.insert(keyOf(place, part), valueHolding(number));
    return okv::send<&Data::setOKVDataAllPT_appUid>(root, Value(all), kUser);
}

std::int64_t readSeveral(okv::RemoteObject& root, const Register& place) {
    Array keys;
    for (int part = 0; part < kTogether; ++part) keys.emplace_back(keyOf(place, part));
    const auto all = okv::send<&Data::okvDataAllPT_appUid>(root, Value(keys), kUser);
    std::vector<std::int64_t> numbers;
    for (const auto& [key, value] : all.as<Dictionary>()) numbers.push_back(numberIn(value));
    return theOneIn(numbers, place);
}

std::int64_t readList(okv::RemoteObject& root, const Register& place) {
    const auto list = okv::send<&Data::okvHammerListPT>(root, Value(kUser));
    const auto* entries = list.getIf<Array>();
    std::vector<std::int64_t> numbers;
    for (const auto& entry : entries != nullptr ? *entries : Array()) {
        numbers.push_back(numberIn(entry));
    }
    return theOneIn(numbers, place);
}

}  // namespace

Value valueHolding(std::int64_t number) {
    return Dictionary{{"number", number},
                      {"text", std::string(static_cast<std::size_t>(number * 37 % 900), 's')}};
}

std::int64_t numberIn(const Value& value) {
    const auto* held = value.getIf<Dictionary>();
    return held != nullptr ? (*held)["number"].longLongValue() : value.longLongValue();
}

bool write(okv::RemoteObject& root, const Register& place, std::int64_t number) {
    switch (place.place) {
        case Place::user:
            return okv::send<&Data::setOKVDataPT_value_appUid>(root, place.key,
                                                               valueHolding(number), kUser);
        case Place::everybody:
            return okv::send<&Admin::setOKVCommonDataAllPT>(
                root, Value(Dictionary{{place.key, valueHolding(number)}}));
        case Place::several:
            return writeSeveral(root, place, number);
        case Place::list:
            return okv::send<&Data::setOkvHammerListPT_value>(
                root, Value(kUser),
                Value(Array(static_cast<std::size_t>(number % 20 + 1), number)));
    }
    return false;
}

std::int64_t read(okv::RemoteObject& root, const Register& place) {
    switch (place.place) {
        case Place::user:
            return numberIn(okv::send<&Data::okvDataPT_appUid>(root, place.key, kUser));
        case Place::everybody:
            return numberIn(okv::send<&Data::okvDataPT>(root, place.key));
        case Place::several:
            return readSeveral(root, place);
        case Place::list:
            return readList(root, place);
    }
    return 0;
}

void raise(Register& place, const std::function<bool(std::int64_t)>& put) {
    const auto number = place.tried.fetch_add(1) + 1;
    if (!put(number)) throw std::runtime_error(std::string(place.key) + ": a write was refused");
    place.acknowledged = number;
}

void raise(okv::RemoteObject& root, Register& place) {
    raise(place, [&](std::int64_t number) { return write(root, place, number); });
}

void check(okv::RemoteObject& root, const Register& place) {
    const auto least = place.acknowledged.load();
    const auto number = read(root, place);
    const auto most = place.tried.load();
    if (least <= number && number <= most) return;
    throw WrongAnswer(std::string(place.key) + ": " + std::to_string(number) + " is not in " +
                      std::to_string(least) + ".." + std::to_string(most));
}

}  // namespace soak

// Category flags, both ways, against the rules written out flag by flag.
#include "Require.h"

#include <OKVDataManager/okvCmnUtil.h>

#include <algorithm>

namespace {

using fuzz::require;

std::optional<okv::Data> packedFlagByFlag(std::string_view text) {
    const auto isAscii = [](char c) { return static_cast<unsigned char>(c) < 0x80; };
    if (text.size() != 128 || !std::all_of(text.begin(), text.end(), isAscii)) return std::nullopt;
    okv::Data packed(std::size_t{16});
    for (std::size_t i = 0; i < 128; ++i)
        if (text[i] == '1')
            packed[i / 8] = static_cast<std::uint8_t>(packed[i / 8] | 0x80 >> i % 8);
    return packed;
}

void checkText(std::string_view text) {
    const auto packed = okvCmnUtil::stringToCategoryData(text);
    require(packed == packedFlagByFlag(text));
    if (packed) require(okvCmnUtil::dataToCategoryString(*packed)->size() == 128);
}

void checkData(const okv::Data& data) {
    const auto text = okvCmnUtil::dataToCategoryString(data);
    require(text.has_value() == (data.size() == 16));
    if (text) require(okvCmnUtil::stringToCategoryData(*text) == data);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
    const okv::Data data(bytes, bytes + size);
    checkText(data.text());
    checkData(data);
    std::string stretched(data.text());
    stretched.resize(128, '1');
    checkText(stretched);
    okv::Data sixteen = data;
    sixteen.resize(16);
    checkData(sixteen);
    return 0;
}

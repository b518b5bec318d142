// Both cuts against the rules taken literally, position by position. The first byte is the
// delimiter's length, the second one the size to cut.
#include "Require.h"

#include <OKVDataManager/okvCmnUtil.h>

#include <cstring>
#include <stdexcept>

namespace {

using fuzz::require;

enum class Outcome { none, found, pastTheEnd };

struct Literal {
    Outcome outcome = Outcome::none;
    std::size_t position = 0;
};

// For delimiters whose width in characters is known.
Literal scan(std::string_view buffer, std::string_view delimiter, std::size_t width) {
    if (delimiter.empty() || buffer.empty()) return {};
    for (std::size_t i = 0; i < buffer.size() - 1; ++i) {
        if (i + width > buffer.size()) return {Outcome::pastTheEnd, 0};
        if (buffer.substr(i, width) == delimiter) return {Outcome::found, i};
    }
    return {};
}

void checkDelimiter(std::string_view text, std::string_view delimiter, std::size_t width) {
    const Literal expected = scan(text, delimiter, width);
    okv::Data buffer(text);
    try {
        const auto piece = okvCmnUtil::subDataToDelimiter_delimiter(buffer, delimiter);
        require(piece.has_value() == (expected.outcome == Outcome::found));
        require(expected.outcome != Outcome::pastTheEnd);
        if (!piece) return require(buffer.text() == text);
        require(piece->text() == text.substr(0, expected.position));
        require(buffer.text() == text.substr(expected.position + width));
    } catch (const std::out_of_range&) {
        require(expected.outcome == Outcome::pastTheEnd && buffer.text() == text);
    }
}

void checkSize(std::string_view text, std::uint32_t size) {
    okv::Data buffer(text);
    okv::Data piece{42};
    const bool done = okvCmnUtil::subData_size_dstData(buffer, size, piece);
    require(done == (size != 0 && size <= text.size()));
    require(piece == (done ? okv::Data(text.substr(0, size)) : okv::Data{42}));
    require(buffer.text() == (done ? text.substr(size) : text));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
    if (size < 2) return 0;
    const okv::Data data(bytes + 2, bytes + size);
    const std::size_t length = std::min<std::size_t>(bytes[0] % 8, data.size());
    std::string delimiter(data.text().substr(0, length));
    const std::string_view text = data.text().substr(length);
    checkSize(text, bytes[1]);
    for (char& c : delimiter) c = static_cast<char>(c & 0x7F);
    checkDelimiter(text, delimiter, delimiter.size());
    checkDelimiter(text, delimiter + "\xC3\xA9", delimiter.size() + 1);
    checkDelimiter(text, delimiter + "\xF0\x9F\x98\x80", delimiter.size() + 2);
    return 0;
}

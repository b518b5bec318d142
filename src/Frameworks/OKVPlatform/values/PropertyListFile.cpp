#include <OKVPlatform/values/PropertyListFile.h>

#include <OKVPlatform/values/BoundedFile.h>
#include <OKVPlatform/values/Unicode.h>

namespace okv {

namespace {

// Old-style data also begin with an angle bracket: only hexadecimal digits stand in theirs.
bool looksLikeXml(std::string_view text) {
    const auto start = text.find_first_not_of(" \t\r\n");
    if (start == std::string_view::npos || text[start] != '<') return false;
    const auto next = text.find_first_not_of("0123456789abcdefABCDEF \t\r\n", start + 1);
    return next == std::string_view::npos || text[next] != '>';
}

// Enough of the text to tell the form, whatever its encoding.
std::string firstCharacters(std::string_view bytes) {
    std::string text(bytes.substr(0, 4096));
    std::erase(text, '\0');
    for (const auto* mark : {kUtf8Mark, kUtf16BigMark, kUtf16LittleMark})
        if (text.starts_with(mark)) return text.substr(std::string_view(mark).size());
    return text;
}

}  // namespace

PropertyListResult readPropertyList(std::string_view bytes) {
    if (bytes.empty()) return {std::nullopt, "byte 0: empty, not a property list"};
    if (bytes.starts_with("bplist")) return readPropertyListBinary(bytes);
    return looksLikeXml(firstCharacters(bytes)) ? readPropertyListXml(bytes)
                                                : readPropertyListText(bytes);
}

PropertyListResult readPropertyListFile(const std::string& path, std::size_t limit) {
    const auto file = readBoundedFile(path, limit);
    if (!file) return {std::nullopt, file.error};
    auto result = readPropertyList(*file.bytes);
    if (!result) result.error.insert(0, path + ": ");
    return result;
}

}  // namespace okv

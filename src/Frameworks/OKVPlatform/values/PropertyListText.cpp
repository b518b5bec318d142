#include <OKVPlatform/values/PropertyListFile.h>
#include <OKVPlatform/values/PropertyListLimits.h>
#include <OKVPlatform/values/PropertyListScalars.h>
#include <OKVPlatform/values/Unicode.h>

#include <algorithm>

namespace okv {

namespace {

struct DecodedText {
    std::optional<std::string> text;
    std::string error;
};

DecodedText badAt(std::size_t at, const std::string& what) {
    return {std::nullopt, "byte " + std::to_string(at) + ": " + what};
}

DecodedText decodeUtf16(std::string_view bytes, ByteOrder order) {
    std::size_t bad = 0;
    auto text = utf8FromUtf16(bytes.substr(2), order, bad);
    if (!text) return badAt(bad + 2, "not UTF-16");
    return {std::move(*text), {}};
}

DecodedText decodeText(std::string_view bytes) {
    if (bytes.starts_with(kUtf16BigMark)) return decodeUtf16(bytes, ByteOrder::big);
    if (bytes.starts_with(kUtf16LittleMark)) return decodeUtf16(bytes, ByteOrder::little);
    if (const auto bad = findInvalidUtf8(bytes)) return badAt(*bad, "not UTF-8");
    if (bytes.starts_with(kUtf8Mark)) bytes.remove_prefix(3);
    return {std::string(bytes), {}};
}

bool isUnquotedCharacter(char c) {
    constexpr std::string_view kSigns = "_$/:.-";
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
           kSigns.find(c) != std::string_view::npos;
}

bool isOctalDigit(char c) {
    return c >= '0' && c <= '7';
}

// What a letter after a backslash stands for; every other character stands for itself.
char escapedCharacter(char c) {
    constexpr std::string_view kLetters = "abfnrtv";
    constexpr std::string_view kMeanings = "\a\b\f\n\r\t\v";
    const auto place = kLetters.find(c);
    return place == std::string_view::npos ? c : kMeanings[place];
}

class TextReader {
public:
    explicit TextReader(std::string_view text) : text_(text) {}

    PropertyListResult read() {
        Value root;
        if (!readRoot(root)) return {std::nullopt, std::move(error_)};
        return {std::move(root), {}};
    }

private:
    bool fail(std::size_t at, std::string_view what) {
        const auto line = 1 + std::count(text_.begin(), text_.begin() + std::ptrdiff_t(at), '\n');
        error_ = "line " + std::to_string(line) + ": " + std::string(what);
        return false;
    }
    bool failHere(std::string_view what) { return fail(at_, what); }

    bool atEnd() const { return at_ == text_.size(); }
    char here() const { return atEnd() ? '\0' : text_[at_]; }
    bool startsWith(std::string_view what) const { return text_.substr(at_).starts_with(what); }
    bool take(char c) {
        if (atEnd() || text_[at_] != c) return false;
        ++at_;
        return true;
    }

    // Blanks and comments; false when a comment has no end.
    bool skipBlanks() {
        while (!atEnd()) {
            if (isBlank(here()) || here() == '\v' || here() == '\f')
                ++at_;
            else if (startsWith("//"))
                at_ = std::min(text_.find_first_of("\r\n", at_), text_.size());
            else if (!startsWith("/*"))
                return true;
            else if (!skipComment())
                return false;
        }
        return true;
    }

    bool skipComment() {
        const auto end = text_.find("*/", at_ + 2);
        if (end == std::string_view::npos) return failHere("a comment without an end");
        at_ = end + 2;
        return true;
    }

    // One value, or the entries of a dictionary without its braces: a text at the beginning may be
    // either, what follows it tells.
    bool readRoot(Value& root) {
        if (!skipBlanks()) return false;
        const auto start = at_;
        if (atEnd()) return readBareDictionary(root);
        if (!readValue(0, root) || !skipBlanks()) return false;
        if (atEnd()) return true;
        if (!root.is<std::string>()) return failHere("something after the end of the value");
        at_ = start;
        return readBareDictionary(root);
    }

    bool readBareDictionary(Value& root) {
        Dictionary dictionary;
        while (!atEnd())
            if (!readEntry(0, dictionary) || !skipBlanks()) return false;
        root = std::move(dictionary);
        return true;
    }

    bool readValue(std::size_t depth, Value& into) {
        if (++values_ > kMaxPropertyListValues) return failHere(kTooManyValues);
        switch (here()) {
            case '{':
                return readDictionary(depth + 1, into);
            case '(':
                return readArray(depth + 1, into);
            case '<':
                return readData(into);
            default:
                return readText(into);
        }
    }

    bool enter(std::size_t depth) {
        if (depth > kMaxPropertyListDepth) return failHere(kTooDeep);
        ++at_;
        return skipBlanks();
    }

    bool readDictionary(std::size_t depth, Value& into) {
        const auto start = at_;
        if (!enter(depth)) return false;
        Dictionary dictionary;
        while (!take('}')) {
            if (atEnd()) return fail(start, "a dictionary without an end");
            if (!readEntry(depth, dictionary) || !skipBlanks()) return false;
        }
        into = std::move(dictionary);
        return true;
    }

    // `key = value;` or `key;`
    bool readEntry(std::size_t depth, Dictionary& dictionary) {
        Value key;
        if (!readText(key) || !skipBlanks()) return false;
        Value value = key;
        if (take('=')) {
            if (!skipBlanks() || !readValue(depth, value) || !skipBlanks()) return false;
        } else if (++values_ > kMaxPropertyListValues) {
            return failHere(kTooManyValues);
        }
        if (!take(';')) return failHere("a ; is missing");
        dictionary.set(std::move(key), std::move(value));
        return true;
    }

    bool readArray(std::size_t depth, Value& into) {
        const auto start = at_;
        if (!enter(depth)) return false;
        Array array;
        while (!take(')')) {
            if (atEnd()) return fail(start, "an array without an end");
            if (!readValue(depth, array.emplace_back()) || !skipBlanks()) return false;
            if (here() != ',' && here() != ')') return failHere("a , or ) is missing");
            if (take(',') && !skipBlanks()) return false;
        }
        into = std::move(array);
        return true;
    }

    bool readData(Value& into) {
        const auto end = text_.find('>', at_);
        if (end == std::string_view::npos) return failHere("data without an end");
        Data data;
        int high = -1;
        for (++at_; at_ < end; ++at_) {
            if (isBlank(here())) continue;
            const int digit = hexDigitValue(here());
            if (digit < 0) return failHere("not a hexadecimal digit");
            if (high >= 0) data.push_back(static_cast<std::uint8_t>(high * 16 + digit));
            high = high < 0 ? digit : -1;
        }
        if (high >= 0) return failHere("half a byte of data");
        ++at_;
        into = std::move(data);
        return true;
    }

    bool readText(Value& into) {
        std::string text;
        if (here() == '"' || here() == '\'') {
            if (!readQuoted(text)) return false;
        } else if (!readUnquoted(text)) {
            return false;
        }
        into = std::move(text);
        return true;
    }

    // Slashes belong to the text, two of them too: an address needs no quotes.
    bool readUnquoted(std::string& text) {
        const auto start = at_;
        while (isUnquotedCharacter(here())) ++at_;
        if (at_ == start)
            return failHere(atEnd() ? "something is missing" : "a character that needs quotes");
        text = text_.substr(start, at_ - start);
        return true;
    }

    bool readQuoted(std::string& text) {
        const auto start = at_;
        const char quote = text_[at_++];
        while (!take(quote)) {
            if (atEnd()) return fail(start, "a quotation without an end");
            if (!take('\\'))
                text += text_[at_++];
            else if (!readEscape(text))
                return false;
        }
        return true;
    }

    bool readEscape(std::string& text) {
        if (atEnd()) return failHere("a quotation without an end");
        if (isOctalDigit(here())) return readOctal(text);
        if (take('U')) return readUnicode(text);
        text += escapedCharacter(text_[at_++]);
        return true;
    }

    // One to three digits, the code point itself.
    bool readOctal(std::string& text) {
        const auto start = at_;
        char32_t code = 0;
        for (int i = 0; i < 3 && isOctalDigit(here()); ++i)
            code = code * 8 + static_cast<char32_t>(text_[at_++] - '0');
        if (code > 0xFF) return fail(start, "an octal code above 377");
        appendUtf8(text, code);
        return true;
    }

    // One UTF-16 unit of one to four digits, or two of them that make a pair.
    bool readUnicode(std::string& text) {
        const auto start = at_;
        char32_t unit = 0;
        if (!readUnit(unit)) return false;
        if (isHighSurrogate(unit) && startsWith("\\U")) {
            at_ += 2;
            char32_t low = 0;
            if (!readUnit(low)) return false;
            unit = isLowSurrogate(low) ? joinedSurrogates(unit, low) : unit;
        }
        if (unit >= 0xD800 && unit <= 0xDFFF) return fail(start, "a surrogate without its partner");
        appendUtf8(text, unit);
        return true;
    }

    bool readUnit(char32_t& unit) {
        const auto start = at_;
        for (int i = 0; i < 4 && hexDigitValue(here()) >= 0; ++i)
            unit = unit * 16 + static_cast<char32_t>(hexDigitValue(text_[at_++]));
        return at_ > start || failHere("a \\U without hexadecimal digits");
    }

    std::string_view text_;
    std::size_t at_ = 0;
    std::string error_;
    std::size_t values_ = 0;
};

}  // namespace

PropertyListResult readPropertyListText(std::string_view bytes) {
    const auto decoded = decodeText(bytes);
    if (!decoded.text) return {std::nullopt, decoded.error};
    return TextReader(*decoded.text).read();
}

}  // namespace okv

#include <OKVPlatform/values/PropertyListFile.h>
#include <OKVPlatform/values/PropertyListLimits.h>
#include <OKVPlatform/values/PropertyListScalars.h>
#include <OKVPlatform/values/Unicode.h>

#include <stdexcept>

namespace okv {

namespace {

constexpr std::string_view kHead =
    "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
    "<!DOCTYPE plist PUBLIC \"-//Apple//DTD PLIST 1.0//EN\" "
    "\"http://www.apple.com/DTDs/PropertyList-1.0.dtd\">\n"
    "<plist version=\"1.0\">\n";
constexpr std::string_view kTail = "</plist>\n";

// XML cannot carry the other control characters, not even as references.
bool isXmlCharacter(char32_t codePoint) {
    if (codePoint < 0x20) return codePoint == '\t' || codePoint == '\n' || codePoint == '\r';
    return codePoint != 0xFFFE && codePoint != 0xFFFF;
}

class XmlWriter {
public:
    std::string write(const Value& value) {
        out_ = kHead;
        writeValue(value, 0);
        out_ += kTail;
        return std::move(out_);
    }

private:
    [[noreturn]] void refuse(const std::string& what) const {
        const auto where = path_.empty() ? std::string("the outermost value") : path_;
        throw std::invalid_argument("okv::writePropertyListXml: " + where + ": " + what);
    }

    void indent(std::size_t depth) { out_.append(depth, '\t'); }

    void writeElement(std::string_view name, std::string_view content) {
        out_.append("<").append(name).append(">").append(content);
        out_.append("</").append(name).append(">\n");
    }

    void writeText(std::string_view name, std::string_view text) {
        if (!isUtf8Of(text, isXmlCharacter)) refuse("a text with characters that XML cannot carry");
        writeElement(name, escaped(text));
    }

    // A carriage return as it stands would come back as a line feed.
    static std::string escaped(std::string_view text) {
        std::string result;
        result.reserve(text.size());
        for (const char c : text) {
            switch (c) {
                case '&':
                    result += "&amp;";
                    break;
                case '<':
                    result += "&lt;";
                    break;
                case '>':
                    result += "&gt;";
                    break;
                case '\r':
                    result += "&#13;";
                    break;
                default:
                    result += c;
            }
        }
        return result;
    }

    void writeValue(const Value& value, std::size_t depth) {
        indent(depth);
        switch (value.type()) {
            case Value::Type::nil:
                refuse("nil has no form in property lists");
            case Value::Type::null:
                refuse("the null object has no form in property lists");
            case Value::Type::boolean:
                out_ += value.as<bool>() ? "<true/>\n" : "<false/>\n";
                break;
            case Value::Type::integer:
                writeElement("integer", std::to_string(value.as<std::int64_t>()));
                break;
            case Value::Type::real:
                writeElement("real", formatReal(value.as<double>()));
                break;
            case Value::Type::string:
                writeText("string", value.as<std::string>());
                break;
            case Value::Type::date:
                writeDate(value.as<Date>());
                break;
            case Value::Type::data:
                writeElement("data", encodeBase64(value.as<Data>()));
                break;
            case Value::Type::array:
                writeArray(value.as<Array>(), depth);
                break;
            case Value::Type::dictionary:
                writeDictionary(value.as<Dictionary>(), depth);
                break;
        }
    }

    void writeDate(Date date) {
        const auto text = formatIsoDate(date);
        if (!text) refuse("a date outside the years 1 to 9999");
        writeElement("date", *text);
    }

    void open(std::string_view name, std::size_t depth) {
        if (depth == kMaxPropertyListDepth) refuse(kTooDeep);
        out_.append("<").append(name).append(">\n");
    }

    void close(std::string_view name, std::size_t depth) {
        indent(depth);
        out_.append("</").append(name).append(">\n");
    }

    void writeArray(const Array& array, std::size_t depth) {
        open("array", depth);
        const auto length = path_.size();
        for (std::size_t i = 0; i < array.size(); ++i) {
            path_ += "[" + std::to_string(i) + "]";
            writeValue(array[i], depth + 1);
            path_.resize(length);
        }
        close("array", depth);
    }

    void writeDictionary(const Dictionary& dictionary, std::size_t depth) {
        open("dict", depth);
        const auto length = path_.size();
        for (const auto& [key, value] : dictionary) {
            const auto* text = key.getIf<std::string>();
            if (text == nullptr) refuse("a key that is not a text");
            path_ += "/" + *text;
            indent(depth + 1);
            writeText("key", *text);
            writeValue(value, depth + 1);
            path_.resize(length);
        }
        close("dict", depth);
    }

    std::string out_;
    // The keys and indexes that lead to the value being written.
    std::string path_;
};

}  // namespace

std::string writePropertyListXml(const Value& value) {
    return XmlWriter().write(value);
}

}  // namespace okv

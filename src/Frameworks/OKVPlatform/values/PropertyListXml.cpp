#include <OKVPlatform/values/PropertyListFile.h>
#include <OKVPlatform/values/PropertyListLimits.h>
#include <OKVPlatform/values/PropertyListScalars.h>

#include <expat.h>

#include <climits>
#include <memory>
#include <new>
#include <utility>

namespace okv {

namespace {

enum class Element {
    none,
    plist,
    dictionary,
    array,
    key,
    string,
    integer,
    real,
    date,
    data,
    yes,
    no
};

Element elementNamed(std::string_view name) {
    constexpr std::pair<std::string_view, Element> kElements[] = {
        {"plist", Element::plist}, {"dict", Element::dictionary}, {"array", Element::array},
        {"key", Element::key},     {"string", Element::string},   {"integer", Element::integer},
        {"real", Element::real},   {"date", Element::date},       {"data", Element::data},
        {"true", Element::yes},    {"false", Element::no},
    };
    for (const auto& [known, element] : kElements)
        if (known == name) return element;
    return Element::none;
}

// A stranger's name, not longer than a line bears.
std::string tag(std::string_view name) {
    constexpr std::size_t kLongest = 32;
    if (name.size() > kLongest) return "<...>";
    return "<" + std::string(name) + ">";
}

// Builds the value while the XML parser goes along. The first thing that is wrong stops both.
class XmlReader {
public:
    PropertyListResult read(std::string_view bytes) {
        // The parser takes its length as an int; a text in one piece also spares it from scanning
        // a long token anew for each piece.
        if (bytes.size() > INT_MAX) return {std::nullopt, "byte 2147483647: too large"};
        setUp();
        const auto status =
            XML_Parse(parser_.get(), bytes.data(), static_cast<int>(bytes.size()), XML_TRUE);
        if (error_.empty() && status != XML_STATUS_OK)
            error_ = place() + XML_ErrorString(XML_GetErrorCode(parser_.get()));
        if (!error_.empty()) return {std::nullopt, std::move(error_)};
        return {std::move(root_), {}};
    }

private:
    struct Container {
        Value value;
        std::optional<std::string> key;
    };
    struct FreeParser {
        void operator()(XML_Parser parser) const { XML_ParserFree(parser); }
    };

    static XmlReader& self(void* user) { return *static_cast<XmlReader*>(user); }

    void setUp() {
        if (!parser_) throw std::bad_alloc();
        XML_SetUserData(parser_.get(), this);
        XML_SetElementHandler(
            parser_.get(),
            [](void* user, const char* name, const char**) { self(user).start(name); },
            [](void* user, const char* name) { self(user).end(name); });
        XML_SetCharacterDataHandler(parser_.get(), [](void* user, const char* text, int length) {
            self(user).characters({text, static_cast<std::size_t>(length)});
        });
        XML_SetStartDoctypeDeclHandler(
            parser_.get(), [](void* user, const char*, const char*, const char*, int declares) {
                if (declares != 0) self(user).fail("declarations inside the DOCTYPE");
            });
        // Since the DOCTYPE names an outer file, which is never read, the parser itself would pass
        // over entities that it does not know.
        XML_SetSkippedEntityHandler(parser_.get(), [](void* user, const char*, int) {
            self(user).fail("an unknown entity");
        });
    }

    std::string place() const {
        return "line " + std::to_string(XML_GetCurrentLineNumber(parser_.get())) + ", column " +
               std::to_string(XML_GetCurrentColumnNumber(parser_.get()) + 1) + ": ";
    }

    void fail(const std::string& what) {
        if (!error_.empty()) return;
        error_ = place() + what;
        XML_StopParser(parser_.get(), XML_FALSE);
    }

    // The parser may deliver a few more events after it was stopped.
    bool stopped() const { return !error_.empty(); }

    void start(std::string_view name) {
        if (stopped()) return;
        const auto element = elementNamed(name);
        if (!insidePlist_) {
            insidePlist_ = true;
            if (element != Element::plist) fail("the outermost element is not <plist>");
        } else if (const auto wrong = misplaced(element, name); !wrong.empty()) {
            fail(wrong);
        } else {
            open(element);
        }
    }

    // Why the element must not begin here, or nothing.
    std::string misplaced(Element element, std::string_view name) const {
        if (element == Element::none) return tag(name) + " is not an element of property lists";
        if (leaf_ != Element::none || element == Element::plist)
            return tag(name) + " inside a value";
        if (open_.empty() && root_) return "a second value";
        const bool keyWanted =
            !open_.empty() && open_.back().value.is<Dictionary>() && !open_.back().key;
        if (keyWanted && element != Element::key) return tag(name) + " where a <key> must stand";
        if (!keyWanted && element == Element::key) return "a <key> where a value must stand";
        return {};
    }

    void open(Element element) {
        const bool container = element == Element::dictionary || element == Element::array;
        if (!container) {
            leaf_ = element;
            text_.clear();
            return;
        }
        if (open_.size() == kMaxPropertyListDepth) return fail(kTooDeep);
        if (element == Element::array) open_.push_back({Array(), std::nullopt});
        if (element == Element::dictionary) open_.push_back({Dictionary(), std::nullopt});
    }

    void characters(std::string_view text) {
        if (stopped()) return;
        if (leaf_ != Element::none && leaf_ != Element::yes && leaf_ != Element::no)
            text_.append(text);
        else if (!withoutSurroundingBlanks(text).empty())
            fail("text where none must stand");
    }

    void end(std::string_view name) {
        if (stopped()) return;
        const auto element = elementNamed(name);
        if (element == Element::plist) {
            if (!root_) fail("no value");
        } else if (element == Element::key) {
            open_.back().key = std::move(text_);
            leaf_ = Element::none;
        } else if (leaf_ != Element::none) {
            endLeaf(name);
        } else {
            endContainer();
        }
    }

    void endContainer() {
        if (open_.back().key) return fail("a <key> without a value");
        auto value = std::move(open_.back().value);
        open_.pop_back();
        put(std::move(value));
    }

    void endLeaf(std::string_view name) {
        auto value = leafValue();
        leaf_ = Element::none;
        if (value.isNil()) return fail("not the content of " + tag(name));
        put(std::move(value));
    }

    template <class T>
    static Value orNil(std::optional<T> content) {
        return content ? Value(std::move(*content)) : Value();
    }

    // What the leaf's text says, or nil.
    Value leafValue() {
        const auto trimmed = withoutSurroundingBlanks(text_);
        switch (leaf_) {
            case Element::string:
                return std::move(text_);
            case Element::integer:
                return orNil(parseInteger(trimmed));
            case Element::real:
                return orNil(parseReal(trimmed));
            case Element::date:
                return orNil(parseIsoDate(trimmed));
            case Element::data:
                return orNil(decodeBase64(trimmed));
            default:
                return leaf_ == Element::yes;
        }
    }

    void put(Value value) {
        if (++values_ > kMaxPropertyListValues) return fail(kTooManyValues);
        if (open_.empty()) {
            root_ = std::move(value);
        } else if (auto* array = open_.back().value.getIf<Array>()) {
            array->push_back(std::move(value));
        } else {
            auto& [container, key] = open_.back();
            container.as<Dictionary>().set(std::move(*key), std::move(value));
            key.reset();
        }
    }

    std::unique_ptr<std::remove_pointer_t<XML_Parser>, FreeParser> parser_{
        XML_ParserCreate(nullptr)};
    std::string error_;
    std::optional<Value> root_;
    std::vector<Container> open_;
    Element leaf_ = Element::none;
    std::string text_;
    std::size_t values_ = 0;
    bool insidePlist_ = false;
};

}  // namespace

PropertyListResult readPropertyListXml(std::string_view bytes) {
    return XmlReader().read(bytes);
}

}  // namespace okv

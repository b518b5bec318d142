#include "PropertyListCorpus.h"

#include <OKVPlatform/values/PropertyListFile.h>

#ifdef OKV_HAVE_LIBPLIST
#include <plist/plist.h>

#include <cstdlib>
#include <memory>
#include <set>

using okv::Value;

namespace {

struct FreeList {
    void operator()(plist_t list) const { plist_free(list); }
};
struct FreeText {
    void operator()(char* text) const { std::free(text); }
};
using OwnedText = std::unique_ptr<char, FreeText>;

Value valueOf(plist_t node);

Value textOf(plist_t node) {
    std::uint64_t size = 0;
    const auto* text = plist_get_string_ptr(node, &size);
    return std::string(text, size);
}

Value dataOf(plist_t node) {
    std::uint64_t size = 0;
    const auto* bytes = plist_get_data_ptr(node, &size);
    return okv::Data(std::string_view(bytes, size));
}

Value dateOf(plist_t node) {
    constexpr double kSecondsFrom1970To2001 = 978307200;
    std::int32_t seconds = 0;
    std::int32_t microseconds = 0;
    plist_get_date_val(node, &seconds, &microseconds);
    return okv::Date{seconds + microseconds / 1e6 + kSecondsFrom1970To2001};
}

Value arrayOf(plist_t node) {
    okv::Array array;
    for (std::uint32_t i = 0; i < plist_array_get_size(node); ++i)
        array.push_back(valueOf(plist_array_get_item(node, i)));
    return array;
}

Value dictionaryOf(plist_t node) {
    okv::Dictionary dictionary;
    plist_dict_iter iterator = nullptr;
    plist_dict_new_iter(node, &iterator);
    while (true) {
        char* key = nullptr;
        plist_t item = nullptr;
        plist_dict_next_item(node, iterator, &key, &item);
        if (item == nullptr) break;
        dictionary.set(std::string(OwnedText(key).get()), valueOf(item));
    }
    std::free(iterator);
    return dictionary;
}

Value numberOf(plist_t node) {
    std::uint64_t number = 0;
    plist_get_uint_val(node, &number);
    return static_cast<std::int64_t>(number);
}

Value realOf(plist_t node) {
    double number = 0;
    plist_get_real_val(node, &number);
    return number;
}

Value valueOf(plist_t node) {
    std::uint8_t flag = 0;
    switch (plist_get_node_type(node)) {
        case PLIST_BOOLEAN:
            plist_get_bool_val(node, &flag);
            return flag != 0;
        case PLIST_UINT:
            return numberOf(node);
        case PLIST_REAL:
            return realOf(node);
        case PLIST_STRING:
            return textOf(node);
        case PLIST_DATA:
            return dataOf(node);
        case PLIST_DATE:
            return dateOf(node);
        case PLIST_ARRAY:
            return arrayOf(node);
        case PLIST_DICT:
            return dictionaryOf(node);
        default:
            return {};
    }
}

// Where the other reader is known to go its own way.
bool isKnownDifference(const std::string& name) {
    static const std::set<std::string> kKnown = {
        "plist_xml/good_byte_order_mark.plist",  // knows no byte order marks
        "plist_xml/good_utf16.plist",            // knows no UTF-16
        "plist_xml/good_utf16_big.plist",        //
        "plist_xml/good_latin1.plist",           // takes every encoding for UTF-8
        "plist_xml/good_empty_key.plist",        // refuses an empty key
        "plist_xml/good_dates.plist",            // counts seconds in 32 bits
        "plist_binary/good_nul_in_text.plist",   // ends a text at a NUL
    };
    return kKnown.contains(name);
}

std::vector<std::string> comparedFiles() {
    auto names = corpus::filesIn("plist_xml", "good_");
    for (auto& name : corpus::filesIn("plist_binary", "good_")) names.push_back(std::move(name));
    std::erase_if(names, isKnownDifference);
    return names;
}

class ComparedPropertyList : public testing::TestWithParam<std::string> {};

}  // namespace

TEST_P(ComparedPropertyList, IsReadAsAnIndependentReaderReadsIt) {
    const auto bytes = corpus::bytesOf(GetParam());
    plist_t read = nullptr;
    plist_from_memory(bytes.data(), static_cast<std::uint32_t>(bytes.size()), &read);
    const std::unique_ptr<void, FreeList> theirs(read);
    ASSERT_NE(theirs, nullptr);
    const auto ours = okv::readPropertyList(bytes);
    ASSERT_TRUE(ours) << ours.error;
    EXPECT_EQ(corpus::describe(*ours.value), corpus::describe(valueOf(theirs.get())));
}

INSTANTIATE_TEST_SUITE_P(Corpus, ComparedPropertyList, testing::ValuesIn(comparedFiles()),
                         corpus::testName);

#else

TEST(ComparedPropertyList, IsReadAsAnIndependentReaderReadsIt) {
    GTEST_SKIP() << "libplist was not found when the build was configured";
}

#endif

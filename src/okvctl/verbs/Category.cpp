#include "../Operands.h"
#include "../Printing.h"
#include "Verbs.h"

#include <OKVDataManager/okvCmnUtil.h>

namespace okvctl {

namespace {

ExitCode encode(Call& call) {
    expectOperands(call, 2, 2, "TEXT");
    const auto data = okvCmnUtil::stringToCategoryData(call.operands()[1]);
    if (!data) throwUsage("TEXT is not 128 characters of ASCII, one for each category");
    printValue(call, okv::Dictionary{{"data", *data}}, "data", *data);
    return ExitCode::done;
}

ExitCode decode(Call& call) {
    expectOperands(call, 2, 2, "BASE64");
    const auto parsed = parseValue(ValueType::data, call.operands()[1]);
    const auto* data = parsed.value ? parsed.value->getIf<okv::Data>() : nullptr;
    if (data == nullptr) throwUsage("BASE64: " + parsed.error);
    const auto text = okvCmnUtil::dataToCategoryString(*data);
    if (!text) throwUsage("BASE64 does not stand for 16 bytes");
    printValue(call, okv::Dictionary{{"text", *text}}, "text", *text);
    return ExitCode::done;
}

constexpr Action kCategoryActions[] = {{"encode", encode}, {"decode", decode}};

// Needs no data server.
ExitCode runCategory(Call& call) {
    expectOperands(call, 1, kAnyNumber, "encode or decode");
    expectFormats(call, kValueFormats);
    return actionNamed(call.operands()[0], kCategoryActions).run(call);
}

}  // namespace

const Verb kCategory{
    "category",
    "encode TEXT | decode BASE64",
    "convert the flags of the 128 categories",
    "encode packs 128 characters, \"1\" for a category that is set and any other for one that is\n"
    "not, into 16 bytes, printed as base64 (--format raw: the bytes), as --type data takes them;\n"
    "decode turns them back. Needs no data server.\n",
    kNoOptions,
    runCategory,
    {},
    kCategoryActions,
};

}  // namespace okvctl

#include "PropertyListFuzz.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    fuzz::check(okv::readPropertyListXml(fuzz::textOf(data, size)));
    return 0;
}

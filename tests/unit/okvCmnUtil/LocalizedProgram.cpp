// Prints the main bundle's text for its argument; fails when there is no main bundle.
#include <OKVDataManager/okvCmnUtil.h>

#include <cstdio>

int main(int argc, char** argv) {
    if (argc != 2) return 2;
    const auto text = okvCmnUtil::localizedString_key(nullptr, argv[1]);
    if (!text) return 1;
    std::fputs(text->c_str(), stdout);
    return 0;
}

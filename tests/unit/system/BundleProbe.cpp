#include <OKVPlatform/system/Bundle.h>

#include <cstdio>

/// Prints the folder of this process's main bundle, its identifier and the text of the first
/// argument; "none" when there is no main bundle.
int main(int count, char** arguments) {
    const auto bundle = okv::Bundle::mainBundle();
    if (!bundle || count != 2) {
        std::puts("none");
        return 0;
    }
    const auto* name = bundle->infoDictionary()["CFBundleIdentifier"].getIf<std::string>();
    std::printf("%s\n%s\n%s\n", bundle->path().c_str(), name != nullptr ? name->c_str() : "",
                bundle->localizedString(arguments[1]).c_str());
    return bundle == okv::Bundle::mainBundle() ? 0 : 1;
}

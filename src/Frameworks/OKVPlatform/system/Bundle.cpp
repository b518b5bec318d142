#include <OKVPlatform/system/Bundle.h>

#include <OKVPlatform/values/PropertyListFile.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <system_error>

namespace okv {

namespace {

constexpr std::size_t kMostLanguages = 32;

// A language becomes the name of a folder, so nothing may lead elsewhere.
bool isLanguageName(std::string_view name) {
    constexpr std::size_t kLongest = 64;
    return !name.empty() && name.size() <= kLongest &&
           std::all_of(name.begin(), name.end(), [](char c) {
               return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
                      c == '_' || c == '-';
           });
}

void addLanguage(std::vector<std::string>& languages, std::string_view name) {
    if (!isLanguageName(name) || name == "C" || name == "POSIX") return;
    if (languages.size() >= kMostLanguages) return;
    if (std::find(languages.begin(), languages.end(), name) != languages.end()) return;
    languages.emplace_back(name);
}

// "ja_JP.UTF-8@variant": the name itself, then the language without its country.
void addLocale(std::vector<std::string>& languages, std::string_view locale) {
    const auto name = locale.substr(0, locale.find_first_of(".@"));
    addLanguage(languages, name);
    addLanguage(languages, name.substr(0, name.find('_')));
}

std::string_view environment(const char* name) {
    const char* value = std::getenv(name);
    return value == nullptr ? std::string_view() : std::string_view(value);
}

// Of the three the first that is set decides, as for every program.
std::string_view environmentLocale() {
    for (const char* name : {"LC_ALL", "LC_MESSAGES", "LANG"})
        if (const auto value = environment(name); !value.empty()) return value;
    return {};
}

std::string withoutTrailingSlashes(std::string_view path) {
    while (path.size() > 1 && path.ends_with('/')) path.remove_suffix(1);
    return std::string(path);
}

}  // namespace

Ref<Bundle> Bundle::open(std::string_view path) {
    auto folder = withoutTrailingSlashes(path);
    std::error_code ignored;
    if (folder.empty() || !std::filesystem::is_directory(folder + "/Contents", ignored)) return {};
    return make<Bundle>(std::move(folder));
}

Ref<Bundle> Bundle::mainBundle() {
    static constinit OnDemand<Ref<Bundle>> bundle;
    return bundle.get([] {
        std::error_code failed;
        const auto executable = std::filesystem::read_symlink("/proc/self/exe", failed);
        return std::make_unique<Ref<Bundle>>(open(bundlePathOf(executable.native())));
    });
}

// A folder named ".app" alone is a hidden one, not a bundle.
std::string_view bundlePathOf(std::string_view path) noexcept {
    constexpr std::string_view kInside = ".app/Contents/";
    if (!path.starts_with('/')) return {};
    for (auto at = path.rfind(kInside); at != std::string_view::npos && at > 0;
         at = path.rfind(kInside, at - 1)) {
        const bool isNamed = path[at - 1] != '/';
        if (isNamed && at + kInside.size() < path.size()) return path.substr(0, at + 4);
    }
    return {};
}

Bundle::Bundle(std::string path) : path_(std::move(path)) {
    readInfo();
    languages_ = preferredLanguages(environment("LANGUAGE"), environmentLocale());
    if (const auto* region = info_["CFBundleDevelopmentRegion"].getIf<std::string>())
        addLanguage(languages_, *region);
}

void Bundle::readInfo() {
    auto list = readPropertyListFile(path_ + "/Contents/Info.plist", kInformationAtMost);
    auto* info = list ? list.value->getIf<Dictionary>() : nullptr;
    if (info != nullptr)
        info_ = std::move(*info);
    else
        infoError_ = list ? "Info.plist is not a dictionary" : std::move(list.error);
}

std::unique_ptr<Bundle::Tables> Bundle::readTables() const {
    auto tables = std::make_unique<Tables>();
    for (const auto& language : languages_) {
        auto loaded = StringsTable::load(path_ + "/Contents/Resources/" + language +
                                         ".lproj/Localizable.strings");
        if (loaded) tables->push_back(std::move(*loaded.table));
    }
    return tables;
}

std::string Bundle::localizedString(std::string_view key) const {
    for (const auto& table : tables_.get([this] { return readTables(); }))
        if (const auto* text = table.find(key)) return *text;
    return std::string(key);
}

std::vector<std::string> preferredLanguages(std::string_view list, std::string_view locale) {
    std::vector<std::string> languages;
    while (!list.empty()) {
        const auto end = std::min(list.find(':'), list.size());
        addLocale(languages, list.substr(0, end));
        list.remove_prefix(std::min(end + 1, list.size()));
    }
    addLocale(languages, locale);
    return languages;
}

}  // namespace okv

#pragma once

#include <OKVPlatform/Export.h>
#include <OKVPlatform/values/Dictionary.h>
#include <OKVPlatform/values/Lasting.h>
#include <OKVPlatform/values/Object.h>
#include <OKVPlatform/values/StringsTable.h>

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace okv {

/// An application bundle: a folder `X.app` with `Contents/Info.plist` and the texts of each
/// language in `Contents/Resources/<language>.lproj/Localizable.strings`. What the files say may
/// come from strangers and is read within bounds; a file that is missing or bad counts as empty.
///
/// Threads: everything may be called from any thread. `open` and `mainBundle` read the environment,
/// which no other thread may change meanwhile.
class OKV_EXPORT Bundle final : public Object {
public:
    /// The bundle in the folder `path`, or none when there is no `Contents` folder in it. The
    /// languages are those that the environment asks for at this moment.
    static Ref<Bundle> open(std::string_view path);

    /// The bundle that the running executable lies in, or none. Made by the first call and the same
    /// ever after.
    static Ref<Bundle> mainBundle();

    /// The folder as it was passed to `open`, without slashes at its end.
    const std::string& path() const noexcept { return path_; }

    /// What Info.plist holds; empty when it cannot be read or is not a dictionary.
    const Dictionary& infoDictionary() const noexcept { return info_; }
    /// Why Info.plist could not be read; empty when it could.
    const std::string& infoError() const noexcept { return infoError_; }

    /// The text for `key` in the first language that has one: the environment's languages, then
    /// the bundle's development region ("CFBundleDevelopmentRegion"). The key itself when none has.
    /// The tables are read by the first call.
    std::string localizedString(std::string_view key) const;

private:
    friend Ref<Bundle> make<Bundle>(std::string&&);
    explicit Bundle(std::string path);
    ~Bundle() override { tables_.destroy(); }

    using Tables = std::vector<StringsTable>;
    void readInfo();
    std::unique_ptr<Tables> readTables() const;

    std::string path_;
    Dictionary info_;
    std::string infoError_;
    std::vector<std::string> languages_;
    mutable OnDemand<Tables> tables_;
};

/// What is read of an Info.plist at most: who lists processes reads the files of many strangers.
/// Real ones are a few KiB.
inline constexpr std::size_t kInformationAtMost = std::size_t{1} << 20;

/// The folder of the innermost bundle that a file lies in ("/a/X.app" for
/// "/a/X.app/Contents/Linux/x"), as a part of `path`; empty when there is none or the path is not
/// absolute. Looks at the characters only.
OKV_EXPORT std::string_view bundlePathOf(std::string_view path) noexcept;

/// The languages that the values of LANGUAGE (`list`, names between colons) and of the locale ask
/// for, the most wanted one first: "ja_JP.UTF-8" asks for "ja_JP", then "ja"; "C" and "POSIX" ask
/// for none. Names that are not made of letters, digits, "_" and "-" are left out, and so is what
/// follows the first 32.
OKV_EXPORT std::vector<std::string> preferredLanguages(std::string_view list,
                                                       std::string_view locale);

}  // namespace okv

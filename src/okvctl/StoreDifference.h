#pragma once

#include <OKVPlatform/values/Value.h>

#include <string>
#include <string_view>
#include <vector>

namespace okvctl {

/// What an import changes at one place of the store.
struct Difference {
    std::string part;         ///< "settings", or a part's name in an export
    std::string whose;        ///< "everybody", "user 7", "account 501"
    std::string_view change;  ///< "added", "changed", "removed"
    std::string key;          ///< "" where the part is one value
    okv::Value before;        ///< nil when added
    okv::Value after;         ///< nil when removed
};

/// What differs between the store as it is and what an import of `file` makes of it: parts that the
/// file does not hold stay as they are. Both must have passed `checkStore`.
std::vector<Difference> differencesBetween(const okv::Dictionary& store,
                                           const okv::Dictionary& file);

}  // namespace okvctl

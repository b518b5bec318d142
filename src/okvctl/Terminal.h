#pragma once

#include <string>
#include <string_view>

namespace okvctl {

/// How a text stands out on a terminal.
enum class Style { plain, head, good, warning, bad };

/// The text in that style; as it is where the style is plain.
std::string styled(std::string_view text, Style style);

/// Whether a descriptor is a terminal that may be sent colours: not with NO_COLOR set to anything
/// but the empty text, and not where TERM is missing or says that it knows none.
bool wantsColours(int descriptor);

}  // namespace okvctl

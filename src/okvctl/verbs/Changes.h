#pragma once

#include "../Operands.h"

namespace okvctl {

/// Sends settings in one transaction, for the call's user or for everybody. The null object takes a
/// value away.
void storeSettings(Call& call, const okv::Dictionary& settings, std::string_view subject);

}  // namespace okvctl

#pragma once

#include <OKVPlatform/Export.h>

#include <stdexcept>
#include <string>

namespace okv {

/// A remote call that failed. The kind says what the caller may conclude, which is what it must
/// decide on.
class OKV_EXPORT ConnectionError final : public std::runtime_error {
public:
    enum class Kind {
        notSent,         ///< the peer never saw the request: sending it again is safe
        outcomeUnknown,  ///< it was sent, the connection ended before the answer: it may have been
                         ///< carried out
        timedOut,        ///< no answer in the time that was set; it may still be carried out
        refusedPeer,     ///< who serves the name is nobody this process trusts. No call throws it:
                      ///< such a peer is not connected to (`connectionWithRegisteredName` answers
                      ///< null). For who looks up and calls in one, and reports both alike.
        badData,  ///< the peer's bytes are not the protocol's. The connection has ended, unless
                  ///< they were the answer to this call alone: `isValid` tells
        notUnderstood,  ///< the peer lives but does not know the request or its arguments' types
    };

    /// `what`: the reason, for people.
    ConnectionError(Kind kind, const std::string& what) : std::runtime_error(what), kind_(kind) {}

    /// What the caller may conclude.
    Kind kind() const noexcept { return kind_; }

private:
    Kind kind_;
};

}  // namespace okv

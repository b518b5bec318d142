#pragma once

#include "Table.h"

#include <OKVPlatform/values/Value.h>

#include <string>
#include <string_view>

namespace okvctl {

/// The XML property list of a value; members of a dictionary that are null are left out. Throws
/// ToolError where there is no such form.
std::string plistText(const okv::Value& value);

/// What goes to the standard output. It is kept back until `flush`, so that a verb that fails
/// half-way has printed nothing.
class Output {
public:
    explicit Output(int descriptor) : descriptor_(descriptor) {}

    void setLegend(bool legend) { legend_ = legend; }

    void line(std::string_view text) { text_.append(text).append("\n"); }
    /// The text as it stands, without an end of line.
    void raw(std::string_view text) { text_.append(text); }
    /// One JSON document on one line.
    void json(const okv::Value& value);
    /// An XML property list. Throws ToolError where the value has no such form.
    void plist(const okv::Value& value) { text_.append(plistText(value)); }
    /// In colours where it is a terminal that has some.
    void table(const Table& table);
    /// A value alone: a string's bytes as they are, unless a terminal would act on them.
    void value(const okv::Value& value);

    /// A value's bytes and nothing else: strings and data as they are, others as `cellText`.
    void bytes(const okv::Value& value);

    /// Throws ToolError when the output cannot be written; a reader that went away only ends it.
    void flush();
    /// Whether the reader went away.
    bool isBroken() const noexcept { return broken_; }

private:
    int descriptor_;
    std::string text_;
    bool legend_ = true;
    bool broken_ = false;
};

}  // namespace okvctl

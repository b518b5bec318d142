#pragma once

#include <OKVPlatform/values/Value.h>

#include <string>
#include <string_view>
#include <vector>

namespace okvctl {

/// What goes to the standard output. It is kept back until `flush`, so that a verb that fails
/// half-way has printed nothing.
class Output {
public:
    explicit Output(int descriptor) : descriptor_(descriptor) {}

    void line(std::string_view text) { text_.append(text).append("\n"); }
    /// The text as it stands, without an end of line.
    void raw(std::string_view text) { text_.append(text); }
    /// One JSON document on one line.
    void json(const okv::Value& value);
    /// Rows of equally many cells, each column as wide as its widest cell; the last one is not
    /// filled up. A row's cells hold no control characters.
    void table(const std::vector<std::vector<std::string>>& rows);
    /// A value alone: a string's bytes as they are, unless a terminal would act on them.
    void value(const okv::Value& value);

    /// Throws ToolError when the output cannot be written; a reader that went away only ends it.
    void flush();
    /// Whether the reader went away.
    bool isBroken() const noexcept { return broken_; }

private:
    int descriptor_;
    std::string text_;
    bool broken_ = false;
};

}  // namespace okvctl

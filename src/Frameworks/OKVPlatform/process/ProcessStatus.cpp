#include <OKVPlatform/process/ProcessStatus.h>

#include <charconv>

namespace okv {

namespace {

std::string_view takeLine(std::string_view& text) noexcept {
    const auto line = text.substr(0, text.find('\n'));
    text.remove_prefix(line.size() < text.size() ? line.size() + 1 : line.size());
    return line;
}

// The first of a line's blank-separated numbers: of "Uid:" and "Gid:" that is the real one.
template <class Number>
bool readNumber(std::string_view text, Number& number) noexcept {
    const auto start = text.find_first_not_of(" \t");
    if (start == std::string_view::npos) return false;
    text.remove_prefix(start);
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (error != std::errc()) return false;
    return end == text.data() + text.size() || *end == '\t' || *end == ' ';
}

// The kernel writes a newline of the name as "\n" and a backslash as "\\", nothing else: the name
// can therefore not fake a line of its own.
void readCommand(std::string_view text, char (&command)[kMaxCommandLength + 1]) noexcept {
    if (text.starts_with('\t')) text.remove_prefix(1);
    std::size_t length = 0;
    for (std::size_t i = 0; i < text.size() && length < kMaxCommandLength; ++i) {
        char c = text[i];
        if (c == '\\' && i + 1 < text.size()) c = text[++i] == 'n' ? '\n' : text[i];
        command[length++] = c;
    }
    command[length] = '\0';
}

bool take(std::string_view line, std::string_view key, std::string_view& value) noexcept {
    if (!line.starts_with(key)) return false;
    value = line.substr(key.size());
    return true;
}

enum Seen : unsigned { kPid = 1, kParent = 2, kUid = 4, kGid = 8, kAll = 15 };

class StatusReader {
public:
    /// False when the line is one of ours and malformed.
    bool read(std::string_view line) noexcept {
        auto& record = status_.record;
        std::string_view value;
        if (take(line, "Name:", value)) return readCommand(value, record.command), true;
        if (take(line, "State:\t", value)) return readState(value);
        if (take(line, "Tgid:", value)) return readNumber(value, status_.threadGroup);
        if (take(line, "Pid:", value)) return mark(kPid, readNumber(value, record.pid));
        if (take(line, "PPid:", value)) return mark(kParent, readNumber(value, record.parentPid));
        if (take(line, "Uid:", value)) return mark(kUid, readNumber(value, record.realUid));
        if (take(line, "Gid:", value)) return mark(kGid, readNumber(value, record.realGid));
        return true;
    }
    bool isComplete() const noexcept { return seen_ == kAll; }
    const ProcessStatus& status() const noexcept { return status_; }

private:
    bool readState(std::string_view value) noexcept {
        if (value.empty()) return false;
        status_.state = value.front();
        return true;
    }
    bool mark(Seen field, bool wellFormed) noexcept {
        seen_ |= field;
        return wellFormed;
    }

    ProcessStatus status_;
    unsigned seen_ = 0;
};

}  // namespace

std::optional<ProcessStatus> parseProcessStatus(std::string_view text) noexcept {
    StatusReader reader;
    while (!text.empty() && !reader.isComplete()) {
        if (!reader.read(takeLine(text))) return std::nullopt;
    }
    if (!reader.isComplete()) return std::nullopt;
    return reader.status();
}

std::string_view absoluteFirstArgument(std::string_view commandLine) noexcept {
    const auto first = commandLine.substr(0, commandLine.find('\0'));
    return first.starts_with('/') ? first : std::string_view();
}

}  // namespace okv

#pragma once

#include <cstdint>
#include <iosfwd>
#include <map>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

/// What writers, watchers and readers of the data server did and saw while it was killed again and
/// again: a text, a line for each event, words apart by a blank. Keys and values hold no blank; no
/// value at all stands for its absence.
///
///   invoke WRITER NUMBER TIME KEY=VALUE...   a writer sends a change; its numbers only grow
///   ok WRITER NUMBER TIME                    it was acknowledged
///   unknown WRITER NUMBER TIME               the connection ended before the answer
///   unsent WRITER NUMBER TIME                it was told that the server never saw it
///   saw WATCHER REVISION KEY...              a watcher was told of a change
///   resync WATCHER                           it was told that changes are not known any more
///   read REVISION KEY=VALUE...               all there is, while nobody writes
///   picture WATCHER REVISION KEY=VALUE...    what a watcher thinks there is, after the last write
namespace killing {

using Picture = std::map<std::string, std::string>;

enum class Outcome { unknown, acknowledged, unsent };

struct Write {
    int writer = 0;
    std::int64_t number = 0;
    std::vector<std::pair<std::string, std::string>> settings;  ///< an empty value: taken away
    double invoked = 0, answered = 0;
    Outcome outcome = Outcome::unknown;

    std::string name() const { return std::to_string(writer) + "." + std::to_string(number); }
};

struct Change {
    std::int64_t revision = 0;
    std::vector<std::string> keys;  ///< in alphabetical order
};

struct Watch {
    std::vector<Change> seen;
    int resyncs = 0;
    std::int64_t revision = -1;  ///< of the picture; -1: there is none
    Picture picture;
};

struct Reading {
    std::int64_t revision = 0;
    Picture picture;
};

struct History {
    std::map<int, std::vector<Write>> writers;  ///< each one's in the order of its numbers
    std::map<int, Watch> watchers;
    std::vector<Reading> readings;  ///< in order of time
};

/// What is no history; tells the line.
struct HistoryError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

/// Throws HistoryError.
History readHistory(std::istream& text);

/// The lines, without their ends.
std::string invokeLine(const Write& write);
std::string answerLine(const Write& write);
std::string sawLine(int watcher, const Change& change);
std::string readLine(std::int64_t revision, const Picture& picture);
std::string pictureLine(int watcher, std::int64_t revision, const Picture& picture);

}  // namespace killing

#include "History.h"

#include <algorithm>
#include <charconv>
#include <istream>
#include <limits>
#include <sstream>

namespace killing {

namespace {

/// The words of one line, taken from the front.
class Words {
public:
    Words(const std::string& line, std::size_t number) : text_(line), number_(number) {}

    bool atEnd() {
        text_ >> std::ws;
        return text_.eof();
    }
    std::string word() { return take<std::string>("a word"); }
    int index() { return take<int>("an index"); }
    std::int64_t number() { return take<std::int64_t>("a number"); }
    double time() { return take<double>("a time"); }
    std::pair<std::string, std::string> setting() {
        const auto text = word();
        const auto middle = text.find('=');
        if (middle == std::string::npos || middle == 0) fail("no setting: " + text);
        return {text.substr(0, middle), text.substr(middle + 1)};
    }
    [[noreturn]] void fail(const std::string& what) const {
        throw HistoryError("line " + std::to_string(number_) + ": " + what);
    }

private:
    template <class T>
    T take(const char* wanted) {
        T taken{};
        if (!(text_ >> taken)) fail(std::string(wanted) + " is missing");
        return taken;
    }

    std::istringstream text_;
    const std::size_t number_;
};

void takeInvoke(History& history, Words& words) {
    Write write;
    write.writer = words.index();
    write.number = words.number();
    write.invoked = words.time();
    write.answered = std::numeric_limits<double>::infinity();
    while (!words.atEnd()) write.settings.push_back(words.setting());
    auto& writes = history.writers[write.writer];
    if (!writes.empty() && writes.back().number >= write.number)
        words.fail("a writer's numbers only grow");
    if (write.settings.empty()) words.fail("a change of nothing");
    writes.push_back(std::move(write));
}

// A writer waits for its answer before it goes on.
void takeAnswer(History& history, Words& words, Outcome outcome) {
    auto& writes = history.writers[words.index()];
    const auto number = words.number();
    if (writes.empty() || writes.back().number != number) words.fail("an answer to nothing");
    writes.back().outcome = outcome;
    writes.back().answered = words.time();
}

void takeSaw(History& history, Words& words) {
    auto& watch = history.watchers[words.index()];
    Change change{words.number(), {}};
    while (!words.atEnd()) change.keys.push_back(words.word());
    std::sort(change.keys.begin(), change.keys.end());
    watch.seen.push_back(std::move(change));
}

Picture pictureIn(Words& words) {
    Picture picture;
    while (!words.atEnd()) {
        if (!picture.insert(words.setting()).second) words.fail("a key twice");
    }
    return picture;
}

void takePicture(History& history, Words& words) {
    auto& watch = history.watchers[words.index()];
    watch.revision = words.number();
    watch.picture = pictureIn(words);
}

void takeLine(History& history, Words& words) {
    const auto event = words.word();
    if (event == "invoke") return takeInvoke(history, words);
    if (event == "ok") return takeAnswer(history, words, Outcome::acknowledged);
    if (event == "unknown") return takeAnswer(history, words, Outcome::unknown);
    if (event == "unsent") return takeAnswer(history, words, Outcome::unsent);
    if (event == "saw") return takeSaw(history, words);
    if (event == "picture") return takePicture(history, words);
    if (event == "resync") {
        ++history.watchers[words.index()].resyncs;
    } else if (event == "read") {
        const auto revision = words.number();
        history.readings.push_back({revision, pictureIn(words)});
    } else {
        words.fail("no event: " + event);
    }
}

template <class Settings>
std::string settingsText(const Settings& settings) {
    std::string text;
    for (const auto& [key, value] : settings)
        text.append(" ").append(key).append("=").append(value);
    return text;
}

std::string timeText(double time) {
    char text[32];
    return {text, std::to_chars(text, text + sizeof text, time, std::chars_format::fixed, 6).ptr};
}

std::string head(const char* event, const Write& write, double time) {
    return std::string(event) + " " + std::to_string(write.writer) + " " +
           std::to_string(write.number) + " " + timeText(time);
}

}  // namespace

History readHistory(std::istream& text) {
    History history;
    std::size_t number = 0;
    for (std::string line; std::getline(text, line);) {
        Words words(line, ++number);
        takeLine(history, words);
    }
    return history;
}

std::string invokeLine(const Write& write) {
    return head("invoke", write, write.invoked) + settingsText(write.settings);
}

std::string answerLine(const Write& write) {
    const auto* const event = write.outcome == Outcome::acknowledged ? "ok"
                              : write.outcome == Outcome::unsent     ? "unsent"
                                                                     : "unknown";
    return head(event, write, write.answered);
}

std::string sawLine(int watcher, const Change& change) {
    auto line = "saw " + std::to_string(watcher) + " " + std::to_string(change.revision);
    for (const auto& key : change.keys) line.append(" ").append(key);
    return line;
}

std::string readLine(std::int64_t revision, const Picture& picture) {
    return "read " + std::to_string(revision) + settingsText(picture);
}

std::string pictureLine(int watcher, std::int64_t revision, const Picture& picture) {
    return "picture " + std::to_string(watcher) + " " + std::to_string(revision) +
           settingsText(picture);
}

}  // namespace killing

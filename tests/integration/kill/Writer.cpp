#include "Ground.h"

#include "../faults/Support.h"

#include <random>
#include <thread>

namespace killing {

namespace {

using okv::ConnectionError;
using okv::Value;
using Data = OKVDataMng_protocol;

constexpr std::size_t kSharedKeys = 24;
constexpr int kWriterWithTool = 0;
constexpr std::chrono::milliseconds kConnectAgain{2};

class Writer {
public:
    Writer(int writer, Ground& ground, const Record& record)
        : writer_(writer),
          ground_(ground),
          record_(record),
          random_(static_cast<unsigned>(writer)) {}

    void run() {
        while (!ground_.stop) {
            if (ground_.hold || !connected()) {
                std::this_thread::sleep_for(kConnectAgain);
            } else {
                writeNext();
            }
        }
    }

private:
    bool connected() {
        if (connection_ && connection_->isValid()) return true;
        root_ = nullptr;
        connection_ = okv::Connection::connectionWithRegisteredName(kOKVDataServerName);
        try {
            if (connection_) root_ = connection_->rootProxy();
        } catch (const ConnectionError&) {
            // Killed in the middle of the greeting.
        }
        return static_cast<bool>(root_);
    }

    void writeNext() {
        auto write = next();
        write.invoked = now();
        record_.add(invokeLine(write));
        write.outcome = carryOut(write);
        write.answered = now();
        record_.add(answerLine(write));
        count(write.outcome);
        if (write.outcome == Outcome::acknowledged && write.settings.size() > 1)
            markers_ = {write.number};
    }

    // Every third write is of one key alone; the others are transactions on keys of everybody.
    Write next() {
        Write write;
        write.writer = writer_;
        write.number = ++number_;
        const auto tag = write.name();
        if (number_ % 3 == 0) {
            write.settings = {{ownKey(writer_, number_), tag}};
            return write;
        }
        const auto first = random_() % kSharedKeys;
        for (std::size_t i = 0; i < 2 + random_() % 3; ++i)
            write.settings.emplace_back("k" + std::to_string((first + i * 5) % kSharedKeys), tag);
        write.settings.emplace_back(keyOfWrite(writer_, number_), tag);
        for (const auto marker : markers_)
            write.settings.emplace_back(keyOfWrite(writer_, marker), "");
        markers_.push_back(number_);
        return write;
    }

    Outcome carryOut(const Write& write) {
        try {
            if (!send(write)) throw std::runtime_error("a write was refused");
            return Outcome::acknowledged;
        } catch (const ConnectionError& error) {
            return error.kind() == ConnectionError::Kind::notSent ? Outcome::unsent
                                                                  : Outcome::unknown;
        }
    }

    // One writer's calls of the tool are among the writes.
    bool sendByTool(const std::string& key, const std::string& tag) {
        const auto text = valueOf(tag).as<std::string>();
        if (faults::runTool({"--user", std::to_string(kUser), "set", key + "=" + text}) == 0)
            return true;
        throw ConnectionError(ConnectionError::Kind::outcomeUnknown, "the tool failed");
    }

    bool send(const Write& write) {
        if (write.settings.size() == 1 && writer_ == kWriterWithTool)
            return sendByTool(write.settings[0].first, write.settings[0].second);
        if (write.settings.size() == 1)
            return okv::send<&Data::setOKVDataPT_value_appUid>(
                *root_, write.settings[0].first, valueOf(write.settings[0].second), kUser);
        okv::Dictionary all;
        for (const auto& [key, tag] : write.settings)
            all.set(key, tag.empty() ? Value(okv::Null{}) : valueOf(tag));
        return okv::send<&Data::setOKVDataAllPT_appUid>(*root_, Value(all), kUser);
    }

    void count(Outcome outcome) {
        if (outcome == Outcome::acknowledged) ++ground_.acknowledged[writer_];
        if (outcome == Outcome::unknown) ++ground_.unknown;
        if (outcome == Outcome::unsent) ++ground_.unsent;
    }

    const int writer_;
    Ground& ground_;
    const Record& record_;
    std::mt19937 random_;
    std::int64_t number_ = 0;
    std::vector<std::int64_t> markers_;  ///< of writes that may be there
    okv::Ref<okv::Connection> connection_;
    okv::Ref<okv::RemoteObject> root_;
};

}  // namespace

void runWriter(int writer, Ground& ground, const Record& record) {
    Writer(writer, ground, record).run();
}

}  // namespace killing

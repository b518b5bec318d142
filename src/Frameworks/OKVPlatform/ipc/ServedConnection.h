#pragma once

#include <OKVPlatform/ipc/Publication.h>

#include <atomic>
#include <string>

namespace okv {

/// One client of a publication. All but `sendAnswer` and `post` belongs to the publication's run
/// loop.
class ServedConnection final : public MessagePort {
public:
    ServedConnection(Publication& publication, PrivateDescriptor socket, PeerIdentity peer);

    /// Begins to read; may end the connection at once.
    void start();
    /// Tells the client why it is not served, and ends.
    void refuse(const std::string& why) { end(why); }
    void close() { end(); }
    bool isFlushed() const noexcept { return out_.empty(); }
    std::size_t queuedOutput() const noexcept { return out_.size() - outFront_; }
    std::size_t pendingRequests() const noexcept { return pending_; }

    /// Not offered: a server that waited for a client would let it stand still.
    void callAndRead(std::string& frame, ReplyReader& reader) override;
    void post(std::string frame) override;
    void sendAnswer(std::string frame) override;
    void sendAnswerFrom(std::string& frame, std::string_view rest) override;
    const PeerIdentity& peer() const noexcept override { return peer_; }
    void lend(std::uint64_t) override {}

private:
    void serve(std::uint32_t events);
    bool readOnce();
    void takeFrames();
    bool takeNextFrame();
    void takeMoreNextTurn();
    void takeFrame(const Frame& frame);
    void takeHello(const Frame& frame);
    void handle(const Frame& frame);
    Ref<IncomingRequest> take(const Frame& frame);
    void sendNow(std::string_view frame, std::string_view rest = {});
    void answerNow(std::string_view frame, std::string_view rest);
    void flush();
    void giveUpSent();
    void end(const std::string& farewell = {});
    bool mayRead() const noexcept;
    void rearm();
    void updateEvents();
    const PublicationOptions& options() const noexcept;

    Publication* publication_;        // null once ended
    std::atomic<bool> ended_{false};  // the same, for other threads
    const Ref<RunLoop> loop_;
    PrivateDescriptor socket_;
    const PeerIdentity peer_;
    RunLoop::Id source_ = 0;
    RunLoop::Id greeting_ = 0;
    std::uint32_t events_ = 0;  // that the run loop waits for
    FrameBuffer bytes_;
    Ref<IncomingRequest> over_;
    std::string out_;
    std::size_t outFront_ = 0;
    std::size_t pending_ = 0;
    bool greeted_ = false;
    enum class Taking {
        no,
        now,       // further down the stack
        nextTurn,  // a task of the run loop goes on with what is in the buffer
    };
    Taking taking_ = Taking::no;
    std::uint32_t lastSerial_ = 0;
};

}  // namespace okv

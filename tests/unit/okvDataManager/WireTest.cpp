#include "Support.h"

#include <OKVPlatform/ipc/RegisteredName.h>

#include <sys/socket.h>

// What goes over the wire, written out: whoever changes it makes old clients and servers strangers
// to one another.

namespace dmtest {
namespace {

using namespace std::string_literals;

// Selector, the types of the arguments, the type of the result.
const std::set<std::string> kServerRows{
    "registerAsClient: @ c",
    "removeAsClient: @ v",
    "connectCount - i",
    "endServer - v",
    "okvDataPT: @ @",
    "okvDataPT:osUid: @i @",
    "okvDataPT:appUid: @i @",
    "okvDataAllPT: @ @",
    "okvDataAllPT:osUid: @i @",
    "okvDataAllPT:appUid: @i @",
    "setOKVDataPT:value:appUid: @@i c",
    "setOKVDataPT:value:osUid: @@i c",
    "setOKVDataAllPT:appUid: @i c",
    "setOKVDataAllPT:osUid: @i c",
    "reloadDataPT - c",
    "filterSettingsDataPT - @",
    "systemConfDataPT - @",
    "cmnSettingsDataPT - @",
    "setAgentAutoRunPT: c c",
    "okvUserSettingPT: @ @",
    "setOkvUserSettingPT:value: @@ c",
    "okvContentsWordsPT: @ @",
    "setOkvContentsWordsPT:value: @@ c",
    "okvHammerListPT: @ @",
    "setOkvHammerListPT:value: @@ c",
    "okvBlackExtensionListPT: @ @",
    "setOkvBlackExtensionListPT:value: @@ c",
    "okvFltProcWhiteListPT - @",
    "okvFltProcBlackListPT - @",
    "okvKillWebProcListPT - @",
    "defaultUserIdPT - i",
    "currentUserIdPT - i",
    "maxUserIdPT - i",
    "setCurrentUserIdPT: @ c",
    "setCurrentUserIdForOSPT: @ c",
    "userAppuidPT: i i",
    "setUseridPT:applyUid: ii v",
    "delUseridPT: i i",
    "uidListPT - @",
    "useridAppListPT - @",
    "useridUpdatePT - v",
    "removeUserInfoPT: @ c",
    "removeUserInfoAllPT - v",
    "serverTimePT - @",
    "setServerTimePT: @ v",
    "startServerTimeTimer - v",
    "stopServerTimeTimer - v",
};

template <class P>
std::set<std::string> rowsOf() {
    using Rows = okv::Dispatcher<P>;
    std::set<std::string> rows;
    for (std::size_t row = 0; row < Rows::rowCount; ++row) {
        const std::string types(Rows::types(row));
        rows.insert(std::string(Rows::selector(row)) + " " + (types.empty() ? "-" : types) + " " +
                    Rows::resultType(row));
    }
    return rows;
}

// As docs/wire.md shows it.
const std::string kClientHello = "\0\0\0\1\1\0\0\0\0\1"s;
const std::string kServerHello = "\0\0\0\2\1\0\0\0\0\1\xF5"s;
const std::string kRequest =
    "\0\0\0\x19\2\0\0\0\1\0"
    "\x71okvDataPT:appUid:"
    "\x62@i"
    "\x61k\1"s;
const std::string kReply = "\0\0\0\2\3\0\0\0\1\x61v"s;

/// One end of a connection at which the bytes are seen.
class Wire {
public:
    explicit Wire(okv::PrivateDescriptor socket) : socket_(std::move(socket)) {}

    void write(const std::string& bytes) {
        EXPECT_EQ(::send(socket_.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL),
                  static_cast<ssize_t>(bytes.size()));
    }
    // Waits for so many.
    std::string read(std::size_t count) {
        std::string bytes;
        while (bytes.size() < count) {
            char more[256];
            const auto got =
                recv(socket_.get(), more, std::min(sizeof more, count - bytes.size()), 0);
            if (got == 0 || (got < 0 && errno != EAGAIN && errno != EINTR)) break;
            if (got > 0) bytes.append(more, static_cast<std::size_t>(got));
        }
        return bytes;
    }

private:
    okv::PrivateDescriptor socket_;
};

using WireTest = ServerTest;

}  // namespace

TEST(WireRows, OfTheServersInterfaceAreTheseFortySeven) {
    EXPECT_EQ(rowsOf<OKVDataMng_protocol>(), kServerRows);
    EXPECT_EQ(kServerRows.size(), 47U);
}

TEST(WireRows, OfTheClientsInterfaceIsThisOne) {
    EXPECT_THAT(rowsOf<OKVClientMng_protocol>(), testing::ElementsAre("disConnectSrv - v"));
}

TEST_F(WireTest, AServersPartOfAnExchangeIsWhatThePageTells) {
    server().answer("okvDataPT:appUid:", "v");
    Wire wire(std::move(okv::connectToName(kOKVDataServerName).socket));
    wire.write(kClientHello);
    EXPECT_EQ(wire.read(kServerHello.size()), kServerHello);
    wire.write(kRequest);
    EXPECT_EQ(wire.read(kReply.size()), kReply);
    EXPECT_THAT(sent(), testing::ElementsAre(ReceivedMessage{"okvDataPT:appUid:", "@i", {"k", 1}}));
}

TEST(WireExchange, AClientsPartIsWhatThePageTells) {
    int ends[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
    Wire wire{okv::PrivateDescriptor(ends[1])};
    wire.write(kServerHello + kReply);
    const auto connection =
        okv::Connection::connectionWithSocket(okv::PrivateDescriptor(ends[0]), {});
    ASSERT_TRUE(connection);
    // The answer lies ready: a call looks at what has come only once it has linked itself.
    const auto root = okv::make<okv::RemoteObject>(connection, okv::kRootObject);
    EXPECT_EQ(okv::send<&OKVDataMng_protocol::okvDataPT_appUid>(*root, "k", 1), Value("v"));
    EXPECT_EQ(wire.read(kClientHello.size() + kRequest.size()), kClientHello + kRequest);
}

}  // namespace dmtest

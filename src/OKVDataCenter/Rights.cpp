#include "Rights.h"

#include <grp.h>

#include <array>
#include <cerrno>
#include <vector>

namespace datacenter {

namespace {

using Data = OKVDataMng_protocol;
using Admin = OKVDataAdmin_protocol;
using Class = Grant::Class;
using Where = Grant::Where;

constexpr Grant kRead{Class::read, Where::here};
constexpr Grant kOwn{Class::own, Where::store};
constexpr Grant kAdminister{Class::administer, Where::store};
constexpr Grant kAdministerHere{Class::administer, Where::here};
constexpr Grant kImport{Class::administer, Where::store, true};

template <auto... Member>
struct Methods {
    template <std::size_t N>
    static constexpr void grant(std::array<Grant, N>& table, Grant grant) {
        ((table[methodOf<Member>().row] = grant), ...);
    }
};

using DataReads =
    Methods<&Data::registerAsClient, &Data::removeAsClient, &Data::connectCount, &Data::okvDataPT,
            &Data::okvDataPT_osUid, &Data::okvDataPT_appUid, &Data::okvDataAllPT,
            &Data::okvDataAllPT_osUid, &Data::okvDataAllPT_appUid, &Data::filterSettingsDataPT,
            &Data::systemConfDataPT, &Data::cmnSettingsDataPT, &Data::okvUserSettingPT,
            &Data::okvContentsWordsPT, &Data::okvHammerListPT, &Data::okvBlackExtensionListPT,
            &Data::okvFltProcWhiteListPT, &Data::okvFltProcBlackListPT, &Data::okvKillWebProcListPT,
            &Data::defaultUserIdPT, &Data::currentUserIdPT, &Data::maxUserIdPT, &Data::userAppuidPT,
            &Data::uidListPT, &Data::useridAppListPT, &Data::serverTimePT>;
using DataOwn = Methods<&Data::setOKVDataPT_value_appUid, &Data::setOKVDataPT_value_osUid,
                        &Data::setOKVDataAllPT_appUid, &Data::setOKVDataAllPT_osUid,
                        &Data::setOkvUserSettingPT_value, &Data::setOkvContentsWordsPT_value,
                        &Data::setOkvHammerListPT_value, &Data::setOkvBlackExtensionListPT_value,
                        &Data::setCurrentUserIdForOSPT>;
using DataAdminister =
    Methods<&Data::reloadDataPT, &Data::setAgentAutoRunPT, &Data::setCurrentUserIdPT,
            &Data::setUseridPT_applyUid, &Data::delUseridPT, &Data::useridUpdatePT,
            &Data::removeUserInfoPT, &Data::removeUserInfoAllPT, &Data::setServerTimePT,
            &Data::startServerTimeTimer, &Data::stopServerTimeTimer>;
using AdminReads = Methods<&Admin::okvDataListPT, &Admin::okvDataListPT_appUid,
                           &Admin::okvDataInfoPT, &Admin::okvDataInfoPT_appUid, &Admin::lockListPT,
                           &Admin::changesPT, &Admin::serverStatusPT>;
// An export is a read, but a heavy one: it is the administrator's, and is made beside the reads.
using AdminAdminister = Methods<&Admin::setOKVCommonDataAllPT, &Admin::lockOKVDataPT,
                                &Admin::unlockOKVDataPT, &Admin::setOkvFltProcWhiteListPT,
                                &Admin::setOkvFltProcBlackListPT, &Admin::setOkvKillWebProcListPT,
                                &Admin::setCurrentUserIdPT_osUid, &Admin::exportDataPT>;

constexpr auto dataTable() {
    std::array<Grant, okv::Dispatcher<Data>::rowCount> table{};
    DataReads::grant(table, kRead);
    DataOwn::grant(table, kOwn);
    DataAdminister::grant(table, kAdminister);
    Methods<&Data::endServer>::grant(table, kAdministerHere);
    return table;
}

constexpr auto adminTable() {
    std::array<Grant, okv::Dispatcher<Admin>::rowCount> table{};
    AdminReads::grant(table, kRead);
    AdminAdminister::grant(table, kAdminister);
    Methods<&Admin::importDataPT>::grant(table, kImport);
    return table;
}

}  // namespace

const Grant& grantFor(Method method) {
    static constexpr auto data = dataTable();
    static constexpr auto admin = adminTable();
    return method.isAdmin ? admin[method.row] : data[method.row];
}

bool Rights::isAdministrator(const okv::PeerIdentity& caller) const noexcept {
    if (!caller.isAccount()) return false;
    const auto group = adminGroup();
    return caller.uid == 0 || caller.uid == options_.ownUid || (group && caller.isInGroup(*group));
}

std::optional<gid_t> Rights::adminGroup() const noexcept {
    const std::int64_t group = adminGroup_;
    return group != kNoGroup ? std::optional(static_cast<gid_t>(group)) : std::nullopt;
}

bool Rights::allows(const okv::PeerIdentity& caller, Grant::Class granted) const noexcept {
    switch (granted) {
        case Class::none:
            return false;
        case Class::read:
            return true;
        case Class::own:
            return isAdministrator(caller) || (options_.selfService && caller.isAccount());
        case Class::administer:
            return isAdministrator(caller);
    }
    return false;
}

namespace {

// What a look-up ends with when a name service does not answer, rather than that there is no such
// group.
bool isTransient(int error) {
    return error == EIO || error == EAGAIN || error == EINTR || error == EMFILE ||
           error == ENFILE || error == ENOMEM;
}

}  // namespace

std::optional<gid_t> administratorsGroup(const char* name, std::optional<gid_t> unknown) {
    std::vector<char> buffer(1024);
    group entry{};
    group* found = nullptr;
    int error = 0;
    while ((error = getgrnam_r(name, &entry, buffer.data(), buffer.size(), &found)) == ERANGE &&
           buffer.size() < (1U << 20))
        buffer.resize(buffer.size() * 2);
    if (found != nullptr) return found->gr_gid;
    return isTransient(error) ? unknown : std::nullopt;
}

}  // namespace datacenter

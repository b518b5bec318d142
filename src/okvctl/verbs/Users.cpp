#include "../Operands.h"
#include "../Printing.h"
#include "Verbs.h"

namespace okvctl {

namespace {

using Data = OKVDataMng_protocol;

okv::Array accountsOf(const okv::Dictionary& assignments, const okv::Value& user) {
    okv::Array accounts;
    for (const auto& [account, assigned] : assignments) {
        if (assigned.intValue() == user.intValue()) accounts.push_back(account);
    }
    return accounts;
}

std::string joined(const okv::Array& accounts) {
    std::string text;
    for (const auto& account : accounts)
        text.append(text.empty() ? "" : ",").append(cellText(account));
    return text.empty() ? "-" : text;
}

std::string marksOf(std::int32_t user, std::int32_t standard, std::int32_t current) {
    if (user == standard) return user == current ? "default,current" : "default";
    return user == current ? "current" : "-";
}

ExitCode listUsers(Call& call) {
    expectOperands(call, 0, 1, "");
    expectFormats(call, kTableFormats);
    const auto ids = call.server.ask<&Data::useridAppListPT>("");
    const auto assignments = call.server.ask<&Data::uidListPT>("");
    const auto standard = call.server.ask<&Data::defaultUserIdPT>("");
    const auto current = call.server.ask<&Data::currentUserIdPT>("");
    const auto highest = call.server.ask<&Data::maxUserIdPT>("");
    okv::Array users;
    Table table({"USER", "ROLE", "ACCOUNTS"}, {"user", "users"});
    for (const auto& id : arrayIn(ids)) {
        const auto accounts = accountsOf(dictionaryIn(assignments), id);
        users.emplace_back(okv::Dictionary{{"user", id}, {"accounts", accounts}});
        table.add({cellText(id), marksOf(id.intValue(), standard, current), joined(accounts)});
    }
    const okv::Dictionary whole{
        {"default", standard}, {"current", current}, {"max", highest}, {"users", users}};
    print(call, whole, table);
    return ExitCode::done;
}

void printId(Call& call, std::string_view name, std::int32_t id) {
    printValue(call, okv::Dictionary{{name, id}}, name, id);
}

ExitCode assign(Call& call) {
    expectOperands(call, 3, 3, "ACCOUNT or APPUID");
    expectFormats(call, kConfirmFormats);
    const auto account = accountOf(call.operands()[1]);
    const auto user = userIdOf(call.operands()[2]);
    call.server.ask<&Data::setUseridPT_applyUid>("account " + std::to_string(account), account,
                                                 user);
    confirm(call, "assigned", okv::Dictionary{{"account", account}, {"user", user}});
    return ExitCode::done;
}

ExitCode unassign(Call& call) {
    expectOperands(call, 2, 2, "ACCOUNT");
    expectFormats(call, kConfirmFormats);
    const auto account = accountOf(call.operands()[1]);
    const auto subject = "account " + std::to_string(account);
    const auto user = call.server.ask<&Data::delUseridPT>(subject, account);
    if (user < 1) throw ToolError(ExitCode::notSet, subject + ": it has no user");
    confirm(call, "unassigned", okv::Dictionary{{"account", account}, {"user", user}});
    return ExitCode::done;
}

ExitCode remove(Call& call) {
    expectOperands(call, 2, 2, "APPUID");
    expectFormats(call, kConfirmFormats);
    const auto user = userIdOf(call.operands()[1]);
    call.server.change<&Data::removeUserInfoPT>(
        "user " + std::to_string(user), "not removed: it is the default user, or there is no such",
        okv::Value(user));
    confirm(call, "removed", user);
    return ExitCode::done;
}

template <auto Method>
ExitCode showId(Call& call, std::string_view name) {
    expectOperands(call, 1, 1, "");
    expectFormats(call, kValueFormats);
    printId(call, name, call.server.ask<Method>(""));
    return ExitCode::done;
}

ExitCode showDefault(Call& call) {
    return showId<&Data::defaultUserIdPT>(call, "default");
}

ExitCode showHighest(Call& call) {
    return showId<&Data::maxUserIdPT>(call, "max");
}

ExitCode current(Call& call) {
    expectOperands(call, 1, 2, "");
    const bool asks = call.operands().size() == 1;
    expectFormats(call, asks ? kValueFormats : kConfirmFormats);
    if (asks) {
        printId(call, "current", call.server.ask<&Data::currentUserIdPT>(""));
        return ExitCode::done;
    }
    const auto user = userIdOf(call.operands()[1]);
    call.server.change<&Data::setCurrentUserIdPT>("user " + std::to_string(user),
                                                  "there is no such user", okv::Value(user));
    confirm(call, "current", user);
    return ExitCode::done;
}

ExitCode switchUser(Call& call) {
    expectOperands(call, 3, 3, "ACCOUNT or APPUID");
    expectFormats(call, kConfirmFormats);
    const auto account = accountOf(call.operands()[1]);
    const auto user = userIdOf(call.operands()[2]);
    call.server.change<&OKVDataAdmin_protocol::setCurrentUserIdPT_osUid>(
        "user " + std::to_string(user), "there is no such user", okv::Value(user), account);
    confirm(call, "switched", okv::Dictionary{{"account", account}, {"user", user}});
    return ExitCode::done;
}

constexpr Action kUsersActions[] = {
    {"list", listUsers},      {"assign", assign},   {"unassign", unassign}, {"remove", remove},
    {"default", showDefault}, {"max", showHighest}, {"current", current},   {"switch", switchUser}};

ExitCode runUsers(Call& call) {
    const auto operands = call.operands();
    return actionNamed(operands.empty() ? "list" : operands[0], kUsersActions).run(call);
}

constexpr OperandOffer kUsersOffers[] = {
    {1, Offer::accounts, {}, "assign"}, {1, Offer::accounts, {}, "unassign"},
    {1, Offer::accounts, {}, "switch"}, {1, Offer::users, {}, "remove"},
    {1, Offer::users, {}, "current"},   {2, Offer::users, {}, "assign"},
    {2, Offer::users, {}, "switch"}};

}  // namespace

const Verb kUsers{
    "users",
    "[list | assign ACCOUNT APPUID | unassign ACCOUNT | remove APPUID | default | max |"
    " current [APPUID] | switch ACCOUNT APPUID]",
    "list and change the application users",
    "  list              the users with their accounts (also without any word)\n"
    "  assign            gives the account the user, who is created if need be\n"
    "  unassign          takes the account's user away; 10 when it has none\n"
    "  remove            removes the user with all values, lists and assignments\n"
    "  default, max      print the default user; the highest id ever given\n"
    "  current           prints the user that this account acts for; with APPUID it sets the\n"
    "                    user that accounts without one of their own act for\n"
    "  switch            makes the user the account's current one\n"
    "An ACCOUNT is a uid or an account's name, an APPUID a number from 1 on.\n",
    kNoOptions,
    runUsers,
    kUsersOffers,
    kUsersActions,
};

}  // namespace okvctl

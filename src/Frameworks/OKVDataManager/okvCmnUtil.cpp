#include <OKVDataManager/MainteFile.h>
#include <OKVDataManager/okvCmnUtil.h>
#include <OKVDataManager/okvCmnUtilSeams.h>
#include <OKVPlatform/process/ProcessTable.h>
#include <OKVPlatform/process/QuitEvent.h>
#include <OKVPlatform/process/Task.h>
#include <OKVPlatform/system/FileAttributes.h>
#include <OKVPlatform/system/SystemVersion.h>
#include <OKVPlatform/values/Lasting.h>
#include <OKVPlatform/values/PropertyListFile.h>
#include <OKVPlatform/values/Unicode.h>

#include <pwd.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <bit>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <vector>

namespace {

constexpr std::string_view kInstallationRoot = "/Library/Application Support/NRM/okv6/";
// The platform's standard text for an object that is missing.
constexpr std::string_view kMissingObjectText = "(null)";

// A stretch of UTF-8: one character, or one byte that belongs to none.
struct Character {
    std::size_t bytes;
    std::size_t units;  // Its length in UTF-16.
};

// The text must not be empty. A broken sequence counts byte by byte, one unit each.
Character firstCharacter(std::string_view text) {
    const auto length = okv::utf8Length(text.front());
    if (length == 0 || text.size() < length) return {1, 1};
    const auto rest = text.substr(1, length - 1);
    if (!std::all_of(rest.begin(), rest.end(), okv::isUtf8Continuation)) return {1, 1};
    return {length, length == 4 ? 2U : 1U};
}

// The length that the platform reports for a text.
std::size_t utf16Length(std::string_view text) {
    std::size_t units = 0;
    while (!text.empty()) {
        const auto character = firstCharacter(text);
        units += character.units;
        text.remove_prefix(character.bytes);
    }
    return units;
}

}  // namespace

// ---- Maintenance settings and log switches ----

namespace {

constexpr std::string_view kMainteFileName = "jp.nrm.okv6.mainte.plist";
constexpr int kDefaultLogLevel = 10;

std::string& otherMainteFile() {
    static constinit okv::OnDemand<std::string> path;
    return path.get();
}

std::string mainteFile() {
    if (!otherMainteFile().empty()) return otherMainteFile();
    return std::string(kInstallationRoot).append(kMainteFileName);
}

// nil when the file or the key is missing.
okv::Value mainteValue(const char* key) {
    const auto info = okvCmnUtil::loadMainteInfo();
    return info ? (*info)[key] : okv::Value();
}

}  // namespace

void okv::testing::setMainteFile(std::string path) {
    otherMainteFile() = std::move(path);
}

std::optional<okv::Dictionary> okvCmnUtil::loadMainteInfo() {
    auto file = okv::readPropertyListFile(mainteFile());
    auto* const root = file ? file.value->getIf<okv::Dictionary>() : nullptr;
    if (root == nullptr) return std::nullopt;
    return std::move(*root);
}

int okvCmnUtil::logLevel() {
    const auto value = mainteValue("logLevel");
    return value.isNil() ? kDefaultLogLevel : value.intValue();
}

// A missing switch is nil, which reads as NO.
bool okvCmnUtil::isNkeLog() {
    return mainteValue("nkeLog").boolValue();
}

bool okvCmnUtil::isARSLog() {
    return mainteValue("arsLog").boolValue();
}

bool okvCmnUtil::isDevModeLog() {
    return mainteValue("devmode").boolValue();
}

// ---- Date and time ----

namespace {

constexpr std::string_view kDateAndTime = "%Y/%m/%d %H:%M:%S";
constexpr std::string_view kCompactDate = "%Y%m%d";
constexpr std::string_view kSlashDate = "%Y/%m/%d";
constexpr std::string_view kTimeOfDay = "%H:%M:%S";

okv::TimeZone zoneOrLocal(std::string_view abbreviation) {
    auto zone = okv::TimeZone::withAbbreviation(abbreviation);
    return zone ? *zone : okv::TimeZone::local();
}

okv::TimeZone japan() {
    return zoneOrLocal("JST");
}

std::string formatted(std::string_view abbreviation, std::optional<okv::Date> baseDate,
                      std::string_view format) {
    const okv::Date now = okv::Date::now();
    const auto date =
        okv::CalendarDate::of(baseDate.value_or(now), zoneOrLocal(abbreviation), format);
    return date ? date->description() : std::string(kMissingObjectText);
}

// One byte for each UTF-16 unit, so that positions are those of the platform; what is not ASCII is
// no digit either way.
std::string unitsOf(std::string_view text) {
    std::string units;
    while (!text.empty()) {
        const auto character = firstCharacter(text);
        units.append(character.units, character.bytes == 1 ? text.front() : '?');
        text.remove_prefix(character.bytes);
    }
    return units;
}

std::int32_t fieldOf(std::string_view units, std::size_t first, std::size_t count) {
    return okv::intValueOf(units.substr(first, count));
}

}  // namespace

std::string okvCmnUtil::nowDate_baseDate(std::string_view abbreviation,
                                         std::optional<okv::Date> baseDate) {
    return formatted(abbreviation, baseDate, kDateAndTime);
}

std::string okvCmnUtil::nowDateOnly_baseDate(std::string_view abbreviation,
                                             std::optional<okv::Date> baseDate) {
    return formatted(abbreviation, baseDate, kCompactDate);
}

std::string okvCmnUtil::nowDateOnlySlash_baseDate(std::string_view abbreviation,
                                                  std::optional<okv::Date> baseDate) {
    return formatted(abbreviation, baseDate, kSlashDate);
}

std::string okvCmnUtil::nowTime_baseDate(std::string_view abbreviation,
                                         std::optional<okv::Date> baseDate) {
    return formatted(abbreviation, baseDate, kTimeOfDay);
}

std::optional<std::string> okvCmnUtil::descriptionWithTimeIntervalSince1970(double seconds) {
    const auto date = okv::CalendarDate::of({seconds}, japan(), kDateAndTime);
    if (!date) return std::nullopt;
    return date->description();
}

std::optional<okv::CalendarDate> okvCmnUtil::baseDateJST(std::optional<okv::Date> date) {
    const okv::Date now = okv::Date::now();
    return okv::CalendarDate::of(date.value_or(now), japan());
}

okv::Calendar okvCmnUtil::baseCalJST() {
    auto calendar = okv::Calendar::current();
    calendar.setTimeZone(japan());
    return calendar;
}

std::optional<okv::Date> okvCmnUtil::createDateFromyyyymm(std::string_view text) {
    const std::string units = unitsOf(text);
    if (units.size() != 6) return std::nullopt;
    // The local zone, not JST: intended.
    return okv::Calendar::current().dateFromComponents(
        {.year = fieldOf(units, 0, 4), .month = fieldOf(units, 4, 2)});
}

std::optional<okv::Date> okvCmnUtil::createDateFromyyyymmdd(std::string_view text) {
    const std::string units = unitsOf(text);
    if (units.size() != 8) return std::nullopt;
    // The local zone, not JST: intended.
    return okv::Calendar::current().dateFromComponents(
        {.year = fieldOf(units, 0, 4), .month = fieldOf(units, 4, 2), .day = fieldOf(units, 6, 2)});
}

// ---- Process inspection ----

std::int32_t okvCmnUtil::processID() {
    return getpid();
}

std::string okvCmnUtil::processName() {
    return program_invocation_short_name;
}

std::string okvCmnUtil::processUserName() {
    passwd account{};
    passwd* found = nullptr;
    std::vector<char> texts(1024);
    while (getpwuid_r(getuid(), &account, texts.data(), texts.size(), &found) == ERANGE)
        texts.resize(texts.size() * 2);
    return found != nullptr ? found->pw_name : "";
}

bool okvCmnUtil::launchMutexCheck_BundleIdentifer(std::string_view name,
                                                  std::string_view bundleIdentifier) {
    return okvCmnUtilSeams::launchMutexCheck(name, bundleIdentifier, processList, processName);
}

std::optional<okv::Dictionary> okvCmnUtil::processInfoBSD(std::int32_t pid) {
    return okvCmnUtilSeams::processInfoBSD(processListBSD(), pid);
}

okv::Array okvCmnUtil::processListBSD() {
    // Children that have ended are no processes to anybody but the kernel.
    okv::Task::reapFinished();
    okv::KernelProcessTable kernel;
    return okvCmnUtilSeams::processListBSD(kernel, std::malloc);
}

okv::Array okvCmnUtil::processList() {
    okv::Task::reapFinished();
    okv::ProcessManager manager;
    return okvCmnUtilSeams::processList(manager);
}

char* getPathName(int pid) {
    okv::KernelProcessTable kernel;
    return okvCmnUtilSeams::pathName(kernel, pid);
}

// ---- Launching and quitting applications ----

std::int32_t okvCmnUtil::sendQuitAppleEventForPid(std::int32_t pid) {
    okv::Task::reapFinished();
    okv::ProcessSerialNumber psn;
    // Intended: a process that is not there has quit, its look-up's own error is not passed on.
    if (okv::ProcessManager().GetProcessForPID(pid, &psn) != okv::noErr) return 0;
    return sendQuitAppleEvent(&psn);
}

std::int32_t okvCmnUtil::sendQuitAppleEvent(const okv::ProcessSerialNumber* psn) {
    return okvCmnUtilSeams::sendQuit(psn,
                                     {okv::makeQuitTarget, okv::makeQuitEvent, okv::sendQuitEvent});
}

bool okvCmnUtil::quitProcesss(std::int32_t pid) {
    okv::Task::reapFinished();
    return okvCmnUtilSeams::quitProcess(pid, {::kill, ::usleep});
}

bool okvCmnUtil::launchApp_argument_sync_workPath_processId(std::string_view path,
                                                            const okv::Array& arguments, bool sync,
                                                            std::string_view workPath,
                                                            std::int32_t* processId) {
    if (!okv::fileExistsAtPath(path)) return false;
    okv::Task task;
    task.pipeStandardError();
    task.setLaunchPath(std::string(path));
    task.setCurrentDirectoryPath(okvCmnUtilSeams::chosenFolder(workPath, appBinPath()));
    task.setArguments(okvCmnUtilSeams::argumentTexts(arguments));
    task.launch();
    if (sync) task.waitUntilExit();
    *processId = task.processIdentifier();
    return *processId > 0;
}

// ---- Category data and byte buffers ----

namespace {

constexpr std::size_t kCategoryFlags = 128;
constexpr std::size_t kCategoryBytes = 16;

// Eight characters or bytes are worked on at once, the first one in the lowest byte.
constexpr std::uint64_t kEachByte = 0x0101010101010101;
constexpr std::uint64_t kHighBits = 0x80 * kEachByte;

std::uint64_t inOrder(std::uint64_t eight) {
    if constexpr (std::endian::native == std::endian::big) return __builtin_bswap64(eight);
    return eight;
}

// 0x80 in each byte that is not zero; no byte may be above 0x80.
std::uint64_t nonZeroBytes(std::uint64_t eight) {
    return (eight + 0x7F * kEachByte) & kHighBits;
}

// The characters must be ASCII. The product gathers the eight marks in its top byte, the first
// character's uppermost.
std::uint8_t flagsOf(std::uint64_t characters) {
    const std::uint64_t marks = ~nonZeroBytes(characters ^ ('1' * kEachByte)) & kHighBits;
    return static_cast<std::uint8_t>(((marks >> 7) * 0x8040201008040201) >> 56);
}

std::uint64_t charactersOf(std::uint8_t flags) {
    const std::uint64_t bits = (flags * kEachByte) & 0x0102040810204080;
    return '0' * kEachByte + (nonZeroBytes(bits) >> 7);
}

// Where the delimiter's bytes are searched: up to the last stretch that is tried.
std::string_view searchedPart(std::string_view buffer, std::uint32_t positions, std::size_t width) {
    return buffer.substr(0, std::size_t{positions} + width - 1);
}

std::size_t positionOf(std::string_view delimiter, std::string_view text) {
    const void* const found = memmem(text.data(), text.size(), delimiter.data(), delimiter.size());
    if (found == nullptr) return std::string_view::npos;
    return static_cast<std::size_t>(static_cast<const char*>(found) - text.data());
}

// The first of the tried positions at which the delimiter stands, or npos.
std::size_t delimiterPosition(std::string_view buffer, std::string_view delimiter) {
    const std::size_t width = utf16Length(delimiter);
    // The last byte's position is not tried: intended. Lengths are 32 bits wide.
    const std::uint32_t positions = static_cast<std::uint32_t>(buffer.size()) - 1;
    if (positions == 0) return std::string_view::npos;
    // A stretch of `width` bytes never equals a delimiter of more bytes: intended.
    const std::size_t found = width == delimiter.size()
                                  ? positionOf(delimiter, searchedPart(buffer, positions, width))
                                  : std::string_view::npos;
    if (found == std::string_view::npos && std::size_t{positions} + width - 1 > buffer.size())
        throw std::out_of_range("okvCmnUtil: the scan for a delimiter went past the buffer's end");
    return found;
}

}  // namespace

std::optional<okv::Data> okvCmnUtil::stringToCategoryData(std::string_view text) {
    if (text.size() != kCategoryFlags) return std::nullopt;
    okv::Data packed(kCategoryBytes);
    std::uint64_t all = 0;
    for (std::size_t i = 0; i < kCategoryBytes; ++i) {
        std::uint64_t characters = 0;
        std::memcpy(&characters, text.data() + i * 8, 8);
        all |= characters;
        packed[i] = flagsOf(inOrder(characters));
    }
    if ((all & kHighBits) != 0) return std::nullopt;
    return packed;
}

std::optional<std::string> okvCmnUtil::dataToCategoryString(const okv::Data& data) {
    if (data.size() != kCategoryBytes) return std::nullopt;
    std::string text(kCategoryFlags, '0');
    for (std::size_t i = 0; i < kCategoryBytes; ++i) {
        const std::uint64_t characters = inOrder(charactersOf(data[i]));
        std::memcpy(text.data() + i * 8, &characters, 8);
    }
    return text;
}

bool okvCmnUtil::subData_size_dstData(okv::Data& buffer, std::uint32_t size, okv::Data& dstData) {
    const auto length = static_cast<std::uint32_t>(buffer.size());
    if (size == 0 || size > length) return false;
    okv::Data piece = buffer.sub(0, size);
    buffer.cutFront(size);
    dstData = std::move(piece);
    return true;
}

std::optional<okv::Data> okvCmnUtil::subDataToDelimiter_delimiter(okv::Data& buffer,
                                                                  std::string_view delimiter) {
    if (delimiter.empty() || buffer.empty()) return std::nullopt;
    const std::size_t position = delimiterPosition(buffer.text(), delimiter);
    if (position == std::string_view::npos) return std::nullopt;
    okv::Data piece = buffer.sub(0, position);
    buffer.cutFront(position + delimiter.size());
    return piece;
}

// ---- Identifier prefixes and localisation ----

namespace {

std::optional<std::string> owned(std::optional<std::string_view> text) {
    if (!text) return std::nullopt;
    return std::string(*text);
}

// The text from a UTF-16 index on; none when the index is not below the text's length.
std::optional<std::string> fromUnit(std::string_view text, std::size_t index) {
    while (!text.empty()) {
        if (index == 0) return std::string(text);
        const auto character = firstCharacter(text);
        text.remove_prefix(character.bytes);
        if (index < character.units) return "\uFFFD" + std::string(text);
        index -= character.units;
    }
    return std::nullopt;
}

}  // namespace

std::optional<std::string> okvCmnUtil::addPrefix_forPrefix(std::optional<std::string_view> text,
                                                           std::optional<std::string_view> prefix) {
    if (!text || !prefix) return owned(text);
    return std::string(*prefix).append(*text);
}

std::optional<std::string> okvCmnUtil::removePrefix_forPrefix(
    std::optional<std::string_view> text, std::optional<std::string_view> prefix) {
    if (!text || text->empty()) return owned(text);
    if (!prefix || prefix->empty()) return owned(text);
    // Only the match's length counts, not its position: intended.
    const bool found = text->find(*prefix) != std::string_view::npos;
    return fromUnit(*text, found ? utf16Length(*prefix) : 0);
}

std::optional<std::string> okvCmnUtil::addPrefixUId_forPrefix(
    std::optional<std::string_view> text, std::optional<std::string_view> prefix) {
    return addPrefix_forPrefix(text, prefix);
}

std::optional<std::string> okvCmnUtil::removePrefixUId_forPrefix(
    std::optional<std::string_view> text, std::optional<std::string_view> prefix) {
    return removePrefix_forPrefix(text, prefix);
}

std::optional<std::string> okvCmnUtil::addPrefixName_forPrefix(
    std::optional<std::string_view> text, std::optional<std::string_view> prefix) {
    return addPrefix_forPrefix(text, prefix);
}

std::optional<std::string> okvCmnUtil::removePrefixName_forPrefix(
    std::optional<std::string_view> text, std::optional<std::string_view> prefix) {
    return removePrefix_forPrefix(text, prefix);
}

std::optional<std::string> okvCmnUtil::localizedString_key(const okv::Bundle* bundle,
                                                           std::string_view key) {
    if (bundle != nullptr) return bundle->localizedString(key);
    const auto mainBundle = okv::Bundle::mainBundle();
    if (!mainBundle) return std::nullopt;
    return mainBundle->localizedString(key);
}

// ---- Installation layout, file information and user agent ----

namespace {

constexpr std::string_view kProductToken = "okvara/6.0";

std::string underRoot(std::string_view name) {
    return std::string(kInstallationRoot).append(name);
}

std::string systemToken() {
    // A failed query is not told: the code stays 0.
    const std::uint32_t version = okv::systemVersion().value_or(0);
    std::array<char, 16> text{};
    std::snprintf(text.data(), text.size(), "mac(%x)", version);
    return text.data();
}

}  // namespace

std::string okvCmnUtil::appBinPath() {
    return underRoot("bin") + "/";
}

std::string okvCmnUtil::appFrameworkPath() {
    return underRoot("Frameworks") + "/";
}

std::string okvCmnUtil::appLogPath() {
    return underRoot("log") + "/";
}

std::string okvCmnUtil::appConfPath() {
    return underRoot("conf") + "/";
}

std::string okvCmnUtil::appReportPath() {
    return underRoot("report") + "/";
}

std::string okvCmnUtil::nkeFilterPath() {
    // The one path that is built on another operation.
    return appBinPath() + "nrsockfilter.kext";
}

std::string okvCmnUtil::nkeControllerPath() {
    return underRoot("bin/sockfilterController.app");
}

std::string okvCmnUtil::okvServicePath() {
    return underRoot("bin/OKVService.app");
}

std::string okvCmnUtil::dataCenterPath() {
    return underRoot("bin/OKVDataCenter.app");
}

std::string okvCmnUtil::hammerPath() {
    return underRoot("bin/OKVHammer.app");
}

std::string okvCmnUtil::settingGUIPath() {
    return underRoot("bin/OKVGUIController.app");
}

std::string okvCmnUtil::updaterPath() {
    return underRoot("bin/OKVUpdater.app");
}

std::string okvCmnUtil::formPath() {
    return underRoot("form");
}

std::string okvCmnUtil::filterPath() {
    return underRoot("filterdata");
}

bool okvCmnUtil::isAppPath(std::string_view path) {
    return okv::directoryExistsAtPath(path);
}

std::optional<okv::Dictionary> okvCmnUtil::fileInfo(std::string_view path) {
    if (!okv::fileExistsAtPath(path)) return std::nullopt;
    return okv::fileAttributesAtPath(path, true);
}

std::uint64_t okvCmnUtil::fileSize(std::string_view path) {
    const auto info = fileInfo(path);
    if (!info) return 0;
    return static_cast<std::uint64_t>((*info)["NSFileSize"].longLongValue());
}

std::string okvCmnUtil::macUserAgentShort() {
    return std::string(kProductToken);
}

std::string okvCmnUtil::macUserAgent(std::optional<std::string_view> middlePart) {
    std::string text(kProductToken);
    text.append("; ").append(middlePart.value_or(kMissingObjectText));
    return text.append("; ").append(systemToken());
}

// ---- Published connections and bulk release ----

okv::Ref<okv::Publication> okvCmnUtil::rootObject_registerName_timeout_delegate(
    const okv::RootObject& rootObject, std::string_view name, double timeout,
    okv::PublicationDelegate* delegate) {
    if (rootObject.handler == nullptr) return nullptr;
    if (timeout <= 0.0) return nullptr;  // exactly this comparison: a NaN goes on
    std::string why;
    auto publication = okv::Publication::publish(name, rootObject, {}, why);
    if (!publication) return nullptr;
    publication->setRequestTimeout(timeout);
    publication->setReplyTimeout(timeout);
    publication->setDelegate(delegate);
    return publication;
}

void okvCmnUtil::unregisterName(okv::Ref<okv::Publication> connection) {
    if (connection) connection->invalidate();
}

bool okvCmnUtil::existRegisteredName(std::string_view name) {
    return okv::connectToName(name).socket.isValid();
}

void okvCmnUtil::releaseNSMutableArray(okv::ObjectArray* array) {
    if (array == nullptr) return;
    const auto walked = array->elements;
    for (std::size_t i = 0; i < walked.size(); ++i) {
        // Releasing an element may run code that reaches the array.
        if (array->elements.size() != walked.size() || array->elements[i] != walked[i])
            throw std::logic_error("the array was changed while it was walked");
        if (walked[i] != nullptr) walked[i]->release();
    }
    array->release();
}

void okvCmnUtil::forceRelease(okv::Object* object) {
    if (object == nullptr) return;
    for (;;) {
        const auto count = object->retainCount();
        if (count == 0) return;
        object->release();
        if (count == 1) return;
    }
}

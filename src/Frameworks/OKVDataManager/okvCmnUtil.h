#pragma once

#include <OKVPlatform/Export.h>
#include <OKVPlatform/ipc/Publication.h>
#include <OKVPlatform/process/ProcessManager.h>
#include <OKVPlatform/system/Bundle.h>
#include <OKVPlatform/system/Calendar.h>
#include <OKVPlatform/values/Object.h>
#include <OKVPlatform/values/Value.h>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

/// The suite's toolbox: class operations only, no state. Every operation may be called from any
/// thread.
class OKV_EXPORT okvCmnUtil final : public okv::Object {
public:
    okvCmnUtil() = delete;

    // ---- Maintenance settings and log switches ----

    // Every call reads the maintenance file afresh, so that an edit takes effect at once: who logs
    // often asks once and keeps the answer. It is a property list, binary, XML or old-style text:
    //
    //     /Library/Application Support/NRM/okv6/jp.nrm.okv6.mainte.plist
    //
    // A missing, unreadable or malformed file, a root that is no dictionary and a missing key
    // silently give the default. A value of another kind reads as its `intValue` or `boolValue`
    // (see okv::Value); of a text, both pass over leading blanks, tabs and line ends and one sign:
    // "+1" and "-1" are YES, "-0" is NO.

    /// The whole file, or none.
    static std::optional<okv::Dictionary> loadMainteInfo();
    /// "logLevel": the level that the suite's processes log at; 10 unless told otherwise.
    static int logLevel();
    /// "nkeLog": the kernel extension's log; NO unless told otherwise, as the two below.
    static bool isNkeLog();
    /// "arsLog": the log of the ARS client.
    static bool isARSLog();
    /// "devmode": the developers' log.
    static bool isDevModeLog();

    // ---- Date and time ----

    // The four formatters write an instant (`baseDate`; the present one when there is none) in the
    // zone that an abbreviation such as "JST" stands for. An abbreviation that is not known, or an
    // empty one, is no error: the local zone is used. An instant that is not a finite number or not
    // in the years 1 to 9999 has no text: "(null)" is written, as for any missing object.

    /// "2010/02/01 00:30:00"
    static std::string nowDate_baseDate(std::string_view abbreviation,
                                        std::optional<okv::Date> baseDate);
    /// "20100201"
    static std::string nowDateOnly_baseDate(std::string_view abbreviation,
                                            std::optional<okv::Date> baseDate);
    /// "2010/02/01"
    static std::string nowDateOnlySlash_baseDate(std::string_view abbreviation,
                                                 std::optional<okv::Date> baseDate);
    /// "00:30:00"
    static std::string nowTime_baseDate(std::string_view abbreviation,
                                        std::optional<okv::Date> baseDate);

    /// Seconds since 1970-01-01 00:00:00 UTC as "1970/01/01 09:00:00" in Japan Standard Time; none
    /// when they are not a finite number or not in the years 1 to 9999.
    static std::optional<std::string> descriptionWithTimeIntervalSince1970(double seconds);

    /// The calendar date in Japan Standard Time of an instant, or of the present one; none as
    /// above.
    static std::optional<okv::CalendarDate> baseDateJST(std::optional<okv::Date> date);

    /// The user's calendar with its zone set to Japan Standard Time: a copy of the caller's own.
    static okv::Calendar baseCalJST();

    // The two parsers read in the *local* zone, not in Japan Standard Time; that is intended. The
    // text must have exactly the told number of characters (UTF-16 units), else there is no date.
    // Characters that are not digits are not refused: a field reads as its `intValue`, which is its
    // leading digits after blanks and one sign, 0 when there are none, and the calendar rolls over
    // what is out of range (month 13 is the next January, month 0 the December before, day 0 the
    // last day of the month before).

    /// "201003": the first instant of 1 March 2010.
    static std::optional<okv::Date> createDateFromyyyymm(std::string_view text);
    /// "20100315": the first instant of 15 March 2010. A day without a midnight begins later.
    static std::optional<okv::Date> createDateFromyyyymmdd(std::string_view text);

    // ---- Process inspection ----

    /// This process's id.
    static std::int32_t processID();

    /// This process's name: the last component of the path it was started under.
    static std::string processName();

    /// The login name of the account that runs this process (its real user id); empty when that
    /// account has none.
    static std::string processUserName();

    /// Whether a process of `processList` has both this "CFBundleName" and this
    /// "CFBundleIdentifier"; the calling process counts too. An empty `name` stands for
    /// `processName`. An empty identifier answers false.
    static bool launchMutexCheck_BundleIdentifer(std::string_view name,
                                                 std::string_view bundleIdentifier);

    /// The first record of `processListBSD` with this "pid"; none when there is none. (Process id 0
    /// finds the record past the last, see there.)
    static std::optional<okv::Dictionary> processInfoBSD(std::int32_t pid);

    /// One record for each process of the kernel's table, and one more, zero-filled, at the end:
    /// "pid", "uid", "gid" (the real ones, as 32-bit numbers with a sign), "CFBundleName" (the
    /// command name, at most 16 bytes as the kernel keeps them, not always UTF-8), "parentpid" and
    /// "BundlePath" (what `getPathName` answers, formatted). Only the zero-filled record when the
    /// table cannot be read.
    static okv::Array processListBSD();

    /// One dictionary for each running application, as `okv::ProcessManager` makes it: the keys of
    /// its Info.plist, "pid" and "BundlePath". Applications without a readable Info.plist are left
    /// out.
    static okv::Array processList();

    // ---- Launching and quitting applications ----

    /// `sendQuitAppleEvent` to the process with this id. 0 also when no such process runs.
    static std::int32_t sendQuitAppleEventForPid(std::int32_t pid);

    /// Asks an application to quit and waits for its answer, at most 500/60 of a second.
    /// Answers 0 when it accepted (or `psn` is null), the error number it replied, -600 when the
    /// process does not listen for the request, or the negative status of a failed sending (-42
    /// when this process has no descriptors left to send it with).
    static std::int32_t sendQuitAppleEvent(const okv::ProcessSerialNumber* psn);

    /// Sends SIGTERM to the process, up to 5 times until the sending succeeds, then SIGKILL when it
    /// never did. Answers whether a signal was sent; does not wait for the process to end. Process
    /// id 0 answers true and signals nothing; a process that does not exist or may not be signalled
    /// answers false, as does a negative id.
    static bool quitProcesss(std::int32_t pid);

    /// Runs the executable at `path` with `arguments` (strings) in the folder `workPath`; where
    /// nothing exists there, in `appBinPath`; where nothing exists there either, in "/tmp". With
    /// `sync`, waits until it ends. Puts its process id into `*processId`, which must be valid.
    ///
    /// Answers false, `*processId` untouched, when `path` is empty or nothing exists there. Throws
    /// `okv::TaskError` when the system refuses the launch, `*processId` untouched.
    ///
    /// The process's standard error goes into a pipe that nobody reads: intended; a process that
    /// writes more than 64 KiB there blocks.
    static bool launchApp_argument_sync_workPath_processId(std::string_view path,
                                                           const okv::Array& arguments, bool sync,
                                                           std::string_view workPath,
                                                           std::int32_t* processId);

    // ---- Category data and byte buffers ----

    /// Packs 128 flags, one ASCII character each, into 16 bytes: flag i is the bit 0x80 >> (i % 8)
    /// of byte i / 8. Only "1" sets a flag, every other character clears it. None when the text is
    /// not ASCII or not exactly 128 characters long.
    static std::optional<okv::Data> stringToCategoryData(std::string_view text);

    /// The 128 characters "1" and "0" for 16 bytes; none when there are not exactly 16.
    static std::optional<std::string> dataToCategoryString(const okv::Data& data);

    /// Moves the first `size` bytes of the buffer into `dstData`. NO, with both left untouched,
    /// when the size is 0 or above the buffer's length, which is taken as 32 bits.
    static bool subData_size_dstData(okv::Data& buffer, std::uint32_t size, okv::Data& dstData);

    /// Cuts off and answers what stands before the first delimiter, which is dropped; none, with
    /// the buffer left unchanged, when the delimiter is empty or not found.
    ///
    /// Three oddities are intended. The last byte position is never tried: a one-byte delimiter
    /// that is the buffer's final byte is not found. The compared stretch is as many bytes wide as
    /// the delimiter has characters (UTF-16 units): a delimiter that is not ASCII never matches.
    /// A delimiter of three or more characters that is not found in a buffer of two or more bytes
    /// throws std::out_of_range, the buffer left unchanged.
    ///
    /// Cutting a buffer into pieces takes time in proportion to its length in total.
    static std::optional<okv::Data> subDataToDelimiter_delimiter(okv::Data& buffer,
                                                                 std::string_view delimiter);

    // ---- Identifier prefixes and localisation ----

    /// The prefix, then the text; the text itself when either is missing. A prefix that is already
    /// there is put there again.
    static std::optional<std::string> addPrefix_forPrefix(std::optional<std::string_view> text,
                                                          std::optional<std::string_view> prefix);

    /// The text without as many leading characters (UTF-16 units) as the prefix has, if the prefix
    /// occurs in it.
    ///
    /// Intended as it is: it does not matter *where* the prefix occurs ("xxAB" without "AB" is
    /// "AB"), and a text that would lose all its characters gives none, not "". A missing text
    /// stays missing; an empty text, or a missing or empty prefix, gives the text unchanged. Of a
    /// character beyond U+FFFF that is cut in two, U+FFFD remains.
    static std::optional<std::string> removePrefix_forPrefix(
        std::optional<std::string_view> text, std::optional<std::string_view> prefix);

    /// As `addPrefix_forPrefix`: user ids have no rule of their own.
    static std::optional<std::string> addPrefixUId_forPrefix(
        std::optional<std::string_view> text, std::optional<std::string_view> prefix);
    /// As `removePrefix_forPrefix`: user ids have no rule of their own.
    static std::optional<std::string> removePrefixUId_forPrefix(
        std::optional<std::string_view> text, std::optional<std::string_view> prefix);
    /// As `addPrefix_forPrefix`: names have no rule of their own.
    static std::optional<std::string> addPrefixName_forPrefix(
        std::optional<std::string_view> text, std::optional<std::string_view> prefix);
    /// As `removePrefix_forPrefix`: names have no rule of their own.
    static std::optional<std::string> removePrefixName_forPrefix(
        std::optional<std::string_view> text, std::optional<std::string_view> prefix);

    /// The bundle's text for the key in the user's language, the key itself when it has none. No
    /// bundle stands for the main bundle of the process; none when there is no such either.
    static std::optional<std::string> localizedString_key(const okv::Bundle* bundle,
                                                          std::string_view key);

    // ---- Installation layout, file information and user agent ----

    // Where the suite is installed, fixed when it is built. The trailing slashes differ on
    // purpose: the five folders have one, everything else has none.

    /// ".../okv6/bin/"
    static std::string appBinPath();
    /// ".../okv6/Frameworks/"
    static std::string appFrameworkPath();
    /// ".../okv6/log/"
    static std::string appLogPath();
    /// ".../okv6/conf/"
    static std::string appConfPath();
    /// ".../okv6/report/"
    static std::string appReportPath();
    /// ".../okv6/bin/nrsockfilter.kext"
    static std::string nkeFilterPath();
    /// ".../okv6/bin/sockfilterController.app"
    static std::string nkeControllerPath();
    /// ".../okv6/bin/OKVService.app"
    static std::string okvServicePath();
    /// ".../okv6/bin/OKVDataCenter.app"
    static std::string dataCenterPath();
    /// ".../okv6/bin/OKVHammer.app"
    static std::string hammerPath();
    /// ".../okv6/bin/OKVGUIController.app"
    static std::string settingGUIPath();
    /// ".../okv6/bin/OKVUpdater.app"
    static std::string updaterPath();
    /// ".../okv6/form"
    static std::string formPath();
    /// ".../okv6/filterdata"
    static std::string filterPath();

    /// Whether a directory is at the path, links followed: an application bundle is one.
    static bool isAppPath(std::string_view path);

    /// The file's attributes, a link at the path's end followed to its target (see
    /// okv::fileAttributesAtPath for the keys); none when nothing exists there.
    static std::optional<okv::Dictionary> fileInfo(std::string_view path);

    /// The file's size in bytes, links followed; 0 when it is empty and when it is missing.
    static std::uint64_t fileSize(std::string_view path);

    /// "okvara/6.0"
    static std::string macUserAgentShort();

    /// "okvara/6.0; MIDDLE; mac(VERSION)". The version is the running kernel's code in hexadecimal,
    /// (major << 16) + (minor << 8) + patch, 0 when it cannot be found out. A missing middle part
    /// is written as "(null)".
    static std::string macUserAgent(std::optional<std::string_view> middlePart);

    // ---- Published connections and bulk release ----

    /// Publishes a root object under a registered name, on the calling thread's run loop (requests
    /// are served while that runs). `timeout`, in seconds, is kept as request and reply time-out;
    /// it must not be 0 or less. A NaN is not less than anything and goes on: intended. The
    /// delegate, where given, is asked about new connections; it is not retained. Null on every
    /// failure: no root object, no name, a name that is taken or cannot be had, no descriptors
    /// left; then no name and no connection is left behind.
    static okv::Ref<okv::Publication> rootObject_registerName_timeout_delegate(
        const okv::RootObject& rootObject, std::string_view name, double timeout,
        okv::PublicationDelegate* delegate);
    /// Withdraws the name, closes the connections, and gives up the reference that is handed in.
    /// Nothing for null.
    static void unregisterName(okv::Ref<okv::Publication> connection);
    /// Whether a connection to the name can be made; nothing is sent over it.
    static bool existRegisteredName(std::string_view name);
    /// Gives up one reference of each element and one of the array itself. Nothing for null. Throws
    /// std::logic_error when the array changes during the walk.
    static void releaseNSMutableArray(okv::ObjectArray* array);
    /// Releases the object as often as its count says, whoever else still holds it: intended. The
    /// caller must hold no pointer to it afterwards. Nothing for null.
    static void forceRelease(okv::Object* object);
};

/// The path of a process's executable by the kernel's process table, allocated with `malloc` for
/// the caller to free; null when there is none. The request it makes is one that the table refuses
/// (a name of 16 components), so it answers null for every process: intended, and relied on by
/// `okvCmnUtil::processListBSD`.
extern "C" OKV_EXPORT char* getPathName(int pid);

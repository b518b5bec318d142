#pragma once

#include <OKVPlatform/Export.h>
#include <OKVPlatform/values/Value.h>

#include <optional>
#include <string_view>

namespace okv {

/// Whether something exists at a path, links followed: a link to nothing does not count, nor does
/// what may not be looked at, an empty path or one with a NUL inside. Any thread, as all here.
OKV_EXPORT bool fileExistsAtPath(std::string_view path);

/// Whether a directory exists at a path, links followed.
OKV_EXPORT bool directoryExistsAtPath(std::string_view path);

/// The attributes of what is at a path, or none when there is nothing. A link at the path's end is
/// followed to its target when `traverseLink` says so, else it is described itself.
///
/// Keys: "NSFileType" ("NSFileTypeRegular", "...Directory", "...SymbolicLink", "...Socket",
/// "...CharacterSpecial", "...BlockSpecial", "...Unknown"), "NSFileSize" (bytes),
/// "NSFileModificationDate", "NSFileCreationDate" (where the file system keeps it),
/// "NSFileReferenceCount", "NSFilePosixPermissions" (the mode's twelve lowest bits),
/// "NSFileOwnerAccountID", "NSFileGroupOwnerAccountID", "NSFileOwnerAccountName" and
/// "NSFileGroupOwnerAccountName" (where the account is known), "NSFileSystemNumber",
/// "NSFileSystemFileNumber" (the inode).
OKV_EXPORT std::optional<Dictionary> fileAttributesAtPath(std::string_view path, bool traverseLink);

}  // namespace okv

#pragma once

#include "History.h"

namespace killing {

struct Fault {
    enum class Kind {
        gap,         ///< a revision that nobody was told of
        duplicate,   ///< a revision that stands for two changes
        lost,        ///< an acknowledged change that is not there
        torn,        ///< a change of which only a part is there
        phantom,     ///< a change that nobody made, or that was said not to have been sent
        disordered,  ///< a change with a lower revision than one that was acknowledged before it
                     ///< began
        stale,       ///< a watcher whose picture is not what there is
        unfinished,  ///< nothing to compare with
    };
    Kind kind;
    std::string what;
};
const char* nameOf(Fault::Kind kind);

/// What is wrong with the history; nothing when it can have been made by a server that loses
/// nothing that it acknowledged, carries out every change wholly or not at all, numbers them
/// without gaps, and tells all of them. At most so many faults are told.
///
/// It goes by this: the keys of a change tell which write it was, because each write has a key of
/// its own writer alone, with its number in the key or one of few that the writer takes in turn.
std::vector<Fault> check(const History& history, std::size_t atMost = 20);

/// Such keys: "m3.17" of the 17th write of writer 3, and "o3.1", which it uses in turn.
std::string keyOfWrite(int writer, std::int64_t number);
std::string ownKey(int writer, std::int64_t number);

}  // namespace killing

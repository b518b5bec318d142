#pragma once

#include "../Verb.h"

// The verbs, each in the file of its name; the table is in Verbs.cpp.
namespace okvctl {

extern const Verb kCategory;
extern const Verb kClock;
extern const Verb kComplete;
extern const Verb kCompletions;
extern const Verb kDescribe;
extern const Verb kDoctor;
extern const Verb kExport;
extern const Verb kGet;
extern const Verb kImport;
extern const Verb kList;
extern const Verb kLists;
extern const Verb kLock;
extern const Verb kLocks;
extern const Verb kPing;
extern const Verb kProcs;
extern const Verb kPs;
extern const Verb kQuit;
extern const Verb kSet;
extern const Verb kStatus;
extern const Verb kUnlock;
extern const Verb kUnset;
extern const Verb kUrls;
extern const Verb kUsers;
extern const Verb kWatch;

}  // namespace okvctl

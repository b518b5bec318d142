#pragma once

#include "Board.h"

#include <cstdint>
#include <string>
#include <vector>

namespace soak {

/// When things happen, in seconds since the start.
struct Schedule {
    double total;
    double settle;        ///< until then nothing is judged; growth is allowed
    double restartEvery;  ///< the server
    double sampleEvery;

    /// Of an hour: 5 minutes, 5 minutes, 10 seconds; shorter runs have the same parts.
    static Schedule of(double total);
};

/// What a process, or the files, took at one moment.
struct Sample {
    double at = 0;
    std::int64_t bytes = 0;  ///< of a process: memory that is its own; of files: their sizes
    std::int64_t descriptors = 0;
    std::int64_t threads = 0;
};

struct Series {
    std::string name;
    std::vector<Sample> samples;
};

/// How much more than before is no growth.
struct Tolerance {
    double bytes = 2 << 20;      ///< this
    double shareOfBytes = 0.05;  ///< or this, whichever is more
    std::int64_t descriptors = 2;
    std::int64_t threads = 0;
    bool judgesBytes = true;
};

/// One comparison of a later stretch of time with an earlier one.
struct Finding {
    std::string name;
    const char* measure;
    double before = 0, after = 0, limit = 0;
    bool isBreach() const { return after > limit; }
};

/// What was compared, and what could not be: what is not judged is not kept either.
struct Judgement {
    std::vector<Finding> findings;
    std::vector<std::string> unjudged;  ///< of what there were too few samples

    bool hasBreach() const;
    void add(Judgement other);
};

/// A stretch of time with fewer samples tells nothing.
inline constexpr std::size_t kFewestSamples = 4;
/// In a shorter time nothing settles: the server has hardly met all its clients.
inline constexpr double kShortestSettling = 2;

/// Of what lives from the start to the end: the second half of the time, beside the stretch that
/// is as long as the settling and follows it. Memory by medians, counts by maxima.
Judgement judgeLasting(const Series& series, const Schedule& schedule, const Tolerance& tolerance);

/// A server that served shorter than this is still growing into its work.
inline constexpr double kShortLife = 60;
/// Of the server, which is another process after every restart, its lives in order; the first is
/// its settling. Each by itself, where it is no short one: the last quarter of a life beside its
/// second; and beside one another: the second half of every life from the third on, beside that of
/// the second. A life of too few samples is passed over; the server is judged when two lives could
/// be put beside one another.
Judgement judgeLives(const std::vector<Series>& lives, const Tolerance& tolerance);

/// From the signal that ended the server until the next one served.
struct Outage {
    double signalled, ready;
};
/// How long after an outage a client may still fail because of it. It concerns those that try for a
/// while before they answer that they failed; a failed call that began after the outage is none of
/// those.
inline constexpr double kGiveUpWithin = 4;

/// Whether the failure is the consequence of an outage: the call was under way at some moment of
/// it.
bool isConsequence(const Failure& failure, const std::vector<Outage>& outages);

/// What a run comes to: the program's exit code, in which 2 stands for a wrong call of it.
enum class Verdict { kept = 0, broken = 1, notJudged = 3 };
/// What broke is told whether or not the rest could be judged.
Verdict verdictOf(bool isBroken, const std::vector<std::string>& unjudged);
const char* textOf(Verdict verdict);

}  // namespace soak

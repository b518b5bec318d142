#include "Verdict.h"

#include <algorithm>

namespace soak {

namespace {

constexpr double kLongest = 300;

using Samples = std::vector<Sample>;

Samples between(const Samples& samples, double from, double to) {
    Samples found;
    std::copy_if(samples.begin(), samples.end(), std::back_inserter(found),
                 [=](const Sample& sample) { return sample.at >= from && sample.at < to; });
    return found;
}

// The stretch of a life between two shares of it.
Samples stretch(const Samples& life, double from, double to) {
    const auto start = life.front().at, length = life.back().at - life.front().at;
    return between(life, start + from * length, start + to * length + (to == 1 ? 1e-6 : 0));
}

double medianOf(const Samples& samples, std::int64_t Sample::*measure) {
    if (samples.empty()) return 0;
    std::vector<std::int64_t> values;
    for (const auto& sample : samples) values.push_back(sample.*measure);
    const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
    std::nth_element(values.begin(), middle, values.end());
    return static_cast<double>(*middle);
}

double maximumOf(const Samples& samples, std::int64_t Sample::*measure) {
    double most = 0;
    for (const auto& sample : samples) most = std::max(most, static_cast<double>(sample.*measure));
    return most;
}

void compare(const std::string& name, const Samples& before, const Samples& after,
             const Tolerance& tolerance, std::vector<Finding>& findings) {
    const auto counted = [&](const char* what, std::int64_t Sample::*measure, std::int64_t more) {
        const auto most = maximumOf(before, measure);
        if (most == 0 && maximumOf(after, measure) == 0) return;
        findings.push_back(
            {name, what, most, maximumOf(after, measure), most + static_cast<double>(more)});
    };
    if (tolerance.judgesBytes) {
        const auto usual = medianOf(before, &Sample::bytes);
        const auto more = std::max(tolerance.bytes, tolerance.shareOfBytes * usual);
        findings.push_back({name, "bytes", usual, medianOf(after, &Sample::bytes), usual + more});
    }
    counted("descriptors", &Sample::descriptors, tolerance.descriptors);
    counted("threads", &Sample::threads, tolerance.threads);
}

}  // namespace

Schedule Schedule::of(double total) {
    const auto part = std::min(kLongest, total / 6);
    return {total, part, part, part / 30};
}

bool Judgement::hasBreach() const {
    return std::any_of(findings.begin(), findings.end(),
                       [](const Finding& finding) { return finding.isBreach(); });
}

void Judgement::add(Judgement other) {
    std::move(other.findings.begin(), other.findings.end(), std::back_inserter(findings));
    std::move(other.unjudged.begin(), other.unjudged.end(), std::back_inserter(unjudged));
}

Judgement judgeLasting(const Series& series, const Schedule& schedule, const Tolerance& tolerance) {
    const auto before = between(series.samples, schedule.settle, 2 * schedule.settle);
    const auto after = between(series.samples, schedule.total / 2, schedule.total + kLongest);
    if (before.size() < kFewestSamples || after.size() < kFewestSamples) return {{}, {series.name}};
    Judgement judgement;
    compare(series.name, before, after, tolerance, judgement.findings);
    return judgement;
}

Judgement judgeLives(const std::vector<Series>& lives, const Tolerance& tolerance) {
    Judgement judgement;
    bool isJudged = false;
    const auto hasFew = [&](std::size_t i) { return lives[i].samples.size() < kFewestSamples; };
    for (std::size_t i = 1; i < lives.size(); ++i) {
        const auto& life = lives[i].samples;
        if (hasFew(i)) continue;
        if (life.back().at - life.front().at >= kShortLife)
            compare(lives[i].name + " by itself", stretch(life, 0.25, 0.5), stretch(life, 0.75, 1),
                    tolerance, judgement.findings);
        if (i == 1 || hasFew(1)) continue;
        isJudged = true;
        compare(lives[i].name + " beside " + lives[1].name, stretch(lives[1].samples, 0.5, 1),
                stretch(life, 0.5, 1), tolerance, judgement.findings);
    }
    if (!isJudged) judgement.unjudged.emplace_back("the server");
    return judgement;
}

bool isConsequence(const Failure& failure, const std::vector<Outage>& outages) {
    if (failure.isWrong) return false;
    return std::any_of(outages.begin(), outages.end(), [&](const Outage& outage) {
        return failure.begun <= outage.ready && failure.ended >= outage.signalled &&
               failure.ended <= outage.ready + kGiveUpWithin;
    });
}

Verdict verdictOf(bool isBroken, const std::vector<std::string>& unjudged) {
    if (isBroken) return Verdict::broken;
    return unjudged.empty() ? Verdict::kept : Verdict::notJudged;
}

const char* textOf(Verdict verdict) {
    if (verdict == Verdict::kept) return "kept";
    return verdict == Verdict::broken ? "BROKEN" : "NOT JUDGED";
}

}  // namespace soak

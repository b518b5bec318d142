#include "Nearest.h"

#include <algorithm>
#include <vector>

namespace okvctl {

namespace {

constexpr std::size_t kLongestWord = 40;  // of ours; what is longer is no typo of one

}  // namespace

std::size_t distanceBetween(std::string_view a, std::string_view b) {
    std::vector<std::vector<std::size_t>> cost(a.size() + 1,
                                               std::vector<std::size_t>(b.size() + 1));
    for (std::size_t i = 0; i <= a.size(); ++i) {
        for (std::size_t j = 0; j <= b.size(); ++j) {
            if (i == 0 || j == 0) {
                cost[i][j] = i + j;
                continue;
            }
            const bool same = a[i - 1] == b[j - 1];
            cost[i][j] = std::min(
                {cost[i - 1][j] + 1, cost[i][j - 1] + 1, cost[i - 1][j - 1] + (same ? 0 : 1)});
            const bool swapped = i > 1 && j > 1 && a[i - 1] == b[j - 2] && a[i - 2] == b[j - 1];
            if (swapped) cost[i][j] = std::min(cost[i][j], cost[i - 2][j - 2] + 1);
        }
    }
    return cost[a.size()][b.size()];
}

std::string joined(std::span<const std::string_view> words, std::string_view separator) {
    std::string text;
    for (const auto word : words) text.append(text.empty() ? "" : separator).append(word);
    return text;
}

std::string noneSuch(std::string_view kind, std::string_view word,
                     std::span<const std::string_view> known) {
    std::string text("there is no ");
    text.append(kind).append(" '").append(word).append("', only ").append(joined(known));
    return text + didYouMean(word, known);
}

std::string didYouMean(std::string_view word, std::span<const std::string_view> known) {
    if (word.size() > kLongestWord) return {};
    std::string_view best;
    auto least = std::max<std::size_t>(word.size() / 2, 1) + 1;
    for (const auto each : known) {
        const auto distance = distanceBetween(word, each);
        if (distance >= least) continue;
        least = distance;
        best = each;
    }
    return best.empty() ? std::string() : "; did you mean " + std::string(best) + "?";
}

}  // namespace okvctl

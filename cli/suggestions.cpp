#include "cli/suggestions.h"

#include <algorithm>

namespace vell::cli {

namespace {
// Optimal string alignment distance: Levenshtein plus the swap of two neighbours.
size_t distance(std::string_view a, std::string_view b) {
    std::vector<std::vector<size_t>> d(a.size() + 1, std::vector<size_t>(b.size() + 1));
    for (size_t i = 0; i <= a.size(); ++i) d[i][0] = i;
    for (size_t j = 0; j <= b.size(); ++j) d[0][j] = j;
    for (size_t i = 1; i <= a.size(); ++i) {
        for (size_t j = 1; j <= b.size(); ++j) {
            const size_t cost = a[i - 1] == b[j - 1] ? 0 : 1;
            d[i][j] = std::min({d[i - 1][j] + 1, d[i][j - 1] + 1, d[i - 1][j - 1] + cost});
            if (i > 1 && j > 1 && a[i - 1] == b[j - 2] && a[i - 2] == b[j - 1]) d[i][j] = std::min(d[i][j], d[i - 2][j - 2] + 1);
        }
    }
    return d[a.size()][b.size()];
}

std::string_view bare(std::string_view word) {
    while (!word.empty() && word.front() == '-') word.remove_prefix(1);
    return word;
}
}  // namespace

std::vector<std::string> closestWords(std::string_view typed, const std::vector<std::string>& candidates) {
    // Words typed on a command line are short; anything longer is no typo of ours.
    if (typed.empty() || typed.size() > 64) return {};
    const size_t limit = bare(typed).size() <= 3 ? 1 : 2;
    size_t best = limit + 1;
    std::vector<std::string> closest;
    for (const auto& candidate : candidates) {
        const size_t d = distance(typed, candidate);
        if (d < best) best = d, closest.clear();
        if (d == best && std::find(closest.begin(), closest.end(), candidate) == closest.end()) closest.push_back(candidate);
    }
    if (!closest.empty() || bare(typed).size() < 2) return closest;
    for (const auto& candidate : candidates) {
        if (candidate.rfind(typed, 0) == 0 && candidate != typed) closest.push_back(candidate);
    }
    return closest;
}

std::string suggestionLines(std::string_view typed, const std::vector<std::string>& candidates, const Text& one, const Text& many) {
    const auto closest = closestWords(typed, candidates);
    if (closest.empty()) return {};
    std::string out = (closest.size() == 1 ? one : many).str() + "\n";
    for (const auto& word : closest) out += "\t" + word + "\n";
    return out;
}

}  // namespace vell::cli

// nearest.cpp - the edit distance between names, two swapped letters counting as one edit.
#include "nearest.h"
#include "text.h"

#include <fmt/format.h>

#include <algorithm>

namespace
{

size_t EditDistance(const std::string& a, const std::string& b)
{
    std::vector<std::vector<size_t>> cost(a.size() + 1, std::vector<size_t>(b.size() + 1));
    for (size_t i = 0; i <= a.size(); ++i)
        for (size_t j = 0; j <= b.size(); ++j) {
            if (i == 0 || j == 0) {
                cost[i][j] = i + j;
                continue;
            }
            size_t cReplace = cost[i - 1][j - 1] + (a[i - 1] != b[j - 1]);
            cost[i][j] = std::min({cost[i - 1][j] + 1, cost[i][j - 1] + 1, cReplace});
            if (i > 1 && j > 1 && a[i - 1] == b[j - 2] && a[i - 2] == b[j - 1])
                cost[i][j] = std::min(cost[i][j], cost[i - 2][j - 2] + 1);
        }
    return cost[a.size()][b.size()];
}

} // namespace

std::string DidYouMean(std::string_view mistyped, const std::vector<std::string>& names)
{
    std::string wanted = LowerCase(mistyped.substr(0, 64));
    size_t cBest = std::max<size_t>(1, wanted.size() / 3) + 1;
    const std::string* pBest = nullptr;
    for (const std::string& name : names) {
        size_t cDistance = EditDistance(wanted, LowerCase(name));
        if (cDistance < cBest && cDistance < name.size()) {
            cBest = cDistance;
            pBest = &name;
        }
    }
    return pBest ? fmt::format(" (did you mean '{}'?)", *pBest) : "";
}

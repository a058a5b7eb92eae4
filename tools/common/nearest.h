// nearest.h - "did you mean ...?"
#pragma once

#include <string>
#include <string_view>
#include <vector>

// " (did you mean 'Return'?)" for the name nearest to a mistyped one, or "" when none is near. Upper and lower
// case count as the same.
std::string DidYouMean(std::string_view mistyped, const std::vector<std::string>& names);

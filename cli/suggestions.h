#pragma once
// "Did you mean": the words a mistyped command or option most likely meant, as git
// suggests them. Main thread of a command.
#include <string>
#include <string_view>
#include <vector>

#include "base/language.h"

namespace vell::cli {

// The candidates closest to `typed` (a letter left out, added, changed or two swapped
// count one step each; at most two steps, one for short words), else those it begins.
std::vector<std::string> closestWords(std::string_view typed, const std::vector<std::string>& candidates);

// The lines after an error about `typed` that name the closest candidates, or nothing.
// `one` and `many` are the heading for a single suggestion and for several.
std::string suggestionLines(std::string_view typed, const std::vector<std::string>& candidates, const Text& one, const Text& many);

}  // namespace vell::cli

#pragma once
// Text that came from outside (a calendar, a file name, a reply) made fit for places that
// only take UTF-8: JSON, the bus, notifications. Pure functions; any thread.
#include <string>
#include <string_view>

namespace vell {

// Whether the bytes are well-formed UTF-8 (no overlong forms, surrogates or code points past
// U+10FFFF).
bool isValidUtf8(std::string_view text);

// The text with every byte that does not belong to a well-formed sequence replaced by
// U+FFFD; valid text comes back unchanged.
std::string validUtf8(std::string_view text);

}  // namespace vell

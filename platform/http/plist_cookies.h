#pragma once
// The cookie snapshot: an array of dictionaries (Name, Value, Domain, Path, Secure, Expires,
// Version) written as a binary property list.
#include <optional>
#include <string>
#include <vector>

#include "service/http_types.h"

namespace vell::plist {

std::string encodeCookies(const std::vector<http::Cookie>& cookies);
// Nothing when the bytes are not a binary property list holding an array; entries without
// a name or a domain are skipped.
std::optional<std::vector<http::Cookie>> decodeCookies(const std::string& bytes);

}  // namespace vell::plist

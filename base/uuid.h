#pragma once
#include <string>

namespace vell {
// A fresh random UUID, upper-case with hyphens ("E621E1F8-C36C-495A-93FC-0C247A3E6E5F").
std::string newUUIDString();
}  // namespace vell

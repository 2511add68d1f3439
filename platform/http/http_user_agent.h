#pragma once
#include <string>

namespace vell::http {
// "VellMac/<version> (<build>; Linux <major>.<minor>)", built once per run.
const std::string& userAgent();
// The running kernel's "<major>.<minor>", or "0.0" when it cannot be read.
std::string kernelMajorMinor();
}  // namespace vell::http

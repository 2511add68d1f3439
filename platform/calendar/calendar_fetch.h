#pragma once
// Downloads an iCalendar subscription (the "secret address" calendar services give) with
// libcurl: a conditional request (ETag / Last-Modified), a time limit, a few redirects at
// most, and a size cap. Blocks the calling thread; never call it on the main executor.
#include <string>

#include "base/expected.h"

namespace vell::calendar {

struct FetchedCalendar {
    bool notModified = false;  // 304: the cached copy is current
    std::string body;
    std::string etag, lastModified;
};

struct FetchValidators {
    std::string etag, lastModified;
};

inline constexpr double kFetchTimeoutSeconds = 30;
inline constexpr long kMaximumRedirects = 5;

// The error is a sentence for the user ("HTTP 404", "too many redirects", "not a calendar").
Expected<FetchedCalendar, std::string> fetchCalendar(const std::string& url, const FetchValidators& validators,
                                                     double timeoutSeconds = kFetchTimeoutSeconds);

}  // namespace vell::calendar

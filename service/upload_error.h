#pragma once
// Why an upload ended: an answer (or silence) of the service, or the local file.
#include <optional>
#include <string>
#include <system_error>

#include "service/api_error.h"

namespace vell::service {

struct UploadError {
    std::optional<APIError> api;  // set for service and network failures
    std::error_code file;         // set when the recording could not be read
    bool writingBody = false;     // the file error came from the temporary request body

    UploadError(APIError e) : api(std::move(e)) {}  // NOLINT: an API error is an upload error
    static UploadError fileError(std::error_code code, bool writingBody = false);

    std::string description(Language language) const;
    std::string description() const { return description(interfaceLanguage()); }
    std::string descriptionWithCause() const { return api ? api->descriptionWithCause() : description(); }
    bool isNetwork() const { return api && api->isNetwork(); }
    bool isUnauthenticated() const { return api && api->kind == APIError::Kind::unauthenticated; }

private:
    UploadError() = default;
};

}  // namespace vell::service

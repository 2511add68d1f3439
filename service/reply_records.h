#pragma once
// The service's replies read as whole records: every key a record knows must, when present
// and not null, have the record's type, and every required key must be there; otherwise the
// whole reply counts as absent. A reply is never read partly (one mistyped field must not
// turn a server error into another message).
#include <optional>
#include <string>

#include "service/api_client.h"

namespace vell::service {

// What the service sends with an error status.
struct ErrorBody {
    std::optional<bool> ok;
    std::optional<std::string> error;    // machine code, e.g. "invalid_credentials"
    std::optional<std::string> message;  // a ready sentence for the user
};
std::optional<ErrorBody> decodeErrorBody(const std::string& body);

// Answer to the start of a resumable upload.
struct ResumableStart {
    std::string uploadId;
    long long bytesReceived = 0;
    std::optional<std::string> status;
    std::optional<std::string> recordingId;
};
std::optional<ResumableStart> decodeResumableStart(const Json& reply);

// Answer to one part, whatever its status.
struct ResumablePart {
    std::optional<long long> bytesReceived;
    std::optional<std::string> recordingId;
    std::optional<std::string> error;
};
std::optional<ResumablePart> decodeResumablePart(const std::string& body);

// {"id": text}: what finalize and the multipart upload answer.
std::optional<std::string> decodeCreatedID(const Json& reply);

}  // namespace vell::service

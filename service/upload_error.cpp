#include "service/upload_error.h"

#include "service/upload_messages.h"

namespace vell::service {

UploadError UploadError::fileError(std::error_code code, bool writingBody) {
    UploadError e;
    e.file = code;
    e.writingBody = writingBody;
    return e;
}

std::string UploadError::description(Language language) const {
    if (api) return api->description(language);
    auto prefix = writingBody ? messages::kCannotWriteUploadBody : messages::kCannotReadRecording;
    return prefix.in(language) + file.message() + ".";
}

}  // namespace vell::service

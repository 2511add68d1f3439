#pragma once
// The error values of the service client, each with one sentence in the interface language.
#include <optional>
#include <string>

#include "base/language.h"

namespace vell::service {

struct APIError {
    enum class Kind { http, decoding, transport, unauthenticated };

    Kind kind = Kind::decoding;
    int status = 0;                      // http
    std::optional<std::string> code;     // http: the service's machine code ("error")
    std::optional<std::string> message;  // http: the service's ready sentence ("message")
    std::string detail;                  // decoding: what failed; transport: the cause
    bool noConnection = false;           // transport: the host could not be reached at all
    int transportCode = 0;               // transport: the HTTP library's error number

    static APIError http(int status, std::optional<std::string> code, std::optional<std::string> message);
    static APIError decoding(std::string what);
    static APIError transport(int transportCode, std::string description, bool noConnection);
    static APIError unauthenticated();

    // The user-facing sentence (English or Spanish).
    std::string description(Language language) const;
    std::string description() const { return description(interfaceLanguage()); }
    // The sentence, and for a network failure the system's own account of it (the address
    // and the reason), for the command line, where the user can act on it.
    std::string descriptionWithCause() const;
    // Connectivity failures: the menu says it waits for a connection instead of an error.
    bool isNetwork() const { return kind == Kind::transport; }
    // A rejected session: 401, any redirect, or the "unauthorized" code.
    bool isSessionRejection() const;
};

}  // namespace vell::service

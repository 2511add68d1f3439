#include "service/api_error.h"

#include <array>
#include <utility>

namespace vell::service {

namespace {
struct CodeText {
    std::string_view code;
    Text text;
};

constexpr std::array kCodeTable = {
    CodeText{"invalid_credentials", {"Wrong email or password.", "Email o contraseña incorrectos."}},
    CodeText{"missing_fields", {"Missing fields.", "Faltan datos."}},
    CodeText{"invalid_code", {"Invalid code.", "Código inválido."}},
    CodeText{"invalid_backup_code", {"Invalid backup code.", "Código de respaldo inválido."}},
    CodeText{"no_pending_mfa", {"Verification expired. Sign in again.", "La verificación expiró. Volvé a iniciar sesión."}},
    CodeText{"unauthorized", {"Invalid session.", "Sesión no válida."}},
    CodeText{"too_long", {"This part is too long.", "Esta parte es demasiado larga."}},
    CodeText{"transcribe_failed", {"Transcription failed. Try again.", "Falló la transcripción. Reintentá."}},
    CodeText{"transcription_in_progress",
             {"A transcription is still running. Try again shortly.",
              "Todavía hay una transcripción en curso. Reintentá en unos segundos."}},
};

bool present(const std::optional<std::string>& s) { return s && !s->empty(); }
}  // namespace

APIError APIError::http(int status, std::optional<std::string> code, std::optional<std::string> message) {
    APIError e;
    e.kind = Kind::http;
    e.status = status;
    e.code = std::move(code);
    e.message = std::move(message);
    return e;
}

APIError APIError::decoding(std::string what) {
    APIError e;
    e.kind = Kind::decoding;
    e.detail = std::move(what);
    return e;
}

APIError APIError::transport(int transportCode, std::string description, bool noConnection) {
    APIError e;
    e.kind = Kind::transport;
    e.transportCode = transportCode;
    e.detail = std::move(description);
    e.noConnection = noConnection;
    return e;
}

APIError APIError::unauthenticated() {
    APIError e;
    e.kind = Kind::unauthenticated;
    return e;
}

bool APIError::isSessionRejection() const {
    return kind == Kind::unauthenticated || (kind == Kind::http && (status == 401 || code == "unauthorized"));
}

std::string APIError::description(Language language) const {
    switch (kind) {
        case Kind::http: {
            if (present(message)) return *message;
            if (present(code)) {
                for (const auto& row : kCodeTable) {
                    if (row.code == *code) return row.text.in(language);
                }
                std::string spaced = *code;
                for (char& c : spaced) {
                    if (c == '_') c = ' ';
                }
                return spaced;
            }
            auto n = std::to_string(status);
            return language == Language::Spanish ? "Error del servidor (" + n + ")." : "Server error (" + n + ").";
        }
        case Kind::decoding:
            return Text{"Unexpected server response.", "Respuesta inesperada del servidor."}.in(language);
        case Kind::transport:
            if (noConnection) return Text{"No connection.", "Sin conexión."}.in(language);
            return detail;
        case Kind::unauthenticated:
            return Text{"Your session expired. Sign in again.", "Tu sesión expiró. Iniciá sesión de nuevo."}.in(language);
    }
    return {};
}

std::string APIError::descriptionWithCause() const {
    const auto sentence = description();
    if (kind != Kind::transport || detail.empty() || sentence == detail) return sentence;
    return sentence + " (" + detail + ")";
}

}  // namespace vell::service

// Every sentence the user can get from a service error, in both languages.
#include <gtest/gtest.h>

#include "service/api_error.h"

namespace vell::service {
namespace {

struct Row {
    const char* code;
    const char* en;
    const char* es;
};

TEST(APIErrorMessages, CodeTableInBothLanguages) {
    const Row rows[] = {
        {"invalid_credentials", "Wrong email or password.", "Email o contraseña incorrectos."},
        {"missing_fields", "Missing fields.", "Faltan datos."},
        {"invalid_code", "Invalid code.", "Código inválido."},
        {"invalid_backup_code", "Invalid backup code.", "Código de respaldo inválido."},
        {"no_pending_mfa", "Verification expired. Sign in again.", "La verificación expiró. Volvé a iniciar sesión."},
        {"unauthorized", "Invalid session.", "Sesión no válida."},
        {"too_long", "This part is too long.", "Esta parte es demasiado larga."},
        {"transcribe_failed", "Transcription failed. Try again.", "Falló la transcripción. Reintentá."},
        {"transcription_in_progress", "A transcription is still running. Try again shortly.",
         "Todavía hay una transcripción en curso. Reintentá en unos segundos."},
    };
    for (const auto& row : rows) {
        auto e = APIError::http(400, row.code, std::nullopt);
        EXPECT_EQ(e.description(Language::English), row.en) << row.code;
        EXPECT_EQ(e.description(Language::Spanish), row.es) << row.code;
        // An empty message is no message: the code's sentence still shows.
        EXPECT_EQ(APIError::http(400, row.code, "").description(Language::Spanish), row.es) << row.code;
    }
}

TEST(APIErrorMessages, ServiceMessageWinsAndUnknownCodesReadAsWords) {
    auto withMessage = APIError::http(422, "too_long", "Keep it under an hour.");
    EXPECT_EQ(withMessage.description(Language::English), "Keep it under an hour.");
    EXPECT_EQ(withMessage.description(Language::Spanish), "Keep it under an hour.");
    EXPECT_EQ(APIError::http(402, "quota_exceeded", std::nullopt).description(Language::English), "quota exceeded");
    EXPECT_EQ(APIError::http(402, "quota_exceeded", std::nullopt).description(Language::Spanish), "quota exceeded");
    EXPECT_EQ(APIError::http(500, std::nullopt, std::nullopt).description(Language::English), "Server error (500).");
    EXPECT_EQ(APIError::http(503, "", "").description(Language::Spanish), "Error del servidor (503).");
}

TEST(APIErrorMessages, DecodingTransportAndSession) {
    for (const auto& e : {APIError::decoding("no response"), APIError::decoding("invalid resumable offset")}) {
        EXPECT_EQ(e.description(Language::English), "Unexpected server response.");
        EXPECT_EQ(e.description(Language::Spanish), "Respuesta inesperada del servidor.");
    }
    auto offline = APIError::transport(7, "Failed to connect to 127.0.0.1 port 9: Connection refused", true);
    EXPECT_EQ(offline.description(Language::English), "No connection.");
    EXPECT_EQ(offline.description(Language::Spanish), "Sin conexión.");
    EXPECT_TRUE(offline.isNetwork());
    auto timeout = APIError::transport(28, "Operation timed out after 60000 milliseconds", false);
    EXPECT_EQ(timeout.description(Language::English), "Operation timed out after 60000 milliseconds");
    EXPECT_EQ(timeout.description(Language::Spanish), "Operation timed out after 60000 milliseconds");
    auto gone = APIError::unauthenticated();
    EXPECT_EQ(gone.description(Language::English), "Your session expired. Sign in again.");
    EXPECT_EQ(gone.description(Language::Spanish), "Tu sesión expiró. Iniciá sesión de nuevo.");
    EXPECT_TRUE(gone.isSessionRejection());
    EXPECT_FALSE(gone.isNetwork());
}

}  // namespace
}  // namespace vell::service

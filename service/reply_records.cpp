#include "service/reply_records.h"

#include <initializer_list>

namespace vell::service {

namespace {

enum class Type { text, integer, boolean };
struct Key {
    const char* name;
    Type type;
    bool required = false;
};

bool hasType(const Json& value, Type type) {
    switch (type) {
        case Type::text: return value.is_string();
        case Type::integer: return value.is_number_integer();
        case Type::boolean: return value.is_boolean();
    }
    return false;
}

// Whether the value decodes as the record these keys describe (unknown keys are ignored).
bool fits(const Json& value, std::initializer_list<Key> keys) {
    if (!value.is_object()) return false;
    for (const auto& key : keys) {
        auto it = value.find(key.name);
        if (it == value.end() || it->is_null()) {
            if (key.required) return false;
            continue;
        }
        if (!hasType(*it, key.type)) return false;
    }
    return true;
}

}  // namespace

std::optional<ErrorBody> decodeErrorBody(const std::string& body) {
    Json value = Json::parse(body, nullptr, false);
    if (!fits(value, {{"ok", Type::boolean}, {"error", Type::text}, {"message", Type::text}})) return std::nullopt;
    ErrorBody out;
    if (auto it = value.find("ok"); it != value.end() && it->is_boolean()) out.ok = it->get<bool>();
    out.error = stringField(value, "error");
    out.message = stringField(value, "message");
    return out;
}

std::optional<ResumableStart> decodeResumableStart(const Json& reply) {
    if (!fits(reply, {{"uploadId", Type::text, true},
                      {"bytesReceived", Type::integer, true},
                      {"status", Type::text},
                      {"recordingId", Type::text}})) {
        return std::nullopt;
    }
    return ResumableStart{*stringField(reply, "uploadId"), *integerField(reply, "bytesReceived"),
                          stringField(reply, "status"), stringField(reply, "recordingId")};
}

std::optional<ResumablePart> decodeResumablePart(const std::string& body) {
    Json value = Json::parse(body, nullptr, false);
    if (!fits(value, {{"bytesReceived", Type::integer}, {"recordingId", Type::text}, {"error", Type::text}})) {
        return std::nullopt;
    }
    return ResumablePart{integerField(value, "bytesReceived"), stringField(value, "recordingId"),
                         stringField(value, "error")};
}

std::optional<std::string> decodeCreatedID(const Json& reply) {
    if (!fits(reply, {{"id", Type::text, true}})) return std::nullopt;
    return stringField(reply, "id");
}

}  // namespace vell::service

#include "recording/pending_recording_coding.h"

#include <charconv>
#include <climits>
#include <cmath>

#include "base/files.h"

namespace vell::recording::coding {

namespace {
using nlohmann::json;

// ---- encoding: written straight into one string, no document in between ----

void appendEscaped(std::string& out, std::string_view s) {
    static constexpr char kHex[] = "0123456789abcdef";
    out += '"';
    for (unsigned char c : s) {
        switch (c) {
            case '"': out += "\\\""; break;
            case '\\': out += "\\\\"; break;
            case '\n': out += "\\n"; break;
            case '\r': out += "\\r"; break;
            case '\t': out += "\\t"; break;
            case '\b': out += "\\b"; break;
            case '\f': out += "\\f"; break;
            default:
                if (c < 0x20) {
                    out += "\\u00";
                    out += kHex[c >> 4];
                    out += kHex[c & 15];
                } else {
                    out += static_cast<char>(c);
                }
        }
    }
    out += '"';
}

// Shortest text that reads back as the same double.
void appendNumber(std::string& out, double value) {
    if (!std::isfinite(value)) value = 0;
    char buffer[32];
    auto [end, ec] = std::to_chars(buffer, buffer + sizeof buffer, value);
    out.append(buffer, end);
}

void appendInteger(std::string& out, long long value) {
    char buffer[24];
    auto [end, ec] = std::to_chars(buffer, buffer + sizeof buffer, value);
    out.append(buffer, end);
}

void appendEntry(std::string& out, const PendingRecording& r) {
    out += "{\"id\":";
    appendEscaped(out, r.id);
    out += ",\"fileURL\":";
    appendEscaped(out, files::fileURL(r.fileURL));
    out += ",\"startedAt\":";
    appendNumber(out, secondsSinceReferenceDate(r.startedAt));
    if (r.finishedAt) {
        out += ",\"finishedAt\":";
        appendNumber(out, secondsSinceReferenceDate(*r.finishedAt));
    }
    out += ",\"status\":\"";
    out += toString(r.status);
    out += '"';
    if (r.lastError) {
        out += ",\"lastError\":";
        appendEscaped(out, *r.lastError);
    }
    out += ",\"attempts\":";
    appendInteger(out, r.attempts);
    if (r.lastErrorIsNetwork) out += *r.lastErrorIsNetwork ? ",\"lastErrorIsNetwork\":true" : ",\"lastErrorIsNetwork\":false";
    if (r.accountID) {
        out += ",\"accountID\":";
        appendEscaped(out, *r.accountID);
    }
    if (r.liveSessionID) {
        out += ",\"liveSessionID\":";
        appendEscaped(out, *r.liveSessionID);
    }
    if (r.discardedAt) {
        out += ",\"discardedAt\":";
        appendNumber(out, secondsSinceReferenceDate(*r.discardedAt));
    }
    out += '}';
}

// ---- decoding: one pass of parser events straight into the records ----

enum class Key { id, fileURL, startedAt, finishedAt, status, lastError, attempts, lastErrorIsNetwork, accountID,
                 liveSessionID, discardedAt, unknown };

Key keyFrom(std::string_view k) {
    static constexpr std::pair<std::string_view, Key> kKeys[] = {
        {"id", Key::id},
        {"fileURL", Key::fileURL},
        {"startedAt", Key::startedAt},
        {"finishedAt", Key::finishedAt},
        {"status", Key::status},
        {"lastError", Key::lastError},
        {"attempts", Key::attempts},
        {"lastErrorIsNetwork", Key::lastErrorIsNetwork},
        {"accountID", Key::accountID},
        {"liveSessionID", Key::liveSessionID},
        {"discardedAt", Key::discardedAt},
    };
    for (const auto& [name, key] : kKeys) {
        if (name == k) return key;
    }
    return Key::unknown;
}

// The document must be an array of flat objects; values of unknown keys are skipped
// whatever their shape. Any type mismatch stops the parse, failing the whole document.
class ListReader final : public nlohmann::json_sax<json> {
public:
    std::vector<PendingRecording> list;
    bool complete = false;

    bool null() override { return scalar([&](Key k) { return clear(k); }); }
    bool boolean(bool v) override {
        return scalar([&](Key k) {
            if (k != Key::lastErrorIsNetwork) return false;
            current_.lastErrorIsNetwork = v;
            return true;
        });
    }
    bool number_integer(number_integer_t v) override { return number(static_cast<double>(v), v, true); }
    bool number_unsigned(number_unsigned_t v) override {
        return number(static_cast<double>(v), static_cast<long long>(v), v <= static_cast<number_unsigned_t>(LLONG_MAX));
    }
    bool number_float(number_float_t v, const string_t&) override { return number(v, 0, false); }
    bool binary(binary_t&) override { return false; }
    bool string(string_t& v) override {
        return scalar([&](Key k) {
            switch (k) {
                case Key::id: current_.id = std::move(v); seen_ |= 1; return true;
                case Key::fileURL:
                    // A URL of another scheme names no local file: its entry is dropped by the
                    // missing-file filter rather than failing the whole list.
                    current_.fileURL = files::pathFromFileURL(v).value_or(std::filesystem::path{});
                    seen_ |= 2;
                    return true;
                case Key::status: {
                    auto status = statusFromString(v);
                    if (!status) return false;
                    current_.status = *status;
                    seen_ |= 8;
                    return true;
                }
                case Key::lastError: current_.lastError = std::move(v); return true;
                case Key::accountID: current_.accountID = std::move(v); return true;
                case Key::liveSessionID: current_.liveSessionID = std::move(v); return true;
                default: return false;
            }
        });
    }
    bool start_object(std::size_t) override {
        if (skipDepth_ > 0 || (depth_ == 2 && key_ == Key::unknown)) return enterSkipped();
        if (depth_ != 1) return false;
        depth_ = 2;
        current_ = PendingRecording{};
        seen_ = 0;
        return true;
    }
    bool end_object() override {
        if (skipDepth_ > 0) return leaveSkipped();
        if (depth_ != 2) return false;
        depth_ = 1;
        if (seen_ != 31) return false;  // id, fileURL, startedAt, status, attempts
        list.push_back(std::move(current_));
        return true;
    }
    bool start_array(std::size_t size) override {
        if (skipDepth_ > 0 || (depth_ == 2 && key_ == Key::unknown)) return enterSkipped();
        if (depth_ != 0) return false;
        depth_ = 1;
        if (size != std::size_t(-1)) list.reserve(size);
        return true;
    }
    bool end_array() override {
        if (skipDepth_ > 0) return leaveSkipped();
        if (depth_ != 1) return false;
        depth_ = 0;
        complete = true;
        return true;
    }
    bool key(string_t& k) override {
        if (skipDepth_ == 0) key_ = keyFrom(k);
        return true;
    }
    bool parse_error(std::size_t, const std::string&, const nlohmann::detail::exception&) override { return false; }

private:
    template <class F>
    bool scalar(F assign) {
        if (skipDepth_ > 0) return true;
        if (depth_ != 2) return false;
        if (key_ == Key::unknown) return true;
        return assign(key_);
    }
    bool number(double asDouble, long long asInteger, bool isInteger) {
        // A date the clock cannot hold (about 292,000 years either way) is not one we wrote,
        // and converting it would overflow: the entry does not decode.
        bool isDate = key_ == Key::startedAt || key_ == Key::finishedAt || key_ == Key::discardedAt;
        if (isDate && skipDepth_ == 0 && depth_ == 2 && !(std::fabs(asDouble) < 1e11)) return false;
        return scalar([&](Key k) {
            switch (k) {
                case Key::startedAt: current_.startedAt = fromSecondsSinceReferenceDate(asDouble); seen_ |= 4; return true;
                case Key::finishedAt: current_.finishedAt = fromSecondsSinceReferenceDate(asDouble); return true;
                case Key::discardedAt: current_.discardedAt = fromSecondsSinceReferenceDate(asDouble); return true;
                case Key::attempts:
                    if (!isInteger) return false;
                    current_.attempts = asInteger;
                    seen_ |= 16;
                    return true;
                default: return false;
            }
        });
    }
    bool clear(Key k) {
        switch (k) {
            case Key::finishedAt: current_.finishedAt.reset(); return true;
            case Key::lastError: current_.lastError.reset(); return true;
            case Key::lastErrorIsNetwork: current_.lastErrorIsNetwork.reset(); return true;
            case Key::accountID: current_.accountID.reset(); return true;
            case Key::liveSessionID: current_.liveSessionID.reset(); return true;
            case Key::discardedAt: current_.discardedAt.reset(); return true;
            default: return false;  // required keys cannot be null
        }
    }
    bool enterSkipped() {
        if (depth_ != 2 || skipDepth_ >= kMaxSkippedDepth) return false;
        ++skipDepth_;
        return true;
    }
    bool leaveSkipped() {
        --skipDepth_;
        return true;
    }

    static constexpr int kMaxSkippedDepth = 32;
    int depth_ = 0;  // 0 outside, 1 in the array, 2 in an entry
    int skipDepth_ = 0;
    Key key_ = Key::unknown;
    unsigned seen_ = 0;
    PendingRecording current_;
};
constexpr int kMaxReadableDepth = 34;

// Whether no array or object in the JSON text lies deeper than maxDepth (strings skipped).
bool nestingWithin(std::string_view text, int maxDepth) {
    int depth = 0;
    bool inString = false;
    for (std::size_t i = 0; i < text.size(); ++i) {
        const char c = text[i];
        if (inString) {
            if (c == '\\') ++i;
            else if (c == '"') inString = false;
        } else if (c == '"') {
            inString = true;
        } else if (c == '[' || c == '{') {
            if (++depth > maxDepth) return false;
        } else if (c == ']' || c == '}') {
            --depth;
        }
    }
    return true;
}
}  // namespace

nlohmann::ordered_json encode(const PendingRecording& r) {
    std::string text;
    appendEntry(text, r);
    return nlohmann::ordered_json::parse(text);
}

std::optional<PendingRecording> decode(const json& object) {
    auto list = decodeList("[" + object.dump() + "]");
    if (!list || list->size() != 1) return std::nullopt;
    return std::move(list->front());
}

std::string encodeList(const std::vector<PendingRecording>& list) {
    std::string out;
    out.reserve(64 + list.size() * 320);
    out += '[';
    for (std::size_t i = 0; i < list.size(); ++i) {
        if (i > 0) out += ',';
        appendEntry(out, list[i]);
    }
    out += ']';
    return out;
}

std::optional<std::vector<PendingRecording>> decodeList(std::string_view text) {
    ListReader reader;
    bool ok = json::sax_parse(text, &reader, json::input_format_t::json, /*strict=*/true);
    if (!ok || !reader.complete) return std::nullopt;
    return std::move(reader.list);
}

std::optional<std::vector<PendingRecording>> decodeReadableEntries(std::string_view text) {
    // A document nested deeper than any list we write is not read as one: building and
    // writing back such a tree recurses once per level.
    if (!nestingWithin(text, kMaxReadableDepth)) return std::nullopt;
    auto document = json::parse(text, nullptr, /*allow_exceptions=*/false);
    if (!document.is_array()) return std::nullopt;
    std::vector<PendingRecording> list;
    for (const auto& element : document) {
        if (!element.is_object()) continue;
        if (auto entry = decode(element)) list.push_back(std::move(*entry));
    }
    return list;
}

}  // namespace vell::recording::coding

#include "tests/devserver/devserver_process.h"

#include <openssl/evp.h>

#include <random>

namespace vell::test {

namespace fs = std::filesystem;

httplib::Client DevServerProcess::client() const {
    httplib::Client client("127.0.0.1", port());
    client.set_read_timeout(60, 0);
    client.set_write_timeout(60, 0);
    return client;
}

std::string Reply::cookie(const std::string& name) const {
    for (auto [it, end] = headers.equal_range("Set-Cookie"); it != end; ++it) {
        const std::string& value = it->second;
        if (value.rfind(name + "=", 0) == 0) {
            size_t semi = value.find(';');
            return value.substr(name.size() + 1, semi - name.size() - 1);
        }
    }
    return {};
}

httplib::Headers Api::withCookies(httplib::Headers headers) const {
    std::string cookie;
    for (const auto& [name, value] : cookies) {
        if (!cookie.empty()) cookie += "; ";
        cookie += name + "=" + value;
    }
    if (!cookie.empty()) headers.emplace("Cookie", cookie);
    return headers;
}

Reply Api::keep(const httplib::Result& result) {
    Reply reply;
    if (!result) return reply;
    reply.status = result->status;
    reply.headers = result->headers;
    reply.body = nlohmann::json::parse(result->body, nullptr, false);
    for (auto [it, end] = result->headers.equal_range("Set-Cookie"); it != end; ++it) {
        const std::string& value = it->second;
        size_t eq = value.find('='), semi = value.find(';');
        std::string name = value.substr(0, eq), content = value.substr(eq + 1, semi - eq - 1);
        if (content.empty() || value.find("Max-Age=0") != std::string::npos) {
            cookies.erase(name);
        } else {
            cookies[name] = content;
        }
    }
    return reply;
}

Reply Api::login(const std::string& email, const std::string& password) {
    return post("/api/auth/login", {{"email", email}, {"password", password}});
}

Reply Api::post(const std::string& path, const nlohmann::json& body, const httplib::Headers& headers) {
    auto client = server_.client();
    return keep(client.Post(path.c_str(), withCookies(headers), body.dump(), "application/json"));
}

Reply Api::postEmpty(const std::string& path) {
    auto client = server_.client();
    return keep(client.Post(path.c_str(), withCookies({}), "", "application/json"));
}

Reply Api::patch(const std::string& path, const nlohmann::json& body) {
    auto client = server_.client();
    return keep(client.Patch(path.c_str(), withCookies({}), body.dump(), "application/json"));
}

Reply Api::get(const std::string& path) {
    auto client = server_.client();
    return keep(client.Get(path.c_str(), withCookies({})));
}

Reply Api::put(const std::string& path, const std::string& body, const httplib::Headers& headers) {
    auto client = server_.client();
    return keep(client.Put(path.c_str(), withCookies(headers), body, "audio/aac"));
}

Reply Api::del(const std::string& path) {
    auto client = server_.client();
    return keep(client.Delete(path.c_str(), withCookies({})));
}

Reply Api::admin(const std::string& method, const std::string& path, const nlohmann::json& body, const std::string& token) {
    auto client = server_.client();
    httplib::Headers headers;
    if (!token.empty()) headers.emplace("X-Admin-Token", token);
    const std::string text = body.is_null() ? "" : body.dump();
    if (method == "GET") return keep(client.Get(path.c_str(), headers));
    if (method == "DELETE") return keep(client.Delete(path.c_str(), headers));
    return keep(client.Post(path.c_str(), headers, text, "application/json"));
}

Reply Api::start(const std::string& key, int64_t totalBytes, const std::string& filename) {
    return post("/api/recordings/upload/start", {{"mimeType", "audio/aac"}, {"filename", filename}, {"totalBytes", totalBytes}},
                {{"X-Vell-Idempotency-Key", key}});
}

Reply Api::part(const std::string& uploadId, int64_t offset, const std::string& bytes) {
    return put("/api/recordings/upload/" + uploadId + "/part", bytes, {{"X-Upload-Offset", std::to_string(offset)}});
}

std::string randomBytes(size_t size, unsigned seed) {
    std::mt19937 rng(seed);
    std::string out(size, '\0');
    for (auto& c : out) c = static_cast<char>(rng());
    return out;
}

std::string sha256Hex(const std::string& data) {
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    EVP_Digest(data.data(), data.size(), digest, &length, EVP_sha256(), nullptr);
    static const char* hex = "0123456789abcdef";
    std::string out;
    for (unsigned i = 0; i < length; ++i) {
        out.push_back(hex[digest[i] >> 4]);
        out.push_back(hex[digest[i] & 15]);
    }
    return out;
}

}  // namespace vell::test

#include "platform/http/plist_cookies.h"

#include <plist/plist.h>

#include <cstddef>

namespace vell::plist {

namespace {
// Property-list dates count from 2001-01-01 00:00:00 UTC.
constexpr long long kReferenceDateUnix = 978307200;

struct Node {
    plist_t node = nullptr;
    ~Node() {
        if (node) plist_free(node);
    }
};

std::optional<std::string> stringItem(plist_t dict, const char* key) {
    plist_t item = plist_dict_get_item(dict, key);
    if (!item || plist_get_node_type(item) != PLIST_STRING) return std::nullopt;
    // By pointer and length: the copying getter asserts (and aborts the process) on a string
    // with a NUL inside, which a damaged or foreign file can hold.
    uint64_t length = 0;
    const char* value = plist_get_string_ptr(item, &length);
    if (!value) return std::nullopt;
    std::string out(value, static_cast<std::size_t>(length));
    // No cookie field may hold a NUL; such a field counts as missing.
    if (out.find('\0') != std::string::npos) return std::nullopt;
    return out;
}
}  // namespace

std::string encodeCookies(const std::vector<http::Cookie>& cookies) {
    Node array{plist_new_array()};
    for (const auto& c : cookies) {
        plist_t dict = plist_new_dict();
        plist_dict_set_item(dict, "Name", plist_new_string(c.name.c_str()));
        plist_dict_set_item(dict, "Value", plist_new_string(c.value.c_str()));
        plist_dict_set_item(dict, "Domain", plist_new_string(c.domain.c_str()));
        plist_dict_set_item(dict, "Path", plist_new_string(c.path.c_str()));
        plist_dict_set_item(dict, "Secure", plist_new_bool(c.secure ? 1 : 0));
        if (c.expires) {
            plist_dict_set_item(dict, "Expires",
                                plist_new_date(static_cast<int32_t>(*c.expires - kReferenceDateUnix), 0));
        }
        plist_dict_set_item(dict, "Version", plist_new_string("0"));
        plist_array_append_item(array.node, dict);
    }
    char* bytes = nullptr;
    uint32_t length = 0;
    plist_to_bin(array.node, &bytes, &length);
    std::string out(bytes ? bytes : "", bytes ? length : 0);
    if (bytes) plist_to_bin_free(bytes);
    return out;
}

std::optional<std::vector<http::Cookie>> decodeCookies(const std::string& bytes) {
    if (bytes.size() < 8 || bytes.compare(0, 6, "bplist") != 0) return std::nullopt;
    Node root;
    plist_from_bin(bytes.data(), static_cast<uint32_t>(bytes.size()), &root.node);
    if (!root.node || plist_get_node_type(root.node) != PLIST_ARRAY) return std::nullopt;
    std::vector<http::Cookie> out;
    for (uint32_t i = 0; i < plist_array_get_size(root.node); ++i) {
        plist_t dict = plist_array_get_item(root.node, i);
        if (!dict || plist_get_node_type(dict) != PLIST_DICT) continue;
        auto name = stringItem(dict, "Name");
        auto domain = stringItem(dict, "Domain");
        if (!name || name->empty() || !domain || domain->empty()) continue;
        http::Cookie c;
        c.name = *name;
        c.domain = *domain;
        c.value = stringItem(dict, "Value").value_or("");
        c.path = stringItem(dict, "Path").value_or("/");
        if (plist_t secure = plist_dict_get_item(dict, "Secure")) {
            if (plist_get_node_type(secure) == PLIST_BOOLEAN) {
                uint8_t b = 0;
                plist_get_bool_val(secure, &b);
                c.secure = b != 0;
            } else {
                c.secure = stringItem(dict, "Secure") == "TRUE";
            }
        }
        if (plist_t expires = plist_dict_get_item(dict, "Expires"); expires && plist_get_node_type(expires) == PLIST_DATE) {
            int32_t sec = 0, usec = 0;
            plist_get_date_val(expires, &sec, &usec);
            c.expires = kReferenceDateUnix + sec;
        }
        out.push_back(std::move(c));
    }
    return out;
}

}  // namespace vell::plist

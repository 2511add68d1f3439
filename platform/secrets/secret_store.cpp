#include "platform/secrets/secret_store.h"

#include <libsecret/secret.h>
#include <systemd/sd-bus.h>

#include <cstdlib>
#include <filesystem>
#include <string_view>

#include "base/shared_library.h"

namespace vell::secret {

namespace {

// libsecret, with GLib's D-Bus client under it, is opened when a Secret Service answers on
// the bus rather than linked: a desktop without a keyring then never maps it.
#define VELL_SECRET_FUNCTIONS(X)          \
    X(secret_service_get_sync)            \
    X(secret_collection_for_alias_sync)   \
    X(secret_password_lookup_binary_sync) \
    X(secret_password_store_binary_sync)  \
    X(secret_password_clear_sync)         \
    X(secret_value_new)                   \
    X(secret_value_get)                   \
    X(secret_value_unref)                 \
    X(g_error_free)                       \
    X(g_object_unref)

struct Libsecret {
#define VELL_SECRET_SLOT(name) decltype(&::name) name = nullptr;
    VELL_SECRET_FUNCTIONS(VELL_SECRET_SLOT)
#undef VELL_SECRET_SLOT
};

constexpr const char* kLibsecretSoname = "libsecret-1.so.0";

Expected<Libsecret, std::string> load() {
    auto opened = shared_library::open(kLibsecretSoname);
    if (!opened) return unexpected(opened.error());
    void* handle = *opened;
    Libsecret lib;
    std::string missing;
    // GLib's and GObject's functions come through libsecret's own dependencies.
#define VELL_SECRET_RESOLVE(name) shared_library::resolve(handle, #name, lib.name, missing);
    VELL_SECRET_FUNCTIONS(VELL_SECRET_RESOLVE)
#undef VELL_SECRET_RESOLVE
    // Never unloaded: GLib keeps threads and types for the life of the process.
    if (!missing.empty()) return unexpected(std::string(kLibsecretSoname) + " has no " + missing);
    return lib;
}

// Loaded once per process (safe from any thread); the same table or error afterwards.
const Expected<Libsecret, std::string>& libsecret() {
    static const Expected<Libsecret, std::string> library = load();
    return library;
}

const SecretSchema* schema() {
    static const SecretSchema s = {
        kServiceName,
        SECRET_SCHEMA_NONE,
        {
            {"service", SECRET_SCHEMA_ATTRIBUTE_STRING},
            {"account", SECRET_SCHEMA_ATTRIBUTE_STRING},
            {nullptr, SECRET_SCHEMA_ATTRIBUTE_STRING},
        },
    };
    return &s;
}

Error take(const Libsecret& lib, GError* error) {
    Error e{error ? error->code : -1, error ? error->message : "unknown Secret Service failure"};
    if (error) lib.g_error_free(error);
    return e;
}

Error notLoaded() { return Error{-1, libsecret().error()}; }

// Without a session bus libsecret would try to autolaunch one; there is nothing to find.
bool sessionBusConfigured() {
    if (const char* address = std::getenv("DBUS_SESSION_BUS_ADDRESS"); address && *address) return true;
    const char* runtime = std::getenv("XDG_RUNTIME_DIR");
    std::error_code ec;
    return runtime && *runtime && std::filesystem::exists(std::filesystem::path(runtime) / "bus", ec);
}

class LibsecretStore final : public Store {
public:
    bool reachable() override {
        if (!sessionBusConfigured() || !secretServiceOnBus() || !libsecret()) return false;
        const auto& lib = *libsecret();
        GError* error = nullptr;
        SecretService* service = lib.secret_service_get_sync(SECRET_SERVICE_NONE, nullptr, &error);
        if (!service) {
            if (error) lib.g_error_free(error);
            return false;
        }
        SecretCollection* collection =
            lib.secret_collection_for_alias_sync(service, SECRET_COLLECTION_DEFAULT, SECRET_COLLECTION_NONE, nullptr, &error);
        if (error) lib.g_error_free(error);
        bool found = collection != nullptr;
        if (collection) lib.g_object_unref(collection);
        lib.g_object_unref(service);
        return found;
    }

    Expected<std::optional<std::string>, Error> lookup(const std::string& account) override {
        if (!libsecret()) return unexpected(notLoaded());
        const auto& lib = *libsecret();
        GError* error = nullptr;
        SecretValue* value = lib.secret_password_lookup_binary_sync(schema(), nullptr, &error, "service", kServiceName,
                                                                    "account", account.c_str(), nullptr);
        if (error) return unexpected(take(lib, error));
        if (!value) return std::optional<std::string>{};
        gsize length = 0;
        const gchar* bytes = lib.secret_value_get(value, &length);
        std::string out(bytes ? bytes : "", bytes ? length : 0);
        lib.secret_value_unref(value);
        return std::optional<std::string>{std::move(out)};
    }

    Expected<Unit, Error> store(const std::string& account, const std::string& bytes) override {
        if (!libsecret()) return unexpected(notLoaded());
        const auto& lib = *libsecret();
        GError* error = nullptr;
        SecretValue* value = lib.secret_value_new(bytes.data(), static_cast<gssize>(bytes.size()), "application/octet-stream");
        std::string label = std::string("Vell session (") + account + ")";
        gboolean ok = lib.secret_password_store_binary_sync(schema(), SECRET_COLLECTION_DEFAULT, label.c_str(), value,
                                                            nullptr, &error, "service", kServiceName, "account",
                                                            account.c_str(), nullptr);
        lib.secret_value_unref(value);
        if (!ok || error) return unexpected(take(lib, error));
        return Unit{};
    }

    Expected<Unit, Error> clear(const std::string& account) override {
        if (!libsecret()) return unexpected(notLoaded());
        const auto& lib = *libsecret();
        GError* error = nullptr;
        lib.secret_password_clear_sync(schema(), nullptr, &error, "service", kServiceName, "account", account.c_str(), nullptr);
        if (error) return unexpected(take(lib, error));
        return Unit{};
    }
};

}  // namespace

bool secretServiceOnBus() {
    constexpr const char* kName = "org.freedesktop.secrets";
    sd_bus* bus = nullptr;
    if (sd_bus_open_user(&bus) < 0) return true;
    auto ask = [bus](const char* method, const char* signature, auto... arguments) {
        sd_bus_message* reply = nullptr;
        sd_bus_error error = SD_BUS_ERROR_NULL;
        int r = sd_bus_call_method(bus, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus", method,
                                   &error, &reply, signature, arguments...);
        sd_bus_error_free(&error);
        return r < 0 ? nullptr : reply;
    };
    bool answers = true;
    if (sd_bus_message* owner = ask("NameHasOwner", "s", kName)) {
        int has = 0;
        if (sd_bus_message_read(owner, "b", &has) >= 0 && !has) {
            if (sd_bus_message* names = ask("ListActivatableNames", "")) {
                answers = false;
                if (sd_bus_message_enter_container(names, 'a', "s") >= 0) {
                    const char* name = nullptr;
                    while (!answers && sd_bus_message_read(names, "s", &name) > 0) answers = std::string_view(name) == kName;
                }
                sd_bus_message_unref(names);
            }
        }
        sd_bus_message_unref(owner);
    }
    sd_bus_flush_close_unref(bus);
    return answers;
}

Store& libsecretStore() {
    static LibsecretStore store;
    return store;
}

}  // namespace vell::secret

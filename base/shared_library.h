#pragma once
// Libraries opened on first use instead of linked, so their own dependencies stay out of
// every start of the programs. Each is opened local to its caller (its symbols, and those of
// what it brings, stay out of the global scope) and never closed: objects made through it
// may outlive any one caller. Any thread.
#include <dlfcn.h>

#include <string>

#include "base/expected.h"

namespace vell::shared_library {

// The library's handle, or a sentence naming it and the loader's reason.
inline Expected<void*, std::string> open(const std::string& soname) {
    void* handle = ::dlopen(soname.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (handle) return handle;
    const char* why = ::dlerror();
    return unexpected("cannot load " + soname + (why ? std::string(" (") + why + ")" : std::string()));
}

// Resolves `name` into `slot`; the first name that could not be found is kept in `missing`.
template <class Fn>
void resolve(void* handle, const char* name, Fn& slot, std::string& missing) {
    slot = reinterpret_cast<Fn>(::dlsym(handle, name));
    if (!slot && missing.empty()) missing = name;
}

}  // namespace vell::shared_library

#include "base/uuid.h"

#include <uuid/uuid.h>

namespace vell {
std::string newUUIDString() {
    uuid_t raw;
    uuid_generate_random(raw);
    char text[37];
    uuid_unparse_upper(raw, text);
    return text;
}
}  // namespace vell

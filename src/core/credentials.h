// Who asks: a user name and the realm it belongs to, as the caller gave them.
#pragma once

#include <string_view>

namespace ZEL::Core {

// Views of the caller's strings, valid for the duration of one call.
struct Credentials {
    std::string_view username;
    std::string_view realm;
};

}  // namespace ZEL::Core

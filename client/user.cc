#include "user.h"

#include <pwd.h>
#include <unistd.h>

#include <vector>

namespace qv {

std::string effectiveUserName() {
    long hint = ::sysconf(_SC_GETPW_R_SIZE_MAX);
    std::vector<char> buffer(hint > 0 ? static_cast<size_t>(hint) : 4096);
    struct passwd entry = {};
    struct passwd* found = nullptr;
    for (;;) {
        int err = ::getpwuid_r(::geteuid(), &entry, buffer.data(), buffer.size(), &found);
        if (err == ERANGE && buffer.size() < (1u << 20)) {
            buffer.resize(buffer.size() * 2);
            continue;
        }
        if (err != 0 || found == nullptr || found->pw_name == nullptr) return "";
        return found->pw_name;
    }
}

}  // namespace qv

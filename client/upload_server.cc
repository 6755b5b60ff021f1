#include "upload_server.h"

#include <cstdlib>

#ifndef QVCLIENT_UPLOAD_URL
#error "QVCLIENT_UPLOAD_URL must name the built-in server"
#endif

namespace qv {

namespace {

std::string environment(const char* name) {
    const char* value = std::getenv(name);
    return value ? value : "";
}

}  // namespace

std::string uploadUrl() {
    std::string url = environment("VANTSHRD_UPLOAD_URL");
    return url.empty() ? QVCLIENT_UPLOAD_URL : url;
}

std::string extraCaFile() {
    return environment("VANTSHRD_CA_FILE");
}

}  // namespace qv

#pragma once

// Where uploads go and which certificate authorities vouch for the server.

#include <string>

namespace qv {

// VANTSHRD_UPLOAD_URL when set and not empty, else the URL built into the
// client (an HTTPS URL whose path is /events).
std::string uploadUrl();

// VANTSHRD_CA_FILE: a PEM bundle trusted in addition to the system's
// authorities; empty when unset.
std::string extraCaFile();

}  // namespace qv

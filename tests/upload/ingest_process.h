#pragma once

// Test support: the loopback HTTPS ingest server (tools/ingest-server) in a
// process of its own, and what it stored.

#include <sys/types.h>

#include <nlohmann/json.hpp>
#include <string>
#include <vector>

namespace qvtest {

struct IngestOptions {
    std::string mode = "ok";  // ok | refuse | silent | reset | drop
    int status = 200;
    std::string reply = "{}";
};

// One upload as the server stored it.
struct StoredUpload {
    int connection = 0;
    nlohmann::json meta;             // what the server checked and counted
    std::string headerText;          // headerdata exactly as received
    std::vector<std::string> lines;  // the gunzipped events, one per line
};

class IngestServer {
public:
    // Starts the server with its files under `dir` (its certificates in
    // <dir>/certs, made on first start) and waits until it takes connections.
    IngestServer(const std::string& dir, const IngestOptions& options = {});
    ~IngestServer();
    IngestServer(const IngestServer&) = delete;
    IngestServer& operator=(const IngestServer&) = delete;

    std::string url() const;
    std::string caFile() const { return certDir_ + "/ca.pem"; }
    // Behaviour for the connections from now on: mode, status, reply, or a
    // "cycle" of them taken in turn by connection number.
    void control(const nlohmann::json& behaviour);

    std::vector<StoredUpload> uploads() const;
    std::string connections() const;  // the server's connection log

    // Points the client processes started from now on at this server.
    void becomeUploadTarget() const;

private:
    std::string dir_;
    std::string certDir_;
    pid_t pid_ = -1;
    int port_ = 0;
};

// Runs a program (looked up in PATH) to its end; its wait status.
int runToEnd(const std::vector<std::string>& args);

// A CA and server certificate in `dir` that no test client trusts.
void makeForeignCertificates(const std::string& dir);

}  // namespace qvtest

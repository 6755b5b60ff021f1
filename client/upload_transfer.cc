#include "upload_transfer.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#define CURL_DISABLE_DEPRECATION
#include <curl/curl.h>

#include <cstdio>
#include <exception>
#include <memory>
#include <stdexcept>

#include "debug_log.h"
#include "shared_file.h"
#include "state_store.h"
#include "upload_files.h"
#include "upload_reply.h"
#include "upload_server.h"
#include "upload_stream.h"

namespace qv {

TransferRecord transferRecord;

namespace {

constexpr long connectTimeoutSeconds = 10;
// A server that stops taking data would otherwise hold the worker, and with
// it every later flush, forever.
constexpr long stalledTransferSeconds = 60;

struct FormFree {
    void operator()(curl_httppost* form) const { curl_formfree(form); }
};
struct EasyCleanup {
    void operator()(CURL* easy) const { curl_easy_cleanup(easy); }
};
struct SlistFree {
    void operator()(curl_slist* list) const { curl_slist_free_all(list); }
};
struct FileClose {
    void operator()(FILE* file) const { std::fclose(file); }
};

// The send file as a stdio stream, opened without following a link.
FILE* openSendFile(const std::string& sendPath) {
    int fd = openShared(sendPath, O_RDONLY);
    if (fd < 0) return nullptr;
    FILE* file = ::fdopen(fd, "r");
    if (!file) ::close(fd);
    return file;
}

void record(std::uint32_t result, const std::string& path) {
    transferRecord.lastResult = result;
    transferRecord.failuresInRow = result == 0 ? 0 : transferRecord.failuresInRow + 1;
    transferRecord.lastEventsPath = path;
}

void setTlsTrust(CURL* easy, const std::string& caFile) {
    if (caFile.empty()) return;
    curl_easy_setopt(easy, CURLOPT_CAINFO, caFile.c_str());
    // With a CA file of its own libcurl no longer reads the system bundle,
    // but the hashed system directory still adds the usual authorities.
    const curl_version_info_data* info = curl_version_info(CURLVERSION_NOW);
    if (info->age >= CURLVERSION_SEVENTH && info->capath) {
        curl_easy_setopt(easy, CURLOPT_CAPATH, info->capath);
    }
}

}  // namespace

std::uint32_t SendFile(UploadContext& context, const std::string& headerText,
                       const std::string& sendPath) {
    curl_global_init(CURL_GLOBAL_ALL);

    GzipStream stream;
    if (!openGzipStream(stream, nullptr)) return CURLE_OUT_OF_MEMORY;
    std::string reply;

    curl_httppost* first = nullptr;
    curl_httppost* last = nullptr;
    curl_formadd(&first, &last, CURLFORM_STREAM, &stream, CURLFORM_COPYNAME, "eventdata",
                 CURLFORM_FILENAME, "qvclientevents.gz", CURLFORM_CONTENTTYPE,
                 "application/octet-stream", CURLFORM_END);
    std::unique_ptr<curl_httppost, FormFree> form(first);

    std::unique_ptr<FILE, FileClose> file(openSendFile(sendPath));
    if (!file) {
        releaseGzipStream(stream);
        return sendFileUnreadable;
    }
    stream.file = file.get();

    std::uint32_t result = 0;
    try {
        curl_formadd(&first, &last, CURLFORM_COPYNAME, "headerdata", CURLFORM_BUFFER,
                     "qvclientheader.json", CURLFORM_BUFFERPTR, headerText.data(),
                     CURLFORM_BUFFERLENGTH, static_cast<long>(headerText.size()),
                     CURLFORM_CONTENTTYPE, "text/json", CURLFORM_END);

        std::unique_ptr<curl_slist, SlistFree> headers(
            curl_slist_append(nullptr, "Transfer-Encoding: chunked"));
        std::unique_ptr<CURL, EasyCleanup> easy(curl_easy_init());
        if (!easy) throw std::runtime_error("curl_easy_init failed");
        const std::string url = uploadUrl();
        CURL* h = easy.get();
        curl_easy_setopt(h, CURLOPT_HTTPHEADER, headers.get());
        curl_easy_setopt(h, CURLOPT_READFUNCTION, gzipReadCallback);
        curl_easy_setopt(h, CURLOPT_URL, url.c_str());
        curl_easy_setopt(h, CURLOPT_HTTPPOST, form.get());
        curl_easy_setopt(h, CURLOPT_WRITEFUNCTION, replyWriteCallback);
        curl_easy_setopt(h, CURLOPT_READFUNCTION, gzipReadCallback);
        curl_easy_setopt(h, CURLOPT_WRITEDATA, &reply);
        curl_easy_setopt(h, CURLOPT_READDATA, &stream);
        curl_easy_setopt(h, CURLOPT_CONNECTTIMEOUT, connectTimeoutSeconds);
        curl_easy_setopt(h, CURLOPT_SSL_VERIFYHOST, 2L);
        // The header describes the machine: it goes only to a server that
        // proves who it is, and only over TLS.
        curl_easy_setopt(h, CURLOPT_SSL_VERIFYPEER, 1L);
        curl_easy_setopt(h, CURLOPT_PROTOCOLS_STR, "https");
        setTlsTrust(h, extraCaFile());
        curl_easy_setopt(h, CURLOPT_NOSIGNAL, 1L);
        curl_easy_setopt(h, CURLOPT_LOW_SPEED_LIMIT, 1L);
        curl_easy_setopt(h, CURLOPT_LOW_SPEED_TIME, stalledTransferSeconds);

        CURLcode code = curl_easy_perform(h);
        result = static_cast<std::uint32_t>(code);
        record(result, sendPath);
        if (code != CURLE_OK) {
            std::fprintf(stderr, "curl_easy_perform() failed: %s\n", curl_easy_strerror(code));
        } else {
            // Delivered, whatever the HTTP status said.
            applyReplySettings(reply);
            newUploadId();
            struct stat sent = {};
            bool known = ::fstat(::fileno(file.get()), &sent) == 0;
            file.reset();
            trace("upload complete, delete ", sendPath);
            if (known) removeSentFile(context.eventsPath, sendPath, sent.st_dev, sent.st_ino);
        }
    } catch (const std::exception& e) {
        trace("exception in SendFile ", *e.what() ? e.what() : "Unknown exception");
    }
    releaseGzipStream(stream);
    return result;
}

void printCurlVersion() {
    const curl_version_info_data* info = curl_version_info(CURLVERSION_FOURTH);
    std::printf("curl version %s\n", info->version);
}

}  // namespace qv

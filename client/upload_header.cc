#include "upload_header.h"

#include "debug_log.h"
#include "globals.h"
#include "header_sections.h"
#include "md5.h"
#include "state_store.h"
#include "timestamp.h"
#include "upload_rotation.h"

namespace qv {

namespace {

// The timestamp cut after the tens of the seconds: the token stays the
// same for ten seconds, which gives the server a window to check it in.
constexpr std::size_t tokenTimeLength = 18;

}  // namespace

std::string authTokenInput(const std::string& uploadId, const std::string& clientId,
                           const std::string& timestamp) {
    return uploadId + clientId + timestamp.substr(0, tokenTimeLength);
}

void CollectSystemData(UploadContext& context) {
    nlohmann::json& header = context.header;
    header = nlohmann::json::object();

    trace("bg get devio\n");
    inventory::addDeviceInventory(header);
    trace("bg got devio\n");
    inventory::addMachineSections(header);
    inventory::addUsbInventory(header);

    header["clientid"] = getClientId();
    const std::string uploadId = getUploadId();
    header["uploadid"] = uploadId;
    header["version"] = schema;
    header["maxlinebuf"] = maxLineBuf.load();
    header["maxpauseseconds"] = maxPauseSeconds.load();
    header["maxlastuploadseconds"] = maxLastUploadSeconds.load();
    header["minuploadsize"] = minUploadSize.load();
    header["timeoutshutdownseconds"] = timeoutShutdownSeconds.load();
    const std::string test = authTokenInput(uploadId, getClientId(), nowTimestamp());
    header["auth"] = md5Hex(test);
    header["test"] = test;

    const std::string headerText = header.dump();
    sendEvents(context, headerText, context.eventsPath);
}

}  // namespace qv

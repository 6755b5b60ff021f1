#include "upload_reply.h"

#include <atomic>
#include <cstdint>
#include <exception>
#include <nlohmann/json.hpp>

#include "debug_log.h"
#include "globals.h"
#include "settings.h"
#include "state_store.h"

namespace qv {

void applyReplySettings(const std::string& reply) {
    static const struct {
        const char* key;
        std::atomic<std::uint32_t>* word;
    } settings[] = {
        {keyMaxLastUploadSeconds, &maxLastUploadSeconds},
        {keyMaxLineBuf, &maxLineBuf},
        {keyMaxPauseSeconds, &maxPauseSeconds},
        {keyMinUploadSize, &minUploadSize},
        {keyTimeoutShutdownSeconds, &timeoutShutdownSeconds},
    };
    try {
        const nlohmann::json parsed = nlohmann::json::parse(reply);
        for (const auto& setting : settings) {
            auto it = parsed.find(setting.key);
            if (it == parsed.end()) continue;
            // The value is taken inside the store's transaction: one that
            // isn't a string throws out of it, which leaves the state file's
            // lock to this process until it ends.
            std::string text = updateState(
                setting.key, true, [&](const std::string&) { return it->get<std::string>(); });
            *setting.word = settingFromText(text);
        }
    } catch (const std::exception&) {
        trace("exception processing returned json\n");
    }
}

}  // namespace qv

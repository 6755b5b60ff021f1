#include "reader.h"

#include <nlohmann/json.hpp>
#include <stdexcept>

#include "debug_log.h"
#include "event_queue.h"
#include "event_text.h"
#include "globals.h"
#include "line_input.h"
#include "state_store.h"
#include "timestamp.h"

namespace qv {

namespace {

// Deeper lines are refused before parsing: serialising them back would
// recurse once per level, and no event of the application nests like that.
constexpr int maxNesting = 512;

// Counts brackets outside strings; stops at the first level too deep.
void checkNesting(const std::string& line) {
    int depth = 0;
    bool inString = false;
    bool escaped = false;
    for (char c : line) {
        if (inString) {
            if (escaped) {
                escaped = false;
            } else if (c == '\\') {
                escaped = true;
            } else if (c == '"') {
                inString = false;
            }
        } else if (c == '"') {
            inString = true;
        } else if (c == '[' || c == '{') {
            if (++depth > maxNesting) throw std::length_error("event nested too deeply");
        } else if (c == ']' || c == '}') {
            --depth;
        }
    }
}

enum class Pass { goOn, end };

// Dot-commands are recognised by their prefix. ".PAUSE" and ".UNPAUSE" go on
// to the event path afterwards (where they fail to parse); ".EOF" and ".OFF"
// end the reader.
Pass dotCommand(const std::string& line) {
    if (line.rfind(".EOF", 0) == 0) {
        trace("got eof");
        softRequest();
        return Pass::end;
    }
    if (line.rfind(".PAUSE", 0) == 0) {
        pause();
    } else if (line.rfind(".UNPAUSE", 0) == 0) {
        if (unpause()) softRequest();
    } else if (line.rfind(".OFF", 0) == 0) {
        hardRequest();
        return Pass::end;
    }
    return Pass::goOn;
}

void handleEvent(const std::string& line) {
    std::string stamped;
    try {
        stamped = stampLine(line);
    } catch (const std::exception&) {
        trace("json parse exception");
        return;
    }
    try {
        enqueueLine(std::move(stamped));
    } catch (const std::exception&) {
        trace("can't queue");
    }
}

}  // namespace

std::string stampLine(const std::string& line) {
    // One scan per thread, so that its buffers serve line after line.
    static thread_local EventScan scan;
    if (scanEvent(line, scan)) {
        // The same order of reads as below: the clock, then the store.
        std::string timestamp = nowTimestamp();
        std::string upload = getUploadId();
        std::string client = getClientId();
        return writeStamped(scan, {timestamp, upload, client, userHash});
    }
    checkNesting(line);
    nlohmann::json event = nlohmann::json::parse(line);
    // operator[] turns null into an object and throws on any other
    // non-object, which drops arrays and scalars.
    event["timestamp"] = nowTimestamp();
    event["upload"] = getUploadId();
    event["client"] = getClientId();
    event["user"] = userHash;
    return event.dump();
}

void readerLoop(int fd, bool isStdin) {
    LineInput in;
    in.fd = fd;
    std::string line;
    for (;;) {
        line.clear();
        std::uint64_t passStart = nowTicks();
        std::uint64_t lineEnd = 0;
        // Wait for input only when no whole line is buffered; the wait is
        // bounded so the loop looks at its stream at least every 20 s.
        bool ready = !isStdin || fd < 0 || lineBuffered(in) || waitForInput(in, 20000);
        if (ready) {
            trace("getline now");
            getLine(in, line);
            lineEnd = nowTicks();
            trace("got a line (", line.size(), "): '", line, "'");
            if (!line.empty() && line[0] == '.' && dotCommand(line) == Pass::end) break;
        }
        timeoutShutdownTicks = timeoutShutdownSeconds / 20;
        // A last line without a newline ends the input here and is dropped.
        if (in.fail || in.bad || in.eof) {
            softRequest();
            break;
        }
        if (!line.empty()) handleEvent(line);
        std::uint64_t now = nowTicks();
        auto passMs = static_cast<std::uint32_t>(ticksToMs(passStart, now));
        if (passMs > 5) {
            trace("line time: ", passMs, " processing: ", ticksToMs(lineEnd, now));
        }
    }
    line.clear();
}

}  // namespace qv

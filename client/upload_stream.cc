#include "upload_stream.h"

#define CURL_DISABLE_DEPRECATION
#include <curl/curl.h>

#include <algorithm>

namespace qv {

bool openGzipStream(GzipStream& stream, FILE* file) {
    stream.file = file;
    // Window bits 15 + 16 asks zlib for the gzip wrapper instead of zlib's.
    stream.status =
        deflateInit2(&stream.zs, Z_DEFAULT_COMPRESSION, Z_DEFLATED, 15 + 16, 8, Z_DEFAULT_STRATEGY);
    stream.released = stream.status != Z_OK;
    return stream.status == Z_OK;
}

void releaseGzipStream(GzipStream& stream) {
    if (stream.released) return;
    deflateEnd(&stream.zs);
    stream.released = true;
}

std::size_t gzipReadCallback(char* buffer, std::size_t size, std::size_t count, void* userp) {
    auto& s = *static_cast<GzipStream*>(userp);
    if (s.finished) {
        // libcurl asks once more after the trailer: the stream is done.
        releaseGzipStream(s);
        return 0;
    }
    const std::size_t room = std::min<std::size_t>(size * count, 1u << 30);
    s.zs.next_out = reinterpret_cast<Bytef*>(buffer);
    s.zs.avail_out = static_cast<uInt>(room);
    while (s.zs.avail_out > 0) {
        if (!s.flushPending && !s.inputEnded) {
            std::size_t n = std::fread(s.block, 1, sizeof s.block, s.file);
            if (n > 0) {
                s.zs.next_in = s.block;
                s.zs.avail_in = static_cast<uInt>(n);
                s.flushPending = true;
            } else if (std::ferror(s.file)) {
                return CURL_READFUNC_ABORT;
            } else {
                s.inputEnded = true;
            }
        }
        s.status = deflate(&s.zs, s.inputEnded ? Z_FINISH : Z_SYNC_FLUSH);
        if (s.status == Z_STREAM_END) {
            s.finished = true;
            break;
        }
        if (s.status == Z_BUF_ERROR) {
            // The previous flush had completed exactly at the end of the
            // last buffer: nothing was left to do for it.
            s.flushPending = false;
            continue;
        }
        if (s.status != Z_OK) return CURL_READFUNC_ABORT;
        // A flush is complete once deflate leaves output space unused; all
        // of the block has then been taken.
        if (s.zs.avail_out > 0) s.flushPending = false;
    }
    std::size_t produced = room - s.zs.avail_out;
    if (produced == 0 && s.finished) releaseGzipStream(s);
    return produced;
}

std::size_t replyWriteCallback(char* data, std::size_t size, std::size_t count, void* userp) {
    auto& reply = *static_cast<std::string*>(userp);
    const std::size_t n = size * count;
    if (reply.size() < maxReplyBytes) reply.append(data, std::min(n, maxReplyBytes - reply.size()));
    return n;
}

}  // namespace qv

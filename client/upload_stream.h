#pragma once

// The events part of the upload, compressed while libcurl reads it.
//
// The send file is read in blocks of gzipBlockSize bytes and each block is
// deflated with a sync flush, so the body is one gzip stream made of flushed
// blocks and neither the file nor its compressed form is ever held whole in
// memory. Used by one transfer on the worker thread.

#include <zlib.h>

#include <cstddef>
#include <cstdio>
#include <string>

namespace qv {

inline constexpr std::size_t gzipBlockSize = 16384;

struct GzipStream {
    z_stream zs{};
    int status = Z_OK;  // last result of deflate
    FILE* file = nullptr;
    unsigned char block[gzipBlockSize];
    bool flushPending = false;  // input handed to deflate, flush not complete
    bool inputEnded = false;    // the file has given its last byte
    bool finished = false;      // Z_STREAM_END seen
    bool released = false;      // deflateEnd done
};

// deflateInit2 for a gzip wrapper at the default level. False if zlib
// refuses (out of memory).
bool openGzipStream(GzipStream& stream, FILE* file);

// Releases zlib's state if the read callback did not get to the end, as
// after an aborted transfer.
void releaseGzipStream(GzipStream& stream);

// libcurl read callback; `userp` is the GzipStream. Fills libcurl's buffer
// with compressed bytes. Input that deflate cannot place in this buffer is
// kept for the next call rather than dropped. Returns 0 once the gzip
// trailer has gone out, and aborts the transfer on a read or zlib error.
std::size_t gzipReadCallback(char* buffer, std::size_t size, std::size_t count, void* userp);

// libcurl write callback; `userp` is a std::string that collects the reply.
// A reply beyond maxReplyBytes is cut there: the client only wants a few
// small settings from it.
inline constexpr std::size_t maxReplyBytes = 1 << 20;
std::size_t replyWriteCallback(char* data, std::size_t size, std::size_t count, void* userp);

}  // namespace qv

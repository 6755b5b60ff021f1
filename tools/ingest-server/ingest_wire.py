"""Strict reading of one upload request: HTTP head, chunked body, multipart
parts and the gzip stream of the events.

Every deviation from what the client must send raises WireError with a text
that names it, so that a test sees the first wrong byte, not a vague 400.
"""

import hashlib
import json
import re
import zlib

MAX_HEAD_LINE = 8192
MAX_HEAD_LINES = 100

EVENT_PART = {
    "content-disposition":
        'form-data; name="eventdata"; filename="qvclientevents.gz"',
    "content-type": "application/octet-stream",
}
HEADER_PART = {
    "content-disposition":
        'form-data; name="headerdata"; filename="qvclientheader.json"',
    "content-type": "text/json",
}


class WireError(Exception):
    pass


def _read_line(rfile, what):
    line = rfile.readline(MAX_HEAD_LINE + 1)
    if not line:
        raise WireError(f"connection ended in {what}")
    if len(line) > MAX_HEAD_LINE:
        raise WireError(f"{what} line too long")
    if not line.endswith(b"\r\n"):
        raise WireError(f"{what} line not ended by CRLF: {line[:80]!r}")
    return line[:-2]


def read_head(rfile):
    """Returns (method, target, version, [(name, value), ...])."""
    request = _read_line(rfile, "request line").decode("latin-1")
    parts = request.split(" ")
    if len(parts) != 3:
        raise WireError(f"bad request line {request!r}")
    headers = []
    while True:
        line = _read_line(rfile, "header").decode("latin-1")
        if line == "":
            break
        if len(headers) >= MAX_HEAD_LINES:
            raise WireError("too many header lines")
        name, sep, value = line.partition(":")
        if not sep or name != name.strip() or not name:
            raise WireError(f"bad header line {line!r}")
        headers.append((name, value.strip()))
    return parts[0], parts[1], parts[2], headers


def header_values(headers, name):
    return [v for n, v in headers if n.lower() == name.lower()]


def check_head(method, target, version, headers):
    """Checks the request's head; returns the multipart boundary."""
    if (method, target, version) != ("POST", "/events", "HTTP/1.1"):
        raise WireError(f"unexpected request {method} {target} {version}")
    if len(header_values(headers, "Host")) != 1:
        raise WireError("Host header missing or repeated")
    if header_values(headers, "Transfer-Encoding") != ["chunked"]:
        raise WireError("Transfer-Encoding is not exactly one 'chunked'")
    if header_values(headers, "Content-Length"):
        raise WireError("Content-Length sent beside chunked encoding")
    types = header_values(headers, "Content-Type")
    if len(types) != 1:
        raise WireError("Content-Type missing or repeated")
    m = re.fullmatch(r"multipart/form-data; boundary=([0-9A-Za-z'()+_,\-./:=?]{1,70})",
                     types[0])
    if not m:
        raise WireError(f"Content-Type not multipart/form-data: {types[0]!r}")
    return m.group(1).encode("ascii")


def read_chunked(rfile, limit, on_first_chunk=None):
    """Reads a chunked body strictly; returns (body, chunk count)."""
    body = bytearray()
    chunks = 0
    while True:
        size_line = _read_line(rfile, "chunk size").decode("latin-1")
        if not re.fullmatch(r"[0-9a-fA-F]{1,16}", size_line):
            raise WireError(f"bad chunk size line {size_line!r}")
        size = int(size_line, 16)
        if size == 0:
            break
        if len(body) + size > limit:
            raise WireError("body larger than the server accepts")
        data = rfile.read(size)
        if len(data) != size:
            raise WireError("connection ended inside a chunk")
        body += data
        chunks += 1
        if chunks == 1 and on_first_chunk:
            on_first_chunk()
        if rfile.read(2) != b"\r\n":
            raise WireError("chunk data not followed by CRLF")
    if _read_line(rfile, "trailer") != b"":
        raise WireError("trailer fields after the last chunk")
    return bytes(body), chunks


def split_multipart(body, boundary):
    """Returns the parts as [(headers dict with lower-case names, content)]."""
    dash = b"--" + boundary
    if not body.startswith(dash + b"\r\n"):
        raise WireError("body does not open with the boundary")
    parts = []
    pos = len(dash) + 2
    delimiter = b"\r\n" + dash
    while True:
        head_end = body.find(b"\r\n\r\n", pos)
        if head_end < 0:
            raise WireError("part headers not ended")
        headers = {}
        for line in body[pos:head_end].split(b"\r\n"):
            name, sep, value = line.decode("latin-1").partition(":")
            if not sep:
                raise WireError(f"bad part header {line[:80]!r}")
            if name.lower() in headers:
                raise WireError(f"repeated part header {name}")
            headers[name.lower()] = value.strip()
        content_start = head_end + 4
        end = body.find(delimiter, content_start)
        if end < 0:
            raise WireError("part content not closed by the boundary")
        parts.append((headers, body[content_start:end]))
        pos = end + len(delimiter)
        tail = body[pos:pos + 2]
        if tail == b"\r\n":
            pos += 2
            continue
        if tail == b"--":
            if body[pos + 2:] != b"\r\n":
                raise WireError("bytes after the closing boundary")
            return parts
        raise WireError("boundary followed by neither CRLF nor --")


def check_parts(parts):
    """Returns (compressed events, header bytes)."""
    if len(parts) != 2:
        raise WireError(f"{len(parts)} parts instead of 2")
    for (headers, _), expected, n in ((parts[0], EVENT_PART, 1),
                                      (parts[1], HEADER_PART, 2)):
        if headers != expected:
            raise WireError(f"part {n} headers {headers} instead of {expected}")
    return parts[0][1], parts[1][1]


def gunzip(compressed, sink):
    """Decompresses one complete gzip member, passing pieces to sink.

    Returns a summary: sizes, line count, digest, and how many sync-flush
    markers the stream holds (an approximate count: the four bytes may also
    occur by chance inside compressed data)."""
    d = zlib.decompressobj(31)
    digest = hashlib.sha256()
    size = 0
    lines = 0
    step = 1 << 20
    try:
        for i in range(0, len(compressed), step):
            piece = d.decompress(compressed[i:i + step])
            size += len(piece)
            lines += piece.count(b"\n")
            digest.update(piece)
            sink(piece)
        piece = d.flush()
    except zlib.error as e:
        raise WireError(f"eventdata is not a valid gzip stream: {e}") from e
    size += len(piece)
    lines += piece.count(b"\n")
    digest.update(piece)
    sink(piece)
    if not d.eof:
        raise WireError("gzip stream not finished")
    if d.unused_data:
        raise WireError("bytes after the gzip stream")
    return {
        "compressed_bytes": len(compressed),
        "event_bytes": size,
        "event_lines": lines,
        "sha256": digest.hexdigest(),
        "sync_markers": compressed.count(b"\x00\x00\xff\xff"),
    }


def parse_header(raw):
    try:
        value = json.loads(raw.decode("utf-8"))
    except (UnicodeDecodeError, ValueError) as e:
        raise WireError(f"headerdata is not JSON: {e}") from e
    if not isinstance(value, dict):
        raise WireError("headerdata is not a JSON object")
    return value

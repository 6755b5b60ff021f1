#!/usr/bin/env python3
"""Loopback HTTPS ingest server for the client's uploads.

Accepts POST /events over TLS on 127.0.0.1, checks the request strictly
(chunked body, the two multipart parts with their names, file names and
content types, one complete gzip stream), stores every upload as files and
answers with a configurable reply. Faults for tests:

  ok      read, check, store, reply with --status and --reply
  refuse  hold the port without listening: connections are refused
  silent  accept the TCP connection and never speak (no TLS handshake)
  reset   read the head and the first chunk of the body, then reset
  drop    read, check and store the upload, then close without a reply

A control file (--control), read at every connection, may override mode,
status and reply, and may hold "cycle": a list of such objects applied to
connection n as cycle[n % len(cycle)]. Each stored upload is a folder
<store>/upload-NNNNNN with meta.json, header.json and events.txt (the
gunzipped events). Every connection is also listed in <store>/connections.log.
"""

import argparse
import http
import json
import os
import socket
import ssl
import struct
import sys
import threading
import time

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import ingest_certs  # noqa: E402
import ingest_wire  # noqa: E402
from ingest_wire import WireError  # noqa: E402

MAX_BODY = 2 << 30
MODES = ("ok", "refuse", "silent", "reset", "drop")


class ResetNow(Exception):
    pass


class Server:
    def __init__(self, args, tls):
        self.args = args
        self.tls = tls
        self.lock = threading.Lock()
        self.connections = 0

    def behaviour(self, index):
        result = {"mode": self.args.mode, "status": self.args.status,
                  "reply": self.args.reply}
        if self.args.control and os.path.exists(self.args.control):
            with open(self.args.control, encoding="utf-8") as f:
                control = json.load(f)
            cycle = control.pop("cycle", None)
            result.update(control)
            if cycle:
                result.update(cycle[index % len(cycle)])
        if result["mode"] not in MODES:
            raise ValueError(f"unknown mode {result['mode']}")
        return result

    def log_connection(self, index, text):
        with self.lock:
            with open(os.path.join(self.args.store, "connections.log"), "a",
                      encoding="utf-8") as f:
                f.write(f"{index} {text}\n")

    def serve(self, listener):
        while True:
            conn, _ = listener.accept()
            with self.lock:
                index = self.connections
                self.connections += 1
            threading.Thread(target=self.connection, args=(conn, index),
                             daemon=True).start()

    def connection(self, conn, index):
        try:
            how = self.behaviour(index)
            self.log_connection(index, how["mode"])
            if how["mode"] == "silent":
                hold_silently(conn)
                return
            conn.settimeout(60)
            with self.tls.wrap_socket(conn, server_side=True) as tls:
                self.exchange(tls, index, how)
        except (OSError, ssl.SSLError, ValueError) as e:
            self.log_connection(index, f"ended: {type(e).__name__}: {e}")
        finally:
            conn.close()

    def exchange(self, tls, index, how):
        rfile = tls.makefile("rb")
        meta = {"connection": index, "mode": how["mode"],
                "status": how["status"], "reply": how["reply"]}
        folder = os.path.join(self.args.store, f"upload-{index:06d}")
        work = folder + ".part"
        os.makedirs(work)
        try:
            method, target, version, headers = ingest_wire.read_head(rfile)
            meta["request_headers"] = headers
            boundary = ingest_wire.check_head(method, target, version, headers)
            if ingest_wire.header_values(headers, "Expect") == ["100-continue"]:
                tls.sendall(b"HTTP/1.1 100 Continue\r\n\r\n")

            def reset_now():
                raise ResetNow()
            body, chunks = ingest_wire.read_chunked(
                rfile, MAX_BODY, reset_now if how["mode"] == "reset" else None)
            meta["chunks"] = chunks
            if self.args.answer_first and how["mode"] == "ok":
                # The sender's time then covers the transfer alone, not
                # this server's decompression.
                self.answer(tls, index, how)
                how = dict(how, mode="answered")
            compressed, raw_header = ingest_wire.check_parts(
                ingest_wire.split_multipart(body, boundary))
            with open(os.path.join(work, "header.json"), "wb") as f:
                f.write(raw_header)
            header = ingest_wire.parse_header(raw_header)
            meta["header_keys"] = list(header.keys())
            meta["uploadid"] = header.get("uploadid")
            events_name = os.path.join(work, "events.txt")
            with open(events_name if self.args.keep_events else os.devnull,
                      "wb") as events:
                meta.update(ingest_wire.gunzip(compressed, events.write))
            meta["valid"] = True
        except ResetNow:
            rfile.close()
            reset(tls)
            self.log_connection(index, "reset inside the body")
            os.rmdir(work)
            return
        except WireError as e:
            meta["valid"] = False
            meta["problem"] = str(e)
            if how["mode"] != "answered":
                how = dict(how, mode="ok", status=400,
                           reply=json.dumps({"error": str(e)}))
        with open(os.path.join(work, "meta.json"), "w", encoding="utf-8") as f:
            json.dump(meta, f, indent=1)
        os.rename(work, folder)
        if how["mode"] == "drop":
            self.log_connection(index, "stored, reply dropped")
        elif how["mode"] != "answered":
            self.answer(tls, index, how)

    def answer(self, tls, index, how):
        reply = how["reply"].encode("utf-8")
        phrase = http.HTTPStatus(how["status"]).phrase
        tls.sendall(f"HTTP/1.1 {how['status']} {phrase}\r\n"
                    f"Content-Type: application/json\r\n"
                    f"Content-Length: {len(reply)}\r\n"
                    f"Connection: close\r\n\r\n".encode("latin-1") + reply)
        self.log_connection(index, f"answered {how['status']}")


def hold_silently(conn):
    """Keeps a connection open without a byte of TLS until the peer leaves."""
    conn.settimeout(120)
    try:
        while conn.recv(4096):
            pass
    except OSError:
        pass


def reset(tls):
    """Drops the connection with a TCP reset, as a crashing server would."""
    tls.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
    tls.close()


def write_port_file(path, port):
    tmp = path + ".tmp"
    with open(tmp, "w", encoding="ascii") as f:
        f.write(f"{port}\n")
    os.rename(tmp, path)


def main():
    p = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    p.add_argument("--cert-dir", required=True,
                   help="CA and server certificate; created if missing")
    p.add_argument("--make-certs", action="store_true",
                   help="only create the certificates, then end")
    p.add_argument("--store", help="folder for the stored uploads")
    p.add_argument("--port", type=int, default=0)
    p.add_argument("--port-file", help="written with the port once ready")
    p.add_argument("--mode", default="ok", choices=MODES)
    p.add_argument("--status", type=int, default=200)
    p.add_argument("--reply", default="{}")
    p.add_argument("--control", help="JSON file read at every connection")
    p.add_argument("--no-event-files", dest="keep_events",
                   action="store_false",
                   help="check and count the events but do not store them")
    p.add_argument("--answer-first", action="store_true",
                   help="answer once the body is in, then check and store it")
    args = p.parse_args()

    _, cert, key = ingest_certs.ensure_certs(args.cert_dir)
    if args.make_certs:
        return
    if not args.store:
        p.error("--store is required")
    os.makedirs(args.store, exist_ok=True)

    tls = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
    tls.load_cert_chain(cert, key)
    listener = socket.socket(socket.AF_INET, socket.SOCK_STREAM)
    listener.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
    listener.bind(("127.0.0.1", args.port))
    port = listener.getsockname()[1]
    if args.mode != "refuse":
        listener.listen(64)
    if args.port_file:
        write_port_file(args.port_file, port)
    print(f"ingest server on https://127.0.0.1:{port}/events", flush=True)
    if args.mode == "refuse":
        # Bound but not listening: the kernel answers every SYN with a reset.
        while True:
            time.sleep(3600)
    Server(args, tls).serve(listener)


if __name__ == "__main__":
    main()

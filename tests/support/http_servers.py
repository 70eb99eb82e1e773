#!/usr/bin/env python3
# HTTP and HTTPS servers on the loopback interface, for tests of what a client makes of their answers.
#   http_servers.py FOLDER
# Makes certificates in FOLDER, ca.pem that of the authority, then prints a line NAME PORT for each server and one more,
# "ready 0", and serves until it is killed, as the end of a sandbox does. Request lines are written to FOLDER/requests.
#   http    answers a path with the status that it names (/404), or as a function below does
#   mute    takes connections and says nothing
#   https, wrong_host, expired, stranger   as http, the last with a certificate that the authority did not sign
import http.server
import os
import socket
import ssl
import struct
import subprocess
import sys
import threading
import time


def openssl(*arguments):
    subprocess.run(["openssl", *arguments], check=True, stderr=subprocess.DEVNULL)


def request(name, *options):
    openssl("req", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-nodes", "-subj", "/CN=" + name,
            "-keyout", name + ".key", *options)


def signed(name, days, names):
    request(name, "-out", name + ".csr", "-addext", "subjectAltName=" + names)
    openssl("x509", "-req", "-in", name + ".csr", "-CA", "ca.pem", "-CAkey", "ca.key", "-CAcreateserial", "-days", days,
            "-copy_extensions", "copyall", "-out", name + ".pem")


class Handler(http.server.BaseHTTPRequestHandler):
    protocol_version = "HTTP/1.1"

    def do_HEAD(self):
        print(self.requestline, file=requests, flush=True)
        getattr(self, self.path[1:], self.answer)()

    do_GET = do_HEAD

    def answer(self):
        self.send_response(int(self.path[1:]) if self.path[1:].isdigit() else 200)
        self.send_header("Location", "/200")
        self.end_headers()

    def slow(self):
        time.sleep(2)
        self.answer()

    def body(self):  # though none was asked for
        self.answer()
        self.wfile.write(b"body" * 10000)

    def reset(self):
        self.connection.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
        self.close()

    def close(self):
        self.close_connection = True
        self.connection.close()

    def garbage(self):
        self.wfile.write(b"220 no web here\r\n")
        self.close()

    def drip(self):
        self.wfile.write(b"HTTP/1.1 200 OK\r\nX: ")
        while True:
            self.wfile.write(b"x")
            time.sleep(0.5)

    def log_message(self, *_):
        pass


def serve(name, secure=True):
    server = http.server.ThreadingHTTPServer(("127.0.0.1", 0), Handler)
    server.handle_error = lambda *_: None  # clients go as they like
    if secure:
        context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
        context.load_cert_chain(name + ".pem", name + ".key")
        server.socket = context.wrap_socket(server.socket, server_side=True, do_handshake_on_connect=False)
    threading.Thread(target=server.serve_forever, daemon=True).start()
    print(name, server.server_address[1])


os.chdir(sys.argv[1])
request("ca", "-x509", "-days", "2", "-out", "ca.pem")
signed("https", "2", "IP:127.0.0.1,DNS:localhost")
signed("wrong_host", "2", "DNS:elsewhere.invalid")
signed("expired", "-1", "IP:127.0.0.1")
request("stranger", "-x509", "-days", "2", "-out", "stranger.pem", "-addext", "subjectAltName=IP:127.0.0.1")
requests = open("requests", "w", encoding="ascii")
serve("http", secure=False)
for secure in ("https", "wrong_host", "expired", "stranger"):
    serve(secure)
mute = socket.create_server(("127.0.0.1", 0))
print("mute", mute.getsockname()[1])
print("ready 0", flush=True)
threading.Event().wait()

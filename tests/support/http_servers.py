#!/usr/bin/env python3
"""HTTP and HTTPS servers on the loopback interface, for tests of what a client makes of their answers.

  http_servers.py FOLDER

Makes certificates in FOLDER, ca.pem that of the authority, then prints a line NAME PORT for each server and one more,
"ready 0", and serves until it is killed, as the end of a sandbox does. Request lines are written to FOLDER/requests.

  http    answers a path with the status that it names (/404), or as a function below does
  mute    takes connections and says nothing
  https, wrong_host, expired, stranger   as http, the last with a certificate that the authority did not sign
"""
import http.server
import socket
import ssl
import struct
import subprocess
import sys
import threading
import time

folder = sys.argv[1]


def openssl(*arguments):
    subprocess.run(["openssl", *arguments], cwd=folder, check=True, stderr=subprocess.DEVNULL)


def request(name, *options):
    openssl("req", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-nodes", "-subj", "/CN=" + name,
            "-keyout", name + ".key", *options)


def signed(name, days, names):
    request(name, "-out", name + ".csr")
    with open(f"{folder}/{name}.ext", "w", encoding="ascii") as extensions:
        extensions.write(f"subjectAltName={names}\n")
    openssl("x509", "-req", "-in", name + ".csr", "-CA", "ca.pem", "-CAkey", "ca.key", "-CAcreateserial", "-days", days,
            "-extfile", name + ".ext", "-out", name + ".pem")


class Handler(http.server.BaseHTTPRequestHandler):
    protocol_version = "HTTP/1.1"

    def do_HEAD(self):
        path = self.path[1:]
        if path.isdigit():
            self.send_response(int(path))
            self.send_header("Location", "/200")
            self.end_headers()
        else:
            getattr(self, path)()

    do_GET = do_HEAD

    def slow(self):
        time.sleep(2)
        self.path = "/200"
        self.do_HEAD()

    def body(self):  # though none was asked for
        self.path = "/200"
        self.do_HEAD()
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

    def log_request(self, *_):
        pass

    def log_message(self, *_):
        pass

    def parse_request(self):
        parsed = super().parse_request()
        if parsed:
            with open(f"{folder}/requests", "a", encoding="ascii") as requests:
                requests.write(self.requestline + "\n")
        return parsed


class Server(http.server.ThreadingHTTPServer):
    def handle_error(self, *_):
        pass  # clients go as they like


def serve(name, secure=True):
    server = Server(("127.0.0.1", 0), Handler)
    if secure:
        context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
        context.load_cert_chain(f"{folder}/{name}.pem", f"{folder}/{name}.key")
        server.socket = context.wrap_socket(server.socket, server_side=True, do_handshake_on_connect=False)
    threading.Thread(target=server.serve_forever, daemon=True).start()
    print(name, server.server_address[1])


request("ca", "-x509", "-days", "2", "-out", "ca.pem")
signed("https", "2", "IP:127.0.0.1,DNS:localhost")
signed("wrong_host", "2", "DNS:elsewhere.invalid")
signed("expired", "-1", "IP:127.0.0.1")
request("stranger", "-x509", "-days", "2", "-out", "stranger.pem", "-addext", "subjectAltName=IP:127.0.0.1")
open(f"{folder}/requests", "wb").close()
serve("http", secure=False)
for secure in ("https", "wrong_host", "expired", "stranger"):
    serve(secure)
mute = socket.create_server(("127.0.0.1", 0))
print("mute", mute.getsockname()[1])
print("ready 0", flush=True)
threading.Event().wait()

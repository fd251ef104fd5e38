"""`fontrix serve` run for a test: on a free port of 127.0.0.1, with a cache folder of the test's
own, asked over HTTP as a browser asks it."""
import http.client
import json
import os
import signal
import struct
import subprocess
import time
import urllib.parse
import zlib


def grey_png(width, height, value=255):
    """A PNG of one grey value, made here so that no picture file is needed."""
    def chunk(kind, data):
        return struct.pack(">I", len(data)) + kind + data + struct.pack(">I", zlib.crc32(kind + data))
    rows = b"".join(b"\x00" + bytes([value]) * width for _ in range(height))
    return (b"\x89PNG\r\n\x1a\n" + chunk(b"IHDR", struct.pack(">IIBBBBB", width, height, 8, 0, 0, 0, 0))
            + chunk(b"IDAT", zlib.compress(rows, 9)) + chunk(b"IEND", b""))


class Server:
    """The server, started by start() and stopped by stop() (Ctrl-C, as a user stops it)."""

    def __init__(self, fontrix, cache, *args):
        self.fontrix, self.cache, self.args = fontrix, cache, args
        self.env = {k: v for k, v in os.environ.items() if not k.startswith("FONTRIX_")}
        self.env["FONTRIX_CACHE_DIR"] = cache
        self.process = None

    def tool(self, *args):
        """The tool's own --json answer, from the same cache."""
        done = subprocess.run([self.fontrix, *args, "--json"], capture_output=True, text=True, timeout=600,
                              env=self.env)
        if done.returncode:
            raise AssertionError("fontrix %s failed: %s" % (" ".join(args), done.stderr))
        return json.loads(done.stdout)

    def start(self):
        command = [self.fontrix, "serve", "--port", "0", *self.args]
        self.process = subprocess.Popen(command, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True,
                                        env=self.env)
        line = self.process.stdout.readline().strip()
        if not line.startswith("http://"):
            self.process.kill()
            raise AssertionError("fontrix serve did not start: %r %s" % (line, self.process.stderr.read()))
        self.url = line
        parts = urllib.parse.urlsplit(line)
        self.host, self.port = parts.hostname, parts.port
        return self

    def stop(self):
        """Stops the server as Ctrl-C does; its exit status and what it said on standard error."""
        self.process.send_signal(signal.SIGINT)
        try:
            _, err = self.process.communicate(timeout=120)
        except subprocess.TimeoutExpired:
            self.process.kill()
            _, err = self.process.communicate()
        return self.process.returncode, err

    def request(self, method, path, body=None, headers=None):
        """(status, content type, body bytes); `headers` may replace Host."""
        connection = http.client.HTTPConnection(self.host, self.port, timeout=120)
        headers = dict(headers or {})
        try:
            connection.putrequest(method, path, skip_host="Host" in headers, skip_accept_encoding=True)
            for key, value in headers.items():
                connection.putheader(key, value)
            if body is not None:
                connection.putheader("Content-Length", str(len(body)))
            connection.endheaders()
            if body is not None:
                try:
                    connection.send(body)
                except (BrokenPipeError, ConnectionResetError):
                    pass  # refused before the whole body went: the answer is still there to read
            response = connection.getresponse()
            return response.status, response.getheader("Content-Type"), response.read()
        finally:
            connection.close()

    def get_json(self, path, **params):
        status, _, body = self.request("GET", path + ("?" + urllib.parse.urlencode(params, doseq=True)
                                                      if params else ""))
        return status, json.loads(body)

    def wait_ready(self, seconds=1200):
        """The progress answers until the module has taken in every font."""
        seen = []
        deadline = time.time() + seconds
        while time.time() < deadline:
            status, progress = self.get_json("/api/progress")
            seen.append(progress)
            if progress["ready"]:
                return seen
            time.sleep(0.2)
        raise AssertionError("the server was not ready after %d s: %s" % (seconds, seen[-1]))

"""The file service as a subprocess on loopback, and small clients for it."""
import base64
import copy
import hashlib
import http.client
import json
import os
import resource
import select
import shutil
import signal
import ssl
import subprocess
import tempfile
import time
from urllib.parse import urlsplit

import pytest

SERVICE = os.path.join(os.path.dirname(os.path.dirname(os.path.abspath(__file__))), "zt-fileservice")
TIMEOUT = 20  # seconds any single wait may take
IDENTIFIER = "0123456789abcdef0123456789abcdef"


class Service:
    def __init__(self, root, log_path, options, prefix=(), descriptors=None):
        self.root = root
        self.log_path = log_path
        self.options = list(options)
        self.prefix = list(prefix)          # a command the service runs under
        self.descriptors = descriptors      # (soft, hard) limit of open files
        self.process = None
        self.url = None
        self.source = None                  # the address requests come from
        self.headers = {}                   # sent with every request
        self.tls = None

    def start(self):
        os.makedirs(self.root, exist_ok=True)
        limit = self.descriptors and (lambda: resource.setrlimit(resource.RLIMIT_NOFILE, self.descriptors))
        with open(self.log_path, "ab") as log:
            self.process = subprocess.Popen(
                [*self.prefix, "/usr/bin/python3", "-B", SERVICE, "--root", self.root, "--port", "0",
                 *self.options], stdout=subprocess.PIPE, stderr=log, preexec_fn=limit or None)
        line, deadline = b"", time.monotonic() + TIMEOUT
        fd = self.process.stdout.fileno()
        while not line.endswith(b"\n"):
            remaining = deadline - time.monotonic()
            if remaining <= 0 or not select.select([fd], [], [], remaining)[0]:
                break
            piece = os.read(fd, 256)
            if not piece:
                break
            line += piece
        self.url = line.decode(errors="replace").strip()
        if not self.url.startswith(("http://127.0.0.1:", "https://127.0.0.1:")):
            self.stop()
            raise AssertionError("service did not start (%r): %s" % (self.url, self.log()))
        parts = urlsplit(self.url)
        self.host, self.port = parts.hostname, parts.port
        if parts.scheme == "https":
            self.tls = ssl.create_default_context(cafile=self.options[self.options.index("--tls-cert") + 1])
        return self

    def client(self, address=None, token=None):
        """The same service as seen by another client: from another loopback
        address, with a token."""
        other = copy.copy(self)
        other.source = address
        other.headers = {"Authorization": "Bearer " + token} if token else {}
        return other

    def stop(self, signum=signal.SIGTERM):
        """Stops the service; returns its exit code."""
        if self.process is None:
            return None
        if self.process.poll() is None:
            self.process.send_signal(signum)
            try:
                self.process.wait(timeout=TIMEOUT)
            except subprocess.TimeoutExpired:
                self.process.kill()
                self.process.wait(timeout=TIMEOUT)
        self.process.stdout.close()
        return self.process.returncode

    def log(self):
        with open(self.log_path, "rb") as f:
            return f.read().decode(errors="replace")

    def connect(self):
        source = (self.source, 0) if self.source else None
        if self.tls:
            return http.client.HTTPSConnection(self.host, self.port, timeout=TIMEOUT,
                                               source_address=source, context=self.tls)
        return http.client.HTTPConnection(self.host, self.port, timeout=TIMEOUT, source_address=source)

    def request(self, method, path, body=None, headers=None):
        """One request on a fresh connection: (status, headers, body)."""
        connection = self.connect()
        try:
            connection.request(method, path, body=body, headers=dict(self.headers, **(headers or {})))
            response = connection.getresponse()
            return response.status, response.headers, response.read()
        finally:
            connection.close()

    def call(self, path, body, headers=None):
        """A JSON endpoint: (status word, result)."""
        raw = body if isinstance(body, bytes) else json.dumps(body).encode()
        status, _, data = self.request("POST", path, raw, headers)
        assert status == 200, data
        answer = json.loads(data)
        return answer["status"], answer["result"]

    def put_file(self, name, content):
        with open(os.path.join(self.root, name), "wb") as f:
            f.write(content)

    def stored(self, name):
        with open(os.path.join(self.root, name), "rb") as f:
            return f.read()

    # Uploads

    def info(self, name, size, identifier=IDENTIFIER):
        status, result = self.call("/upload/info", {"fileName": name, "fileMD5": identifier,
                                                    "fileSize": size, "contentType": "x/y"})
        assert status == "success", result
        return result

    def send_part(self, chunk, data, md5=None, headers=None):
        """Posts data to a chunk descriptor's url with its headers; returns the status."""
        sent = dict(chunk["headers"])
        sent["fileMD5"] = md5 if md5 is not None else md5_header(data)
        sent["Content-Type"] = "application/json"  # what the plugin sends, whatever the bytes
        sent.update(headers or {})
        return self.request("POST", path_of(self, chunk["url"]), data, sent)[0]

    def upload(self, name, content, chunk_size, identifier=IDENTIFIER):
        """Sends every part info asks for and completes: (status word, result)."""
        for chunk in self.info(name, len(content), identifier)["uploadInfo"]["chunks"]:
            number = part_number(chunk)
            piece = content[(number - 1) * chunk_size:number * chunk_size]
            assert self.send_part(chunk, piece) == 200
        return self.complete(name, identifier)

    def complete(self, name, identifier=IDENTIFIER):
        return self.call("/upload/complete", {"fileName": name, "fileMD5": identifier})


def md5_header(data):
    return base64.b64encode(hashlib.md5(data).digest()).decode()


def sha256(data):
    return hashlib.sha256(data).hexdigest()


def repr_digest(data):
    return "sha-256=:%s:" % base64.b64encode(hashlib.sha256(data).digest()).decode()


def part_number(chunk):
    return int(chunk["url"].rsplit("partNumber=", 1)[1])


def path_of(service, url):
    assert url.startswith(service.url), url
    return url[len(service.url):]


@pytest.fixture
def scratch():
    folder = tempfile.mkdtemp(prefix="zt-fileservice-test-")
    yield folder
    shutil.rmtree(folder, ignore_errors=True)


@pytest.fixture
def make_service(scratch):
    """make_service(*options, root=None, prefix=(), descriptors=None): a started
    service, stopped after the test."""
    started = []

    def make(*options, root=None, prefix=(), descriptors=None):
        log = os.path.join(scratch, "service-%d.log" % len(started))
        service = Service(root or os.path.join(scratch, "root"), log, options, prefix, descriptors)
        started.append(service)
        return service.start()
    yield make
    for service in started:
        service.stop()


@pytest.fixture
def service(make_service):
    """A service with 8-byte parts."""
    return make_service("--chunk-size", "8")


@pytest.fixture(scope="module")
def shared():
    """One service for a module's tests that change nothing it stores."""
    folder = tempfile.mkdtemp(prefix="zt-fileservice-test-")
    service = Service(os.path.join(folder, "root"), os.path.join(folder, "service.log"),
                      ["--chunk-size", "8"])
    try:
        yield service.start()
    finally:
        service.stop()
        shutil.rmtree(folder, ignore_errors=True)

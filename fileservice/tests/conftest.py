import base64
import hashlib
import http.client
import json
import os
import subprocess
import tempfile
import shutil
from urllib.parse import urlsplit

import pytest

SERVICE = os.path.join(os.path.dirname(os.path.dirname(os.path.abspath(__file__))), "zt-fileservice")


class Service:
    """The file service as a subprocess on loopback, port 0."""

    def __init__(self, root, *options):
        self.root = root
        self.options = list(options)
        self.process = None
        self.url = None

    def start(self):
        self.process = subprocess.Popen(
            ["/usr/bin/python3", "-B", SERVICE, "--root", self.root, "--port", "0", *self.options],
            stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True)
        self.url = self.process.stdout.readline().strip()
        assert self.url.startswith("http://127.0.0.1:"), "service did not start"
        return self

    def stop(self):
        if self.process and self.process.poll() is None:
            self.process.terminate()
            try:
                self.process.wait(timeout=10)
            except subprocess.TimeoutExpired:
                self.process.kill()
                self.process.wait(timeout=10)
        return self.process.returncode if self.process else None

    def request(self, method, path, body=b"", headers=None):
        parts = urlsplit(self.url)
        connection = http.client.HTTPConnection(parts.hostname, parts.port, timeout=30)
        try:
            connection.request(method, path, body=body, headers=headers or {})
            response = connection.getresponse()
            return response.status, dict(response.getheaders()), response.read()
        finally:
            connection.close()

    def call(self, path, body, headers=None):
        """A JSON endpoint: returns (status word, result)."""
        raw = body if isinstance(body, bytes) else json.dumps(body).encode()
        status, _, data = self.request("POST", path, raw, headers)
        assert status == 200
        answer = json.loads(data)
        return answer["status"], answer["result"]

    def put_file(self, name, content):
        with open(os.path.join(self.root, name), "wb") as f:
            f.write(content)


@pytest.fixture
def root():
    folder = tempfile.mkdtemp(prefix="zt-fileservice-")
    yield folder
    shutil.rmtree(folder, ignore_errors=True)


@pytest.fixture
def make_service(root):
    started = []

    def make(*options, folder=None):
        service = Service(folder or root, *options).start()
        started.append(service)
        return service
    yield make
    for service in started:
        service.stop()


@pytest.fixture
def service(make_service):
    return make_service("--chunk-size", "8")


def md5_header(data):
    return base64.b64encode(hashlib.md5(data).digest()).decode()


def send_part(service, chunk, data, md5=None):
    path = chunk["url"][len(service.url):]
    headers = dict(chunk["headers"])
    headers["fileMD5"] = md5 if md5 is not None else md5_header(data)
    status, _, _ = service.request("POST", path, data, headers)
    return status



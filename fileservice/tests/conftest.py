"""The file service in this process (aiohttp's test server) or as a child process, and clients. Tests may be async."""
import asyncio
import base64
import contextlib
import hashlib
import inspect
import json
import logging
import os
import pathlib
import sys
import time
from urllib.parse import quote

import aiohttp
import pytest
from aiohttp.test_utils import TestServer

sys.path.insert(0, os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
from ztfileservice.launcher import ServiceProcess  # noqa: E402
from ztfileservice.server import FileService, make_app  # noqa: E402
from ztfileservice.store import Store  # noqa: E402

TIMEOUT = 20  # seconds any single wait may take
IDENTIFIER = "0123456789abcdef0123456789abcdef"


@pytest.hookimpl(tryfirst=True)
def pytest_pyfunc_call(pyfuncitem):
    if not inspect.iscoroutinefunction(pyfuncitem.obj):
        return None
    arguments = {name: pyfuncitem.funcargs[name] for name in inspect.signature(pyfuncitem.obj).parameters}
    pyfuncitem.funcargs["loop"].run_until_complete(asyncio.wait_for(pyfuncitem.obj(**arguments), 3 * TIMEOUT))
    return True


@pytest.fixture(autouse=True)
def loop():
    loop = asyncio.new_event_loop()
    yield loop

    # Connections a test left open (a lingering body, a client gone quiet) end with it.
    async def end(tasks):
        for task in tasks:
            task.cancel()
        await asyncio.gather(*tasks, return_exceptions=True)
    loop.run_until_complete(end(asyncio.all_tasks(loop)))
    loop.close()


class Client:
    """One loopback address, one token. Requests answer (status, headers, body), JSON calls (status word, result)."""

    def __init__(self, url, root, log, process=None):
        self.url, self.root, self.log, self.process = url, pathlib.Path(root), log, process
        self.host, self.port = url.rsplit("/", 1)[1].rsplit(":", 1)
        self.session, self.opened = None, []   # opened: a 1 for each connection the session made

    async def request(self, method, path, body=None, headers=None):
        async with self.session.request(method, self.url + path, data=body, headers=headers) as answer:
            return answer.status, answer.headers, await answer.read()

    async def download(self, name, headers=None, method="GET"):
        if method == "POST":
            return await self.request("POST", "/download", json.dumps({"fileName": name}), headers)
        return await self.request(method, "/download?fileName=" + quote(name), headers=headers)

    async def call(self, path, body, headers=None):
        status, _, data = await self.request("POST", path, body if isinstance(body, bytes) else json.dumps(body), headers)
        assert status == 200, data
        return json.loads(data)["status"], json.loads(data)["result"]

    async def info(self, name, size, identifier=IDENTIFIER):
        status, result = await self.call("/upload/info", {"fileName": name, "fileMD5": identifier, "fileSize": size})
        assert status == "success", result
        return result

    async def chunks(self, name, size, identifier=IDENTIFIER):
        return (await self.info(name, size, identifier))["uploadInfo"]["chunks"]

    async def wanted(self, name, size, identifier=IDENTIFIER):   # the parts info asks for: [(number, bytes held)]
        return [(part_number(c), c.get("bytesSent")) for c in await self.chunks(name, size, identifier)]

    def part_head(self, chunk, length, md5):
        return ("POST %s HTTP/1.1\r\nHost: h\r\nContent-Length: %d\r\nX-Upload-Token: %s\r\nfileMD5: %s\r\n\r\n"
                % (self.path(chunk), length, chunk["headers"]["X-Upload-Token"], md5)).encode()

    def path(self, chunk):
        return chunk["url"][len(self.url):]

    async def send_part(self, chunk, data, md5=None):   # to the descriptor's url with its headers, as the plugin: the status
        headers = dict(chunk["headers"], fileMD5=md5 or md5_header(data), **{"Content-Type": "application/json"})
        return (await self.request("POST", self.path(chunk), data, headers))[0]

    async def send_parts(self, chunks, content, size=8, chunked=False):
        """Sends each chunk its bytes of content, one after the other: the statuses."""
        parts = [(c, content[(part_number(c) - 1) * size:][:size]) for c in chunks]
        return [await self.send_part(c, in_pieces(part) if chunked else part, md5_header(part)) for c, part in parts]

    async def upload(self, name, content, identifier=IDENTIFIER):
        """Sends every part info asks for, chunked, and completes."""
        answer = (await self.info(name, len(content), identifier))["uploadInfo"]
        assert set(await self.send_parts(answer["chunks"], content, answer["chunkSize"], chunked=True)) <= {200}
        return await self.complete(name, identifier)

    async def complete(self, name, identifier=IDENTIFIER):
        return await self.call("/upload/complete", {"fileName": name, "fileMD5": identifier})

    def put_file(self, name, content):
        (self.root / name).write_bytes(content)

    def stored(self, name):
        return (self.root / name).read_bytes()


async def in_pieces(data):   # a body of no announced length: aiohttp sends it chunked
    yield data[:3]
    yield data[3:]


def md5_header(data):
    return base64.b64encode(hashlib.md5(data).digest()).decode()


def repr_digest(data):
    return "sha-256=:%s:" % base64.b64encode(hashlib.sha256(data).digest()).decode()


def part_number(chunk):
    return int(chunk["url"].rsplit("partNumber=", 1)[1])


async def until(condition, what):
    """Waits, TIMEOUT at most, until condition() (or what it awaits) is true: that value."""
    deadline = time.monotonic() + TIMEOUT
    while not (value := await condition() if inspect.iscoroutinefunction(condition) else condition()):
        assert time.monotonic() < deadline, what
        await asyncio.sleep(0.02)
    return value


async def raw_exchange(client, *pieces, gap=0.0, read=asyncio.StreamReader.read):
    """Sends pieces on one connection, gap seconds apart, then closes it: what read() got (by default all)."""
    reader, writer = await asyncio.open_connection(client.host, int(client.port))
    try:
        for index, piece in enumerate(pieces):
            await asyncio.sleep(gap if index else 0)
            writer.write(piece)
        return read and await asyncio.wait_for(read(reader), TIMEOUT)
    finally:
        writer.close()


@pytest.fixture
def exits(loop):   # what a test opened, closed after it
    stack = contextlib.AsyncExitStack()
    yield stack
    loop.run_until_complete(stack.aclose())


@pytest.fixture
def clients(exits):
    """await clients(service, address=None, token=None, tls=None): another client of that service."""
    async def client(service, address=None, token=None, tls=None):
        made, counting = Client(service.url, service.root, service.log, service.process), aiohttp.TraceConfig()
        counting.on_connection_create_end.append(lambda *_: asyncio.sleep(0, made.opened.append(1)))
        made.session = aiohttp.ClientSession(
            connector=aiohttp.TCPConnector(local_addr=(address, 0) if address else None, ssl=tls), auto_decompress=False,
            headers={"Authorization": "Bearer " + token} if token else {}, trace_configs=[counting],
            timeout=aiohttp.ClientTimeout(total=TIMEOUT))
        exits.push_async_callback(made.session.close)
        return made
    return client


@pytest.fixture
def serve(exits, clients, tmp_path, caplog):
    """await serve(chunk_size=8, tokens=(), front=None, expires=86400, **store_options): the service in this process."""
    caplog.set_level(logging.INFO, logger="zt-fileservice")

    async def start(chunk_size=8, tokens=(), front=None, expires=86400, **store_options):
        store = Store(str(tmp_path / "root"), chunk_size, expires, **store_options)
        exits.callback(store.digests.shutdown)
        server = await exits.enter_async_context(TestServer(make_app(FileService(store, tokens, front))))
        return await clients(Client("http://127.0.0.1:%d" % server.port, store.root, lambda: caplog.text))
    return start


@pytest.fixture
def service(loop, serve):   # the service in this process, with 8-byte parts
    return loop.run_until_complete(serve())


@pytest.fixture
def launch(exits, clients, tmp_path):
    """await launch(*options, root=None, prefix=(), preexec_fn=None, tls=None): the service as a child process."""
    async def start(*options, root=None, prefix=(), preexec_fn=None, tls=None):
        log = str(tmp_path / ("service-%f.log" % time.monotonic()))
        process = ServiceProcess(str(root or tmp_path / "root"), log, options, prefix, preexec_fn).start()
        exits.callback(process.stop)
        return await clients(Client(process.url, process.root, process.log, process), tls=tls)
    return start

"""HTTP front of the reference file service."""
import argparse
import asyncio
import base64
import hashlib
import json
import logging
import os
import signal
import sys
import tempfile
from urllib.parse import quote

from aiohttp import web

from .names import is_identifier, is_plain_name
from .store import Store

log = logging.getLogger("zt-fileservice")

JSON_BODY_LIMIT = 1 << 20
READ_SIZE = 1 << 18


class Refused(Exception):
    """Ends a JSON request with {"status": "fail", "result": word}."""

    def __init__(self, word):
        super().__init__(word)
        self.word = word


def success(result):
    return web.json_response({"status": "success", "result": result})


def base_address(request):
    return "%s://%s" % (request.scheme, request.host)


def cdn_url(request, name):
    return "%s/download?fileName=%s" % (base_address(request), quote(name, safe=""))


class StoredFileResponse(web.FileResponse):
    """A stored file, with ranges and sendfile, never a compressed sibling of it:
    a stored "x.gz" is a file of its own, not an encoding of "x"."""

    async def prepare(self, request):
        headers = request.headers.copy()
        headers.pop("Accept-Encoding", None)
        return await super().prepare(request.clone(headers=headers))


class FileService:
    def __init__(self, store, token):
        self.store = store
        self.token = token

    def routes(self):
        return [
            web.post("/download/pathList", self.json_endpoint(self.path_list)),
            web.post("/delete", self.json_endpoint(self.delete)),
            web.post("/upload/info", self.json_endpoint(self.upload_info)),
            web.post("/upload/complete", self.json_endpoint(self.upload_complete)),
            web.post("/upload/part", self.upload_part),
            web.get("/download", self.download),
            web.post("/download", self.download),
        ]

    # JSON endpoints

    def json_endpoint(self, handler):
        async def endpoint(request):
            try:
                if self.token and request.headers.get("Authorization") != "Bearer " + self.token:
                    raise Refused("authErr")
                body = await self.read_json(request)
                return await handler(request, body)
            except Refused as refused:
                return web.json_response({"status": "fail", "result": refused.word})
        return endpoint

    @staticmethod
    async def read_json(request):
        if request.content_length is not None and request.content_length > JSON_BODY_LIMIT:
            raise web.HTTPRequestEntityTooLarge(max_size=JSON_BODY_LIMIT,
                                                actual_size=request.content_length)
        raw = await request.content.read(JSON_BODY_LIMIT + 1)
        if len(raw) > JSON_BODY_LIMIT:
            raise web.HTTPRequestEntityTooLarge(max_size=JSON_BODY_LIMIT, actual_size=len(raw))
        if not raw.strip():
            return {}
        try:
            body = json.loads(raw)
        except ValueError:
            raise Refused("parseErr")
        if not isinstance(body, dict):
            raise Refused("parseErr")
        return body

    @staticmethod
    def file_name(body, *keys):
        for key in keys:
            if body.get(key) is not None:
                name = body[key]
                if not is_plain_name(name):
                    raise Refused("illegalErr")
                return name
        raise Refused("require")

    async def path_list(self, request, body):
        return success(self.store.list_files())

    async def delete(self, request, body):
        name = self.file_name(body, "fileName", "filename")
        if not self.store.delete(name):
            raise Refused("notExist")
        return success({"fileName": name})

    async def upload_info(self, request, body):
        for key in ("fileName", "fileMD5", "fileSize"):
            if body.get(key) is None:
                raise Refused("require")
        name = self.file_name(body, "fileName")
        identifier, size = body["fileMD5"], body["fileSize"]
        if not is_identifier(identifier) or not isinstance(size, int) or isinstance(size, bool) or size < 0:
            raise Refused("illegalErr")
        if self.store.already_stored(name, identifier, size):
            return success({"exist": True, "cdnURL": cdn_url(request, name)})
        session = self.store.session_for(identifier, name, size)
        chunks = []
        for number in session.missing_parts():
            chunk = {
                "url": "%s/upload/part?uploadID=%s&partNumber=%d"
                       % (base_address(request), session.upload_id, number),
                "headers": {"X-Upload-Token": session.token},
            }
            held = session.held_prefix(number)
            if held:
                chunk["bytesSent"] = held
            chunks.append(chunk)
        return success({
            "exist": False,
            "cdnURL": cdn_url(request, name),
            "uploadInfo": {
                "chunkSize": session.data["chunkSize"],
                "expires": session.data["expires"],
                "method": "POST",
                "uploadID": session.upload_id,
                "chunks": chunks,
            },
        })

    async def upload_complete(self, request, body):
        for key in ("fileName", "fileMD5"):
            if body.get(key) is None:
                raise Refused("require")
        name = self.file_name(body, "fileName")
        session = self.store.sessions.get(body["fileMD5"]) if is_identifier(body["fileMD5"]) else None
        if session is None or session.data["fileName"] != name:
            raise Refused("notExist")
        if session.missing_parts():
            raise Refused("illegalErr")
        size = await asyncio.get_running_loop().run_in_executor(None, self.store.assemble, session)
        log.info("stored %s (%d bytes)", name, size)
        return success({"fileName": name, "fileSize": size, "cdnURL": cdn_url(request, name)})

    # Parts

    async def upload_part(self, request):
        session = self.store.session_by_upload_id(request.query.get("uploadID", ""))
        if session is None:
            raise web.HTTPNotFound(text="no such upload")
        if request.headers.get("X-Upload-Token") != session.token:
            raise web.HTTPForbidden(text="wrong upload token")
        try:
            number = int(request.query.get("partNumber", ""))
        except ValueError:
            raise web.HTTPBadRequest(text="bad part number")
        if not 1 <= number <= session.part_count():
            raise web.HTTPBadRequest(text="no such part")
        part_size = session.part_size(number)
        length = request.content_length
        if length is None or length > part_size:
            raise web.HTTPBadRequest(text="body longer than the part")
        expected = request.headers.get("fileMD5", "")

        # A resuming client sends only the tail of the part.
        offset = part_size - length
        received, digest, temp = await self.receive(request, session, length)
        try:
            if received == length and digest != expected:
                raise web.HTTPBadRequest(text="fileMD5 does not match the body")
            # A body cut short is kept as far as it came, so that the client
            # resumes after it; the service reports what it holds in /upload/info.
            self.write_part(session, number, offset, temp, received)
            log.info("part %d of %s: %d bytes at %d", number, session.upload_id, received, offset)
        finally:
            os.unlink(temp)
        if received < length:
            raise web.HTTPBadRequest(text="body cut short")
        return web.Response(status=200)

    @staticmethod
    async def receive(request, session, length):
        """Streams the body to a scratch file; returns (bytes, base64 MD5, path)."""
        fd, temp = tempfile.mkstemp(prefix="incoming-", dir=session.folder)
        md5 = hashlib.md5()
        received = 0
        with os.fdopen(fd, "wb") as out:
            try:
                while received < length:
                    block = await request.content.read(min(READ_SIZE, length - received))
                    if not block:
                        break
                    md5.update(block)
                    out.write(block)
                    received += len(block)
            except (ConnectionError, asyncio.CancelledError, OSError):
                pass
        return received, base64.b64encode(md5.digest()).decode(), temp

    @staticmethod
    def write_part(session, number, offset, temp, count):
        if count <= 0:
            return
        path = session.part_path(number)
        with open(temp, "rb") as source, open(path, "r+b" if os.path.exists(path) else "wb") as part:
            part.seek(offset)
            while True:
                block = source.read(READ_SIZE)
                if not block:
                    break
                part.write(block)
            part.flush()
            os.fsync(part.fileno())
        session.record(number, offset, offset + count)

    # Downloads

    async def download(self, request):
        if request.method == "POST":
            try:
                body = await self.read_json(request)
            except Refused:
                raise web.HTTPBadRequest(text="body is not a JSON object")
            # A client that names the file in the address sends an empty body name.
            name = body.get("fileName") or request.query.get("fileName")
        else:
            name = request.query.get("fileName")
        if not is_plain_name(name):
            raise web.HTTPForbidden(text="not a plain file name")
        path = self.store.path_of(name)
        if not os.path.isfile(path):
            raise web.HTTPNotFound(text="no such file")
        return StoredFileResponse(path, headers={
            "Content-Disposition": "attachment; filename=" + quote(name, safe=""),
            "Content-Type": "application/octet-stream",
        })


def parse_arguments(argv):
    parser = argparse.ArgumentParser(description="Reference file service for ztServer.")
    parser.add_argument("--root", required=True, help="folder of stored files and upload sessions")
    parser.add_argument("--host", default="127.0.0.1")
    parser.add_argument("--port", type=int, default=0, help="0 picks a free port")
    parser.add_argument("--chunk-size", type=int, default=8 << 20, help="bytes per upload part")
    parser.add_argument("--expires", type=int, default=86400, help="upload session lifetime, seconds")
    parser.add_argument("--token", default="", help="require 'Authorization: Bearer TOKEN'")
    args = parser.parse_args(argv)
    if args.chunk_size < 1 or args.expires < 0:
        parser.error("--chunk-size must be at least 1 and --expires not negative")
    return args


async def serve(args):
    store = Store(args.root, args.chunk_size, args.expires)
    app = web.Application(client_max_size=JSON_BODY_LIMIT)
    app.add_routes(FileService(store, args.token).routes())
    runner = web.AppRunner(app, access_log=None)
    await runner.setup()
    site = web.TCPSite(runner, args.host, args.port)
    await site.start()
    port = site._server.sockets[0].getsockname()[1]
    print("http://%s:%d" % (args.host, port), flush=True)

    stop = asyncio.Event()
    loop = asyncio.get_running_loop()
    for signum in (signal.SIGTERM, signal.SIGINT):
        loop.add_signal_handler(signum, stop.set)
    await stop.wait()
    await runner.cleanup()


def main(argv=None):
    args = parse_arguments(sys.argv[1:] if argv is None else argv)
    logging.basicConfig(level=logging.INFO, stream=sys.stderr, format="%(asctime)s %(message)s")
    asyncio.run(serve(args))
    return 0

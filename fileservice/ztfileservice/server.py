"""HTTP front of the reference file service (the protocol: docs/file-service.md)."""
import argparse
import asyncio
import base64
import errno
import hashlib
import hmac
import json
import logging
import math
import os
import shutil
import signal
import sys
from urllib.parse import quote

from aiohttp import web
from aiohttp.helpers import parse_http_date
from aiohttp.http import HttpVersion11
from aiohttp.http_exceptions import HttpProcessingError

from .names import is_identifier, is_plain_name
from .store import Store

log = logging.getLogger("zt-fileservice")

JSON_BODY_LIMIT = 1 << 20
READ_SIZE = 1 << 20        # largest piece taken from a request body at a time
READ_BUFFER = 1 << 20      # per-connection receive buffer of the HTTP layer
MAX_PARTS = 100000         # refuses sizes whose part list would be absurd
SHUTDOWN_GRACE = 5.0       # seconds running requests get on SIGTERM


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


def too_large(limit, actual):
    """413, and the connection is not kept: what is left of the body is not wanted."""
    refusal = web.HTTPRequestEntityTooLarge(max_size=limit, actual_size=actual)
    refusal.force_close()
    return refusal


def whole_number(value):
    """A JSON size as an int: integers, or floats without a fraction; else None."""
    if isinstance(value, bool):
        return None
    if isinstance(value, float) and math.isfinite(value) and value.is_integer():
        value = int(value)
    return value if isinstance(value, int) and value >= 0 else None


def expect_within(limit_of):
    """An Expect: 100-continue handler that refuses an announced body over the limit
    before the client sends it."""
    async def handler(request):
        limit = limit_of(request)
        if request.content_length is not None and request.content_length > limit:
            raise too_large(limit, request.content_length)
        if request.version == HttpVersion11 and \
                request.headers.get("Expect", "").lower() == "100-continue":
            await request.writer.write(b"HTTP/1.1 100 Continue\r\n\r\n")
        else:
            raise web.HTTPExpectationFailed(text="unknown Expect")
    return handler


class StoredFileResponse(web.FileResponse):
    """A stored file with aiohttp's ranges and sendfile, for GET and POST alike, plus:
    the ETag on every answer (416 included), the entity-tag form of If-Range, and
    never a compressed sibling ("x.gz" is a stored file of its own, not an encoding
    of "x")."""

    async def prepare(self, request):
        headers = request.headers.copy()
        headers.popall("Accept-Encoding", None)
        try:
            etag = Store.etag_of(os.stat(self._path))
            self.etag = etag
        except OSError:
            etag = None
        if_range = headers.get("If-Range")
        if if_range is not None and parse_http_date(if_range) is None:
            if etag is None or if_range.strip() != '"%s"' % etag:
                headers.popall("Range", None)   # changed since: the whole file
            headers.popall("If-Range", None)
        return await super().prepare(request.clone(headers=headers))


class FileService:
    def __init__(self, store, token):
        self.store = store
        self.token = token

    def routes(self):
        json_limit = expect_within(lambda request: JSON_BODY_LIMIT)
        part_limit = expect_within(self.part_limit)
        return [
            web.post("/download/pathList", self.json_endpoint(self.path_list), expect_handler=json_limit),
            web.post("/delete", self.json_endpoint(self.delete), expect_handler=json_limit),
            web.post("/upload/info", self.json_endpoint(self.upload_info), expect_handler=json_limit),
            web.post("/upload/complete", self.json_endpoint(self.upload_complete),
                     expect_handler=json_limit),
            web.post("/upload/part", self.upload_part, expect_handler=part_limit),
            web.get("/download", self.download),
            web.post("/download", self.download, expect_handler=json_limit),
        ]

    def part_limit(self, request):
        session = self.store.by_upload_id.get(request.query.get("uploadID", ""))
        return session.data["chunkSize"] if session else self.store.chunk_size

    # JSON endpoints

    def authorized(self, request):
        if not self.token:
            return True
        given = request.headers.get("Authorization", "").encode("utf-8", "surrogateescape")
        return hmac.compare_digest(given, ("Bearer " + self.token).encode())

    def json_endpoint(self, handler):
        async def endpoint(request):
            try:
                if not self.authorized(request):
                    raise Refused("authErr")
                body = await self.read_json(request)
                return await handler(request, body)
            except Refused as refused:
                return web.json_response({"status": "fail", "result": refused.word})
        return endpoint

    @staticmethod
    async def read_json(request):
        """The body as a JSON object; {} for an empty body."""
        if request.content_length is not None and request.content_length > JSON_BODY_LIMIT:
            raise too_large(JSON_BODY_LIMIT, request.content_length)
        pieces, size = [], 0
        while True:
            piece = await request.content.read(READ_SIZE)  # whatever has arrived, up to that
            if not piece:
                break
            size += len(piece)
            if size > JSON_BODY_LIMIT:
                raise too_large(JSON_BODY_LIMIT, size)
            pieces.append(piece)
        raw = b"".join(pieces)
        if not raw.strip():
            return {}
        try:
            body = json.loads(raw)
        except (ValueError, RecursionError):
            raise Refused("parseErr")
        if not isinstance(body, dict):
            raise Refused("parseErr")
        return body

    @staticmethod
    def file_name(body, *keys):
        """The first of keys present, which must be a plain file name."""
        for key in keys:
            if body.get(key) is not None:
                if not is_plain_name(body[key]):
                    raise Refused("illegalErr")
                return body[key]
        raise Refused("require")

    @staticmethod
    def require(body, *keys):
        if any(body.get(key) is None for key in keys):
            raise Refused("require")

    async def path_list(self, request, body):
        return success(self.store.list_files())

    async def delete(self, request, body):
        name = self.file_name(body, "fileName", "filename")
        if not self.store.delete(name):
            raise Refused("notExist")
        log.info("deleted %s", name)
        return success({"fileName": name})

    async def upload_info(self, request, body):
        self.require(body, "fileName", "fileMD5", "fileSize")
        name = self.file_name(body, "fileName")
        identifier, size = body["fileMD5"], whole_number(body["fileSize"])
        if not is_identifier(identifier) or size is None:
            raise Refused("illegalErr")
        if self.store.already_stored(name, identifier, size):
            return success({"exist": True, "cdnURL": cdn_url(request, name)})
        if -(-size // self.store.chunk_size) > MAX_PARTS or size > shutil.disk_usage(self.store.root).free:
            raise Refused("illegalErr")
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
                "expires": session.seconds_left(),
                "method": "POST",
                "uploadID": session.upload_id,
                "chunks": chunks,
            },
        })

    async def upload_complete(self, request, body):
        self.require(body, "fileName", "fileMD5")
        name = self.file_name(body, "fileName")
        identifier = body["fileMD5"]
        session = self.store.sessions.get(identifier) if is_identifier(identifier) else None
        if session is None or session.data["fileName"] != name:
            raise Refused("notExist")
        loop = asyncio.get_running_loop()
        async with session.lock:
            if self.store.sessions.get(identifier) is not session:
                raise Refused("notExist")   # completed or dropped while this waited
            if session.missing_parts():
                raise Refused("illegalErr")
            short = session.short_parts()
            if short:
                # Counted but not on disk (the folder was tampered with): ask again.
                log.warning("upload %s: parts %s lost, asked again", session.upload_id, short)
                session.forget(short)
                raise Refused("illegalErr")
            self.store.detach(session)
            try:
                size = await loop.run_in_executor(None, self.store.assemble, session)
            except OSError:
                log.exception("joining %s failed", name)
                self.store.reattach(session)
                raise Refused("illegalErr")
            self.store.remember_completed(session)
        await loop.run_in_executor(None, shutil.rmtree, session.folder, True)
        log.info("stored %s (%d bytes)", name, size)
        return success({"fileName": name, "fileSize": size, "cdnURL": cdn_url(request, name)})

    # Parts

    async def upload_part(self, request):
        session = self.store.session_by_upload_id(request.query.get("uploadID", ""))
        if session is None:
            raise web.HTTPNotFound(text="no such upload")
        given = request.headers.get("X-Upload-Token", "").encode("utf-8", "surrogateescape")
        if not hmac.compare_digest(given, session.token.encode()):
            raise web.HTTPForbidden(text="wrong upload token")
        try:
            number = int(request.query.get("partNumber", ""))
        except ValueError:
            raise web.HTTPBadRequest(text="bad part number")
        if not 1 <= number <= session.part_count():
            raise web.HTTPBadRequest(text="no such part")
        expected = request.headers.get("fileMD5")
        if expected is None:
            raise web.HTTPBadRequest(text="fileMD5 header missing")
        chunk_size, part_size = session.data["chunkSize"], session.part_size(number)
        length = request.content_length
        if length is not None and length > chunk_size:
            raise too_large(chunk_size, length)
        if length is not None and length > part_size:
            raise web.HTTPBadRequest(text="body longer than the part")

        # Without a length (chunked) the body is read up to one byte past the limit.
        limit = length if length is not None else chunk_size + 1
        try:
            received, digest, incoming, cut = await self.receive(request, session, limit)
        except OSError as error:
            raise self.storage_error(session, error)
        try:
            if not cut:
                if length is None:
                    if received > chunk_size:
                        raise too_large(chunk_size, received)
                    if received > part_size:
                        raise web.HTTPBadRequest(text="body longer than the part")
                    length = received
                if digest != expected:
                    raise web.HTTPBadRequest(text="fileMD5 does not match the body")
            # A cut body of unknown length has no known place in the part. One
            # with a length is kept as far as it came; /upload/info tells the
            # client what is held, and the client sends the rest as a tail.
            if length is not None:
                # The body is the tail of the part: a resuming client sends only
                # the bytes it has not sent.
                offset = part_size - length
                async with session.lock:
                    if self.store.by_upload_id.get(session.upload_id) is not session:
                        raise web.HTTPNotFound(text="no such upload")
                    if received:
                        await asyncio.get_running_loop().run_in_executor(
                            None, session.take_part, number, offset, incoming, received)
                # Tests of the plugin count the bytes received from this line.
                log.info("part %d of %s: %d bytes at %d%s", number, session.upload_id,
                         received, offset, " (cut short)" if cut else "")
        except OSError as error:
            raise self.storage_error(session, error)
        finally:
            if os.path.exists(incoming):
                os.unlink(incoming)
        if cut:
            return web.Response(status=400, text="body cut short")
        return web.Response(status=200)

    @staticmethod
    def storage_error(session, error):
        log.warning("upload %s: %s", session.upload_id, error)
        if error.errno in (errno.ENOSPC, errno.EDQUOT):
            return web.HTTPInsufficientStorage(text="no space left")
        if not os.path.isdir(session.folder):
            return web.HTTPNotFound(text="no such upload")   # dropped meanwhile
        return web.HTTPInternalServerError(text="could not store the part")

    @staticmethod
    async def receive(request, session, limit):
        """Streams up to limit bytes of the body to a scratch file.

        Returns (bytes, base64 MD5, scratch path, whether the body was cut short).
        """
        out, path = session.new_incoming()
        md5 = hashlib.md5(usedforsecurity=False)
        received, cut = 0, False
        try:
            with out:
                try:
                    while received < limit:
                        piece = await request.content.read(min(READ_SIZE, limit - received))
                        if not piece:
                            break
                        md5.update(piece)
                        out.write(piece)
                        received += len(piece)
                except (ConnectionError, HttpProcessingError):
                    cut = True
        except BaseException:
            os.unlink(path)
            raise
        if request.content_length is not None and received < request.content_length:
            cut = True
        return received, base64.b64encode(md5.digest()).decode(), path, cut

    # Downloads

    async def download(self, request):
        name = request.query.get("fileName")
        if request.method == "POST":
            try:
                body = await self.read_json(request)
            except Refused:
                raise web.HTTPBadRequest(text="body is not a JSON object")
            # A client that names the file in the address may send an empty name.
            name = body.get("fileName") or name
        if name is None or name == "":
            raise web.HTTPBadRequest(text="fileName missing")
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
    parser = argparse.ArgumentParser(prog="zt-fileservice",
                                     description="Reference file service for ztServer.")
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
    os.makedirs(args.root, exist_ok=True)
    store = Store(args.root, args.chunk_size, args.expires)
    app = web.Application()
    app.add_routes(FileService(store, args.token).routes())
    runner = web.AppRunner(app, access_log=None, read_bufsize=READ_BUFFER)
    await runner.setup()
    site = web.TCPSite(runner, args.host, args.port, shutdown_timeout=SHUTDOWN_GRACE)
    await site.start()
    port = site._server.sockets[0].getsockname()[1]
    host = "[%s]" % args.host if ":" in args.host else args.host
    print("http://%s:%d" % (host, port), flush=True)
    log.info("serving %s on %s:%d", store.root, args.host, port)

    stop = asyncio.Event()
    loop = asyncio.get_running_loop()
    for signum in (signal.SIGTERM, signal.SIGINT):
        loop.add_signal_handler(signum, stop.set)
    await stop.wait()
    log.info("stopping")
    await runner.cleanup()


def main(argv=None):
    args = parse_arguments(sys.argv[1:] if argv is None else argv)
    logging.basicConfig(level=logging.INFO, stream=sys.stderr,
                        format="%(asctime)s %(levelname)s %(message)s")
    asyncio.run(serve(args))
    return 0

"""HTTP front of the reference file service (the protocol: docs/file-service.md)."""
import argparse
import asyncio
import base64
import contextlib
import errno
import hashlib
import hmac
import ipaddress
import json
import logging
import math
import os
import re
import shutil
import signal
import ssl
import sys
import time
from urllib.parse import quote

from aiohttp import web
from aiohttp.http import HttpVersion11
from aiohttp.http_exceptions import HttpProcessingError

from .connection import ServiceConnection, quiet_exhaustion, raise_descriptor_limit
from .download import StoredFileResponse
from .names import is_identifier, is_plain_name
from .store import IN_PLACE, Store

log = logging.getLogger("zt-fileservice")

JSON_BODY_LIMIT = 1 << 20
READ_SIZE = 1 << 20        # largest piece taken from a request body at a time
READ_BUFFER = 1 << 20      # per-connection receive buffer of the HTTP layer
MEMORY_BODY = 1 << 20      # a part body up to this size is checked in memory, a larger one on disk
MAX_PARTS = 100000         # refuses sizes whose part list would be absurd
SHUTDOWN_GRACE = 5.0       # seconds running requests get on SIGTERM
LISTEN_BACKLOG = 1024      # connections the kernel holds until they are accepted
# Exit status when the address cannot be had: the setup failure status that
# `ztcli serve`, which runs this service in its own place, documents.
EXIT_CANNOT_LISTEN = 5


# The host's error code for each refusal word, sent beside the word as an
# SDK-style answer does, so that a host library that reads "errorCode" tells a
# missing token from an answer it cannot use.
REFUSAL_CODES = {
    "require": 20693, "authErr": 20706, "parseErr": 20695, "userNotExist": 20708,
    "illegalErr": 20707, "hasCaptcha": 20709, "hasValidCode": 20710, "notExist": 20712,
}


class Refused(Exception):
    """Ends a JSON request with {"status": "fail", "result": word, "errorCode": code}."""

    def __init__(self, word):
        super().__init__(word)
        self.word = word

    def answer(self):
        return {"status": "fail", "result": self.word, "errorCode": REFUSAL_CODES[self.word]}


def success(result):
    return web.json_response({"status": "success", "result": result})


def cdn_url(base, name):
    return "%s/download?fileName=%s" % (base, quote(name, safe=""))


class Front:
    """How clients reach the service (the base of the addresses it hands out),
    and where a client comes from.

    A front (a TLS terminator, a reverse proxy) is believed about the client's
    scheme, host and address only when it connects from a trusted address, and
    each header's last element is taken: the one the front itself added. A
    public URL, when set, is the base of every address whatever a request says.
    """

    HOST = re.compile(r"(?:[A-Za-z0-9.-]+|\[[0-9A-Fa-f:.]+\])(?::[0-9]{1,5})?")
    FIELDS = (("proto", "X-Forwarded-Proto"), ("host", "X-Forwarded-Host"), ("for", "X-Forwarded-For"))

    def __init__(self, public_url="", trusted=()):
        self.public_url = public_url.rstrip("/")
        self.trusted = [ipaddress.ip_network(address, strict=False) for address in trusted]

    def _trusts(self, request):
        try:
            peer = ipaddress.ip_address(request.remote or "")
        except ValueError:
            return False
        return any(peer in network for network in self.trusted)

    def forwarded(self, request):
        """What a trusted front says of the connection it took: "proto", "host", "for"."""
        if not self.trusted or not self._trusts(request):
            return {}
        standard = request.forwarded[-1] if request.forwarded else {}
        said = {}
        for field, header in self.FIELDS:
            value = request.headers.get(header, "").rsplit(",", 1)[-1].strip() or standard.get(field)
            if value:
                said[field] = value
        return said

    def base(self, request):
        if self.public_url:
            return self.public_url
        said = self.forwarded(request)
        scheme = said.get("proto", "").lower()
        host = said.get("host", "")
        return "%s://%s" % (scheme if scheme in ("http", "https") else request.scheme,
                            host if self.HOST.fullmatch(host) else request.host)

    def client_address(self, request):
        return self.forwarded(request).get("for") or request.remote or ""


def too_large(limit, actual):
    """413, and the connection is not kept: what is left of the body is not wanted."""
    refusal = web.HTTPRequestEntityTooLarge(max_size=limit, actual_size=actual)
    refusal.force_close()
    return refusal


def timed_out():
    """408 for a body that stopped arriving; the connection goes with it."""
    refusal = web.HTTPRequestTimeout(text="the body stopped arriving")
    refusal.force_close()
    return refusal


def malformed(request, error):
    """400 for a body that breaks HTTP's framing; the connection goes with it."""
    log.warning("bad request from %s: %s", request.remote, error.message)
    refusal = web.HTTPBadRequest(text="malformed body")
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


class FileService:
    def __init__(self, store, tokens=(), front=None, idle_timeout=60.0):
        self.store = store
        self.tokens = [("Bearer " + token).encode() for token in tokens]
        self.front = front or Front()
        self.idle_timeout = idle_timeout

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

    # Who asks

    def authorized(self, request):
        if not self.tokens:
            return True
        given = request.headers.get("Authorization", "").encode("utf-8", "surrogateescape")
        # Every token is compared, so the time taken tells nothing of which one came close.
        return sum(hmac.compare_digest(given, token) for token in self.tokens) > 0

    @staticmethod
    def unauthorized():
        return web.HTTPUnauthorized(headers={"WWW-Authenticate": "Bearer"}, text="token required")

    def client_of(self, request):
        """Whom a session belongs to: the credentials a client presents and the
        address it comes from."""
        who = "%s\n%s" % (request.headers.get("Authorization", ""), self.front.client_address(request))
        return hashlib.sha256(who.encode("utf-8", "surrogateescape")).hexdigest()[:32]

    @contextlib.asynccontextmanager
    async def quiet_bound(self, request):
        """Cuts the reading of the body (TimeoutError) once it has brought
        nothing for idle_timeout seconds, at most a quarter more: the bytes
        that arrived are looked at four times in that span, not at every
        piece, from a slow client a piece is a few KiB."""
        loop, stream, span = asyncio.get_running_loop(), request.content, self.idle_timeout
        seen = stream.total_bytes
        async with asyncio.timeout_at(loop.time() + span) as quiet:
            def look():
                nonlocal seen, watch
                if stream.total_bytes != seen:
                    seen = stream.total_bytes
                    quiet.reschedule(loop.time() + span)
                watch = loop.call_later(span / 4, look)
            watch = loop.call_later(span / 4, look)
            try:
                yield
            finally:
                watch.cancel()

    # JSON endpoints

    def json_endpoint(self, handler):
        async def endpoint(request):
            try:
                if not self.authorized(request):
                    raise Refused("authErr")
                body = await self.read_json(request)
                return await handler(request, body)
            except Refused as refused:
                return web.json_response(refused.answer())
        return endpoint

    async def read_json(self, request):
        """The body as a JSON object; {} for an empty body."""
        if request.content_length is not None and request.content_length > JSON_BODY_LIMIT:
            raise too_large(JSON_BODY_LIMIT, request.content_length)
        try:
            async with self.quiet_bound(request):
                raw = await request.read()   # at most the application's client_max_size
        except web.HTTPRequestEntityTooLarge:
            raise too_large(JSON_BODY_LIMIT, request.content.total_bytes)
        except TimeoutError:
            raise timed_out()
        except HttpProcessingError as error:
            raise malformed(request, error)
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
        return success(self.store.list_files(asyncio.get_running_loop()))

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
        client, base = self.client_of(request), self.front.base(request)
        if self.store.already_stored(client, name, identifier, size):
            return success({"exist": True, "cdnURL": cdn_url(base, name)})
        if -(-size // self.store.chunk_size) > MAX_PARTS:
            raise Refused("illegalErr")
        session = self.store.live_session(client, identifier, name, size)
        # Only what is missing needs room: a session taken up again after the
        # disk filled holds the rest already.
        missing = size - (session.held_bytes() if session else 0)
        if not self.store.make_room(missing, keep=session):
            log.warning("upload of %s refused: no room for %d bytes", name, missing)
            raise Refused("illegalErr")
        if session is None:
            session = self.store.open_session(client, identifier, name, size)
            if session is None:
                raise Refused("illegalErr")
        else:
            session.touch()
        headers = {"X-Upload-Token": session.token}
        if self.tokens:
            # Parts ask for the token too, and a client sends the headers it is given.
            headers["Authorization"] = request.headers["Authorization"]
        chunks = []
        for number in session.missing_parts():
            chunk = {
                "url": "%s/upload/part?uploadID=%s&partNumber=%d" % (base, session.upload_id, number),
                "headers": headers,
            }
            held = session.held_prefix(number)
            if held:
                chunk["bytesSent"] = held
            chunks.append(chunk)
        return success({
            "exist": False,
            "cdnURL": cdn_url(base, name),
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
        key = (self.client_of(request), identifier)
        session = self.store.sessions.get(key) if is_identifier(identifier) else None
        if session is None or session.data["fileName"] != name:
            raise Refused("notExist")
        loop = asyncio.get_running_loop()
        async with session.lock:
            if self.store.sessions.get(key) is not session:
                raise Refused("notExist")   # completed or dropped while this waited
            if session.missing_parts():
                raise Refused("illegalErr")
            short = session.short_parts()
            if short:
                # Counted but not on disk (the folder was tampered with): ask again.
                log.warning("upload %s: parts %s lost, asked again", session.upload_id, short)
                session.forget(short)
                raise Refused("illegalErr")
            async with self.store.name_lock(name):
                if self.store.superseded(session):
                    # Of two uploads of one name at a time, the first to complete
                    # keeps the name; the other is told so and ends.
                    log.warning("upload %s of %s lost to one completed meanwhile", session.upload_id, name)
                    self.store.detach(session)
                    await loop.run_in_executor(None, shutil.rmtree, session.folder, True)
                    raise Refused("illegalErr")
                self.store.detach(session)
                stamp = time.time()
                try:
                    size, content, digest = await loop.run_in_executor(None, self.store.assemble, session)
                except OSError:
                    log.exception("joining %s failed", name)
                    self.store.reattach(session)
                    raise Refused("illegalErr")
                self.store.remember_completed(session, stamp, content, digest)
        await loop.run_in_executor(None, shutil.rmtree, session.folder, True)
        log.info("stored %s (%d bytes)", name, size)
        return success({"fileName": name, "fileSize": size,
                        "cdnURL": cdn_url(self.front.base(request), name)})

    # Parts

    async def upload_part(self, request):
        if not self.authorized(request):
            raise self.unauthorized()
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
        # One body of a part at a time: a body written in place must not meet
        # another one's bytes.
        async with session.part_lock(number):
            return await self.take_body(request, session, number, length, limit)

    async def take_body(self, request, session, number, length, limit):
        part_size = session.part_size(number)
        # A large body of known length whose place holds nothing yet is written
        # straight into the data file as it comes: no scratch copy. Bytes that
        # fail the digest then land where nothing is counted as received.
        place = None
        if length is not None and length > MEMORY_BODY and session.unheld_from(number, part_size - length):
            place = session.place_of(number, part_size - length)
        try:
            received, digest, incoming, cut = await self.receive(request, session, limit, place)
        except OSError as error:
            raise self.storage_error(session, error)
        try:
            if not cut:
                if length is None:
                    if received > session.data["chunkSize"]:
                        raise too_large(session.data["chunkSize"], received)
                    if received > part_size:
                        raise web.HTTPBadRequest(text="body longer than the part")
                    length = received
                if digest != request.headers["fileMD5"]:
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
            if isinstance(incoming, str) and incoming is not IN_PLACE and os.path.exists(incoming):
                os.unlink(incoming)
        if cut:
            # What is left of the body may still come, or never: the connection is done.
            answer = web.Response(status=400, text="body cut short")
            answer.force_close()
            return answer
        return web.Response(status=200)

    @staticmethod
    def storage_error(session, error):
        log.warning("upload %s: %s", session.upload_id, error)
        if error.errno in (errno.ENOSPC, errno.EDQUOT):
            return web.HTTPInsufficientStorage(text="no space left")
        if not os.path.isdir(session.folder):
            return web.HTTPNotFound(text="no such upload")   # dropped meanwhile
        return web.HTTPInternalServerError(text="could not store the part")

    async def receive(self, request, session, limit, place=None):
        """Reads up to limit bytes of the body: at `place` in the data file when
        one is given; else in memory while it is small, a small part then costs
        no scratch file, and streamed to one past that.

        Returns (bytes, base64 MD5, the body as bytes, the scratch file's path
        or IN_PLACE, whether the body was cut short).
        """
        md5 = hashlib.md5(usedforsecurity=False)
        received, cut = 0, False
        held, out, path = bytearray(), None, None
        if place is not None:
            out, path, held = session.open_in_place(place), IN_PLACE, None
        try:
            try:
                async with self.quiet_bound(request):
                    while received < limit:
                        piece = await request.content.read(min(READ_SIZE, limit - received))
                        if not piece:
                            break
                        md5.update(piece)
                        received += len(piece)
                        if out is None and received > MEMORY_BODY:
                            out, path = session.new_incoming()
                            out.write(held)
                            held = None
                        if out is None:
                            held += piece
                        else:
                            out.write(piece)
            except (ConnectionError, HttpProcessingError, TimeoutError):
                cut = True
        except BaseException:
            if out is not None:
                out.close()
                if path is not IN_PLACE:
                    os.unlink(path)
            raise
        if out is not None:
            out.close()
        if request.content_length is not None and received < request.content_length:
            cut = True
        return received, base64.b64encode(md5.digest()).decode(), path if out is not None else bytes(held), cut

    # Downloads

    async def download(self, request):
        if not self.authorized(request):
            raise self.unauthorized()
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
        opened = self.store.open_stored(name)
        if opened is None:
            raise web.HTTPNotFound(text="no such file")
        fd, st = opened
        digest = self.store.digests.of(name, st)
        if digest is None:
            # Hashed in the background; answers state it once it is known.
            self.store.digests.find_later(asyncio.get_running_loop(), name, self.store.path_of(name))
        return StoredFileResponse(fd, st, digest, headers={
            "Content-Disposition": "attachment; filename=" + quote(name, safe=""),
            "Content-Type": "application/octet-stream",
        })


def make_app(service):
    # request.read() refuses a body of client_max_size bytes or more.
    app = web.Application(client_max_size=JSON_BODY_LIMIT + 1)
    app.add_routes(service.routes())
    return app


def parse_arguments(argv):
    parser = argparse.ArgumentParser(prog="zt-fileservice",
                                     description="Reference file service for ztServer.")
    parser.add_argument("--root", required=True, help="folder of stored files and upload sessions")
    parser.add_argument("--host", default="127.0.0.1")
    parser.add_argument("--port", type=int, default=0, help="0 picks a free port")
    parser.add_argument("--chunk-size", type=int, default=8 << 20, help="bytes per upload part")
    parser.add_argument("--expires", type=int, default=86400, help="upload session lifetime, seconds")
    parser.add_argument("--token", action="append", default=[],
                        help="require 'Authorization: Bearer TOKEN'; may be given once per client")
    parser.add_argument("--idle-timeout", type=float, default=60.0,
                        help="seconds a connection may wait for a request, or a body for its next byte")
    parser.add_argument("--max-sessions", type=int, default=1000, help="open upload sessions per client")
    parser.add_argument("--session-idle", type=float, default=3600.0,
                        help="seconds without a part after which a session gives way when space runs out")
    parser.add_argument("--trusted-proxy", action="append", default=[], metavar="ADDRESS",
                        help="a front whose Forwarded / X-Forwarded-* headers are believed (address or network)")
    parser.add_argument("--public-url", default="", help="base of the addresses handed out, whatever a request says")
    parser.add_argument("--tls-cert", default="", help="serve TLS with this certificate chain (PEM)")
    parser.add_argument("--tls-key", default="", help="the certificate's private key (PEM)")
    args = parser.parse_args(argv)
    if args.chunk_size < 1 or args.expires < 0:
        parser.error("--chunk-size must be at least 1 and --expires not negative")
    if args.idle_timeout <= 0 or args.max_sessions < 1 or args.session_idle < 0:
        parser.error("--idle-timeout and --max-sessions must be positive, --session-idle not negative")
    if bool(args.tls_cert) != bool(args.tls_key):
        parser.error("--tls-cert and --tls-key go together")
    if args.public_url and not re.fullmatch(r"https?://[^/?#\s]+(/[^?#\s]*)?", args.public_url):
        parser.error("--public-url must be an http:// or https:// address")
    try:
        Front(trusted=args.trusted_proxy)
    except ValueError as error:
        parser.error("--trusted-proxy: %s" % error)
    return args


def tls_context(args):
    if not args.tls_cert:
        return None
    context = ssl.create_default_context(ssl.Purpose.CLIENT_AUTH)
    context.load_cert_chain(args.tls_cert, args.tls_key)
    return context


async def serve(args):
    raise_descriptor_limit()
    os.makedirs(args.root, exist_ok=True)
    store = Store(args.root, args.chunk_size, args.expires, args.session_idle, args.max_sessions)
    service = FileService(store, args.token, Front(args.public_url, args.trusted_proxy), args.idle_timeout)
    app = make_app(service)
    runner = web.AppRunner(app, access_log=None)
    await runner.setup()
    loop = asyncio.get_running_loop()
    loop.set_exception_handler(quiet_exhaustion)
    tls = tls_context(args)

    def connection():
        return ServiceConnection(runner.server, loop=loop, idle_timeout=args.idle_timeout,
                                 access_log=None, read_bufsize=READ_BUFFER)
    try:
        listener = await loop.create_server(connection, args.host, args.port, ssl=tls, backlog=LISTEN_BACKLOG,
                                            ssl_handshake_timeout=args.idle_timeout if tls else None)
    except OSError as error:
        # A busy port is an everyday mistake: one line that says so, not a traceback.
        reason = os.strerror(error.errno) if error.errno else str(error)
        print("zt-fileservice: cannot listen on %s:%d: %s" % (args.host, args.port, reason),
              file=sys.stderr, flush=True)
        store.digests.shutdown()
        await runner.cleanup()
        return EXIT_CANNOT_LISTEN
    port = listener.sockets[0].getsockname()[1]
    host = "[%s]" % args.host if ":" in args.host else args.host
    log.info("serving %s on %s:%d", store.root, args.host, port)
    # The first line on stdout says where: callers wait for it.
    print("%s://%s:%d" % ("https" if tls else "http", host, port), flush=True)

    stop = asyncio.Event()
    for signum in (signal.SIGTERM, signal.SIGINT):
        loop.add_signal_handler(signum, stop.set)
    await stop.wait()
    log.info("stopping")
    store.digests.shutdown()
    listener.close()
    await runner.shutdown()
    await runner.server.shutdown(SHUTDOWN_GRACE)
    await runner.cleanup()


def main(argv=None):
    args = parse_arguments(sys.argv[1:] if argv is None else argv)
    logging.basicConfig(level=logging.INFO, stream=sys.stderr,
                        format="%(asctime)s %(levelname)s %(message)s")
    return asyncio.run(serve(args)) or 0

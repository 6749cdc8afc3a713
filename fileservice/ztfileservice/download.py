"""The answer to a download: one stored file, whole or one range of it."""
import asyncio
import logging
import os

from aiohttp import hdrs, web

from .digests import etag_of

log = logging.getLogger("zt-fileservice")


class StoredFileResponse(web.StreamResponse):
    """A stored file, opened once by the caller: its entity tag, its digest and
    the bytes sent all come from that one open file, so a file replaced or
    rewritten meanwhile never mixes into an answer.

    Served alike for GET, HEAD and POST: a single byte range (an end past the
    file is clamped), If-Range with the entity tag or a date, If-Match,
    If-None-Match and the date conditions. Never a compressed sibling: "x.gz"
    is a stored file of its own, not an encoding of "x".
    """

    def __init__(self, fd, st, digest, headers):
        super().__init__(headers=headers)
        # Owned from here: closed when the answer is sent, or with this object.
        self._file = os.fdopen(fd, "rb", buffering=0)
        self._st = st
        self._tag = etag_of(st)
        self.etag = self._tag
        self.last_modified = st.st_mtime
        self.headers[hdrs.ACCEPT_RANGES] = "bytes"
        if digest is not None:
            self.headers["Repr-Digest"] = digest

    async def prepare(self, request):
        try:
            return await self._answer(request)
        finally:
            self._file.close()

    async def _answer(self, request):
        size, etag = self._st.st_size, self._tag
        if not self._holds(request.if_match, etag, request.if_unmodified_since, self._st.st_mtime):
            return await self._bodiless(request, 412, 0)
        if request.if_none_match is not None:
            if any(tag.value in (etag, "*") for tag in request.if_none_match):
                return await self._bodiless(request, 304, size)
        elif request.if_modified_since and self._st.st_mtime <= request.if_modified_since.timestamp():
            return await self._bodiless(request, 304, size)

        start, count = 0, size
        if self._range_applies(request):
            try:
                wanted = request.http_range
            except ValueError:   # malformed, or an end before its start
                return await self._unsatisfiable(request)
            if wanted.start is not None:
                if wanted.start < 0:   # the last n bytes
                    start, end = max(0, size + wanted.start), size
                else:
                    start, end = wanted.start, min(size, wanted.stop or size)
                if start >= size:
                    return await self._unsatisfiable(request)
                count = end - start
                self.set_status(206)
                self.headers[hdrs.CONTENT_RANGE] = "bytes %d-%d/%d" % (start, end - 1, size)

        self.content_length = count
        writer = await super().prepare(request)
        if count and request.method != hdrs.METH_HEAD and request.transport is not None:
            try:
                await asyncio.get_running_loop().sendfile(request.transport, self._file, start, count)
            except (ConnectionError, asyncio.CancelledError):
                # A client that stops reading (Ctrl-C, a closed tab) is no fault of the service's.
                log.info("client %s went away during %s %s", request.remote, request.method, request.path_qs)
                raise
        await super().write_eof()
        return writer

    @staticmethod
    def _holds(if_match, etag, if_unmodified_since, mtime):
        if if_match is not None:
            return any(tag.value in (etag, "*") and not tag.is_weak for tag in if_match)
        return if_unmodified_since is None or mtime <= if_unmodified_since.timestamp()

    def _range_applies(self, request):
        """Whether a Range is to be honoured: without If-Range, or when If-Range
        names this very content (its entity tag, or a date not before its change)."""
        if_range = request.headers.get(hdrs.IF_RANGE)
        if if_range is None:
            return True
        date = request.if_range   # the header read as a date, None when it is an entity tag
        if date is not None:
            return self._st.st_mtime <= date.timestamp()
        return if_range.strip() == '"%s"' % self._tag

    async def _unsatisfiable(self, request):
        self.headers[hdrs.CONTENT_RANGE] = "bytes */%d" % self._st.st_size
        return await self._bodiless(request, 416, 0)

    async def _bodiless(self, request, status, length):
        """An answer without a body; a 304 states the length a 200 would have."""
        self.set_status(status)
        self.content_length = length
        return await super().prepare(request)

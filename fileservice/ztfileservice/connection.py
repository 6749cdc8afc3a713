"""Client connections: none is held open by a client that has gone quiet, and a
malformed request costs one log line."""
import asyncio
import errno
import logging
import resource

from aiohttp.http_exceptions import HttpProcessingError
from aiohttp.web import RequestHandler

log = logging.getLogger("zt-fileservice")


class ServiceConnection(RequestHandler):
    """One client connection, closed when it waits for a request longer than
    idle_timeout: before its first request, between requests (keep-alive), and
    while a request's head is still arriving, so a client that sends half a
    request and goes quiet is let go too.

    A body that stops arriving is bounded by the handlers (FileService.quiet_bound).
    """

    def __init__(self, manager, *, idle_timeout, **kwargs):
        # aiohttp's keep-alive timer covers the wait after each request; the
        # first wait is ours. The unread rest of a refused body is drained no
        # longer than a client may stay quiet.
        super().__init__(manager, keepalive_timeout=idle_timeout,
                         lingering_time=min(10.0, idle_timeout), **kwargs)
        self.idle_timeout = idle_timeout
        self._first_request_due = None

    def connection_made(self, transport):
        super().connection_made(transport)
        self._first_request_due = asyncio.get_running_loop().call_later(self.idle_timeout, self._close_if_no_request)

    def connection_lost(self, exc):
        if self._first_request_due is not None:
            self._first_request_due.cancel()
        super().connection_lost(exc)

    def _close_if_no_request(self):
        # aiohttp counts a connection's requests, once a head is complete, only in this private field.
        if self._request_count == 0:
            self.force_close()

    def log_exception(self, message, *args, exc_info=None, **kwargs):
        if isinstance(exc_info, (HttpProcessingError, ConnectionError)):
            peer = self.transport.get_extra_info("peername") if self.transport else None
            log.warning("bad request from %s: %s", peer[0] if peer else "?",
                        getattr(exc_info, "message", None) or exc_info)
            return
        super().log_exception(message, *args, exc_info=exc_info, **kwargs)


def raise_descriptor_limit():
    """Lets the service hold as many connections as the system allows it: the
    usual soft limit of 1024 descriptors is soon used up by waiting clients."""
    soft, hard = resource.getrlimit(resource.RLIMIT_NOFILE)
    if hard != resource.RLIM_INFINITY and soft < hard:
        resource.setrlimit(resource.RLIMIT_NOFILE, (hard, hard))


def quiet_exhaustion(loop, context):
    """Out of descriptors, asyncio stops accepting for a second and says so with a
    traceback every time; one line is enough."""
    error = context.get("exception")
    if isinstance(error, OSError) and error.errno in (errno.EMFILE, errno.ENFILE):
        log.warning("%s: %s", context.get("message"), error.strerror)
        return
    loop.default_exception_handler(context)

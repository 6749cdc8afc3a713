"""SHA-256 digests of stored files, known without hashing a file at every request.

A digest is kept with the content key of the file it was taken from, and is
stated only for a file that still has that key. Uploads are hashed as they are
assembled; a file placed by hand is hashed once, off the event loop, after the
first request that finds its digest unknown.
"""
import base64
import concurrent.futures
import errno
import functools
import hashlib
import logging
import os
import stat
import threading
import time

HASH_BLOCK = 1 << 20
# A file changed more recently than this may change again within the same tick
# of the kernel's file clock, which would leave its times as they were.
SETTLE_NS = 50_000_000

log = logging.getLogger("zt-fileservice")


def content_key(st):
    """What identifies a stored file's content: any write moves its change time
    (which no one can set back, unlike its modification time), and a file put
    in place of another has an inode of its own."""
    return [st.st_dev, st.st_ino, st.st_size, st.st_mtime_ns, st.st_ctime_ns]


def etag_of(st):
    """The entity tag: it changes whenever the content key does."""
    return "%x-%x-%x-%x" % (st.st_size, st.st_mtime_ns, st.st_ctime_ns, st.st_ino)


def as_repr_digest(raw):
    """The Repr-Digest field value: sha-256=:<base64>:"""
    return "sha-256=:%s:" % base64.b64encode(raw).decode()


def open_regular(path):
    """(descriptor, status) of the regular file at path; None for anything else.

    A symlink is never followed: one inside the root could lead anywhere. Nor is
    a FIFO or device opened for reading as if it were a stored file.
    """
    try:
        fd = os.open(path, os.O_RDONLY | os.O_NOFOLLOW | os.O_NONBLOCK | os.O_CLOEXEC)
    except OSError:
        return None
    st = os.fstat(fd)
    if not stat.S_ISREG(st.st_mode):
        os.close(fd)
        return None
    return fd, st


def hash_descriptor(fd, size, stopping=None):
    """SHA-256 of the first size bytes of an open file. Blocking; gives up
    with ECANCELED once stopping is set."""
    sha = hashlib.sha256()
    buffer = bytearray(HASH_BLOCK)
    view = memoryview(buffer)
    offset = 0
    while offset < size:
        if stopping is not None and stopping.is_set():
            raise OSError(errno.ECANCELED, "the service is stopping")
        count = os.preadv(fd, [view[:min(HASH_BLOCK, size - offset)]], offset)
        if count <= 0:
            break
        sha.update(view[:count])
        offset += count
    return sha.digest()


def measure(path, stopping=None):
    """(content key, Repr-Digest) of the file at path, or None when it is no
    regular file or changed while it was read. Blocking."""
    opened = open_regular(path)
    if opened is None:
        return None
    fd, before = opened
    try:
        # Waits out the tick in which the file last changed, so that a write
        # during the hash cannot leave its times unchanged.
        settled = before.st_ctime_ns + SETTLE_NS - time.time_ns()
        if settled > 0:
            time.sleep(settled / 1e9)
        raw = hash_descriptor(fd, before.st_size, stopping)
        after = os.fstat(fd)
    finally:
        os.close(fd)
    key = content_key(before)
    return (key, as_repr_digest(raw)) if content_key(after) == key else None


class Digests:
    """name -> (content key, Repr-Digest) of stored files."""

    def __init__(self, known=None):
        self.known = dict(known or {})
        self.pending = {}
        # One file at a time, so hashing files placed by hand takes one core at most.
        self.executor = concurrent.futures.ThreadPoolExecutor(1, thread_name_prefix="digest")
        # A large file's hash is not waited for when the service stops.
        self.stopping = threading.Event()

    def of(self, name, st):
        """The digest of name if it is known for the content st describes."""
        entry = self.known.get(name)
        return entry[1] if entry is not None and entry[0] == content_key(st) else None

    def learn(self, name, key, digest):
        self.known[name] = (key, digest)

    def forget(self, name):
        self.known.pop(name, None)

    def keep_only(self, names):
        for name in set(self.known) - set(names):
            del self.known[name]

    def find_later(self, loop, name, path):
        """Hashes the file in the background, once however many ask meanwhile."""
        if name in self.pending:
            return
        job = loop.run_in_executor(self.executor, functools.partial(measure, path, self.stopping))
        self.pending[name] = job
        job.add_done_callback(lambda done: self._found(name, done))

    def _found(self, name, job):
        del self.pending[name]
        if job.cancelled():
            return
        if job.exception() is not None:
            log.warning("digest of %s: %s", name, job.exception())
            return
        if job.result() is not None:
            self.learn(name, *job.result())

    def shutdown(self):
        self.stopping.set()
        self.executor.shutdown(wait=False, cancel_futures=True)

"""Stored files and upload sessions on disk.

Layout under the root folder:
  <name>                              stored files (plain names only, never hidden)
  .uploads/completed.json             fileName -> {"fileMD5", "fileSize"} of finished uploads
  .uploads/<uploadID>/session.json    one upload session, rewritten atomically
  .uploads/<uploadID>/data            the file being uploaded, every part at its place
  .uploads/<uploadID>/incoming-*      a part body on its way in; removed at start

A body is checked in its scratch file, then copied to its place in the data
file. A part's bytes count only once session.json records them, and that
happens after they are on disk: a crash mid-write leaves at worst bytes that
are not counted, never counted bytes that are wrong. Completing an upload
renames the data file into place, so no byte is copied twice.
"""
import asyncio
import errno
import json
import logging
import math
import os
import secrets
import shutil
import tempfile
import time

COPY_BLOCK = 1 << 20
INCOMING_PREFIX = "incoming-"

log = logging.getLogger("zt-fileservice")


def _fsync_path(path, directory=False):
    fd = os.open(path, os.O_RDONLY | (os.O_DIRECTORY if directory else 0))
    try:
        os.fsync(fd)
    finally:
        os.close(fd)


def _write_json(path, data):
    """Writes data aside and renames it into place: a crash leaves the old or the new."""
    fd, temp = tempfile.mkstemp(prefix=".tmp-", dir=os.path.dirname(path))
    try:
        with os.fdopen(fd, "w", encoding="utf-8") as out:
            json.dump(data, out)
            out.flush()
            os.fsync(out.fileno())
        os.replace(temp, path)
    except BaseException:
        if os.path.exists(temp):
            os.unlink(temp)
        raise


def _read_json(path, default):
    try:
        with open(path, encoding="utf-8") as f:
            return json.load(f)
    except (OSError, ValueError):
        return default


def copy_range(source, source_offset, target, target_offset, count):
    """Copies count bytes between open descriptors, in the kernel where it can."""
    use_kernel = hasattr(os, "copy_file_range")
    while count > 0:
        if use_kernel:
            try:
                done = os.copy_file_range(source, target, min(count, 1 << 30),
                                          source_offset, target_offset)
            except OSError as error:
                if error.errno not in (errno.EXDEV, errno.ENOSYS, errno.EINVAL,
                                       errno.EOPNOTSUPP, errno.EPERM):
                    raise
                use_kernel = False
                continue
        else:
            block = os.pread(source, min(count, COPY_BLOCK), source_offset)
            done = os.pwrite(target, block, target_offset) if block else 0
        if done <= 0:
            raise OSError(errno.EIO, "source ended %d bytes early" % count)
        source_offset += done
        target_offset += done
        count -= done


def merge_ranges(ranges):
    merged = []
    for start, end in sorted(ranges):
        if merged and start <= merged[-1][1]:
            merged[-1][1] = max(merged[-1][1], end)
        else:
            merged.append([start, end])
    return merged


class Session:
    """One upload: a file of fileSize bytes cut into parts of chunkSize bytes."""

    def __init__(self, folder, data):
        self.folder = folder
        self.data = data
        # Held while parts are put in place or the session is completed.
        self.lock = asyncio.Lock()

    @property
    def upload_id(self):
        return self.data["uploadID"]

    @property
    def token(self):
        return self.data["token"]

    @property
    def identifier(self):
        return self.data["identifier"]

    def part_count(self):
        size, chunk = self.data["fileSize"], self.data["chunkSize"]
        return (size + chunk - 1) // chunk

    def part_size(self, number):
        size, chunk = self.data["fileSize"], self.data["chunkSize"]
        return max(0, min(chunk, size - (number - 1) * chunk))

    def data_path(self):
        return os.path.join(self.folder, "data")

    def held_prefix(self, number):
        """Bytes of the part held without a gap from its first byte on."""
        ranges = self.data["parts"].get(str(number), [])
        return ranges[0][1] if ranges and ranges[0][0] == 0 else 0

    def missing_parts(self):
        return [n for n in range(1, self.part_count() + 1)
                if self.held_prefix(n) < self.part_size(n)]

    def seconds_left(self, now=None):
        """What the session has left to live: its whole lifetime when it is new."""
        now = time.time() if now is None else now
        return max(0, math.ceil(self.data["created"] + self.data["expires"] - now))

    def expired(self, now=None):
        now = time.time() if now is None else now
        return now > self.data["created"] + self.data["expires"]

    def record(self, number, start, end):
        """Counts bytes [start, end) of a part as received; they are on disk already."""
        if end > start:
            ranges = self.data["parts"].get(str(number), []) + [[start, end]]
            self.data["parts"][str(number)] = merge_ranges(ranges)
            self.save()

    def forget(self, numbers):
        for number in numbers:
            self.data["parts"].pop(str(number), None)
        self.save()

    def save(self):
        _write_json(os.path.join(self.folder, "session.json"), self.data)

    def new_incoming(self):
        """A scratch file for a part body: (open binary file, path)."""
        fd, path = tempfile.mkstemp(prefix=INCOMING_PREFIX, dir=self.folder)
        return os.fdopen(fd, "wb"), path

    def take_part(self, number, offset, incoming, count):
        """Puts count bytes of the scratch file at offset of part number in the
        data file, synced, then counts them as received.

        The body of a one-part upload is the whole file and is renamed into
        place; any other body is copied in the kernel. Blocking: runs off the
        event loop, with the session's lock held by the caller.
        """
        if self.part_count() == 1 and offset == 0 and count == self.part_size(1):
            _fsync_path(incoming)
            os.replace(incoming, self.data_path())
        else:
            source = os.open(incoming, os.O_RDONLY)
            try:
                target = os.open(self.data_path(), os.O_WRONLY | os.O_CREAT, 0o644)
                try:
                    place = (number - 1) * self.data["chunkSize"] + offset
                    copy_range(source, 0, target, place, count)
                    os.fsync(target)
                finally:
                    os.close(target)
            finally:
                os.close(source)
        self.record(number, offset, offset + count)

    def short_parts(self):
        """Parts counted as received that end past the data file's end."""
        try:
            size = os.path.getsize(self.data_path())
        except OSError:
            size = -1
        chunk = self.data["chunkSize"]
        return [n for n in range(1, self.part_count() + 1)
                if self.part_size(n) > 0 and size < (n - 1) * chunk + self.part_size(n)]


class Store:
    def __init__(self, root, chunk_size, expires):
        self.root = os.path.abspath(root)
        self.uploads = os.path.join(self.root, ".uploads")
        self.chunk_size = chunk_size
        self.expires = expires
        os.makedirs(self.uploads, exist_ok=True)
        self._completed_path = os.path.join(self.uploads, "completed.json")
        self.completed = _read_json(self._completed_path, {})
        if not isinstance(self.completed, dict):
            self.completed = {}
        self.sessions = {}   # identifier -> Session
        self.by_upload_id = {}
        self._load()

    def _load(self):
        """Takes up the sessions a previous run left, and clears what it left half done."""
        for name in os.listdir(self.uploads):
            folder = os.path.join(self.uploads, name)
            if not os.path.isdir(folder):
                if name.startswith(".tmp-"):
                    os.unlink(folder)
                continue
            data = _read_json(os.path.join(folder, "session.json"), None)
            if not self._usable(data, name):
                shutil.rmtree(folder, ignore_errors=True)
                continue
            session = Session(folder, data)
            for entry in os.listdir(folder):
                if entry.startswith(INCOMING_PREFIX) or entry.startswith(".tmp-"):
                    os.unlink(os.path.join(folder, entry))
            self._attach(session)
        log.info("%d upload sessions taken up", len(self.sessions))

    @staticmethod
    def _usable(data, upload_id):
        """Whether a session.json read back describes a live session of that folder."""
        try:
            return (data["uploadID"] == upload_id and isinstance(data["parts"], dict)
                    and data["fileSize"] >= 0 and data["chunkSize"] >= 1
                    and bool(data["token"]) and bool(data["identifier"])
                    and isinstance(data["fileName"], str)
                    and not Session(None, data).expired())
        except (KeyError, TypeError):
            return False

    # Stored files

    def path_of(self, name):
        return os.path.join(self.root, name)

    @staticmethod
    def etag_of(st):
        """The entity tag of a stored file; the same one its download answers with."""
        return "%x-%x" % (st.st_mtime_ns, st.st_size)

    def list_files(self):
        entries = []
        for name in sorted(os.listdir(self.root)):
            if name.startswith("."):
                continue
            try:
                st = os.stat(self.path_of(name))
            except OSError:  # deleted meanwhile
                continue
            if not os.path.isfile(self.path_of(name)):
                continue
            entries.append({
                "fileName": name,
                "fileSize": st.st_size,
                "etag": self.etag_of(st),
                "modified": time.strftime("%Y-%m-%dT%H:%M:%SZ", time.gmtime(st.st_mtime)),
            })
        return entries

    def delete(self, name):
        path = self.path_of(name)
        if not os.path.isfile(path):
            return False
        try:
            os.unlink(path)
        except FileNotFoundError:
            return False
        if self.completed.pop(name, None) is not None:
            _write_json(self._completed_path, self.completed)
        return True

    def already_stored(self, name, identifier, size):
        done = self.completed.get(name)
        path = self.path_of(name)
        return (done is not None and done["fileMD5"] == identifier and done["fileSize"] == size
                and os.path.isfile(path) and os.path.getsize(path) == size)

    # Sessions

    def _attach(self, session):
        self.sessions[session.identifier] = session
        self.by_upload_id[session.upload_id] = session

    def detach(self, session):
        """Takes a session out of reach of new requests; its folder stays."""
        if self.sessions.get(session.identifier) is session:
            del self.sessions[session.identifier]
        if self.by_upload_id.get(session.upload_id) is session:
            del self.by_upload_id[session.upload_id]

    def reattach(self, session):
        if session.identifier not in self.sessions:
            self._attach(session)

    def drop(self, session):
        self.detach(session)
        shutil.rmtree(session.folder, ignore_errors=True)

    def drop_expired(self):
        now = time.time()
        for session in [s for s in self.sessions.values() if s.expired(now)]:
            log.info("upload %s expired", session.upload_id)
            self.drop(session)

    def session_for(self, identifier, name, size):
        """The live session of identifier for this name and size, or a new one."""
        self.drop_expired()
        session = self.sessions.get(identifier)
        if session and (session.data["fileName"] != name or session.data["fileSize"] != size):
            self.drop(session)
            session = None
        if session is None:
            upload_id = secrets.token_hex(16)
            folder = os.path.join(self.uploads, upload_id)
            os.makedirs(folder)
            session = Session(folder, {
                "uploadID": upload_id,
                "token": secrets.token_hex(16),
                "identifier": identifier,
                "fileName": name,
                "fileSize": size,
                "chunkSize": self.chunk_size,
                "expires": self.expires,
                "created": time.time(),
                "parts": {},
            })
            session.save()
            self._attach(session)
        return session

    def session_by_upload_id(self, upload_id):
        session = self.by_upload_id.get(upload_id)
        if session is not None and session.expired():
            self.drop(session)
            return None
        return session

    def assemble(self, session):
        """Makes the data file the stored file: synced, then renamed into place.

        Blocking: runs off the event loop. Returns the stored file's size.
        """
        data = session.data_path()
        with open(data, "ab") as out:   # an empty file never got a part
            size = out.tell()
            if size != session.data["fileSize"]:
                raise OSError(errno.EIO, "data holds %d bytes, not %d" % (size, session.data["fileSize"]))
            os.fsync(out.fileno())
        os.chmod(data, 0o644)
        os.replace(data, self.path_of(session.data["fileName"]))
        _fsync_path(self.root, directory=True)
        return size

    def remember_completed(self, session):
        self.completed[session.data["fileName"]] = {
            "fileMD5": session.identifier, "fileSize": session.data["fileSize"]}
        _write_json(self._completed_path, self.completed)

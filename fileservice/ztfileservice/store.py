"""Stored files and upload sessions on disk.

Layout under the root folder:
  <name>                              stored files (plain names only, never hidden)
  .uploads/completed.json             fileName -> {"fileMD5", "fileSize", "client", "completed",
                                      "key", "digest"} of finished uploads, as of the last start
  .uploads/completed.log              what changed in it since: one JSON line per upload
                                      completed ({"name", "record"}) or file deleted ({"name"})
  .uploads/<uploadID>/session.json    one upload session as it was opened, written atomically
  .uploads/<uploadID>/parts.log       the byte ranges received since: "PART START END" lines,
                                      or "-PART" for a part found lost
  .uploads/<uploadID>/data            the file being uploaded, every part at its place
  .uploads/<uploadID>/incoming-*      a large part body on its way in; removed at start

A body is checked (in memory, or in a scratch file when it is large) before it
is written to its place in the data file. A part's bytes count only once
parts.log records them, and that happens after they are on disk: a crash
mid-write leaves at worst bytes that are not counted, never counted bytes that
are wrong. Completing an upload renames the data file into place, so no byte is
copied twice.

Each request appends a line to a log rather than rewriting a record that holds
every part or every upload: a part costs the same whether it is the first or
the four-thousandth, and a completed upload the same however many came before.
The logs are folded into their records when the service starts.

A session belongs to one client: the identifier a client chooses names a
session only among that client's own, so another client that happens to (or
means to) use the same identifier never writes into it.
"""
import asyncio
import collections
import errno
import json
import logging
import math
import os
import secrets
import shutil
import stat
import tempfile
import time
import weakref

from .digests import Digests, as_repr_digest, content_key, etag_of, hash_descriptor, open_regular

COPY_BLOCK = 1 << 20
INCOMING_PREFIX = "incoming-"
IN_PLACE = "(in place)"   # a part body written straight into the data file
PARTS_LOG = "parts.log"

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
            out.write(json.dumps(data))   # in one piece: json.dump writes token by token
            out.flush()
            os.fsync(out.fileno())
        os.replace(temp, path)
    except BaseException:
        if os.path.exists(temp):
            os.unlink(temp)
        raise


def _append_synced(path, text):
    """Appends text to a log file and syncs it: once this returns, the line is on disk."""
    fd = os.open(path, os.O_WRONLY | os.O_APPEND | os.O_CREAT | os.O_NOFOLLOW | os.O_CLOEXEC, 0o644)
    try:
        data = text.encode("utf-8")
        if os.write(fd, data) != len(data):
            raise OSError(errno.EIO, "short write to %s" % path)
        os.fdatasync(fd)
    finally:
        os.close(fd)


def _read_lines(path):
    """The complete lines of a log; a last line a crash cut short is left out."""
    try:
        with open(path, encoding="utf-8", errors="replace") as f:
            text = f.read()
    except OSError:
        return []
    return text.split("\n")[:-1]


def _pwrite_all(fd, data, offset):
    view = memoryview(data)
    while view:
        done = os.pwrite(fd, view, offset)
        if done <= 0:
            raise OSError(errno.EIO, "write made no progress")
        view, offset = view[done:], offset + done


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


class InPlaceWriter:
    """Writes a body's pieces one after the other from a place in a file."""

    def __init__(self, fd, place):
        self.fd, self.place = fd, place

    def write(self, data):
        _pwrite_all(self.fd, data, self.place)
        self.place += len(data)

    def close(self):
        os.close(self.fd)


class Session:
    """One upload: a file of fileSize bytes cut into parts of chunkSize bytes."""

    def __init__(self, folder, data, clock=time.time):
        self.folder = folder
        self.data = data
        self.clock = clock
        # Held while parts are put in place or the session is completed.
        self.lock = asyncio.Lock()
        self._part_locks = {}

    def part_lock(self, number):
        """Held while one body of the part is received and stored."""
        lock = self._part_locks.get(number)
        if lock is None:
            lock = self._part_locks[number] = asyncio.Lock()
        return lock

    @property
    def upload_id(self):
        return self.data["uploadID"]

    @property
    def token(self):
        return self.data["token"]

    @property
    def identifier(self):
        return self.data["identifier"]

    @property
    def key(self):
        return self.data["client"], self.data["identifier"]

    def last_active(self):
        return self.data.get("touched", self.data["created"])

    def touch(self):
        self.data["touched"] = self.clock()

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

    def unheld_from(self, number, offset):
        """Whether no byte of the part from offset on is counted as received."""
        return all(end <= offset for _, end in self.data["parts"].get(str(number), []))

    def place_of(self, number, offset):
        return (number - 1) * self.data["chunkSize"] + offset

    def open_in_place(self, place):
        fd = os.open(self.data_path(), os.O_WRONLY | os.O_CREAT | os.O_NOFOLLOW | os.O_CLOEXEC, 0o644)
        return InPlaceWriter(fd, place)

    def held_bytes(self):
        return sum(end - start for ranges in self.data["parts"].values() for start, end in ranges)

    def missing_parts(self):
        return [n for n in range(1, self.part_count() + 1)
                if self.held_prefix(n) < self.part_size(n)]

    def seconds_left(self, now=None):
        """What the session has left to live: its whole lifetime when it is new."""
        now = self.clock() if now is None else now
        return max(0, math.ceil(self.data["created"] + self.data["expires"] - now))

    def expired(self, now=None):
        now = self.clock() if now is None else now
        return now > self.data["created"] + self.data["expires"]

    def _count(self, number, start, end):
        ranges = self.data["parts"].get(str(number), []) + [[start, end]]
        self.data["parts"][str(number)] = merge_ranges(ranges)

    def record(self, number, start, end):
        """Counts bytes [start, end) of a part as received; they are on disk already."""
        if end > start:
            _append_synced(os.path.join(self.folder, PARTS_LOG), "%d %d %d\n" % (number, start, end))
            self._count(number, start, end)
            self.touch()

    def forget(self, numbers):
        _append_synced(os.path.join(self.folder, PARTS_LOG), "".join("-%d\n" % n for n in numbers))
        for number in numbers:
            self.data["parts"].pop(str(number), None)

    def save(self):
        _write_json(os.path.join(self.folder, "session.json"), self.data)

    def replay(self):
        """Takes up the ranges parts.log recorded since session.json was written."""
        path = os.path.join(self.folder, PARTS_LOG)
        for line in _read_lines(path):
            fields = line.split()
            try:
                numbers = [int(field) for field in fields]
            except ValueError:
                continue
            if len(numbers) == 1 and numbers[0] < 0:
                self.data["parts"].pop(str(-numbers[0]), None)
            elif len(numbers) == 3 and 1 <= numbers[0] <= self.part_count() \
                    and 0 <= numbers[1] < numbers[2] <= self.part_size(numbers[0]):
                self._count(*numbers)
        try:
            self.data["touched"] = max(self.last_active(), os.path.getmtime(path))
        except OSError:
            pass

    def new_incoming(self):
        """A scratch file for a part body: (open binary file, path)."""
        fd, path = tempfile.mkstemp(prefix=INCOMING_PREFIX, dir=self.folder)
        return os.fdopen(fd, "wb"), path

    def take_part(self, number, offset, incoming, count):
        """Puts count bytes of the body, in memory (bytes), in the scratch
        file incoming (a path) or already in place (IN_PLACE), at offset of
        part number in the data file, synced, then counts them as received.

        A body in memory is written in place; the scratch file of a one-part
        upload is the whole file and is renamed into place; any other is copied
        in the kernel. Blocking: runs off the event loop, with the session's
        lock held by the caller.
        """
        if incoming is IN_PLACE:
            target = os.open(self.data_path(), os.O_WRONLY | os.O_NOFOLLOW | os.O_CLOEXEC)
            try:
                os.fdatasync(target)
            finally:
                os.close(target)
        elif not isinstance(incoming, str):
            target = os.open(self.data_path(), os.O_WRONLY | os.O_CREAT | os.O_NOFOLLOW, 0o644)
            try:
                _pwrite_all(target, incoming[:count], (number - 1) * self.data["chunkSize"] + offset)
                os.fdatasync(target)
            finally:
                os.close(target)
        elif self.part_count() == 1 and offset == 0 and count == self.part_size(1):
            _fsync_path(incoming)
            os.replace(incoming, self.data_path())
        else:
            source = os.open(incoming, os.O_RDONLY)
            try:
                target = os.open(self.data_path(), os.O_WRONLY | os.O_CREAT | os.O_NOFOLLOW, 0o644)
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
    def __init__(self, root, chunk_size, expires, session_idle=3600, max_sessions=1000, clock=time.time):
        self.root = os.path.abspath(root)
        self.clock = clock   # seconds since the epoch; tests pass one they can advance
        self.uploads = os.path.join(self.root, ".uploads")
        self.chunk_size = chunk_size
        self.expires = expires
        self.session_idle = session_idle
        self.max_sessions = max_sessions
        os.makedirs(self.uploads, exist_ok=True)
        self._completed_path = os.path.join(self.uploads, "completed.json")
        self._completed_log = os.path.join(self.uploads, "completed.log")
        self.completed = self._load_completed()
        self.digests = Digests({name: (done["key"], done["digest"]) for name, done in self.completed.items()
                                if isinstance(done, dict) and "key" in done and "digest" in done})
        self.sessions = {}   # (client, identifier) -> Session
        self.by_upload_id = {}
        self.held_by = collections.Counter()   # client -> sessions open
        self._swept = 0.0                      # when drop_expired last looked at every session
        # name -> the lock held while an upload of that name is put in place
        self._name_locks = weakref.WeakValueDictionary()
        self._load()

    def _load_completed(self):
        """The record of finished uploads with the log of what changed since
        folded in, written back as one record so that the log starts empty."""
        completed = _read_json(self._completed_path, {})
        if not isinstance(completed, dict):
            completed = {}
        lines = _read_lines(self._completed_log)
        for line in lines:
            try:
                change = json.loads(line)
                name = change["name"]
            except (ValueError, TypeError, KeyError):
                continue
            if isinstance(change.get("record"), dict):
                completed[name] = change["record"]
            else:
                completed.pop(name, None)
        if lines or os.path.exists(self._completed_log):
            _write_json(self._completed_path, completed)
            os.unlink(self._completed_log)
        return completed

    def _log_completed(self, name, record=None):
        change = {"name": name}
        if record is not None:
            change["record"] = record
        _append_synced(self._completed_log, json.dumps(change) + "\n")

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
            session = Session(folder, data, self.clock)
            session.replay()
            for entry in os.listdir(folder):
                if entry.startswith(INCOMING_PREFIX) or entry.startswith(".tmp-"):
                    os.unlink(os.path.join(folder, entry))
            self._attach(session)
        log.info("%d upload sessions taken up", len(self.sessions))

    def _usable(self, data, upload_id):
        """Whether a session.json read back describes a live session of that folder."""
        try:
            return (data["uploadID"] == upload_id and isinstance(data["parts"], dict)
                    and data["fileSize"] >= 0 and data["chunkSize"] >= 1
                    and bool(data["token"]) and bool(data["identifier"])
                    and isinstance(data["client"], str) and isinstance(data["fileName"], str)
                    and not Session(None, data, self.clock).expired())
        except (KeyError, TypeError):
            return False

    # Stored files

    def path_of(self, name):
        return os.path.join(self.root, name)

    def stored_status(self, name):
        """The status of the stored file name; None when there is none. Only a
        regular file is a stored file: a symlink is not, wherever it leads."""
        try:
            st = os.lstat(self.path_of(name))
        except OSError:
            return None
        return st if stat.S_ISREG(st.st_mode) else None

    def open_stored(self, name):
        """(descriptor, status) of the stored file name, or None."""
        return open_regular(self.path_of(name))

    def list_files(self, loop):
        """The stored files, each with its digest when it is known; those not
        known yet are hashed in the background for the next listing."""
        with os.scandir(self.root) as found:
            candidates = sorted((entry for entry in found if not entry.name.startswith(".")),
                                key=lambda entry: entry.name)
        entries = []
        for entry in candidates:
            try:
                if not entry.is_file(follow_symlinks=False):
                    continue
                st = entry.stat(follow_symlinks=False)
            except OSError:  # deleted meanwhile
                continue
            listed = {
                "fileName": entry.name,
                "fileSize": st.st_size,
                "etag": etag_of(st),
                "modified": time.strftime("%Y-%m-%dT%H:%M:%SZ", time.gmtime(st.st_mtime)),
            }
            digest = self.digests.of(entry.name, st)
            if digest is None:
                self.digests.find_later(loop, entry.name, entry.path)
            else:
                listed["digest"] = digest
            entries.append(listed)
        self.digests.keep_only(entry["fileName"] for entry in entries)
        return entries

    def delete(self, name):
        if self.stored_status(name) is None:
            return False
        try:
            os.unlink(self.path_of(name))
        except FileNotFoundError:
            return False
        self.digests.forget(name)
        if self.completed.pop(name, None) is not None:
            self._log_completed(name)
        return True

    def already_stored(self, client, name, identifier, size):
        """Whether this client completed this upload and the file is still as it left it."""
        done = self.completed.get(name)
        st = self.stored_status(name)
        return (done is not None and st is not None and done["fileMD5"] == identifier
                and done["fileSize"] == size and done.get("client") == client
                and done.get("key") == content_key(st))

    # Sessions

    def _attach(self, session):
        if session.key not in self.sessions:
            self.held_by[session.data["client"]] += 1
        self.sessions[session.key] = session
        self.by_upload_id[session.upload_id] = session

    def detach(self, session):
        """Takes a session out of reach of new requests; its folder stays."""
        if self.sessions.get(session.key) is session:
            del self.sessions[session.key]
            self.held_by[session.data["client"]] -= 1
            if self.held_by[session.data["client"]] <= 0:
                del self.held_by[session.data["client"]]
        if self.by_upload_id.get(session.upload_id) is session:
            del self.by_upload_id[session.upload_id]

    def reattach(self, session):
        if session.key not in self.sessions:
            self._attach(session)

    def drop(self, session):
        self.detach(session)
        shutil.rmtree(session.folder, ignore_errors=True)

    def drop_expired(self):
        """Drops the expired sessions; looks at all of them at most once a
        second, so that a thousand open sessions do not make every request
        walk a thousand. A session found by its key or upload ID is checked
        on its own."""
        now = self.clock()
        if 0 <= now - self._swept < 1.0:
            return
        self._swept = now
        for session in [s for s in self.sessions.values() if s.expired(now)]:
            log.info("upload %s expired", session.upload_id)
            self.drop(session)

    def live_session(self, client, identifier, name, size):
        """The client's live session of identifier, if it is one for this name and size."""
        self.drop_expired()
        session = self.sessions.get((client, identifier))
        if session and session.expired():
            log.info("upload %s expired", session.upload_id)
            self.drop(session)
            session = None
        if session and (session.data["fileName"] != name or session.data["fileSize"] != size):
            self.drop(session)   # the identifier now stands for another upload
            session = None
        return session

    def open_session(self, client, identifier, name, size):
        """A new session of the client; None when it has as many open as it may."""
        held = self.held_by[client]
        if held >= self.max_sessions:
            log.warning("upload of %s refused: the client has %d sessions open", name, held)
            return None
        upload_id = secrets.token_hex(16)
        folder = os.path.join(self.uploads, upload_id)
        os.makedirs(folder)
        session = Session(folder, clock=self.clock, data={
            "uploadID": upload_id,
            "token": secrets.token_hex(16),
            "client": client,
            "identifier": identifier,
            "fileName": name,
            "fileSize": size,
            "chunkSize": self.chunk_size,
            "expires": self.expires,
            "created": self.clock(),
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

    def make_room(self, needed, keep=None):
        """Whether needed bytes fit on the disk, once sessions idle for
        session_idle seconds are dropped, the longest idle first, as far as it
        takes: a client that gave up does not hold the disk until its session
        expires."""
        if needed <= shutil.disk_usage(self.root).free:
            return True
        now = self.clock()
        idle = sorted((session for session in self.sessions.values()
                       if session is not keep and not session.lock.locked()
                       and now - session.last_active() >= self.session_idle),
                      key=Session.last_active)
        for session in idle:
            log.info("upload %s dropped to make room: idle for %d s",
                     session.upload_id, now - session.last_active())
            self.drop(session)
            if needed <= shutil.disk_usage(self.root).free:
                return True
        return False

    def name_lock(self, name):
        """The lock held while an upload of name is put in place."""
        lock = self._name_locks.get(name)
        if lock is None:
            lock = asyncio.Lock()
            self._name_locks[name] = lock
        return lock

    def superseded(self, session):
        """Whether another upload of the same name was completed since this one began."""
        done = self.completed.get(session.data["fileName"])
        return done is not None and done.get("completed", 0) >= session.data["created"]

    def assemble(self, session):
        """Makes the data file the stored file: synced, hashed, then renamed into place.

        Blocking: runs off the event loop. Returns the stored file's size, content
        key and digest. The data file is the session's own, so the bytes hashed
        are the bytes put in place.
        """
        data = session.data_path()
        # An empty file never got a part.
        fd = os.open(data, os.O_RDWR | os.O_CREAT | os.O_NOFOLLOW | os.O_CLOEXEC, 0o644)
        try:
            size = os.fstat(fd).st_size
            if size != session.data["fileSize"]:
                raise OSError(errno.EIO, "data holds %d bytes, not %d" % (size, session.data["fileSize"]))
            os.fsync(fd)
            digest = as_repr_digest(hash_descriptor(fd, size))
            os.fchmod(fd, 0o644)
            os.replace(data, self.path_of(session.data["fileName"]))
            _fsync_path(self.root, directory=True)
            key = content_key(os.fstat(fd))
        finally:
            os.close(fd)
        return size, key, digest

    def remember_completed(self, session, stamp, key, digest):
        name = session.data["fileName"]
        self.completed[name] = {
            "fileMD5": session.identifier, "fileSize": session.data["fileSize"],
            "client": session.data["client"], "completed": stamp, "key": key, "digest": digest}
        self.digests.learn(name, key, digest)
        self._log_completed(name, self.completed[name])

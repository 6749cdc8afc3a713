"""Stored files and upload sessions on disk.

Layout under the root folder:
  <name>                        stored files
  .uploads/completed.json       fileName -> {"fileMD5", "fileSize"} of finished uploads
  .uploads/<identifier>/session.json
  .uploads/<identifier>/part-<n>    parts, written at their offsets (sparse)
"""
import json
import os
import secrets
import shutil
import tempfile
import time

COPY_BUFFER = 1 << 20


def _write_json(path, data):
    """Writes data aside and renames it into place, so a crash leaves the old or the new."""
    folder = os.path.dirname(path)
    fd, temp = tempfile.mkstemp(prefix=".tmp-", dir=folder)
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

    @property
    def upload_id(self):
        return self.data["uploadID"]

    @property
    def token(self):
        return self.data["token"]

    def part_count(self):
        size, chunk = self.data["fileSize"], self.data["chunkSize"]
        return (size + chunk - 1) // chunk if size else 0

    def part_size(self, number):
        size, chunk = self.data["fileSize"], self.data["chunkSize"]
        return max(0, min(chunk, size - (number - 1) * chunk))

    def part_path(self, number):
        return os.path.join(self.folder, "part-%d" % number)

    def ranges(self, number):
        return self.data["parts"].get(str(number), [])

    def held_prefix(self, number):
        """Bytes of the part held without a gap from its first byte."""
        ranges = self.ranges(number)
        return ranges[0][1] if ranges and ranges[0][0] == 0 else 0

    def is_complete(self, number):
        return self.held_prefix(number) >= self.part_size(number)

    def missing_parts(self):
        return [n for n in range(1, self.part_count() + 1) if not self.is_complete(n)]

    def expired(self, now=None):
        now = time.time() if now is None else now
        return now > self.data["created"] + self.data["expires"]

    def record(self, number, start, end):
        if end <= start:
            return
        ranges = self.ranges(number) + [[start, end]]
        self.data["parts"][str(number)] = merge_ranges(ranges)
        self.save()

    def save(self):
        _write_json(os.path.join(self.folder, "session.json"), self.data)


class Store:
    def __init__(self, root, chunk_size, expires):
        self.root = os.path.abspath(root)
        self.uploads = os.path.join(self.root, ".uploads")
        self.chunk_size = chunk_size
        self.expires = expires
        os.makedirs(self.uploads, exist_ok=True)
        self._completed_path = os.path.join(self.uploads, "completed.json")
        self.completed = self._read_json(self._completed_path, {})
        self.sessions = {}
        for identifier in os.listdir(self.uploads):
            data = self._read_json(os.path.join(self.uploads, identifier, "session.json"), None)
            if data:
                self.sessions[identifier] = Session(os.path.join(self.uploads, identifier), data)

    @staticmethod
    def _read_json(path, default):
        try:
            with open(path, encoding="utf-8") as f:
                return json.load(f)
        except (OSError, ValueError):
            return default

    # Stored files

    def path_of(self, name):
        return os.path.join(self.root, name)

    def list_files(self):
        entries = []
        for name in sorted(os.listdir(self.root)):
            path = self.path_of(name)
            if name.startswith(".") or not os.path.isfile(path):
                continue
            st = os.stat(path)
            entries.append({
                "fileName": name,
                "fileSize": st.st_size,
                # The same tag the download answers with.
                "etag": "%x-%x" % (st.st_mtime_ns, st.st_size),
                "modified": time.strftime("%Y-%m-%dT%H:%M:%SZ", time.gmtime(st.st_mtime)),
            })
        return entries

    def delete(self, name):
        path = self.path_of(name)
        if not os.path.isfile(path):
            return False
        os.unlink(path)
        if self.completed.pop(name, None) is not None:
            _write_json(self._completed_path, self.completed)
        return True

    def already_stored(self, name, identifier, size):
        done = self.completed.get(name)
        path = self.path_of(name)
        return (done is not None and done["fileMD5"] == identifier and done["fileSize"] == size
                and os.path.isfile(path) and os.path.getsize(path) == size)

    # Sessions

    def session_for(self, identifier, name, size):
        """The live session of identifier, or a new one."""
        session = self.sessions.get(identifier)
        if session and (session.expired() or session.data["fileName"] != name
                        or session.data["fileSize"] != size):
            self.drop(identifier)
            session = None
        if session is None:
            folder = os.path.join(self.uploads, identifier)
            os.makedirs(folder, exist_ok=True)
            session = Session(folder, {
                "uploadID": secrets.token_hex(16),
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
            self.sessions[identifier] = session
        return session

    def session_by_upload_id(self, upload_id):
        for session in self.sessions.values():
            if session.upload_id == upload_id:
                return session
        return None

    def drop(self, identifier):
        session = self.sessions.pop(identifier, None)
        if session:
            shutil.rmtree(session.folder, ignore_errors=True)

    def assemble(self, session):
        """Joins the parts into the stored file: written aside, synced, renamed."""
        name = session.data["fileName"]
        fd, temp = tempfile.mkstemp(prefix=".assemble-", dir=self.root)
        try:
            with os.fdopen(fd, "wb") as out:
                for number in range(1, session.part_count() + 1):
                    with open(session.part_path(number), "rb") as part:
                        shutil.copyfileobj(part, out, COPY_BUFFER)
                out.flush()
                os.fsync(out.fileno())
            os.replace(temp, self.path_of(name))
        except BaseException:
            if os.path.exists(temp):
                os.unlink(temp)
            raise
        self.completed[name] = {"fileMD5": session.data["identifier"], "fileSize": session.data["fileSize"]}
        _write_json(self._completed_path, self.completed)
        self.drop(session.data["identifier"])
        return os.path.getsize(self.path_of(name))

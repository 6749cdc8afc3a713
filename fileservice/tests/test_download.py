"""Downloads: both request forms, ranges, names, entity tags, digests, and clients written elsewhere."""
import json
import os
import socket
import subprocess
import time
from urllib.parse import quote

import pytest

from conftest import TIMEOUT, repr_digest, sha256

CONTENT = bytes(range(256)) * 4  # 1024 bytes


def fetch(service, method, name, headers=None):
    if method == "GET":
        return service.request("GET", "/download?fileName=" + quote(name), headers=headers)
    return service.request("POST", "/download", json.dumps({"fileName": name}).encode(), headers)


@pytest.fixture(scope="module")
def ranged(shared):
    shared.put_file("r.bin", CONTENT)
    shared.put_file("empty", b"")
    return shared


@pytest.mark.parametrize("method", ["GET", "POST"])
@pytest.mark.parametrize("range_header, status, first, last", [
    (None, 200, 0, 1023),
    ("bytes=0-1", 206, 0, 1),               # the plugin's probe
    ("bytes=0-1023", 206, 0, 1023),
    ("bytes=1000-5000", 206, 1000, 1023),   # an end past the size is clamped
    ("bytes=512-1024", 206, 512, 1023),     # one past the last byte, as chunk plans ask
    ("bytes=1023-1023", 206, 1023, 1023),   # the single last byte
    ("bytes=1023-", 206, 1023, 1023),
    ("bytes=-10", 206, 1014, 1023),
    ("bytes=1024-2000", 416, None, None),   # a start past the end
    ("bytes=1024-", 416, None, None),
    ("bytes=9-3", 416, None, None),
])
def test_ranges(ranged, method, range_header, status, first, last):
    code, headers, body = fetch(ranged, method, "r.bin", {"Range": range_header} if range_header else {})
    assert code == status
    etag = headers["ETag"]
    assert etag.startswith('"') and len(etag) > 2       # strong: no W/
    assert headers["Content-Disposition"] == "attachment; filename=r.bin"
    if status == 416:
        assert headers["Content-Range"] == "bytes */1024" and body == b""
        return
    assert body == CONTENT[first:last + 1]
    assert int(headers["Content-Length"]) == last + 1 - first
    assert headers.get("Content-Range") == (None if status == 200 else "bytes %d-%d/1024" % (first, last))


@pytest.mark.parametrize("method", ["GET", "POST"])
def test_empty_file(ranged, method):
    assert fetch(ranged, method, "empty")[::2] == (200, b"")
    code, headers, _ = fetch(ranged, method, "empty", {"Range": "bytes=0-1"})
    assert (code, headers["Content-Range"]) == (416, "bytes */0")


def test_if_range(ranged):
    etag = fetch(ranged, "GET", "r.bin")[1]["ETag"]
    for if_range, status, body in [(etag, 206, CONTENT[10:20]), ('"stale"', 200, CONTENT),
                                   ("W/" + etag, 200, CONTENT)]:
        code, _, got = fetch(ranged, "POST", "r.bin", {"Range": "bytes=10-19", "If-Range": if_range})
        assert (code, got) == (status, body), if_range


@pytest.mark.parametrize("request_line, body, status", [
    ("GET /download?fileName=missing", None, 404),
    ("GET /download?fileName=" + quote("../root/r.bin"), None, 403),
    ("GET /download?fileName=" + quote("a/b"), None, 403),
    ("GET /download?fileName=a%00b", None, 403),
    ("GET /download?fileName=.uploads", None, 403),
    ("GET /download?fileName=..", None, 403),
    ("GET /download", None, 400),
    ("POST /download", b'{"fileName": "../r.bin"}', 403),
    ("POST /download", b'{"fileName": "missing"}', 404),
    ("POST /download", b"not json", 400),
    ("POST /download", b"{}", 400),
    ("POST /download?fileName=r.bin", b'{"fileName": ""}', 200),   # the name in the address
])
def test_download_answers(ranged, request_line, body, status):
    method, path = request_line.split(" ", 1)
    code, _, got = ranged.request(method, path, body)
    assert code == status and (got == CONTENT) == (status == 200)


def test_stored_file_is_served_as_stored(service):
    """An "x.gz" next to "x" is a file of its own, not an encoding of "x"."""
    service.put_file("x", b"plain")
    service.put_file("x.gz", b"other")
    code, headers, body = fetch(service, "GET", "x", {"Accept-Encoding": "gzip"})
    assert (code, body, headers.get("Content-Encoding")) == (200, b"plain", None)


def known_digest(service, name, content):
    """Asks until answers state the digest, which they may leave out meanwhile
    but never state wrong. Returns the headers of the answer that stated it."""
    deadline = time.monotonic() + TIMEOUT
    while True:
        headers = fetch(service, "POST", name, {"Range": "bytes=0-1"})[1]
        assert headers.get("Repr-Digest") in (None, repr_digest(content))
        if headers.get("Repr-Digest") or time.monotonic() > deadline:
            assert headers.get("Repr-Digest"), "the digest never came"
            return headers
        time.sleep(0.05)


def rewrite(path, content, in_place):
    """Changes a file's bytes, keeping its size and modification time: in place,
    or as another file put in its place."""
    st = os.stat(path)
    target = path if in_place else path + ".new"
    with open(target, "r+b" if in_place else "wb") as f:
        f.write(content)
    os.utime(target, ns=(st.st_atime_ns, st.st_mtime_ns))
    if not in_place:
        os.replace(target, path)


@pytest.mark.parametrize("change", ["uploaded", "rewritten in place", "replaced"])
def test_tag_and_digest_follow_the_content(service, change):
    service.put_file("e.txt", b"one")
    before = known_digest(service, "e.txt", b"one")
    assert fetch(service, "GET", "e.txt")[1]["ETag"] == before["ETag"]
    if change == "uploaded":
        assert service.upload("e.txt", b"two", 8)[0] == "success"
        # Known from the upload itself: no answer goes without it.
        assert fetch(service, "GET", "e.txt")[1]["Repr-Digest"] == repr_digest(b"two")
    else:
        rewrite(os.path.join(service.root, "e.txt"), b"two", change == "rewritten in place")
    after = known_digest(service, "e.txt", b"two")
    assert after["ETag"] != before["ETag"]
    # A resume that names the old tag gets the whole new file.
    code, _, body = fetch(service, "GET", "e.txt", {"Range": "bytes=1-", "If-Range": before["ETag"]})
    assert (code, body) == (200, b"two")
    assert fetch(service, "GET", "e.txt", {"If-None-Match": after["ETag"]})[0] == 304


@pytest.mark.parametrize("headers, status", [
    ({}, 200), ({"Range": "bytes=0-1"}, 206), ({"Range": "bytes=5000-"}, 416), ({"If-None-Match": "*"}, 304)])
@pytest.mark.parametrize("method", ["GET", "HEAD", "POST"])
def test_digest_on_every_answer(ranged, method, headers, status):
    expected = known_digest(ranged, "r.bin", CONTENT)["Repr-Digest"]
    code, got, _ = ranged.request(method, "/download?fileName=r.bin", b"" if method == "POST" else None, headers)
    assert (code, got["Repr-Digest"]) == (status, expected)
    assert {"fileName": "r.bin", "digest": expected}.items() <= next(
        f for f in ranged.call("/download/pathList", {})[1] if f["fileName"] == "r.bin").items()


@pytest.mark.parametrize("target", ["outside the root", "inside the root"])
def test_symlinks_are_not_stored_files(service, scratch, target):
    real = os.path.join(scratch if target == "outside the root" else service.root, "real.txt")
    with open(real, "wb") as f:
        f.write(b"secret")
    os.symlink(real, os.path.join(service.root, "link.txt"))
    for method in ("GET", "POST"):
        assert fetch(service, method, "link.txt")[0] == 404
    assert "link.txt" not in [f["fileName"] for f in service.call("/download/pathList", {})[1]]
    assert service.call("/delete", {"fileName": "link.txt"}) == ("fail", "notExist")
    assert os.path.islink(os.path.join(service.root, "link.txt")) and os.path.exists(real)


@pytest.mark.parametrize("name", ["Grüße ñ 文件.txt", 'a "b"; c=d.txt', "50% off,+&=.txt", "emoji 😀"])
def test_names_are_stored_and_served_back(service, name):
    content = name.encode() * 3
    status, result = service.upload(name, content, 8)
    assert status == "success"
    assert result["cdnURL"] == service.url + "/download?fileName=" + quote(name, safe="")
    assert os.listdir(service.root).count(name) == 1
    assert [f["fileName"] for f in service.call("/download/pathList", {})[1]] == [name]
    for method in ("GET", "POST"):
        code, headers, body = fetch(service, method, name)
        assert (code, body) == (200, content)
        assert headers["Content-Disposition"] == "attachment; filename=" + quote(name, safe="")


@pytest.fixture(scope="module")
def big(shared):
    content = os.urandom(8 << 20)
    shared.put_file("big.bin", content)
    return shared, sha256(content), shared.url + "/download?fileName=big.bin"


@pytest.mark.parametrize("client", [
    ["curl", "-sSf", "-o", "{out}", "{url}"],
    ["curl", "-sSf", "-C", "-", "-o", "{out}", "{url}"],   # resumes the first 3 MiB already there
    ["aria2c", "-q", "-x4", "-s4", "--min-split-size=1M", "--allow-overwrite=true",
     "--auto-file-renaming=false", "-d", "{folder}", "-o", "out.bin", "{url}"],
], ids=["curl", "curl-resume", "aria2c-x4"])
def test_real_clients(big, scratch, client):
    service, digest, url = big
    out = os.path.join(scratch, "out.bin")
    if "-C" in client:
        with open(out, "wb") as f:
            f.write(service.stored("big.bin")[:3 << 20])
    args = [a.format(out=out, url=url, folder=scratch) for a in client]
    subprocess.run(args, check=True, timeout=TIMEOUT * 3, stdin=subprocess.DEVNULL)
    with open(out, "rb") as f:
        assert sha256(f.read()) == digest


def test_a_client_that_goes_away_is_one_line(service):
    service.put_file("away.bin", os.urandom(32 << 20))   # far more than the sockets hold
    with socket.create_connection((service.host, service.port), timeout=TIMEOUT) as client:
        client.sendall(b"GET /download?fileName=away.bin HTTP/1.1\r\nHost: h\r\n\r\n")
        client.recv(65536)
    deadline = time.monotonic() + TIMEOUT
    while "went away" not in service.log() and time.monotonic() < deadline:
        time.sleep(0.05)
    log = service.log()
    assert log.count("went away during GET /download?fileName=away.bin") == 1
    assert "Traceback" not in log

"""Downloads (both request forms, ranges, entity tags, digests, clients written elsewhere), the listing, deletes."""
import asyncio
import hashlib
import os
from urllib.parse import quote

import pytest

from conftest import TIMEOUT, repr_digest, until

CONTENT = bytes(range(256)) * 4  # 1024 bytes


@pytest.fixture
def ranged(service, tmp_path):
    service.put_file("r.bin", CONTENT)
    service.put_file("r.bin.gz", b"a file of its own, not an encoding of r.bin")
    service.put_file("empty", b"")
    # A link, to a file inside the root or out of it, is not a stored file.
    (tmp_path / "outside.txt").write_bytes(b"secret")
    os.symlink(tmp_path / "outside.txt", service.root / "link.txt")
    os.symlink(service.root / "r.bin", service.root / "inner-link.txt")
    return service


# Ranges: the plugin's probe, the whole, ends past the size (clamped; one past the last byte, as chunk plans ask),
# the last byte, a suffix; starts past the end and reversed ranges (416).
@pytest.mark.parametrize("method", ["GET", "HEAD", "POST"])
@pytest.mark.parametrize("name, headers, status, first, last", [
    ("r.bin", {}, 200, 0, 1023),
    *(("r.bin", {"Range": "bytes=" + spec}, status, first, last) for spec, status, first, last in [
        ("0-1", 206, 0, 1), ("0-1023", 206, 0, 1023), ("1000-5000", 206, 1000, 1023), ("512-1024", 206, 512, 1023),
        ("1023-1023", 206, 1023, 1023), ("1023-", 206, 1023, 1023), ("-10", 206, 1014, 1023),
        ("1024-2000", 416, None, None), ("1024-", 416, None, None), ("9-3", 416, None, None)]),
    *(("r.bin", {"Range": "bytes=10-19", "If-Range": value}, status, first, last) for value, status, first, last in [
        ("ETAG", 206, 10, 19), ('"stale"', 200, 0, 1023), ("W/ETAG", 200, 0, 1023),
        ("Thu, 01 Jan 1970 00:00:00 GMT", 200, 0, 1023), ("Fri, 01 Jan 2100 00:00:00 GMT", 206, 10, 19)]),
    ("r.bin", {"If-None-Match": "*"}, 304, None, None),
    ("empty", {}, 200, 0, -1), ("empty", {"Range": "bytes=0-1"}, 416, None, None),
], ids=lambda value: repr(value) if isinstance(value, dict) else None)
async def test_answers_to_a_stored_file(ranged, method, name, headers, status, first, last):
    content = ranged.stored(name)
    etag = (await known_digest(ranged, name, content))["ETag"]
    assert etag.startswith('"') and len(etag) > 2       # strong: no W/
    code, got, body = await ranged.download(name, {k: v.replace("ETAG", etag) for k, v in headers.items()}, method)
    # Every answer states the digest, the listing the same; none is an encoding of another file.
    assert (code, got["ETag"], got["Repr-Digest"], got.get("Content-Encoding")) == (status, etag, repr_digest(content), None)
    listed = (await ranged.call("/download/pathList", {}))[1]
    assert [f["digest"] for f in listed if f["fileName"] == name] == [got["Repr-Digest"]]
    assert got["Content-Disposition"] == "attachment; filename=" + name
    if status == 416:
        assert (got["Content-Range"], body) == ("bytes */%d" % len(content), b"")
    elif status != 304:
        assert (body, int(got["Content-Length"])) == (b"" if method == "HEAD" else content[first:last + 1], last + 1 - first)
        assert got.get("Content-Range") == (None if status == 200 else "bytes %d-%d/1024" % (first, last))


@pytest.mark.parametrize("method, paths, body, status", [
    ("GET", ["missing", "link.txt", "inner-link.txt"], None, 404), ("GET", [None], None, 400),
    ("GET", [quote("../root/r.bin"), quote("a/b"), "a%00b", ".uploads", ".."], None, 403),
    *(("POST", [None], b'{"fileName": "%s"}' % name, 404) for name in (b"missing", b"link.txt", b"inner-link.txt")),
    ("POST", [None], b'{"fileName": "../r.bin"}', 403), ("POST", [None], b"not json", 400), ("POST", [None], b"{}", 400),
    ("POST", ["r.bin"], b'{"fileName": ""}', 200),   # the name in the address
])
async def test_download_answers(ranged, method, paths, body, status):
    for path in paths:
        code, _, got = await ranged.request(method, "/download" + ("?fileName=" + path if path else ""), body)
        assert code == status and (got == CONTENT) == (status == 200), path


async def test_list_and_delete(ranged):
    ranged.put_file(".hidden", b"h")
    (ranged.root / "folder").mkdir()
    await ranged.info("c.txt", 3)  # an upload session is not a stored file
    assert (await ranged.upload("d.txt", b"dddd"))[0] == "success"
    status, files = await ranged.call("/download/pathList", b"")
    assert (status, [(f["fileName"], f["fileSize"]) for f in files]) == (
        "success", [("d.txt", 4), ("empty", 0), ("r.bin", 1024), ("r.bin.gz", 43)])
    for entry in files:
        etag = (await ranged.download(entry["fileName"]))[1]["ETag"]
        assert etag == '"%s"' % entry["etag"] and entry["modified"].endswith("Z")
    for link in ("link.txt", "inner-link.txt"):   # not stored files: nothing to delete
        assert (await ranged.call("/delete", {"fileName": link}), (ranged.root / link).is_symlink()) == (
            ("fail", "notExist"), True)
    # "fileName" wins over "filename"; "filename" alone is enough.
    assert await ranged.call("/delete", {"fileName": "empty", "filename": "r.bin"}) == ("success", {"fileName": "empty"})
    assert (await ranged.call("/delete", {"filename": "r.bin"}))[0] == "success"
    assert await ranged.call("/delete", {"fileName": "empty"}) == ("fail", "notExist")
    # A deleted upload is not "exist" any more.
    assert (await ranged.info("d.txt", 4))["exist"] is True
    assert (await ranged.call("/delete", {"fileName": "d.txt"}))[0] == "success"
    assert (await ranged.info("d.txt", 4))["exist"] is False
    assert [f["fileName"] for f in (await ranged.call("/download/pathList", {}))[1]] == ["r.bin.gz"]


async def known_digest(service, name, content):
    """The headers of the first answer that states the digest: answers may leave it out meanwhile, never state it wrong."""
    async def stated():
        headers = (await service.download(name, {"Range": "bytes=0-1"}, "POST"))[1]
        assert headers.get("Repr-Digest") in (None, repr_digest(content))
        return "Repr-Digest" in headers and headers
    return await until(stated, "the digest never came")


@pytest.mark.parametrize("change", ["uploaded", "rewritten in place", "replaced"])
async def test_tag_and_digest_follow_the_content(service, change):
    service.put_file("e.txt", b"one")
    before = await known_digest(service, "e.txt", b"one")
    assert (await service.download("e.txt"))[1]["ETag"] == before["ETag"]
    if change == "uploaded":
        assert (await service.upload("e.txt", b"two"))[0] == "success"
        # Known from the upload itself: no answer goes without it.
        assert (await service.download("e.txt"))[1]["Repr-Digest"] == repr_digest(b"two")
    else:   # new bytes, the same size and modification time
        path, in_place = service.root / "e.txt", change == "rewritten in place"
        st, target = path.stat(), path if in_place else path.with_suffix(".new")
        with open(target, "r+b" if in_place else "wb") as f:
            f.write(b"two")
        os.utime(target, ns=(st.st_atime_ns, st.st_mtime_ns))
        target.replace(path)
    after = await known_digest(service, "e.txt", b"two")
    assert after["ETag"] != before["ETag"]
    # A resume that names the old tag gets the whole new file.
    assert (await service.download("e.txt", {"Range": "bytes=1-", "If-Range": before["ETag"]}))[::2] == (200, b"two")
    assert (await service.download("e.txt", {"If-None-Match": after["ETag"]}))[0] == 304


@pytest.mark.parametrize("client", [
    "curl -sSf -o {out} {url}", "curl -sSf -C - -o {out} {url}",   # the second resumes the first 3 MiB already there
    "aria2c -q -x4 -s4 --min-split-size=1M --allow-overwrite=true --auto-file-renaming=false -d {folder} -o out.bin {url}",
], ids=["curl", "curl-resume", "aria2c-x4"])
async def test_real_clients(service, tmp_path, client):
    content, out, url = os.urandom(8 << 20), tmp_path / "out.bin", service.url + "/download?fileName=big.bin"
    service.put_file("big.bin", content)
    out.write_bytes(content[:3 << 20] if "-C" in client else b"")
    process = await asyncio.create_subprocess_exec(*client.format(out=out, url=url, folder=tmp_path).split(),
                                                   stdin=asyncio.subprocess.DEVNULL)
    assert await asyncio.wait_for(process.wait(), TIMEOUT * 2) == 0
    assert hashlib.sha256(out.read_bytes()).digest() == hashlib.sha256(content).digest()


async def test_a_client_that_goes_away_is_one_line(service):
    service.put_file("away.bin", os.urandom(32 << 20))   # far more than the sockets hold
    reader, writer = await asyncio.open_connection(service.host, int(service.port))
    writer.write(b"GET /download?fileName=away.bin HTTP/1.1\r\nHost: h\r\n\r\n")
    await reader.read(65536)
    writer.close()
    log = await until(lambda: "went away" in service.log() and service.log(), "the service did not notice")
    assert log.count("went away during GET /download?fileName=away.bin") == 1 and "Traceback" not in log

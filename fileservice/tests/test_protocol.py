"""The file service's protocol, point by point, against the running service."""
import hashlib
import json
import os
import socket
import subprocess
import threading
import time
from urllib.parse import quote, urlsplit

import pytest

from conftest import md5_header, send_part

IDENTIFIER = "0123456789abcdef0123456789abcdef"


def info(service, name, content, identifier=IDENTIFIER):
    status, result = service.call("/upload/info", {"fileName": name, "fileMD5": identifier,
                                                   "fileSize": len(content), "extra": "kept"})
    assert status == "success", result
    return result


def upload(service, name, content, identifier=IDENTIFIER):
    answer = info(service, name, content, identifier)
    for chunk in answer["uploadInfo"]["chunks"]:
        number = int(chunk["url"].rsplit("=", 1)[1])
        assert send_part(service, chunk, content[(number - 1) * 8:number * 8]) == 200
    return service.call("/upload/complete", {"fileName": name, "fileMD5": identifier})


def stored(service, name):
    with open(os.path.join(service.root, name), "rb") as f:
        return f.read()


@pytest.mark.parametrize("path, body, word", [
    ("/upload/info", b"[1, 2]", "parseErr"),
    ("/upload/info", b"{not json", "parseErr"),
    ("/upload/info", {"fileName": "a", "fileMD5": IDENTIFIER}, "require"),
    ("/upload/info", {"fileName": "../a", "fileMD5": IDENTIFIER, "fileSize": 1}, "illegalErr"),
    ("/upload/info", {"fileName": "a", "fileMD5": "../../etc", "fileSize": 1}, "illegalErr"),
    ("/upload/info", {"fileName": "a", "fileMD5": IDENTIFIER, "fileSize": -1}, "illegalErr"),
    ("/delete", {}, "require"),
    ("/delete", {"fileName": None}, "require"),
    ("/delete", {"fileName": "a/b"}, "illegalErr"),
    ("/delete", {"fileName": "a\x00b"}, "illegalErr"),
    ("/delete", {"fileName": ".uploads"}, "illegalErr"),
    ("/delete", {"fileName": "absent.txt"}, "notExist"),
    ("/upload/complete", {"fileName": "a", "fileMD5": IDENTIFIER}, "notExist"),
    ("/upload/complete", {"fileName": "a"}, "require"),
])
def test_refusals(service, path, body, word):
    assert service.call(path, body) == ("fail", word)


def test_list_and_delete(service):
    service.put_file("b.txt", b"bb")
    service.put_file("a.txt", b"a")
    os.makedirs(os.path.join(service.root, "folder"))
    info(service, "c.txt", b"123")  # a session is not a stored file
    status, files = service.call("/download/pathList", {})
    assert status == "success"
    assert [(f["fileName"], f["fileSize"]) for f in files] == [("a.txt", 1), ("b.txt", 2)]
    assert all(f["etag"] and f["modified"] for f in files)
    # "fileName" wins over "filename".
    assert service.call("/delete", {"fileName": "a.txt", "filename": "b.txt"})[0] == "success"
    assert [f["fileName"] for f in service.call("/download/pathList", {})[1]] == ["b.txt"]


def test_token(make_service):
    service = make_service("--token", "s3cret")
    assert service.call("/download/pathList", {}) == ("fail", "authErr")
    assert service.call("/download/pathList", {}, {"Authorization": "Bearer wrong"}) == ("fail", "authErr")
    assert service.call("/download/pathList", {}, {"Authorization": "Bearer s3cret"})[0] == "success"


CONTENT = bytes(range(256)) * 4  # 1024 bytes


@pytest.mark.parametrize("method", ["GET", "POST"])
@pytest.mark.parametrize("range_header, status, first, last", [
    (None, 200, 0, 1023),
    ("bytes=0-1", 206, 0, 1),
    ("bytes=1000-5000", 206, 1000, 1023),   # end past the size is clamped
    ("bytes=1023-1023", 206, 1023, 1023),   # the single last byte
    ("bytes=512-1024", 206, 512, 1023),     # one past the last byte, as chunk plans ask
    ("bytes=1024-2000", 416, None, None),   # start past the end
])
def test_download_ranges(service, method, range_header, status, first, last):
    service.put_file("r.bin", CONTENT)
    headers = {"Range": range_header} if range_header else {}
    if method == "GET":
        got = service.request("GET", "/download?fileName=r.bin", headers=headers)
    else:
        got = service.request("POST", "/download", json.dumps({"fileName": "r.bin"}).encode(), headers)
    code, response_headers, body = got
    assert code == status
    if status == 416:
        assert response_headers["Content-Range"] == "bytes */1024"
        return
    assert body == CONTENT[first:last + 1]
    assert response_headers["Content-Disposition"] == "attachment; filename=r.bin"
    assert response_headers["Etag"].startswith('"') and not response_headers["Etag"].startswith('W/')
    if status == 206:
        assert response_headers["Content-Range"] == "bytes %d-%d/1024" % (first, last)


def test_download_refusals_and_etag_change(service):
    assert service.request("GET", "/download?fileName=missing")[0] == 404
    assert service.request("GET", "/download?fileName=" + quote("../etc/passwd"))[0] == 403
    assert service.request("GET", "/download?fileName=" + quote("a/b"))[0] == 403
    service.put_file("e.txt", b"one")
    before = service.request("GET", "/download?fileName=e.txt")[1]["Etag"]
    service.put_file("e.txt", b"three")
    assert service.request("GET", "/download?fileName=e.txt")[1]["Etag"] != before


def test_unicode_name(service):
    name = "Grüße ñ 文件.txt"
    status, result = upload(service, name, b"unicode content")
    assert status == "success" and result["fileSize"] == 15
    code, headers, body = service.request("GET", "/download?fileName=" + quote(name))
    assert code == 200 and body == b"unicode content"
    assert headers["Content-Disposition"] == "attachment; filename=" + quote(name, safe="")
    assert [f["fileName"] for f in service.call("/download/pathList", {})[1]] == [name]


@pytest.mark.parametrize("size", [0, 1, 7, 8, 9, 17])
def test_upload_sizes(service, size):
    content = os.urandom(size)
    answer = info(service, "u.bin", content)
    assert answer["exist"] is False
    assert len(answer["uploadInfo"]["chunks"]) == (size + 7) // 8
    status, result = upload(service, "u.bin", content)
    assert status == "success" and result["fileSize"] == size
    assert hashlib.sha256(stored(service, "u.bin")).digest() == hashlib.sha256(content).digest()
    # Done once: the same name, identifier and size are known.
    assert info(service, "u.bin", content) == {"exist": True, "cdnURL": answer["cdnURL"]}
    # Another identifier for the same name is a new upload.
    assert info(service, "u.bin", content, "f" * 32)["exist"] is False


def test_missing_parts_refuse_completion(service):
    content = os.urandom(20)
    chunks = info(service, "m.bin", content)["uploadInfo"]["chunks"]
    assert send_part(service, chunks[0], content[:8]) == 200
    assert service.call("/upload/complete", {"fileName": "m.bin", "fileMD5": IDENTIFIER}) == ("fail", "illegalErr")
    remaining = info(service, "m.bin", content)["uploadInfo"]["chunks"]
    assert [c["url"] for c in remaining] == [c["url"] for c in chunks[1:]]


def test_part_checks(service):
    content = os.urandom(16)
    answer = info(service, "p.bin", content)
    chunk = answer["uploadInfo"]["chunks"][0]
    no_token = dict(chunk, headers={})
    assert send_part(service, no_token, content[:8]) == 403
    assert send_part(service, dict(chunk, url=chunk["url"].replace("uploadID=", "uploadID=x")), content[:8]) == 404
    assert send_part(service, chunk, content[:9]) == 400             # longer than the part
    assert send_part(service, chunk, content[:8], md5_header(b"x")) == 400  # wrong digest
    # Nothing of the refused bodies was kept.
    assert "bytesSent" not in info(service, "p.bin", content)["uploadInfo"]["chunks"][0]


def test_part_resumes_from_its_tail(service):
    content = os.urandom(16)
    chunk = info(service, "t.bin", content)["uploadInfo"]["chunks"][0]
    # A body cut after five bytes is kept that far ...
    parts = urlsplit(service.url)
    with socket.create_connection((parts.hostname, parts.port), timeout=10) as raw:
        head = ("POST %s HTTP/1.1\r\nHost: %s\r\nContent-Length: 8\r\nX-Upload-Token: %s\r\nfileMD5: %s\r\n\r\n"
                % (chunk["url"][len(service.url):], parts.netloc, chunk["headers"]["X-Upload-Token"],
                   md5_header(content[:8])))
        raw.sendall(head.encode() + content[:5])
        raw.shutdown(socket.SHUT_WR)
        raw.recv(1024)
    resumed = info(service, "t.bin", content)["uploadInfo"]["chunks"][0]
    assert resumed["bytesSent"] == 5
    # ... and the tail goes in after it.
    assert send_part(service, resumed, content[5:8]) == 200
    for chunk in info(service, "t.bin", content)["uploadInfo"]["chunks"]:
        assert send_part(service, chunk, content[8:16]) == 200
    assert service.call("/upload/complete", {"fileName": "t.bin", "fileMD5": IDENTIFIER})[0] == "success"
    assert stored(service, "t.bin") == content


def test_sessions_survive_restart(make_service, root):
    content = os.urandom(24)
    first = make_service("--chunk-size", "8")
    answer = info(first, "s.bin", content)
    assert send_part(first, answer["uploadInfo"]["chunks"][0], content[:8]) == 200
    assert first.stop() == 0
    second = make_service("--chunk-size", "8", folder=root)
    again = info(second, "s.bin", content)["uploadInfo"]
    assert again["uploadID"] == answer["uploadInfo"]["uploadID"]
    assert len(again["chunks"]) == 2
    for chunk in again["chunks"]:
        number = int(chunk["url"].rsplit("=", 1)[1])
        assert send_part(second, chunk, content[(number - 1) * 8:number * 8]) == 200
    assert second.call("/upload/complete", {"fileName": "s.bin", "fileMD5": IDENTIFIER})[0] == "success"
    assert stored(second, "s.bin") == content


def test_expired_session_is_replaced(make_service):
    service = make_service("--chunk-size", "8", "--expires", "0")
    first = info(service, "x.bin", b"123")["uploadInfo"]["uploadID"]
    time.sleep(1.1)
    assert info(service, "x.bin", b"123")["uploadInfo"]["uploadID"] != first


def test_concurrent_parts(make_service):
    service = make_service("--chunk-size", "65536")
    content = os.urandom(65536 * 6 + 100)
    chunks = info(service, "c.bin", content)["uploadInfo"]["chunks"]
    results = []

    def send(chunk):
        number = int(chunk["url"].rsplit("=", 1)[1])
        results.append(send_part(service, chunk, content[(number - 1) * 65536:number * 65536]))
    threads = [threading.Thread(target=send, args=(c,)) for c in chunks]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join(timeout=30)
    assert results == [200] * 7
    assert service.call("/upload/complete", {"fileName": "c.bin", "fileMD5": IDENTIFIER})[0] == "success"
    assert hashlib.sha256(stored(service, "c.bin")).digest() == hashlib.sha256(content).digest()


def test_oversized_json_body(service):
    status, _, _ = service.request("POST", "/download/pathList", b"{" + b" " * (2 << 20) + b"}")
    assert status == 413


@pytest.mark.parametrize("client", [
    ["curl", "-sf", "-o", "{out}", "{url}"],
    ["aria2c", "-q", "-x4", "-s4", "--min-split-size=1M", "--allow-overwrite=true",
     "-d", "{folder}", "-o", "out.bin", "{url}"],
])
def test_real_clients(service, root, client):
    content = os.urandom(8 << 20)
    service.put_file("big.bin", content)
    out = os.path.join(root, "out.bin")
    args = [a.format(out=out, url=service.url + "/download?fileName=big.bin", folder=root) for a in client]
    subprocess.run(args, check=True, timeout=120)
    with open(out, "rb") as f:
        assert hashlib.sha256(f.read()).digest() == hashlib.sha256(content).digest()

"""JSON endpoints: answer words, token, listing and deleting, bodies and connections."""
import json
import os
import socket
import time

import pytest

from conftest import IDENTIFIER, TIMEOUT, md5_header, path_of

def short(value):
    """A test id that stays readable."""
    text = value if isinstance(value, str) else repr(value)
    return text if len(text) <= 40 else text[:37] + "..."


BAD_NAMES = ["../a", "..", "a..b", "a/b", "/etc/passwd", "a\\b", "a\x00b", "a\nb", "a\x7fb",
             "a\x85b", ".uploads", ".hidden", "", "x" * 256, "\ud800", 5, ["a"]]


@pytest.mark.parametrize("name", BAD_NAMES, ids=lambda name: short(repr(name)))
@pytest.mark.parametrize("path, extra", [
    ("/delete", {}),
    ("/upload/info", {"fileMD5": IDENTIFIER, "fileSize": 1}),
    ("/upload/complete", {"fileMD5": IDENTIFIER}),
])
def test_names_that_are_not_plain_are_refused(shared, path, extra, name):
    assert shared.call(path, dict(extra, fileName=name)) == ("fail", "illegalErr")


@pytest.mark.parametrize("path, body, word", [
    ("/upload/info", b"[1, 2]", "parseErr"),
    ("/upload/info", b"{not json", "parseErr"),
    ("/upload/info", b"null", "parseErr"),
    ("/upload/info", b"\xff\xfe\x00garbage", "parseErr"),
    ("/upload/info", b"[" * 100000, "parseErr"),              # nesting past the parser's depth
    ("/delete", b'"a.txt"', "parseErr"),
    ("/upload/info", b"", "require"),
    ("/upload/info", {"fileName": "a", "fileMD5": IDENTIFIER}, "require"),
    ("/upload/info", {"fileName": "a", "fileMD5": IDENTIFIER, "fileSize": None}, "require"),
    ("/upload/info", {"fileMD5": IDENTIFIER, "fileSize": 1}, "require"),
    ("/upload/complete", {"fileName": "a"}, "require"),
    ("/delete", {}, "require"),
    ("/delete", {"fileName": None}, "require"),
    ("/upload/info", {"fileName": "a", "fileMD5": "../../../etc/passwd", "fileSize": 1}, "illegalErr"),
    ("/upload/info", {"fileName": "a", "fileMD5": "0" * 31, "fileSize": 1}, "illegalErr"),
    ("/upload/info", {"fileName": "a", "fileMD5": "g" * 32, "fileSize": 1}, "illegalErr"),
    ("/upload/info", {"fileName": "a", "fileMD5": "0" * 32 + "\n", "fileSize": 1}, "illegalErr"),
    ("/upload/info", {"fileName": "a", "fileMD5": IDENTIFIER, "fileSize": -1}, "illegalErr"),
    ("/upload/info", {"fileName": "a", "fileMD5": IDENTIFIER, "fileSize": 1.5}, "illegalErr"),
    ("/upload/info", {"fileName": "a", "fileMD5": IDENTIFIER, "fileSize": "12"}, "illegalErr"),
    ("/upload/info", {"fileName": "a", "fileMD5": IDENTIFIER, "fileSize": True}, "illegalErr"),
    ("/upload/info", {"fileName": "a", "fileMD5": IDENTIFIER, "fileSize": 1 << 62}, "illegalErr"),
    ("/delete", {"fileName": "absent.txt"}, "notExist"),
    ("/upload/complete", {"fileName": "a", "fileMD5": IDENTIFIER}, "notExist"),
], ids=short)
def test_answer_words(shared, path, body, word):
    raw = body if isinstance(body, bytes) else json.dumps(body).encode()
    status, _, data = shared.request("POST", path, raw)
    assert status == 200, data
    # Beside the word, the host's code for it, as the host library reads it.
    host_codes = {"require": 20693, "parseErr": 20695, "illegalErr": 20707, "notExist": 20712}
    assert json.loads(data) == {"status": "fail", "result": word, "errorCode": host_codes[word]}


JSON_PATHS = ("/download/pathList", "/delete", "/upload/info", "/upload/complete")


@pytest.mark.parametrize("method, path, body", [
    ("POST", "/download/pathList", {}),
    ("POST", "/delete", {"fileName": "a.txt"}),
    ("POST", "/upload/info", {"fileName": "a.txt", "fileMD5": IDENTIFIER, "fileSize": 3}),
    ("POST", "/upload/complete", {"fileName": "a.txt", "fileMD5": IDENTIFIER}),
    ("POST", "/download", {"fileName": "a.txt"}),
    ("GET", "/download?fileName=a.txt", None),
    ("HEAD", "/download?fileName=a.txt", None),
    ("POST", "part", None),
], ids=lambda value: value if isinstance(value, str) else None)
def test_token(make_service, method, path, body):
    service = make_service("--token", "s3cret", "--token", "other")
    service.put_file("a.txt", b"abc")
    raw, headers = json.dumps(body).encode() if body is not None else None, {}
    if path == "part":
        chunk = service.client(token="s3cret").info("u", 3)["uploadInfo"]["chunks"][0]
        # The part's headers carry the token: a client sends the headers it is given.
        assert service.send_part(chunk, b"xyz") == 200
        path, raw, headers = path_of(service, chunk["url"]), b"xyz", dict(chunk["headers"], fileMD5=md5_header(b"xyz"))
    for given in (None, "Bearer wrong", "s3cret", "Bearer s3cret ", "Bearer s3cretother"):
        sent = {key: value for key, value in dict(headers, Authorization=given).items() if value is not None}
        status, _, answer = service.request(method, path, raw, sent)
        if path in JSON_PATHS:
            assert (status, json.loads(answer)["result"]) == (200, "authErr"), given
        else:
            assert status == 401, given
    assert service.stored("a.txt") == b"abc"  # a refused delete deleted nothing
    for token in ("s3cret", "other"):
        status, _, answer = service.request(method, path, raw, dict(headers, Authorization="Bearer " + token))
        assert status == 200 and b"authErr" not in answer


def test_list_and_delete(service):
    service.put_file("b.txt", b"bb")
    service.put_file("a.txt", b"a")
    service.put_file(".hidden", b"h")
    os.makedirs(os.path.join(service.root, "folder"))
    service.info("c.txt", 3)  # an upload session is not a stored file
    assert service.upload("d.txt", b"dddd", 8)[0] == "success"

    status, files = service.call("/download/pathList", b"")
    assert status == "success"
    assert [(f["fileName"], f["fileSize"]) for f in files] == [("a.txt", 1), ("b.txt", 2), ("d.txt", 4)]
    for entry in files:
        etag = service.request("GET", "/download?fileName=" + entry["fileName"])[1]["ETag"]
        assert etag == '"%s"' % entry["etag"]
        assert entry["modified"].endswith("Z")

    # "fileName" wins over "filename"; "filename" alone is enough.
    assert service.call("/delete", {"fileName": "a.txt", "filename": "b.txt"}) == ("success", {"fileName": "a.txt"})
    assert service.call("/delete", {"filename": "b.txt"})[0] == "success"
    assert service.call("/delete", {"fileName": "a.txt"}) == ("fail", "notExist")
    # A deleted upload is not "exist" any more.
    assert service.info("d.txt", 4)["exist"] is True
    assert service.call("/delete", {"fileName": "d.txt"})[0] == "success"
    assert service.info("d.txt", 4)["exist"] is False
    assert service.call("/download/pathList", {}) == ("success", [])


def test_body_arriving_in_pieces(service):
    body = json.dumps({"fileName": "p.txt", "fileMD5": IDENTIFIER, "fileSize": 5, "pad": "x" * 200000}).encode()
    with socket.create_connection((service.host, service.port), timeout=TIMEOUT) as raw:
        raw.sendall(b"POST /upload/info HTTP/1.1\r\nHost: h\r\nConnection: close\r\n"
                    b"Content-Length: %d\r\n\r\n" % len(body))
        for start in range(0, len(body), 50000):
            raw.sendall(body[start:start + 50000])
            time.sleep(0.05)
        answer = b""
        while piece := raw.recv(65536):
            answer += piece
    result = json.loads(answer.split(b"\r\n\r\n", 1)[1])
    assert result["status"] == "success" and result["result"]["exist"] is False


def test_one_connection_carries_many_requests(service):
    service.put_file("k.txt", b"keep alive")
    connection = service.connect()
    try:
        def exchange(method, path, body=None, headers=None):
            connection.request(method, path, body=body, headers=headers or {})
            response = connection.getresponse()
            return response.status, response.read()

        status, data = exchange("POST", "/upload/info", json.dumps(
            {"fileName": "n.bin", "fileMD5": IDENTIFIER, "fileSize": 8}).encode())
        chunk = json.loads(data)["result"]["uploadInfo"]["chunks"][0]
        sock = connection.sock
        # A part refused before its body is read leaves the connection usable.
        assert exchange("POST", path_of(service, chunk["url"]), b"12345678", {"fileMD5": md5_header(b"12345678")})[0] == 403
        assert exchange("POST", path_of(service, chunk["url"]), b"12345678",
                        dict(chunk["headers"], fileMD5=md5_header(b"12345678")))[0] == 200
        assert exchange("GET", "/download?fileName=k.txt", headers={"Range": "bytes=0-3"}) == (206, b"keep")
        assert exchange("POST", "/download", b'{"fileName": "k.txt"}') == (200, b"keep alive")
        assert json.loads(exchange("POST", "/upload/complete", json.dumps(
            {"fileName": "n.bin", "fileMD5": IDENTIFIER}).encode())[1])["status"] == "success"
        assert connection.sock is sock
    finally:
        connection.close()
    assert service.stored("n.bin") == b"12345678"


@pytest.mark.parametrize("sent", [
    b"GARBAGE\r\n\r\n",
    b"GET /download HTTP/1.1\r\nHost: h\r\nContent-Length: x\r\n\r\n",
    b"POST /delete HTTP/1.1\r\nHost: h\r\nTransfer-Encoding: chunked\r\n\r\nzz\r\n",
], ids=["request line", "header", "chunked body"])
def test_malformed_request_costs_one_log_line(service, sent):
    before = service.log()
    with socket.create_connection((service.host, service.port), timeout=TIMEOUT) as raw:
        raw.sendall(sent)
        answer = raw.recv(65536)
    assert answer.split(b" ", 2)[1] == b"400"
    added = service.log()[len(before):]
    assert added.count("\n") == 1 and "Traceback" not in added, added


@pytest.mark.parametrize("chunked", [False, True], ids=["length", "chunked"])
def test_oversized_json_body(service, chunked):
    body = b'{"pad": "' + b" " * (2 << 20) + b'"}'
    if chunked:
        head, body = b"Transfer-Encoding: chunked", b"%x\r\n%s\r\n0\r\n\r\n" % (len(body), body)
    else:
        head = b"Content-Length: %d" % len(body)
    with socket.create_connection((service.host, service.port), timeout=TIMEOUT) as raw:
        raw.sendall(b"POST /download/pathList HTTP/1.1\r\nHost: h\r\n%s\r\n\r\n%s" % (head, body))
        answer = b""
        while piece := raw.recv(65536):  # the service closes the connection after a 413
            answer += piece
    assert answer.startswith(b"HTTP/1.1 413 ")


@pytest.mark.parametrize("path", ["/upload/info", "/download", "/upload/part?uploadID=x&partNumber=1"])
def test_oversized_body_is_refused_before_it_is_sent(service, path):
    with socket.create_connection((service.host, service.port), timeout=TIMEOUT) as raw:
        raw.sendall(b"POST %s HTTP/1.1\r\nHost: h\r\nExpect: 100-continue\r\nContent-Length: %d\r\n\r\n"
                    % (path.encode(), (8 << 20) + 1))
        assert raw.recv(65536).startswith(b"HTTP/1.1 413 ")

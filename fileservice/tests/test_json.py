"""JSON endpoints: answer words, the token, bodies too large."""
import json
from asyncio import StreamReader

import pytest

from conftest import IDENTIFIER, md5_header, raw_exchange

JSON_PATHS = ("/download/pathList", "/delete", "/upload/info", "/upload/complete")
INFO = {"fileName": "a", "fileMD5": IDENTIFIER, "fileSize": 1}
BAD_NAMES = ["../a", "..", "a..b", "a/b", "/etc/passwd", "a\\b", "a\x00b", "a\nb", "a\x7fb",
             "a\x85b", ".uploads", ".hidden", "", "x" * 256, "\ud800", 5, ["a"]]


@pytest.mark.parametrize("path, bodies, word", [
    # The last nests past the parser's depth.
    ("/upload/info", [b"[1, 2]", b"{not json", b"null", b"\xff\xfe\x00garbage", b"[" * 100000], "parseErr"),
    ("/delete", [b'"a.txt"'], "parseErr"), ("/upload/complete", [{"fileName": "a"}], "require"),
    ("/upload/info", [b"", {"fileName": "a", "fileMD5": IDENTIFIER}, dict(INFO, fileSize=None),
                      {"fileMD5": IDENTIFIER, "fileSize": 1}], "require"), ("/delete", [{}, {"fileName": None}], "require"),
    ("/upload/info", [dict(INFO, fileMD5=value) for value in ("../../../etc/passwd", "0" * 31, "g" * 32, "0" * 32 + "\n")]
     + [dict(INFO, fileSize=value) for value in (-1, 1.5, "12", True, 1 << 62)]
     + [dict(INFO, fileName=name) for name in BAD_NAMES], "illegalErr"),
    ("/upload/complete", [dict(INFO, fileName=name) for name in BAD_NAMES], "illegalErr"),
    ("/delete", [{"fileName": name} for name in BAD_NAMES], "illegalErr"),
    ("/delete", [{"fileName": "absent.txt"}], "notExist"),
    ("/upload/complete", [{"fileName": "a", "fileMD5": IDENTIFIER}], "notExist"),
])
async def test_answer_words(service, path, bodies, word):
    # Beside the word, the host's code for it, as the host library reads it.
    code = {"require": 20693, "parseErr": 20695, "illegalErr": 20707, "notExist": 20712}[word]
    for body in bodies:
        status, _, data = await service.request("POST", path, body if isinstance(body, bytes) else json.dumps(body))
        assert (status, json.loads(data)) == (200, {"status": "fail", "result": word, "errorCode": code}), body


@pytest.mark.parametrize("method, path, body", [
    ("POST", "/download/pathList", {}), ("POST", "/delete", {"fileName": "a.txt"}),
    ("POST", "/upload/info", {"fileName": "a.txt", "fileMD5": IDENTIFIER, "fileSize": 3}),
    ("POST", "/upload/complete", {"fileName": "a.txt", "fileMD5": IDENTIFIER}), ("POST", "/download", {"fileName": "a.txt"}),
    ("GET", "/download?fileName=a.txt", None), ("HEAD", "/download?fileName=a.txt", None), ("POST", "part", None),
], ids=lambda value: value if isinstance(value, str) else None)
async def test_token(serve, clients, method, path, body):
    service = await serve(tokens=["s3cret", "other"])
    service.put_file("a.txt", b"abc")
    raw, headers = json.dumps(body) if body is not None else None, {}
    if path == "part":
        chunk = (await (await clients(service, token="s3cret")).chunks("u", 3))[0]
        # The part's headers carry the token: a client sends the headers it is given.
        assert await service.send_part(chunk, b"xyz") == 200
        path, raw = service.path(chunk), b"xyz"
        headers = {"X-Upload-Token": chunk["headers"]["X-Upload-Token"], "fileMD5": md5_header(raw)}
    refused = (200, "authErr") if path in JSON_PATHS else (401, None)
    for given in (None, "Bearer wrong", "s3cret", "Bearer s3cret ", "Bearer s3cretother"):
        status, _, answer = await service.request(method, path, raw,
                                                  dict(headers, **({"Authorization": given} if given else {})))
        assert (status, json.loads(answer)["result"] if path in JSON_PATHS else None) == refused, given
    assert service.stored("a.txt") == b"abc"  # a refused delete deleted nothing
    for token in ("s3cret", "other"):
        status, _, answer = await (await clients(service, token=token)).request(method, path, raw, headers)
        assert status == 200 and b"authErr" not in answer

PAD = b'{"pad": "' + b" " * (2 << 20) + b'"}'


# Sent: the service closes the connection after its 413. Announced too large: refused before it is sent.
@pytest.mark.parametrize("request_bytes, read", [
    (b"POST /download/pathList HTTP/1.1\r\nHost: h\r\nContent-Length: %d\r\n\r\n%s" % (len(PAD), PAD), StreamReader.read),
    (b"POST /download/pathList HTTP/1.1\r\nHost: h\r\nTransfer-Encoding: chunked\r\n\r\n%x\r\n%s\r\n0\r\n\r\n"
     % (len(PAD), PAD), StreamReader.read),
    *((b"POST %s HTTP/1.1\r\nHost: h\r\nExpect: 100-continue\r\nContent-Length: %d\r\n\r\n" % (path, (8 << 20) + 1),
       StreamReader.readline) for path in (b"/upload/info", b"/download", b"/upload/part?uploadID=x&partNumber=1")),
], ids=["length", "chunked", "info announced", "download announced", "part announced"])
async def test_oversized_bodies_are_refused(service, request_bytes, read):
    assert (await raw_exchange(service, request_bytes, read=read)).startswith(b"HTTP/1.1 413 ")

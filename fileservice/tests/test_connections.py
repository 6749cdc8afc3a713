"""Quiet or malformed connections, many of them, fronts, TLS, a busy port: most need a child process's listener."""
import resource
import socket
import ssl
import subprocess

import pytest

from conftest import IDENTIFIER, TIMEOUT, md5_header, raw_exchange, repr_digest
from ztfileservice.launcher import SCRIPT
from ztfileservice.server import Front


@pytest.mark.parametrize("sent, held, status, lines", [
    ([b""], None, b"", 0), ([b"GET /download?fileName=q.bin HTTP/1.1\r\nHost: h\r\n"], None, b"", 0),
    ([b"POST /download/pathList HTTP/1.1\r\nHost: h\r\nContent-Length: 0\r\n\r\n"], None, b"200", 0),
    ([b"PART123"], 3, b"400", 1), ([b"GARBAGE\r\n\r\n"], None, b"400", 1),
    ([b"GET /download HTTP/1.1\r\nHost: h\r\nContent-Length: x\r\n\r\n"], None, b"400", 1),
    ([b"POST /delete HTTP/1.1\r\nHost: h\r\nTransfer-Encoding: chunked\r\n\r\nzz\r\n"], None, b"400", 1),
    # Every gap (0.4 s) is well within the bound: 1.5 s, of which the service's look every quarter may take
    # 0.375. The whole body (2 s) is not.
    ([b"PART12", b"3", b"4", b"5", b"6", b"78"], 8, b"200", 1),
], ids=["nothing", "half a head", "one request", "half a body", "bad request line", "bad header", "bad chunk", "slow body"])
async def test_quiet_and_malformed_connections_are_closed(launch, sent, held, status, lines):
    service = await launch("--chunk-size", "8", "--idle-timeout", "1.5" if len(sent) > 1 else "0.5")
    head, before = service.part_head((await service.chunks("q.bin", 8))[0], 8, md5_header(b"12345678")), service.log()
    # What comes back, if anything, then the end: the service let go.
    answer = await raw_exchange(service, *(piece.replace(b"PART", head) for piece in sent), gap=0.4)
    assert await service.wanted("q.bin", 8) == ([] if held == 8 else [(1, held)]) and answer[9:12] == status
    service.process.stop()
    added = service.log()[len(before):].replace("INFO stopping\n", "")
    assert added.count("\n") == lines and "Traceback" not in added, added


@pytest.mark.parametrize("descriptors, idle_timeout, count", [
    ((1024, 4096), "60", 1100),   # more quiet clients than the usual soft limit allows
    ((64, 64), "1", 100),         # more than the service may ever hold: the quiet ones are let go
], ids=["soft limit", "hard limit"])
async def test_quiet_clients_do_not_lock_others_out(launch, exits, descriptors, idle_timeout, count):
    ours = resource.getrlimit(resource.RLIMIT_NOFILE)
    resource.setrlimit(resource.RLIMIT_NOFILE, (max(ours[0], min(ours[1], count + 256)), ours[1]))
    exits.callback(resource.setrlimit, resource.RLIMIT_NOFILE, ours)
    service = await launch("--idle-timeout", idle_timeout,
                           preexec_fn=lambda: resource.setrlimit(resource.RLIMIT_NOFILE, descriptors))
    service.put_file("a.txt", b"abc")
    for _ in range(count):
        exits.callback(socket.create_connection((service.host, int(service.port)), timeout=TIMEOUT).close)
    assert (await service.download("a.txt"))[2] == b"abc"


@pytest.mark.parametrize("front, headers, base", [
    (Front(), {"X-Forwarded-Proto": "https", "X-Forwarded-Host": "elsewhere.example"}, None),
    (Front(trusted=["10.0.0.0/8"]), {"Forwarded": "proto=https;host=elsewhere.example"}, None),
    (Front(trusted=["127.0.0.1"]), {"X-Forwarded-Proto": "https", "X-Forwarded-Host": "files.example:8443"},
     "https://files.example:8443"),
    (Front(trusted=["127.0.0.0/8"]), {"Forwarded": 'for=1.2.3.4, for=5.6.7.8;proto=https;host="files.example"'},
     "https://files.example"),
    (Front("https://files.example/zt/", ["127.0.0.1"]), {"X-Forwarded-Proto": "http"}, "https://files.example/zt"),
], ids=["no front trusted", "another front trusted", "X-Forwarded", "Forwarded", "public URL"])
async def test_addresses_follow_the_front(serve, front, headers, base):
    service = await serve(front=front)
    status, answer = await service.call("/upload/info", {"fileName": "a b", "fileMD5": IDENTIFIER, "fileSize": 3}, headers)
    base = base or service.url
    assert answer["cdnURL"] == base + "/download?fileName=a%20b"
    assert [chunk["url"] for chunk in answer["uploadInfo"]["chunks"]] == [
        "%s/upload/part?uploadID=%s&partNumber=1" % (base, answer["uploadInfo"]["uploadID"])]


async def test_tls(launch, tmp_path):
    cert, key = str(tmp_path / "cert.pem"), str(tmp_path / "key.pem")
    subprocess.run(["openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1",
                    "-nodes", "-keyout", key, "-out", cert, "-days", "1", "-subj", "/CN=127.0.0.1",
                    "-addext", "subjectAltName=IP:127.0.0.1"], check=True, capture_output=True, timeout=TIMEOUT)
    service = await launch("--chunk-size", "8", "--tls-cert", cert, "--tls-key", key,
                           tls=ssl.create_default_context(cafile=cert))
    assert service.url.startswith("https://127.0.0.1:")
    content, chunks = b"twenty bytes of data", await service.chunks("t.bin", 20)
    assert all(chunk["url"].startswith(service.url + "/upload/part?") for chunk in chunks)
    assert (await service.upload("t.bin", content))[0] == "success"
    code, headers, body = await service.download("t.bin", {"Range": "bytes=4-"}, "POST")
    assert (code, body, headers["Repr-Digest"]) == (206, content[4:], repr_digest(content))


def test_a_busy_port_says_so_in_one_line(tmp_path):
    with socket.create_server(("127.0.0.1", 0)) as busy:
        port = busy.getsockname()[1]
        result = subprocess.run(["/usr/bin/python3", "-B", SCRIPT, "--root", str(tmp_path), "--host", "127.0.0.1",
                                 "--port", str(port)], capture_output=True, timeout=TIMEOUT)
    # 5: what `ztcli serve` promises for a service that cannot start.
    stderr = result.stderr.decode()
    assert (result.returncode, result.stdout, "Traceback" in stderr, stderr.splitlines()[-1]) == (
        5, b"", False, "zt-fileservice: cannot listen on 127.0.0.1:%d: Address already in use" % port)

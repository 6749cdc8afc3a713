"""How clients reach the service: quiet connections, many of them, fronts and TLS."""
import os
import resource
import socket
import subprocess
import time

import pytest

from conftest import IDENTIFIER, SERVICE, TIMEOUT, md5_header, path_of, repr_digest


def part_head(service, chunk, length):
    return ("POST %s HTTP/1.1\r\nHost: h\r\nContent-Length: %d\r\nX-Upload-Token: %s\r\nfileMD5: %s\r\n\r\n"
            % (path_of(service, chunk["url"]), length, chunk["headers"]["X-Upload-Token"],
               md5_header(b"12345678"))).encode()


@pytest.mark.parametrize("quiet_after", ["nothing", "half a head", "one request", "half a body", "slow body"])
def test_quiet_connections_are_closed(make_service, quiet_after):
    service = make_service("--chunk-size", "8", "--idle-timeout", "1")
    chunk = service.info("q.bin", 8)["uploadInfo"]["chunks"][0]
    sent = {"nothing": [b""], "half a head": [b"GET /download?fileName=q.bin HTTP/1.1\r\nHost: h\r\n"],
            "one request": [b"POST /download/pathList HTTP/1.1\r\nHost: h\r\nContent-Length: 0\r\n\r\n"],
            "half a body": [part_head(service, chunk, 8) + b"123"],
            # Every piece comes well within the bound, the whole body does not.
            "slow body": [part_head(service, chunk, 8) + b"12", b"345", b"678"]}[quiet_after]
    with socket.create_connection((service.host, service.port), timeout=TIMEOUT) as raw:
        for piece in sent:
            time.sleep(0.4 if piece is not sent[0] else 0)
            raw.sendall(piece)
        answer = b""
        while piece := raw.recv(65536):   # answers, if any, then the end: the service let go
            answer += piece
    held = service.info("q.bin", 8)["uploadInfo"]["chunks"]
    if quiet_after == "half a body":
        assert held[0]["bytesSent"] == 3 and answer.startswith(b"HTTP/1.1 400 ")
    if quiet_after == "slow body":
        assert held == [] and answer.startswith(b"HTTP/1.1 200 ")


@pytest.mark.parametrize("descriptors, idle_timeout, clients", [
    ((1024, 4096), "60", 1100),   # more quiet clients than the usual soft limit allows
    ((64, 64), "1", 100),         # more than the service may ever hold: the quiet ones are let go
], ids=["soft limit", "hard limit"])
def test_quiet_clients_do_not_lock_others_out(make_service, descriptors, idle_timeout, clients):
    ours = resource.getrlimit(resource.RLIMIT_NOFILE)
    resource.setrlimit(resource.RLIMIT_NOFILE, (max(ours[0], min(ours[1], clients + 256)), ours[1]))
    quiet = []
    try:
        service = make_service("--idle-timeout", idle_timeout, descriptors=descriptors)
        service.put_file("a.txt", b"abc")
        for _ in range(clients):
            quiet.append(socket.create_connection((service.host, service.port), timeout=TIMEOUT))
        assert service.request("GET", "/download?fileName=a.txt")[2] == b"abc"
    finally:
        for connection in quiet:
            connection.close()
        resource.setrlimit(resource.RLIMIT_NOFILE, ours)


@pytest.mark.parametrize("options, headers, base", [
    ((), {"X-Forwarded-Proto": "https", "X-Forwarded-Host": "elsewhere.example"}, None),
    (("--trusted-proxy", "10.0.0.0/8"), {"Forwarded": "proto=https;host=elsewhere.example"}, None),
    (("--trusted-proxy", "127.0.0.1"), {"X-Forwarded-Proto": "https", "X-Forwarded-Host": "files.example:8443"},
     "https://files.example:8443"),
    (("--trusted-proxy", "127.0.0.0/8"), {"Forwarded": 'for=1.2.3.4, for=5.6.7.8;proto=https;host="files.example"'},
     "https://files.example"),
    (("--trusted-proxy", "127.0.0.1", "--public-url", "https://files.example/zt/"), {"X-Forwarded-Proto": "http"},
     "https://files.example/zt"),
], ids=["no front trusted", "another front trusted", "X-Forwarded", "Forwarded", "public URL"])
def test_addresses_follow_the_front(make_service, options, headers, base):
    service = make_service(*options)
    status, answer = service.call("/upload/info", {"fileName": "a b", "fileMD5": IDENTIFIER, "fileSize": 3}, headers)
    base = base or service.url
    assert answer["cdnURL"] == base + "/download?fileName=a%20b"
    assert [chunk["url"] for chunk in answer["uploadInfo"]["chunks"]] == [
        "%s/upload/part?uploadID=%s&partNumber=1" % (base, answer["uploadInfo"]["uploadID"])]


def test_tls(make_service, scratch):
    cert, key = os.path.join(scratch, "cert.pem"), os.path.join(scratch, "key.pem")
    subprocess.run(["openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1",
                    "-nodes", "-keyout", key, "-out", cert, "-days", "1", "-subj", "/CN=127.0.0.1",
                    "-addext", "subjectAltName=IP:127.0.0.1"], check=True, capture_output=True, timeout=TIMEOUT)
    service = make_service("--chunk-size", "8", "--tls-cert", cert, "--tls-key", key)
    assert service.url.startswith("https://127.0.0.1:")
    content = os.urandom(20)
    chunks = service.info("t.bin", 20)["uploadInfo"]["chunks"]
    assert all(chunk["url"].startswith(service.url + "/upload/part?") for chunk in chunks)
    assert service.upload("t.bin", content, 8)[0] == "success"
    code, headers, body = service.request("POST", "/download", b'{"fileName": "t.bin"}', {"Range": "bytes=4-"})
    assert (code, body, headers["Repr-Digest"]) == (206, content[4:], repr_digest(content))


def test_a_busy_port_says_so_in_one_line(scratch):
    with socket.socket() as busy:
        busy.bind(("127.0.0.1", 0))
        busy.listen()
        port = busy.getsockname()[1]
        result = subprocess.run(["/usr/bin/python3", "-B", SERVICE, "--root", scratch, "--host", "127.0.0.1",
                                 "--port", str(port)], capture_output=True, timeout=TIMEOUT)
    assert result.returncode == 5  # what `ztcli serve` promises for a service that cannot start
    errors = result.stderr.decode()
    assert "Traceback" not in errors
    assert errors.splitlines()[-1] == "zt-fileservice: cannot listen on 127.0.0.1:%d: Address already in use" % port
    assert result.stdout == b""

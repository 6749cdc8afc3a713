"""Upload sessions, parts and completion."""
import hashlib
import json
import os
import signal
import socket
import threading
import time
from urllib.parse import urlencode

import pytest

from conftest import IDENTIFIER, TIMEOUT, md5_header, part_number, path_of, sha256

OTHER = "f" * 32


@pytest.mark.parametrize("size", [0, 1, 7, 8, 9, 17])
def test_upload_sizes(service, size):
    content = os.urandom(size)
    answer = service.info("u.bin", size)
    assert answer["exist"] is False and answer["cdnURL"] == service.url + "/download?fileName=u.bin"
    upload = answer["uploadInfo"]
    assert upload["method"] == "POST" and upload["chunkSize"] == 8 and upload["expires"] == 86400
    assert [part_number(c) for c in upload["chunks"]] == list(range(1, (size + 7) // 8 + 1))
    assert all(c["url"].startswith(service.url + "/upload/part?uploadID=" + upload["uploadID"] + "&")
               for c in upload["chunks"])
    # Asked again, the same session.
    again = service.info("u.bin", size)
    assert again["uploadInfo"].pop("expires") <= upload.pop("expires")
    assert again == answer

    assert service.upload("u.bin", content, 8) == ("success", {
        "fileName": "u.bin", "fileSize": size, "cdnURL": answer["cdnURL"]})
    assert sha256(service.stored("u.bin")) == sha256(content)
    assert service.request("GET", "/download?fileName=u.bin")[2] == content
    # Done once: the same name, identifier and size are known ...
    assert service.info("u.bin", size) == {"exist": True, "cdnURL": answer["cdnURL"]}
    # ... another identifier or size is a new upload.
    assert service.info("u.bin", size, OTHER)["exist"] is False
    assert service.info("u.bin", size + 1)["exist"] is False


LAST = b"wxyz"  # the last part of a 12-byte file cut into parts of 8


@pytest.mark.parametrize("query, headers, body, status", [
    ({}, {"X-Upload-Token": None}, LAST, 403),
    ({}, {"X-Upload-Token": "0" * 32}, LAST, 403),
    ({"uploadID": "0" * 32}, {}, LAST, 404),
    ({"partNumber": "0"}, {}, LAST, 400),
    ({"partNumber": "3"}, {}, LAST, 400),
    ({"partNumber": "two"}, {}, LAST, 400),
    ({}, {"fileMD5": None}, LAST, 400),
    ({}, {"fileMD5": md5_header(LAST[::-1])}, LAST, 400),
    ({}, {"fileMD5": hashlib.md5(LAST).hexdigest()}, LAST, 400),
    ({}, {}, b"v" + LAST, 400),          # longer than the last part
    ({}, {}, b"123456789", 413),         # longer than any part
], ids=["no token", "wrong token", "unknown upload", "part 0", "part past the end", "part not a number",
        "no digest", "digest of other bytes", "digest in hex", "longer than the part", "longer than a part can be"])
def test_part_refusals(service, query, headers, body, status):
    chunk = service.info("p.bin", 12)["uploadInfo"]["chunks"][1]
    upload_id = chunk["url"].split("uploadID=")[1].split("&")[0]
    sent = dict(chunk["headers"], fileMD5=md5_header(body))
    sent.update(headers)
    sent = {key: value for key, value in sent.items() if value is not None}
    path = "/upload/part?" + urlencode(dict({"uploadID": upload_id, "partNumber": "2"}, **query))
    assert service.request("POST", path, body, sent)[0] == status
    # Nothing was kept: part 2 is still wanted whole.
    again = service.info("p.bin", 12)["uploadInfo"]["chunks"]
    assert [part_number(c) for c in again] == [1, 2] and "bytesSent" not in again[1]


# Parts of 8 bytes are checked in memory; parts of 3 MiB are written as they
# come, in place where nothing of the part is held yet, through a scratch file
# where something is.
@pytest.mark.parametrize("chunk", [8, 3 << 20], ids=["in memory", "in place"])
def test_a_refused_body_leaves_the_part_as_it_was(make_service, chunk):
    service = make_service("--chunk-size", str(chunk))
    content = os.urandom(2 * chunk)
    first, second = service.info("m.bin", 2 * chunk)["uploadInfo"]["chunks"]
    assert service.send_part(first, content[:chunk]) == 200
    # The same part again, other bytes with a digest that does not match them.
    assert service.send_part(first, os.urandom(chunk), md5_header(content[:chunk])) == 400
    # A part not held yet: bytes that fail their digest, then the right ones.
    assert service.send_part(second, os.urandom(chunk), md5_header(content[chunk:])) == 400
    assert service.send_part(second, content[chunk:]) == 200
    assert service.complete("m.bin")[0] == "success"
    assert service.stored("m.bin") == content


def cut_body(service, chunk, data, declared):
    """Sends the first len(data) bytes of a body of `declared` bytes, drops the connection,
    and waits until the service has dealt with the cut."""
    cuts = service.log().count("(cut short)")
    with socket.create_connection((service.host, service.port), timeout=TIMEOUT) as raw:
        head = ("POST %s HTTP/1.1\r\nHost: %s:%d\r\nContent-Length: %d\r\nX-Upload-Token: %s\r\n"
                "fileMD5: %s\r\n\r\n" % (path_of(service, chunk["url"]), service.host, service.port,
                                         declared, chunk["headers"]["X-Upload-Token"], md5_header(b"?")))
        raw.sendall(head.encode() + data)
        time.sleep(0.1)  # lets the bytes arrive before the connection drops
    deadline = time.monotonic() + TIMEOUT
    while service.log().count("(cut short)") == cuts:
        assert time.monotonic() < deadline, "the service did not notice the cut"
        time.sleep(0.02)


def test_part_resumes_from_its_tail(service):
    content = os.urandom(24)
    chunks = service.info("t.bin", 24)["uploadInfo"]["chunks"]
    # A body cut after five bytes is kept that far ...
    cut_body(service, chunks[0], content[:5], 8)
    resumed = service.info("t.bin", 24)["uploadInfo"]["chunks"]
    assert [c.get("bytesSent") for c in resumed] == [5, None, None]
    # ... a tail whose digest does not match changes nothing ...
    assert service.send_part(resumed[0], b"XYZ", md5_header(content[5:8])) == 400
    assert service.info("t.bin", 24)["uploadInfo"]["chunks"][0]["bytesSent"] == 5
    # ... and the tail goes in after the bytes held.
    assert service.send_part(resumed[0], content[5:8]) == 200
    # A tail alone is not the part: part 2 is still wanted, with nothing held before it.
    assert service.send_part(resumed[1], content[13:16]) == 200
    wanted = service.info("t.bin", 24)["uploadInfo"]["chunks"]
    assert [(part_number(c), c.get("bytesSent")) for c in wanted] == [(2, None), (3, None)]
    assert service.complete("t.bin") == ("fail", "illegalErr")
    # The whole part 2 then fills it.
    assert service.send_part(wanted[0], content[8:16]) == 200
    assert service.send_part(wanted[1], content[16:]) == 200
    assert service.complete("t.bin")[0] == "success"
    assert service.stored("t.bin") == content


def test_a_large_part_cut_short_resumes_in_place(make_service):
    chunk = 3 << 20
    service = make_service("--chunk-size", str(chunk))
    content = os.urandom(chunk)
    (only,) = service.info("l.bin", chunk)["uploadInfo"]["chunks"]
    cut_body(service, only, content[:chunk // 2], chunk)
    (resumed,) = service.info("l.bin", chunk)["uploadInfo"]["chunks"]
    held = resumed["bytesSent"]
    assert 0 < held <= chunk // 2
    assert service.send_part(resumed, content[held:]) == 200
    assert service.complete("l.bin")[0] == "success"
    assert service.stored("l.bin") == content


def test_part_sent_chunked(service):
    content = os.urandom(12)
    chunks = service.info("c.bin", 12)["uploadInfo"]["chunks"]
    for chunk, data in zip(chunks, (content[:8], content[8:])):
        # http.client sends an iterable body chunked.
        status = service.request("POST", path_of(service, chunk["url"]), iter([data[:3], data[3:]]),
                                 dict(chunk["headers"], fileMD5=md5_header(data)))[0]
        assert status == 200
    assert service.complete("c.bin")[0] == "success"
    assert service.stored("c.bin") == content


def test_missing_parts_refuse_completion(service):
    content = os.urandom(20)
    chunks = service.info("m.bin", 20)["uploadInfo"]["chunks"]
    assert service.send_part(chunks[0], content[:8]) == 200
    assert service.send_part(chunks[2], content[16:]) == 200
    assert service.complete("m.bin") == ("fail", "illegalErr")
    assert [part_number(c) for c in service.info("m.bin", 20)["uploadInfo"]["chunks"]] == [2]
    # Bytes that vanished from the service's folder are asked for again.
    upload_id = chunks[0]["url"].split("uploadID=")[1].split("&")[0]
    os.truncate(os.path.join(service.root, ".uploads", upload_id, "data"), 16)
    assert service.send_part(chunks[1], content[8:16]) == 200
    assert service.complete("m.bin") == ("fail", "illegalErr")
    assert [part_number(c) for c in service.info("m.bin", 20)["uploadInfo"]["chunks"]] == [3]
    assert not os.path.exists(os.path.join(service.root, "m.bin"))


def fold_logs_into_records(root):
    """Rewrites a root as the layout before the logs left it: every part in
    session.json, every finished upload in completed.json."""
    uploads = os.path.join(root, ".uploads")
    completed = {}
    for line in open(os.path.join(uploads, "completed.log")).read().splitlines():
        change = json.loads(line)
        completed[change["name"]] = change["record"]
    with open(os.path.join(uploads, "completed.json"), "w") as out:
        json.dump(completed, out)
    os.unlink(os.path.join(uploads, "completed.log"))
    for entry in os.listdir(uploads):
        folder = os.path.join(uploads, entry)
        if os.path.isdir(folder):
            session = json.load(open(os.path.join(folder, "session.json")))
            for line in open(os.path.join(folder, "parts.log")).read().splitlines():
                number, start, end = line.split()
                session["parts"].setdefault(number, []).append([int(start), int(end)])
            with open(os.path.join(folder, "session.json"), "w") as out:
                json.dump(session, out)
            os.unlink(os.path.join(folder, "parts.log"))


# A part answered 200 and a completed upload are kept whatever ends the
# service, a kill included, and a root of the earlier layout is taken up too.
@pytest.mark.parametrize("signum, code, earlier_layout", [
    (signal.SIGTERM, 0, False), (signal.SIGINT, 0, False), (signal.SIGKILL, -signal.SIGKILL, False),
    (signal.SIGKILL, -signal.SIGKILL, True)])
def test_sessions_survive_a_restart(make_service, signum, code, earlier_layout):
    content = os.urandom(24)
    first = make_service("--chunk-size", "8")
    assert first.upload("done.bin", b"done", 8)[0] == "success"
    answer = first.info("s.bin", 24)["uploadInfo"]
    assert first.send_part(answer["chunks"][0], content[:8]) == 200
    cut_body(first, answer["chunks"][1], content[8:11], 8)
    assert first.stop(signum) == code
    if earlier_layout:
        fold_logs_into_records(first.root)

    second = make_service("--chunk-size", "8", root=first.root)
    again = second.info("s.bin", 24)["uploadInfo"]
    assert again["uploadID"] == answer["uploadID"]
    assert [(part_number(c), c.get("bytesSent")) for c in again["chunks"]] == [(2, 3), (3, None)]
    assert second.send_part(again["chunks"][0], content[11:16]) == 200
    assert second.send_part(again["chunks"][1], content[16:]) == 200
    assert second.complete("s.bin")[0] == "success"
    assert second.stored("s.bin") == content
    assert second.info("done.bin", 4)["exist"] is True


def test_expired_session_is_replaced(make_service):
    service = make_service("--chunk-size", "8", "--expires", "2")
    answer = service.info("x.bin", 3)["uploadInfo"]
    assert answer["expires"] == 2
    time.sleep(1.2)
    # The same session, with the time it has left.
    assert service.info("x.bin", 3)["uploadInfo"] == dict(answer, expires=1)
    time.sleep(1.0)
    assert service.send_part(answer["chunks"][0], b"123") == 404
    assert service.complete("x.bin") == ("fail", "notExist")
    renewed = service.info("x.bin", 3)["uploadInfo"]
    assert renewed["uploadID"] != answer["uploadID"]
    assert service.send_part(renewed["chunks"][0], b"123") == 200
    assert service.complete("x.bin")[0] == "success"
    assert not os.path.exists(os.path.join(service.root, ".uploads", answer["uploadID"]))


def run_threads(target, items):
    threads = [threading.Thread(target=target, args=(item,)) for item in items]
    for thread in threads:
        thread.start()
    deadline = time.monotonic() + TIMEOUT
    for thread in threads:
        thread.join(timeout=max(0.1, deadline - time.monotonic()))
    assert not any(thread.is_alive() for thread in threads)


def test_concurrent_parts_and_completes(make_service):
    part = 1 << 20
    service = make_service("--chunk-size", str(part))
    content = os.urandom(part * 6 + 100)
    chunks = service.info("c.bin", len(content))["uploadInfo"]["chunks"]
    statuses = []

    def send(chunk):
        number = part_number(chunk)
        statuses.append(service.send_part(chunk, content[(number - 1) * part:number * part]))
    run_threads(send, chunks)
    assert statuses == [200] * 7

    answers = []
    run_threads(lambda _: answers.append(service.complete("c.bin")), range(3))
    assert sorted(status for status, _ in answers) == ["fail", "fail", "success"]
    assert all(result == "notExist" for status, result in answers if status == "fail")
    assert sha256(service.stored("c.bin")) == sha256(content)
    assert set(os.listdir(os.path.join(service.root, ".uploads"))) <= {"completed.json", "completed.log"}


@pytest.mark.parametrize("second, options", [
    ({"identifier": OTHER}, ()),
    ({"address": "127.0.0.2"}, ()),
    ({"token": "t2"}, ("--token", "t1", "--token", "t2")),
], ids=["one client, two identifiers", "two addresses, one identifier", "two tokens, one identifier"])
def test_two_uploads_of_one_name(make_service, second, options):
    service = make_service("--chunk-size", "8", *options)
    clients = [service.client(token="t1" if options else None),
               service.client(address=second.get("address"), token=second.get("token"))]
    identifiers = [IDENTIFIER, second.get("identifier", IDENTIFIER)]
    contents = [os.urandom(16), os.urandom(16)]
    uploads = [c.info("n.bin", 16, i)["uploadInfo"] for c, i in zip(clients, identifiers)]
    assert uploads[0]["uploadID"] != uploads[1]["uploadID"]
    for number in (0, 1):   # interleaved, as two clients at a time would
        for client, upload, content in zip(clients, uploads, contents):
            assert client.send_part(upload["chunks"][number], content[number * 8:number * 8 + 8]) == 200
    answers = {}
    run_threads(lambda k: answers.update({k: clients[k].complete("n.bin", identifiers[k])}), [0, 1])
    winner = [k for k in answers if answers[k][0] == "success"]
    assert len(winner) == 1 and answers[1 - winner[0]] == ("fail", "illegalErr"), answers
    assert service.stored("n.bin") == contents[winner[0]]
    assert set(os.listdir(os.path.join(service.root, ".uploads"))) <= {"completed.json", "completed.log"}
    # Only the client that completed it hears that it exists.
    assert [c.info("n.bin", 16, i)["exist"] for c, i in zip(clients, identifiers)] == [k in winner for k in (0, 1)]


def test_open_sessions_per_client_are_bounded(make_service):
    service = make_service("--chunk-size", "8", "--max-sessions", "2")
    ids = ["%032x" % n for n in range(3)]
    first = service.info("a", 3, ids[0])["uploadInfo"]
    service.info("b", 3, ids[1])
    body = {"fileName": "c", "fileMD5": ids[2], "fileSize": 3}
    assert service.call("/upload/info", body) == ("fail", "illegalErr")
    assert service.info("a", 3, ids[0])["uploadInfo"]["uploadID"] == first["uploadID"]
    assert service.client(address="127.0.0.2").info("c", 3, ids[2])["exist"] is False
    assert service.send_part(first["chunks"][0], b"abc") == 200 and service.complete("a", ids[0])[0] == "success"
    assert service.info("c", 3, ids[2])["exist"] is False


def test_room_is_asked_for_what_is_missing(make_service, scratch):
    """On a disk of 64 KiB of its own: f holds 32 of its 40 KiB and g 12 KiB."""
    root, part = os.path.join(scratch, "root"), 4096
    on_tmpfs = ["unshare", "--user", "--map-root-user", "--mount", "sh", "-c",
                'mount -t tmpfs -o size=64k tmpfs "$0" && exec "$@"', root]
    service = make_service("--chunk-size", str(part), "--session-idle", "0", root=root, prefix=on_tmpfs)
    f = os.urandom(10 * part)
    chunks = service.info("f.bin", len(f))["uploadInfo"]["chunks"]
    for number, chunk in enumerate(chunks[:8]):
        assert service.send_part(chunk, f[number * part:(number + 1) * part]) == 200
    g = service.info("g.bin", 4 * part, OTHER)["uploadInfo"]["chunks"]
    for chunk in g[:3]:
        assert service.send_part(chunk, bytes(part)) == 200
    # 12 KiB left: f's missing 8 fit, its whole 40 do not.
    assert [part_number(c) for c in service.info("f.bin", len(f))["uploadInfo"]["chunks"]] == [9, 10]
    # 24 KiB wanted: g, idle since its last part, gives way; f, asked for since, stays.
    assert service.info("h.bin", 6 * part, "e" * 32)["exist"] is False
    assert service.send_part(g[3], bytes(part)) == 404
    for number, chunk in enumerate(chunks[8:], 8):
        assert service.send_part(chunk, f[number * part:(number + 1) * part]) == 200
    assert service.complete("f.bin")[0] == "success"
    assert service.request("GET", "/download?fileName=f.bin")[2] == f


def written_by(service):
    """Bytes the service has handed to write() so far: files, sockets, its log."""
    with open("/proc/%d/io" % service.process.pid) as io:
        return next(int(line.split()[1]) for line in io if line.startswith("wchar:"))


@pytest.mark.parametrize("what", ["parts of one upload", "uploads"])
def test_a_request_costs_the_same_however_many_came_before(make_service, what):
    count, sample = 200, 20
    service = make_service("--chunk-size", "8")
    if what == "parts of one upload":
        content = os.urandom(8 * count)
        chunks = service.info("p.bin", len(content))["uploadInfo"]["chunks"]

        def step(n):
            assert service.send_part(chunks[n], content[8 * n:8 * n + 8]) == 200
    else:
        def step(n):
            assert service.upload("u%d.bin" % n, b"%8d" % n, 8, identifier="%032x" % n)[0] == "success"
    costs = []
    for n in range(count):
        before = written_by(service)
        step(n)
        costs.append(written_by(service) - before)
    first, last = sum(costs[:sample]), sum(costs[-sample:])
    assert last <= 1.5 * first, (first, last)

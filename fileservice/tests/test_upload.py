"""Upload sessions, parts and completion."""
import asyncio
import hashlib
import json
import os
import signal
from urllib.parse import quote, urlencode

import pytest

from conftest import IDENTIFIER, md5_header, raw_exchange, until

OTHER = "f" * 32
LAST = b"wxyz"  # the last part of a 12-byte file cut into parts of 8


@pytest.mark.parametrize("name, size", [("u.bin", 0), ("u.bin", 1), ("Grüße ñ 文件.txt", 7), ('a "b"; c=d.txt', 8),
                                        ("50% off,+&=.txt", 9), ("emoji 😀", 17)])
async def test_upload_and_download_back(service, name, size):
    content, quoted, answer = os.urandom(size), quote(name, safe=""), await service.info(name, size)
    url, upload = service.url + "/download?fileName=" + quoted, answer["uploadInfo"]
    assert (answer["exist"], answer["cdnURL"], upload["method"], upload["chunkSize"], upload["expires"]) == (
        False, url, "POST", 8, 86400)
    assert [c["url"] for c in upload["chunks"]] == ["%s/upload/part?uploadID=%s&partNumber=%d" % (
        service.url, upload["uploadID"], n) for n in range(1, (size + 7) // 8 + 1)]
    assert await service.info(name, size) == answer   # asked again, the same session
    assert await service.upload(name, content) == ("success", {"fileName": name, "fileSize": size, "cdnURL": url})
    # Stored, listed and served back under its own name, not an encoding of it.
    listed = [f["fileName"] for f in (await service.call("/download/pathList", {}))[1]]
    assert (os.listdir(service.root).count(name), listed) == (1, [name])
    for method in ("GET", "POST"):
        code, headers, body = await service.download(name, method=method)
        assert (code, body, headers["Content-Disposition"]) == (200, content, "attachment; filename=" + quoted)
    assert len(service.opened) == 1   # one connection carried every request
    # Done once: the same name, identifier and size are known; another identifier or size is a new upload.
    assert await service.info(name, size) == {"exist": True, "cdnURL": url}
    assert [(await service.info(name, *other))["exist"] for other in ((size, OTHER), (size + 1,))] == [False, False]

REFUSALS = {   # case: (query, headers, body, status)
    "no token": ({}, {"X-Upload-Token": None}, LAST, 403), "wrong token": ({}, {"X-Upload-Token": "0" * 32}, LAST, 403),
    "unknown upload": ({"uploadID": "0" * 32}, {}, LAST, 404), "part 0": ({"partNumber": "0"}, {}, LAST, 400),
    "part past the end": ({"partNumber": "3"}, {}, LAST, 400), "part not a number": ({"partNumber": "two"}, {}, LAST, 400),
    "no digest": ({}, {"fileMD5": None}, LAST, 400), "digest of other bytes": ({}, {"fileMD5": md5_header(b"")}, LAST, 400),
    "digest in hex": ({}, {"fileMD5": hashlib.md5(LAST).hexdigest()}, LAST, 400),
    "longer than the part": ({}, {}, b"v" + LAST, 400), "longer than a part can be": ({}, {}, b"123456789", 413)}


@pytest.mark.parametrize("query, headers, body, status", REFUSALS.values(), ids=REFUSALS)
async def test_part_refusals(service, query, headers, body, status):
    upload = (await service.info("p.bin", 12))["uploadInfo"]
    sent = {k: v for k, v in {**upload["chunks"][1]["headers"], "fileMD5": md5_header(body), **headers}.items() if v}
    path = "/upload/part?" + urlencode(dict({"uploadID": upload["uploadID"], "partNumber": "2"}, **query))
    assert (await service.request("POST", path, body, sent))[0] == status
    assert await service.wanted("p.bin", 12) == [(1, None), (2, None)]   # nothing was kept
    # A refused part leaves the connection usable, unless it is longer than any part could be.
    assert len(service.opened) == (2 if status == 413 else 1)


async def cut_body(service, chunk, data, declared):
    """Sends the first bytes of a body of `declared` bytes, drops the connection, waits until the service noticed."""
    cuts = service.log().count("(cut short)")
    # Nothing comes back before the body ends, so the close is a plain end of stream, not a reset.
    await raw_exchange(service, service.part_head(chunk, declared, md5_header(b"?")) + data, read=None)
    await until(lambda: service.log().count("(cut short)") > cuts, "the service did not notice the cut")


# A small body is checked in memory; a large one is written as it comes, in
# place where nothing of the part is held yet, through a scratch file where something is.
@pytest.mark.parametrize("chunk, cut", [(8, 5), (3 << 20, 3 << 19)], ids=["in memory", "in place"])
async def test_part_resumes_from_its_tail(serve, chunk, cut):
    service, content = await serve(chunk_size=chunk), os.urandom(3 * chunk)
    chunks = await service.chunks("t.bin", 3 * chunk)
    # A body cut short is kept as far as it came ...
    await cut_body(service, chunks[0], content[:cut], chunk)
    held = (await service.wanted("t.bin", 3 * chunk))[0][1]
    assert 0 < held <= cut and await service.wanted("t.bin", 3 * chunk) == [(1, held), (2, None), (3, None)]
    # ... a tail whose digest does not match changes nothing ...
    assert await service.send_part(chunks[0], os.urandom(chunk - held), md5_header(content[held:chunk])) == 400
    assert await service.wanted("t.bin", 3 * chunk) == [(1, held), (2, None), (3, None)]
    # ... and the tail goes in after the bytes held; other bytes for the part then change nothing.
    assert await service.send_part(chunks[0], content[held:chunk]) == 200
    assert await service.send_part(chunks[0], os.urandom(chunk), md5_header(content[:chunk])) == 400
    assert await service.send_part(chunks[2], os.urandom(chunk), md5_header(content[2 * chunk:])) == 400
    # A tail alone is not the part: part 2 is still wanted, with nothing held before it.
    assert await service.send_part(chunks[1], content[chunk + 3:2 * chunk]) == 200
    assert await service.wanted("t.bin", 3 * chunk) == [(2, None), (3, None)]
    assert await service.complete("t.bin") == ("fail", "illegalErr")
    assert (await service.upload("t.bin", content))[0] == "success" and service.stored("t.bin") == content


def fold_logs_into_records(root):
    """Rewrites a root as the layout before the logs: every part in session.json, every upload done in completed.json."""
    uploads = root / ".uploads"
    changes = [json.loads(line) for line in (uploads / "completed.log").read_text().splitlines()]
    (uploads / "completed.json").write_text(json.dumps({change["name"]: change["record"] for change in changes}))
    (uploads / "completed.log").unlink()
    for folder in (entry for entry in uploads.iterdir() if entry.is_dir()):
        session = json.loads((folder / "session.json").read_text())
        for number, start, end in (line.split() for line in (folder / "parts.log").read_text().splitlines()):
            session["parts"].setdefault(number, []).append([int(start), int(end)])
        (folder / "session.json").write_text(json.dumps(session))
        (folder / "parts.log").unlink()


# A part answered 200 and a completed upload are kept whatever ends the
# service, a kill included, and a root of the earlier layout is taken up too.
@pytest.mark.parametrize("signum, code, earlier_layout", [
    (signal.SIGTERM, 0, False), (signal.SIGINT, 0, False), (signal.SIGKILL, -signal.SIGKILL, False),
    (signal.SIGKILL, -signal.SIGKILL, True)])
async def test_sessions_survive_a_restart(launch, signum, code, earlier_layout):
    content, first = os.urandom(24), await launch("--chunk-size", "8")
    assert (await first.upload("done.bin", b"done"))[0] == "success"
    answer = (await first.info("s.bin", 24))["uploadInfo"]
    assert await first.send_part(answer["chunks"][0], content[:8]) == 200
    await cut_body(first, answer["chunks"][1], content[8:11], 8)
    assert first.process.stop(signum) == code
    if earlier_layout:
        fold_logs_into_records(first.root)
    second = await launch("--chunk-size", "8", root=first.root)
    again = (await second.info("s.bin", 24))["uploadInfo"]
    assert (again["uploadID"], await second.wanted("s.bin", 24)) == (answer["uploadID"], [(2, 3), (3, None)])
    assert await second.send_part(again["chunks"][0], content[11:16]) == 200   # the tail of part 2
    assert await second.send_parts(again["chunks"][1:], content) == [200]
    assert (await second.complete("s.bin"))[0] == "success" and second.stored("s.bin") == content
    assert (await second.info("done.bin", 4))["exist"] is True


async def test_sessions_expire_and_are_bounded_per_client(serve, clients):
    now, ids = [1e9], ["%032x" % n for n in range(3)]
    service = await serve(expires=2, clock=lambda: now[0], max_sessions=2)
    a, b = [(await service.info(name, 3, i))["uploadInfo"] for name, i in (("a", ids[0]), ("b", ids[1]))]
    # Two at most: a third is refused; another client has sessions of its own.
    assert await service.call("/upload/info", {"fileName": "c", "fileMD5": ids[2], "fileSize": 3}) == ("fail", "illegalErr")
    assert (await (await clients(service, address="127.0.0.2")).info("c", 3, ids[2]))["exist"] is False
    now[0] += 1.2
    # Asked again, the same session, with the time it has left; done, it makes room.
    assert a["expires"] == 2 and (await service.info("a", 3, ids[0]))["uploadInfo"] == dict(a, expires=1)
    assert (await service.upload("a", b"abc", ids[0]))[0] == "success"
    assert (await service.info("c", 3, ids[2]))["exist"] is False
    now[0] += 0.801   # b's time is over
    assert await service.send_parts(b["chunks"], b"123") == [404]
    assert await service.complete("b", ids[1]) == ("fail", "notExist")
    renewed = (await service.info("b", 3, ids[1]))["uploadInfo"]
    assert renewed["uploadID"] != b["uploadID"] and renewed["expires"] == 2
    assert (await service.upload("b", b"123", ids[1]))[0] == "success"
    assert not (service.root / ".uploads" / b["uploadID"]).exists()


@pytest.mark.parametrize("second, tokens", [
    ({"identifier": OTHER}, ()), ({"address": "127.0.0.2"}, ()), ({"token": "t2"}, ("t1", "t2"))],
    ids=["one client, two identifiers", "two addresses, one identifier", "two tokens, one identifier"])
async def test_two_uploads_of_one_name(serve, clients, second, tokens):
    part, size = 1 << 20, (2 << 20) + 100   # three parts each, the first two written in place as they come
    service = await serve(chunk_size=part, tokens=tokens)
    users = [await clients(service, token="t1" if tokens else None),
             await clients(service, address=second.get("address"), token=second.get("token"))]
    identifiers, contents = [IDENTIFIER, second.get("identifier", IDENTIFIER)], [os.urandom(size), os.urandom(size)]
    uploads = [(await c.info("n.bin", size, i))["uploadInfo"] for c, i in zip(users, identifiers)]
    assert uploads[0]["uploadID"] != uploads[1]["uploadID"]
    sends = [c.send_parts([chunk], data, part) for c, u, data in zip(users, uploads, contents) for chunk in u["chunks"]]
    assert await asyncio.gather(*sends) == [[200]] * 6   # every part of both at a time
    # Bytes that vanished from the service's folder are asked for again.
    os.truncate(service.root / ".uploads" / uploads[0]["uploadID"] / "data", size - 50)
    assert await users[0].complete("n.bin") == ("fail", "illegalErr")
    assert await users[0].wanted("n.bin", size) == [(3, None)] and not (service.root / "n.bin").exists()
    assert await users[0].send_parts(uploads[0]["chunks"][2:], contents[0], part) == [200]
    # Each completes twice at a time: one complete wins the name, its twin finds the upload gone; the other upload loses.
    answers = await asyncio.gather(*(c.complete("n.bin", i) for c, i in zip(users, identifiers) for _ in (1, 2)))
    words = [result if word == "fail" else word for word, result in answers]
    assert sorted(words) == ["illegalErr", "notExist", "notExist", "success"], answers
    winner = words.index("success") // 2
    assert service.stored("n.bin") == contents[winner]
    assert {entry.name for entry in (service.root / ".uploads").iterdir()} <= {"completed.json", "completed.log"}
    # Only the client that completed it hears that it exists.
    assert [(await c.info("n.bin", size, i))["exist"] for c, i in zip(users, identifiers)] == [k == winner for k in (0, 1)]


async def test_room_is_asked_for_what_is_missing(launch, tmp_path):
    """On a disk of 64 KiB of its own: f holds 32 of its 40 KiB and g 12 KiB."""
    root, part, f, g = str(tmp_path / "root"), 4096, os.urandom(40960), bytes(16384)
    on_tmpfs = ["unshare", "--user", "--map-root-user", "--mount", "sh", "-c",
                'mount -t tmpfs -o size=64k tmpfs "$0" && exec "$@"', root]
    service = await launch("--chunk-size", str(part), "--session-idle", "0", root=root, prefix=on_tmpfs)
    f_chunks, g_chunks = await service.chunks("f.bin", len(f)), await service.chunks("g.bin", len(g), OTHER)
    assert await service.send_parts(f_chunks[:8], f, part) + await service.send_parts(g_chunks[:3], g, part) == [200] * 11
    # 12 KiB left: f's missing 8 fit, its whole 40 do not.
    assert await service.wanted("f.bin", len(f)) == [(9, None), (10, None)]
    # 24 KiB wanted: g, idle since its last part, gives way; f, asked for since, stays.
    assert (await service.info("h.bin", 6 * part, "e" * 32))["exist"] is False
    assert await service.send_parts(g_chunks[3:], g, part) == [404]
    assert await service.send_parts(f_chunks[8:], f, part) == [200, 200]
    assert (await service.complete("f.bin"))[0] == "success" and (await service.download("f.bin"))[2] == f


def written_so_far():   # bytes this process handed to write(): the service's files, the sockets both ways
    with open("/proc/self/io") as io:
        return next(int(line.split()[1]) for line in io if line.startswith("wchar:"))


@pytest.mark.parametrize("what", ["parts of one upload", "uploads"])
async def test_a_request_costs_the_same_however_many_came_before(service, what):
    content, costs, chunks = os.urandom(1600), [], await service.chunks("p.bin", 1600)
    for n in range(200):
        before = written_so_far()
        if what == "uploads":
            assert (await service.upload("u%d.bin" % n, b"%8d" % n, identifier="%032x" % n))[0] == "success"
        else:
            assert await service.send_parts(chunks[n:n + 1], content) == [200]
        costs.append(written_so_far() - before)
    assert sum(costs[-20:]) <= 1.5 * sum(costs[:20]), costs

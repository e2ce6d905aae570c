#!/usr/bin/env python3
"""Writes the seeds of the fuzz targets into corpus/ and dict/ beside it.

Each seed is one way through a target, named after it; what fuzzing finds on
top is not kept here. Run it again after a change to a target's input format.
"""

import pathlib
import struct

HERE = pathlib.Path(__file__).resolve().parent

MARK = 0x7E7E7E00
OWN = 0x7E7E7E7E
LINE = 300


def write(target, seeds):
    place = HERE / "corpus" / target
    place.mkdir(parents=True, exist_ok=True)
    for old in place.iterdir():
        old.unlink()
    for name, data in seeds.items():
        (place / name).write_bytes(data)


def dictionary(target, entries):
    place = HERE / "dict"
    place.mkdir(exist_ok=True)
    lines = sorted(
        '"' + "".join(f"\\x{byte:02x}" for byte in entry) + '"\n'
        for entry in set(entries)
    )
    (place / f"{target}.dict").write_text("".join(lines))


def i32(value):
    return struct.pack("<I", value & 0xFFFFFFFF)


# dispatch: steps of records from the inetd


def record(flag, *, ttyno=0, sockfd=-1, socktype=0, port=0, protocol=0,
           pid=OWN, peer_port=0, tos=-1, accept_id=0, path=b""):
    head = b"".join(
        i32(value)
        for value in (flag, ttyno, sockfd, socktype, port, protocol, pid,
                      peer_port))
    tail = i32(tos) + i32(accept_id) + bytes(20)
    return head + bytes(32) + tail + path.ljust(64, b"\0")


def deliver(data, failing=0, arrives=0xFF):
    assert len(data) == 156
    return struct.pack("<BHB", 0, failing, arrives) + data


def accept(accept_id=1):
    return bytes((5, accept_id))


def end_process(which=0):
    return bytes((6, which))


def control(what, protocol, old_port=0, new_port=0):
    return struct.pack("<BBHH", 7, what | protocol << 2, old_port, new_port)


def assign(ttyno=LINE, entry=0, service=0, accept_id=OWN, **more):
    return record(1, ttyno=ttyno, sockfd=MARK + entry, accept_id=accept_id,
                  protocol=MARK + service, **more)


def permit(service, flag=0x008, **more):
    return record(flag, protocol=MARK + service, **more)


SESSION = accept() + deliver(assign())
LOST = deliver(bytes(156), arrives=0)
FAULTS = {
    "socket": 0x0001, "bind": 0x0002, "listen": 0x0004, "cloexec": 0x0008,
    "option": 0x8000,
}
SESSION_FAULTS = {
    "master": 0x0010, "slave": 0x0020, "fork": 0x0040, "pair": 0x0080,
    "release": 0x0100, "alloc": 0x1000, "init": 0x2000, "memory": 0x4000,
}


def dispatch_seeds():
    seeds = {
        "session": SESSION,
        "session_clear": SESSION + deliver(record(2, ttyno=LINE)),
        "clear_other_line": accept() + deliver(assign(400)) +
        deliver(record(2, ttyno=400)),
        "clear_edges": b"".join(
            deliver(assign(line, entry=255, accept_id=9)) +
            deliver(record(2, ttyno=line)) for line in (258, 321, 322)),
        "line_taken": SESSION + accept(2) + deliver(assign()),
        "line_no_session": accept() + deliver(assign(12)),
        "line_out_of_range": accept() + deliver(assign(1600)) + accept() +
        deliver(assign(-1)),
        "edge_lines": b"".join(
            deliver(assign(line, entry=255, accept_id=9))
            for line in (257, 258, 321, 322, 1148, 1149, 1420, 1421, 1585,
                         1586)),
        "nobody_waits": deliver(assign(entry=200, accept_id=7)),
        "no_socket": deliver(record(1, ttyno=LINE, port=23)),
        "wrong_id": accept() + deliver(assign(accept_id=77)) + LOST,
        "by_path": accept() + deliver(assign(service=4)),
        "no_service": accept() +
        deliver(record(1, ttyno=LINE, sockfd=MARK, accept_id=OWN, port=9)),
        "another_descriptor": deliver(permit(0)) +
        deliver(record(1, ttyno=LINE, sockfd=4, port=23)) +
        deliver(record(2, ttyno=LINE)) + deliver(permit(2)),
        "inetd_descriptor": deliver(record(1, ttyno=1600, sockfd=3)) +
        SESSION,
        "permits": b"".join(
            deliver(permit(i, 0x080 if i in (4, 5, 6) else 0x008, tos=i))
            for i in range(9)),
        "permit_twice": deliver(permit(0)) * 2 + deliver(permit(4, 0x080)) * 2,
        "permit_foreign_pid": deliver(permit(0, pid=1)) +
        deliver(permit(4, 0x080, pid=1)),
        "permit_unknown": deliver(record(8, socktype=2, port=99, protocol=6)) +
        deliver(record(8, socktype=17, protocol=6)) +
        deliver(record(0x80, socktype=1, protocol=7, path=b"x" * 64)),
        "pair_fails": deliver(permit(2)) + deliver(permit(3)) +
        deliver(permit(2), 0x0002),
        "path_fails": deliver(permit(4, 0x080)) +
        deliver(permit(4, 0x080), 0x0002),
        "closed_after_change": deliver(permit(3, 0x408)) + control(0, 11) +
        deliver(permit(3, 0x408)),
        "stop": deliver(permit(0)) + deliver(record(0x200, protocol=6)) +
        deliver(record(0x200, protocol=6, pid=1)),
        "delete_port": SESSION + deliver(permit(0)) +
        deliver(record(0x010, protocol=6, port=23)),
        "delete_path": deliver(permit(4, 0x080)) + accept() +
        deliver(assign(service=4)) +
        deliver(record(0x100, protocol=7, path=b"/run/a")),
        "delete_foreign_pid": SESSION +
        deliver(record(0x110, protocol=6, port=23, pid=1)),
        "no_kind": b"".join(
            deliver(record(flag)) for flag in (0, 4, 0x20, 0x40, 0x400)),
        "all_bits": accept() + deliver(i32(0x7FF) + assign()[4:]),
        "part_of_a_record": SESSION + deliver(assign(301), arrives=15),
        "receive_error": SESSION + accept() +
        deliver(bytes(156), arrives=1),
        "reaped": SESSION + end_process() + deliver(record(2, ttyno=LINE)),
        "stopped_by_daemon": deliver(permit(0)) + control(1, 6) +
        deliver(permit(0)) + control(0, 6) + deliver(permit(0)),
        "stopped_meanwhile": deliver(permit(0), arrives=17) +
        deliver(permit(4, 0x080), arrives=17) +
        deliver(permit(2), 0x0002, arrives=17),
        "moved": deliver(permit(0)) + control(2, 6, 23, 24) +
        deliver(permit(0, 0x408)) + SESSION,
        "answers_unsent": accept() + deliver(assign(), 0x0200) +
        deliver(assign(301, entry=99), 0x0400) +
        deliver(permit(0), 0x0202) + LOST,
        "short_answers": accept() + deliver(assign(), 0x0800) +
        deliver(record(2, ttyno=LINE), 0x0800),
        "many_sessions": b"".join(
            accept(i) + deliver(assign(258 + i)) for i in range(12)) + LOST,
        "listen_faults": b"".join(
            deliver(permit(i % 9), bits) + deliver(permit(4, 0x080), bits)
            for i, bits in enumerate(FAULTS.values())),
        "session_faults": b"".join(
            accept(i) + deliver(assign(), bits)
            for i, bits in enumerate(SESSION_FAULTS.values())),
    }
    return seeds


def dispatch_dictionary():
    entries = [i32(OWN), i32(0xFFFFFFFF)]
    entries += [i32(MARK + i) for i in range(9)]
    entries += [i32(1 << bit) for bit in range(11)] + [i32(0x408)]
    entries += [i32(line) for line in (257, 258, 300, 321, 322, 1148, 1149,
                                       1421, 1585, 1586)]
    entries += [i32(port) for port in (22, 23, 2222, 4000, 5000)]
    entries += [b"/run/a", b"/run/b", b"/run/c"]
    return entries


# store: a line's file, a get and a set

KEYS = {"LOGNAME": 3, "AUTHOR_CMD": 30, "AUTHOR_CMD1": 31, "VKD": 84,
        "VKD_SWITCH": 88, "IDLE": 90}


def store(key, other, content, value=b"", line=0, room=255, length=None):
    head = bytes((line, content is not None, KEYS[key], KEYS[other], room,
                  length if length is not None else min(len(value) + 1, 127)))
    return head + value + b"\0" + (content or b"")


def store_seeds():
    name = b"LOGNAME=alice\r\n"
    idle = b"IDLE=10\r\n"
    return {
        "no_file": store("LOGNAME", "IDLE", None, b"alice"),
        "no_file_empty": store("LOGNAME", "IDLE", None),
        "empty_file": store("LOGNAME", "IDLE", b"", b"alice"),
        "replace": store("LOGNAME", "IDLE", name + idle, b"bob"),
        "append": store("VKD", "IDLE", name + idle, b"1"),
        "empty_value": store("LOGNAME", "IDLE", name + idle),
        "null_value": store("LOGNAME", "IDLE", name, b"null"),
        "null_cut": store("LOGNAME", "IDLE", b"LOGNAME=null\r\n", b"x",
                          room=4),
        "null_last": store("LOGNAME", "IDLE", b"LOGNAME=null", b"x"),
        "prefix_key": store("VKD", "VKD_SWITCH",
                            b"VKD_SWITCH=1\r\nVKD=2\r\n", b"3"),
        "prefix_key2": store("AUTHOR_CMD", "AUTHOR_CMD1",
                             b"AUTHOR_CMD1=1\r\n", b"3"),
        "twice": store("IDLE", "LOGNAME", idle + name + b"IDLE=20\r\n", b"5"),
        "grows": store("IDLE", "LOGNAME", b"IDLE=\n" * 200 + name, b"z" * 900,
                       length=0x80 + 57),
        "no_equals": store("LOGNAME", "IDLE", b"LOGNAME\r\nIDLE\r\n", b"a"),
        "no_line_end": store("IDLE", "LOGNAME", b"LOGNAME=alice", b"5"),
        "one_character": store("IDLE", "LOGNAME", b"LOGNAME=a\r\nIDLE=5",
                               b"6"),
        "bare_feed": store("IDLE", "LOGNAME", b"LOGNAME=alice\nIDLE=1\n",
                           b"6"),
        "other_shapes": store("IDLE", "LOGNAME",
                              b"\r\n# x\r\n=\r\n\n" + name + b"\xff\xfe\r\n",
                              b"6"),
        "zero_byte": store("IDLE", "LOGNAME", b"LOGNAME=al\0ice\r\n" + idle,
                           b"6"),
        "value_with_feed": store("IDLE", "LOGNAME", name, b"1\nLOGNAME=eve"),
        "value_with_return": store("IDLE", "LOGNAME", name, b"1\r"),
        "long_line": store("IDLE", "LOGNAME", b"X" * 1500 + b"\r\n" + idle,
                           b"7"),
        "long_line_of_key": store("IDLE", "LOGNAME",
                                  b"X" * 1024 + b"IDLE=1\r\n" + idle, b"7"),
        "full_piece": store("IDLE", "LOGNAME",
                            b"LOGNAME=" + b"y" * 1015 + b"\n" + idle, b"7"),
        "long_pair": store("LOGNAME", "IDLE", name + idle, b"z" * 1100,
                           length=0x80),
        "longest_pair": store("LOGNAME", "IDLE", name + idle, b"z" * 1013,
                              length=0x80),
        "small_room": store("LOGNAME", "IDLE", name, b"bob", room=0),
        "cut_at_return": store("LOGNAME", "IDLE", name, b"bob", room=6),
        "reserved_line": store("LOGNAME", "IDLE", name, b"bob", line=3),
    }


# request: items, cuts, a stream


def item(kind, value, length=4):
    return struct.pack("<HHI", kind, length, value)


def request(items, cuts=b"", stream=b""):
    head = bytes((len(items),))
    head += b"".join(struct.pack("<HI", kind, value & 0xFFFFFFFF)
                     for kind, value in items)
    return head + cuts + b"\0" + stream


def request_seeds():
    line = item(0x20, 300)
    return {
        "login": request([(0x20, 300), (0x01, 1)], b"\1"),
        "speed": request([(0x20, 300), (0x40, 9600)], b"\3"),
        "session_timeout": request([(0x20, 300), (0x80, 60)], b"\7"),
        "exec_timeout": request([(0x20, 300), (0x100, 60)], b"\10"),
        "hold": request([(0x20, 1586), (0x800, 1800)], b"\11"),
        "hold_no_line": request([(0x20, 1587), (0x800, 1800)], b"\17"),
        "hold_too_long": request([(0x20, 1587), (0x800, 1801)], b"\17"),
        "release": request([(0x1000, 0)], b"\1"),
        "full": request([(0x1000, 0)] * 8),
        "too_many": request([(0x1000, 0)] * 15),
        "two_lines": request([(0x20, 1), (0x20, 2)]),
        "release_of_line": request([(0x20, 1), (0x1000, 0)]),
        "no_line": request([(0x40, 9600)]),
        "stream": request([], b"\1\2\5\20\40", line + item(1, 1) +
                          item(0x1000, 0) + line + item(0x40, 9600)),
        "part": request([(0x20, 7)], b"\2", item(1, 1)[:5]),
        "unknown": request([], b"\4", item(0x1000, 0) + item(2, 0)),
        "length": request([], b"\4", line + item(1, 1, 8)),
        "zero_items": request([]),
    }


# log: time, year, size of the file, what is in the way, form, number, text


def log(time=0, year=2000, filled=0, way=0, form=0, number=7, text=b"text\n"):
    return struct.pack("<qIIBBH", time, year, filled, way, form,
                       number) + text


def log_seeds():
    times = {
        "epoch": 0, "leap_day": 951782400, "last_second": 1609459199,
        "negative": -5, "smallest": -(1 << 63), "largest": (1 << 63) - 1,
        "century": 4107542400, "cycle": 12622780800, "feb_2100": 4107455999,
    }
    seeds = {name: log(time, time // 31556952 % (1 << 32))
             for name, time in times.items()}
    seeds |= {f"year_{year}": log(year=year)
              for year in (1900, 1999, 2000, 2100, 2400, (1 << 32) - 1)}
    seeds |= {
        "below_cap": log(filled=7, way=0x10),
        "at_cap": log(filled=8, way=0x10),
        "above_cap": log(filled=9, way=0x10),
        "trace": log(way=0x01),
        "trace_wanted": log(way=0x03),
        "cannot_open": log(way=0x04),
        "no_directory": log(way=0x0C),
        "formatted": log(form=1, text=b"100%s %n\x80\xff"),
        "cut_text": log(form=2, number=3, text=b"abcdef"),
        "three_times": log(form=3, text=b"x" * 400),
        "empty": log(text=b""),
        "longest": log(text=b"a" * 1023),
        "too_long": log(form=1, text=b"b" * 2000),
        "fills_line": log(text=b"c" * 1007),
        "fills_line_1": log(text=b"c" * 1008),
    }
    return seeds


# path: size, line number, what to do, TMPDIR, name


def path(size, prefix, name, ttyno=300, what=0):
    return struct.pack("<HIB", size, ttyno, what) + prefix + b"\0" + name


def path_seeds():
    name = b"/mng/tty/.tty_info"
    long = b"/" + b"d" * 120
    return {
        "plain": path(128, b"/tmp/x", name),
        "unset": path(128, b"", name, what=1),
        "empty_prefix": path(128, b"", name),
        "no_buffer": path(128, b"/tmp/x", name, what=2),
        "size_0": path(0, b"/tmp/x", name),
        "size_1": path(1, b"", b""),
        "fits": path(25, b"/tmp/x", name),
        "one_short": path(24, b"/tmp/x", name),
        "long_prefix": path(128, long, name),
        "longest_line": path(128, b"p" * 123, b"", ttyno=300),
        "line_one_over": path(128, b"p" * 124, b"", ttyno=300),
        "largest_number": path(128, b"p", b"", ttyno=0xFFFFFFFF),
        "path_63": path(300, b"/", b"q" * 63),
        "path_64": path(300, b"/", b"q" * 64),
        "path_65": path(300, b"/", b"q" * 65),
        "odd_bytes": path(300, b"\xff%s%n", b"\x01%d/../"),
    }


# telnet: what a peer sends, and what it is sent


def telnet(sent, printed=b"", cut=0, asked=1):
    return (bytes((cut, asked)) + struct.pack("<H", len(printed)) + printed +
            sent)


def telnet_seeds():
    size = b"\xff\xfb\x1f\xff\xfa\x1f\0\x84\0\x32\xff\xf0"
    named = b"\xff\xfb\x18\xff\xfa\x18\0VT100X\xff\xf0"
    other = b"\xff\xfa\x18\0vt1\xff\xf0"
    return {
        "text": telnet(b"ls -l\r\n", b"total 0\r\n"),
        "ends_of_lines": telnet(b"a\r\0b\r\nc\rd\n", b"a\rb\r\nc\r\r"),
        "doubled": telnet(b"a\xff\xffb", b"a\xffb", cut=1),
        "binary": telnet(b"\xff\xfb\0\xff\xfd\0a\r\0b\r\n", b"\rx"),
        "size": telnet(size),
        "size_of_255": telnet(
            b"\xff\xfb\x1f\xff\xfa\x1f\0\xff\xff\0\x32\xff\xf0", cut=7),
        "size_unasked": telnet(size, asked=0),
        "size_0": telnet(
            b"\xff\xfb\x1f\xff\xfa\x1f\0\0\0\0\xff\xf0"),
        "type": telnet(named, cut=3),
        "types": telnet(b"\xff\xfb\x18" + other * 9),
        "type_odd": telnet(b"\xff\xfb\x18\xff\xfa\x18\0../x\xff\xf0"),
        "refusals": telnet(b"\xff\xfc\x1f\xff\xfc\x18\xff\xfe\1\xff\xfe\3"),
        "agreement": telnet(b"\xff\xfd\1\xff\xfd\3\xff\xfb\3"),
        "off_again": telnet(b"\xff\xfd\1\xff\xfe\1\xff\xfd\1"),
        "strangers": telnet(b"\xff\xfb\x27\xff\xfd\x26\xff\xfb\x22"),
        "environment": telnet(b"\xff\xfa\x27\0\0USER\1root\xff\xf0"),
        "commands": telnet(
            b"\xff\xf1\xff\xf3\xff\xf4\xff\xf6\xff\xf7\xff\xf8"),
        "abort": telnet(b"\xff\xf5", b"lost"),
        "abort_and_type": telnet(b"\xff\xf5x", b"kept"),
        "synch": telnet(b"\x80\0lost\xff\xf4\xff\xf7\xff\xf2kept"),
        "long_sub": telnet(b"\xff\xfa\x18\0" + b"v" * 70 + b"\xff\xf0a"),
        "half_sub": telnet(b"\xff\xfa\x1f\0\x50"),
        "sub_cut": telnet(b"\xff\xfa\x1f\0\x50\xff\xfd\0a"),
        "half_command": telnet(b"a\xff"),
    }


def main():
    write("dispatch", dispatch_seeds())
    write("store", store_seeds())
    write("request", request_seeds())
    write("log", log_seeds())
    write("path", path_seeds())
    write("telnet", telnet_seeds())
    dictionary("dispatch", dispatch_dictionary())
    dictionary("store", [key.encode() + b"=" for key in KEYS] +
               [b"\r\n", b"null", b"\n", b"\r", b"\0"])
    dictionary("request", [item(kind, 0)[:4] for kind in
                           (1, 0x20, 0x40, 0x80, 0x100, 0x800, 0x1000)])
    dictionary("telnet", [b"\xff\xfa\x18\0", b"\xff\xfa\x1f", b"\xff\xf0",
                          b"\xff\xfb", b"\xff\xfc", b"\xff\xfd", b"\xff\xfe",
                          b"\xff\xf2", b"\xff\xf5", b"\x80\0"])


main()

"""Boxes of a movie (ISO/IEC 14496-12 4.2), to be damaged. The movies end with their `moov`: no offset changes."""

import struct

CONTAINERS = {"moov", "trak", "mdia", "minf", "stbl", "edts"}
ENTRY = 78  # the fields of a visual sample entry ahead of its children


class Box:
    def __init__(self, kind, payload):
        self.kind, self.fields, self.children = kind, payload, []
        if kind in CONTAINERS:
            self.fields, self.children = b"", boxes(payload)
        elif kind == "stsd":
            self.fields, self.children = payload[:8], boxes(payload[8:])
        elif kind in ("avc1", "avc3", "hvc1", "hev1"):
            self.fields, self.children = payload[:ENTRY], boxes(payload[ENTRY:])

    def bytes(self):
        body = self.fields + b"".join(child.bytes() for child in self.children)
        return struct.pack(">I4s", 8 + len(body), self.kind.encode("latin1")) + body

    def at(self, path):
        """The first box at the end of a path of types below this one."""
        box = self
        for kind in path.split("/"):
            box = next(child for child in box.children if child.kind == kind)
        return box

    def track(self, handler):
        return next(trak for trak in self.children
                    if trak.kind == "trak" and trak.at("mdia/hdlr").fields[8:12].decode() == handler)

    def entry(self):
        """The sample entry of the pictures."""
        return self.track("vide").at("mdia/minf/stbl/stsd").children[0]

    def configuration(self):
        return next(child for child in self.entry().children if child.kind in ("avcC", "hvcC"))


def boxes(data):
    found, at = [], 0
    while at < len(data):
        size, kind = struct.unpack_from(">I4s", data, at)
        found.append(Box(kind.decode("latin1"), data[at + 8:at + size]))
        at += size
    return found


def places(data):
    """Where the boxes of the top level are: type, begin, end."""
    at = 0
    while at < len(data):
        size, kind = struct.unpack_from(">I4s", data, at)
        yield kind.decode("latin1"), at, at + size
        at += size


def edited(path, edit):
    """Changes the `moov` of a file, which is its last box."""
    data = path.read_bytes()
    kind, begin, _ = list(places(data))[-1]
    assert kind == "moov", f"{path} ends with {kind}"
    moov = Box(kind, data[begin + 8:])
    edit(moov)
    path.write_bytes(data[:begin] + moov.bytes())


# ---- damages, each an edit of a `moov`


def units(data, at, count):
    """Where units end that follow lengths of 16 bits."""
    for _ in range(count):
        at += 2 + int.from_bytes(data[at:at + 2], "big")
    return at


def keeping(types):
    """Leaves only parameter sets of these NAL unit types in the configuration (ISO/IEC 14496-15 5.3.3.1, 8.3.3.1)."""
    def avc(record):
        sps, end = record[5] & 31, units(record, 6, record[5] & 31)
        pps, last = record[end], units(record, end + 1, record[end])
        return (record[:5] + (record[5:end] if 7 in types else bytes([record[5] - sps])) +
                (record[end:last] if 8 in types and pps else b"\0") + record[last:])

    def hevc(record):
        kept, at = [], 23
        for _ in range(record[22]):
            end = units(record, at + 3, int.from_bytes(record[at + 1:at + 3], "big"))
            if record[at] & 63 in types:
                kept.append(record[at:end])
            at = end
        return record[:22] + bytes([len(kept)]) + b"".join(kept)

    def edit(moov):
        box = moov.configuration()
        box.fields = (avc if box.kind == "avcC" else hevc)(box.fields)
    return edit


def without_configuration(moov):
    moov.configuration().kind = "free"


def overrunning_child(moov):
    """A child of the sample entry that says it is longer than the entry."""
    child = Box("colr", b"nclx" + bytes(8))
    child.bytes = lambda: struct.pack(">I", 500) + b"colr" + child.fields
    moov.entry().children.append(child)


def listed(handler, media_time):
    """The first entry of the track's edit list begins at this media time (8.6.6)."""
    def edit(moov):
        elst = moov.track(handler).at("edts/elst")
        elst.fields = elst.fields[:12] + struct.pack(">i", media_time) + elst.fields[16:]
    return edit


def tagged(tag):
    def edit(moov):
        moov.entry().kind = tag
    return edit

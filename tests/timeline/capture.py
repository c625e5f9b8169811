"""Captures that are made up: pcapng files with records as docs/capture.md has them."""

import struct

HEAD = 64
MESSAGE, UP, DOWN, REFUSED = 1, 2, 3, 4
NONE, TO_PROCESS, TO_OWNER = 0, 1, 2
BEGAN = 1_790_000_000_000_000_000


def block(kind, body):
    body += bytes(-len(body) % 4)
    return struct.pack("<II", kind, len(body) + 12) + body + struct.pack("<I", len(body) + 12)


def message(code, count=0, flags=0, body=b""):
    return struct.pack(">IIII", 3, code, count, flags) + body


def handles(numbers):
    return b"".join(struct.pack(">I", number) for number in numbers)


def create(acs, flags):
    """ACs of class 3: (handle, name)."""
    return message(2, len(acs), flags, handles(handle for handle, _ in acs) +
                   b"".join(name.encode().ljust(64, b"\0") + bytes(552) for _, name in acs) +
                   b"".join(struct.pack(">IIII", handle, 2, 3, 4) for handle, _ in acs))


def update(numbers, flags=0xC):
    return message(3, len(numbers), flags, handles(numbers) + bytes(16 * len(numbers)))


def delete(numbers, flags=0x30):
    return message(6, len(numbers), flags, handles(numbers))


def provision(numbers):
    return message(7, len(numbers), 0, handles(numbers) + bytes(28 * len(numbers)))


class Capture:
    def __init__(self, interfaces=1):
        self.time, self.count, self.interface = BEGAN, 0, 0
        self.counts = [0] * interfaces
        self.blocks = [block(0x0A0D0D0A, struct.pack("<IHHq", 0x1A2B3C4D, 1, 0, -1))]
        self.blocks += interfaces * [
            block(1, struct.pack("<HHI", 147, 0, 0) + struct.pack("<HHB3x", 9, 1, 9) + bytes(4))]
        self.beginning = len(self.blocks)

    def add(self, owner, kind, direction=NONE, content=b"", status=0, after=1000, lost=0, pid=None):
        self.time += after
        self.count += lost
        head = struct.pack(">HBBBBHIIIIQQII16s", 1, kind, direction, 1, 0, HEAD, 3, 7, pid or 4000 + owner, 1000, owner,
                           self.count, status, len(content), b"portd-%d" % owner)
        data = head + content
        options = struct.pack("<HHQ", 4, 8, lost) + bytes(4) if lost else b""
        when = (self.time >> 32, self.time & 0xFFFFFFFF)
        about = struct.pack("<IIIII", self.interface, *when, len(data), len(data))
        self.blocks.append(block(6, about + data + bytes(-len(data) % 4) + options))
        self.count += 1

    def cut(self):
        """What comes is in another file."""
        del self.blocks[self.beginning:]

    def start_again(self):
        """The process: whatever it counts begins anew."""
        self.count = 0

    def turn_to(self, interface):
        """What comes is another process's: each counts for itself."""
        self.counts[self.interface] = self.count
        self.interface, self.count = interface, self.counts[interface]

    def said(self, owner, content, **more):
        self.add(owner, MESSAGE, TO_PROCESS, content, **more)

    def told(self, owner, content, **more):
        self.add(owner, MESSAGE, TO_OWNER, content, **more)

    def write(self, path):
        path.write_bytes(b"".join(self.blocks))
        return path

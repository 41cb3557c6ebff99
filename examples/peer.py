#!/usr/bin/env python3
"""The smallest useful peer: lists a host's cameras, opens one and saves what arrives.

    peer.py OUTPUT FRAMES HOST [ARGUMENT]...

HOST is started and talked to over its standard input and output, for example `ssh desk zu-camera-host --stdio`.
Saves FRAMES frames of the first camera as H.264, which any player shows. Standard library only.
"""
import struct
import subprocess
import sys

CAMERA_LIST, OPEN_CAMERA, CAMERA_STATE, VIDEO_FRAME, NOTICE = 2, 3, 5, 7, 128
GET_CAMERA_LIST, CLOSE_CAMERA = 1, 4
LONGEST_MESSAGE = 64 * 1024 * 1024


def send(host, kind, body=b""):
    host.stdin.write(struct.pack("<IB3x", len(body), kind) + body)
    host.stdin.flush()


def read_exactly(host, size):
    data = host.stdout.read(size)
    if len(data) != size:
        sys.exit("peer.py: the host closed the connection")
    return data


def receive(host, *wanted):
    """The type and body of the next message of a wanted type. What the host wants to say is printed."""
    while True:
        size, kind = struct.unpack("<IB3x", read_exactly(host, 8))
        if size > LONGEST_MESSAGE:
            sys.exit(f"peer.py: a message of {size} bytes")
        body = read_exactly(host, size)
        if kind == NOTICE:
            print("host:", ascii(body.decode(errors="replace")), file=sys.stderr)
        if kind in wanted:
            return kind, body


def cameras(body):
    """Id, name and sizes of each camera."""
    (count,) = struct.unpack_from("<I", body)
    offset = 4
    for _ in range(count):
        ident, name, sizes = struct.unpack_from("<I2x516s778xB3x", body, offset)
        offset += 1304
        pairs = [struct.unpack_from("<II", body, offset + 8 * i) for i in range(sizes)]
        offset += 8 * sizes
        yield ident, name.split(b"\0")[0].decode(errors="replace"), pairs


def main():
    if len(sys.argv) < 4:
        sys.exit(__doc__)
    output, frames, command = sys.argv[1], int(sys.argv[2]), sys.argv[3:]
    host = subprocess.Popen(command, stdin=subprocess.PIPE, stdout=subprocess.PIPE)
    send(host, GET_CAMERA_LIST)
    found = list(cameras(receive(host, CAMERA_LIST)[1]))
    for ident, name, sizes in found:
        print(ident, ascii(name), " ".join(f"{w}x{h}" for w, h in sizes))
    if not found or not found[0][2]:
        sys.exit("peer.py: the host has no camera")
    ident, _, sizes = found[0]

    send(host, OPEN_CAMERA, struct.pack("<Iiii", ident, *sizes[0], 30))
    with open(output, "wb") as file:
        # The first frames may come before the answer to the open.
        while frames > 0:
            kind, body = receive(host, VIDEO_FRAME, CAMERA_STATE)
            if kind == VIDEO_FRAME:
                file.write(body[8:])
                frames -= 1
            elif struct.unpack("<II", body) != (2, ident):
                sys.exit("peer.py: the camera could not be opened, or was closed")
    send(host, CLOSE_CAMERA, struct.pack("<I", ident))
    host.stdin.close()
    host.stdout.read()
    sys.exit(host.wait())


if __name__ == "__main__":
    main()

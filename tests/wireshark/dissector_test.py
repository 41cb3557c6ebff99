#!/usr/bin/env python3
"""The Wireshark dissector: what it shows of a recorded session, of messages made by hand, and of hostile bytes. And
the recorder's command line; docs/wireshark.md has sessions that it records.

dissector_test.py SOURCE_DIRECTORY

session.pcapng was recorded by make_session. Exits with 77 if tshark is not installed.
"""
import os
import random
import re
import shutil
import struct
import subprocess
import sys
import tempfile
import unittest
from importlib.machinery import SourceFileLoader
from importlib.util import module_from_spec, spec_from_loader

source = sys.argv.pop(1)
here = os.path.dirname(os.path.abspath(__file__))
sys.dont_write_bytecode = True
loader = SourceFileLoader("recorder", f"{source}/examples/wireshark/capture-channel")
recorder = module_from_spec(spec_from_loader("recorder", loader))
loader.exec_module(recorder)


def tshark(capture, *options):
    """What it prints. Neither personal settings nor personal plugins are used."""
    with tempfile.TemporaryDirectory() as home:
        result = subprocess.run(["tshark", "-X", f"lua_script:{source}/examples/wireshark/zu-camera.lua", "-r", capture,
                                 *options], env={"PATH": os.environ["PATH"], "HOME": home, "LC_ALL": "C.UTF-8"},
                                capture_output=True, text=True, check=True)
    errors = [line for line in result.stderr.splitlines() if not line.startswith("Running as user")]
    assert not errors, errors
    errors = re.findall("Lua Error.*", result.stdout)
    assert not errors, errors
    return result.stdout


def messages(capture):
    """The tree of each message, without its title and the three fields of the header."""
    shown = re.findall(r"^Camera channel: (.*)\n((?: +.*\n)*)", tshark(capture, "-O", "zucamera"), re.MULTILINE)
    return [(title, [line[4:] for line in tree.splitlines()
                     if not re.match("    (Length of the body|Type|Reserved): ", line)]) for title, tree in shown]


def message(kind, body=b""):
    return struct.pack("<IB3x", len(body), kind) + body


def numbers(*values):
    return struct.pack(f"<{len(values)}i", *values)


def camera(ident, name, stated, sizes):
    return struct.pack("<IBx516s4x516s258xB3x", ident, 1, name, name * 2, stated) + numbers(*(2 * sizes * [16]))


class CutCapture(recorder.Capture):
    """Stores `keep` bytes of a segment's payload, unless that is None; the packet states its whole length."""
    keep = None

    def block(self, kind, body):
        if kind == 6 and self.keep is not None:
            size = 40 + self.keep
            body = body[:12] + struct.pack("<I", size) + body[16:20 + size]
        super().block(kind, body)


class Dissector(unittest.TestCase):
    maxDiff = None

    def setUp(self):
        work = tempfile.TemporaryDirectory()
        self.addCleanup(work.cleanup)
        self.file = os.path.join(work.name, "made.pcapng")

    def make(self, *connections):
        """Stores connections, in each of which the host sends the given segments."""
        capture = recorder.Capture(self.file)
        for number, segments in enumerate(connections, 1):
            capture.begin(number)
            for data in segments:
                capture.add("host", data=data)
        os.close(capture.file)

    def made(self, *segments):
        """The messages shown when the host sends these segments."""
        self.make(segments)
        return messages(self.file)

    def test_shows_every_field_of_a_recorded_session(self):
        def control(number, name, value, least, most, step, flags=0):
            yes = ["True" if flags & bit else "False" for bit in (1, 2, 4)]
            bits = [f"{'.... ' * 7}{'....'[:3 - i]}{1 if flags & 1 << i else 0}{'...'[:i]} = " for i in range(3)]
            return [f"Control: {name}", f"    Property: {name} ({number})", f"    Value: {value}",
                    f"    Minimum: {least}", f"    Maximum: {most}", f"    Step: {step}", f"    Default: {value}",
                    f"    Flags: 0x0000000{flags}", f"        {bits[0]}There is an automatic: {yes[0]}",
                    f"        {bits[1]}The automatic is on: {yes[1]}", f"        {bits[2]}Read-only: {yes[2]}"]

        self.assertEqual(messages(f"{here}/session.pcapng"), [
            ("Version request", []),
            ("Version reply", ["Version: 5"]),
            ("Get camera list", []),
            ("Camera list", ["Number of cameras: 1", "Camera record: 0, 1 sizes", "    Camera: 0", "    In use: 0",
                             "    Name: Front", "    Display name: Front", "    Number of sizes, modulo 256: 1",
                             "    Size: 160x120"]),
            ("Open camera", ["Camera: 1", "Width: 160", "Height: 120", "Frames per second: 2"]),
            ("Host notice", ["Text: this host lends no camera 1"]),
            ("Camera state", ["State: failed (1)", "Camera: 1"]),
            ("Open camera", ["Camera: 0", "Width: 160", "Height: 120", "Frames per second: 2"]),
            ("Camera state", ["State: open (2)", "Camera: 0"]),
            # Three segments.
            ("Encoded video frame", ["Camera: 0", "Length of the picture: 3250",
                                     "Encoded picture: 000000016742c00bda0a11f966a04040c8000003000800000301e478a155"
                                     "0000000168ce…",
                                     "    NAL unit: sequence parameter set (7)",
                                     "    NAL unit: picture parameter set (8)",
                                     "    NAL unit: supplemental information (6)",
                                     "    NAL unit: slice of a key frame (5)"]),
            ("Encoded video frame", ["Camera: 0", "Length of the picture: 150",
                                     "Encoded picture: 00000001419a2038846040fe27a11f020e8f80e000680e2daee040a3fe0"
                                     "4134500031140…",
                                     "    NAL unit: slice (1)"]),
            # Two messages of one segment.
            ("Set property", ["Camera: 0", "Property: brightness (1)", "Value: -2", "Automatic: 0"]),
            ("Get controls", ["Camera: 0"]),
            ("Camera controls", ["Camera: 0", "Status: read (0)",
                                 *control(1, "brightness", 128, 0, 255, 1), *control(2, "contrast", 128, 0, 255, 1),
                                 *control(3, "saturation", 64, 0, 255, 1), *control(4, "hue", 0, -180, 180, 1),
                                 *control(5, "gamma", 100, 72, 500, 1), *control(6, "sharpness", 3, 0, 6, 1),
                                 *control(7, "backlight", 1, 0, 2, 1), *control(8, "gain", 0, 0, 100, 1),
                                 *control(9, "white-balance", 4600, 2800, 6500, 10, 3),
                                 *control(10, "exposure", 157, 1, 5000, 1, 3), *control(11, "focus", 0, 0, 250, 5, 3),
                                 *control(12, "zoom", 100, 100, 500, 1), *control(13, "pan", 0, -36000, 36000, 3600),
                                 *control(14, "tilt", 0, -36000, 36000, 3600)]),
            ("Unknown type 99", ["    [Expert Info (Warning/Undecoded): Unknown type: the receiver drops the message]",
                                 "        [Unknown type: the receiver drops the message]",
                                 "        [Severity level: Warning]", "        [Group: Undecoded]",
                                 "Body: 07000000"]),
            ("Close camera", ["Camera: 0"]),
            ("Camera state", ["State: closed (4)", "Camera: 0"]),
        ])

    def test_shows_the_types_that_the_session_lacks(self):
        self.assertEqual(self.made(message(9, numbers(3, 640, -480, 15)), message(131, "Tür\n\x1b[1m".encode())), [
            ("Set format", ["Camera: 3", "Width: 640", "Height: -480", "Frames per second: 15"]),
            ("Host information", ["Text: Tür\\n\\033[1m"]),
        ])

    def test_finds_the_real_number_of_sizes(self):
        cameras = numbers(2) + camera(7, b"n" * 516, 1, 257) + camera(8, b"e", 0, 0)
        (_, tree), = self.made(message(2, cameras))
        self.assertEqual(tree[:2], ["Number of cameras: 2", "Camera record: 7, 257 sizes"])
        names = tshark(self.file, "-T", "fields", "-e", "zucamera.name", "-e", "zucamera.display_name")
        self.assertEqual(names.strip(), "n" * 516 + ",e" + "\t" + "n" * 516 + ",ee")
        self.assertEqual(tree.count("    Size: 16x16"), 257)
        self.assertIn("Camera record: 8, 0 sizes", tree)

    def test_puts_messages_together_from_segments_of_one_byte(self):
        data = message(5, numbers(2, 1)) + message(11, numbers(5))
        self.assertEqual(self.made(*(data[i:i + 1] for i in range(len(data)))),
                         [("Camera state", ["State: open (2)", "Camera: 1"]), ("Version reply", ["Version: 5"])])

    def test_says_what_is_wrong_with_a_message(self):
        error = "Error/Malformed: "
        faults = (
                (message(3, numbers(1, 2, 3)), "Open camera", error + "the body has 12 bytes, not 16"),
                (message(8, numbers(1, 2, 3, 4) + b"x"), "Set property", error + "the body has 17 bytes, not 16"),
                (message(5, b"abc"), "Camera state", error + "the body has 3 bytes, not 8"),
                (message(4, b"abc"), "Close camera", "Note/Protocol: missing bytes of the number count as 0"),
                (message(4, b"abcde"), "Close camera",
                 "Note/Protocol: the receiver ignores the bytes after the number"),
                (message(10, b"x"), "Version request", "Note/Protocol: the receiver ignores the body"),
                (message(2, b"abc"), "Camera list", error + "the number of cameras is missing"),
                (message(2, numbers(-1)), "Camera list", error + "4294967295 cameras, more than 64"),
                (message(2, numbers(1) + camera(0, b"a", 2, 1)), "Camera list",
                 error + "records and sizes do not fill the body"),
                (message(7, b"abcdefg"), "Encoded video frame", error + "the body has 7 bytes, fewer than 8"),
                (message(7, numbers(0, -1) + b"x"), "Encoded video frame",
                 error + "a picture of 4294967295 bytes in a body of 9"),
                (message(130, numbers(0)), "Camera controls",
                 error + "the body has 4 bytes, not 8 and 28 for each control"),
                (message(130, numbers(0, 0, 1)), "Camera controls",
                 error + "the body has 12 bytes, not 8 and 28 for each control"),
                (message(128, b"x" * 257), "Host notice", error + "a text of 257 bytes, more than 256"),
                (b"\xff" * 9, "malformed",
                 error + "a length of 4294967295 bytes: malformed, or the capture begins inside a message"),
        )
        self.make(*([data] for data, _, _ in faults))
        shown = messages(self.file)
        self.assertEqual(len(shown), len(faults))
        for (title, tree), (_, expected_title, expected) in zip(shown, faults):
            texts = re.findall(r"\[Expert Info \((.*)\): (.*)\]", "\n".join(tree))
            self.assertEqual((title, [": ".join(text) for text in texts]), (expected_title, [expected]))

    def test_does_not_list_endless_units(self):
        (_, tree), = self.made(message(7, numbers(0, 6000) + b"\0\0\1" * 2000))
        self.assertEqual(len([line for line in tree if line.startswith("    NAL unit")]), 1000)
        self.assertIn("further units are not shown", "\n".join(tree))

    def test_survives_cut_and_changed_bytes(self):
        data = subprocess.run(["tshark", "-r", f"{here}/session.pcapng", "-T", "fields", "-e", "tcp.srcport", "-e",
                               "tcp.payload"], capture_output=True, text=True, check=True).stdout.split("\n")
        sent = {port: b"".join(bytes.fromhex(line[6:]) for line in data if line.startswith(port))
                for port in ("61479", "61480")}
        self.assertEqual([len(part) for part in sent.values()], [124, 5259])
        capture = CutCapture(self.file)
        streams = 0

        def add(sender, content, keep_of_last=None):
            nonlocal streams
            streams += 1
            capture.begin(streams)
            segments = [content[i:i + 1400] for i in range(0, len(content), 1400)]
            for segment in segments[:-1]:
                capture.add(sender, data=segment)
            capture.keep = keep_of_last
            capture.add(sender, data=segments[-1])
            capture.keep = None
            capture.add(sender, recorder.FIN | recorder.ACK)

        cut = 0
        for sender, content in zip(("peer", "host"), sent.values()):
            for size in range(50, len(content), 50):
                add(sender, content[:size])  # the connection ends there
                add(sender, content, max(1, size % 1400) if size // 1400 == (len(content) - 1) // 1400 else 50)
                cut += 1
        changing = random.Random(1)
        changed = 300
        for number in range(changed):
            content = bytearray(sent["61480" if number % 2 else "61479"])
            for _ in range(changing.randint(1, 4)):
                # Most of them where the lengths and numbers of the first messages are.
                at = changing.randrange(min(changing.choice((60, 6000)), len(content)))
                content[at] = changing.choice((changing.randrange(256), content[at] ^ 1 << changing.randrange(8)))
            add("host" if number % 2 else "peer", bytes(content))
        os.close(capture.file)
        self.assertGreater(cut, 100)

        tshark(self.file, "-O", "zucamera")  # looks for Lua errors, which -T fields does not show
        columns = ("tcp.stream", "zucamera.malformed", "frame.len", "frame.cap_len")
        rows = [line.split("\t") for line in tshark(
            self.file, "-Y", "zucamera", "-T", "fields",
            *(word for column in columns for word in ("-e", column))).splitlines()]
        self.assertGreater(len({row[0] for row in rows}), streams * 9 // 10)
        malformed = {row[0] for row in rows if row[1]}
        shortened = {row[0] for row in rows if row[2] != row[3]}
        self.assertEqual(len(shortened), cut)
        self.assertEqual(shortened - malformed, set())
        self.assertGreater(len(malformed), cut + changed // 10)


class Recorder(unittest.TestCase):
    def setUp(self):
        work = tempfile.TemporaryDirectory()
        self.addCleanup(work.cleanup)
        self.file = os.path.join(work.name, "recorded.pcapng")

    def run_recorder(self, *arguments, requests=b""):
        return subprocess.run([loader.path, *arguments], input=requests, capture_output=True, check=False)

    def test_passes_bytes_on_and_ends_with_the_status_of_the_command(self):
        done = self.run_recorder(self.file, "sh", "-c", "cat; exit 7", requests=message(5, numbers(4, 2)))
        self.assertEqual((done.returncode, done.stdout), (7, message(5, numbers(4, 2))))
        self.assertEqual(messages(self.file), [("Camera state", ["State: closed (4)", "Camera: 2"])] * 2)
        self.assertEqual(os.stat(self.file).st_mode & 0o777, 0o600)

    def test_replaces_no_file(self):
        with open(self.file, "wb") as file:
            file.write(b"precious")
        done = self.run_recorder(self.file, "true")
        self.assertEqual(done.returncode, 1)
        self.assertIn(b"recorded.pcapng", done.stderr)
        with open(self.file, "rb") as file:
            self.assertEqual(file.read(), b"precious")

    def test_says_what_is_wrong(self):
        for arguments, status, text in (((), 2, b"capture-channel FILE COMMAND"), ((self.file,), 2, b"FILE COMMAND"),
                                        ((self.file, "--socket"), 2, b"FILE --socket PATH"),
                                        ((self.file, "--socket", "/nowhere"), 1, b"No such file")):
            done = self.run_recorder(*arguments)
            self.assertEqual(done.returncode, status, arguments)
            self.assertIn(text, done.stderr)
            self.assertFalse(os.path.exists(self.file), arguments)
        self.assertEqual(self.run_recorder("--help").returncode, 0)


if __name__ == "__main__":
    if not shutil.which("tshark"):
        print("skipped: tshark is not installed")
        sys.exit(77)
    unittest.main(verbosity=2)

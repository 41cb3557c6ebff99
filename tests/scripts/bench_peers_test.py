#!/usr/bin/env python3
"""scripts/bench peers: a quick comparison writes its figures and its document, and a contender that fails ends it.

bench_peers_test.py SOURCE_DIRECTORY BUILD_DIRECTORY

Asserts no figure: the machine may be busy. Exits with 77 if gnuplot is not installed.
"""
import json
import os
import shutil
import subprocess
import sys
import tempfile
import unittest

build = sys.argv.pop(2)
source = sys.argv.pop(1)


class Peers(unittest.TestCase):
    def setUp(self):
        work = tempfile.TemporaryDirectory()
        self.addCleanup(work.cleanup)
        self.work = work.name

    def compare(self, path):
        return subprocess.run([f"{source}/bench/peers/compare.py", "--quick", "--runs", "1", "--results",
                               f"{self.work}/results"], env={**os.environ, "PATH": path, "ZU_BENCH_BUILD": build},
                              capture_output=True, text=True, check=False)

    def test_writes_figures_document_and_plots(self):
        done = self.compare(os.environ["PATH"])
        self.assertEqual(done.returncode, 0, done.stderr)
        with open(f"{self.work}/results/peers.json", encoding="utf-8") as file:
            report = json.load(file)
        with open(f"{self.work}/results/performance.md", encoding="utf-8") as file:
            document = file.read()
        result, = report["results"]
        self.assertEqual(result["mode"]["name"], "640x480 NV12, pattern")
        expected = {"limit", "host, socket", "host and peer, pipe", "ffmpeg", "GStreamer"} - set(report["missing"])
        self.assertEqual(set(result["summary"]), expected)
        for name, row in result["summary"].items():
            self.assertGreater(row["processor_us"], 0, name)
            self.assertGreater(row["latency_us"]["median"], 0, name)
            self.assertGreater(row["decoded_us"]["median"], row["latency_us"]["median"], name)
            self.assertGreater(row["kbit_s"], 0, name)
            self.assertIn(f"\n| {name} | ", document)
            self.assertIn(f"\n# {name}\n", document)
        self.assertEqual(result["summary"]["limit"]["ratio"], 1)
        self.assertEqual("The machine was loaded" in document, report["loaded"])
        for plot in ("processor", "latency"):
            with open(f"{self.work}/results/pictures/performance-{plot}.svg", encoding="utf-8") as file:
                picture = file.read()
            self.assertLess(len(picture), 60000)
            self.assertIn("host, socket", picture)

    def test_a_contender_that_fails_ends_the_comparison(self):
        programs = f"{self.work}/bin"
        os.mkdir(programs)
        for name in ("python3", "gnuplot"):
            os.symlink(shutil.which(name), f"{programs}/{name}")
        with open(f"{programs}/ffmpeg", "w", encoding="utf-8") as file:
            file.write("#!/bin/sh\necho broken pipework >&2\nexit 1\n")
        os.chmod(f"{programs}/ffmpeg", 0o755)
        done = self.compare(programs)
        self.assertEqual(done.returncode, 1)
        self.assertIn("not installed: GStreamer", done.stderr)
        self.assertIn("ffmpeg, 640x480 NV12, pattern: the reader failed", done.stderr)
        self.assertIn("broken pipework", done.stderr)
        self.assertFalse(os.path.exists(f"{self.work}/results/performance.md"))


if __name__ == "__main__":
    if not shutil.which("gnuplot"):
        print("skipped: gnuplot is not installed")
        sys.exit(77)
    unittest.main(verbosity=2)

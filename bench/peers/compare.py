#!/usr/bin/env python3
"""Compares this system with what people would use instead, on one virtual camera, in alternation.

scripts/bench peers [--quick] [--runs N] [--only TEXT] [--results DIR]

  --quick       one mode, 3 short runs; writes to build/bench-peers and leaves the documents alone
  --runs N      runs per contender and mode (7)
  --only TEXT   only modes whose name contains TEXT, such as "1280x720" or "YUYV"; writes like --quick
  --results DIR writes everything to this directory

Writes bench/results/peers.json, docs/performance.md and the pictures in it. Needs the release build and gnuplot.
A contender that is not installed is left out, and the document says so. Standard library only.
"""
import argparse
import json
import os
import platform
import re
import shlex
import shutil
import signal
import socket
import statistics
import struct
import subprocess
import sys
import tempfile
import threading
import time

ROOT = os.path.realpath(os.path.join(os.path.dirname(__file__), "../.."))
BUILD = os.environ.get("ZU_BENCH_BUILD", f"{ROOT}/build/release")
RATE, KEY_INTERVAL, BUFFER_MS = 30, 60, 100
SIZES = [(640, 480), (1280, 720), (1920, 1080)]
LIMIT = "limit"
DEADLINE = 120  # seconds for a run


def bit_rate(mode):
    return mode["width"] * mode["height"] * RATE * 15 // 100


def codec_options(mode):
    values = {"preset": "ultrafast", "bitrate": bit_rate(mode), "keyint": KEY_INTERVAL, "buffer": BUFFER_MS,
              "threads": 1}
    return [word for key, value in values.items() for word in ("--env", f"zu.codec.{key}={value}")]


def limit(mode, _):
    return [f"{BUILD}/bench/peers_limit", "/dev/video0", mode["format"], mode["width"], mode["height"], RATE,
            KEY_INTERVAL, bit_rate(mode)]


def host(mode, path):
    return [f"{BUILD}/bin/zu-camera-host", "--listen", path, *codec_options(mode)]


def host_and_peer(mode, _):
    command = shlex.join([f"{BUILD}/bin/zu-camera-host", "--stdio", *codec_options(mode)])
    return [f"{BUILD}/bin/zu-camera-peer", "--exec", command, "record", "0", "-", "--container", "h264", "--size",
            f"{mode['width']}x{mode['height']}", "--fps", RATE]


def ffmpeg(mode, _):
    rate = bit_rate(mode)
    return ["ffmpeg", "-nostdin", "-loglevel", "error", "-fflags", "nobuffer", "-probesize", 32, "-analyzeduration", 0,
            "-f", "v4l2", "-input_format", {"NV12": "nv12", "YUYV": "yuyv422"}[mode["format"]], "-video_size",
            f"{mode['width']}x{mode['height']}", "-framerate", RATE, "-i", "/dev/video0", "-pix_fmt",
            {"NV12": "nv12", "YUYV": "yuv420p"}[mode["format"]], "-c:v", "libx264", "-preset", "ultrafast", "-tune",
            "zerolatency", "-threads", 1, "-g", KEY_INTERVAL, "-bf", 0, "-b:v", rate, "-maxrate", rate, "-bufsize",
            rate * BUFFER_MS // 1000, "-fps_mode", "passthrough", "-flush_packets", 1, "-f", "h264", "-"]


def gstreamer(mode, _):
    source = {"NV12": "NV12", "YUYV": "YUY2"}[mode["format"]]
    convert = [] if source == "NV12" else ["videoconvert", "!", "video/x-raw,format=NV12", "!"]
    return ["gst-launch-1.0", "-q", "v4l2src", "device=/dev/video0", "io-mode=mmap", "!",
            f"video/x-raw,format={source},width={mode['width']},height={mode['height']},framerate={RATE}/1", "!",
            *convert, "x264enc", "speed-preset=ultrafast", "tune=zerolatency", "threads=1",
            f"bitrate={bit_rate(mode) // 1000}", f"vbv-buf-capacity={BUFFER_MS}", f"key-int-max={KEY_INTERVAL}",
            "bframes=0", "!", "video/x-h264,stream-format=byte-stream", "!", "fdsink", "fd=1", "sync=false"]


def ustreamer(mode, path):
    return ["ustreamer", "--device", "/dev/video0", "--format", "YUYV", "--resolution",
            f"{mode['width']}x{mode['height']}", "--desired-fps", RATE, "--encoder", "CPU", "--workers", 1,
            "--unix", path]


OPEN_CAMERA = 3
# Name: the command, what its output is, the program that must be installed, the formats that it takes, and what the
# reader sends first on the contender's socket, if it has one.
CONTENDERS = {
    LIMIT: (limit, "annexb", None, ("NV12", "YUYV"), None),
    "host, socket": (host, "channel", None, ("NV12", "YUYV"), lambda mode: struct.pack(
        "<IB3xIiii", 16, OPEN_CAMERA, 0, mode["width"], mode["height"], RATE)),
    "host and peer, pipe": (host_and_peer, "annexb", None, ("NV12", "YUYV"), None),
    "ffmpeg": (ffmpeg, "annexb", "ffmpeg", ("NV12", "YUYV"), None),
    "GStreamer": (gstreamer, "annexb", "gst-launch-1.0", ("NV12", "YUYV"), None),
    "ustreamer (MJPEG)": (ustreamer, "mjpeg", "ustreamer", ("YUYV",), lambda mode: b"GET /stream HTTP/1.0\r\n\r\n"),
}


def is_installed(name):
    program = CONTENDERS[name][2]
    if name == "GStreamer" and shutil.which(program):
        return subprocess.run(["gst-inspect-1.0", "--exists", "x264enc"], check=False).returncode == 0
    return program is None or shutil.which(program) is not None


def command_of(name, mode, path):
    return [str(word) for word in CONTENDERS[name][0](mode, path)]


# ---- Inside zu-vcam: the runs of one mode ----

def tree(root):
    """The process and those that it started, directly or not."""
    parents = {}
    for entry in os.listdir("/proc"):
        if entry.isdigit():
            try:
                with open(f"/proc/{entry}/stat", encoding="utf-8", errors="replace") as stat:
                    parents[int(entry)] = int(stat.read().rpartition(")")[2].split()[1])
            except OSError:
                pass  # it has just ended
    found = [root]
    for process in found:
        found += [child for child, parent in parents.items() if parent == process]
    return found


def processor_seconds(root):
    """By process: the time of all its threads, the ended ones included, to the nanosecond."""
    seconds = {}
    for process in tree(root):
        try:
            seconds[process] = time.clock_gettime(~process << 3 | 2)  # the kernel's number of that process's clock
        except OSError:
            pass  # it has just ended
    return seconds


def connect(path, process):
    end = time.monotonic() + 30
    while True:
        connection = socket.socket(socket.AF_UNIX)
        try:
            connection.connect(path)
            return connection
        except OSError:
            connection.close()
            if process.poll() is not None or time.monotonic() > end:
                raise
            time.sleep(0.02)


def stop(process):
    for number, patience in ((signal.SIGTERM, 10), (signal.SIGKILL, 10)):
        try:
            os.killpg(process.pid, number)
        except ProcessLookupError:
            pass
        try:
            process.wait(patience)
            return
        except subprocess.TimeoutExpired:
            pass


def run_once(name, mode, skip, pictures, stall=()):
    with tempfile.TemporaryDirectory() as work, open(f"{work}/log", "w+", encoding="utf-8") as log:
        os.chmod(work, 0o700)
        path = f"{work}/socket"
        _, output, _, _, first = CONTENDERS[name]
        contender = subprocess.Popen(command_of(name, mode, path), stdin=subprocess.DEVNULL,
                                     stdout=subprocess.DEVNULL if first else subprocess.PIPE, stderr=log,
                                     start_new_session=True)
        reader = None
        timer = threading.Timer(DEADLINE, lambda: reader and reader.kill())
        try:
            source = contender.stdout
            if first:
                source = connect(path, contender)
                source.sendall(first(mode))
            reader = subprocess.Popen([f"{BUILD}/bench/peers_reader", output, str(skip), str(pictures),
                                       *map(str, stall)], stdin=source, stdout=subprocess.PIPE, stderr=log, text=True)
            timer.start()
            source.close()
            marks = {}
            rows = []
            for line in reader.stdout:
                if line.strip() in ("begin", "end"):
                    marks[line.strip()] = processor_seconds(contender.pid)
                    if line.strip() == "end":
                        stop(contender)
                else:
                    rows.append(line.split())
            if reader.wait() != 0 or len(rows) != pictures:
                raise OSError("the reader failed")
        except OSError as error:
            log.seek(0)
            raise SystemExit(f"{name}, {mode['name']}: {error}\n{log.read()}") from error
        finally:
            timer.cancel()
            stop(contender)
            if reader:
                reader.kill()
                reader.wait()
    readable = [[int(word) for word in row] for row in rows if row[0] != "-"]
    if len(readable) < pictures // 2:
        raise SystemExit(f"{name}, {mode['name']}: only {len(readable)} of {pictures} pictures have a stamp")
    spent = sum(marks["end"].values()) - sum(marks["begin"].get(process, 0) for process in marks["end"])
    counters = [row[0] for row in readable]
    return {
        "processor_us": spent * 1e6 / pictures,
        "latency_us": [row[2] - row[1] for row in readable],
        "decode_us": [row[3] for row in readable],
        "kbit_s": sum(row[4] for row in readable) * 8 * RATE / len(readable) / 1000,
        "lost": counters[-1] - counters[0] + 1 - len(set(counters)),
    }


def run_mode(job):
    """All runs of a mode. Every contender runs once before any runs again; the order rotates."""
    mode, names = job["mode"], job["contenders"]
    feeder = None
    if mode["clip"] == "natural":
        feeder = subprocess.Popen([f"{BUILD}/bench/peers_feeder", job["fifo"], str(mode["width"]), str(mode["height"]),
                                   str(RATE)], stdout=subprocess.PIPE)
        feeder.stdout.readline()
    runs = {name: [] for name in names}
    creeps = {}
    try:
        for number in range(job["runs"]):
            for place in range(len(names)):
                name = names[(number + place) % len(names)]
                runs[name].append(run_once(name, mode, job["skip"], job["pictures"]))
                print(f"{mode['name']}, run {number + 1}, {name}: {runs[name][-1]['processor_us']:.0f} us per picture, "
                      f"{statistics.median(runs[name][-1]['latency_us']):.0f} us old", file=sys.stderr)
        for name in names if job["stalls"] else []:
            # The reader stops for 0.3 s after every 60 pictures; pictures right after that are not compared.
            seen = run_once(name, mode, 60, 60 * job["stalls"], (300, 60))["latency_us"]
            settled = [value for place, value in enumerate(seen) if place % 60 >= 30]
            part = max(1, len(settled) // 4)
            creeps[name] = {"early_us": statistics.median(settled[:part]),
                            "late_us": statistics.median(settled[-part:])}
            print(f"{mode['name']}, stops of the reader, {name}: {creeps[name]['early_us']:.0f} us old, later "
                  f"{creeps[name]['late_us']:.0f}", file=sys.stderr)
    finally:
        if feeder:
            feeder.kill()
            feeder.wait()
    return {"mode": mode, "runs": runs, "creep": creeps}


# ---- Outside: modes, statistics, documents ----

def percentile(values, share):
    ordered = sorted(values)
    return ordered[min(len(ordered) - 1, int(share * len(ordered)))]


def summary_of(result):
    """A row for each contender, from all its runs."""
    rows = {}
    for name, runs in result["runs"].items():
        latencies = [value for run in runs for value in run["latency_us"]]
        decoded = [a + b for run in runs for a, b in zip(run["latency_us"], run["decode_us"])]
        medians = [statistics.median(run["latency_us"]) for run in runs]
        spent = [run["processor_us"] for run in runs]
        ratios = [run["processor_us"] / least["processor_us"] for run, least in zip(runs, result["runs"][LIMIT])]
        rows[name] = {
            "processor_us": statistics.median(spent), "processor_us_spread": [min(spent), max(spent)],
            "ratio": statistics.median(ratios), "ratio_spread": [min(ratios), max(ratios)],
            "latency_us": {"median": statistics.median(latencies), "p95": percentile(latencies, 0.95),
                           "p99": percentile(latencies, 0.99), "max": max(latencies)},
            "latency_us_medians_spread": [min(medians), max(medians)],
            "decoded_us": {"median": statistics.median(decoded), "p95": percentile(decoded, 0.95)},
            "kbit_s": statistics.median(run["kbit_s"] for run in runs), "lost": sum(run["lost"] for run in runs),
        }
    return rows


def plot(directory, file, title, results, value):
    """Bars, in milliseconds: a group for each mode, a bar for each contender."""
    names = [name for name in CONTENDERS if any(name in each["summary"] for each in results)]
    data = [" ".join(["mode", *(f'"{name}"' for name in names)])]
    for each in results:
        cells = [f"{value(each['summary'][name]) / 1000:.3f}" if name in each["summary"] else "NaN" for name in names]
        data.append(" ".join([f'"{each["mode"]["name"]}"', *cells]))
    series = ", ".join(f"$data using {column}:xtic(1) title columnheader({column})"
                       for column in range(2, len(names) + 2))
    script = "\n".join([
        "$data << END", *data, "END", "set terminal svg size 1000,420 font 'sans,11' background 'white'",
        f"set output '{os.path.join(directory, file)}'", f"set title '{title}'", "set style data histogram",
        "set style histogram clustered gap 1", "set style fill solid 0.8", "set key outside right top",
        "set xtics rotate by -25", "set yrange [0:]", "set ylabel 'ms'", "set grid ytics", f"plot {series}", ""])
    subprocess.run(["gnuplot", "-"], input=script, text=True, check=True)


def milliseconds(value):
    return f"{value / 1000:.2f}"


def shown_command(name, mode):
    """The command as a reader would type it."""
    shown = shlex.join(command_of(name, mode, "SOCKET"))
    shown = shown.replace(f"{BUILD}/bin/", "").replace(f"{BUILD}/", "build/release/")
    lines = [""]
    for word in re.findall(r"'[^']*'|\S+", shown):
        if len(lines[-1]) + len(word) > 108:
            lines[-1] += " \\"
            lines.append("   ")
        lines[-1] += (" " if lines[-1] else "") + word
    return "\n".join(lines)


def document(report, pictures):
    results = report["results"]
    out = ["# Performance", "", "For those who choose how to lend a camera, and for maintainers. `scripts/bench peers` "
           "measures everything on this page", "and writes the page; edit `bench/peers/compare.py`, not this file.", "",
           f"Taken {report['date']} on {report['machine']}, load {report['load']:.2f} at the start; "
           f"{report['pictures']} pictures in each run, {report['runs']} runs."]
    if report["loaded"]:
        out += ["", "**The machine was loaded. Nothing follows from these figures but that the comparison runs.**"]
    out += ["", "## What is compared", "",
            f"Every contender takes the pictures of the same virtual camera ({RATE} per second) and encodes them by",
            "libx264: preset ultrafast, tuned for zero latency, one thread, a key frame every",
            f"{KEY_INTERVAL} pictures, 0.15 bits per pixel, a rate buffer of {BUFFER_MS} ms. `ustreamer` sends MJPEG,",
            "and is shown for those who would use it. The limit is a loop in one process that does nothing else",
            "(`bench/peers/limit.cpp`). Contenders run in turn, in rotating order. With YUYV every contender converts",
            "to 4:2:0. The clips are the pattern of the virtual cameras, which is easy to encode, and a noisy natural",
            "scene.", "",
            "- **Processor** is the processor time of every process of the contender per picture, of user and kernel,",
            "  between two pictures of the running stream. Camera and reader are not part of it.",
            "- **Ratio** is that time divided by the limit's in the same round of runs.",
            "- **Last byte** is the time from the painting of a picture to the read that returned its last byte.",
            "- **Decoded** adds the time to decode that picture with libavcodec, one thread, measured after the run.",
            "- **kbit/s** and **Lost**, the pictures of the camera that did not arrive, show whether the contenders did",
            "  the same work. The reference codec lowers its bit rate while pictures are lost.",
            "- In brackets: the smallest and the largest run. Times are milliseconds."]
    if report["missing"]:
        out += ["", "Not installed, and so not compared: " + ", ".join(report["missing"]) + "."]
    out += ["", *(line for name, text in pictures for line in (f"![{text}](pictures/{name})", ""))][:-1]
    for each in results:
        out += ["", f"## {each['mode']['name']}", "",
                "| Contender | Processor | Ratio | Last byte | p95 | p99 | max | Decoded | p95 | kbit/s | Lost |",
                "|---|---|---|---|---|---|---|---|---|---|---|"]
        for name, row in each["summary"].items():
            spread, ratios, medians = row["processor_us_spread"], row["ratio_spread"], row["latency_us_medians_spread"]
            late = row["latency_us"]
            cells = [name,
                     f"{milliseconds(row['processor_us'])} ({milliseconds(spread[0])} to {milliseconds(spread[1])})",
                     f"{row['ratio']:.2f} ({ratios[0]:.2f} to {ratios[1]:.2f})",
                     f"{milliseconds(late['median'])} ({milliseconds(medians[0])} to {milliseconds(medians[1])})",
                     *(milliseconds(late[key]) for key in ("p95", "p99", "max")),
                     *(milliseconds(row["decoded_us"][key]) for key in ("median", "p95")), f"{row['kbit_s']:.0f}",
                     str(row["lost"])]
            out.append("| " + " | ".join(cells) + " |")
        if each["creep"]:
            out += ["", "With a reader that stops for 0.3 s after every 60 pictures: the median of \"last byte\" in",
                    "the first and in the last quarter of the run, without the second after each stop. A difference",
                    "would be a delay that stays.", "",
                    "| Contender | First quarter | Last quarter | Difference |", "|---|---|---|---|"]
            out += [f"| {name} | {milliseconds(row['early_us'])} | {milliseconds(row['late_us'])} | "
                    f"{milliseconds(row['late_us'] - row['early_us'])} |" for name, row in each["creep"].items()]
    out += ["", "## Command lines", "",
            f"Those of {results[0]['mode']['name']}; in the other modes only size, format and bit rate differ.", "",
            "```sh"]
    shown = {name: each["mode"] for each in reversed(results) for name in each["summary"]}
    out += [line for name in CONTENDERS if name in shown for line in (f"# {name}", shown_command(name, shown[name]))]
    return "\n".join(out + ["```", ""])


def modes_of(options):
    every = [{"name": f"{width}x{height} {pixels}, {clip}", "width": width, "height": height, "format": pixels,
              "clip": clip}
             for width, height in SIZES for pixels in ("NV12", "YUYV") for clip in ("pattern", "natural")]
    chosen = [mode for mode in every if options.only in mode["name"]]
    return chosen[:1] if options.quick else chosen


def measure(mode, options, missing):
    with tempfile.TemporaryDirectory() as work:
        fifo = f"{work}/fifo"
        camera = f"card=Bench,formats={mode['format']},sizes={mode['width']}x{mode['height']},fps={RATE}"
        if mode["clip"] == "natural":
            os.mkfifo(fifo)
            camera += f",source=raw:NV12:{mode['width']}x{mode['height']}:{fifo}"
        names = [name for name, (_, _, _, formats, _) in CONTENDERS.items()
                 if mode["format"] in formats and name not in missing]
        stalls = 0 if options.quick else 12 if mode["width"] == 1280 and mode["clip"] == "natural" else 0
        job = {"mode": mode, "contenders": names, "runs": options.runs, "skip": options.skip, "fifo": fifo,
               "pictures": options.pictures, "stalls": stalls}
        done = subprocess.run([f"{BUILD}/bin/zu-vcam", "--camera", camera, "--", sys.executable, __file__, "--inside",
                               json.dumps(job)], stdout=subprocess.PIPE, text=True, check=False)
    if done.returncode != 0:
        raise SystemExit(f"scripts/bench: the comparison failed for {mode['name']}")
    result = json.loads(done.stdout)
    return {"mode": mode, "summary": summary_of(result), "creep": result["creep"]}


def main():
    if sys.argv[1:2] == ["--inside"]:
        json.dump(run_mode(json.loads(sys.argv[2])), sys.stdout)
        return
    parser = argparse.ArgumentParser(prog="scripts/bench peers", description=__doc__,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--quick", action="store_true", help=argparse.SUPPRESS)
    parser.add_argument("--runs", type=int, help=argparse.SUPPRESS)
    parser.add_argument("--only", default="", help=argparse.SUPPRESS)
    parser.add_argument("--results", help=argparse.SUPPRESS)
    options = parser.parse_args()
    options.runs = options.runs or (3 if options.quick else 7)
    options.skip, options.pictures = (5, 15) if options.quick else (30, 120)
    modes = modes_of(options)
    if options.runs < 1 or not modes:
        parser.error("there is nothing to measure")
    if not shutil.which("gnuplot"):
        raise SystemExit("scripts/bench: gnuplot is not installed")
    load, processors = os.getloadavg()[0], os.cpu_count()
    missing = [name for name in CONTENDERS if not is_installed(name)]
    for name in missing:
        print(f"not installed: {name}", file=sys.stderr)
    report = {
        "date": time.strftime("%Y-%m-%d", time.gmtime()), "machine": f"{processors} processors, {platform.platform()}",
        "load": load, "loaded": load > 0.25 * processors, "runs": options.runs, "pictures": options.pictures,
        "missing": missing, "results": [measure(mode, options, missing) for mode in modes],
    }
    apart = options.results or (f"{ROOT}/build/bench-peers" if options.quick or options.only else None)
    results, documents = (apart, apart) if apart else (f"{ROOT}/bench/results", f"{ROOT}/docs")
    pictures = [("performance-processor.svg", "Processor time per picture", lambda row: row["processor_us"]),
                ("performance-latency.svg", "From painting to the last byte, median",
                 lambda row: row["latency_us"]["median"])]
    os.makedirs(f"{documents}/pictures", exist_ok=True)
    os.makedirs(results, exist_ok=True)
    for file, title, value in pictures:
        plot(f"{documents}/pictures", file, title, report["results"], value)
    with open(f"{results}/peers.json", "w", encoding="utf-8") as file:
        json.dump(report, file, indent=1)
        file.write("\n")
    with open(f"{documents}/performance.md", "w", encoding="utf-8") as file:
        file.write(document(report, [(file, title) for file, title, _ in pictures]))
    print(f"{results}/peers.json\n{documents}/performance.md")


if __name__ == "__main__":
    main()

"""Makes a table, a JSON file and a plot of the measurements: report.py FOLDER [--check]

FOLDER contains benchmarks-*.json, which Google Benchmark has written, one for each process; peaks.txt,
with lines "CONTENDER KILOBYTES"; and scale.txt, for the guide service with a large guide. The results
go to results.json and queries.svg in FOLDER.
"""

import json
import math
import pathlib
import statistics
import sys

SIZES = (1, 100, 1000, 10000)
CONTENDERS = {  # in the plot: label, colour, dashes, width
    "floor": ("floor: parses, writes, parses again", "#111111", "none", 5),
    "library": ("library, blocking: the same", "#3b8eea", "none", 2.5),
    "sd-bus and one parse": ("sd-bus and one JsonCpp parse", "#9c36b5", "2 3", 2.5),
    "later": ("library, not blocking: reads the bytes once", "#e03131", "none", 2.5),
    "GDBus": ("GDBus, nothing parsed", "#d9730d", "6 3", 2),
    "sd-bus": ("sd-bus, nothing parsed", "#2f9e44", "6 3", 2),
}


class Ratio:
    """A median with its spread, which is half the interquartile range."""

    def __init__(self, value, spread):
        self.value = value
        self.spread = spread

    def inverse(self):
        return Ratio(1 / self.value, self.spread / self.value**2)


class Measured:
    def __init__(self, folder):
        self.runs = {}  # for each benchmark, one from every process
        for file in sorted(folder.glob("benchmarks-*.json")):
            for run in json.loads(file.read_text())["benchmarks"]:
                self.runs.setdefault(run["name"].split("/iterations:")[0], []).append(run)
        self.scale = {}
        for line in (folder / "scale.txt").read_text().splitlines():
            name, value = line.rsplit(maxsplit=1)
            self.scale[name] = float(value)
        self.peaks = {"library": [], "floor": [], "later": [], "sd-bus": []}
        for line in (folder / "peaks.txt").read_text().splitlines():
            contender, kilobytes = line.split()
            self.peaks[contender].append(int(kilobytes))

    def median(self, run, name):
        return statistics.median(process[name] for process in self.runs[run])

    def ratio(self, run, name):
        """The spread is that of the rounds or that of the processes, whichever is larger."""
        values = [process[name] for process in self.runs[run]]
        spread = max(self.median(run, name + " spread"), (max(values) - min(values)) / 2)
        return Ratio(statistics.median(values), spread)

    def peak(self, contender, other):
        pairs = zip(self.peaks[contender], self.peaks[other])
        low, median, high = statistics.quantiles([a / b for a, b in pairs], n=4)
        return Ratio(median, (high - low) / 2)


def rows(measured):
    """What was measured, its ratio, and its goal if it has one."""
    of = measured.ratio
    queries = [("list of %d, blocking" % size, "Query/%d" % size) for size in SIZES]
    for text, run in [("present programme, blocking", "PresentProgram")] + queries:
        for measure, unit in (("cpu", "CPU time"), ("wall", "wall time")):
            yield f"{text}: {unit}, floor", of(run, f"library/floor {measure}"), "<=", 1.05
    yield "present programme, blocking: CPU time, bare GDBus", of("PresentProgram", "library/GDBus cpu"), "<", 1.0
    yield "present programme, blocking: wall time, bare GDBus", of("PresentProgram", "library/GDBus wall"), "<", 1.0
    yield "list of 10000, blocking: peak memory, floor", measured.peak("library", "floor"), "<=", 1.05
    yield "growth per programme, blocking, 10000 : 100", of("Growth/library", "long/short wall"), "<=", 1.5
    yield "the same of the floor", of("Growth/floor", "long/short wall"), None, None
    yield "events per second, bare filter", of("Flood", "library/libdbus wall").inverse(), ">=", 0.95
    yield "emit to callback: wall time, bare libdbus", of("Delay", "library/libdbus wall"), None, None
    yield "calls per second, 8 threads, blocking libdbus", of("Threads/8", "library/libdbus wall").inverse(), ">=", 1.3
    yield "burst of 100 queries: wall time, one by one", of("Burst", "library/blocking wall"), "<=", 0.4
    yield "burst of 100 queries: wall time, bare libdbus", of("Burst", "library/libdbus wall"), "<=", 1.05
    yield "burst of 100 queries: CPU time, bare libdbus", of("Burst", "library/libdbus cpu"), None, None
    for size in SIZES[1:]:
        run, text = "QueryLater/%d" % size, "list of %d, not blocking" % size
        for measure in ("wall", "cpu"):
            yield f"{text}: {measure}, sd-bus and one parse", of(run, f"later/sd-bus and one parse {measure}"), "<=", 0.5
        if size >= 1000:
            yield f"{text}: wall, the bytes alone", of(run, "later/libdbus wall"), "<=", 1.35
            yield f"{text}: wall, blocking", of(run, "later/library wall"), "<=", 0.3
    yield "list of 10000, not blocking: peak memory, sd-bus", measured.peak("later", "sd-bus"), "<=", 0.5
    yield "present programme, not blocking: CPU, GDBus", of("PresentProgramLater", "later/GDBus cpu"), "<=", 0.8
    yield "growth per programme, not blocking, 10000 : 100", of("Growth/later", "long/short wall"), "<=", 1.2
    for threads in (4, 2):
        text = f"calls per second, {threads} threads, blocking libdbus"
        yield text, of(f"Threads/{threads}", "library/libdbus wall").inverse(), None, None
    yield "one small call: wall time, bare libdbus", of("Threads/1", "library/libdbus wall"), "<=", 1.05
    yield "one small call: CPU time, bare libdbus", of("Threads/1", "library/libdbus cpu"), None, None
    yield "answers per second, bare libdbus loop", of("Answers", "library/libdbus wall").inverse(), None, None
    # Constant time, apart from the effects of caches.
    yield "push one integer behind a million : few", of("BufferPush", "million/empty cpu"), "<=", 1.5
    yield "pop one integer of a million : few", of("BufferPop", "million/empty cpu"), "<=", 1.5
    moves = Ratio(measured.median("BufferPush", "reallocations") / 1e6, 0)
    yield "reallocations per integer, up to a million", moves, "<=", 0.0001
    for size in SIZES[1:]:
        for measure in ("wall", "cpu"):
            goal = ("<=", 1.3) if measure == "wall" and size >= 1000 else (None, None)
            yield f"guide service, list of {size}: {measure}, prepared bytes", of(f"GuideList/{size}", f"guide/prepared {measure}"), *goal
    scale = measured.scale
    yield "guide service, 100,800 programmes: seconds until ready", Ratio(scale["ready"], 0), "<=", 0.7
    yield "the same: MiB", Ratio(scale["memory"], 0), "<=", 120
    yield "a new guide: peak memory, the old one's", Ratio(scale["new guide's peak"] / scale["memory"], 0), "<=", 1.3
    yield "a new guide: seconds of the longest query", Ratio(scale["delay"], 0), "<=", 0.02
    for text, run in queries:
        for other in ("GDBus", "sd-bus", "sd-bus and one parse"):
            yield f"{text}: wall time, {other}", of(run, f"library/{other} wall"), None, None


def verdict(ratio, relation, goal):
    if relation is None:
        return ""
    excess = ratio.value - goal if relation != ">=" else goal - ratio.value
    if excess < 0 or (excess == 0 and relation != "<"):
        return "reached"
    return "within the spread" if excess <= ratio.spread else "MISSED"


def plot(measured):
    """Time against number of programmes, both logarithmic."""
    width, height, left, top = 720, 460, 80, 20
    points = {
        name: [measured.median(f"Query/{size}", f"{name} wall") * 1e3 for size in SIZES]
        for name in CONTENDERS
    }
    low = math.floor(math.log10(min(map(min, points.values()))))
    high = math.ceil(math.log10(max(map(max, points.values()))))

    def x(size):
        return left + math.log10(size) / 4 * (width - left - 30)

    def y(milliseconds):
        return top + (high - math.log10(milliseconds)) / (high - low) * (height - top - 60)

    svg = [
        f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {width} {height}" '
        'font-family="sans-serif" font-size="13">',
        f'<rect width="{width}" height="{height}" fill="white"/>',
    ]
    for exponent in range(low, high + 1):
        at = y(10**exponent)
        svg.append(f'<path d="M{left} {at:.1f}H{width - 30}" stroke="#ddd"/>')
        svg.append(f'<text x="{left - 8}" y="{at + 4:.1f}" text-anchor="end">{10**exponent:g} ms</text>')
    for size in SIZES:
        svg.append(f'<path d="M{x(size):.1f} {top}V{height - 60}" stroke="#ddd"/>')
        svg.append(f'<text x="{x(size):.1f}" y="{height - 40}" text-anchor="middle">{size:,}</text>')
    svg.append(f'<text x="{width / 2}" y="{height - 14}" text-anchor="middle">programmes in one query</text>')
    for i, (name, (label, colour, dashes, stroke)) in enumerate(CONTENDERS.items()):
        style = f'fill="none" stroke="{colour}" stroke-width="{stroke}" stroke-dasharray="{dashes}"'
        line = " ".join(f"{x(s):.1f},{y(t):.1f}" for s, t in zip(SIZES, points[name]))
        svg.append(f'<polyline points="{line}" {style}/>')
        at = top + 20 + 20 * i
        svg.append(f'<path d="M{left + 15} {at}h36" {style}/>')
        svg.append(f'<text x="{left + 60}" y="{at + 4}">{label}</text>')
    return "\n".join(svg + ["</svg>", ""])


def main():
    folder = pathlib.Path(sys.argv[1])
    measured = Measured(folder)
    results = []
    missed = False
    print(f"{'library against':<56} {'ratio':>9} {'spread':>8}   goal")
    for text, ratio, relation, goal in rows(measured):
        outcome = verdict(ratio, relation, goal)
        missed = missed or outcome == "MISSED"
        wanted = f"{relation} {goal:g}" if relation else ""
        print(f"{text:<56} {ratio.value:>9.3g} {ratio.spread:>8.2g}   {wanted:<9} {outcome}".rstrip())
        results.append({"what": text, "ratio": ratio.value, "spread": ratio.spread,
                        "goal": wanted or None, "outcome": outcome or None})
    for name in ("RecordToJson", "RecordFromJson"):
        print(f"{name:<56} {measured.median(name, 'cpu_time'):>9.0f} ns")
    (folder / "results.json").write_text(
        json.dumps({"ratios": results, "peaks": measured.peaks, "runs": measured.runs}, indent=2))
    (folder / "queries.svg").write_text(plot(measured))
    return 1 if missed and "--check" in sys.argv[2:] else 0


sys.exit(main())

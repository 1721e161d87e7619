"""Puts the figures of a run into docs/performance.md, and draws its plots.

    report.py RESULTS DOCUMENT PLOTS
RESULTS: the lines that the programs wrote to $SDCONFIG_BENCH_RESULTS. DOCUMENT: the page whose tables are replaced.
PLOTS: the folder for the SVG files, drawn by gnuplot.
"""
import json
import os
import re
import subprocess
import sys

# file, title, axes, and the series: each draws its figure, and its floor where it has one.
PLOTS = [
    ("value-size", "One call by size of the value", "bytes", "us, p50",
     ["size", "GetProperty by size of the value", "SetProperty by size of the value",
      "GetSecure by size of the value"]),
    ("values", "One call by number of keys", "keys", "us, p50",
     ["GetSecure by number of values", "GetSecure under a weak policy by number of values",
      "GetProperty by number of properties"]),
    ("clients", "Calls a second by number of callers", "callers", "calls/s",
     ["calls from threads", "calls from processes"]),
    ("subscribers", "From a change until the last subscriber heard of it", "subscribers", "us, p50", ["subscribers"]),
    ("start", "Start of sdconfigd by number of values", "values", "ms",
     ["start by number of values", "start after a kill by number of values"]),
]
NAMES = {"size": "bus call", "subscribers": "sdconfigd", "start by number of values": "after a clean end",
         "start after a kill by number of values": "after a kill"}
FLOORED = {"size", "calls from threads", "calls from processes", "subscribers", "start by number of values"}


def number(value):
    return f"{value:,.0f}" if value >= 1000 else f"{value:.3g}"


def comparison_row(line):
    low, high = line["ratio_spread"]
    wanted = f"{line['wanted']} {line['bound']:g}" if line["wanted"] else ""
    if wanted and not (line["ratio"] <= line["bound"] if line["wanted"] == "at most" else line["ratio"] >= line["bound"]):
        wanted += " (missed)"
    unit = line["unit"]
    return (f"| {line['what']} | {number(line['figure'])} {unit} | {line['against']} | {number(line['floor'])} {unit} "
            f"| {line['ratio']:.2f} ({low:.2f} to {high:.2f}) | {wanted} |")


def single_row(line):
    low, high = line["spread"]
    return f"| {line['what']} | {number(line['figure'])} {line['unit']} | {number(low)} to {number(high)} |"


def tables(lines):
    yield "| figure | | against | | ratio | wanted |"
    yield "|---|---|---|---|---|---|"
    yield from (comparison_row(line) for line in lines if "against" in line)
    singles = [line for line in lines if "against" not in line]
    if singles:
        yield from ("", "| figure | | from lowest to highest |", "|---|---|---|")
        yield from (single_row(line) for line in singles)


def machine():
    with open("/proc/cpuinfo", encoding="utf-8") as file:
        model = re.search(r"^model name\s*: (.*)$", file.read(), re.MULTILINE)
    return f"{os.cpu_count()} cores ({model.group(1) if model else 'unknown'}), Linux {os.uname().release.split('-')[0]}"


def curves(lines, series):
    points = [line for line in lines if line.get("series") == series]
    if not points:
        return
    yield NAMES.get(series, series.split(" by ")[0]), [(line["x"], line["figure"]) for line in points]
    if series in FLOORED:
        kind = series.removeprefix("calls from ")
        yield (points[0]["against"] + (f", {kind}" if kind != series else ""),
               [(line["x"], line["floor"]) for line in points])


def plot(lines, folder, name, title, x_label, y_label, all_series):
    drawn = [curve for series in all_series for curve in curves(lines, series)]
    if not drawn:
        return
    script = ["set terminal svg size 900,400 background rgb 'white' font 'sans-serif,12'",
              f"set output '{folder}/{name}.svg'", f"set title '{title}'", f"set xlabel '{x_label}'",
              f"set ylabel '{y_label}'", "set logscale xy", "set grid", "set key outside right top vertical"]
    script.append("plot " + ", ".join(f"'-' with linespoints linewidth 2 title '{title}'" for title, _ in drawn))
    for _, points in drawn:
        script += [f"{x} {y}" for x, y in points] + ["e"]
    subprocess.run(["gnuplot"], input="\n".join(script), text=True, check=True)


def main(results, document, folder):
    with open(results, encoding="utf-8") as file:
        lines = [json.loads(line) for line in file]
    with open(document, encoding="utf-8") as file:
        page = file.read()
    figures = "\n".join([f"Measured on {machine()}.", "", *tables(lines)])
    page, count = re.subn(r"(<!-- figures -->\n).*?(<!-- end of figures -->)",
                          lambda match: match.group(1) + figures + "\n" + match.group(2), page, flags=re.DOTALL)
    if count != 1:
        sys.exit(f"{document} has no place for the figures")
    with open(document, "w", encoding="utf-8") as file:
        file.write(page)
    os.makedirs(folder, exist_ok=True)
    for args in PLOTS:
        plot(lines, folder, *args)


if __name__ == "__main__":
    main(*sys.argv[1:])

#!/usr/bin/env python3
"""Writes docs/PERFORMANCE.md from one run of the benchmarks.

Usage: performance_report.py RESULTS_DIR OUTPUT_MD LOAD_BEFORE LOAD_AFTER

Every figure in the table comes from the JSON files of RESULTS_DIR; the
hand-written findings between the markers of an existing OUTPUT_MD are kept.
"""
import json
import os
import platform
import sys

BEGIN = "<!-- findings:begin -->"
END = "<!-- findings:end -->"
UNIT = {"ns": 1.0, "us": 1e3, "ms": 1e6, "s": 1e9}




def throughput_goal(label, one, two, least):
    """Two threads' throughput against one thread's: the goal row."""
    if not (one and two):
        return goal_row(label, "", "", None)
    r = ns(one, "real_time") / ns(two, "real_time")
    return goal_row(label, f"{fmt(ns(two, 'real_time'))} ns/msg against "
                    f"{fmt(ns(one, 'real_time'))} ns/msg", f"{r:.2f}×", r >= least)

def table(title, intro, header, rows):
    """A titled markdown table, with optional lines of text before it."""
    lines = ["", "### " + title, ""]
    if intro:
        lines += intro + [""]
    lines += [("| " + " | ".join(header) + " |").replace("  |", " |"), "|" + "---|" * len(header)]
    return lines + ["| " + " | ".join(row) + " |" for row in rows]

def load(folder, name):
    path = os.path.join(folder, name + ".json")
    if not os.path.exists(path):
        return None
    with open(path) as f:
        return json.load(f)


def medians(doc):
    """run_name -> the median aggregate (or the single run) of each benchmark."""
    found = {}
    for b in (doc or {}).get("benchmarks", []):
        if b.get("error_occurred"):
            continue
        if b.get("run_type") == "aggregate" and b.get("aggregate_name") != "median":
            continue
        found[b["run_name"]] = b
    return found


def ns(b, key):
    return b[key] * UNIT[b.get("time_unit", "ns")]


def find(runs, prefix):
    for name, b in runs.items():
        if name.startswith(prefix):
            return b
    return None


def verdict(ok):
    return "met" if ok else "**missed**"


def fmt(x, digits=0):
    return f"{x:,.{digits}f}"


def posting_rows(runs, netlink):
    rows = []
    one = find(runs, "BM_PostThroughCore/one_thread")
    same = find(runs, "BM_PostThroughCore/two_threads_one_module")
    two = find(runs, "BM_PostThroughCore/two_threads_two_modules")
    if one:
        t = ns(one, "real_time")
        rows.append(("Post, one thread", f"{fmt(t)} ns/msg (CPU {fmt(ns(one, 'cpu_time'))} ns)",
                     "", "", "≤ 200 ns", verdict(t <= 200)))
    for label, b in (("two threads, one module", same), ("two threads, two modules", two)):
        if b and one:
            t = ns(b, "real_time")
            ratio = ns(one, "real_time") / t
            rows.append((f"Post, {label}", f"{fmt(t)} ns/msg (wall / all messages)",
                         f"one thread: {fmt(ns(one, 'real_time'))} ns/msg",
                         f"{ratio:.2f}× the throughput", "≥ 1.0×", verdict(ratio >= 1.0)))
    for prefix, label in (("BM_MakeAndPostThroughCore", "Make a message and post it"),
                          ("BM_GateOnly", "The gate alone (canPostMessage)"),
                          ("BM_QueueOnly", "The queue's add alone")):
        b = find(runs, prefix)
        if b:
            rows.append((label, f"{fmt(ns(b, 'real_time'))} ns", "", "", "", "for reference"))
    for prefix, label in (("BM_PostThroughCore/one_thread", "Post, one thread, system reachability"),
                          ("BM_GateOnly", "The gate alone, system reachability")):
        b = find(netlink, prefix)
        if b:
            rows.append((label, f"{fmt(ns(b, 'real_time'))} ns (CPU {fmt(ns(b, 'cpu_time'))} ns)",
                         "", "", "", "see findings"))
    return rows


POSTING_CASES = (
    ("BM_PostThroughCore/one_thread", "Post, one thread"),
    ("BM_PostThroughCore/two_threads_one_module", "Post, two threads, one module"),
    ("BM_PostThroughCore/two_threads_two_modules", "Post, two threads, two modules"),
    ("BM_MakeAndPostThroughCore", "Make a message and post it"),
    ("BM_GateOnly", "The gate alone (canPostMessage)"),
    ("BM_QueueOnly", "The queue's add alone"),
)


def posting_side_by_side(host, system):
    """Rows of the posting cases, host-fed reachability beside the system's."""
    def cell(b):
        if not b:
            return "not run"
        return f"{fmt(ns(b, 'real_time'))} ns (CPU {fmt(ns(b, 'cpu_time'))} ns)"
    rows = []
    for prefix, label in POSTING_CASES:
        h, s = find(host, prefix), find(system, prefix)
        if h or s:
            rows.append((label, cell(h), cell(s)))
    # Cases only one source has (added for one of them) are listed as they are.
    known = tuple(prefix for prefix, _ in POSTING_CASES)
    for name in sorted(set(host) | set(system)):
        if not name.startswith(known):
            rows.append((name, cell(host.get(name)), cell(system.get(name))))
    return rows


def goal_row(goal, measured, ratio_text, ok):
    if ok is None:
        return (goal, measured, ratio_text, "not measured")
    return (goal, measured, ratio_text, verdict(ok))


def goals_rows(host, system, e2e):
    """The goals of this round: each with its measured ratio and met/missed."""
    rows = []
    h1 = find(host, "BM_PostThroughCore/one_thread")
    s1 = find(system, "BM_PostThroughCore/one_thread")
    if h1 and s1:
        r = ns(s1, "real_time") / ns(h1, "real_time")
        rows.append(goal_row("Post with system reachability ≤ 1.2× host-fed",
                             f"{fmt(ns(s1, 'real_time'))} ns against {fmt(ns(h1, 'real_time'))} ns",
                             f"{r:.2f}×", r <= 1.2))
    else:
        rows.append(goal_row("Post with system reachability ≤ 1.2× host-fed", "", "", None))
    gate = find(system, "BM_GateOnly")
    if gate:
        t = ns(gate, "real_time")
        rows.append(goal_row("The gate alone (system reachability) ≤ 30 ns", f"{fmt(t)} ns",
                             f"{t / 30:.2f}× the goal", t <= 30))
    else:
        rows.append(goal_row("The gate alone (system reachability) ≤ 30 ns", "", "", None))
    rows.append(throughput_goal("Two threads, two modules (system reachability) ≥ 1.8× one thread",
                                s1, find(system, "BM_PostThroughCore/two_threads_two_modules"),
                                1.8))
    rows.append(throughput_goal("Two threads, one module ≥ 1.0× one thread", h1,
                                find(host, "BM_PostThroughCore/two_threads_one_module"), 1.0))
    flush = find(e2e, "BM_FlushOneMegabyte")
    deflate = find(e2e, "BM_RawDeflateOneMegabyte")
    rtt = find(e2e, "BM_EmptyPostRoundTrip")
    if flush and deflate and rtt:
        floor = ns(deflate, "real_time") + ns(rtt, "real_time")
        r = ns(flush, "real_time") / floor
        rows.append(goal_row("1 MB flush ≤ 1.3× (deflate + empty round trip)",
                             f"{ns(flush, 'real_time') / 1e6:.2f} ms against {floor / 1e6:.2f} ms",
                             f"{r:.2f}×", r <= 1.3))
    else:
        rows.append(goal_row("1 MB flush ≤ 1.3× (deflate + empty round trip)", "", "", None))
    return rows


def ratio_rows(runs, measured, floor, label, floor_label, goal):
    rows = []
    for n in (1000, 10000):
        m = find(runs, f"{measured}/{n}/")
        f = find(runs, f"{floor}/{n}/")
        if not (m and f):
            continue
        ratio = ns(m, "cpu_time") / ns(f, "cpu_time")
        rows.append((f"{label}, {fmt(n)} messages",
                     f"{fmt(ns(m, 'cpu_time') / 1e3)} µs, {m['bytes_per_second'] / 1e6:.0f} MB/s",
                     f"{floor_label}: {fmt(ns(f, 'cpu_time') / 1e3)} µs, "
                     f"{f['bytes_per_second'] / 1e6:.0f} MB/s",
                     f"{ratio:.2f}×", f"≤ {goal}×", verdict(ratio <= goal)))
    return rows


def end_to_end_rows(runs):
    rows = []
    goals = {"json_gzip": (100000, "JSON, gzip on"), "json_plain": (300000, "JSON, gzip off"),
             "urlencoded_gzip": (100000, "URL-encoded, gzip on"),
             "urlencoded_plain": (300000, "URL-encoded, gzip off")}
    for kind, (goal, label) in goals.items():
        b = find(runs, f"BM_EndToEnd/{kind}/")
        if not b:
            continue
        rate = b["items_per_second"]
        n = b["run_name"].split("/")[2]
        rows.append((f"End to end, {label}", f"{fmt(rate)} msg/s ({n} messages a cycle)",
                     f"{b['wire_bytes_per_message']:.1f} B on the wire per message", "",
                     f"≥ {fmt(goal)} msg/s", verdict(rate >= goal)))
    flush = find(runs, "BM_FlushOneMegabyte")
    deflate = find(runs, "BM_RawDeflateOneMegabyte")
    rtt = find(runs, "BM_EmptyPostRoundTrip")
    if flush and deflate and rtt:
        floor = ns(deflate, "real_time") + ns(rtt, "real_time")
        ratio = ns(flush, "real_time") / floor
        rows.append((f"Flush of a {flush['payload_bytes'] / 1e6:.2f} MB payload (gzip on)",
                     f"{ns(flush, 'real_time') / 1e6:.2f} ms",
                     f"deflate {ns(deflate, 'real_time') / 1e6:.2f} ms + empty post "
                     f"{ns(rtt, 'real_time') / 1e3:.0f} µs",
                     f"{ratio:.2f}×", "≤ 1.3×", verdict(ratio <= 1.3)))
    return rows


def memory_rows(mem):
    if not mem:
        return []
    beyond = mem["base_beyond_object"]
    return [
        ("Resident per queued base message",
         f"{mem['base_resident_per_message']:.1f} B",
         f"object {mem['base_object_size']} B", f"{beyond:.1f} B beyond the object",
         "≤ 100 B beyond", verdict(beyond <= 100)),
        ("Resident per queued ten-field message",
         f"{mem['ten_field_resident_per_message']:.1f} B",
         f"object {mem['ten_field_object_size']} B",
         f"{mem['ten_field_beyond_object']:.1f} B beyond the object", "", "for reference"),
    ]


def machine(context):
    model = "unknown"
    with open("/proc/cpuinfo") as f:
        for line in f:
            if line.startswith("model name"):
                model = line.split(":", 1)[1].strip()
                break
    return model, os.cpu_count(), context


def kept_findings(path):
    if not os.path.exists(path):
        return "(Findings from profiling are written here by hand; the script keeps them.)\n"
    text = open(path).read()
    if BEGIN in text and END in text:
        return text.split(BEGIN, 1)[1].split(END, 1)[0].strip("\n") + "\n"
    return "(Findings from profiling are written here by hand; the script keeps them.)\n"


def main():
    folder, output, load_before, load_after = sys.argv[1:5]
    priority = sys.argv[5] if len(sys.argv) > 5 else "normal"
    post_doc = load(folder, "QVPostBenchmark")
    post = medians(post_doc)
    netlink = medians(load(folder, "QVPostBenchmarkNetlink"))
    payload = medians(load(folder, "QVPayloadBenchmark"))
    compression = medians(load(folder, "QVCompressionBenchmark"))
    e2e = medians(load(folder, "QVEndToEndBenchmark"))
    mem_path = os.path.join(folder, "QVMemoryBenchmark.json")
    mem = json.load(open(mem_path)) if os.path.exists(mem_path) else None

    rows = []
    rows += posting_rows(post, netlink)
    rows += ratio_rows(payload, "BM_QueueToJson", "BM_DumpFloor", "QVQueue::toJson",
                       "dump of the built tree", 1.5)
    rows += ratio_rows(compression, "BM_CompressData", "BM_RawDeflateFloor", "compressData",
                       "one raw deflate", 1.1)
    rows += end_to_end_rows(e2e)
    rows += memory_rows(mem)

    goals = goals_rows(post, netlink, e2e)
    side = posting_side_by_side(post, netlink)

    context = (post_doc or {}).get("context", {})
    model, cores, _ = machine(context)
    lines = [
        "# Performance",
        "",
        "Generated by `scripts/bench.sh` from one run of the programs in `bench/`; do not",
        "edit the table by hand. Findings from profiling are the hand-written section",
        "below, which the script keeps.",
        "",
        "## Machine and run",
        "",
        f"- CPU: {model}, {cores} cores (`nproc`); {platform.system()} {platform.release()}",
        f"- Load average (1, 5, 15 min) before the run: {load_before}; after: {load_after}",
        f"- Scheduling of the benchmark programs: {priority}",
        f"- Run at: {context.get('date', 'unknown')}; library build: RelWithDebInfo "
        "(default preset)",
        "",
        "## Figures",
        "",
        "Medians of repetitions. Posting and end-to-end figures are wall-clock time;",
        "serialisation and compression compare CPU time, which a loaded machine",
        "disturbs less. Ratios are measured over floor; the goals are for this",
        "2-core machine.",
    ]
    lines += table("Goals of this round", [], ["goal", "measured", "ratio", ""], goals)
    lines += table(
        "Posting, host-fed and system reachability side by side",
        [
            "Wall-clock per message over all threads; the system's reachability is",
            "`QVPostBenchmark --qv_netlink`.",
        ],
        ["what", "host-fed", "system (netlink)"],
        side,
    )
    lines += table(
        "All figures",
        [],
        ["what", "measured", "floor or baseline", "ratio", "goal", ""],
        rows,
    )
    lines += [
        "",
        "## Reproduce",
        "",
        "```sh",
        "scripts/bench.sh      # builds build/bench (default preset), runs all, writes this file",
        "```",
        "",
        "The raw results are in `build/bench/results/*.json`. One program per topic:",
        "`QVPostBenchmark` (add `--qv_netlink` for the system's reachability),",
        "`QVPayloadBenchmark`, `QVCompressionBenchmark`, `QVEndToEndBenchmark` (a",
        "server on 127.0.0.1 only) and `QVMemoryBenchmark` (VmRSS, a plain program).",
        "Measure on an idle machine: other processes on the two cores move every",
        "wall-clock figure.",
        "",
        "## Findings",
        "",
        BEGIN,
        kept_findings(output).rstrip("\n"),
        END,
        "",
    ]
    os.makedirs(os.path.dirname(output), exist_ok=True)
    with open(output, "w") as f:
        f.write("\n".join(lines))


if __name__ == "__main__":
    main()

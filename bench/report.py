#!/usr/bin/env python3
"""Runs the zel_bench binary and prints records/s of the logging contenders.

    python3 bench/report.py build/bench/bench/zel_bench [--all] [--check] [benchmark args...]

Each benchmark runs 5 repetitions (interleaved in random order, so a burst of
load on the machine does not hit one contender only); the table shows the
median records/s at 1 and 2 threads and each contender's ratio to
log_printf, then the speed targets of the logging wrapper with their
outcome, the share of the per-record fstat, the dropped-record cost and the
heap allocations per written record.

--all      run every benchmark of the binary (default: the logging ones) and
           list the ones that are not logging contenders after the table
--check    exit with status 1 when a target is missed
Other arguments go to the binary unchanged (e.g. --benchmark_min_time=1).
"""
import json
import subprocess
import sys

REPETITIONS = 5
LOGGING_FILTER = "BM_Logging_"

# (benchmark function, label) in table order.
CONTENDERS = [
    ("BM_Logging_LogPrintf", "log_printf"),
    ("BM_Logging_LogPrintfBaseline", "log_printf, previous commit"),
    ("BM_Logging_FourProcessesOneFile", "4 processes, one file (sum)"),
    ("BM_Logging_FourProcessesOneFileBaseline", "4 proc., previous commit"),
    ("BM_Logging_Floor", "floor"),
    ("BM_Logging_FloorSnprintf", "floor, snprintf formats"),
    ("BM_Logging_FloorNoFstat", "floor without fstat"),
    ("BM_Logging_Spdlog", "spdlog rotating_file_sink_mt"),
    ("BM_Logging_PocoFileChannel", "POCO FileChannel"),
    ("BM_Logging_Glog", "glog LOG(ERROR)"),
    ("BM_Logging_TracePrintf", "trace_printf (file)"),
    ("BM_Logging_TraceV2NoOp", "trace_v2_printf (no-op v2)"),
    ("BM_Logging_DroppedRecord", "dropped by filter (CPU time)"),
]
FLOORS_WITH_FSTAT = ["BM_Logging_Floor", "BM_Logging_FloorSnprintf"]
ALLOCATIONS = [
    ("BM_Logging_AllocsLogPrintf", "log_printf"),
    ("BM_Logging_AllocsTracePrintf", "trace_printf"),
    ("BM_Logging_AllocsSpdlog", "spdlog"),
    ("BM_Logging_AllocsPocoFileChannel", "POCO FileChannel"),
    ("BM_Logging_AllocsGlog", "glog"),
]


def run(binary, extra, run_all):
    args = [
        binary,
        f"--benchmark_repetitions={REPETITIONS}",
        "--benchmark_report_aggregates_only=true",
        "--benchmark_enable_random_interleaving=true",
        "--benchmark_format=json",
    ]
    if not run_all and not any(a.startswith("--benchmark_filter") for a in extra):
        args.append(f"--benchmark_filter={LOGGING_FILTER}")
    args += extra
    print("running: " + " ".join(args), file=sys.stderr, flush=True)
    done = subprocess.run(args, stdout=subprocess.PIPE, check=False)
    if done.returncode != 0:
        sys.exit(f"{binary} failed with status {done.returncode}")
    return json.loads(done.stdout)


def medians(report):
    """{(function name, threads): median entry}"""
    found = {}
    for entry in report.get("benchmarks", []):
        if entry.get("run_type") != "aggregate" or entry.get("aggregate_name") != "median":
            continue
        function = entry["run_name"].split("/")[0]
        found[(function, int(entry.get("threads", 1)))] = entry
    return found


def rate(found, function, threads):
    entry = found.get((function, threads))
    return entry.get("items_per_second") if entry else None


def nanoseconds(entry, key="real_time"):
    scale = {"ns": 1.0, "us": 1e3, "ms": 1e6, "s": 1e9}[entry.get("time_unit", "ns")]
    return entry[key] * scale


def fmt_rate(value):
    if value is None:
        return "-"
    if value >= 1e6:
        return f"{value / 1e6:.3f} M"
    return f"{value / 1e3:.1f} k"


def fmt_ratio(value):
    return "-" if value is None else f"{value:.2f}x"


def ratio(a, b):
    return a / b if a and b else None


def print_table(found):
    base = {t: rate(found, "BM_Logging_LogPrintf", t) for t in (1, 2)}
    head = f"{'contender':<30} {'1 thread rec/s':>15} {'/log_printf':>11} {'2 threads rec/s':>16} {'/log_printf':>11}"
    print(head)
    print("-" * len(head))
    for function, label in CONTENDERS:
        r1, r2 = rate(found, function, 1), rate(found, function, 2)
        if r1 is None and r2 is None:
            continue
        print(f"{label:<30} {fmt_rate(r1):>15} {fmt_ratio(ratio(r1, base[1])):>11} "
              f"{fmt_rate(r2):>16} {fmt_ratio(ratio(r2, base[2])):>11}")
    print()


def check_targets(found):
    """Prints each target with its outcome; returns the number missed."""
    missed = 0

    def verdict(label, value, bound, above=True, unit="x"):
        nonlocal missed
        if value is None:
            print(f"  {label:<52} not measured")
            return
        ok = value >= bound if above else value < bound
        missed += 0 if ok else 1
        sign = ">=" if above else "<"
        print(f"  {label:<52} {value:8.2f}{unit}  (target {sign} {bound}{unit})  {'met' if ok else 'MISSED'}")

    print("targets (medians of this run):")
    for t in (1, 2):
        lp = rate(found, "BM_Logging_LogPrintf", t)
        floors = [(rate(found, f, t), f) for f in FLOORS_WITH_FSTAT if rate(found, f, t)]
        best = max(floors)[0] if floors else None
        verdict(f"log_printf / best floor, {t} thread(s)", ratio(lp, best), 0.95)
        verdict(f"log_printf / previous commit, {t} thread(s)",
                ratio(lp, rate(found, "BM_Logging_LogPrintfBaseline", t)), 0.95)
        verdict(f"log_printf / POCO FileChannel, {t} thread(s)", ratio(lp, rate(found, "BM_Logging_PocoFileChannel", t)), 3.0)
        verdict(f"log_printf / glog, {t} thread(s)", ratio(lp, rate(found, "BM_Logging_Glog", t)), 3.0)
        verdict(f"log_printf / spdlog, {t} thread(s)", ratio(lp, rate(found, "BM_Logging_Spdlog", t)), 0.8 if t == 1 else 1.0)
    dropped = found.get(("BM_Logging_DroppedRecord", 1))
    verdict("dropped record, 1 thread (CPU time)", nanoseconds(dropped, "cpu_time") if dropped else None, 2.0,
            above=False, unit=" ns")
    allocs = found.get(("BM_Logging_AllocsLogPrintf", 1))
    value = allocs.get("allocs_per_record") if allocs else None
    if value is None:
        print(f"  {'heap allocations per written record':<52} not measured")
    else:
        ok = value == 0
        missed += 0 if ok else 1
        print(f"  {'heap allocations per written record':<52} {value:8.3f}   (target 0)  {'met' if ok else 'MISSED'}")
    print()
    return missed


def print_fstat_share(found):
    print("share of the per-record fstat in the floor's time per record:")
    for t in (1, 2):
        with_stat = rate(found, "BM_Logging_Floor", t)
        without = rate(found, "BM_Logging_FloorNoFstat", t)
        if with_stat and without:
            ns = (1 / with_stat - 1 / without) * 1e9
            share = 1 - with_stat / without
            print(f"  {t} thread(s): {share * 100:5.1f}% ({ns:.0f} ns of {1e9 / with_stat:.0f} ns per record)")
    print()


def print_allocations(found):
    rows = [(label, found.get((function, 1))) for function, label in ALLOCATIONS]
    rows = [(label, e) for label, e in rows if e is not None]
    if not rows:
        return
    print("heap allocations per written record (outside rotation):")
    for label, entry in rows:
        print(f"  {label:<30} {entry.get('allocs_per_record', float('nan')):8.3f}")
    print()


def print_others(found):
    known = {f for f, _ in CONTENDERS} | {f for f, _ in ALLOCATIONS}
    others = sorted(k for k in found if k[0] not in known)
    if not others:
        return
    print("other benchmarks (median real time per iteration):")
    for function, threads in others:
        entry = found[(function, threads)]
        extra = f"  {fmt_rate(entry['items_per_second'])}/s" if "items_per_second" in entry else ""
        print(f"  {entry['run_name']:<60} {nanoseconds(entry):12.1f} ns{extra}")
    print()


def main(argv):
    if len(argv) < 2 or argv[1] in ("-h", "--help"):
        print(__doc__)
        return 2
    binary, rest = argv[1], argv[2:]
    run_all = "--all" in rest
    check = "--check" in rest
    extra = [a for a in rest if a not in ("--all", "--check")]
    report = run(binary, extra, run_all)
    context = report.get("context", {})
    print(f"zel_bench on {context.get('num_cpus', '?')} CPUs at {context.get('mhz_per_cpu', '?')} MHz, "
          f"{context.get('date', '')}; medians of {REPETITIONS} repetitions, records/s of all threads together")
    print()
    found = medians(report)
    missed = 0
    if any(function.startswith(LOGGING_FILTER) for function, _ in found):
        print_table(found)
        missed = check_targets(found)
        print_fstat_share(found)
        dropped = found.get(("BM_Logging_DroppedRecord", 1))
        if dropped:
            print(f"dropped record: {nanoseconds(dropped, 'cpu_time'):.2f} ns CPU time per call at 1 thread")
            print()
        print_allocations(found)
    print_others(found)
    return 1 if check and missed else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv))

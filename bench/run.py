#!/usr/bin/env python3
"""Runs every benchmark of bench/ and writes docs/performance.md with its plots.

    bench/run.py [--build build/bench] [--docs docs] [--quick] [--only packets|hard-limit|fleet]
                 [--fleet-captures N] [--rerun STAGE,...]

The scan's capture directories ($TMPDIR/faitra-bench-captures-N) are written
once and kept for later runs; `--clean-data` removes them. Each benchmark
repeats several times; the report gives medians with min and
max. Results also go to BUILD/bench-results.json. `--only packets` runs the
packet-retrieval benchmark alone and rewrites only its section of
docs/performance.md. `--rerun scan,index` measures those stages again into
the last BUILD/bench-results.json and writes the whole report anew, naming
the stages and the time of the rerun. Needs the programs built by the
`bench` CMake preset, gnuplot for the plots and root for the cleanup's
tmpfs; linux-perf is optional (the profile section is left out without it).
The central catalogue's benchmarks (bench/fleet.py) start a PostgreSQL server
of their own; `--only fleet` runs just those and rewrites just their section.
"""
import argparse
import json
import os
import shutil
import statistics
import subprocess
import sys
import tempfile
import time
import urllib.parse
import urllib.request

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, HERE)
import fleet  # noqa: E402
import report  # noqa: E402


def log(message):
    print(f"[bench {time.strftime('%H:%M:%S')}] {message}", flush=True)


def summary(values):
    return {"median": statistics.median(values), "min": min(values), "max": max(values), "runs": len(values)}


def timed(command, stdout=subprocess.DEVNULL):
    """Runs `command`; returns wall seconds, CPU seconds (user+sys) and its output."""
    begin = time.monotonic()
    process = subprocess.Popen(command, stdout=stdout, stderr=subprocess.DEVNULL)
    _, status, usage = os.wait4(process.pid, 0)
    wall = time.monotonic() - begin
    output = process.stdout.read() if stdout == subprocess.PIPE else b""
    if os.waitstatus_to_exitcode(status) != 0:
        raise RuntimeError(f"{' '.join(command)} failed")
    return wall, usage.ru_utime + usage.ru_stime, output


def capture_dir(tools, n):
    """A directory of n captures under $TMPDIR, written once and kept for
    later runs (writing and removing 100,000 files with attributes takes
    minutes on a busy disk); `--clean-data` removes it."""
    directory = os.path.join(tempfile.gettempdir(), f"faitra-bench-captures-{n}")
    marker = os.path.join(directory, ".complete")
    if not os.path.exists(marker):
        shutil.rmtree(directory, ignore_errors=True)
        os.makedirs(directory)
        log(f"scan: writing {n} captures into {directory}")
        subprocess.run([tools["make_captures"], directory, str(n)], check=True)
        open(marker, "w").close()
    return directory


def scan(tools, sizes, repetitions):
    results = {}
    for n in sizes:
        directory = capture_dir(tools, n)
        variants = {
            "floor": [tools["scan_floor"], directory],
            "library": [tools["lib_scan"], directory],
            "faitra scan": [tools["faitra"], "scan", directory],
            "python": [sys.executable, os.path.join(HERE, "scan_script.py"), directory],
        }
        for command in variants.values():  # hot cache for everyone
            timed(command)
        wall = {name: [] for name in variants}
        cpu = {name: [] for name in variants}
        in_process = []
        for _ in range(repetitions):
            for name, command in variants.items():  # interleaved, so load drifts hit all alike
                w, c, out = timed(command, subprocess.PIPE if name == "library" else subprocess.DEVNULL)
                wall[name].append(w)
                cpu[name].append(c)
                if name == "library":
                    in_process.append(json.loads(out)["scan_ns"] / 1e9)
        results[str(n)] = {
            "wall": {name: summary(v) for name, v in wall.items()},
            "cpu": {name: summary(v) for name, v in cpu.items()},
            "library_in_process": summary(in_process),
        }
        log(f"scan {n}: " + ", ".join(f"{k} {v['median']:.3f}s" for k, v in results[str(n)]["wall"].items()))
    return results


def run_json(command):
    return json.loads(subprocess.run(command, check=True, stdout=subprocess.PIPE).stdout)


def index_operations(tools, repetitions, min_time):
    log("index operations at 1M records")
    output = subprocess.run([tools["cache_bench"], f"--benchmark_repetitions={repetitions}",
                             f"--benchmark_min_time={min_time}", "--benchmark_format=json"],
                            check=True, stdout=subprocess.PIPE).stdout
    runs = {}
    for b in json.loads(output)["benchmarks"]:
        if b.get("run_type") != "iteration":
            continue
        name = b["run_name"].split("/")[0]
        entry = runs.setdefault(name, {"ns": [], "items_per_s": [], "writer_inserts_per_s": [], "cpu_ns": []})
        scale = {"ns": 1, "us": 1e3, "ms": 1e6, "s": 1e9}[b["time_unit"]]
        entry["ns"].append(b["real_time"] * scale)
        entry["cpu_ns"].append(b["cpu_time"] * scale)
        if "items_per_second" in b:
            entry["items_per_s"].append(b["items_per_second"])
        if "writer_inserts_per_s" in b:
            entry["writer_inserts_per_s"].append(b["writer_inserts_per_s"])
    results = {}
    for name, entry in runs.items():
        results[name] = {k: summary(v) for k, v in entry.items() if v}
    return results


def comparison(tools, rounds):
    """fs_cache against the plain standard containers, same records, one
    process: per round, the ratio of fs_cache's time to the plain one's."""
    log(f"fs_cache against the plain standard containers at 1M records, {rounds} rounds")
    r = run_json([tools["plain_comparison"], "1000000", str(rounds)])
    result = {}
    for op in ("by_path", "by_time", "insert"):
        faitra, plain = r[op]["faitra_ns"], r[op]["plain_ns"]
        result[op] = {"ratio": summary([f / p for f, p in zip(faitra, plain)]),
                      "faitra_ns": summary(faitra), "plain_ns": summary(plain)}
    return result


def memory(tools, repetitions):
    log("memory per record at 1M records")
    runs = [run_json([tools["memory_bench"], "1000000"]) for _ in range(repetitions)]
    return {"bytes_per_record": summary([r["bytes_per_record"] for r in runs]),
            "inserts_per_s": summary([r["inserts_per_s"] for r in runs])}


def freshness(tools, repetitions, captures):
    log(f"freshness over {captures} captures x {repetitions}")
    runs = [run_json([tools["freshness_bench"], str(captures)]) for _ in range(repetitions)]
    return {"p50_us": summary([r["p50_us"] for r in runs]), "p99_us": summary([r["p99_us"] for r in runs]),
            "max_us": summary([r["max_us"] for r in runs]), "missed": sum(r["missed"] for r in runs),
            "latencies_us": [x for r in runs for x in r["latencies_us"]]}


def throughput(tools, rates, seconds, repetitions):
    results = {}
    for fs, tmpdir in (("tmpfs", "/dev/shm"), ("tmpdir", None)):
        env = dict(os.environ)
        if tmpdir:
            env["TMPDIR"] = tmpdir
        for rate in (rates if fs == "tmpfs" else [5000]):
            log(f"throughput {rate}/s on {fs}")
            runs = [json.loads(subprocess.run([tools["throughput_bench"], str(rate), str(seconds)], check=True,
                                              stdout=subprocess.PIPE, env=env).stdout) for _ in range(repetitions)]
            results[f"{fs}:{rate}"] = {"fs": fs, "rate_tried": rate,
                                       "achieved_rate": summary([r["achieved_rate"] for r in runs]),
                                       "lost": summary([r["lost"] for r in runs]),
                                       "drain_ms": summary([r["drain_ms"] for r in runs])}
    return results


def cleanup(tools, repetitions, with_pauses):
    log("cleanup of 10,000 captures")
    fast = [run_json([tools["cleanup_bench"], "no-pauses"]) for _ in range(repetitions)]
    result = {"no_pauses": {k: summary([r[k] for r in fast]) for k in ("run_s", "removal_s", "files_per_s",
                                                                       "catalogue_empty_s")}}
    if with_pauses:
        log("cleanup with its two 15 s pauses (about 30 s)")
        slow = [run_json([tools["cleanup_bench"], "pauses"])]
        result["pauses"] = {k: summary([r[k] for r in slow]) for k in ("run_s", "removal_s", "files_per_s")}
    return result




def derivation(tools, repetitions, quick):
    """Derivation against a plain read over the same bytes, and close-to-visible latency."""
    directory = os.path.join(tempfile.gettempdir(), "faitra-bench-derive")
    mib = 512 if quick else 2048
    log(f"derivation over {mib} MiB x {repetitions}")
    runs = [run_json([tools["derive_bench"], directory, str(mib), "3"]) for _ in range(repetitions)]
    throughput = {key: summary([r[key]["median"] if isinstance(r[key], dict) else r[key] for r in runs])
                  for key in ("read_s", "derive_s", "ratio", "read_gbps", "derive_gbps")}
    log("derivation latency over 10 MiB captures")
    files = 50 if quick else 200
    lat_runs = [run_json([sys.executable, os.path.join(HERE, "derive_latency.py"), tools["faitra"], str(files), "10"])
                for _ in range(1 if quick else 3)]
    latency = {key: summary([r[key] for r in lat_runs]) for key in ("p50_ms", "p99_ms", "max_ms", "read_ms")}
    latency.update({"files": files, "mib": 10})
    return {"throughput": throughput, "latency": latency}


HARD_LIMIT_RATES = [30, 100, 300, 0]  # MB/s; 0: as fast as the tmpfs takes the writes


def hard_limit(tools, repetitions, seconds):
    """A writer filling a 128 MiB tmpfs under the daemon, with the hard limit
    at 0.97 and without it (the automatic cleanup alone, 15 s pauses)."""
    results = {}
    for rate in HARD_LIMIT_RATES:
        for mode in ("on", "off"):
            log(f"hard limit {mode}, writer at {rate or 'full'} MB/s, {seconds} s x {repetitions}")
            runs = [run_json([tools["hard_limit_bench"], tools["faitra"], mode, str(rate), str(seconds)])
                    for _ in range(repetitions)]
            results[f"{mode}:{rate}"] = {
                "mode": mode, "rate": rate,
                **{k: summary([r[k] for r in runs]) for k in ("highest_fraction", "achieved_mb_s", "lost_mib",
                                                               "full_samples", "hard_limit_deletions")}}
    return results


def update_section(docs, title, lines):
    """Replaces the section `title` of docs/performance.md (up to the next
    section) with `lines`, or puts it before the design constants."""
    path = os.path.join(docs, "performance.md")
    with open(path) as f:
        text = f.read().split("\n")
    heading = next((i for i, line in enumerate(text) if line == title), None)
    if heading is None:
        at = next(i for i, line in enumerate(text) if line == "## Design constants")
        text[at:at] = lines
    else:
        end = next(i for i in range(heading + 1, len(text)) if text[i].startswith("## "))
        text[heading:end] = lines
    with open(path, "w") as f:
        f.write("\n".join(text))


def perf_profile(command, symbols=15):
    """perf profile of `command`: share of samples per object and the top
    symbols, or None without perf."""
    if shutil.which("perf") is None:
        return None
    data = os.path.join(tempfile.mkdtemp(prefix="faitra-perf-"), "perf.data")
    try:
        record = subprocess.run(["perf", "record", "-q", "-o", data] + command,
                                stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        if record.returncode != 0:
            return None
        def perf_report(sort):
            out = subprocess.run(["perf", "report", "-i", data, "--no-children", "--sort", sort, "-g", "none",
                                  "--stdio", "--percent-limit", "1"],
                                 stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True).stdout
            rows = []
            for line in out.splitlines():
                line = line.strip()
                if not line or line.startswith("#") or "%" not in line:
                    continue
                percent, rest = line.split("%", 1)
                rows.append((float(percent), " ".join(rest.split())[:110]))
            return rows
        return {"dso": perf_report("dso"), "symbols": perf_report("dso,symbol")[:symbols]}
    finally:
        shutil.rmtree(os.path.dirname(data), ignore_errors=True)


PACKETS_START_S = 1700000000   # the hour written by packets_bench
PACKETS_FILTER = "udp dst port 5003"  # keeps a tenth of its packets


def kept_dir(name, fill):
    """A directory under $TMPDIR written once by fill(directory) and kept."""
    directory = os.path.join(tempfile.gettempdir(), name)
    marker = os.path.join(directory, ".complete")
    if not os.path.exists(marker):
        shutil.rmtree(directory, ignore_errors=True)
        os.makedirs(directory)
        fill(directory)
        open(marker, "w").close()
    return directory


class daemon:
    """faitra serve on a directory, on a free port; stopped on exit."""

    def __init__(self, tools, root):
        self.log = tempfile.NamedTemporaryFile(prefix="faitra-bench-serve-", suffix=".log", delete=False)
        self.process = subprocess.Popen([tools["faitra"], "serve", "--root", root, "--no-auto-cleanup",
                                         "--reconcile-interval", "0", "--listen", "127.0.0.1:0", "--log-stdout"],
                                        stdout=self.log, stderr=subprocess.STDOUT)
        self.address = None
        deadline = time.monotonic() + 600
        while time.monotonic() < deadline and self.process.poll() is None:
            with open(self.log.name) as f:
                text = f.read()
            marker = "Listening on 127.0.0.1:"
            if marker in text:
                self.address = "127.0.0.1:" + text.split(marker, 1)[1].split()[0]
                return
            time.sleep(0.05)
        raise RuntimeError("faitra serve did not start: " + open(self.log.name).read()[-2000:])

    def get_json(self, target):
        with urllib.request.urlopen(f"http://{self.address}{target}", timeout=60) as answer:
            return json.load(answer)

    def cpu_s(self):
        """User and system CPU time of the daemon so far."""
        with open(f"/proc/{self.process.pid}/stat") as f:
            fields = f.read().rsplit(")", 1)[1].split()
        return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")

    def memory_kib(self):
        fields = {}
        with open(f"/proc/{self.process.pid}/status") as f:
            for line in f:
                if line.startswith(("VmRSS:", "VmHWM:")):
                    fields[line.split(":")[0]] = int(line.split()[1])
        return fields

    def __enter__(self):
        return self

    def __exit__(self, *exc):
        self.process.terminate()
        self.process.wait(timeout=60)
        os.unlink(self.log.name)


def packets_query(start_s, end_s, filter_text=None):
    params = {"start": str(start_s * 10**9), "end": str(end_s * 10**9)}
    if filter_text:
        params["filter"] = filter_text
    return "/v1/packets?" + urllib.parse.urlencode(params, quote_via=urllib.parse.quote)


def packets(tools, repetitions):
    """A 1-minute window with a filter keeping a tenth of the packets, out of
    one hour of captures: faitra against mergecap | tcpdump | editcap over
    every file, and against tcpdump on the overlapping files alone; time to
    first byte with 100,000 captures catalogued; the daemon's memory."""
    bench = tools["packets_bench"]
    hour = kept_dir("faitra-bench-packets-hour", lambda d: subprocess.run([bench, "hour", d], check=True,
                                                                           stdout=subprocess.DEVNULL))

    def fill_100k(d):
        log("packets: writing 99,640 older captures before the hour (kept for later runs)")
        subprocess.run([bench, "filler", d, "99640"], check=True)
        for name in os.listdir(hour):
            if name.endswith(".pcap"):
                os.link(os.path.join(hour, name), os.path.join(d, name))
    many = kept_dir("faitra-bench-packets-older-100000", fill_100k)

    start_s, end_s = PACKETS_START_S + 1800, PACKETS_START_S + 1860
    window = packets_query(start_s, end_s, PACKETS_FILTER)
    files = sorted(os.path.join(hour, n) for n in os.listdir(hour) if n.endswith(".pcap"))
    quoted = "'" + PACKETS_FILTER + "'"
    script = (f"mergecap -F nsecpcap -w - {' '.join(files)} | tcpdump -r - -w - {quoted} 2>/dev/null | "
              f"editcap -A {start_s} -B {end_s}.000000001 - -")
    result = {"window_s": end_s - start_s, "filter": PACKETS_FILTER, "files": len(files)}
    with daemon(tools, hour) as d:
        overlapping = [c["path"] for c in d.get_json(f"/v1/captures?start={start_s * 10**9}&end={end_s * 10**9}")
                       ["captures"]]
        loop = (f"for f in {' '.join(overlapping)}; do tcpdump -r \"$f\" -w - {quoted} 2>/dev/null; done")
        result["overlapping"] = len(overlapping)
        # The same packets both ways (their bytes, in order).
        scratch = tempfile.mkdtemp(prefix="faitra-bench-packets-")
        try:
            subprocess.run(["curl", "-sf", "-o", f"{scratch}/faitra.pcap", f"http://{d.address}{window}"], check=True)
            subprocess.run(["sh", "-c", f"{script} > {scratch}/script.pcap"], check=True)
            digests = [run_json([bench, "digest", f"{scratch}/{n}.pcap"]) for n in ("faitra", "script")]
        finally:
            shutil.rmtree(scratch, ignore_errors=True)
        result["packets_out"] = digests[0]["packets"]
        result["same_packets"] = digests[0]["digest"] == digests[1]["digest"] and \
            digests[0]["packets"] == digests[1]["packets"]
        variants = {
            "faitra": [bench, "get", d.address, window],
            "mergecap, tcpdump, editcap on all files": ["sh", "-c", script + " > /dev/null"],
            "tcpdump -r, overlapping files": ["sh", "-c", loop + " > /dev/null"],
        }
        for command in variants.values():  # hot cache for everyone
            timed(command)
        memory_before = d.memory_kib()
        wall = {name: [] for name in variants}
        cpu = {name: [] for name in variants}
        in_daemon = []
        for _ in range(repetitions):
            for name, command in variants.items():
                # faitra's CPU time is the client's and the daemon's during the request.
                daemon_before = d.cpu_s()
                w, c, out = timed(command, subprocess.PIPE if name == "faitra" else subprocess.DEVNULL)
                wall[name].append(w)
                cpu[name].append(c + (d.cpu_s() - daemon_before if name == "faitra" else 0))
                if name == "faitra":
                    in_daemon.append(json.loads(out)["total_ms"] / 1000)
        result["wall"] = {name: summary(v) for name, v in wall.items()}
        result["cpu"] = {name: summary(v) for name, v in cpu.items()}
        result["faitra_request_s"] = summary(in_daemon)
        after_minute = d.memory_kib()
        everything = run_json([bench, "get", d.address, packets_query(PACKETS_START_S, PACKETS_START_S + 3600)])
        after_hour = d.memory_kib()
        result["memory_kib"] = {"before": memory_before, "after_minutes": after_minute, "after_hour": after_hour}
        result["hour_bytes"] = everything["bytes"]
        result["hour_s"] = everything["total_ms"] / 1000
        result["ttfb_360_ms"] = summary([run_json([bench, "get", d.address, window])["ttfb_ms"]
                                         for _ in range(20)])
    # With 100,000 captures: the same recent window, and one minute in the
    # middle of the older captures, where both walks of the selection are
    # longest (about half the catalogue each).
    middle_s = PACKETS_START_S - 50000
    middle = packets_query(middle_s, middle_s + 60, PACKETS_FILTER)
    with daemon(tools, many) as d:
        result["catalogued"] = d.get_json("/v1/status")["captures"]
        run_json([bench, "get", d.address, window])
        ttfb = {"recent": [], "middle": []}
        for _ in range(20):
            ttfb["recent"].append(run_json([bench, "get", d.address, window])["ttfb_ms"])
            ttfb["middle"].append(run_json([bench, "get", d.address, middle])["ttfb_ms"])
        result["ttfb_100k_ms"] = summary(ttfb["recent"])
        result["ttfb_100k_middle_ms"] = summary(ttfb["middle"])
    result["selection_ms"] = {name: run_json([bench, "select", many, str(at)])
                              for name, at in (("recent", start_s), ("middle", middle_s))}
    w = result["wall"]
    log("packets: faitra {:.3f}s, script {:.3f}s, tcpdump {:.3f}s, ttfb at 100k {:.2f} ms".format(
        w["faitra"]["median"], w["mergecap, tcpdump, editcap on all files"]["median"],
        w["tcpdump -r, overlapping files"]["median"], result["ttfb_100k_ms"]["median"]))
    return result


def profiles(tools):
    """Where the time goes: the library scan and `faitra scan` of 100,000
    captures, and the two read paths at 1M records."""
    directory = capture_dir(tools, 100000)
    timed([tools["lib_scan"], directory])
    result = {"scan": perf_profile([tools["lib_scan"], directory]),
              "command": perf_profile([tools["faitra"], "scan", directory])}
    for name in ("by_path_at_1m", "by_time_100_at_1m"):
        result[name] = perf_profile([tools["cache_bench"], f"--benchmark_filter=^{name}$",
                                     "--benchmark_min_time=5"], symbols=12)
    return result


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--build", default="build/bench")
    parser.add_argument("--docs", default="docs")
    parser.add_argument("--quick", action="store_true", help="fewer repetitions, no 30 s cleanup run")
    parser.add_argument("--clean-data", action="store_true", help="remove the kept capture directories and exit")
    parser.add_argument("--only", choices=["hard-limit", "packets", "fleet"],
                        help="run one benchmark and replace only its section of performance.md")
    parser.add_argument("--fleet-captures", type=int, default=1000000,
                        help="captures of the resync and of each sensor in `fleet ls` (the targets are at 1M)")
    parser.add_argument("--rerun", help="stages to measure again into the last results (comma-separated), "
                        "e.g. scan,index; the rest of the report keeps its figures")
    parser.add_argument("--report-only", action="store_true",
                        help="write docs/performance.md again from BUILD/bench-results.json, measuring nothing")
    args = parser.parse_args()
    if args.report_only:
        with open(os.path.join(args.build, "bench-results.json")) as f:
            report.write(json.load(f), args.docs, quick=args.quick)
        return
    if args.only == "fleet":
        fleet_results = fleet.run(args.build, args.quick, args.fleet_captures)
        with open(os.path.join(args.build, "bench-results-fleet.json"), "w") as f:
            json.dump(fleet_results, f, indent=1)
        fleet.replace_section(os.path.join(args.docs, "performance.md"), fleet.section(fleet_results))
        log(f"rewrote the central catalogue's section of {os.path.join(args.docs, 'performance.md')}")
        return
    if args.clean_data:
        for name in ("faitra-bench-captures-10000", "faitra-bench-captures-100000", "faitra-bench-packets-hour",
                     "faitra-bench-packets-older-100000"):
            shutil.rmtree(os.path.join(tempfile.gettempdir(), name), ignore_errors=True)
        return
    tools = {name: os.path.join(args.build, "bench", name) for name in
             ("make_captures", "scan_floor", "lib_scan", "cache_bench", "plain_comparison", "memory_bench",
              "freshness_bench", "throughput_bench", "cleanup_bench", "derive_bench", "hard_limit_bench",
              "packets_bench")}
    tools["faitra"] = os.path.join(args.build, "apps", "faitra")
    reps = 2 if args.quick else 5
    if args.only == "hard-limit":
        result = {"hard_limit": hard_limit(tools, 1 if args.quick else 3, 10 if args.quick else 20),
                  "started": time.strftime("%Y-%m-%d %H:%M:%S UTC", time.gmtime()),
                  "load": os.getloadavg()}
        update_section(args.docs, report.HARD_LIMIT_TITLE, report.hard_limit_section(result, separate_run=True))
        log(f"updated the hard limit section of {os.path.join(args.docs, 'performance.md')}")
        return
    if args.only == "packets":
        load = os.getloadavg()
        result = packets(tools, reps)
        started = time.strftime("%Y-%m-%d %H:%M:%S UTC", time.gmtime())
        update_section(args.docs, report.PACKETS_HEADING, report.packets_section(result, (started, load)))
        log(f"updated the packets section of {os.path.join(args.docs, 'performance.md')}")
        return
    results = {"load_before": os.getloadavg(), "started": time.strftime("%Y-%m-%d %H:%M:%S UTC", time.gmtime()),
               "cpus": os.cpu_count(), "kernel": os.uname().release}
    results_file = os.path.join(args.build, "bench-results.json")
    stages = [
        # The scan's runs spread most (page and inode caches, a shared machine): more rounds.
        ("scan", lambda: scan(tools, [10000, 100000], 2 * reps - 1)),
        ("index", lambda: index_operations(tools, reps, 0.2)),
        ("comparison", lambda: comparison(tools, 7 if not args.quick else 3)),
        ("memory", lambda: memory(tools, 3 if not args.quick else 1)),
        ("freshness", lambda: freshness(tools, 3 if not args.quick else 1, 1000 if not args.quick else 200)),
        ("throughput", lambda: throughput(tools, [1000, 5000, 20000], 2, 3 if not args.quick else 1)),
        ("cleanup", lambda: cleanup(tools, reps, not args.quick)),
        ("derivation", lambda: derivation(tools, 3 if not args.quick else 1, args.quick)),
        ("hard_limit", lambda: hard_limit(tools, 1 if args.quick else 3, 10 if args.quick else 20)),
        ("packets", lambda: packets(tools, reps)),
        ("profile", lambda: profiles(tools)),
        ("fleet", lambda: fleet.run(args.build, args.quick, args.fleet_captures)),
    ]
    if args.rerun:
        chosen = args.rerun.split(",")
        unknown = [name for name in chosen if name not in dict(stages)]
        if unknown:
            parser.error(f"unknown stage {', '.join(unknown)}; stages: {', '.join(n for n, _ in stages)}")
        with open(results_file) as f:
            previous = json.load(f)
        rerun = {"stages": chosen, "started": results["started"], "load_before": results["load_before"]}
        results = previous
        stages = [(name, stage) for name, stage in stages if name in chosen]
        results["rerun"] = rerun
    for name, stage in stages:
        results[name] = stage()
        # Written after every stage, so a run that fails late keeps what it measured.
        with open(results_file, "w") as f:
            json.dump(results, f, indent=1)
    if args.rerun:
        results["rerun"]["load_after"] = os.getloadavg()
    else:
        results["load_after"] = os.getloadavg()
    with open(results_file, "w") as f:
        json.dump(results, f, indent=1)
    report.write(results, args.docs, quick=args.quick)
    log(f"wrote {os.path.join(args.docs, 'performance.md')}")


if __name__ == "__main__":
    main()

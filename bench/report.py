"""Writes docs/performance.md and its plots from the results of bench/run.py."""
import os

import fleet
from plots import plot_freshness, plot_scan, plot_throughput

TARGETS = {
    "library_vs_floor": 1.15,   # at most
    "command_vs_floor": 1.3,    # at most
    "python_vs_scan": 1.3,      # at least
    "by_path_ns": 1000,         # under
    "by_time_ns": 20000,        # under
    "inserts_per_s": 1000000,   # at least
    "bytes_per_record": 450,    # at most
    "p50_us": 4650,             # at most: the figure before the B-tree catalogue
    "p99_us": 10100,            # at most: likewise
    "by_path_vs_plain": 0.35,   # at most
    "by_time_vs_plain": 0.6,    # at most
    "insert_vs_plain": 0.7,     # at most
}


def fmt(s, scale=1.0, digits=2, unit=""):
    """median (min-max) of a summary."""
    number_format = f",.{digits}f" if digits == 0 else f".{digits}f"
    return (f"{s['median'] * scale:{number_format}}{unit} ({s['min'] * scale:{number_format}}-"
            f"{s['max'] * scale:{number_format}})")


def verdict(ok):
    if ok is None:
        return ""
    return "holds" if ok else "**missed**"


PACKETS_HEADING = "## 9. Packets for a time window"


def packets_targets(r):
    """(measure, target, value, holds) rows of the packets benchmark."""
    w, c = r["wall"], r["cpu"]
    faitra = w["faitra"]["median"]
    script = w["mergecap, tcpdump, editcap on all files"]["median"] / faitra
    tcpdump = faitra / w["tcpdump -r, overlapping files"]["median"]
    script_cpu = c["mergecap, tcpdump, editcap on all files"]["median"] / c["faitra"]["median"]
    tcpdump_cpu = c["faitra"]["median"] / c["tcpdump -r, overlapping files"]["median"]
    m = r["memory_kib"]
    growth = (m["after_hour"]["VmHWM"] - m["before"]["VmHWM"]) / 1024
    ttfb = r["ttfb_100k_ms"]["median"]
    middle = r["ttfb_100k_middle_ms"]["median"]
    return [
        ("1-minute window: script over every file / faitra", "at least 20",
         f"{script:.1f} (CPU {script_cpu:.1f})", script >= 20),
        ("1-minute window: faitra / tcpdump -r on the overlapping files", "at most 1.0",
         f"{tcpdump:.2f} (CPU {tcpdump_cpu:.2f})", tcpdump <= 1.0),
        (f"time to first byte, {r['catalogued']:,} captures catalogued, recent window", "under 50 ms",
         f"{ttfb:.2f} ms", ttfb < 50),
        (f"time to first byte, {r['catalogued']:,} captures catalogued, window in their middle", "under 50 ms",
         f"{middle:.2f} ms", middle < 50),
        ("daemon's peak memory growth, whole hour streamed", "flat (a few MiB)", f"{growth:.1f} MiB", growth < 16),
    ]


def packets_section(r, separate_run=None):
    """The packets section; `separate_run` (when, load average) for a run of
    `bench/run.py --only packets`."""
    out = []
    p = out.append
    p(PACKETS_HEADING)
    p("")
    if separate_run:
        p(f"From a separate run (`bench/run.py --only packets`) of {separate_run[0]}, load average "
          f"{', '.join(f'{x:.2f}' for x in separate_run[1])} before it.")
        p("")
    p("Reproduce: `bench/run.py --only packets` (this section alone) or `make bench`. "
      "`build/bench/bench/packets_bench hour DIR` writes one hour of captures: 360 of 10 s, 200 packets a second "
      "of Ethernet/IPv4/UDP (60 to 800 bytes) whose destination port cycles over ten values, nanosecond pcap "
      "with the capture attributes. The window is one minute in the middle of the hour, the filter "
      f"`{r['filter']}` keeps a tenth of its packets ({r['packets_out']:,} packets out). Each program runs as a "
      "whole process, hot cache, interleaved with the others:")
    p("")
    p("```")
    p("packets_bench get ADDR '/v1/packets?start=S&end=E&filter=udp%20dst%20port%205003'   # faitra serve on the hour")
    p("mergecap -F nsecpcap -w - DIR/*.pcap | tcpdump -r - -w - 'udp dst port 5003' | editcap -A S -B E - -")
    p("for f in OVERLAPPING; do tcpdump -r $f -w - 'udp dst port 5003'; done")
    p("```")
    p("")
    p("| measure | target | this run | |")
    p("|---|---|---|---|")
    for name, target, value, ok in packets_targets(r):
        p(f"| {name} | {target} | {value} | {verdict(ok)} |")
    p("")
    p("| program | wall s | / faitra | CPU s | / faitra |")
    p("|---|---|---|---|---|")
    base, base_cpu = r["wall"]["faitra"]["median"], r["cpu"]["faitra"]["median"]
    for name, v in r["wall"].items():
        c = r["cpu"][name]
        p(f"| {name} | {fmt(v, digits=4)} | {v['median'] / base:.2f} | {fmt(c, digits=4)} | "
          f"{c['median'] / base_cpu:.2f} |")
    p("")
    p("CPU time is user plus system time of each program's processes; for faitra, the client's and the "
      "daemon's during the request. The machine is shared, so wall times carry the load of other work.")
    p("")
    p(f"The script reads all {r['files']} files; faitra and the tcpdump loop read the {r['overlapping']} captures "
      "that overlap the window (found with `GET /v1/captures`, overlap matching). Inside the request (client "
      f"clock, connection to last byte) faitra takes {fmt(r['faitra_request_s'], 1000, 2, ' ms')}. "
      f"The packets faitra returns are those of the script, byte for byte and in order: "
      f"{'yes' if r['same_packets'] else '**no**'}.")
    p("")
    p(f"Time to first byte (the file header, sent once the captures are selected, opened and probed and the "
      f"filter compiled), client clock, 20 requests each: with {r['catalogued']:,} captures catalogued (the hour "
      f"after 99,640 older one-packet captures, one a second), {fmt(r['ttfb_100k_ms'], digits=2, unit=' ms')} "
      f"for the same minute of the hour and {fmt(r['ttfb_100k_middle_ms'], digits=2, unit=' ms')} for a minute "
      f"in the middle of the older captures; {fmt(r['ttfb_360_ms'], digits=2, unit=' ms')} with the hour alone. "
      f"The selection alone, timed inside one process over the same catalogue (`packets_bench select`, median "
      f"of 21): {r['selection_ms']['recent']['cpu_ms']:.2f} ms of CPU ({r['selection_ms']['recent']['wall_ms']:.2f} "
      f"ms wall) for the recent window, {r['selection_ms']['middle']['cpu_ms']:.2f} ms of CPU "
      f"({r['selection_ms']['middle']['wall_ms']:.2f} ms wall) for the one in the middle.")
    p("")
    m = r["memory_kib"]
    p("Daemon memory (kB, from /proc): ")
    p("")
    p("| when | VmRSS | VmHWM (peak) |")
    p("|---|---|---|")
    for label, key in (("before the runs above", "before"), ("after the 1-minute windows", "after_minutes"),
                       (f"after a window covering the whole hour, no filter ({r['hour_bytes'] / 2**20:,.0f} MiB "
                        f"streamed in {r['hour_s']:.2f} s)", "after_hour")):
        p(f"| {label} | {m[key]['VmRSS']:,} | {m[key]['VmHWM']:,} |")
    p("")
    p(report_text("packets"))
    p("")
    return out


def write(results, docs, quick=False):
    os.makedirs(docs, exist_ok=True)
    plot_scan(results, docs)
    plot_freshness(results, docs)
    plot_throughput(results, docs)
    out = []
    p = out.append
    load_before = ", ".join(f"{x:.2f}" for x in results["load_before"])
    load_after = ", ".join(f"{x:.2f}" for x in results["load_after"])
    p("# Performance")
    p("")
    p("Generated by `make bench` (bench/run.py); do not edit by hand. "
      f"Run of {results['started']} on {results['cpus']} CPUs, kernel {results['kernel']}; "
      f"load average before {load_before}, after {load_after}.")
    if "rerun" in results:
        again = results["rerun"]
        p("")
        p(f"Measured again in a later run of {again['started']} (`bench/run.py --rerun "
          f"{','.join(again['stages'])}`, load average before "
          f"{', '.join(f'{x:.2f}' for x in again['load_before'])}): "
          + ", ".join(f"the {name} stage" for name in again["stages"]) + "; the rest is from the run above.")
    if quick:
        p("")
        p("**Quick run** (`--quick`): fewer repetitions and no cleanup run with its pauses.")
    p("")
    busy = max(results["load_before"][0], results["load_after"][0]) > results["cpus"]
    p("Figures are medians over repeated runs, with min-max in brackets. The machine is shared"
      + (" (other builds ran at the same time)" if busy else "")
      + ", so wall times carry noise; scan ratios are also given on "
      "CPU time (user + system) of each process, which load disturbs less.")
    p("")

    # ----------------------------------------------------------------- scan
    s100 = results["scan"]["100000"]
    def ratio(r, kind, name, ref="floor"):
        return r[kind][name]["median"] / r[kind][ref]["median"]
    lib_ratio = ratio(s100, "wall", "library")
    cli_ratio = ratio(s100, "wall", "faitra scan")
    py_vs_lib = s100["wall"]["python"]["median"] / s100["wall"]["library"]["median"]
    py_vs_cli = s100["wall"]["python"]["median"] / s100["wall"]["faitra scan"]["median"]
    t = TARGETS
    summary_rows = [
        ("library scan / floor, 100,000 captures", f"at most {t['library_vs_floor']}", f"{lib_ratio:.2f} "
         f"(CPU {ratio(s100, 'cpu', 'library'):.2f})", lib_ratio <= t["library_vs_floor"]),
        ("`faitra scan DIR > /dev/null` / floor, 100,000 captures", f"at most {t['command_vs_floor']}",
         f"{cli_ratio:.2f} (CPU {ratio(s100, 'cpu', 'faitra scan'):.2f})", cli_ratio <= t["command_vs_floor"]),
        ("Python script / library scan", f"at least {t['python_vs_scan']}", f"{py_vs_lib:.2f}",
         py_vs_lib >= t["python_vs_scan"]),
        ("Python script / `faitra scan`", "(no target)", f"{py_vs_cli:.2f}", None),
    ]
    idx = results["index"]
    by_path = idx["by_path_at_1m"]["cpu_ns"]["median"]
    by_time = idx["by_time_100_at_1m"]["cpu_ns"]["median"]
    inserts = 1e9 * 10000 / idx["insert_at_1m"]["cpu_ns"]["median"]
    mem = results["memory"]["bytes_per_record"]["median"]
    fr = results["freshness"]
    tp5 = results["throughput"]["tmpfs:5000"]
    cmp = results["comparison"]
    summary_rows += [
        ("by_path at 1M (CPU time)", "under 1 us", f"{by_path:.0f} ns", by_path < t["by_path_ns"]),
        ("by_time, 100 records, at 1M (CPU time)", "under 20 us", f"{by_time / 1000:.1f} us",
         by_time < t["by_time_ns"]),
        ("insert at 1M (CPU time)", "at least 1,000,000/s", f"{inserts:,.0f}/s", inserts >= t["inserts_per_s"]),
        ("memory per record at 1M", f"at most {t['bytes_per_record']} B", f"{mem:.0f} B",
         mem <= t["bytes_per_record"]),
        ("freshness p50", "unchanged or better (4.65 ms)", f"{fr['p50_us']['median'] / 1000:.2f} ms",
         fr["p50_us"]["median"] <= t["p50_us"]),
        ("freshness p99", "unchanged or better (10.10 ms)", f"{fr['p99_us']['median'] / 1000:.2f} ms",
         fr["p99_us"]["median"] <= t["p99_us"]),
    ]
    for op, label in (("by_path", "by_path"), ("by_time", "by_time (100)"), ("insert", "insert")):
        r = cmp[op]["ratio"]
        summary_rows.append((f"{label} / plain standard containers, same records, same process",
                             f"at most {t[op + '_vs_plain']}", f"{r['median']:.2f} ({r['min']:.2f}-{r['max']:.2f})",
                             r["median"] <= t[op + "_vs_plain"]))
    summary_rows += [
        ("loss at 5,000 captures/s (tmpfs)", "none", f"{tp5['lost']['max']:.0f} lost, writer reached "
         f"{tp5['achieved_rate']['median']:,.0f}/s", tp5["lost"]["max"] == 0 and
         tp5["achieved_rate"]["median"] >= 4900),
    ]
    dv = results.get("derivation")
    if dv:
        dr = dv["throughput"]["ratio"]
        lat = dv["latency"]
        summary_rows += [
            ("derivation / plain read(2), 2 GiB in page cache", "at most 1.3", f"{dr['median']:.2f} "
             f"({dv['throughput']['derive_gbps']['median']:.2f} GB/s)", dr["median"] <= 1.3),
            ("close to visible, 10 MB capture, p99", "10 ms + read time",
             f"{lat['p99_ms']['median']:.1f} ms (read {lat['read_ms']['median']:.1f} ms)",
             lat["p99_ms"]["median"] <= 10 + lat["read_ms"]["median"]),
        ]
    if "packets" in results:
        summary_rows += packets_targets(results["packets"])
    if "fleet" in results:
        summary_rows += fleet.targets(results["fleet"])
    p("## Targets")
    p("")
    p("| measure | target | this run | |")
    p("|---|---|---|---|")
    for name, target, value, ok in summary_rows:
        p(f"| {name} | {target} | {value} | {verdict(ok)} |")
    p("")
    p("Where a target is missed, the section of that benchmark says why and what it would cost.")
    p("")

    p("## 1. Start-up scan")
    p("")
    p("Reproduce: `make bench` (or `bench/run.py`); by hand, with captures written by "
      "`build/bench/bench/make_captures DIR N`:")
    p("")
    p("```")
    p("build/bench/bench/scan_floor DIR              # the floor: getdents64, stat, 4 x getxattr, keeps nothing")
    p("build/bench/bench/lib_scan DIR                # fs_tracker (monitoring off) into an fs_cache")
    p("build/bench/apps/faitra scan DIR > /dev/null  # the command")
    p("python3 bench/scan_script.py DIR              # what an operator would write")
    p("```")
    p("")
    p("Captures of 512 bytes with the four attributes, on the default temporary directory "
      "(ext4 here), hot cache; the four programs run interleaved, each timed as a whole process.")
    p("")
    for n, r in sorted(results["scan"].items(), key=lambda kv: int(kv[0])):
        p(f"**{int(n):,} captures**")
        p("")
        p("| program | wall s | wall / floor | CPU s | CPU / floor |")
        p("|---|---|---|---|---|")
        for name in ("floor", "library", "faitra scan", "python"):
            p(f"| {name} | {fmt(r['wall'][name], digits=3)} | {ratio(r, 'wall', name):.2f} | "
              f"{fmt(r['cpu'][name], digits=3)} | {ratio(r, 'cpu', name):.2f} |")
        p("")
        p(f"The library's own clock (tracker construction only) says {fmt(r['library_in_process'], digits=3)} s.")
        p("")
    p("![scan time against N](perf-scan.png)")
    p("")
    p(report_text("scan"))
    profiles = results.get("profile") or {}
    write_profile(p, profiles.get("scan"), "`lib_scan` over 100,000 captures")
    write_profile(p, profiles.get("command"), "`faitra scan` over 100,000 captures (output to /dev/null)")
    p("")

    p("## 2. Index operations at 1,000,000 records")
    p("")
    p("Reproduce: `build/bench/bench/cache_bench` (Google Benchmark; 48-character paths, 64-character "
      "hashes, start timestamps one second apart).")
    p("")
    p("Times are CPU time of the benchmark thread per operation (load on the shared machine inflates wall "
      "time more), with the wall-clock median beside it; the two-reader row is wall time.")
    p("")
    p("| operation | CPU time per operation | wall | rate |")
    p("|---|---|---|---|")
    names = {
        "insert_at_1m": "insert (batches of 10,000 beyond 1M)",
        "by_path_at_1m": "by_path (random paths)",
        "by_time_100_at_1m": "by_time returning 100 records",
        "update_start_ts_at_1m": "update moving start_ts by 12 h",
        "delete_by_path_at_1m": "delete_by_path (batches of 10,000)",
        "by_time_with_writer": "by_time (100) in 2 readers while 1 writer inserts",
    }
    for key, label in names.items():
        r = idx.get(key)
        if not r:
            continue
        batch = 10000 if key in ("insert_at_1m", "delete_by_path_at_1m") else 1
        per_op = {k: v / batch for k, v in r["ns" if key == "by_time_with_writer" else "cpu_ns"].items() if k != "runs"}
        wall = r["ns"]["median"] / batch
        rate = ""
        if batch > 1:
            rate = f"{1e9 / per_op['median']:,.0f}/s (wall {fmt(r['items_per_s'], digits=0)}/s)"
        if "writer_inserts_per_s" in r:
            rate = f"writer: {fmt(r['writer_inserts_per_s'], digits=0)} inserts/s"
        p(f"| {label} | {per_op['median']:.0f} ns ({per_op['min']:.0f}-{per_op['max']:.0f}) | {wall:.0f} ns | {rate} |")
    p("")
    p(f"Building the 1M catalogue from empty (memory benchmark): "
      f"{fmt(results['memory']['inserts_per_s'], digits=0)} inserts/s.")
    p("")
    p("### Against the plain standard containers")
    p("")
    p("Reproduce: `build/bench/bench/plain_comparison 1000000 7`. Both catalogues hold the same 1M shared records, "
      "inserted in the same random order, in one process; each round times both in turn (alternating which goes "
      "first) on the thread's CPU clock: by_path of 100,000 random paths, 2,000 by_time queries of 100 records, "
      "10,000 inserts beyond 1M. The plain catalogue (`bench/plain_catalogue.hpp`) is `std::map` by path, "
      "`std::multimap` by each timestamp and `std::unordered_map` by key over shared records, behind a "
      "`std::shared_mutex`.")
    p("")
    p("| operation | fs_cache per operation | plain per operation | fs_cache / plain |")
    p("|---|---|---|---|")
    for op, label in (("by_path", "by_path"), ("by_time", "by_time (100 records)"), ("insert", "insert")):
        r = results["comparison"][op]
        p(f"| {label} | {fmt(r['faitra_ns'], digits=0, unit=' ns')} | {fmt(r['plain_ns'], digits=0, unit=' ns')} | "
          f"{fmt(r['ratio'])} |")
    p("")
    p(report_text("index"))
    p("")
    write_profile(p, profiles.get("by_path_at_1m"), "`cache_bench` running by_path at 1M records "
                  "(the 1M-record build included)")
    p("")
    write_profile(p, profiles.get("by_time_100_at_1m"), "`cache_bench` running by_time (100 records) at 1M "
                  "records (the 1M-record build included)")
    p("")

    p("## 3. Memory per catalogued capture")
    p("")
    p("Reproduce: `build/bench/bench/memory_bench 1000000` (RSS growth while 1M records are inserted, / N).")
    p("")
    p(f"Bytes per record: {fmt(results['memory']['bytes_per_record'], digits=0)}.")
    p("")
    p(report_text("memory"))
    p("")

    p("## 4. Freshness")
    p("")
    p("Reproduce: `build/bench/bench/freshness_bench 1000`.")
    p("")
    p("| p50 | p99 | max | missed |")
    p("|---|---|---|---|")
    p(f"| {fmt(fr['p50_us'], 0.001, 2, ' ms')} | {fmt(fr['p99_us'], 0.001, 2, ' ms')} | "
      f"{fmt(fr['max_us'], 0.001, 1, ' ms')} | {fr['missed']} |")
    p("")
    p("![freshness histogram](perf-freshness.png)")
    p("")
    p(report_text("freshness"))
    p("")

    p("## 5. Event throughput")
    p("")
    p("Reproduce: `build/bench/bench/throughput_bench RATE 2` (2 s of captures at RATE per second; "
      "`TMPDIR=/dev/shm` for tmpfs).")
    p("")
    p("| file system | rate tried | rate achieved by the writer | lost | catalogue complete after the writer stopped |")
    p("|---|---|---|---|---|")
    for key, r in results["throughput"].items():
        p(f"| {r['fs']} | {r['rate_tried']:,}/s | {fmt(r['achieved_rate'], digits=0)}/s | "
          f"{r['lost']['max']:.0f} | {fmt(r['drain_ms'], digits=0, unit=' ms')} |")
    p("")
    p("![throughput](perf-throughput.png)")
    p("")
    p(report_text("throughput"))
    p("")

    p("## 6. Cleanup")
    p("")
    p("Reproduce: `build/bench/bench/cleanup_bench no-pauses` and `build/bench/bench/cleanup_bench pauses` "
      "(root: mounts its own tmpfs).")
    p("")
    c = results["cleanup"]
    p("| run | whole run | removal phase | files removed per second | catalogue empty after |")
    p("|---|---|---|---|---|")
    p(f"| without the pauses | {fmt(c['no_pauses']['run_s'], digits=3, unit=' s')} | "
      f"{fmt(c['no_pauses']['removal_s'], digits=3, unit=' s')} | {fmt(c['no_pauses']['files_per_s'], digits=0)} | "
      f"{fmt(c['no_pauses']['catalogue_empty_s'], digits=3, unit=' s')} |")
    if "pauses" in c:
        p(f"| with the two 15 s pauses | {fmt(c['pauses']['run_s'], digits=3, unit=' s')} | "
          f"{fmt(c['pauses']['removal_s'], digits=3, unit=' s')} | {fmt(c['pauses']['files_per_s'], digits=0)} | |")
    p("")
    p(report_text("cleanup"))
    p("")
    if dv:
        p("## 7. Metadata derivation")
        p("")
        p("Reproduce: `build/bench/bench/derive_bench DIR 2048 5` (2 GiB of nanosecond pcap in 128 MiB "
          "captures, page cache warm, one thread) and `bench/derive_latency.py build/bench/apps/faitra 200 10`.")
        p("")
        t = dv["throughput"]
        p("| pass over 2 GiB | seconds | GB/s |")
        p("|---|---|---|")
        p(f"| plain read(2), 1 MiB blocks | {fmt(t['read_s'], digits=3)} | {t['read_gbps']['median']:.2f} |")
        p(f"| derivation (times, count, XXH3-128) | {fmt(t['derive_s'], digits=3)} | {t['derive_gbps']['median']:.2f} |")
        p(f"| ratio | {fmt(t['ratio'], digits=3)} | |")
        p("")
        lat = dv["latency"]
        p(f"Close of a {lat['mib']} MiB capture to its times in `/v1/captures/lookup`, over {lat['files']} files: "
          f"p50 {fmt(lat['p50_ms'], digits=1, unit=' ms')}, p99 {fmt(lat['p99_ms'], digits=1, unit=' ms')}, "
          f"max {fmt(lat['max_ms'], digits=1, unit=' ms')}; reading one such file takes "
          f"{fmt(lat['read_ms'], digits=1, unit=' ms')}.")
        p("")
        p(report_text("derivation"))
        p("")

    out.extend(hard_limit_section(results))
    if "packets" in results:
        out.extend(packets_section(results["packets"]))
    if "fleet" in results:
        out.extend(fleet.section(results["fleet"]))
    p("## Design constants")
    p("")
    p(report_text("constants"))
    p("")
    with open(os.path.join(docs, "performance.md"), "w") as f:
        f.write("\n".join(out))


HARD_LIMIT_TITLE = "## 8. Hard limit: a disk that never fills"


def hard_limit_section(results, separate_run=False):
    """The hard limit's section: the highest usage a paced writer reached on
    a 128 MiB tmpfs, with --hard-limit 0.97 and without."""
    h = results["hard_limit"]
    lines = [HARD_LIMIT_TITLE, ""]
    if separate_run:
        load = ", ".join(f"{x:.2f}" for x in results["load"])
        lines += [f"From a separate run (`bench/run.py --only hard-limit`) of {results['started']}, "
                  f"load average {load} before it.", ""]
    lines += ["Reproduce: `build/bench/bench/hard_limit_bench build/bench/apps/faitra on|off MB_S 20` (root: "
              "mounts a 128 MiB tmpfs; 4 MiB captures in 64 KiB writes paced to MB_S, 0 for as fast as they go; "
              "trigger 0.9, stop 0.8; statvfs sampled every 100 us).", "",
              "| writer pace | hard limit | paced writer achieved | highest fraction in use | samples at 100 % | "
              "lost to a full disk | captures the hard limit deleted |",
              "|---|---|---|---|---|---|---|"]
    for key, r in h.items():
        pace = f"{r['rate']} MB/s" if r["rate"] else "unpaced"
        lines.append(f"| {pace} | {'0.97' if r['mode'] == 'on' else 'off'} | {fmt(r['achieved_mb_s'], digits=0)} MB/s | "
                     f"{fmt(r['highest_fraction'], digits=4)} | {r['full_samples']['max']:.0f} | "
                     f"{r['lost_mib']['max']:.0f} MiB | {fmt(r['hard_limit_deletions'], digits=0)} |")
    lines += ["", report_text("hard_limit"), ""]
    return lines


def write_profile(p, prof, what):
    if not prof:
        return
    p("")
    p(f"perf profile of {what} (share of samples):")
    p("")
    p("| object | share |")
    p("|---|---|")
    for percent, name in prof["dso"]:
        p(f"| {name} | {percent:.1f} % |")
    p("")
    p("| object, symbol | share |")
    p("|---|---|")
    for percent, name in prof["symbols"]:
        p(f"| `{name.replace(' - -', '').strip()}` | {percent:.1f} % |")


def report_text(section):
    with open(os.path.join(os.path.dirname(os.path.abspath(__file__)), "report", section + ".md")) as f:
        return f.read().strip()

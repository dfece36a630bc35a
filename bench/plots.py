"""The plots of docs/performance.md (gnuplot, PNG), from the results of
bench/run.py."""
import os
import subprocess
import tempfile


def gnuplot(script):
    with tempfile.NamedTemporaryFile("w", suffix=".gp", delete=False) as f:
        f.write(script)
        name = f.name
    try:
        subprocess.run(["gnuplot", name], check=True)
    finally:
        os.unlink(name)


def plot_scan(results, docs):
    rows = []
    for n, r in sorted(results["scan"].items(), key=lambda kv: int(kv[0])):
        w = r["wall"]
        rows.append(f"{n} {w['floor']['median']} {w['library']['median']} {w['faitra scan']['median']} "
                    f"{w['python']['median']}")
    data = "\n".join(rows)
    gnuplot(f"""set terminal pngcairo noenhanced size 800,480
set output '{docs}/perf-scan.png'
set title 'Start-up scan, hot cache (median wall time)'
set xlabel 'captures'
set ylabel 'seconds'
set logscale xy
set key top left
set grid
$d << EOD
{data}
EOD
plot $d using 1:2 with linespoints title 'floor (C, syscalls only)', \\
     $d using 1:3 with linespoints title 'library (fs_tracker into fs_cache)', \\
     $d using 1:4 with linespoints title 'faitra scan > /dev/null', \\
     $d using 1:5 with linespoints title 'Python os.scandir/stat/getxattr'
""")


def plot_freshness(results, docs):
    latencies = results["freshness"]["latencies_us"]
    data = "\n".join(f"{x / 1000.0:.3f}" for x in latencies)
    gnuplot(f"""set terminal pngcairo noenhanced size 800,480
set output '{docs}/perf-freshness.png'
set title 'Freshness: final close to visible through by_path ({len(latencies)} captures)'
set xlabel 'milliseconds (1 ms bins; the 10 ms poll is the floor)'
set ylabel 'captures'
set style fill solid 0.6
set boxwidth 0.9 relative
set xrange [0:25]
set grid ytics
bin(x) = floor(x) + 0.5
$d << EOD
{data}
EOD
plot $d using (bin($1)):(1.0) smooth frequency with boxes notitle
""")


def plot_throughput(results, docs):
    rows = []
    for key, r in results["throughput"].items():
        if r["fs"] != "tmpfs":
            continue
        rows.append(f"{r['rate_tried']} {r['achieved_rate']['median']} {r['lost']['median']}")
    data = "\n".join(sorted(rows, key=lambda line: float(line.split()[0])))
    most_lost = max(float(line.split()[2]) for line in rows)
    y2_top = most_lost * 1.2 if most_lost > 0 else 10
    gnuplot(f"""set terminal pngcairo noenhanced size 800,480
set output '{docs}/perf-throughput.png'
set title 'Event throughput on tmpfs (median of runs)'
set xlabel 'captures per second tried'
set ylabel 'captures per second'
set y2label 'captures lost'
set logscale x
set y2range [0:{y2_top}]
set ytics nomirror
set y2tics
set key top left
set grid
$d << EOD
{data}
EOD
plot $d using 1:1 with lines dt 2 title 'rate tried', \\
     $d using 1:2 with linespoints title 'rate the writer achieved', \\
     $d using 1:3 axes x1y2 with linespoints title 'lost (right axis)'
""")

#!/usr/bin/env bash
# Draws the growth plot of docs/performance.md from the data file that
# `commit_bench.py --growth --data FILE` writes.
#   bench/commit/plot_growth.sh DATA_FILE PNG_FILE
set -euo pipefail
data=${1:?usage: plot_growth.sh DATA_FILE PNG_FILE}
png=${2:?usage: plot_growth.sh DATA_FILE PNG_FILE}
command -v gnuplot >/dev/null || { echo "plot_growth: gnuplot is missing (scripts/install-deps.sh)" >&2; exit 2; }
gnuplot <<GNUPLOT
set terminal pngcairo size 900,560 font "DejaVu Sans,10"
set output "${png}"
set title "Commit check of the element by size: CPU time (user + system), median"
set xlabel "L3 interfaces (other tables in proportion)"
set ylabel "CPU time [ms]"
set logscale xy
set xtics (16, 64, 256, 1024)
set grid
set key bottom right
set y2label "ipapp-check / floor"
set y2range [0:4]
set y2tics 0.5
set ytics nomirror
plot "${data}" using 1:2 with linespoints lw 2 pt 7 title "ipapp-check (one process, --keep-going)", \
     "${data}" using 1:3 with linespoints lw 2 pt 5 title "floor: yanglint -t config, running + candidate", \
     "${data}" using 1:(\$2/\$3) axes x1y2 with linespoints dt 2 pt 6 title "ratio (right axis)"
GNUPLOT

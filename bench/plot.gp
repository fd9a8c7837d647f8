# Plots throughput and resident size against table size for two builds, from
# the rows that summarize.py prints in sizes mode.
#   gnuplot -e "before='before.dat'; after='after.dat'; out='docs/performance.png'" bench/plot.gp
set terminal pngcairo size 1000,420 font ",10"
set output out
set multiplot layout 1,2
set logscale x
set xlabel "byte-range locks held (over a tenth as many files)"
set grid
set key top left
set title "lock/unlock, 64 clients"
set ylabel "requests per second"
set yrange [0:*]
plot before using 1:4 with linespoints title "before", \
     after using 1:4 with linespoints title "after"
set title "daemon resident size"
set ylabel "MiB"
set logscale y
set yrange [*:*]
plot before using 1:3 with linespoints title "before", \
     after using 1:3 with linespoints title "after"
unset multiplot

# Plots throughput, CPU per request and resident size against table size for
# two builds measured in alternation, from what summarize.py prints for
# `compare.sh sizes --against=BEFORE_BUILD`: block 0 is the build under test,
# block 1 the one it was measured against.
#   python3 bench/summarize.py sizes RESULTS | grep -v preload > sizes.dat
#   gnuplot -e "data='sizes.dat'; out='docs/performance.png'" bench/plot.gp
set terminal pngcairo size 1400,420 font ",10"
set output out
set multiplot layout 1,3
set logscale x
set xlabel "byte-range locks held (over a tenth as many files)"
set grid
set key top left
set title "lock/unlock, 64 clients"
set ylabel "requests per second"
set yrange [0:*]
plot data index 1 using 1:4 with linespoints title "before", \
     data index 0 using 1:4 with linespoints title "after"
set title "daemon CPU per request (steadier on a shared machine)"
set ylabel "microseconds"
plot data index 1 using 1:5 with linespoints title "before", \
     data index 0 using 1:5 with linespoints title "after"
set title "daemon resident size"
set ylabel "MiB"
set logscale y
set yrange [*:*]
plot data index 1 using 1:3 with linespoints title "before", \
     data index 0 using 1:3 with linespoints title "after"
unset multiplot

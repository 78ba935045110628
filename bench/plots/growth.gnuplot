# Columns: how many there are, and milliseconds of the daemon and of its floor.
set logscale xy
set xlabel things . ", logarithmic"
set ylabel "milliseconds, logarithmic"
set format x "10^%T"
set format x "%.0f"
set format y "%g"
set grid xtics
set offsets graph 0.03, graph 0.05, graph 0.05, graph 0.05
plot $data using 1:3 with linespoints linewidth 3 pointtype 5 linecolor rgb grey \
         title "floor: the same commands, bare", \
     $data using 1:2 with linespoints linewidth 2 pointtype 7 linecolor rgb blue title "daemon"

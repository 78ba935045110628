# Columns: how many there are, and milliseconds of the daemon and of its baseline.
set logscale xy
set xlabel things . ", logarithmic"
set ylabel "milliseconds, logarithmic"
set format x "%.0f"
set format y "%g"
set grid xtics
stats $data using 1 nooutput name "count"
stats $data using 2 nooutput name "daemon"
stats $data using 3 nooutput name "baseline"
lowest = daemon_min < baseline_min ? daemon_min : baseline_min
highest = daemon_max > baseline_max ? daemon_max : baseline_max
set xrange [count_min / 1.9:count_max * 1.6]
set yrange [lowest / 2:highest * 2]
plot $data using 1:3 with linespoints linewidth 3 pointtype 5 linecolor rgb grey \
         title "baseline", \
     "" using 1:2 with linespoints linewidth 2 pointtype 7 linecolor rgb blue title "daemon", \
     "" using 1:2:(sprintf("%.3g", $2)) with labels offset 0,1 textcolor rgb text notitle

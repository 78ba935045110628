# Columns: connections, and logins with their logouts in a second.
set logscale x 2
set xlabel "connections"
set ylabel "logins with logouts in a second"
set xrange [0.85:18.8]
set yrange [0:*]
set xtics scale 0 ()
set for [i = 1:|connections|] xtics add (sprintf("%d", connections[i]) connections[i])
set offsets graph 0, graph 0, graph 0.12, graph 0
set tmargin 1
unset key
plot $data using 1:2 with linespoints linewidth 2 pointtype 7 linecolor rgb blue, \
     "" using 1:2:(sprintf("%.0f", $2)) with labels offset 0,1 textcolor rgb text

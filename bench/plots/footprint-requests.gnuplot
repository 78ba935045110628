# Columns: request, and milliseconds of the daemon and of its baseline.
set ylabel "milliseconds"
set yrange [0:*]
set xrange [-0.6:requests - 0.4]
set xtics scale 0
set boxwidth 0.3
set offsets graph 0, graph 0, graph 0.1, graph 0
plot $data using ($0 - 0.17):2 with boxes linecolor rgb blue title "daemon", \
     "" using ($0 + 0.17):3 with boxes linecolor rgb grey title "baseline", \
     "" using 0:(0):xtic(1) with points pointtype -1 notitle, \
     "" using ($0 - 0.17):2:(sprintf("%.2f", $2)) with labels offset 0,0.7 \
         textcolor rgb text notitle, \
     "" using ($0 + 0.17):3:(sprintf("%.2f", $3)) with labels offset 0,0.7 \
         textcolor rgb text notitle

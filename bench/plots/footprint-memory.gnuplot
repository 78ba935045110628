# Columns: moment, and KiB: private dirty, proportional, resident, the target for resident.
set ylabel "memory, MiB"
set yrange [0:*]
set xrange [-0.6:moments - 0.4]
set xtics scale 0
set boxwidth 0.5
set offsets graph 0, graph 0, graph 0.05, graph 0
set key maxcols 2
plot $data using 0:($4 / 1024):xtic(1) with boxes linecolor rgb grey \
         title "in pages that others share, their part", \
     $data using 0:($3 / 1024) with boxes linecolor rgb green title "the daemon's part of these", \
     $data using 0:($2 / 1024) with boxes linecolor rgb blue title "private and written to", \
     $data using 0:($5 / 1024):(0.32) with xerrorbars pointtype -1 linewidth 2 linecolor rgb red \
         title "target for all of it", \
     for [i = 2:4] $data using 0:(column(i) / 1024):(sprintf("%.1f", column(i) / 1024)) \
         with labels offset 5.2,-0.5 left textcolor rgb text font "sans-serif,12" notitle

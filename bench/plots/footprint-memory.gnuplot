# Columns: moment, and KiB: private dirty, proportional, resident, the target for resident.
set ylabel "memory, MiB"
set yrange [0:8]
set xrange [-0.6:moments - 0.2]
set xtics scale 0
set boxwidth 0.5
set key maxcols 2 width -6 at graph 0,1.2
set tmargin 4.4
mib(i) = column(i) / 1024
plot $data using 0:(mib(4)):xtic(1) with boxes linecolor rgb grey \
         title "the others' part of shared pages", \
     "" using 0:(mib(3)) with boxes linecolor rgb green title "its own part of shared pages", \
     "" using 0:(mib(2)) with boxes linecolor rgb blue title "private and written to", \
     "" using 0:(mib(5)):(0.25) with xerrorbars pointtype -1 linewidth 2 linecolor rgb red \
         title "target for all of it", \
     for [i = 2:4] "" using ($0 + 0.28):(mib(i)):(sprintf("%.1f", mib(i))) with labels left \
         offset 0,-0.4 textcolor rgb text font "sans-serif,12" notitle

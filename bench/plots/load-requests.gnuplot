# Columns: request, and its 50th, 90th, 99th percentile and maximum in milliseconds.
set logscale y
set ylabel "milliseconds, logarithmic"
set format y "%g"
set xrange [-0.5:requests - 0.5]
set xtics scale 0
set offsets graph 0, graph 0, graph 0.05, graph 0.05
plot $data using 0:2:2:5:xtic(1) with yerrorbars pointtype -1 linewidth 1.5 linecolor rgb grey notitle, \
     $data using 0:2 with points pointtype 7 pointsize 1.1 linecolor rgb blue title "50th percentile", \
     $data using 0:3 with points pointtype 5 pointsize 1 linecolor rgb green title "90th", \
     $data using 0:4 with points pointtype 9 pointsize 1.2 linecolor rgb orange title "99th", \
     $data using 0:5 with points pointtype 13 pointsize 1.2 linecolor rgb red title "maximum", \
     for [i = 2:5] $data using ($0 + 0.06):i:(sprintf("%.3g", column(i))) \
         with labels left textcolor rgb text font "sans-serif,12" notitle

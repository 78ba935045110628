# Columns: request, and its 50th, 90th, 99th percentile and maximum in milliseconds.
set logscale y
set ylabel "milliseconds, logarithmic"
set format y "%g"
set xrange [-0.4:requests - 0.4]
set xtics scale 0
stats $data using 2 nooutput name "median"
stats $data using 5 nooutput name "maximum"
set yrange [median_min / 1.6:maximum_max * 1.6]
plot $data using 0:2:2:5:xtic(1) with yerrorbars pointtype -1 linewidth 1.5 \
         linecolor rgb grey notitle, \
     "" using 0:2 with points pointtype 7 pointsize 1 linecolor rgb blue title "50th percentile", \
     "" using 0:3 with points pointtype 5 pointsize 0.9 linecolor rgb green title "90th", \
     "" using 0:4 with points pointtype 9 pointsize 1.1 linecolor rgb orange title "99th", \
     "" using 0:5 with points pointtype 13 pointsize 1.1 linecolor rgb red title "maximum", \
     for [i = 2:4:2] "" using ($0 + 0.06):i:(sprintf("%.3g", column(i))) with labels left \
         textcolor rgb text font "sans-serif,12" notitle, \
     for [i = 3:5:2] "" using ($0 - 0.06):i:(sprintf("%.3g", column(i))) with labels right \
         textcolor rgb text font "sans-serif,12" notitle

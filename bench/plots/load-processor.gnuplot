# Columns: label, and microseconds of nginx, store and daemon. Two rows for each of two requests,
# whose scales differ.
set multiplot layout 1,2 margins 0.08,0.98,0.1,0.88 spacing 0.09
set yrange [0:*]
set offsets graph 0, graph 0, graph 0.1, graph 0
set boxwidth 0.55
set xtics scale 0
sum(n) = column(2) + (n > 1 ? column(3) : 0) + (n > 2 ? column(4) : 0)

do for [i = 0:1] {
    first = 2 * i
    set title (i == 0 ? "a login and its logout" : "a read of a session") . ", µs"
    set xrange [-0.6:1.6]
    if (i == 0) {
        unset key
    } else {
        # Above the bar that is low.
        set key vertical top right at graph 1,1
    }
    plot $data every ::first::(first + 1) using 0:(sum(3)):xtic(1) with boxes \
             linecolor rgb green title "daemon", \
         "" every ::first::(first + 1) using 0:(sum(2)) with boxes \
             linecolor rgb orange title "store", \
         "" every ::first::(first + 1) using 0:(sum(1)) with boxes \
             linecolor rgb blue title "nginx", \
         "" every ::first::(first + 1) using 0:(sum(3)):(sprintf("%.0f", sum(3))) with labels \
             offset 0,0.7 textcolor rgb text notitle
}
unset multiplot

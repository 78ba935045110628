# Columns: label, and microseconds of nginx, store and daemon. Two rows for each of two requests,
# whose scales differ.
set multiplot layout 1,2 margins 0.09,0.98,0.12,0.82 spacing 0.1
set yrange [0:*]
set offsets graph 0, graph 0, graph 0.08, graph 0
set boxwidth 0.55
unset xtics
set xtics scale 0
sum(n) = column(2) + (n > 1 ? column(3) : 0) + (n > 2 ? column(4) : 0)

do for [request = 0:1] {
    set title request == 0 ? "a login and its logout" : "a read of a session"
    set xrange [2 * request - 0.6:2 * request + 1.6]
    if (request == 0) {
        set ylabel "processor time, µs"
        set key at screen 0.08, screen 0.97
    } else {
        unset ylabel
        unset key
    }
    range = sprintf("every ::%d::%d", 2 * request, 2 * request + 1)
    plot $data every ::(2 * request)::(2 * request + 1) using ($0 + 2 * request):(sum(3)):xtic(1) \
             with boxes linecolor rgb green title "daemon", \
         $data every ::(2 * request)::(2 * request + 1) using ($0 + 2 * request):(sum(2)) \
             with boxes linecolor rgb orange title "store", \
         $data every ::(2 * request)::(2 * request + 1) using ($0 + 2 * request):(sum(1)) \
             with boxes linecolor rgb blue title "nginx", \
         $data every ::(2 * request)::(2 * request + 1) \
             using ($0 + 2 * request):(sum(3)):(sprintf("%.0f", sum(3))) \
             with labels offset 0,0.7 textcolor rgb text notitle
}
unset multiplot

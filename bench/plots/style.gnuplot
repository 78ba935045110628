# What all pictures have in common. bench/draw knows these colours, too: each has another one for
# dark surroundings.
text = "#22262a"
axis = "#5c646c"
blue = "#2a6fb5"
orange = "#d07a1e"
green = "#3a8a58"
grey = "#a7afb7"
red = "#b23a48"

set encoding utf8
set terminal svg size width,height fixed font "sans-serif,14" background "#fcfcfb" noenhanced \
    linewidth 1
set border 3 linecolor rgb axis
set tics textcolor rgb text nomirror
set title textcolor rgb text
set xlabel textcolor rgb text
set ylabel textcolor rgb text
set key textcolor rgb text left top horizontal Left reverse samplen 1.5 width 2 at graph 0,1.14
set tmargin 3.2
set grid ytics linetype 1 linewidth 1 linecolor rgb "#dfe3e6" dashtype solid
set style fill solid 1 noborder

# Draws what growth has measured: gnuplot -e "input='FILE'; output='FILE'" plot.gp

set terminal svg size 900,760 font "sans-serif,12" background "white"
set output output
set logscale xy
set format x "10^{%L}"
set xrange [700:2e7]
set grid
stats input using 1 nooutput
set multiplot layout 2,1

set key outside right
set ylabel "time, ns for each"
set yrange [0.1:20000]
plot for [i=0:STATS_blocks-1] input index i using 1:($2 > 0 ? $2 : 1/0) with linespoints title columnheader(1)

set ylabel "memory at its peak, bytes for each"
set xlabel "segments or references"
set yrange [1:1000]
plot for [i=0:STATS_blocks-1] input index i using 1:($3 > 1 ? $3 : 1) with linespoints title columnheader(1)

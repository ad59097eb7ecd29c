# Plots the output of growth: gnuplot -e "input='FILE'; output='FILE'" plot.gp

set terminal svg size 900,1100 font "sans-serif,12" background "white"
set output output
set logscale xy
set format x "10^{%L}"
set xrange [700:2e7]
set grid
set lmargin 12
set key outside right
stats input using 1 nooutput
library = STATS_blocks - 3 # the last two blocks are the command
set multiplot layout 3,1

set ylabel "time, ns for each"
set yrange [0.1:20000]
plot for [i=0:library] input index i using 1:2 with linespoints title columnheader(1)

set ylabel "memory at its peak, bytes for each"
set yrange [1:1000]
plot for [i=0:library] input index i using 1:($3 > 1 ? $3 : 1) with linespoints title columnheader(1)

set ylabel "memory of the process, MiB in all"
set xlabel "segments or references"
set yrange [1:2000]
plot for [i=library+1:library+2] input index i using 1:3 with linespoints title columnheader(1), \
    x * 52 / 2**20 with lines dashtype 2 title "the record itself"

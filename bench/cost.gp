# Draws what `rm_bench --plot=DIRECTORY` has measured: cost against size, of the library and of the
# bare way.
#
#   gnuplot -e "data='DIRECTORY'; out='FILE.svg'" bench/cost.gp
set terminal svg size 960,400 dynamic font "Helvetica,13" background rgb "white"
set output out
set multiplot layout 1,2 margins 0.1,0.97,0.15,0.88 spacing 0.1,0.1

set logscale xy
set grid xtics ytics linecolor rgb "#dddddd" linewidth 1
set border 3 linecolor rgb "#555555"
set tics nomirror
set key top left Left reverse samplen 2 spacing 1.1
set style line 1 linecolor rgb "#b5402a" linewidth 2 pointtype 7 pointsize 0.7
set style line 2 linecolor rgb "#2a6fb5" linewidth 2 pointtype 7 pointsize 0.7
set style line 3 linecolor rgb "#999999" linewidth 2 pointtype 6 pointsize 0.7
set style line 4 linecolor rgb "#999999" linewidth 2 pointtype 6 pointsize 0.7 dashtype 2

set title "replacing one block, anywhere in the heap"
set xlabel "live blocks of 20 to 219 bytes, in one tag"
set ylabel "nanoseconds" offset 2
set xrange [8:1500000]
set yrange [5:1000000]
set xtics ("10" 10, "100" 100, "1,000" 1000, "10,000" 1e4, "100,000" 1e5, "1,000,000" 1e6)
set ytics ("10" 10, "100" 100, "1,000" 1000, "10,000" 1e4, "100,000" 1e5, "1,000,000" 1e6)
plot data."/memory-replace.dat" using 1:2 with linespoints linestyle 1 title "tagged memory", \
     data."/memory-walk.dat" using 1:2 with linespoints linestyle 2 \
         title "a plain walk", \
     data."/memory-replace.dat" using 1:3 with linespoints linestyle 3 title "malloc and free"

set title "one positioned transfer on an open file"
set xlabel "bytes"
unset logscale y
set xrange [50:80000]
set ylabel "nanoseconds" offset 1
set yrange [0:*]
set xtics ("64" 64, "512" 512, "4,096" 4096, "16,384" 16384, "65,536" 65536)
set ytics autofreq
set format y "%.0f"
set key bottom right
plot data."/file-write.dat" using 1:2 with linespoints linestyle 1 title "rm\\_fileSeekWrite", \
     "" using 1:3 with linespoints linestyle 3 title "lock, lseek, write", \
     data."/file-read.dat" using 1:2 with linespoints linestyle 2 title "rm\\_fileSeekRead", \
     "" using 1:3 with linespoints linestyle 4 title "lock, lseek, read"
unset multiplot

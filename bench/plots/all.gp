# gnuplot -e "data='DIR'; out='DIR'" all.gp: the columns that bench_report wrote, as SVG.
set terminal svg size 820,460 font "sans-serif,12" background rgb "white"
set grid ytics lc rgb "#dddddd"
set key outside right top
set border 3
set tics nomirror out
set datafile missing "?"
set style line 1 lw 3 pt 7 ps .7 lc rgb "#c0392b"
set style line 2 lw 1.5 pt 6 ps .6 lc rgb "#95a5a6"
set style line 3 lw 1.5 pt 6 ps .6 lc rgb "#34495e"
set style line 4 lw 1.5 pt 5 ps .6 lc rgb "#2980b9"
set style line 5 lw 1.5 pt 9 ps .6 lc rgb "#27ae60"
set style line 6 lw 1.5 pt 11 ps .6 lc rgb "#8e44ad"
set style line 7 lw 1.5 pt 13 ps .6 lc rgb "#d68910"

set output out."/lookup.svg"
set title "A lookup as the store grows (uniform hits, one process)"
set xlabel "records"; set ylabel "ns"
set logscale xy
set format x "10^{%T}"
plot for [i=2:8] data."/lookup.dat" using 1:i with linespoints ls i-1 title columnheader(i) noenhanced

set output out."/vector.svg"
set title "A lookup of a variable value (solid: fresh store, dashed: after churn)"
set xlabel "bytes of the value"
unset logscale
set format x "%g"
plot for [i=2:5] data."/vector.dat" using 1:i with linespoints ls (i==2?1:i==3?2:i==4?3:4) dt 1 title columnheader(i) noenhanced, \
     for [i=6:9] data."/vector.dat" using 1:i with linespoints ls (i==6?1:i==7?2:i==8?3:4) dt 3 notitle

set output out."/latency.svg"
set title "A reader beside a writer at full speed"
set xlabel "percentile"; set logscale y
plot for [i=2:6] data."/latency.dat" using 0:i:xtic(1) with linespoints ls (i==2?1:i==3?3:i+0) title columnheader(i) noenhanced

set output out."/growth.svg"
set title "Single adds through all growths, from 1,000 records to 4 million"
set ylabel "us"
plot for [i=2:4] data."/growth.dat" using 0:i:xtic(1) with linespoints ls (i==2?1:i==3?4:5) title columnheader(i) noenhanced

set output out."/field.svg"
set title "One operation, by contestant"
set xlabel ""; set ylabel "ns"
set yrange [10:*]
set style data histograms
set style histogram clustered gap 1
set style fill solid .9 noborder
set xtics rotate by -35 left noenhanced
set bmargin 6
plot data."/field.dat" using 2:xtic(1) title columnheader(2) noenhanced lc rgb "#c0392b", \
     for [i=3:6] "" using i title columnheader(i) noenhanced

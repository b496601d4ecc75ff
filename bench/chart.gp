# Draws one chart of ratios: gnuplot -e "data='FILE'; picture='FILE'; heading='TEXT'" chart.gp
set terminal svg size 1000,500 dynamic noenhanced font "sans-serif,13" background "white"
set output picture
set title heading
set style data histograms
set style histogram errorbars gap 1.5 lw 1
set style fill solid 0.9 noborder
set errorbars linecolor rgb "black"
set xtics rotate by -40 nomirror
set grid ytics
set yrange [0:*]
set key outside center top horizontal
plot data using 2:3:4:xtic(1) title "library" lc rgb "#1f77b4", \
     data using 5:6:7 title "libmnl" lc rgb "#9f9f9f", \
     data using 8:9:10 title "libnl" lc rgb "#d62728", \
     1 notitle lc rgb "black" dt 2

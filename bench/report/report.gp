# Draws report.png from sweep.dat and gemm.dat (written by report.py).
# usage: gnuplot -e "dir='build/bench'" bench/report/report.gp
if (!exists("dir")) dir = "build/bench"

set terminal pngcairo size 1400,560 font "Sans,11"
set output dir."/report.png"
set multiplot layout 1,2 title "nerva against the roof (best of the repetitions; higher is better)" font "Sans,13"
set grid lc rgb "#dddddd"
set key top right box opaque

# Left: layout moves against one-thread memcpy over array sizes.
set title "Copy and reformat of [w, w, 64, 16] floats"
set logscale x 2
set xlabel "array size (MiB)"
set ylabel "GB/s (array bytes per second)"
set yrange [0:*]
set format x "%g"
plot dir."/sweep.dat" using 1:2 with linespoints lw 4 dt 2 pt 7 lc rgb "#444444" title "memcpy, 1 thread (roof)", \
     ""  using 1:3 with linespoints lw 2 pt 5 lc rgb "#1f77b4" title "simple copy (TBB)", \
     ""  using 1:4 with linespoints lw 2 pt 9 lc rgb "#d62728" title "Permute<4> KORVAL > chained", \
     ""  using 1:5 with linespoints lw 2 pt 11 lc rgb "#ff7f0e" title "Permute<4> chained > KORVAL"

# Right: tbb_gemm against one call of the threaded OpenBLAS, square products.
set title "GEMM, m = n = k, all cores"
set xlabel "m = n = k"
set ylabel "GFLOP/s"
set key bottom right
plot dir."/gemm.dat" using 1:3 with linespoints lw 4 dt 2 pt 7 lc rgb "#444444" title "OpenBLAS threaded, float (roof)", \
     ""  using 1:2 with linespoints lw 2 pt 5 lc rgb "#1f77b4" title "tbb\\_gemm, float", \
     ""  using 1:5 with linespoints lw 4 dt 2 pt 6 lc rgb "#999999" title "OpenBLAS threaded, double (roof)", \
     ""  using 1:4 with linespoints lw 2 pt 4 lc rgb "#2ca02c" title "tbb\\_gemm, double"
unset multiplot

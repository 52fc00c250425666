# Draws report.png from sweep.dat, gemm.dat and layer.dat (written by report.py).
# usage: gnuplot -e "dir='build/bench'" bench/report/report.gp
if (!exists("dir")) dir = "build/bench"

set terminal pngcairo size 2100,560 font "Sans,11"
set output dir."/report.png"
set multiplot layout 1,3 title "nerva against the roof (best of the repetitions; higher is better)" font "Sans,13"
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

# Middle: tbb_gemm against one call of the threaded OpenBLAS, square products.
set title "GEMM, m = n = k, all cores"
set xlabel "m = n = k"
set ylabel "GFLOP/s"
set key bottom right
plot dir."/gemm.dat" using 1:3 with linespoints lw 4 dt 2 pt 7 lc rgb "#444444" title "OpenBLAS threaded, float (roof)", \
     ""  using 1:2 with linespoints lw 2 pt 5 lc rgb "#1f77b4" title "tbb\\_gemm, float", \
     ""  using 1:5 with linespoints lw 4 dt 2 pt 6 lc rgb "#999999" title "OpenBLAS threaded, double (roof)", \
     ""  using 1:4 with linespoints lw 2 pt 4 lc rgb "#2ca02c" title "tbb\\_gemm, double"

# Right: the example's layer step against PyTorch's conv2d on the same layers (lower is better).
set title "3x3 layers, batch 16, 64 ch, 56x56 (median ms; lower is better)"
unset logscale x
set xlabel ""
set ylabel "ms"
set format x "%g"
set key top left
set style data histograms
set style histogram clustered gap 1
set style fill solid 0.85 border -1
set boxwidth 0.9
set xtics nomirror
# PyTorch's column is NaN when it was not available; a histogram of no valid points is an error.
torch = system("awk '/^\"/ && $NF != \"NaN\" { n++ } END { print n + 0 }' ".dir."/layer.dat") + 0
if (torch > 0) {
  plot dir."/layer.dat" using 2:xtic(1) lc rgb "#aec7e8" title "nerva, 1 thread", \
       ""  using 3 lc rgb "#1f77b4" title "nerva, all cores", \
       ""  using 4 lc rgb "#ff7f0e" title "PyTorch conv2d, all cores"
} else {
  plot dir."/layer.dat" using 2:xtic(1) lc rgb "#aec7e8" title "nerva, 1 thread", \
       ""  using 3 lc rgb "#1f77b4" title "nerva, all cores (PyTorch not available)"
}
unset multiplot

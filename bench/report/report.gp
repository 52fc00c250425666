# Draws report.png from sweep.dat, gemm.dat, layer.dat and resnet.dat (written by report.py):
# three panels above, ResNet-50's layers below.
# usage: gnuplot -e "dir='build/bench'" bench/report/report.gp
if (!exists("dir")) dir = "build/bench"

set terminal pngcairo size 2100,1180 font "Sans,11"
set output dir."/report.png"
set multiplot title "nerva against the roof (higher is better unless marked)" font "Sans,13"
set grid lc rgb "#dddddd"
set key top right box opaque
set size 0.333, 0.46
set origin 0.0, 0.5

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
set origin 0.333, 0.5
set title "GEMM, m = n = k, all cores"
set xlabel "m = n = k"
set ylabel "GFLOP/s"
set key bottom right
plot dir."/gemm.dat" using 1:3 with linespoints lw 4 dt 2 pt 7 lc rgb "#444444" title "OpenBLAS threaded, float (roof)", \
     ""  using 1:2 with linespoints lw 2 pt 5 lc rgb "#1f77b4" title "tbb\\_gemm, float", \
     ""  using 1:5 with linespoints lw 4 dt 2 pt 6 lc rgb "#999999" title "OpenBLAS threaded, double (roof)", \
     ""  using 1:4 with linespoints lw 2 pt 4 lc rgb "#2ca02c" title "tbb\\_gemm, double"

# Right: the example's layer step against PyTorch's conv2d on the same layers (lower is better).
set origin 0.666, 0.5
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
steps = system("awk '/^\"/ && $(NF-1) != \"NaN\" { n++ } END { print n + 0 }' ".dir."/layer.dat") + 0
if (steps == 0) {
  set label 3 "the example did not run" at graph 0.5, 0.5 center
  unset key
  plot [0:1][0:1] -1 with lines lc rgb "white" notitle
  unset label 3
  set key
} else { if (torch > 0) {
  plot dir."/layer.dat" using 2:xtic(1) lc rgb "#aec7e8" title "nerva, 1 thread", \
       ""  using 3 lc rgb "#1f77b4" title "nerva, all cores", \
       ""  using 4 lc rgb "#ff7f0e" title "PyTorch conv2d, all cores"
} else {
  plot dir."/layer.dat" using 2:xtic(1) lc rgb "#aec7e8" title "nerva, 1 thread", \
       ""  using 3 lc rgb "#1f77b4" title "nerva, all cores (PyTorch not available)"
} }

# Below: every distinct convolution layer of ResNet-50 at batch 16, GFLOP/s, under the f32 FMA peak.
set size 1.0, 0.5
set origin 0.0, 0.0
set title "ResNet-50's convolution layers, batch 16, float, all cores (GFLOP/s = 2 K C R S N Ho Wo / time, median call)"
set ylabel "GFLOP/s"
set key top right
set xtics rotate by -35 font "Sans,9" noenhanced
set bmargin 7
set yrange [0:*]
peak = system("sed -n 's/^# peak //p' ".dir."/resnet.dat")
layers = system("awk '/^\"/ { n++ } END { print n + 0 }' ".dir."/resnet.dat") + 0
rtorch = system("awk '/^\"/ && $(NF-1) != \"NaN\" { n++ } END { print n + 0 }' ".dir."/resnet.dat") + 0
if (layers == 0) {
  set label 3 "bench_conv did not run" at graph 0.5, 0.5 center
  unset key
  plot [0:1][0:1] -1 with lines lc rgb "white" notitle
} else {
  if (peak ne "" && peak ne "NaN") {
    roof = real(peak)
    set yrange [0:1.12 * roof]
    set arrow 1 from graph 0, first roof to graph 1, first roof nohead lw 3 dt 2 lc rgb "#444444"
    set arrow 2 from graph 0, first 0.85 * roof to graph 1, first 0.85 * roof nohead lw 1 dt 3 lc rgb "#444444"
    set label 2 sprintf("FMA peak %.0f GFLOP/s (roof); 85%%", roof) at graph 0.01, first roof offset 0, 0.7
  }
  if (rtorch > 0) {
    plot dir."/resnet.dat" using 2:xtic(1) lc rgb "#1f77b4" title "nerva convolution\\_forward", \
         ""  using 3 lc rgb "#ff7f0e" title "PyTorch conv2d, NCHW", \
         ""  using 4 lc rgb "#ffbb78" title "PyTorch conv2d, channels\\_last"
  } else {
    plot dir."/resnet.dat" using 2:xtic(1) lc rgb "#1f77b4" title "nerva convolution\\_forward (PyTorch not available)"
  }
}
unset multiplot

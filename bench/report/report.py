#!/usr/bin/env python3
"""Benchmark report: reads the JSON files of the bench_* programs and writes

  report.md   one table: each case, its ratio to the baseline measured in the
              same run, and the target;
  sweep.dat, gemm.dat, layer.dat
              the series that report.gp draws into report.png.

The layer rows come from the example's output (conv_layer.txt) and PyTorch's
conv2d on the same layers (torch_conv.json), both written by `./run.sh bench`.

usage: report.py BENCH_DIR   (the folder holding bench_*.json; outputs go there too)
"""
import datetime
import json
import os
import re
import sys


def canonical(name):
    """The run name without Google Benchmark's option parts (min_time:, repeats:,
    real_time, threads: stays because it tells cases apart)."""
    parts = [p for p in name.split("/") if p != "real_time" and
             not p.startswith(("min_time:", "repeats:", "iterations:"))]
    return "/".join(parts)


class Results:
    def __init__(self, folder):
        self.runs = {}  # canonical name -> list of iteration runs
        self.context = {}
        for program in ("memory", "copy", "permute", "gemm", "sweep"):
            path = os.path.join(folder, "bench_%s.json" % program)
            if not os.path.exists(path):
                continue
            with open(path) as f:
                data = json.load(f)
            self.context = data.get("context", self.context)
            for b in data["benchmarks"]:
                if b.get("run_type", "iteration") != "iteration" or b.get("error_occurred"):
                    continue
                self.runs.setdefault(canonical(b.get("run_name", b["name"])), []).append(b)

    def best_time(self, name):
        """Fastest repetition, in seconds per iteration: on a shared machine the
        slower ones measure the neighbours."""
        runs = self.runs.get(name)
        if not runs:
            return None
        scale = {"ns": 1e-9, "us": 1e-6, "ms": 1e-3, "s": 1.0}
        return min(r["real_time"] * scale[r["time_unit"]] for r in runs)

    def best_counter(self, name, counter):
        runs = self.runs.get(name)
        if not runs:
            return None
        return max(r[counter] for r in runs if counter in r)


class LayerStep:
    """The medians the example prints (ms per layer 1, layer 2 and both) and
    PyTorch's; None (or no thread counts) when missing."""

    def __init__(self, folder):
        self.threads = {}  # thread count -> (layer 1, layer 2, both)
        self.step = self.outside = self.torch = None  # all cores; PyTorch on as many
        self.torch_threads = self.torch_version = None
        number = r"\s+([\d.]+)%?"
        try:
            with open(os.path.join(folder, "conv_layer.txt")) as f:
                for line in f:
                    m = re.match(r"(\d+) threads?" + number * 3 + r"\s*$", line)
                    if m:
                        self.threads[int(m.group(1))] = tuple(float(v) for v in m.groups()[1:])
                    m = re.match(r"layer step" + number * 3, line)
                    if m:
                        self.step = tuple(float(v) for v in m.groups())
                    m = re.match(r"share outside the GEMM" + number * 3, line)
                    if m:
                        self.outside = tuple(float(v) for v in m.groups())
        except OSError:
            pass
        try:
            with open(os.path.join(folder, "torch_conv.json")) as f:
                t = json.load(f)
            self.torch = (t["layer1_ms"], t["layer2_ms"], t["both_ms"])
            self.torch_threads = t["threads"]
            self.torch_version = t["torch_version"]
        except (OSError, ValueError, KeyError):
            pass


def ratio_cases(res, layer):
    """(family, case, value, baseline, ratio, target, met) rows; a row without a
    target has target "report" and met None."""
    rows = []

    def add(family, case, value, baseline, ratio, op=None, bound=None):
        if ratio is None:
            return
        if op is None:
            rows.append((family, case, value, baseline, ratio, "report", None))
            return
        met = {">=": ratio >= bound, "<=": ratio <= bound, "<": ratio < bound}[op]
        rows.append((family, case, value, baseline, ratio, "%s %g" % (op, bound), met))

    def times(kernel, base):
        k, b = res.best_time(kernel), res.best_time(base)
        return (k, b) if k and b else (None, None)

    def ms(t):
        return "%.3f ms" % (t * 1e3)

    # Pool: an uncontended round trip under 100 ns; for 64 MiB at least 1000x
    # cheaper than a fresh allocation that is written once.
    for size, label in ((4096, "4 KiB"), (1 << 20, "1 MiB"), (64 << 20, "64 MiB")):
        for threads in (1, 2):
            k, b = times("BM_PoolRoundTrip/%d/threads:%d" % (size, threads),
                         "BM_FreshAllocation/%d/threads:%d" % (size, threads))
            if not k:
                continue
            case = "lease+checkin %s, %d thread%s" % (label, threads, "s" * (threads > 1))
            if size == 64 << 20:
                add("memory", case, "%.0f ns" % (k * 1e9), "malloc+write+free %s" % ms(b), b / k,
                    ">=", 1000.0)
            elif threads == 1:
                add("memory", case + " (ns per round trip)", "%.0f ns" % (k * 1e9),
                    "100 ns", k * 1e9, "<=", 100.0)
            else:
                add("memory", case, "%.0f ns" % (k * 1e9), "malloc+write+free %s" % ms(b), b / k)

    # Copy kernels against one-thread memcpy / memset of the same bytes.
    for t in ("uchar", "float", "double"):
        k, b = times("copy_64MiB/simple_copy_" + t, "copy_64MiB/memcpy_1thread")
        if k:
            add("copy", "simple copy 64 MiB %s" % t, ms(k), "memcpy %s" % ms(b), b / k, ">=", 1.0)
    for t in ("uchar", "float", "double", "long"):
        k, b = times("fill_64MiB/simple_fill_" + t, "fill_64MiB/memset_1thread")
        if k:
            add("copy", "simple fill 64 MiB %s" % t, ms(k), "memset %s" % ms(b), b / k, ">=", 1.0)
    # Task start-up: G+1 elements (parallel) against G elements (serial) scaled
    # by (G+1)/G; here the ratio is time over scaled time, lower is better.
    for kind in ("copy", "fill"):
        for name in sorted(n for n in res.runs if n.startswith("grain_%s/" % kind) and "/G+1/" in n):
            t, g1 = name.split("/")[1], int(name.split("/")[3])
            serial = "grain_%s/%s/G/%d" % (kind, t, g1 - 1)
            k, b = times(name, serial)
            if k:
                scaled = b * g1 / (g1 - 1)
                add("copy", "%s at G+1 = %d %s (time / scaled serial time)" % (kind, g1, t),
                    "%.1f us" % (k * 1e6), "serial G %.1f us" % (b * 1e6), k / scaled, "<=", 1.3)
    for layout, arg in (("planes_outer", 2), ("planes_inner", 0)):
        base = "strided_224x224x64x8/"
        k, b = times("%sstrided_copy_%s/%d" % (base, layout, arg), "%snaive_%s/%d" % (base, layout, arg))
        if k:
            add("copy", "strided copy 224x224x64x8 (%s)" % layout, ms(k), "naive gather %s" % ms(b),
                b / k, ">=", 3.0)
    k, b = times("ranged_56to58_64x32/ranged_copy", "ranged_56to58_64x32/memcpy_1thread")
    if k:
        add("copy", "ranged copy 56->58, groups 64x32", ms(k), "memcpy of moved bytes %s" % ms(b),
            b / k, ">=", 0.7)

    # Permute<N> against memcpy of the same bytes and against the naive loop;
    # ParallelPermute<N> in a two-thread arena against the same one-thread
    # memcpy, and on the out-of-cache case against Permute<N> at one and two
    # threads.
    for name in sorted(n for n in res.runs if n.startswith("permute/")):
        case = name[len("permute/"):]
        k, b = times(name, "memcpy/" + case)
        if k:
            bound = 0.8 if "chan/obs swap" in case else 0.3 if case.startswith("u8") else 0.5
            add("permute", case, ms(k), "memcpy %s" % ms(b), b / k, ">=", bound)
        k, b = times(name, "naive/" + case)
        if k:
            add("permute", case + " vs naive", ms(k), "naive loop %s" % ms(b), b / k, ">=", 5.0)
        k, b = times("parallel2/" + case, "memcpy/" + case)
        if k:
            bound = 0.8 if case.startswith("u8") else 1.2
            add("permute", case + " parallel, 2 threads", ms(k), "memcpy %s" % ms(b), b / k, ">=",
                bound)
        if case.startswith("f32 [112,112,64,64"):
            for threads in (1, 2):
                k, b = times("parallel%d/%s" % (threads, case), name)
                if k:
                    add("permute", "%s parallel, %d thread%s vs Permute" % (case, threads,
                        "s" * (threads > 1)), ms(k), "Permute %s" % ms(b), b / k,
                        *((">=", 1.6) if threads == 2 else ()))

    # tbb_gemm: parallel efficiency against the same block calls run one after
    # another on one thread times the cores; and, for information, against one
    # call of the threaded OpenBLAS on the whole product.
    cores = res.context.get("num_cpus", 2)
    for t in ("float", "double"):
        for shape in ("512", "1024", "2048", "4096", "layer_3136x64x576"):
            k = res.best_counter("tbb_gemm<%s>/%s" % (t, shape), "GFLOPS")
            one = res.best_counter("one_thread_blocks<%s>/%s" % (t, shape), "GFLOPS")
            b = res.best_counter("openblas_threaded<%s>/%s" % (t, shape), "GFLOPS")
            if k and one:
                eff = k / (one * cores)
                if shape == "512":
                    add("gemm", "tbb_gemm %s %s efficiency" % (t, shape), "%.1f GFLOP/s" % k,
                        "%d x one thread %.1f GFLOP/s" % (cores, one), eff)
                else:
                    add("gemm", "tbb_gemm %s %s efficiency" % (t, shape), "%.1f GFLOP/s" % k,
                        "%d x one thread %.1f GFLOP/s" % (cores, one), eff, ">=", 0.9)
            if k and b:
                add("gemm", "tbb_gemm %s %s vs OpenBLAS" % (t, shape), "%.1f GFLOP/s" % k,
                    "OpenBLAS threaded %.1f GFLOP/s" % b, k / b)

    # The example's two-layer step on all cores against PyTorch's conv2d on the
    # same layers and threads (time / PyTorch time, lower is better); its
    # speedup from one thread to all cores, with the serial fraction
    # f = (1/S - 1/P) / (1 - 1/P) that it implies (target f <= 5%, which on
    # two cores is S >= 1.90); and the share of the step outside the GEMM.
    if layer.step and layer.torch:
        for i, name in enumerate(("layer 1 (3x3, stride 1)", "layer 2 (3x3, stride 2)")):
            add("layer", "%s, time / PyTorch time" % name, "%.2f ms" % layer.step[i],
                "PyTorch conv2d %.2f ms" % layer.torch[i], layer.step[i] / layer.torch[i])
        add("layer", "layer step, both layers, time / PyTorch time", "%.2f ms" % layer.step[2],
            "PyTorch conv2d %.2f ms" % layer.torch[2], layer.step[2] / layer.torch[2], "<=", 1.3)
    if len(layer.threads) == 2:
        one, cores = sorted(layer.threads)
        if one == 1:
            s = layer.threads[1][2] / layer.threads[cores][2]
            f = (1 / s - 1 / cores) / (1 - 1 / cores)
            bound = 1.9 if cores == 2 else round(1 / (0.05 + 0.95 / cores), 2)
            add("layer", "layer step speedup 1 -> %d threads (serial fraction %.1f%%)"
                % (cores, 100 * f), "%.2f ms" % layer.threads[cores][2],
                "1 thread %.2f ms" % layer.threads[1][2], s, ">=", bound)
    if layer.outside:
        add("layer", "share of the step outside the GEMM, % (all cores)",
            "%.1f%%" % layer.outside[2], "step %.2f ms" % layer.step[2] if layer.step else "-",
            layer.outside[2], "<", 15.0)
    return rows


def write_markdown(res, rows, layer, path):
    ctx = res.context
    with open(path, "w") as f:
        f.write("Benchmark report, %s; %s CPUs at %s MHz%s. Each ratio is baseline time / case "
                "time (higher is better) unless the case says otherwise, both measured in the same run, "
                "best repetition (GEMM: best repetition's mean rate). Rows marked 'report' have no "
                "target and are there for scale.\n\n"
                % (datetime.date.today().isoformat(), ctx.get("num_cpus", "?"),
                   ctx.get("mhz_per_cpu", "?"),
                   ", load %.1f" % ctx["load_avg"][0] if ctx.get("load_avg") else ""))
        if layer.torch:
            f.write("Layer rows: `examples/conv_layer` (median of steps 2..20) against PyTorch "
                    "%s `conv2d` on %d threads (median of 30 calls), NCHW float32, the same "
                    "shapes.\n\n" % (layer.torch_version, layer.torch_threads))
        elif layer.step:
            f.write("Layer rows: PyTorch was not available, so the comparison rows are "
                    "missing.\n\n")
        f.write("| family | case | time or rate | baseline | ratio | target | met |\n")
        f.write("|---|---|---|---|---:|---|---|\n")
        for family, case, value, base, ratio, target, met in rows:
            shown = "%.2f" % ratio if ratio < 100 else "%.3g" % ratio
            verdict = "-" if met is None else "yes" if met else "**no**"
            f.write("| %s | %s | %s | %s | %s | %s | %s |\n"
                    % (family, case, value, base, shown, target, verdict))
        targeted = [r for r in rows if r[6] is not None]
        met = sum(1 for r in targeted if r[6])
        f.write("\n%d of %d cases with a target meet it.\n" % (met, len(targeted)))


def write_series(res, layer, folder):
    kinds = ("memcpy_1thread", "simple_copy", "permute_korval_to_chained",
             "permute_chained_to_korval")
    with open(os.path.join(folder, "sweep.dat"), "w") as f:
        f.write("# MiB " + " ".join("GB/s_" + k for k in kinds) + "\n")
        for w in (4, 8, 16, 32, 64, 128):
            rates = []
            for i, k in enumerate(kinds):
                r = res.best_counter("sweep/%s/%d/%d" % (k, i, w), "bytes_per_second")
                rates.append("%.3f" % (r * 1e-9) if r else "NaN")
            f.write("%.4f %s\n" % (w * w * 64 * 16 * 4 / 2.0 ** 20, " ".join(rates)))
    with open(os.path.join(folder, "gemm.dat"), "w") as f:
        f.write("# n tbb_float openblas_float tbb_double openblas_double\n")
        for n in (512, 1024, 2048, 4096):
            vals = []
            for t in ("float", "double"):
                for what in ("tbb_gemm", "openblas_threaded"):
                    v = res.best_counter("%s<%s>/%d" % (what, t, n), "GFLOPS")
                    vals.append("%.2f" % v if v else "NaN")
            f.write("%d %s\n" % (n, " ".join(vals)))
    one = layer.threads.get(1)
    cores = max(layer.threads) if layer.threads else None
    with open(os.path.join(folder, "layer.dat"), "w") as f:
        f.write("# case nerva_1_thread nerva_all_cores pytorch_all_cores (ms)\n")
        for i, name in enumerate(("layer 1", "layer 2", "both")):
            vals = [one[i] if one and cores != 1 else None,
                    layer.threads[cores][i] if cores else None,
                    layer.torch[i] if layer.torch else None]
            f.write('"%s" %s\n' % (name, " ".join("%.3f" % v if v else "NaN" for v in vals)))


def main():
    folder = sys.argv[1] if len(sys.argv) > 1 else "build/bench"
    res = Results(folder)
    layer = LayerStep(folder)
    rows = ratio_cases(res, layer)
    write_markdown(res, rows, layer, os.path.join(folder, "report.md"))
    write_series(res, layer, folder)


if __name__ == "__main__":
    main()

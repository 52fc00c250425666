#!/usr/bin/env python3
"""Benchmark report: reads the JSON files of the bench_* programs and writes

  report.md   the convolution table (ResNet-50's layers against the FMA peak
              and PyTorch) and the table of all other cases: each with its
              ratio to a baseline measured in the same run, and its target;
  sweep.dat, gemm.dat, layer.dat, resnet.dat
              the series that report.gp draws into report.png.

Every target is stated against something this run measures on this host: the
FMA peak (bench_peak), PyTorch on the same layers and threads, the BLAS,
memcpy on the same number of threads, or memcpy of arrays larger than the
last-level cache. The layer rows come from the example's output
(conv_layer.txt, conv_layer_one.txt) and PyTorch's conv2d on the same layers
(torch_conv.json, torch_resnet50.json), all written by `./run.sh bench`; any
of them may be missing, and their rows are then left out.

usage: report.py BENCH_DIR   (the folder holding bench_*.json; outputs go there too)
"""
import datetime
import glob
import json
import math
import os
import re
import statistics
import sys


def canonical(name):
    """The run name without Google Benchmark's option parts (min_time:, repeats:,
    real_time, manual_time; threads: stays because it tells cases apart)."""
    parts = [p for p in name.split("/") if p not in ("real_time", "manual_time") and
             not p.startswith(("min_time:", "repeats:", "iterations:"))]
    return "/".join(parts)


class Results:
    """Every iteration run of every bench_*.json in the folder, by canonical name."""

    def __init__(self, folder):
        self.runs = {}  # canonical name -> list of iteration runs, in the order run
        self.context = {}
        self.contexts = {}  # program -> its context
        for path in sorted(glob.glob(os.path.join(folder, "bench_*.json"))):
            try:
                with open(path) as f:
                    data = json.load(f)
            except (OSError, ValueError):
                continue
            program = os.path.basename(path)[len("bench_"):-len(".json")]
            self.contexts[program] = data.get("context", {})
            if not self.context or program == "memory":
                self.context = data.get("context", self.context)
            for b in data.get("benchmarks", []):
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
        values = [r[counter] for r in self.runs.get(name, []) if counter in r]
        return max(values) if values else None

    def median_counter(self, name, counter):
        values = [r[counter] for r in self.runs.get(name, []) if counter in r]
        return statistics.median(values) if values else None

    def names(self, prefix):
        return [n for n in self.runs if n.startswith(prefix)]


class Peak:
    """bench_peak's FMA rates, GFLOP/s, best repetition: (type, threads) -> rate."""

    def __init__(self, res):
        self.isa = res.contexts.get("peak", {}).get("fma_isa", "?")
        self.rate = {}
        for name in res.names("peak/"):
            m = re.match(r"peak/(f32|f64)/threads:(\d+)$", name)
            if m:
                self.rate[(m.group(1), int(m.group(2)))] = res.best_counter(name, "GFLOPS")

    def all_cores(self, t):
        threads = [n for (u, n) in self.rate if u == t]
        return (self.rate[(t, max(threads))], max(threads)) if threads else (None, None)


class ResNet:
    """bench_conv's layers (median call, ms) and PyTorch's on the same layers."""

    def __init__(self, res, folder):
        self.layers = []  # dicts in bench order
        for name in res.names("resnet50/"):
            self.layers.append(self._layer(res, name, name[len("resnet50/"):]))
        f64 = res.names("example_f64/")
        self.f64 = self._layer(res, f64[0], f64[0][len("example_f64/"):]) if f64 else None
        self.threads = res.contexts.get("conv", {}).get("threads")
        self.torch = {}
        self.torch_f64 = None
        self.torch_version = self.torch_threads = None
        try:
            with open(os.path.join(folder, "torch_resnet50.json")) as f:
                t = json.load(f)
            self.torch = {l["key"]: l for l in t["layers"]}
            self.torch_f64 = t.get("example_f64")
            self.torch_version, self.torch_threads = t["torch_version"], t["threads"]
        except (OSError, ValueError, KeyError):
            pass

    @staticmethod
    def _layer(res, name, key):
        ms = res.median_counter(name, "median_ms")
        if not ms:
            t = res.best_time(name)
            ms = t * 1e3 if t else None
        flop = res.median_counter(name, "flop")
        runs = res.runs[name]
        return {"key": key, "label": runs[0].get("label", ""), "ms": ms, "flop": flop,
                "uses": int(res.median_counter(name, "uses") or 1),
                "gflops": flop / ms * 1e-6 if flop and ms else None}

    @staticmethod
    def shape(key):
        """(R, stride, C, K, H) from "3x3 s2 128>128 56x56"."""
        m = re.match(r"(\d+)x\d+ s(\d+) (\d+)>(\d+) (\d+)x\d+", key)
        return tuple(int(v) for v in m.groups()) if m else None


class LayerStep:
    """The medians the example prints (ms per layer 1, layer 2 and both) and
    PyTorch's; None (or no thread counts) when missing."""

    def __init__(self, folder):
        self.threads = {}  # thread count -> (layer 1, layer 2, both)
        self.step = self.outside = self.torch = self.one = None  # all cores; PyTorch on as many
        self.torch_threads = self.torch_version = None
        number = r"\s+([\d.]+)%?"
        for name in ("conv_layer.txt", "conv_layer_one.txt"):
            try:
                with open(os.path.join(folder, name)) as f:
                    for line in f:
                        m = re.match(r"(\d+) threads?" + number * 3 + r"\s*$", line)
                        if m and name == "conv_layer.txt":
                            self.threads[int(m.group(1))] = tuple(float(v) for v in m.groups()[1:])
                        m = re.match(r"layer step" + number * 3, line)
                        if m and name == "conv_layer.txt":
                            self.step = tuple(float(v) for v in m.groups())
                        m = re.match(r"share outside the (?:GEMM|convolution|products)" +
                                     number * 3, line)
                        if m and name == "conv_layer.txt":
                            self.outside = tuple(float(v) for v in m.groups())
                        m = re.match(r"one layer" + number, line)
                        if m:
                            self.one = float(m.group(1))
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


def brgemm_pairs(res):
    """(shape, batch_reduce_gemm run, BLAS run) for every shape that
    bench_batch_gemm (or any program) timed both ways. The runs are matched on
    their names with the routine's part taken out, so the program may name
    its cases as it likes: a name that mentions batch_reduce (or brgemm) and
    one that mentions blas (or gemm_serial, loop_gemm) and otherwise agree
    form a pair. The shape is what is left, e.g. "float 3x3_c64_n224"."""
    mine = re.compile(r"batch_?reduce(_gemm)?|brgemm", re.I)
    theirs = re.compile(r"(serial_?|per_product_?|loop_?)?(blas|gemm_serial|loop_gemm|gemm_loop)"
                        r"(_serial|_per_product|_loop)?", re.I)
    ours, base = {}, {}
    for name in res.runs:
        if mine.search(name):
            ours[mine.sub("#", name, count=1)] = name
        elif theirs.search(name) and not name.startswith(("tbb_gemm", "one_thread_blocks",
                                                          "openblas_threaded")):
            base[theirs.sub("#", name, count=1)] = name
    return [(re.sub(r"[#<>/]+", " ", k).strip(), ours[k], base[k]) for k in ours if k in base]


def example_product(shape):
    """Whether a batch_reduce_gemm shape is one of the example's layers: 3x3
    windows over 64 channels, stride 1 or 2."""
    return re.search(r"(^|[ _])3x3(s2)?_c64_", shape) is not None


def geomean(values):
    return math.exp(sum(math.log(v) for v in values) / len(values)) if values else None


def ratio_cases(res, layer, peak, resnet):
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

    cores = res.context.get("num_cpus", 2)

    # The FMA peak: the roof of every convolution row.
    for t in ("f32", "f64"):
        one = peak.rate.get((t, 1))
        if one:
            rows.append(("peak", "FMA peak %s, 1 thread (%s)" % (t, peak.isa),
                         "%.1f GFLOP/s" % one, "-", None, "report", None))
        top, n = peak.all_cores(t)
        if top and one and n > 1:
            add("peak", "FMA peak %s, %d threads, over %d x 1 thread" % (t, n, n),
                "%.1f GFLOP/s" % top, "%d x %.1f GFLOP/s" % (n, one), top / (n * one))

    # The convolution: the summary of the ResNet-50 table, and the example's
    # layer in double against the f64 peak.
    ratios = [l["ms"] / resnet.torch[l["key"]]["ms"] for l in resnet.layers
              if l["ms"] and l["key"] in resnet.torch]
    if ratios:
        add("conv", "ResNet-50, %d layers: geometric mean of time / PyTorch time" % len(ratios),
            "-", "PyTorch conv2d NCHW", geomean(ratios), "<=", 0.85)
        nerva = sum(l["ms"] * l["uses"] for l in resnet.layers if l["key"] in resnet.torch)
        torch = sum(resnet.torch[l["key"]]["ms"] * l["uses"] for l in resnet.layers
                    if l["key"] in resnet.torch)
        uses = sum(l["uses"] for l in resnet.layers if l["key"] in resnet.torch)
        add("conv", "ResNet-50, all %d convolutions, time / PyTorch time" % uses,
            "%.1f ms" % nerva, "PyTorch conv2d %.1f ms" % torch, nerva / torch)
        cl = [l["ms"] / resnet.torch[l["key"]]["ms_channels_last"] for l in resnet.layers
              if l["ms"] and resnet.torch.get(l["key"], {}).get("ms_channels_last")]
        if cl:
            add("conv", "ResNet-50: geometric mean of time / PyTorch channels_last time",
                "-", "PyTorch conv2d NHWC", geomean(cl))
    f32_top, _ = peak.all_cores("f32")
    if resnet.layers and f32_top:
        total = sum(l["flop"] * l["uses"] for l in resnet.layers if l["flop"] and l["ms"])
        seconds = sum(l["ms"] * 1e-3 * l["uses"] for l in resnet.layers if l["flop"] and l["ms"])
        if seconds:
            add("conv", "ResNet-50, all convolutions, share of the f32 peak",
                "%.1f GFLOP/s" % (total / seconds * 1e-9), "peak %.1f GFLOP/s" % f32_top,
                total / seconds * 1e-9 / f32_top)
    f64_top, _ = peak.all_cores("f64")
    if resnet.f64 and resnet.f64["gflops"] and f64_top:
        add("conv", "f64 %s (the example's layer 1), share of the f64 peak" % resnet.f64["key"],
            "%.1f GFLOP/s" % resnet.f64["gflops"], "peak %.1f GFLOP/s" % f64_top,
            resnet.f64["gflops"] / f64_top, ">=", 0.80)
        if resnet.torch_f64:
            add("conv", "f64 %s, time / PyTorch time" % resnet.f64["key"],
                "%.2f ms" % resnet.f64["ms"], "PyTorch conv2d %.2f ms" % resnet.torch_f64["ms"],
                resnet.f64["ms"] / resnet.torch_f64["ms"])

    # batch_reduce_gemm on one thread against the serial BLAS making the same
    # products one call each; at the example's shapes at least 1.3x, the
    # others for scale. The share of the one-thread FMA peak goes with it.
    for shape, ours, blas in sorted(brgemm_pairs(res), key=lambda p: ("double" in p[0], p[0])):
        k, b = times(ours, blas)
        if not k:
            continue
        rate = res.best_counter(ours, "GFLOPS")
        one = peak.rate.get(("f64" if "double" in shape else "f32", 1))
        value = "%.1f us" % (k * 1e6)
        if rate and one:
            value += " (%.0f%% of the 1-thread peak)" % (100 * rate / one)
        if example_product(shape):
            add("brgemm", "batch_reduce_gemm %s vs serial BLAS per product" % shape, value,
                "BLAS %.1f us" % (b * 1e6), b / k, ">=", 1.3)
        else:
            add("brgemm", "batch_reduce_gemm %s vs serial BLAS per product" % shape, value,
                "BLAS %.1f us" % (b * 1e6), b / k)

    # The example's two-layer step on all cores against PyTorch's conv2d on the
    # same layers and threads (time / PyTorch time, lower is better); its
    # speedup from one thread to all cores, with the serial fraction
    # f = (1/S - 1/P) / (1 - 1/P) that it implies (target f <= 5%, which on
    # two cores is S >= 1.90); and the share of the step outside the products.
    if layer.step and layer.torch:
        for i, name in enumerate(("layer 1 (3x3, stride 1)", "layer 2 (3x3, stride 2)")):
            add("layer", "%s, time / PyTorch time" % name, "%.2f ms" % layer.step[i],
                "PyTorch conv2d %.2f ms" % layer.torch[i], layer.step[i] / layer.torch[i])
        add("layer", "layer step, both layers, time / PyTorch time", "%.2f ms" % layer.step[2],
            "PyTorch conv2d %.2f ms" % layer.torch[2], layer.step[2] / layer.torch[2], "<=", 0.9)
    # The example's --one: layer 1 alone as a host runs it, its reformats included.
    if layer.one and layer.torch:
        add("layer", "one layer (the example's --one), time / PyTorch layer 1 time",
            "%.2f ms" % layer.one, "PyTorch conv2d %.2f ms" % layer.torch[0],
            layer.one / layer.torch[0])
    same = [l for l in resnet.layers if l["key"] == "3x3 s1 64>64 56x56" and l["ms"]]
    if layer.one and same:
        add("layer", "one layer (the example's --one), time / bench_conv's time",
            "%.2f ms" % layer.one, "convolution_forward %.2f ms" % same[0]["ms"],
            layer.one / same[0]["ms"])
    if len(layer.threads) == 2:
        one, n = sorted(layer.threads)
        if one == 1:
            s = layer.threads[1][2] / layer.threads[n][2]
            f = (1 / s - 1 / n) / (1 - 1 / n)
            bound = 1.9 if n == 2 else round(1 / (0.05 + 0.95 / n), 2)
            add("layer", "layer step speedup 1 -> %d threads (serial fraction %.1f%%)"
                % (n, 100 * f), "%.2f ms" % layer.threads[n][2],
                "1 thread %.2f ms" % layer.threads[1][2], s, ">=", bound)
    if layer.outside:
        add("layer", "share of the step outside the products, % (all cores)",
            "%.1f%%" % layer.outside[2], "step %.2f ms" % layer.step[2] if layer.step else "-",
            layer.outside[2], "<", 15.0)

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

    # Copy kernels run on all cores: against memcpy / memset of the same bytes
    # on as many threads.
    k, b = times("copy_64MiB/memcpy_all_cores", "copy_64MiB/memcpy_1thread")
    if k:
        add("copy", "memcpy 64 MiB, %d threads vs 1 thread" % cores, ms(k), "memcpy %s" % ms(b),
            b / k)
    for t in ("uchar", "float", "double"):
        k, b = times("copy_64MiB/simple_copy_" + t, "copy_64MiB/memcpy_all_cores")
        if k:
            add("copy", "simple copy 64 MiB %s" % t, ms(k),
                "memcpy, %d threads %s" % (cores, ms(b)), b / k, ">=", 0.8)
    for t in ("uchar", "float", "double", "long"):
        k, b = times("fill_64MiB/simple_fill_" + t, "fill_64MiB/memset_all_cores")
        if k:
            add("copy", "simple fill 64 MiB %s" % t, ms(k),
                "memset, %d threads %s" % (cores, ms(b)), b / k, ">=", 0.8)
    # Task start-up: G+1 elements (parallel) against G elements (serial) scaled
    # by (G+1)/G plus what a parallel_for of two empty chunks costs on this
    # host (waking and joining a worker); time over that, lower is better.
    fork = res.best_time("grain_fork_join/empty")
    for kind in ("copy", "fill"):
        for name in sorted(n for n in res.runs if n.startswith("grain_%s/" % kind) and "/G+1/" in n):
            t, g1 = name.split("/")[1], int(name.split("/")[3])
            serial = "grain_%s/%s/G/%d" % (kind, t, g1 - 1)
            k, b = times(name, serial)
            if k and fork:
                scaled = b * g1 / (g1 - 1) + fork
                add("copy", "%s at G+1 = %d %s (time / (scaled serial time + fork-join))"
                    % (kind, g1, t), "%.1f us" % (k * 1e6),
                    "serial G %.1f us + %.1f us" % (b * 1e6, fork * 1e6), k / scaled, "<=", 1.3)
    base = "strided_224x224x64x8/"
    k, b = times(base + "strided_copy_planes_outer/2", base + "naive_planes_outer/2")
    if k:
        add("copy", "strided copy 224x224x64x8 (planes_outer)", ms(k), "naive gather %s" % ms(b),
            b / k, ">=", 3.0)
    # Planes innermost the gather moves runs of 2 KiB out of an array four
    # times its output: memory-bound like its naive loop, so its rate is held
    # to memcpy's from memory (arrays twice the last-level cache) on as many
    # threads; memcpy of the moved bytes, which may sit in a cache, for scale.
    rate = res.best_counter(base + "strided_copy_planes_inner/0", "bytes_per_second")
    mem = res.best_counter("memory_speed/memcpy_out_of_cache_all_cores", "bytes_per_second")
    if rate and mem:
        add("copy", "strided copy 224x224x64x8 (planes_inner)", "%.2f GB/s" % (rate * 1e-9),
            "memcpy out of cache, %d threads %.2f GB/s" % (cores, mem * 1e-9), rate / mem, ">=",
            0.5)
    k, b = times(base + "strided_copy_planes_inner/0", base + "memcpy_all_cores_moved")
    if k:
        add("copy", "strided copy 224x224x64x8 (planes_inner) vs memcpy of the moved bytes",
            ms(k), "memcpy, %d threads %s" % (cores, ms(b)), b / k)
    k, b = times(base + "strided_copy_planes_inner/0", base + "naive_planes_inner/0")
    if k:
        add("copy", "strided copy 224x224x64x8 (planes_inner) vs naive", ms(k),
            "naive gather %s" % ms(b), b / k)
    k, b = times("ranged_56to58_64x32/ranged_copy", "ranged_56to58_64x32/memcpy_all_cores")
    if k:
        add("copy", "ranged copy 56->58, groups 64x32", ms(k),
            "memcpy of moved bytes, %d threads %s" % (cores, ms(b)), b / k, ">=", 0.7)

    # Permute<N> on one thread against one-thread memcpy of arrays twice the
    # last-level cache (rates), ParallelPermute<N> on two threads against the
    # same memcpy on two threads: memory speed on the same threads, which a
    # transpose can reach on any host. Both also against memcpy of the same
    # bytes on the same threads, for scale (inside a cache memcpy is faster
    # than any transpose), and Permute<N> against the naive loop.
    mem = {1: res.best_counter("memcpy_llc/1 thread", "bytes_per_second"),
           2: res.best_counter("memcpy_llc/2 threads", "bytes_per_second")}
    for name in sorted(n for n in res.runs if n.startswith("permute/")):
        case = name[len("permute/"):]
        bound = 0.8 if "chan/obs swap" in case else 0.3 if case.startswith("u8") else 0.5
        rate = res.best_counter(name, "bytes_per_second")
        if rate and mem[1]:
            add("permute", case, "%.2f GB/s" % (rate * 1e-9),
                "memcpy out of cache %.2f GB/s" % (mem[1] * 1e-9), rate / mem[1], ">=", bound)
        k, b = times(name, "memcpy/" + case)
        if k:
            add("permute", case + " vs memcpy of the same bytes", ms(k), "memcpy %s" % ms(b),
                b / k)
        k, b = times(name, "naive/" + case)
        if k:
            add("permute", case + " vs naive", ms(k), "naive loop %s" % ms(b), b / k, ">=", 5.0)
        rate = res.best_counter("parallel2/" + case, "bytes_per_second")
        if rate and mem[2]:
            add("permute", case + " parallel, 2 threads", "%.2f GB/s" % (rate * 1e-9),
                "memcpy out of cache, 2 threads %.2f GB/s" % (mem[2] * 1e-9), rate / mem[2], ">=",
                bound)
        k, b = times("parallel2/" + case, "memcpy2/" + case)
        if k:
            add("permute", case + " parallel, 2 threads vs memcpy of the same bytes", ms(k),
                "memcpy, 2 threads %s" % ms(b), b / k)
        if case.startswith("f32 [112,112,64,64"):
            k, b = times("parallel1/" + case, name)
            if k:
                add("permute", "%s parallel, 1 thread vs Permute" % case, ms(k),
                    "Permute %s" % ms(b), b / k)
            # Speedup from one to two threads as a share of memcpy's own.
            k, b = times("parallel2/" + case, name)
            if k and mem[1] and mem[2]:
                add("permute", "%s parallel, 2 threads: speedup over Permute / memcpy's" % case,
                    "%.2fx" % (b / k), "memcpy 1 -> 2 threads %.2fx" % (mem[2] / mem[1]),
                    b / k / (mem[2] / mem[1]), ">=", 0.8)

    # tbb_gemm: parallel efficiency against the same block calls run one after
    # another on one thread times the cores; and, for information, against one
    # call of the threaded OpenBLAS on the whole product.
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
    return rows


def resnet_rows(resnet, peak):
    """The ResNet-50 table: one row per layer with its targets; returns the
    rows and the (met, targeted) counts."""
    top, _ = peak.all_cores("f32")
    rows, met, targeted = [], 0, 0
    for l in resnet.layers:
        r, stride, c, k, h = ResNet.shape(l["key"]) or (0, 0, 0, 0, 0)
        share = l["gflops"] / top if l["gflops"] and top else None
        share_target = r in (1, 3) and c >= 64 and k >= 64
        torch = resnet.torch.get(l["key"])
        ratio = l["ms"] / torch["ms"] if torch and l["ms"] else None
        cl = torch.get("ms_channels_last") if torch else None
        cells = []
        if share is None:
            cells.append("-")
        elif share_target:
            ok = share >= 0.85
            met, targeted = met + ok, targeted + 1
            cells.append("%.1f%% (>= 85%%: %s)" % (100 * share, "yes" if ok else "**no**"))
        else:
            cells.append("%.1f%%" % (100 * share))
        if ratio is None:
            cells.append("-")
        else:
            ok = ratio <= 1.0
            met, targeted = met + ok, targeted + 1
            cells.append("%.2f (<= 1: %s)" % (ratio, "yes" if ok else "**no**"))
        rows.append("| %s | %s | %d | %s | %s | %s | %s | %s | %s | %s |" % (
            l["key"], l["label"], l["uses"], "%.3f" % l["ms"] if l["ms"] else "-",
            "%.1f" % l["gflops"] if l["gflops"] else "-", cells[0],
            "%.3f" % torch["ms"] if torch else "-", cells[1],
            "%.3f" % cl if cl else "-", "%.2f" % (l["ms"] / cl) if cl and l["ms"] else "-"))
    return rows, met, targeted


def write_markdown(res, rows, layer, peak, resnet, path):
    ctx = res.context
    with open(path, "w") as f:
        f.write("Benchmark report, %s; %s CPUs at %s MHz%s. Each ratio is baseline time / case "
                "time (or case rate / baseline rate; higher is better) unless the case says "
                "otherwise, both measured in the same run, best repetition (GEMM: best "
                "repetition's mean rate; convolutions: median call). Rows marked 'report' have no "
                "target and are there for scale.\n\n"
                % (datetime.date.today().isoformat(), ctx.get("num_cpus", "?"),
                   ctx.get("mhz_per_cpu", "?"),
                   ", load %.1f" % ctx["load_avg"][0] if ctx.get("load_avg") else ""))

        targeted = sum(1 for r in rows if r[6] is not None)
        met = sum(1 for r in rows if r[6])
        if resnet.layers:
            top, n = peak.all_cores("f32")
            f.write("### Convolution: ResNet-50's layers, batch 16, float\n\n")
            f.write("`nerva::convolution_forward` (bench_conv: chained input and output made "
                    "outside the timed loop, median call, %s threads) against the FMA peak of "
                    "this host (bench_peak: %s, %s GFLOP/s f32 on %s threads) and PyTorch's "
                    "`conv2d`. "
                    % (resnet.threads or "all", peak.isa, "%.1f" % top if top else "?",
                       n or "?"))
            if resnet.torch:
                f.write("PyTorch %s on %d threads, median of up to 30 calls after 3 warm-up "
                        "calls, no grad; its target column takes NCHW float32 input (it reorders "
                        "to its blocked layout inside each call), the last two columns time it "
                        "with channels_last input and weights, the order of nerva's chained "
                        "layout, for scale.\n\n" % (resnet.torch_version, resnet.torch_threads))
            else:
                f.write("PyTorch was not available, so its columns are empty.\n\n")
            f.write("| layer | stage | uses | ms | GFLOP/s | share of the f32 peak | PyTorch ms "
                    "| time / PyTorch | PyTorch channels_last ms | time / channels_last |\n")
            f.write("|---|---|---:|---:|---:|---|---:|---|---:|---:|\n")
            table, layer_met, layer_targeted = resnet_rows(resnet, peak)
            f.write("\n".join(table) + "\n\n")
            f.write("%d of %d layer targets met (every layer at most PyTorch's time; 1x1 and 3x3 "
                    "layers of 64 or more channels in and out at 85%% or more of the f32 peak). "
                    "The summary rows are in the `conv` family below.\n\n"
                    % (layer_met, layer_targeted))
            met, targeted = met + layer_met, targeted + layer_targeted
        f.write("### All cases\n\n")
        if layer.torch:
            f.write("Layer rows: `examples/conv_layer` (median of steps 2..20) against PyTorch "
                    "%s `conv2d` on %d threads (median of 30 calls), NCHW float32, the same "
                    "shapes.\n\n" % (layer.torch_version, layer.torch_threads))
        elif layer.step:
            f.write("Layer rows: PyTorch was not available, so the comparison rows are "
                    "missing.\n\n")
        f.write("| family | case | time or rate | baseline | ratio | target | met |\n")
        f.write("|---|---|---|---|---:|---|---|\n")
        for family, case, value, base, ratio, target, ok in rows:
            shown = "-" if ratio is None else "%.2f" % ratio if ratio < 100 else "%.3g" % ratio
            verdict = "-" if ok is None else "yes" if ok else "**no**"
            f.write("| %s | %s | %s | %s | %s | %s | %s |\n"
                    % (family, case, value, base, shown, target, verdict))
        f.write("\n%d of %d cases with a target meet it (the ResNet-50 table's included).\n"
                % (met, targeted))


def write_series(res, layer, peak, resnet, folder):
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
    # GFLOP/s per layer: nerva, PyTorch NCHW, PyTorch channels_last; the peak
    # in the header for the roof line.
    top, _ = peak.all_cores("f32")
    with open(os.path.join(folder, "resnet.dat"), "w") as f:
        f.write("# peak %s\n" % ("%.2f" % top if top else "NaN"))
        f.write("# layer nerva pytorch pytorch_channels_last (GFLOP/s)\n")
        for l in resnet.layers:
            t = resnet.torch.get(l["key"], {})
            vals = [l["gflops"],
                    l["flop"] / t["ms"] * 1e-6 if l["flop"] and t.get("ms") else None,
                    l["flop"] / t["ms_channels_last"] * 1e-6
                    if l["flop"] and t.get("ms_channels_last") else None]
            f.write('"%s" %s\n' % (short_key(l["key"]),
                                   " ".join("%.2f" % v if v else "NaN" for v in vals)))


def short_key(key):
    """"3x3 s2 128>128 56x56" as "3x3/2 128>128 (56)" for the plot's axis."""
    m = re.match(r"(\d+x\d+) s(\d+) (\d+>\d+) (\d+)x\d+", key)
    if not m:
        return key
    return "%s%s %s (%s)" % (m.group(1), "/" + m.group(2) if m.group(2) != "1" else "",
                             m.group(3), m.group(4))


def main():
    folder = sys.argv[1] if len(sys.argv) > 1 else "build/bench"
    res = Results(folder)
    layer = LayerStep(folder)
    peak = Peak(res)
    resnet = ResNet(res, folder)
    rows = ratio_cases(res, layer, peak, resnet)
    write_markdown(res, rows, layer, peak, resnet, os.path.join(folder, "report.md"))
    write_series(res, layer, peak, resnet, folder)


if __name__ == "__main__":
    main()

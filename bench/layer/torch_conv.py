#!/usr/bin/env python3
"""Times PyTorch's conv2d on the two layers of examples/conv_layer.cpp and
writes the medians as JSON.

  layer 1: 3x3, stride 1, zero padding 1, C -> K channels
  layer 2: 3x3, stride 2, zero padding 1, K -> K channels, on layer 1's output

NCHW float32, no bias, inference mode; torch.set_num_threads(--threads, default
all cores). Each layer is timed on its own and the two together as one step,
after warm-up calls, and the median of the repeats is kept.

usage: torch_conv.py [--batch N] [--channels C] [--size HxW] [--out K]
                     [--threads T] [--repeats R] [--json PATH]
"""
import argparse
import json
import os
import statistics
import sys
import time


def main():
    p = argparse.ArgumentParser()
    p.add_argument("--batch", type=int, default=16)
    p.add_argument("--channels", type=int, default=64)
    p.add_argument("--size", default="56x56", help="HxW")
    p.add_argument("--out", type=int, default=64)
    p.add_argument("--threads", type=int, default=os.cpu_count())
    p.add_argument("--repeats", type=int, default=30)
    p.add_argument("--json", help="where to write the medians (default: stdout only)")
    a = p.parse_args()
    h, w = (int(v) for v in a.size.split("x"))

    try:
        import torch
        import torch.nn.functional as F
    except ImportError as e:
        print("PyTorch is not available (%s): no comparison" % e, file=sys.stderr)
        return 3

    torch.set_num_threads(a.threads)
    torch.manual_seed(0)
    x = torch.randn(a.batch, a.channels, h, w)
    w1 = torch.randn(a.out, a.channels, 3, 3) / (3 * a.channels) ** 0.5
    w2 = torch.randn(a.out, a.out, 3, 3) / (3 * a.out) ** 0.5

    def layer1():
        return F.conv2d(x, w1, stride=1, padding=1)

    y1 = layer1()

    def layer2():
        return F.conv2d(y1, w2, stride=2, padding=1)

    def both():
        return F.conv2d(layer1(), w2, stride=2, padding=1)

    def median_ms(f):
        for _ in range(3):
            f()
        times = []
        for _ in range(a.repeats):
            t0 = time.perf_counter()
            f()
            times.append(time.perf_counter() - t0)
        return 1e3 * statistics.median(times)

    with torch.inference_mode():
        result = {
            "torch_version": torch.__version__,
            "threads": torch.get_num_threads(),
            "batch": a.batch, "channels": a.channels, "height": h, "width": w, "out": a.out,
            "repeats": a.repeats,
            "layer1_ms": median_ms(layer1),
            "layer2_ms": median_ms(layer2),
            "both_ms": median_ms(both),
        }
    print("PyTorch %s conv2d, %d threads, median of %d: layer 1 %.2f ms, layer 2 %.2f ms, "
          "both %.2f ms" % (result["torch_version"], result["threads"], a.repeats,
                            result["layer1_ms"], result["layer2_ms"], result["both_ms"]))
    if a.json:
        with open(a.json, "w") as f:
            json.dump(result, f, indent=1)
    return 0


if __name__ == "__main__":
    sys.exit(main())

#!/usr/bin/env python3
"""Times PyTorch's conv2d on the distinct convolution layers of ResNet-50
(torchvision's v1.5) at batch 16 and writes the medians as JSON, for the
report to set beside bench_conv's figures for nerva::convolution_forward.

The layers are those of bench/conv/resnet50_layers.hpp; the report joins the
two on the key "RxR sS C>K HxH". NCHW float32, no bias, inference mode,
torch.set_num_threads(--threads, default all cores); per layer three warm-up
calls, then calls until --repeats of them or --seconds have passed (at least
5), and the median is kept. Each layer is timed again with input and weights
in channels_last order (NHWC, the order of nerva's chained layout within an
observation), where oneDNN skips its reorders: a second, stricter figure. The
first layer of examples/conv_layer.cpp is also timed in float64.

usage: torch_resnet50.py [--batch N] [--threads T] [--repeats R] [--seconds S]
                         [--json PATH]
"""
import argparse
import json
import os
import statistics
import sys
import time

# stage, role, C, K, R, stride, padding, input size, uses in the network
LAYERS = [
    ("stem", "7x7 stride 2", 3, 64, 7, 2, 3, 224, 1),
    ("stage 1", "1x1 reduce, block 1", 64, 64, 1, 1, 0, 56, 1),
    ("stage 1", "3x3", 64, 64, 3, 1, 1, 56, 3),
    ("stage 1", "1x1 expand and projection", 64, 256, 1, 1, 0, 56, 4),
    ("stage 1", "1x1 reduce", 256, 64, 1, 1, 0, 56, 2),
    ("stage 2", "1x1 reduce, block 1", 256, 128, 1, 1, 0, 56, 1),
    ("stage 2", "3x3 stride 2", 128, 128, 3, 2, 1, 56, 1),
    ("stage 2", "1x1 projection stride 2", 256, 512, 1, 2, 0, 56, 1),
    ("stage 2", "1x1 expand", 128, 512, 1, 1, 0, 28, 4),
    ("stage 2", "1x1 reduce", 512, 128, 1, 1, 0, 28, 3),
    ("stage 2", "3x3", 128, 128, 3, 1, 1, 28, 3),
    ("stage 3", "1x1 reduce, block 1", 512, 256, 1, 1, 0, 28, 1),
    ("stage 3", "3x3 stride 2", 256, 256, 3, 2, 1, 28, 1),
    ("stage 3", "1x1 projection stride 2", 512, 1024, 1, 2, 0, 28, 1),
    ("stage 3", "1x1 expand", 256, 1024, 1, 1, 0, 14, 6),
    ("stage 3", "1x1 reduce", 1024, 256, 1, 1, 0, 14, 5),
    ("stage 3", "3x3", 256, 256, 3, 1, 1, 14, 5),
    ("stage 4", "1x1 reduce, block 1", 1024, 512, 1, 1, 0, 14, 1),
    ("stage 4", "3x3 stride 2", 512, 512, 3, 2, 1, 14, 1),
    ("stage 4", "1x1 projection stride 2", 1024, 2048, 1, 2, 0, 14, 1),
    ("stage 4", "1x1 expand", 512, 2048, 1, 1, 0, 7, 3),
    ("stage 4", "1x1 reduce", 2048, 512, 1, 1, 0, 7, 2),
    ("stage 4", "3x3", 512, 512, 3, 1, 1, 7, 2),
]
EXAMPLE = ("example", "layer 1", 64, 64, 3, 1, 1, 56, 1)


def key(c, k, r, s, h):
    return "%dx%d s%d %d>%d %dx%d" % (r, r, s, c, k, h, h)


def main():
    p = argparse.ArgumentParser()
    p.add_argument("--batch", type=int, default=16)
    p.add_argument("--threads", type=int, default=os.cpu_count())
    p.add_argument("--repeats", type=int, default=30)
    p.add_argument("--seconds", type=float, default=1.0, help="time budget per layer")
    p.add_argument("--json", help="where to write the medians (default: stdout only)")
    a = p.parse_args()

    try:
        import torch
        import torch.nn.functional as F
    except ImportError as e:
        print("PyTorch is not available (%s): no comparison" % e, file=sys.stderr)
        return 3

    torch.set_num_threads(a.threads)
    torch.manual_seed(0)

    def median_ms(layer, dtype):
        stage, role, c, k, r, s, pad, h, uses = layer
        x = torch.randn(a.batch, c, h, h, dtype=dtype)
        w = torch.randn(k, c, r, r, dtype=dtype) / (r * r * c) ** 0.5
        result = {"key": key(c, k, r, s, h), "stage": stage, "role": role, "C": c, "K": k, "R": r,
                  "stride": s, "pad": pad, "H": h, "uses": uses}
        for name, order in (("", torch.contiguous_format), ("_channels_last", torch.channels_last)):
            xo, wo = x.contiguous(memory_format=order), w.contiguous(memory_format=order)
            for _ in range(3):
                F.conv2d(xo, wo, stride=s, padding=pad)
            times = []
            start = time.perf_counter()
            while len(times) < a.repeats and (len(times) < 5 or
                                              time.perf_counter() - start < a.seconds):
                t0 = time.perf_counter()
                F.conv2d(xo, wo, stride=s, padding=pad)
                times.append(time.perf_counter() - t0)
            result["calls" + name] = len(times)
            result["ms" + name] = 1e3 * statistics.median(times)
        return result

    with torch.inference_mode():
        layers = []
        for layer in LAYERS:
            layers.append(median_ms(layer, torch.float32))
            print("  %-28s %-36s %8.3f ms, channels_last %8.3f ms"
                  % (layers[-1]["key"], layer[0] + ", " + layer[1], layers[-1]["ms"],
                     layers[-1]["ms_channels_last"]), flush=True)
        example = median_ms(EXAMPLE, torch.float64)
    result = {"torch_version": torch.__version__, "threads": torch.get_num_threads(),
              "batch": a.batch, "layout": "NCHW", "layers": layers, "example_f64": example}
    total = sum(l["ms"] * l["uses"] for l in layers)
    total_cl = sum(l["ms_channels_last"] * l["uses"] for l in layers)
    print("PyTorch %s conv2d, %d threads, batch %d: the network's %d convolutions take %.1f ms "
          "(channels_last %.1f ms); the example's layer in float64 %.2f ms"
          % (result["torch_version"], result["threads"], a.batch,
             sum(l["uses"] for l in layers), total, total_cl, example["ms"]))
    if a.json:
        with open(a.json, "w") as f:
            json.dump(result, f, indent=1)
    return 0


if __name__ == "__main__":
    sys.exit(main())

#!/usr/bin/env python3
"""Writes the guide's SVG pictures into the directory given as the argument.

layouts.svg     memory order of a 3x2-position, 2-channel, 2-observation array
                in the KORVAL and in the chained layout
bounds_1d.svg   one data dimension of an output array: bounds, stride, padding
bounds_2d.svg   the buffer of a padded 2-D output: data region, Data(),
                UnpaddedData() and the data increments
conv_tile.svg   one row of a forward convolution: the output tiles and the
                runs of input columns that each tap of a tile multiplies

Offsets are computed the way nerva lays arrays out: the increment of a
dimension is the product of the sizes at smaller layout positions.
"""

import os
import sys

FONT = "font-family='DejaVu Sans, Helvetica, Arial, sans-serif'"
# One fill per (channel, observation) plane.
PLANE_FILL = {(0, 0): "#cfe2f3", (1, 0): "#f9cb9c", (0, 1): "#b6d7a8", (1, 1): "#d5a6bd"}


class Svg:
    def __init__(self, width, height):
        self.width, self.height, self.items = width, height, []

    def rect(self, x, y, w, h, fill="#ffffff", stroke="#444444", dash=None, sw=1):
        extra = f" stroke-dasharray='{dash}'" if dash else ""
        self.items.append(
            f"<rect x='{x}' y='{y}' width='{w}' height='{h}' fill='{fill}' "
            f"stroke='{stroke}' stroke-width='{sw}'{extra}/>")

    def text(self, x, y, s, size=12, anchor="middle", weight="normal", fill="#222222"):
        s = s.replace("&", "&amp;").replace("<", "&lt;").replace(">", "&gt;")
        self.items.append(
            f"<text x='{x}' y='{y}' font-size='{size}' text-anchor='{anchor}' "
            f"font-weight='{weight}' fill='{fill}' {FONT}>{s}</text>")

    def line(self, x1, y1, x2, y2, stroke="#444444", arrow=False, dash=None, sw=1.2):
        extra = " marker-end='url(#arrow)'" if arrow else ""
        if dash:
            extra += f" stroke-dasharray='{dash}'"
        self.items.append(
            f"<line x1='{x1}' y1='{y1}' x2='{x2}' y2='{y2}' stroke='{stroke}' "
            f"stroke-width='{sw}'{extra}/>")

    def write(self, path):
        head = (
            f"<svg xmlns='http://www.w3.org/2000/svg' width='{self.width}' "
            f"height='{self.height}' viewBox='0 0 {self.width} {self.height}'>\n"
            "<defs><marker id='arrow' viewBox='0 0 10 10' refX='9' refY='5' "
            "markerWidth='7' markerHeight='7' orient='auto-start-reverse'>"
            "<path d='M 0 0 L 10 5 L 0 10 z' fill='#444444'/></marker></defs>\n"
            f"<rect width='{self.width}' height='{self.height}' fill='#ffffff'/>\n")
        with open(path, "w", encoding="utf-8") as f:
            f.write(head + "\n".join(self.items) + "\n</svg>\n")


def offset(index, sizes, dim_map):
    """Element offset of a logical index (x, y, c, n, s) under a dimension map."""
    total = 0
    for k, i in enumerate(index):
        inc = 1
        for j, size in enumerate(sizes):
            if dim_map[j] < dim_map[k]:
                inc *= size
        total += i * inc
    return total


def layouts(path):
    X, Y, C, N = 3, 2, 2, 2
    sizes = [X, Y, C, N, 1]
    formats = [
        ("KORVAL layout: x, y, channel, observation (dim_map 0 1 2 3 4)", [0, 1, 2, 3, 4]),
        ("Chained layout: channel, observation, x, y (dim_map 2 3 0 1 4)", [2, 3, 0, 1, 4]),
    ]
    cell, left = 38, 20
    svg = Svg(left * 2 + 24 * cell, 470)

    # The array as four 3x2 planes, one per (channel, observation).
    svg.text(left, 22, "The array: 3 x 2 positions (x, y), 2 channels (c), 2 observations (n)",
             size=14, anchor="start", weight="bold")
    gw = 3 * 34
    for p, (c, n) in enumerate([(0, 0), (1, 0), (0, 1), (1, 1)]):
        ox, oy = left + 40 + p * (gw + 130), 52
        svg.text(ox + gw / 2, oy - 8, f"channel {c}, observation {n}", size=12)
        for y in range(Y):
            for x in range(X):
                svg.rect(ox + x * 34, oy + y * 30, 34, 30, fill=PLANE_FILL[(c, n)])
                svg.text(ox + x * 34 + 17, oy + y * 30 + 19, f"{x},{y}", size=11)
        svg.text(ox + gw + 8, oy + 19, "y=0", size=10, anchor="start", fill="#666666")
        svg.text(ox + gw + 8, oy + 49, "y=1", size=10, anchor="start", fill="#666666")
    svg.text(left, 140, "Each cell is labelled x,y; its colour is its (channel, observation) "
             "plane. Below: the same 24 elements in memory order, offset 0 first.",
             size=12, anchor="start", fill="#444444")

    for f, (title, dim_map) in enumerate(formats):
        top = 185 + f * 145
        svg.text(left, top, title, size=14, anchor="start", weight="bold")
        order = [None] * (X * Y * C * N)
        for n in range(N):
            for c in range(C):
                for y in range(Y):
                    for x in range(X):
                        order[offset([x, y, c, n, 0], sizes, dim_map)] = (x, y, c, n)
        for o, (x, y, c, n) in enumerate(order):
            cx = left + o * cell
            svg.text(cx + cell / 2, top + 22, str(o), size=10, fill="#666666")
            svg.rect(cx, top + 28, cell, 34, fill=PLANE_FILL[(c, n)])
            svg.text(cx + cell / 2, top + 43, f"{x},{y}", size=11)
            svg.text(cx + cell / 2, top + 57, f"c{c} n{n}", size=9, fill="#555555")
        incs = {k: offset([1 if j == k else 0 for j in range(5)], sizes, dim_map)
                for k in range(4)}
        svg.text(left, top + 84,
                 f"increments: x {incs[0]}, y {incs[1]}, channel {incs[2]}, "
                 f"observation {incs[3]}", size=12, anchor="start", fill="#444444")
    svg.text(left, 462, "KORVAL to chained: order vector 3 4 1 2 5 (entry p is 1 + the current "
             "position of the dimension that goes to position p)",
             size=12, anchor="start", fill="#444444")
    svg.write(path)


def bounds_1d(path):
    first, last, stride, pre, post = 1, 10, 3, 2, 1
    samples = list(range(first, last, stride))
    count = len(samples)
    cell, left = 44, 120
    svg = Svg(left + 13 * cell + 60, 340)
    svg.text(20, 22, f"One data dimension: firsts 1, lasts 10, stride 3, padding 2 before "
             f"and 1 after", size=14, anchor="start", weight="bold")
    # Input positions.
    top = 60
    svg.text(left - 10, top + 22, "positions", size=12, anchor="end")
    for p in range(12):
        inside = first <= p < last
        fill = "#cfe2f3" if p in samples else ("#eeeeee" if inside else "#ffffff")
        svg.rect(left + p * cell, top, cell, 34, fill=fill,
                 stroke="#444444" if inside else "#aaaaaa")
        svg.text(left + p * cell + cell / 2, top + 22, str(p), size=12)
    svg.line(left + first * cell, top - 12, left + last * cell, top - 12)
    svg.text(left + first * cell, top - 16, "first = 1", size=11, anchor="start")
    svg.text(left + last * cell, top - 16, "last = 10 (exclusive)", size=11, anchor="end")
    tight = samples[-1] + 1
    svg.line(left + tight * cell, top + 34, left + tight * cell, top + 52, stroke="#cc0000")
    svg.text(left + tight * cell + 4, top + 50, "strided descriptor: last = 8",
             size=11, anchor="start", fill="#cc0000")
    # Output indices.
    otop = 190
    size = pre + count + post
    svg.text(left - 10, otop + 22, "array index", size=12, anchor="end")
    shift = 2
    for j in range(size):
        data = pre <= j < pre + count
        fill = "#cfe2f3" if data else "#f3f3f3"
        svg.rect(left + (j + shift) * cell, otop, cell, 34, fill=fill, dash=None if data else "4 3")
        svg.text(left + (j + shift) * cell + cell / 2, otop + 22, str(j), size=12)
        svg.text(left + (j + shift) * cell + cell / 2, otop + 52,
                 "data" if data else "padding", size=10, fill="#555555")
    for i, p in enumerate(samples):
        svg.line(left + p * cell + cell / 2, top + 36, left + (pre + i + shift) * cell + cell / 2,
                 otop - 2, arrow=True)
    svg.text(20, otop + 90, f"size = padding before + sampled positions + padding after = "
             f"{pre} + {count} + {post} = {size}", size=12, anchor="start")
    svg.text(20, otop + 110, f"sampled positions = (last - 1 - first) / stride + 1 = "
             f"(10 - 1 - 1) / 3 + 1 = {count}", size=12, anchor="start")
    svg.text(20, otop + 130, "UnpaddedData() points at index 2 (the first data element); "
             "Data() at index 0.", size=12, anchor="start")
    svg.write(path)


def bounds_2d(path):
    W, H = 4, 3            # data region (x, y)
    pre, post = (1, 1), (1, 1)
    sx, sy = W + pre[0] + post[0], H + pre[1] + post[1]
    cell, left, top = 46, 60, 60
    svg = Svg(left + sx * cell + 560, top + sy * cell + 70)
    svg.text(20, 24, "A 2-D output with padding {1, 1, 1, 1}: one (channel, observation) "
             "plane of the buffer", size=14, anchor="start", weight="bold")
    for y in range(sy):
        for x in range(sx):
            data = pre[0] <= x < pre[0] + W and pre[1] <= y < pre[1] + H
            svg.rect(left + x * cell, top + y * cell, cell, cell,
                     fill="#cfe2f3" if data else "#f3f3f3", dash=None if data else "4 3")
            svg.text(left + x * cell + cell / 2, top + y * cell + 28,
                     f"{x},{y}", size=11, fill="#222222" if data else "#888888")
    svg.rect(left + pre[0] * cell, top + pre[1] * cell, W * cell, H * cell, fill="none",
             stroke="#1f4e79", sw=2.5)
    svg.text(left + sx * cell / 2, top - 8, "x: size 1 + 4 + 1 = 6", size=11)
    svg.text(left - 8, top + sy * cell / 2, "y: 5", size=11, anchor="end")
    svg.text(left - 8, top + sy * cell / 2 + 14, "(1+3+1)", size=10, anchor="end")
    rx = left + sx * cell + 30
    svg.line(rx, top + 12, left + cell - 4, top + cell / 2 - 4, arrow=True)
    svg.text(rx + 4, top + 16, "Data(): element (0, 0), padding", size=12, anchor="start")
    svg.line(rx, top + 70, left + 2 * cell - 4, top + 1.5 * cell - 4, arrow=True)
    svg.text(rx + 4, top + 74, "UnpaddedData() = Data() + 1*DataIncrement(0)", size=12,
             anchor="start")
    svg.text(rx + 120, top + 90, "+ 1*DataIncrement(1)", size=12, anchor="start")
    svg.text(rx + 4, top + 140, "In the KORVAL layout DataIncrement(0) = 1", size=12,
             anchor="start")
    svg.text(rx + 4, top + 156, "and DataIncrement(1) = 6; in the chained", size=12,
             anchor="start")
    svg.text(rx + 4, top + 172, "layout both are multiplied by channels x", size=12,
             anchor="start")
    svg.text(rx + 4, top + 188, "observations.", size=12, anchor="start")
    svg.text(20, top + sy * cell + 30, "Blue: the data region (firsts 0, lasts {4, 3}). Dashed: "
             "padding, zero when the buffer was allocated with Zeros, else as leased.", size=12, anchor="start")
    svg.write(path)


def conv_tile(path):
    size, window, pad = 8, 3, 1
    outputs = size + 2 * pad - window + 1
    cell, left, top = 46, 150, 70
    svg = Svg(left + (size + 2) * cell + 300, 470)
    svg.text(20, 24, "One row of a forward convolution: window 3, padding 1 before and after, "
             "stride 1", size=14, anchor="start", weight="bold")
    # The input row, with the padding that is never stored.
    svg.text(left - 10, top + 22, "input index", size=12, anchor="end")
    for q in range(-pad, size + pad):
        inside = 0 <= q < size
        x = left + (q + pad) * cell
        svg.rect(x, top, cell, 34, fill="#ffffff" if inside else "#f3f3f3",
                 dash=None if inside else "4 3", stroke="#444444" if inside else "#aaaaaa")
        svg.text(x + cell / 2, top + 22, str(q) if inside else "(0)", size=12,
                 fill="#222222" if inside else "#888888")
    # The taps of the interior tile: each a run of input columns, shifted by one.
    tile = (1, outputs - 1)   # output positions 1 .. 6
    colours = ["#cfe2f3", "#f9cb9c", "#b6d7a8"]
    for t in range(window):
        y = top + 52 + t * 30
        a, b = tile[0] + t - pad, tile[1] + t - pad
        svg.rect(left + (a + pad) * cell + 2, y, (b - a) * cell - 4, 22, fill=colours[t])
        svg.text(left - 10, y + 16, f"tap {t}: B[{t}]", size=12, anchor="end")
        svg.text(left + (a + pad) * cell + 8, y + 16, f"input {a} .. {b - 1}", size=11,
                 anchor="start")
    # The output row and its tiles.
    otop = top + 190
    svg.text(left - 10, otop + 22, "output position", size=12, anchor="end")
    for j in range(outputs):
        x = left + (j + pad) * cell
        border = j < tile[0] or j >= tile[1]
        svg.rect(x, otop, cell, 34, fill="#fff2cc" if border else "#d9d2e9")
        svg.text(x + cell / 2, otop + 22, str(j), size=12)
    svg.rect(left + (tile[0] + pad) * cell, otop, (tile[1] - tile[0]) * cell, 34, fill="none",
             stroke="#1f4e79", sw=2.5)
    for t in range(window):
        y = top + 52 + t * 30 + 22
        svg.line(left + (tile[0] + t + 0.5) * cell, y, left + (tile[0] + pad + 0.5) * cell + t * 8,
                 otop - 2, arrow=True, stroke="#555555")
    rx = left + (size + 2 * pad) * cell + 20
    svg.text(rx, top + 22, "Taps that fall on the padding are", size=12, anchor="start")
    svg.text(rx, top + 38, "left out of a tile's batch; nothing", size=12, anchor="start")
    svg.text(rx, top + 54, "reads a zero-filled copy.", size=12, anchor="start")
    svg.text(20, otop + 70, "Purple, framed: the interior tile (positions 1 to 6). Its register tiles "
             "of C start at zero and take all three taps, for every block", size=12,
             anchor="start")
    svg.text(20, otop + 88, "of input channels, in one batch_reduce_gemm call: "
             "C = sum over taps and channel blocks of A[tap] B[tap], stored once.",
             size=12, anchor="start")
    svg.text(20, otop + 112, "Yellow: border tiles. Position 0 takes taps 1 and 2 only, "
             "position 7 taps 0 and 1: each is a tile of its own with a shorter batch.",
             size=12, anchor="start")
    svg.text(20, otop + 136, "In the chained layout a run of positions is a run of columns "
             "(observations within positions), so B[t] is the", size=12, anchor="start")
    svg.text(20, otop + 154, "input itself at the run's first column for tap t, channels by "
             "columns, leading dimension = the input's channel count.", size=12, anchor="start")
    svg.write(path)


def main():
    out = sys.argv[1] if len(sys.argv) > 1 else "."
    os.makedirs(out, exist_ok=True)
    layouts(os.path.join(out, "layouts.svg"))
    bounds_1d(os.path.join(out, "bounds_1d.svg"))
    bounds_2d(os.path.join(out, "bounds_2d.svg"))
    conv_tile(os.path.join(out, "conv_tile.svg"))


if __name__ == "__main__":
    main()

#!/usr/bin/python3
"""Write golden fixtures for the deepnet engine tests into tests/deepnet/golden/.

Builds a small seeded network that uses every inference layer type, exports
it with dnm.py, and records the input and the outputs of a few layers. The
expected outputs come from a float64 numpy forward pass over the exported
file (read back from bytes), which must agree with PyTorch before anything is
written. Weights and inputs come from numpy's legacy RandomState so the
fixtures do not depend on the torch version.

Usage: make_engine_golden.py [--out DIR] [--check]
"""

import argparse
import os
import sys

import numpy as np

from fontrix_training import dnm

WIDTH, HEIGHT, COUNT = 23, 19, 3
SEED = 20240611
MODEL_FILE = "golden_net.dnm"
INPUT_FILE = "golden_input.f32"
CHECKED = ["lrn1", "conv2", "concat", "prob"]
REL_TOL = 1e-4
LRN_PARAMS = dict(size=5, alpha=2.0, beta=0.75, k=1.0)

REPO = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
DEFAULT_OUT = os.path.join(REPO, "tests", "deepnet", "golden")


# ---------------------------------------------------------------------------
# PyTorch network


def _ceil_extra(size, kernel, stride):
    """Zeros to append so a floor-rounded conv yields the ceil-mode extent."""
    rem = (size - kernel) % stride
    return stride - rem if rem else 0


def build_torch(rs):
    import torch

    def conv(cin, cout, kernel, stride=1, padding=0, groups=1, scale=1.0):
        m = torch.nn.Conv2d(cin, cout, kernel, stride=stride, padding=padding, groups=groups)
        fan_in = m.weight[0].numel()
        bound = scale * np.sqrt(3.0 / fan_in)
        m.weight.data = torch.from_numpy(rs.uniform(-bound, bound, m.weight.shape).astype(np.float32))
        m.bias.data = torch.from_numpy(rs.uniform(-0.1, 0.1, cout).astype(np.float32))
        return m

    net = torch.nn.Module()
    net.conv1 = conv(1, 8, (3, 5), stride=(1, 2), scale=1.5)
    net.conv2 = conv(8, 8, 3, stride=2, groups=2)
    net.conv3 = conv(32, 16, 3, stride=2, padding=1)
    net.fc = torch.nn.Linear(240 + 432, 10)
    bound = 2.0 / np.sqrt(672)
    net.fc.weight.data = torch.from_numpy(rs.uniform(-bound, bound, (10, 672)).astype(np.float32))
    net.fc.bias.data = torch.from_numpy(rs.uniform(-0.1, 0.1, 10).astype(np.float32))
    net.eval()
    return net


def torch_forward(net, x):
    """Named outputs, one per exported layer."""
    import torch
    import torch.nn.functional as F

    o = {"data": x}
    # conv1: asymmetric zero padding (w 2/3, h 1/0) applied by F.pad.
    o["conv1"] = net.conv1(F.pad(x, (2, 3, 1, 0)))
    o["relu1"] = F.relu(o["conv1"])
    o["lrn1"] = F.local_response_norm(o["relu1"], **LRN_PARAMS)
    o["pool_ceil"] = F.max_pool2d(o["lrn1"], 3, stride=2, ceil_mode=True)
    # conv2: ceil-mode extent emulated by extra zeros at the end.
    h, w = o["lrn1"].shape[2:]
    o["conv2"] = net.conv2(F.pad(o["lrn1"], (0, _ceil_extra(w, 3, 2), 0, _ceil_extra(h, 3, 2))))
    o["pool_pad"] = F.max_pool2d(F.pad(o["relu1"], (0, 1, 1, 0), value=float("-inf")), 3, stride=2)
    o["pool_avg"] = F.avg_pool2d(o["relu1"], (2, 4), stride=2, padding=(0, 1), divisor_override=8)
    o["concat"] = torch.cat([o["pool_ceil"], o["conv2"], o["pool_pad"], o["pool_avg"]], dim=1)
    o["conv3"] = net.conv3(o["concat"])
    o["relu3"] = F.relu(o["conv3"])
    n = x.shape[0]
    o["fc"] = net.fc(torch.cat([o["relu3"].reshape(n, -1), o["pool_avg"].reshape(n, -1)], 1))
    o["prob"] = F.softmax(o["fc"], dim=1)
    return o


def export_layers(net):
    import torch.nn as nn

    lrn = nn.LocalResponseNorm(LRN_PARAMS["size"], LRN_PARAMS["alpha"], LRN_PARAMS["beta"],
                               LRN_PARAMS["k"])
    return [
        dnm.Data("data"),
        dnm.conv_from_torch("conv1", "data", net.conv1, extra_pad=(2, 3, 1, 0)),
        dnm.ReLU("relu1", "conv1"),
        dnm.lrn_from_torch("lrn1", "relu1", lrn),
        dnm.MaxPool("pool_ceil", "lrn1", 3, 3, 2, 2),
        dnm.conv_from_torch("conv2", "lrn1", net.conv2, ceil_mode=True),
        dnm.MaxPool("pool_pad", "relu1", 3, 3, 2, 2, pad_w_begin=0, pad_w_end=1,
                    pad_h_begin=1, pad_h_end=0),
        dnm.AvgPool("pool_avg", "relu1", 4, 2, 2, 2, pad_w_begin=1, pad_w_end=1),
        dnm.Concat("concat", ["pool_ceil", "conv2", "pool_pad", "pool_avg"], axis=2),
        dnm.conv_from_torch("conv3", "concat", net.conv3),
        dnm.ReLU("relu3", "conv3"),
        dnm.fc_from_torch("fc", ["relu3", "pool_avg"], net.fc, input_sizes=[240, 432]),
        dnm.Softmax("prob", "fc"),
    ]


# ---------------------------------------------------------------------------
# Independent forward pass over the exported layers (float64, naive loops)


def _windows(size, kernel, stride, pad_begin, pad_end, ceil):
    """(start, end) of each output window, clipped to [0, size)."""
    n = dnm.conv_output_extent(size, kernel, stride, pad_begin, pad_end, ceil)
    out = []
    for i in range(n):
        s = i * stride - pad_begin
        out.append((max(s, 0), min(s + kernel, size), s))
    return out


def _conv(L, x):
    n, c, h, w = x.shape
    assert c == L.num_input, (L.name, c)
    wt = L.weights.astype(np.float64).reshape(L.num_output, c // L.group, L.kernel_h, L.kernel_w)
    rows = _windows(h, L.kernel_h, L.stride_h, L.pad_h_begin, L.pad_h_end, L.ceil_mode)
    cols = _windows(w, L.kernel_w, L.stride_w, L.pad_w_begin, L.pad_w_end, L.ceil_mode)
    out = np.zeros((n, L.num_output, len(rows), len(cols)))
    cin, cout = c // L.group, L.num_output // L.group
    for g in range(L.group):
        xs = x[:, g * cin:(g + 1) * cin]
        ws = wt[g * cout:(g + 1) * cout]
        for oy, (y0, y1, ys) in enumerate(rows):
            for ox, (x0, x1, xs0) in enumerate(cols):
                # Only in-image taps contribute; padding is zero.
                patch = xs[:, :, y0:y1, x0:x1]
                kern = ws[:, :, y0 - ys:y1 - ys, x0 - xs0:x1 - xs0]
                out[:, g * cout:(g + 1) * cout, oy, ox] = np.einsum("ncyx,ocyx->no", patch, kern)
    return out + L.biases.astype(np.float64)[None, :, None, None]


def _pool(L, x, is_max):
    n, c, h, w = x.shape
    rows = _windows(h, L.kernel_h, L.stride_h, L.pad_h_begin, L.pad_h_end, True)
    cols = _windows(w, L.kernel_w, L.stride_w, L.pad_w_begin, L.pad_w_end, True)
    out = np.zeros((n, c, len(rows), len(cols)))
    for oy, (y0, y1, _) in enumerate(rows):
        for ox, (x0, x1, _) in enumerate(cols):
            assert y1 > y0 and x1 > x0, "%s: empty window" % L.name
            win = x[:, :, y0:y1, x0:x1]
            out[:, :, oy, ox] = (win.max(axis=(2, 3)) if is_max
                                 else win.sum(axis=(2, 3)) / (L.kernel_w * L.kernel_h))
    return out


def _lrn(L, x):
    c = x.shape[1]
    half = L.local_size // 2
    sq = x * x
    out = np.empty_like(x)
    for ch in range(c):
        s = sq[:, max(0, ch - half):min(c, ch + half + 1)].sum(axis=1)
        out[:, ch] = x[:, ch] / (L.k + L.alpha / L.local_size * s) ** L.beta
    return out


def numpy_forward(layers, images, width, height):
    """Outputs by layer name; images are (count, height, width)."""
    out = {}
    for L in layers:
        xs = [out[i] for i in L.inputs]
        if isinstance(L, dnm.Data):
            y = images.reshape(-1, 1, height, width).astype(np.float64)
        elif isinstance(L, dnm.Conv):
            y = _conv(L, xs[0])
        elif isinstance(L, dnm.Activation):
            assert L.activation_type == dnm.ACTIVATION_RELU
            y = np.maximum(xs[0], 0)
        elif isinstance(L, dnm.LRN):
            y = _lrn(L, xs[0])
        elif isinstance(L, (dnm.MaxPool, dnm.AvgPool)):
            y = _pool(L, xs[0], isinstance(L, dnm.MaxPool))
        elif isinstance(L, dnm.Concat):
            axis = 1 if xs[0].ndim == 2 else {0: 3, 1: 2, 2: 1}[L.axis]
            y = np.concatenate(xs, axis=axis)
        elif isinstance(L, dnm.FullyConnected):
            y = L.biases.astype(np.float64)[None, :].repeat(len(xs[0]), 0)
            for x, wb, size in zip(xs, L.weight_blocks(), L.input_sizes):
                flat = x.reshape(len(x), -1)
                assert flat.shape[1] == size, (L.name, flat.shape, size)
                y = y + flat @ wb.astype(np.float64).T
        elif isinstance(L, dnm.Softmax):
            flat = xs[0].reshape(len(xs[0]), -1)
            e = np.exp(flat - flat.max(axis=1, keepdims=True))
            y = (e / e.sum(axis=1, keepdims=True)).reshape(xs[0].shape)
        else:
            raise ValueError("no reference for layer %r" % L.name)
        if L.name not in out:  # names resolve to the first layer
            out[L.name] = y
    return out


# ---------------------------------------------------------------------------


def dims_of(arr):
    """Per-sample extents, width first."""
    return ",".join(str(d) for d in reversed(arr.shape[1:]))


def build():
    """(files: name -> bytes, cases.txt text, report lines)."""
    import torch

    rs = np.random.RandomState(SEED)
    net = build_torch(rs)
    images = rs.uniform(-1.0, 1.0, (COUNT, HEIGHT, WIDTH)).astype(np.float32)

    layers = export_layers(net)
    model = dnm.model_bytes(layers)
    exported = dnm.read_model(model)
    with torch.no_grad():
        ref_t = {k: v.double().numpy() for k, v in
                 torch_forward(net, torch.from_numpy(images)[:, None]).items()}
    ref_n = numpy_forward(exported, images, WIDTH, HEIGHT)

    report = []
    for L in exported:
        t, n = ref_t[L.name], ref_n[L.name]
        if t.shape != n.shape:
            raise AssertionError("%s: torch shape %s, engine rule shape %s" % (L.name, t.shape, n.shape))
        err = np.abs(t - n).max() / max(np.abs(n).max(), 1e-30)
        if not err <= REL_TOL:
            raise AssertionError("%s: relative error %.3g" % (L.name, err))
        report.append("%-10s dims %-10s rel err %.2e" % (L.name, dims_of(n), err))

    # The LRN must change values by more than a constant factor to be tested.
    ratio = ref_n["lrn1"] / np.where(ref_n["relu1"] == 0, 1, ref_n["relu1"])
    ratio = ratio[ref_n["relu1"] > 0]
    assert ratio.min() < 0.9 * ratio.max(), "LRN is nearly a constant scale"

    files = {MODEL_FILE: model, INPUT_FILE: images.astype("<f4").tobytes()}
    lines = ["# model_file layer_name width height count dims input_file output_file"
             "  (dims: per-sample output extents, width first; files are little-endian"
             " f32 and relative to this file; generated by training/make_engine_golden.py)"]
    for name in CHECKED:
        out_file = "golden_%s.f32" % name
        files[out_file] = ref_n[name].astype("<f4").tobytes()
        lines.append(" ".join([MODEL_FILE, name, str(WIDTH), str(HEIGHT), str(COUNT),
                               dims_of(ref_n[name]), INPUT_FILE, out_file]))
    files["cases.txt"] = ("\n".join(lines) + "\n").encode()
    return files, report


def main():
    ap = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    ap.add_argument("--out", default=DEFAULT_OUT, help="fixture directory")
    ap.add_argument("--check", action="store_true",
                    help="compare with the files on disk instead of writing")
    args = ap.parse_args()

    files, report = build()
    print("\n".join(report))
    if args.check:
        stale = []
        for name, data in sorted(files.items()):
            path = os.path.join(args.out, name)
            if not os.path.exists(path) or open(path, "rb").read() != data:
                stale.append(name)
        if stale:
            print("out of date: %s" % " ".join(stale), file=sys.stderr)
            return 1
        print("fixtures up to date")
        return 0
    os.makedirs(args.out, exist_ok=True)
    for name, data in sorted(files.items()):
        with open(os.path.join(args.out, name), "wb") as f:
            f.write(data)
    total = sum(len(d) for d in files.values())
    print("wrote %d files (%d bytes) to %s" % (len(files), total, args.out))
    return 0


if __name__ == "__main__":
    sys.exit(main())

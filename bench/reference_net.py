#!/usr/bin/python3
"""The reference network used to benchmark deepnet against PyTorch.

Input 109x109x1; five convolutions with ReLU, two LRNs and four max pools;
output "pool4" holds 192x2x2 = 768 values per sample. Weights are seeded
random values (He-scaled so activations stay finite), not a trained model.

Usage: reference_net.py --export PATH
"""

import argparse
import os

import numpy as np

from fontrix_training import dnm

REPO = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))

INPUT_SIZE = 109
SEED = 109
OUTPUT_LAYER = "pool4"
LRN = dict(size=5, alpha=1e-4, beta=0.75, k=2.0)
# name: (in, out, kernel, stride, padding)
CONVS = {
    "conv1": (1, 64, 11, 2, 0),
    "conv2": (64, 128, 5, 1, 2),
    "conv3": (128, 256, 3, 1, 1),
    "conv4": (256, 256, 3, 1, 1),
    "conv5": (256, 192, 3, 1, 1),
}
# name: (kernel, stride)
POOLS = {"pool1": (3, 2), "pool2": (3, 2), "pool3": (3, 2), "pool4": (3, 3)}
# Spatial extents both PyTorch (ceil_mode=True) and the engine's rule must give.
EXPECTED_EXTENTS = {"conv1": 50, "pool1": 25, "pool2": 12, "conv3": 12,
                    "conv4": 12, "pool3": 6, "pool4": 2}


def build_torch(seed=SEED):
    import torch

    rs = np.random.RandomState(seed)
    net = torch.nn.Module()
    for name, (cin, cout, k, s, p) in CONVS.items():
        m = torch.nn.Conv2d(cin, cout, k, stride=s, padding=p)
        std = np.sqrt(2.0 / (cin * k * k))
        m.weight.data = torch.from_numpy((rs.standard_normal(m.weight.shape) * std).astype(np.float32))
        m.bias.data = torch.from_numpy(rs.uniform(-0.05, 0.05, cout).astype(np.float32))
        setattr(net, name, m)
    net.eval()
    return net


def forward(net, x):
    """All named outputs for a (N, 1, 109, 109) batch."""
    import torch.nn.functional as F

    o = {}

    def conv(name, inp):
        o[name] = getattr(net, name)(inp)
        o["relu" + name[-1]] = F.relu(o[name])
        return o["relu" + name[-1]]

    def pool(name, inp):
        k, s = POOLS[name]
        o[name] = F.max_pool2d(inp, k, stride=s, ceil_mode=True)
        return o[name]

    def norm(name, inp):
        o[name] = F.local_response_norm(inp, **LRN)
        return o[name]

    y = pool("pool1", norm("norm1", conv("conv1", x)))
    y = pool("pool2", norm("norm2", conv("conv2", y)))
    y = conv("conv3", y)
    y = pool("pool3", conv("conv4", y))
    pool("pool4", conv("conv5", y))
    return o


def export_layers(net):
    import torch

    lrn = torch.nn.LocalResponseNorm(**LRN)
    layers = [dnm.Data("data")]
    prev = "data"

    def add(layer):
        nonlocal prev
        layers.append(layer)
        prev = layer.name

    def conv(name):
        add(dnm.conv_from_torch(name, prev, getattr(net, name)))
        add(dnm.ReLU("relu" + name[-1], prev))

    def pool(name):
        k, s = POOLS[name]
        add(dnm.MaxPool(name, prev, k, k, s, s))

    conv("conv1"); add(dnm.lrn_from_torch("norm1", prev, lrn)); pool("pool1")  # noqa: E702
    conv("conv2"); add(dnm.lrn_from_torch("norm2", prev, lrn)); pool("pool2")  # noqa: E702
    conv("conv3")
    conv("conv4"); pool("pool3")  # noqa: E702
    conv("conv5"); pool("pool4")  # noqa: E702
    return layers


def check_shapes(net):
    """PyTorch's extents must equal the engine's rule for every layer."""
    import torch

    size = INPUT_SIZE
    rule = {}
    for L in export_layers(net)[1:]:
        if isinstance(L, dnm.Conv):
            size = dnm.conv_output_extent(size, L.kernel_h, L.stride_h, L.pad_h_begin, L.pad_h_end)
        elif isinstance(L, dnm.MaxPool):
            size = dnm.pool_output_extent(size, L.kernel_h, L.stride_h, L.pad_h_begin, L.pad_h_end)
        rule[L.name] = size
    with torch.inference_mode():
        out = forward(net, torch.zeros(1, 1, INPUT_SIZE, INPUT_SIZE))
    for name in rule:
        h, w = out[name].shape[2:]
        if not h == w == rule[name]:
            raise AssertionError("%s: PyTorch %dx%d, engine rule %d" % (name, h, w, rule[name]))
        if name in EXPECTED_EXTENTS and rule[name] != EXPECTED_EXTENTS[name]:
            raise AssertionError("%s: extent %d, expected %d" % (name, rule[name], EXPECTED_EXTENTS[name]))
    if out[OUTPUT_LAYER][0].numel() != 768:
        raise AssertionError("%s has %d values" % (OUTPUT_LAYER, out[OUTPUT_LAYER][0].numel()))


def export(path, net=None):
    net = net if net is not None else build_torch()
    check_shapes(net)
    dnm.write_model(path, export_layers(net))
    return path


def main():
    ap = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    ap.add_argument("--export", metavar="PATH", required=True, help="write the model as .dnm")
    args = ap.parse_args()
    export(args.export)
    print("wrote %s (%d bytes)" % (args.export, os.path.getsize(args.export)))


if __name__ == "__main__":
    main()

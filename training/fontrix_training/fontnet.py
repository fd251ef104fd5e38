"""The network shared by similarity and recognition, and its export to .dnm files.

One convolutional trunk turns a 109 x 109 crop (byte - 128) into "pool4", 768 values (a max
over the last 6 x 6 map). Similarity reads pool4 as the module does: adjacent pairs reduced by
max, the five crops of a specimen combined by max, the result scaled to unit length. Recognition
adds a fully connected layer over pool4 ("fc_rec"), optionally after a hidden fully connected
layer with ReLU ("fc_hidden", a few million multiply-adds against the trunk's 72), and a softmax,
"prob", over the fonts of the recognition table. Only layers the engine has; batch normalisation is folded into the
convolutions at export.

Cost per crop at TRUNK's widths: about 77 million multiply-adds (154 MFLOP).
"""

import torch
import torch.nn as nn
import torch.nn.functional as F

from fontrix_training import dnm

# (name, in, out, kernel, stride, pad, max-pool 3/2 after)
TRUNK = (
    ("conv1", 1, 24, 5, 2, 2, True),
    ("conv2", 24, 48, 3, 1, 1, False),
    ("conv3", 48, 48, 3, 1, 1, True),
    ("conv4", 48, 128, 3, 1, 1, False),
    ("conv5", 128, 112, 3, 1, 1, True),
    ("conv6", 112, 256, 3, 1, 1, False),
    ("conv7", 256, 768, 1, 1, 0, False),
)
POOL4_SIDE = 6  # 109 -> 55 -> 27 -> 13 -> 6
FEATURES = 768


class FontNet(nn.Module):
    def __init__(self, rec_classes, rec_hidden=0, widths=None):
        """`widths`: the convolutions' output channels (TRUNK's by default); the last stays
        FEATURES wide, since pool4 is what the heads and the similarity reduction read."""
        super().__init__()
        widths = list(widths or [layer[2] for layer in TRUNK])
        if len(widths) != len(TRUNK) or widths[-1] != FEATURES:
            raise ValueError(f"{len(TRUNK)} widths ending in {FEATURES} expected, not {widths}")
        self.convs = nn.ModuleList()
        self.norms = nn.ModuleList()
        cin = 1
        for (_, _, _, k, s, p, _), cout in zip(TRUNK, widths):
            self.convs.append(nn.Conv2d(cin, cout, k, stride=s, padding=p, bias=False))
            self.norms.append(nn.BatchNorm2d(cout))
            cin = cout
        # Registered even when absent: weights saved with a hidden layer between pool4 and
        # "fc_rec" load and export as well as those without.
        self.add_module("hidden", nn.Linear(FEATURES, rec_hidden) if rec_hidden else None)
        self.rec = nn.Linear(rec_hidden or FEATURES, rec_classes)

    @property
    def rec_hidden(self):
        return self.hidden.out_features if self.hidden is not None else 0

    @property
    def widths(self):
        return [conv.out_channels for conv in self.convs]

    def rec_scores(self, pool4):
        """The recognition logits ("fc_rec") from pool4; dropout on pool4 while training."""
        x = F.dropout(pool4, 0.3, self.training)
        if self.hidden is not None:
            x = F.relu(self.hidden(x))
        return self.rec(x)

    def trunk(self, x, start=0, stop=None):
        """The trunk's convolutions start to stop - 1 (each with its ReLU and pooling) over x."""
        layers = list(zip(TRUNK, self.convs, self.norms))[start:stop]
        for (_, _, _, _, _, _, pool), conv, norm in layers:
            x = F.relu(norm(conv(x)))
            if pool:
                x = F.max_pool2d(x, 3, 2)
        return x

    def pool4(self, x):
        """x: (n, 1, 109, 109) of byte - 128 -> (n, 768), every value >= 0."""
        return F.max_pool2d(self.trunk(x), POOL4_SIDE).flatten(1)

    def rec_logits(self, x):
        return self.rec_scores(self.pool4(x))

    def embedding(self, crops):
        """crops: (n, 5, 1, 109, 109) -> (n, 384) unit vectors: pair max, max over crops."""
        return self.reduce(self.pool4(crops.flatten(0, 1)), crops.shape[0])

    @staticmethod
    def reduce(pool4, sets):
        y = pool4.view(sets, -1, FEATURES)
        y = torch.maximum(y[..., 0::2], y[..., 1::2]).amax(1)
        return F.normalize(y, dim=1)

    def forward(self, x_rec, x_sim):
        """Recognition logits and similarity embeddings (one per crop set) from one pass of the
        trunk, so batch normalisation sees (and keeps statistics of) the mixture inference meets."""
        n = x_rec.shape[0]
        p = self.pool4(torch.cat([x_rec, x_sim.flatten(0, 1)]))
        return self.rec_scores(p[:n]), self.reduce(p[n:], x_sim.shape[0])


def from_state(state):
    """The network a saved state holds, with its number of recognition classes and hidden width."""
    widths = [state["net"][f"convs.{i}.weight"].shape[0] for i in range(len(TRUNK))]
    net = FontNet(state["rec_classes"], state.get("rec_hidden", 0), widths)
    net.load_state_dict(state["net"])
    return net


def export(net, with_prob):
    """The network as .dnm layers: the trunk to "pool4", and with `with_prob` the
    recognition head ("fc_hidden" and its ReLU when there is one, "fc_rec", "prob")."""
    net = net.eval()
    layers = [dnm.Data("data")]
    top = "data"
    for (name, _, _, _, _, _, pool), conv, norm in zip(TRUNK, net.convs, net.norms):
        layers.append(dnm.conv_from_torch(name, top, conv, bn=norm))
        layers.append(dnm.ReLU(name + "_relu", name))
        top = name + "_relu"
        if pool:
            layers.append(dnm.MaxPool("pool_" + name, top, 3, 3, 2, 2))
            top = "pool_" + name
    layers.append(dnm.MaxPool("pool4", top, POOL4_SIDE, POOL4_SIDE))
    if with_prob:
        top = "pool4"
        if net.hidden is not None:
            layers.append(dnm.fc_from_torch("fc_hidden", top, net.hidden))
            layers.append(dnm.ReLU("fc_hidden_relu", "fc_hidden"))
            top = "fc_hidden_relu"
        layers.append(dnm.fc_from_torch("fc_rec", top, net.rec))
        layers.append(dnm.Softmax("prob", "fc_rec"))
    return layers

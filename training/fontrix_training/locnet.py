"""The localisation network: where, in a picture taller than its line of text, the text band is.

The module brings the whole picture to 109 rows (keeping its aspect) and runs this network over
it. Four convolutions (strides 2, 2, 2, 1) leave a 14-row map; a max over the whole width keeps,
per row and channel, the strongest response anywhere along the line; two fully connected layers
read those 14 x 32 values and give "detections": one triple (start, end, confidence), start and
end as fractions of the picture's height. The confidence is trained towards 1 and not used.

The input is the picture's bytes as they are (0..255); the scale to 0..1 is folded into the
first convolution at export, which is exact because the padding is zero either way.

Cost: about 40 thousand multiply-adds per column of the 109-row picture (40 million for a
1,000-column line).
"""
import torch.nn as nn
import torch.nn.functional as F

from fontrix_training import dnm

# (name, in, out, kernel, stride, pad)
CONVS = (
    ("loc1", 1, 8, 5, 2, 2),
    ("loc2", 8, 16, 3, 2, 1),
    ("loc3", 16, 32, 3, 2, 1),
    ("loc4", 32, 32, 3, 1, 1),
)
ROWS = 14  # 109 -> 55 -> 28 -> 14 -> 14
HIDDEN = 64
# The engine's pooling has a fixed kernel, so the max over the whole width is two poolings: the
# first, with a kernel of WIDEST columns and as much padding before, splits any width from 2 to
# WIDEST + 1 into exactly two windows (the first column, the rest); the second takes their max.
# WIDEST columns of the map are 8 x WIDEST columns of the picture at 109 rows.
WIDEST = 16384


class LocNet(nn.Module):
    def __init__(self):
        super().__init__()
        self.convs = nn.ModuleList()
        self.norms = nn.ModuleList()
        for _, cin, cout, k, s, p in CONVS:
            self.convs.append(nn.Conv2d(cin, cout, k, stride=s, padding=p, bias=False))
            self.norms.append(nn.BatchNorm2d(cout))
        self.hidden = nn.Linear(32 * ROWS, HIDDEN)
        self.out = nn.Linear(HIDDEN, 3)

    def forward(self, x):
        """x: (n, 1, 109, width) of bytes 0..255 -> (n, 3): start, end, confidence."""
        x = x / 255.0
        for conv, norm in zip(self.convs, self.norms):
            x = F.relu(norm(conv(x)))
        x = x.amax(3).flatten(1)
        return self.out(F.relu(self.hidden(x)))


def export(net):
    """The network as .dnm layers, ending in "detections"."""
    net = net.eval()
    layers = [dnm.Data("data")]
    top = "data"
    for (name, *_), conv, norm in zip(CONVS, net.convs, net.norms):
        layer = dnm.conv_from_torch(name, top, conv, bn=norm)
        if top == "data":
            layer.weights = (layer.weights / 255.0).astype(layer.weights.dtype)
        layers += [layer, dnm.ReLU(name + "_relu", name)]
        top = name + "_relu"
    layers.append(dnm.MaxPool("width_max_split", top, WIDEST, 1, pad_w_begin=WIDEST - 1))
    layers.append(dnm.MaxPool("width_max", "width_max_split", 2, 1))
    layers.append(dnm.fc_from_torch("loc_hidden", "width_max", net.hidden))
    layers.append(dnm.ReLU("loc_hidden_relu", "loc_hidden"))
    layers.append(dnm.fc_from_torch("detections", "loc_hidden_relu", net.out))
    return layers

"""The class head: the style classes' probabilities from a font's 768-value similarity vector,
as the module runs it ("NQ_class_head.dnm": "data", one row of 768 values, "class_hidden" and its
ReLU, "class_logits", one per class in label order; the module applies the logistic function).

fit_class_vote.py fits it on the labelled corpus faces of the training families and joins its
probabilities with the vote's support in the rules it writes; train_similarity_top.py trains one
(without dropout) beside the vectors to teach them the classes.
"""
import os

import numpy as np
import torch
import torch.nn.functional as F

from fontrix_training import dnm

HIDDEN = 64
STEPS = 400


class ClassHead(torch.nn.Module):
    def __init__(self, features, classes, hidden=HIDDEN, dropout=0.2):
        super().__init__()
        self.hidden = torch.nn.Linear(features, hidden)
        self.logits = torch.nn.Linear(hidden, classes)
        self.dropout = dropout

    def forward(self, x):
        h = F.relu(self.hidden(x))
        if self.dropout:
            h = F.dropout(h, self.dropout, self.training)
        return self.logits(h)


def positive_weights(share):
    """Each class's weight on its positives, from their share of the faces: the square root of its
    odds against, so the rare classes count without drowning the rest."""
    p = torch.as_tensor(np.asarray(share), dtype=torch.float32).clamp(1e-3, 1 - 1e-3)
    return ((1 - p) / p).sqrt()


def fit(vectors, targets, seed=0, steps=STEPS):
    """A head fitted on `vectors` (faces, 768) and their classes `targets` (faces, 8): binary
    cross-entropy with positive_weights."""
    torch.manual_seed(seed)
    x = torch.as_tensor(np.asarray(vectors), dtype=torch.float32)
    y = torch.as_tensor(np.asarray(targets), dtype=torch.float32)
    weights = positive_weights(y.mean(0))
    head = ClassHead(x.shape[1], y.shape[1])
    optimiser = torch.optim.AdamW(head.parameters(), lr=3e-3, weight_decay=1e-3)
    for _ in range(steps):
        optimiser.zero_grad()
        F.binary_cross_entropy_with_logits(head(x), y, pos_weight=weights).backward()
        optimiser.step()
    return head.eval()


def probabilities(head, vectors):
    with torch.no_grad():
        return torch.sigmoid(head(torch.as_tensor(np.asarray(vectors), dtype=torch.float32))).numpy()


def layers(head):
    head = head.eval()
    return [dnm.Data("data"),
            dnm.fc_from_torch("class_hidden", "data", head.hidden),
            dnm.ReLU("class_hidden_relu", "class_hidden"),
            dnm.fc_from_torch("class_logits", "class_hidden_relu", head.logits)]


def write(head, path):
    with open(path + ".tmp", "wb") as f:
        dnm.write_model(f, layers(head))
    os.replace(path + ".tmp", path)

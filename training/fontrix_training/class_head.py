"""The class head: the style classes' probabilities from a font's 768-value similarity vector,
as the module runs it ("NQ_class_head.dnm": "data" 1 x 1 x 768, "class_hidden" and its ReLU,
"class_logits", one per class in label order; the module applies the logistic function).

fit_class_vote.py fits it on the labelled corpus faces of the training and validation families
and joins its probabilities with the vote's support in the rules it writes.
"""
import os

import numpy as np
import torch
import torch.nn.functional as F

from fontrix_training import dnm

HIDDEN = 64
STEPS = 400


class ClassHead(torch.nn.Module):
    def __init__(self, features, classes, hidden=HIDDEN):
        super().__init__()
        self.hidden = torch.nn.Linear(features, hidden)
        self.logits = torch.nn.Linear(hidden, classes)

    def forward(self, x):
        return self.logits(F.dropout(F.relu(self.hidden(x)), 0.2, self.training))


def fit(vectors, targets, seed=0, steps=STEPS):
    """A head fitted on `vectors` (faces, 768) and their classes `targets` (faces, 8): binary
    cross-entropy, each class's positives weighted by the square root of its odds against, so
    the rare classes count without drowning the rest."""
    torch.manual_seed(seed)
    x = torch.as_tensor(np.asarray(vectors), dtype=torch.float32)
    y = torch.as_tensor(np.asarray(targets), dtype=torch.float32)
    p = y.mean(0).clamp(1e-3, 1 - 1e-3)
    head = ClassHead(x.shape[1], y.shape[1])
    optimiser = torch.optim.AdamW(head.parameters(), lr=3e-3, weight_decay=1e-3)
    for _ in range(steps):
        optimiser.zero_grad()
        F.binary_cross_entropy_with_logits(head(x), y, pos_weight=((1 - p) / p).sqrt()).backward()
        optimiser.step()
    return head.eval()


def probabilities(head, vectors):
    with torch.no_grad():
        return torch.sigmoid(head(torch.as_tensor(np.asarray(vectors), dtype=torch.float32))).numpy()


def held_out(vectors, targets, folds, seed=0):
    """Each face's probabilities from a head fitted without its fold."""
    out = np.zeros(targets.shape)
    for fold in range(folds.max() + 1):
        held = folds == fold
        out[held] = probabilities(fit(vectors[~held], targets[~held], seed), vectors[held])
    return out


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

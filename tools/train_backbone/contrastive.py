"""First stage: the same place of a scene, seen twice, is told from all other places (InfoNCE, dense).

Two views of a scene are related by a known affine warp. For points of the first view the matching point of the second is
the positive, points of all views of the batch are negatives; points nearer than a stride to the match are left out. The
loss is taken on both stages, each through a head that is dropped afterwards.
"""

import torch
import torch.nn.functional as F
from torch import nn

from network import WIDTHS

TEMPERATURE = 0.1
EMBEDDING = 64
POINTS_PER_PAIR = 160


class Heads(nn.Module):
    def __init__(self):
        super().__init__()
        self.fine, self.coarse = (nn.Sequential(nn.Conv2d(width, 128, 1), nn.ReLU(inplace=True), nn.Conv2d(128, EMBEDDING, 1))
                                  for width in WIDTHS[1:])

    def forward(self, fine, coarse):
        return self.fine(fine), self.coarse(coarse)


def _sample(maps, places_px, side_px):
    """Values of `maps` (B x C x H x W) at `places_px` (B x K x 2, x and y of pixels): B x K x C, of length one."""
    cells = maps.shape[-1]
    grid = (2.0 * places_px * (cells / side_px) + 1.0) / cells - 1.0  # cell i stands over pixel i times the stride
    values = F.grid_sample(maps, grid[:, :, None], mode='bilinear', align_corners=False)
    return F.normalize(values[..., 0].transpose(1, 2), dim=2)


def matches(matrix, side_px, points, generator):
    """Random points of the first view, where they lie in the second, and which of those lie inside it."""
    batch = matrix.shape[0]
    first = torch.rand(batch, points, 2, generator=generator).to(matrix.device) * (side_px - 1)
    second = first @ matrix[:, :, :2].transpose(1, 2) + matrix[:, None, :, 2]
    inside = ((second > 4) & (second < side_px - 5)).all(2)
    return first, second, inside


def loss_of_level(first_map, second_map, first, second, inside, side_px):
    """Mean cross-entropy over the points inside, and the share whose best match is the right one."""
    a, b = _sample(first_map, first, side_px), _sample(second_map, second, side_px)
    batch, points, channels = a.shape
    stride = side_px / first_map.shape[-1]
    logits = a.reshape(-1, channels) @ b.reshape(-1, channels).T / TEMPERATURE
    near = torch.cdist(second, second) < stride
    near = near & ~torch.eye(points, dtype=torch.bool, device=near.device)
    blocked = torch.block_diag(*near).bool() | ~inside.reshape(1, -1)
    own = torch.arange(batch * points, device=logits.device)
    blocked[own, own] = False
    logits = logits.masked_fill(blocked, -1e4)
    rows = inside.reshape(-1)
    right = (logits.argmax(1) == own)[rows].float().mean()
    return F.cross_entropy(logits[rows], own[rows]), right


def contrastive_loss(trunk, heads, batch, generator):
    """Loss and recalls (stride 8, stride 16) of a batch of pairs: `pictures` B x 2 x 3 x S x S, `matrix` B x 2 x 3."""
    pictures, matrix = batch['pictures'], batch['matrix']
    pairs, _, _, side, _ = pictures.shape
    levels = heads(*trunk.stages(pictures.transpose(0, 1).reshape(2 * pairs, 3, side, side)))
    places = matches(matrix, side, POINTS_PER_PAIR, generator)
    results = [loss_of_level(level[:pairs].float(), level[pairs:].float(), *places, side) for level in levels]
    return results[0][0] + 0.5 * results[1][0], {'recall_fine': results[0][1], 'recall_coarse': results[1][1]}

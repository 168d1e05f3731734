"""The trunk: ResNet-18 up to stride 16, and a neck that joins its stages at stride 8.

Input: N x 3 x S x S, red plane first, 0 to 255. `features` is N x channels x S/8 x S/8 with zero mean and a norm per cell
of about FEATURE_NORM, which is what the tracker's solvers are made for.
"""

import math

import torch
import torch.nn.functional as F
from torch import nn

MEAN = 118.0       # of the pictures' three planes, 0 to 255
DEVIATION = 62.0
FEATURE_NORM = 3.7
WIDTHS = (64, 128, 256)  # channels at strides 4, 8, 16


class BasicBlock(nn.Module):
    def __init__(self, inner, outer, stride):
        super().__init__()
        self.conv1 = nn.Conv2d(inner, outer, 3, stride, 1, bias=False)
        self.bn1 = nn.BatchNorm2d(outer)
        self.conv2 = nn.Conv2d(outer, outer, 3, 1, 1, bias=False)
        self.bn2 = nn.BatchNorm2d(outer)
        self.shortcut = None
        if stride != 1 or inner != outer:
            self.shortcut = nn.Sequential(nn.Conv2d(inner, outer, 1, stride, bias=False), nn.BatchNorm2d(outer))

    def forward(self, x):
        y = F.relu(self.bn1(self.conv1(x)), inplace=True)
        y = self.bn2(self.conv2(y))
        return F.relu(y + (x if self.shortcut is None else self.shortcut(x)), inplace=True)


def _stem_filters(weight):
    """Edges of eight directions and two widths, and spots of colour; every fourth filter stays random."""
    count, _, side, _ = weight.shape
    half = (side - 1) / 2
    axis = torch.arange(side) / half - 1
    y, x = axis[:, None], axis[None, :]
    colours = ((1, -1, 0), (-0.5, -0.5, 1), (1, 0, -1), (0.6, 1, 0.4))
    with torch.no_grad():
        for index in range(count):
            group, kind = divmod(index, 4)
            if kind == 3:
                continue
            if kind == 2:
                spot = torch.exp(-(1.0 if group % 8 < 4 else 4.0) * (x * x + y * y))
                kernel = torch.tensor(colours[group % 4])[:, None, None] * spot
            else:
                angle = math.pi * (group % 8) / 8
                across = x * math.cos(angle) + y * math.sin(angle)
                cycles = 0.5 if group % 16 < 8 else 0.9
                wave = torch.cos(2 * math.pi * cycles * across + (math.pi / 2 if kind == 0 else 0.0))
                kernel = (torch.exp(-1.5 * (x * x + y * y)) * wave).expand(3, side, side)
            weight[index] = kernel * (weight[index].norm() / kernel.norm())


def upsampled(coarse):
    """Twice as many cells. A cell of stride 16 stands over every second cell of stride 8, starting with the first."""
    height, width = coarse.shape[-2:]
    size = (2 * height + 1, 2 * width + 1)
    return F.interpolate(F.pad(coarse, (0, 1, 0, 1), mode='replicate'), size, mode='bilinear', align_corners=True)[..., :-1, :-1]


class Trunk(nn.Module):
    """`geometry`: 'stage' reads the stage of stride 8 alone, 'joined' adds the next stage, upsampled."""

    def __init__(self, channels=128, geometry='stage'):
        super().__init__()
        self.geometry, self.channels = geometry, channels
        self.conv1 = nn.Conv2d(3, 64, 7, 2, 3, bias=False)
        self.bn1 = nn.BatchNorm2d(64)
        self.layer1 = nn.Sequential(BasicBlock(64, WIDTHS[0], 1), BasicBlock(WIDTHS[0], WIDTHS[0], 1))
        self.layer2 = nn.Sequential(BasicBlock(WIDTHS[0], WIDTHS[1], 2), BasicBlock(WIDTHS[1], WIDTHS[1], 1))
        self.layer3 = nn.Sequential(BasicBlock(WIDTHS[1], WIDTHS[2], 2), BasicBlock(WIDTHS[2], WIDTHS[2], 1))
        self.neck_fine = nn.Conv2d(WIDTHS[1], channels, 1, bias=True)
        self.neck_coarse = nn.Conv2d(WIDTHS[2], channels, 1, bias=False)
        for module in self.modules():
            if isinstance(module, nn.Conv2d):
                nn.init.kaiming_normal_(module.weight, mode='fan_out', nonlinearity='relu')
        _stem_filters(self.conv1.weight)

    def fine_stage(self, x):
        """The output of the stage at stride 8."""
        x = F.relu(self.bn1(self.conv1((x - MEAN) / DEVIATION)), inplace=True)
        return self.layer2(self.layer1(F.max_pool2d(x, 3, 2, 1)))

    def stages(self, x):
        """The outputs of the stages at stride 8 and 16."""
        fine = self.fine_stage(x)
        return fine, self.layer3(fine)

    def join(self, fine, coarse):
        y = self.neck_fine(fine)
        if self.geometry == 'joined':
            y = y + upsampled(self.neck_coarse(coarse))
        return y

    def forward(self, x):
        if self.geometry == 'joined':
            return self.join(*self.stages(x))
        return self.neck_fine(self.fine_stage(x))

    def freeze_statistics(self):
        """Normalises with the statistics gathered so far, so that normalisation folds into the convolutions."""
        for module in self.modules():
            if isinstance(module, nn.BatchNorm2d):
                module.eval()

    @torch.no_grad()
    def set_neck(self, batches):
        """Sets the neck so that its output has zero mean, nearly uncorrelated channels and FEATURE_NORM: the leading
        principal directions of both stages side by side, partly whitened. `batches`: inputs, N x 3 x S x S."""
        total, outer, count = 0.0, 0.0, 0
        for batch in batches:
            fine, coarse = self.stages(batch)
            both = fine
            if self.geometry == 'joined':
                both = torch.cat([fine, upsampled(coarse)], 1)
            cells = both.permute(0, 2, 3, 1).reshape(-1, both.shape[1]).double()
            total, outer, count = total + cells.sum(0), outer + cells.T @ cells, count + cells.shape[0]
        mean = total / count
        covariance = outer / count - mean[:, None] * mean[None, :]
        scale = covariance.diagonal().clamp_min(1e-8).rsqrt()  # both stages weigh alike
        values, vectors = torch.linalg.eigh(covariance * scale[:, None] * scale[None, :])
        values, vectors = values[-self.channels:].flip(0), vectors[:, -self.channels:].flip(1)
        gain = (values + 0.02 * values[0]).rsqrt()
        gain = gain * (FEATURE_NORM / (gain.square() * values).sum().sqrt())
        weight = (vectors * gain).T * scale[None, :]
        dtype = self.neck_fine.weight.dtype
        self.neck_fine.weight.copy_(weight[:, :WIDTHS[1], None, None].to(dtype))
        self.neck_fine.bias.copy_(-(weight @ mean).to(dtype))
        if self.geometry == 'joined':
            self.neck_coarse.weight.copy_(weight[:, WIDTHS[1]:, None, None].to(dtype))

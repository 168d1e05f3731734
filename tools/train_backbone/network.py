"""The trunk: ResNet-18 up to stride 8 with a neck, and what is shipped: the trained trunk joined with an early stage.

Input: N x 3 x S x S, red plane first, 0 to 255. Features are N x channels x S/8 x S/8 with zero mean and a norm per cell
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
TRAINED_CHANNELS, EARLY_CHANNELS = 96, 32  # of the joined features
EARLY_SHARE = 0.6        # of the norm per cell
START_FLOOR = 0.02       # of the whitening, as a share of the largest variance: before the training of the neck,
JOINED_FLOOR = 0.1       # after it,
EARLY_FLOOR = 0.2        # and of the early stage


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


def _moments(maps):
    """Mean and covariance of the cells of `maps`, an iterable of N x C x H x W."""
    number, total, outer = 0, 0.0, 0.0
    for part in maps:
        cells = part.permute(0, 2, 3, 1).reshape(-1, part.shape[1]).double()
        number, total, outer = number + cells.shape[0], total + cells.sum(0), outer + cells.T @ cells
    mean = total / number
    return mean, outer / number - mean[:, None] * mean[None, :]


def _principal(maps, count, floor, norm):
    """The `count` leading principal directions of the cells, partly whitened, scaled to `norm` per cell: weight (count x C)
    and bias, by which cells have zero mean and nearly uncorrelated channels."""
    mean, covariance = _moments(maps)
    scale = covariance.diagonal().clamp_min(1e-8).rsqrt()
    values, vectors = torch.linalg.eigh(covariance * scale[:, None] * scale[None, :])
    values, vectors = values[-count:].flip(0), vectors[:, -count:].flip(1)
    gain = (values + floor * values[0]).rsqrt()
    gain = gain * (norm / (gain.square() * values).sum().sqrt())
    weight = (vectors * gain).T * scale[None, :]
    return weight.float(), -(weight @ mean).float()


def normalised(x):
    return (x - MEAN) / DEVIATION


class Trunk(nn.Module):
    """What is trained."""

    def __init__(self, channels=128):
        super().__init__()
        self.conv1 = nn.Conv2d(3, 64, 7, 2, 3, bias=False)
        self.bn1 = nn.BatchNorm2d(64)
        self.layer1 = nn.Sequential(BasicBlock(64, WIDTHS[0], 1), BasicBlock(WIDTHS[0], WIDTHS[0], 1))
        self.layer2 = nn.Sequential(BasicBlock(WIDTHS[0], WIDTHS[1], 2), BasicBlock(WIDTHS[1], WIDTHS[1], 1))
        self.layer3 = nn.Sequential(BasicBlock(WIDTHS[1], WIDTHS[2], 2), BasicBlock(WIDTHS[2], WIDTHS[2], 1))
        self.neck = nn.Conv2d(WIDTHS[1], channels, 1)
        for module in self.modules():
            if isinstance(module, nn.Conv2d):
                nn.init.kaiming_normal_(module.weight, mode='fan_out', nonlinearity='relu')
        _stem_filters(self.conv1.weight)

    def fine_stage(self, x):
        """The output of the stage at stride 8."""
        x = F.relu(self.bn1(self.conv1(normalised(x))), inplace=True)
        return self.layer2(self.layer1(F.max_pool2d(x, 3, 2, 1)))

    def stages(self, x):
        """The outputs of the stages at stride 8 and 16; the latter is there for the first stage of training."""
        fine = self.fine_stage(x)
        return fine, self.layer3(fine)

    def forward(self, x):
        return self.neck(self.fine_stage(x))

    def freeze_statistics(self):
        """Normalises with the statistics gathered so far, so that normalisation folds into the convolutions."""
        for module in self.modules():
            if isinstance(module, nn.BatchNorm2d):
                module.eval()

    @torch.no_grad()
    def set_neck(self, batches):
        """Sets the neck to the leading principal directions. `batches`: inputs, N x 3 x S x S."""
        maps = (self.fine_stage(batch) for batch in batches)
        weight, bias = _principal(maps, self.neck.out_channels, START_FLOOR, FEATURE_NORM)
        self.neck.weight.copy_(weight[:, :, None, None])
        self.neck.bias.copy_(bias)


class Joined(nn.Module):
    """A trained trunk beside an early stage of filters that nothing has trained: edges, spots of colour, some random. Trained
    features forget what made footage does not reward; these do not. They stay out of the training, which would come to
    rely on them for what it should learn.

    `batches`: inputs from which the directions of both necks follow."""

    @torch.no_grad()
    def __init__(self, trunk, batches):
        super().__init__()
        self.trunk = trunk.eval()
        self.neck = nn.Conv2d(WIDTHS[1], TRAINED_CHANNELS, 1)
        self.early_conv = nn.Conv2d(3, 64, 7, 2, 3)
        self.early_neck = nn.Conv2d(64, EARLY_CHANNELS, 3, 2, 1)
        self._set_neck(batches)
        self._set_early(batches)
        self.channels = TRAINED_CHANNELS + EARLY_CHANNELS

    def _set_neck(self, batches):
        norm = math.sqrt(1 - EARLY_SHARE ** 2) * FEATURE_NORM
        turn, shift = _principal((self.trunk(batch) for batch in batches), TRAINED_CHANNELS, JOINED_FLOOR, norm)
        trained = self.trunk.neck
        self.neck.weight.copy_((turn @ trained.weight[:, :, 0, 0])[:, :, None, None])
        self.neck.bias.copy_(turn @ trained.bias + shift)

    def _set_early(self, batches):
        """Each filter's response gets zero mean and unit variance; then the directions of the pooled responses are taken."""
        _stem_filters(self.early_conv.weight)
        self.early_conv.bias.zero_()
        mean, covariance = _moments(self.early_conv(normalised(batch)) for batch in batches)
        deviation = covariance.diagonal().sqrt()
        self.early_conv.weight.div_(deviation[:, None, None, None])
        self.early_conv.bias.copy_(-mean / deviation)
        maps = (F.avg_pool2d(self.early_stage(batch), 3, 2, 1) for batch in batches)
        weight, bias = _principal(maps, EARLY_CHANNELS, EARLY_FLOOR, EARLY_SHARE * FEATURE_NORM)
        self.early_neck.weight.copy_((weight / 9)[:, :, None, None].expand_as(self.early_neck.weight))
        self.early_neck.bias.copy_(bias)

    def early_stage(self, x):
        """Responses of the designed filters at stride 4."""
        return F.max_pool2d(F.relu(self.early_conv(normalised(x))), 3, 2, 1)

    def forward(self, x):
        return torch.cat([self.neck(self.trunk.fine_stage(x)), self.early_neck(self.early_stage(x))], 1)

"""Second stage: features on which the tracker's own filter finds the target again.

From the start views of a clip a correlation filter is solved in closed form, with the tracker's label and regularisation;
it is applied to later views. Gradients go through the solution by the implicit function theorem: with w the minimiser of
E(w, X), the derivative of a loss L(w) with regard to the features X is -d/dX <v, dE/dw>, where H v = dL/dw and H is the
Hessian of E. E is quadratic, so that is exact.
"""

import torch
import torch.nn.functional as F

from network import FEATURE_NORM

FILTER_SIDE = 4
REGULARISATION = 3.0        # the tracker's default
LABEL_SHARE = 0.25          # deviation of the label as a share of the target's side
SOLVER_STEPS = 10
RESPONSE_GAIN = 12.0        # of the cross-entropy: responses lie between 0 and 1
LEAD = 0.3                  # by which the peak at the target should exceed every other
ENTROPY_WEIGHT = 0.25       # of the losses; the squared error counts as it is
LEAD_WEIGHT = 2.0
DROPOUT = 0.2               # share of channels that a start sample loses
SIZE_DEVIATION = 0.12       # of the bell over the logarithm of the size that peaks should follow
SIZE_MARGIN = 0.8           # share of that bell's fall that is asked for


def labels(places, factors, side):
    """Gaussian labels. `places`: B x K x n x 2, shares of the view (x, y); `factors`: B, the view's side in units.

    With an even filter the peak lies half a cell beyond the target, as the tracker has it. Returns B x K x n x side x side."""
    axis = torch.arange(side, device=places.device, dtype=places.dtype) - (side - 1) / 2
    deviation = (LABEL_SHARE * side / factors)[:, None, None, None, None]
    peak = places * side + 0.5
    bell = torch.exp(-0.5 * ((axis - peak[..., None]) / deviation) ** 2)
    return bell[..., 1, :, None] * bell[..., 0, None, :]


def correlate(features, weights):
    """Responses of K filters for each of B clips. `features`: B x n x C x H x W, `weights`: B x K x C x 4 x 4; returns
    B x K x n x H x W: the sum over taps (r, c) of the cell at offset (r - 2, c - 2), zero outside."""
    clips, samples, channels, height, width = features.shape
    filters, side, half = weights.shape[1], FILTER_SIDE, FILTER_SIDE // 2
    taps = weights.flatten(3).transpose(2, 3).reshape(clips, 1, filters * side * side, channels)
    planes = torch.matmul(taps, features.flatten(3)).reshape(clips, samples, filters, side * side, height, width)
    padded = F.pad(planes, (half, half - 1, half, half - 1))
    total = 0.0
    for r in range(side):
        for c in range(side):
            total = total + padded[:, :, :, r * side + c, r:r + height, c:c + width]
    return total.transpose(1, 2)


def back_correlate(features, responses):
    """The transpose of `correlate` with regard to the weights: B x K x C x 4 x 4."""
    clips, samples, channels, height, width = features.shape
    filters, side, half, last = responses.shape[1], FILTER_SIDE, FILTER_SIDE // 2, FILTER_SIDE - 1
    padded = F.pad(responses.transpose(1, 2), (half - 1, half, half - 1, half))
    shifted = torch.stack([padded[..., last - r:last - r + height, last - c:last - c + width]
                           for r in range(side) for c in range(side)], 3)
    shifted = shifted.reshape(clips, samples, filters * side * side, height * width)
    sums = torch.matmul(shifted, features.flatten(3).transpose(2, 3)).sum(1)
    return sums.reshape(clips, filters, side * side, channels).transpose(2, 3).unflatten(3, (side, side))


def _solve(features, weights, right):
    """Conjugate gradient on (X^T W X + lambda I) x = right, from zero, for each filter of its own."""
    def apply(vector):
        return back_correlate(features, weights * correlate(features, vector)) + REGULARISATION * vector

    def dot(a, b):
        return (a * b).sum((2, 3, 4), keepdim=True)

    solution, residual = torch.zeros_like(right), right
    direction, energy = residual, dot(residual, residual)
    for _ in range(SOLVER_STEPS):
        image = apply(direction)
        step = energy / dot(direction, image).clamp_min(1e-12)
        solution, residual = solution + step * direction, residual - step * image
        latest = dot(residual, residual)
        direction, energy = residual + latest / energy.clamp_min(1e-20) * direction, latest
    return solution


class _RidgeFilter(torch.autograd.Function):
    @staticmethod
    def forward(ctx, features, weights, targets):
        solution = _solve(features, weights, back_correlate(features, weights * targets))
        ctx.save_for_backward(features, weights, targets, solution)
        return solution

    @staticmethod
    def backward(ctx, gradient):
        features, weights, targets, solution = ctx.saved_tensors
        adjoint = _solve(features, weights, gradient.contiguous())
        with torch.enable_grad():
            leaf = features.detach().requires_grad_()
            residual = correlate(leaf, solution) - targets
            product = (weights * residual * correlate(leaf, adjoint)).sum()
            found, = torch.autograd.grad(product, leaf)
        return -found, None, None


def ridge_filter(features, weights, targets):
    """Minimises 1/2 sum weights (X w - targets)^2 + REGULARISATION / 2 |w|^2 for each of K things. `weights`:
    B x K x n x 1 x 1, their sum is one or zero; `targets`: B x K x n x H x W. Returns B x K x C x 4 x 4."""
    return _RidgeFilter.apply(features, weights, targets)


def _with_dropout(features, generator):
    """Adds two copies of the template that have lost a share of their channels."""
    clips, _, channels = features.shape[:3]
    keep = (torch.rand(clips, 2, channels, 1, 1, generator=generator) >= DROPOUT).to(features) / (1 - DROPOUT)
    return torch.cat([features, features[:, :1] * keep], 1)


def _mean_of_seen(values, seen):
    return (values * seen).sum() / seen.sum().clamp_min(1.0)


def losses_of_response(response, label, seen):
    """Means over the responses whose target is seen: squared error near the target and squared positive response elsewhere;
    what the peak at the target lacks to lead every other by LEAD; cross-entropy against the label."""
    near = label > 0.02
    squared = torch.where(near, response - label, F.relu(response)).square().sum((-2, -1))
    peak = response.masked_fill(label < 0.3, -9.0).amax((-2, -1))
    rival = response.masked_fill(near, -9.0).amax((-2, -1))
    log_share = F.log_softmax(RESPONSE_GAIN * response.flatten(-2), -1)
    target = label.flatten(-2)
    target = target / target.sum(-1, keepdim=True).clamp_min(1e-6)
    entropy = -(target * log_share).sum(-1)
    return {'squared': _mean_of_seen(squared, seen), 'lead': _mean_of_seen(F.relu(LEAD + rival - peak), seen),
            'entropy': _mean_of_seen(entropy, seen)}


def loss_of_size(response, mismatched, label, mismatched_label, mismatch):
    """The peak at the target must fall when a view is cut too wide or too narrow: the tracker chooses the size by it."""
    peak = (response * (label > 0.3)).amax((-2, -1))
    lower = (mismatched * (mismatched_label > 0.3)).amax((-2, -1))
    fall = SIZE_MARGIN * (1 - torch.exp(-0.5 * (mismatch / SIZE_DEVIATION) ** 2))
    return F.relu(fall - (peak - lower)).mean(), (peak > lower).float().mean()


@torch.no_grad()
def hits(response, places, seen):
    """Share of responses whose highest cell lies within 1.5 cells of the target, per axis."""
    side = response.shape[-1]
    place = response.flatten(-2).argmax(-1)
    found = torch.stack([place % side, torch.div(place, side, rounding_mode='floor')], -1).to(places)
    expected = places * side + 0.5 + (side - 1) / 2
    return _mean_of_seen(((found - expected).abs() <= 1.5).all(-1).float(), seen)


def filter_loss(trunk, batch, tests, generator):
    """Loss and figures of a batch of clips: `pictures` B x n x 3 x S x S, of which the last `tests` + 1 are later views, the
    very last one the first of them at a wrong size; the rest as `clips.clip` gives it."""
    pictures = batch['pictures']
    features = trunk(pictures.flatten(0, 1))
    with torch.autocast(features.device.type, enabled=False):  # the solver wants full precision
        features = features.float().unflatten(0, pictures.shape[:2])
        return _loss_on_features(features, batch, tests, generator)


def _filters(features, label, seen, generator):
    """The filters of all things from the start views (the first is the template, whose features also lose channels)."""
    start = _with_dropout(features, generator)
    targets = torch.cat([label, label[:, :, :1], label[:, :, :1]], 2)
    weights = torch.cat([seen, seen[:, :, :1], seen[:, :, :1]], 2) * seen[:, :, :1]
    weights = weights / weights.sum(2, keepdim=True).clamp_min(1.0)
    return ridge_filter(start, weights[..., None, None], targets)


def _loss_on_features(features, batch, tests, generator):
    places, seen = batch['places'], batch['seen']
    label = labels(places, batch['factor'], features.shape[-1])
    starts = features.shape[1] - tests - 1
    found = _filters(features[:, :starts], label[:, :, :starts], seen[:, :, :starts], generator)
    response = correlate(features[:, starts:], found)
    later, judged = label[:, :, starts:], seen[:, :, starts:-1] * seen[:, :, :1]
    losses = losses_of_response(response[:, :, :-1], later[:, :, :-1], judged)
    size, ordered = loss_of_size(response[:, 0, 0], response[:, 0, -1], later[:, 0, 0], later[:, 0, -1], batch['mismatch'])
    norm = features.norm(dim=2).mean()
    mean = features.mean((0, 1, 3, 4)).norm()
    keep = 4 * ((norm - FEATURE_NORM) / FEATURE_NORM) ** 2 + 0.1 * (mean / FEATURE_NORM) ** 2
    near = response[:, :, :-1], places[:, :, starts:-1]
    figures = {**losses, 'size': size, 'norm': norm,
               'hits': hits(near[0][:, :1], near[1][:, :1], judged[:, :1]), 'hits_of_all': hits(*near, judged),
               'size_ordered': ordered}
    wanted = losses['squared'] + LEAD_WEIGHT * losses['lead'] + ENTROPY_WEIGHT * losses['entropy']
    return wanted + size + keep, figures

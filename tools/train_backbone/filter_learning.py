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
SOLVER_STEPS = 14
RESPONSE_GAIN = 12.0        # of the cross-entropy: responses lie between 0 and 1
DROPOUT = 0.2               # share of channels that a start sample loses
SIZE_DEVIATION = 0.12       # of the bell over the logarithm of the size that peaks should follow
SIZE_MARGIN = 0.8           # share of that bell's fall that is asked for


def labels(centres, factors, side):
    """Gaussian labels. `centres`: B x n x 2, shares of the view (x, y); `factors`: B, the view's side in units.

    With an even filter the peak lies half a cell beyond the target, as the tracker has it. Returns B x n x side x side."""
    axis = torch.arange(side, device=centres.device, dtype=centres.dtype) - (side - 1) / 2
    deviation = (LABEL_SHARE * side / factors)[:, None, None]
    peak = centres * side + 0.5
    bell = torch.exp(-0.5 * ((axis - peak[..., None]) / deviation[..., None]) ** 2)
    return bell[:, :, 1, :, None] * bell[:, :, 0, None, :]


def correlate(features, weights):
    """Responses of B filters. `features`: B x n x C x H x W, `weights`: B x C x 4 x 4; returns B x n x H x W: the sum over
    taps (r, c) of the cell at offset (r - 2, c - 2), zero outside."""
    clips, samples, channels, height, width = features.shape
    taps = weights.reshape(clips, channels, -1)
    planes = torch.einsum('bnck,bct->bntk', features.reshape(clips, samples, channels, -1), taps)
    planes = planes.reshape(clips * samples, FILTER_SIDE ** 2, height, width)
    half = FILTER_SIDE // 2
    padded = F.pad(planes, (half, half - 1, half, half - 1))
    shifted = [padded[:, r * FILTER_SIDE + c, r:r + height, c:c + width]
               for r in range(FILTER_SIDE) for c in range(FILTER_SIDE)]
    return torch.stack(shifted).sum(0).reshape(clips, samples, height, width)


def back_correlate(features, responses):
    """The transpose of `correlate` with regard to the weights: B x C x 4 x 4."""
    clips, samples, channels, height, width = features.shape
    half = FILTER_SIDE // 2
    padded = F.pad(responses, (half - 1, half, half - 1, half))
    last = FILTER_SIDE - 1
    shifted = torch.stack([padded[:, :, last - r:last - r + height, last - c:last - c + width]
                           for r in range(FILTER_SIDE) for c in range(FILTER_SIDE)], 2)
    flat = shifted.reshape(clips, samples, FILTER_SIDE ** 2, -1)
    grads = torch.einsum('bnck,bntk->bct', features.reshape(clips, samples, channels, -1), flat)
    return grads.reshape(clips, channels, FILTER_SIDE, FILTER_SIDE)


def _solve(features, weights, right):
    """Conjugate gradient on (X^T W X + lambda I) x = right, from zero."""
    def apply(vector):
        return back_correlate(features, weights * correlate(features, vector)) + REGULARISATION * vector

    def dot(a, b):
        return (a * b).sum((1, 2, 3), keepdim=True)

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
    """Minimises 1/2 sum weights (X w - targets)^2 + REGULARISATION / 2 |w|^2. Weights: B x n x 1 x 1, sum one per clip."""
    return _RidgeFilter.apply(features, weights, targets)


def _with_dropout(features, generator):
    """Adds two copies of the template that have lost a share of their channels."""
    clips, _, channels = features.shape[:3]
    keep = (torch.rand(clips, 2, channels, 1, 1, generator=generator) >= DROPOUT).to(features) / (1 - DROPOUT)
    return torch.cat([features, features[:, :1] * keep], 1)


def losses_of_response(response, label):
    """Squared error near the target, squared positive response elsewhere, cross-entropy against the label."""
    near = (label > 0.02).to(label.dtype)
    squared = (near * (response - label) ** 2 + (1 - near) * F.relu(response) ** 2).sum((-2, -1)).mean()
    log_share = F.log_softmax(RESPONSE_GAIN * response.flatten(-2), -1)
    target = label.flatten(-2)
    target = target / target.sum(-1, keepdim=True).clamp_min(1e-6)
    return squared, -(target * log_share).sum(-1).mean()


def loss_of_size(response, mismatched, label, mismatched_label, mismatch):
    """The peak at the target must fall when a view is cut too wide or too narrow: the tracker chooses the size by it."""
    peak = (response * (label > 0.3)).amax((-2, -1))
    lower = (mismatched * (mismatched_label > 0.3)).amax((-2, -1))
    fall = SIZE_MARGIN * (1 - torch.exp(-0.5 * (mismatch / SIZE_DEVIATION) ** 2))
    return F.relu(fall - (peak - lower)).mean(), (peak > lower).float().mean()


@torch.no_grad()
def hits(response, centres):
    """Share of responses whose highest cell lies within 1.5 cells of the target, per axis."""
    side = response.shape[-1]
    place = response.flatten(-2).argmax(-1)
    found = torch.stack([place % side, torch.div(place, side, rounding_mode='floor')], -1).to(centres)
    expected = centres * side + 0.5 + (side - 1) / 2
    return ((found - expected).abs() <= 1.5).all(-1).float().mean()


def filter_loss(trunk, batch, tests, generator):
    """Loss and figures of a batch of clips: `pictures` B x n x 3 x S x S, of which the last `tests` + 1 are later views, the
    very last one the first of them at a wrong size."""
    pictures = batch['pictures']
    features = trunk(pictures.flatten(0, 1))
    with torch.autocast(features.device.type, enabled=False):  # the solver wants full precision
        features = features.float().unflatten(0, pictures.shape[:2])
        return _loss_on_features(features, batch, tests, generator)


def _loss_on_features(features, batch, tests, generator):
    label = labels(batch['centres'], batch['factor'], features.shape[-1])
    clips, starts = features.shape[0], features.shape[1] - tests - 1
    start = _with_dropout(features[:, :starts], generator)
    start_label = torch.cat([label[:, :starts], label[:, :1], label[:, :1]], 1)
    weights = torch.full((clips, starts + 2, 1, 1), 1.0 / (starts + 2), device=features.device)
    found = ridge_filter(start, weights, start_label)
    response = correlate(features[:, starts:], found)
    later = label[:, starts:]
    squared, entropy = losses_of_response(response[:, :-1], later[:, :-1])
    size, ordered = loss_of_size(response[:, 0], response[:, -1], later[:, 0], later[:, -1], batch['mismatch'])
    norm = features.norm(dim=2).mean()
    mean = features.mean((0, 1, 3, 4)).norm()
    keep = ((norm - FEATURE_NORM) / FEATURE_NORM) ** 2 + 0.1 * (mean / FEATURE_NORM) ** 2
    figures = {'squared': squared, 'entropy': entropy, 'size': size, 'norm': norm,
               'hits': hits(response[:, :-1], batch['centres'][:, starts:-1]), 'size_ordered': ordered}
    return 0.2 * squared + entropy + size + keep, figures

"""Textures and still pictures, drawn from nothing.

A *field* is a grey picture (uint8) with one kind of structure: noise with a power-law spectrum, stripes, tiles, cells,
strokes. A *texture* is a cut of a field, resized and coloured through a palette. A *picture* is a layered scene: leaves
of all sizes, each with a texture of its own, hide one another ("dead leaves"), over a ground of noise, sky and land, or
a town seen from above.

All pictures are uint8, height x width x 3, red plane first. Every function takes the generator it draws from, so that
equal seeds give equal pictures.
"""

import cv2
import numpy as np

FIELD_SIDE_PX = 512
FIELD_KINDS = 6
ROUGH_KINDS = (0, 3, 4, 5)  # of the kinds in `make_fields`: noise, cells, strokes


def _to_bytes(values):
    low, high = np.percentile(values, (1, 99))
    return np.clip((values - low) * (255.0 / max(high - low, 1e-6)), 0, 255).astype(np.uint8)


def _spectral_noise(rng, exponent, side=FIELD_SIDE_PX):
    """Noise whose amplitude falls with frequency to the power of `exponent`; it tiles."""
    frequency = np.hypot(np.fft.fftfreq(side)[:, None], np.fft.rfftfreq(side)[None, :])
    frequency[0, 0] = 1.0
    amplitude = frequency ** -exponent
    amplitude[0, 0] = 0.0
    phase = np.exp(2j * np.pi * rng.random(amplitude.shape))
    return _to_bytes(np.fft.irfft2(amplitude * phase, s=(side, side)))


def _warped_grid(rng, side=FIELD_SIDE_PX):
    """Coordinates of a plane that is turned and gently bent."""
    y, x = np.mgrid[0:side, 0:side].astype(np.float32)
    angle = rng.uniform(0, np.pi)
    u = x * np.cos(angle) + y * np.sin(angle)
    v = y * np.cos(angle) - x * np.sin(angle)
    bend = rng.uniform(0, 12)
    length = rng.uniform(60, 300)
    return u + bend * np.sin(v / length), v + bend * np.sin(u / length)


def _stripes(rng):
    u, v = _warped_grid(rng)
    wave = np.sin(u * (2 * np.pi / rng.uniform(8, 60)))
    if rng.random() < 0.5:
        wave = np.tanh(wave * rng.uniform(2, 20))
    return _to_bytes(wave + 0.2 * rng.random() * np.sin(v / rng.uniform(5, 50)))


def _tiles(rng):
    """Bricks, windows, panels: a grey per tile, joints between them."""
    u, v = _warped_grid(rng)
    wide, high = rng.uniform(10, 70, 2)
    row = np.floor(v / high)
    column = np.floor(u / wide + (0.5 * (row % 2) if rng.random() < 0.5 else 0.0))
    grey = np.sin(row * 12.9898 + column * 78.233) * 43758.5453
    grey = (grey - np.floor(grey)) * rng.uniform(20, 200)
    joint = rng.uniform(1, 6)
    edge = (v - row * high < joint) | ((u / wide) % 1.0 * wide < joint)
    grey[edge] = rng.uniform(0, 255)
    return np.clip(grey + 20, 0, 255).astype(np.uint8)


def _cells(rng):
    """Cells around scattered points: stones, scales, foliage."""
    points = np.full((FIELD_SIDE_PX, FIELD_SIDE_PX), 255, np.uint8)
    count = int(rng.integers(60, 2500))
    points[rng.integers(0, FIELD_SIDE_PX, count), rng.integers(0, FIELD_SIDE_PX, count)] = 0
    distance, label = cv2.distanceTransformWithLabels(points, cv2.DIST_L2, 5, labelType=cv2.DIST_LABEL_PIXEL)
    grey = rng.integers(0, 256, label.max() + 1).astype(np.float32)[label]
    return _to_bytes(grey + rng.uniform(-8, 8) * distance)


def _strokes(rng):
    """Short strokes about one direction: grass, bark, fur."""
    grey = np.full((FIELD_SIDE_PX, FIELD_SIDE_PX), int(rng.integers(60, 190)), np.uint8)
    direction, spread = rng.uniform(0, np.pi), rng.uniform(0.05, 1.5)
    length = rng.uniform(6, 50)
    for _ in range(2500):
        x, y = rng.integers(0, FIELD_SIDE_PX, 2)
        angle = direction + spread * rng.standard_normal()
        end = (int(x + length * np.cos(angle)), int(y + length * np.sin(angle)))
        cv2.line(grey, (int(x), int(y)), end, int(rng.integers(0, 256)), int(rng.integers(1, 4)), cv2.LINE_AA)
    return grey


def _folded(rng, field):
    """The field bent along noise, as wood, water and cloth are."""
    side = field.shape[0]
    reach = np.exp(rng.uniform(np.log(4), np.log(60)))
    exponent = rng.uniform(1.3, 2.4)
    y, x = np.mgrid[0:side, 0:side].astype(np.float32)
    shift = [reach * (_spectral_noise(rng, exponent).astype(np.float32) / 127.5 - 1) for _ in range(2)]
    return cv2.remap(field, x + shift[0], y + shift[1], cv2.INTER_LINEAR, borderMode=cv2.BORDER_REFLECT)


def _mixed(rng, field, other):
    """Two fields as one: the lighter, the darker, the product, or one in the hollows of the other."""
    kind = int(rng.integers(4))
    if kind == 0:
        return np.maximum(field, other)
    if kind == 1:
        return np.minimum(field, other)
    if kind == 2:
        return _to_bytes(field.astype(np.float32) * other)
    return np.where(other < np.percentile(other, rng.uniform(20, 70)), field, other)


def make_fields(rng, count):
    """The fields that textures are cut from."""
    kinds = (lambda r: _spectral_noise(r, r.uniform(0.4, 2.2)), _stripes, _tiles, _cells, _strokes,
             lambda r: _spectral_noise(r, r.uniform(0.8, 1.6)))
    fields = []
    for index in range(count):
        field = kinds[index % len(kinds)](rng)
        if rng.random() < 0.4:
            field = _folded(rng, field)
        if fields and rng.random() < 0.3:
            field = _mixed(rng, field, fields[int(rng.integers(len(fields)))])
        fields.append(field)
    return fields


def _palette(rng):
    """256 colours between two to four colours, one of them often near grey, as most things are."""
    stops = int(rng.integers(2, 5))
    base = rng.uniform(20, 235, 3)
    base = base.mean() + (base - base.mean()) * (rng.uniform(0, 0.5) if rng.random() < 0.8 else rng.uniform(0.3, 1.0))
    spread = rng.uniform(8, 90)
    colours = base + spread * rng.standard_normal((stops, 1)) + spread * rng.uniform(0, 0.5) * rng.standard_normal((stops, 3))
    places = np.sort(rng.uniform(0, 255, stops))
    table = np.stack([np.interp(np.arange(256), places, colours[:, c]) for c in range(3)], axis=1)
    return np.clip(table, 0, 255).astype(np.uint8)[None]


def texture(rng, fields, height, width):
    """A coloured cut of a field, `height` x `width`."""
    field = fields[int(rng.integers(len(fields)))]
    zoom = float(np.exp(rng.uniform(np.log(0.4), np.log(3.0))))
    high = int(np.clip(height / zoom, 2, FIELD_SIDE_PX))
    wide = int(np.clip(width / zoom, 2, FIELD_SIDE_PX))
    top = int(rng.integers(0, FIELD_SIDE_PX - high + 1))
    left = int(rng.integers(0, FIELD_SIDE_PX - wide + 1))
    cut = field[top:top + high, left:left + wide]
    if rng.random() < 0.5:
        cut = cut.T if rng.random() < 0.5 else cut[::-1]
    shrink = cv2.INTER_AREA if zoom < 1 else cv2.INTER_LINEAR
    grey = cv2.resize(np.ascontiguousarray(cut), (width, height), interpolation=shrink)
    return cv2.LUT(cv2.merge([grey, grey, grey]), _palette(rng))


def outline(rng, width, height):
    """A closed outline that fills a box of `width` x `height` around the origin: k x 2, float32."""
    kind = rng.random()
    if kind < 0.3:  # smooth: an ellipse between diamond and box
        angle = np.linspace(0, 2 * np.pi, 28, endpoint=False)
        power = rng.uniform(0.25, 1.2)
        points = np.stack([np.sign(np.cos(angle)) * np.abs(np.cos(angle)) ** power,
                           np.sign(np.sin(angle)) * np.abs(np.sin(angle)) ** power], axis=1)
    elif kind < 0.55:  # four corners, a little off
        points = np.array([[-1, -1], [1, -1], [1, 1], [-1, 1]]) * (1 - 0.5 * rng.random((4, 2)) * rng.random())
    elif kind < 0.8:  # a blob
        angle = np.linspace(0, 2 * np.pi, 36, endpoint=False)
        radius = 1 + sum(rng.normal(0, 0.35 / k) * np.cos(k * angle + rng.uniform(0, 6.3)) for k in range(1, 6))
        points = np.abs(radius)[:, None] * np.stack([np.cos(angle), np.sin(angle)], axis=1)
    else:  # a polygon of few corners
        angle = np.sort(rng.uniform(0, 2 * np.pi, int(rng.integers(3, 9))))
        points = rng.uniform(0.4, 1, angle.size)[:, None] * np.stack([np.cos(angle), np.sin(angle)], axis=1)
    low, high = points.min(0), points.max(0)
    points = (points - (low + high) / 2) / np.maximum(high - low, 1e-3)
    return (points * (width, height)).astype(np.float32)


def turned(points, angle):
    c, s = np.cos(angle), np.sin(angle)
    return points @ np.array([[c, s], [-s, c]], np.float32)


def _fill_textured(rng, fields, picture, points):
    """Lays one textured leaf over the picture; its outline may leave it."""
    side_y, side_x = picture.shape[:2]
    left, top = np.maximum(np.floor(points.min(0)).astype(int), 0)
    right, bottom = np.minimum(np.ceil(points.max(0)).astype(int) + 1, (side_x, side_y))
    if right - left < 2 or bottom - top < 2:
        return
    mask = np.zeros((bottom - top, right - left), np.uint8)
    cv2.fillPoly(mask, [np.round((points - (left, top)) * 16).astype(np.int32)], 255, cv2.LINE_AA, 4)
    cut = texture(rng, fields, bottom - top, right - left)
    if rng.random() < 0.4:  # light falls off across the leaf
        ramp = np.linspace(rng.uniform(0.5, 1), rng.uniform(0.8, 1.3), cut.shape[1], dtype=np.float32)
        cut = np.clip(cut * ramp[None, :, None], 0, 255).astype(np.uint8)
    target = picture[top:bottom, left:right]
    alpha = mask[..., None].astype(np.uint16)
    target[:] = ((cut * alpha + target * (255 - alpha) + 127) // 255).astype(np.uint8)


def _leaves(rng, fields, picture, count, smallest, largest, exponent=2.0):
    """Dead leaves: sides drawn from a power law, large ones textured, small ones of one colour."""
    side = picture.shape[0]
    u = rng.random(count)
    sizes = (smallest ** (1 - exponent) * (1 - u) + largest ** (1 - exponent) * u) ** (1 / (1 - exponent))
    straight = rng.random() < 0.4  # man-made scenes have few directions
    heading = rng.uniform(0, np.pi)
    for size in sizes:
        angle = heading + (rng.integers(4) * np.pi / 2 if straight else rng.uniform(0, 2 * np.pi))
        aspect = np.exp(rng.normal(0, 0.45))
        points = turned(outline(rng, size * aspect, size / aspect), angle)
        points = points + rng.uniform(0, side, 2).astype(np.float32)
        if size > 14:
            _fill_textured(rng, fields, picture, points)
        else:
            colour = [int(v) for v in _palette(rng)[0, int(rng.integers(256))]]
            cv2.fillPoly(picture, [np.round(points * 16).astype(np.int32)], colour, cv2.LINE_AA, 4)


def _natural(rng, fields, side):
    """Rock, scrub, water, foliage: layers of noise that show through each other along ragged edges."""
    rough = [fields[i] for i in range(len(fields)) if i % FIELD_KINDS in ROUGH_KINDS]
    result = texture(rng, rough, side, side)
    tone = result.mean((0, 1))
    for _ in range(int(rng.integers(2, 7))):
        layer = texture(rng, rough, side, side).astype(np.float32)
        layer += rng.uniform(0.0, 0.9) * (tone - layer.mean((0, 1)))  # a place has its colours
        edge = texture(rng, rough, side, side)[..., 0].astype(np.float32)
        edge = edge * 0.6 + 0.4 * cv2.resize(rng.uniform(0, 255, (4, 4)).astype(np.float32), (side, side), interpolation=cv2.INTER_CUBIC)
        cover = np.clip((edge - np.percentile(edge, rng.uniform(30, 85))) / rng.uniform(2, 25) + 0.5, 0, 1)[..., None]
        result = np.clip(result + cover * (layer - result), 0, 255).astype(np.uint8)
    return result


def _ground(rng, fields, side):
    kind = rng.random()
    if kind < 0.5:
        return _natural(rng, fields, side)
    if kind < 0.75:
        return texture(rng, fields, side, side)
    picture = texture(rng, fields, side, side)  # land below a sky
    horizon = int(rng.uniform(0.1, 0.7) * side)
    near, far = rng.uniform(60, 255, 3), rng.uniform(60, 255, 3)
    ramp = np.linspace(0, 1, max(horizon, 1), dtype=np.float32)[:, None, None]
    picture[:horizon] = np.clip(far * (1 - ramp) + near * ramp, 0, 255).astype(np.uint8)
    return picture


def picture(rng, fields, side=512):
    """A layered scene of `side` x `side` pixels."""
    result = _ground(rng, fields, side)
    density = np.exp(rng.uniform(np.log(6), np.log(320)))
    _leaves(rng, fields, result, int(density), rng.uniform(4, 20), rng.uniform(80, 260), rng.uniform(1.5, 3.0))
    if rng.random() < 0.5:  # clutter of small things
        _leaves(rng, fields, result, int(rng.integers(30, 900)), 1.5, 24.0, 2.5)
    if rng.random() < 0.3:
        result = cv2.GaussianBlur(result, (0, 0), rng.uniform(0.4, 2.5))
    if rng.random() < 0.5:  # uneven light
        light = cv2.resize(rng.uniform(0.55, 1.3, (3, 3)).astype(np.float32), (side, side), interpolation=cv2.INTER_CUBIC)
        result = np.clip(result * light[..., None], 0, 255).astype(np.uint8)
    return result


class PicturePool:
    """A changing set of pictures: which picture stands where follows from the seed and the count of draws alone."""

    def __init__(self, seed, size=192, side=512, fields=144):
        self.seed, self.size, self.side = seed, size, side
        self.fields = make_fields(np.random.default_rng((seed, 1)), fields)
        self.pictures = [self._make(i) for i in range(size)]
        self.made = size

    def _make(self, index):
        return picture(np.random.default_rng((self.seed, 2, index)), self.fields, self.side)

    def refresh(self):
        """Replaces the oldest picture by a new one."""
        self.pictures[self.made % self.size] = self._make(self.made)
        self.made += 1

    def draw(self, rng):
        return self.pictures[int(rng.integers(self.size))]

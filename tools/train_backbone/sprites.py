"""Things that move: made of parts that have an outline and a texture each, and that move a little against each other."""

import cv2
import numpy as np

from textures import outline, texture, turned

CANVAS_PX = 160  # a sprite is composed on a canvas of this side
BODY_PX = 88     # the root of width times height of its body on that canvas
BEND = 0.05      # deviation of the shape's bending at a motion of one, as a share of BODY_PX


class Part:
    def __init__(self, picture, mask, offset, swing):
        self.picture, self.mask, self.offset, self.swing = picture, mask, offset, swing


def _part(rng, fields, pool, width, height, offset, swing):
    points = turned(outline(rng, width, height), rng.normal(0, 0.15))
    margin = 2
    low = np.floor(points.min(0)) - margin
    wide, high = (np.ceil(points.max(0)) - low + margin).astype(int)
    mask = np.zeros((high, wide), np.uint8)
    cv2.fillPoly(mask, [np.round((points - low) * 16).astype(np.int32)], 255, cv2.LINE_AA, 4)
    if rng.random() < 0.35:  # a busy skin: a cut of a whole scene
        source = pool.draw(rng)
        top = int(rng.integers(0, source.shape[0] - high + 1))
        left = int(rng.integers(0, source.shape[1] - wide + 1))
        picture = source[top:top + high, left:left + wide].copy()
    else:
        picture = texture(rng, fields, high, wide)
    shade = np.linspace(rng.uniform(0.5, 1.0), rng.uniform(0.9, 1.3), high, dtype=np.float32)
    picture = np.clip(picture * shade[:, None, None], 0, 255).astype(np.uint8)
    return Part(picture, mask, np.asarray(offset, np.float32), swing)


_AXIS = np.arange(CANVAS_PX, dtype=np.float32)
_SHADE_X, _SHADE_Y = np.meshgrid(_AXIS / CANVAS_PX - 0.5, _AXIS / CANVAS_PX - 0.5)


def _light_from_one_side(rng, strength):
    fall = strength * rng.standard_normal(2).astype(np.float32) * 2
    return np.clip(1 + fall[0] * _SHADE_X + fall[1] * _SHADE_Y, 0.3, 1.7)[..., None]


def _bend(rng, strength):
    """Where each pixel of the canvas comes from: two planes, float32. The middle stays in place."""
    planes = []
    for straight in np.meshgrid(_AXIS, _AXIS):
        shift = strength * BODY_PX * rng.standard_normal((4, 4)).astype(np.float32)
        shift = cv2.resize(shift, (CANVAS_PX, CANVAS_PX), interpolation=cv2.INTER_CUBIC)
        planes.append(straight + shift - shift[CANVAS_PX // 4:-CANVAS_PX // 4, CANVAS_PX // 4:-CANVAS_PX // 4].mean())
    return planes


class Sprite:
    """A thing with a body around the origin. `size` is (width, height) of its box, root area BODY_PX."""

    def __init__(self, rng, pool):
        fields = pool.fields
        aspect = np.exp(rng.normal(0, 0.4))
        self.size = np.array([BODY_PX * aspect ** 0.5, BODY_PX / aspect ** 0.5])
        self.size *= min(1.0, 0.9 * CANVAS_PX / self.size.max())
        self.parts = []
        if rng.random() < 0.75:
            self.parts.append(_part(rng, fields, pool, *self.size, (0, 0), 0.0))
        else:  # two halves, as legs below a coat
            half = self.size * (1, 0.55)
            self.parts.append(_part(rng, fields, pool, *half, (0, self.size[1] * 0.22), 0.05))
            self.parts.append(_part(rng, fields, pool, *half, (0, -self.size[1] * 0.22), 0.02))
        if rng.random() < 0.35:  # limbs
            for _ in range(int(rng.integers(1, 5))):
                thin = self.size * (rng.uniform(0.08, 0.2), rng.uniform(0.35, 0.6))
                place = (rng.uniform(-0.4, 0.4), rng.choice((-0.35, 0.35))) * self.size
                self.parts.append(_part(rng, fields, pool, *thin, place, 0.12))
        for _ in range(int(rng.integers(0, 6))):
            share = rng.uniform(0.12, 0.5, 2)
            offset = rng.uniform(-0.5, 0.5, 2) * self.size * (1 - 0.8 * share)
            self.parts.append(_part(rng, fields, pool, *(self.size * share), offset, rng.uniform(0, 0.08)))

    def tone_towards(self, colour, share):
        """Moves the mean colour of each part towards `colour`."""
        for part in self.parts:
            shift = share * (colour - part.picture.mean((0, 1)))
            part.picture = np.clip(part.picture + shift, 0, 255).astype(np.uint8)

    def altered(self, rng, fields, amount):
        """A sprite that looks alike: some parts carry another texture, all another light."""
        copy = object.__new__(Sprite)
        copy.size, copy.parts = self.size, []
        for part in self.parts:
            picture = part.picture
            if rng.random() < amount:
                picture = texture(rng, fields, *picture.shape[:2])
            gain = np.exp(rng.normal(0, 0.3 * amount, 3))
            copy.parts.append(Part(np.clip(picture * gain, 0, 255).astype(np.uint8), part.mask, part.offset, part.swing))
        return copy

    def compose(self, rng, motion):
        """Colour (float32, premultiplied) and cover (float32, 0 to 1) on the canvas. With `motion` the parts move against
        each other, their skins slide as if the thing turned, its shape bends, and light falls from another side."""
        slide = 0.12 * motion * rng.standard_normal()
        colour = np.zeros((CANVAS_PX, CANVAS_PX, 3), np.float32)
        cover = np.zeros((CANVAS_PX, CANVAS_PX), np.float32)
        for part in self.parts:
            shift = part.swing * motion * rng.standard_normal(2) * self.size
            high, wide = part.mask.shape
            corner = np.round(CANVAS_PX / 2 + part.offset + shift - (wide / 2, high / 2)).astype(int)
            left, top = np.maximum(corner, 0)
            right, bottom = np.minimum(corner + (wide, high), CANVAS_PX)
            if right <= left or bottom <= top:
                continue
            window = np.s_[top - corner[1]:bottom - corner[1], left - corner[0]:right - corner[0]]
            alpha = part.mask[window].astype(np.float32) / 255
            place = np.s_[top:bottom, left:right]
            skin = np.roll(part.picture, int(round(slide * wide)), axis=1)[window]
            colour[place] = colour[place] * (1 - alpha[..., None]) + skin * alpha[..., None]
            cover[place] = cover[place] * (1 - alpha) + alpha
        if motion == 0:
            return colour, cover
        colour *= _light_from_one_side(rng, 0.25 * motion)
        bend = _bend(rng, BEND * motion)
        return tuple(cv2.remap(plane, *bend, cv2.INTER_LINEAR) for plane in (colour, cover))

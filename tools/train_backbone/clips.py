"""Made footage: pairs of views of one scene, and short clips of a target with its box.

Lengths in a clip are in *units*: one unit is the root of the target's box area in the clip's first frame. A view is a
square cut around a point, `span` units wide, drawn at `side` pixels, as the tracker cuts its search area. `time` runs
from 0 (the frame with the box) to 1; the later, the more things have changed.
"""

from dataclasses import dataclass

import cv2
import numpy as np

import photometry
from sprites import CANVAS_PX, Sprite

FULL_SIDE_PX = 192      # of the tracker's views
MEAN_PX_PER_UNIT = 36.0  # resolution of the background; a unit is drawn at about 27 pixels

FOLLOWED = 5        # things of a scene that are followed: the target, neighbours, spots of the ground
CLEAR_UNITS = 0.95  # nothing else stands nearer than this to a thing that can be seen

START_SHIFT = 0.6          # of half the view, per axis: the tracker's shifted start samples
START_ROTATION_DEG = 10.0
START_BLUR_PX = 2.0


def _affine(scale_x, scale_y, angle, shear, target, source):
    """2 x 3: turns and scales about `source` and puts that point at `target`."""
    c, s = np.cos(angle), np.sin(angle)
    linear = np.array([[c, -s], [s, c]]) @ np.array([[scale_x, shear], [0.0, scale_y]])
    return np.hstack([linear, (np.asarray(target) - linear @ np.asarray(source))[:, None]])


def _compose(outer, inner):
    return np.hstack([outer[:, :2] @ inner[:, :2], outer[:, :2] @ inner[:, 2:] + outer[:, 2:]])


@dataclass
class Pose:
    """Where a thing is and how it is turned; `size` 1 is its size at the start."""
    position: np.ndarray
    size: float = 1.0
    aspect: float = 1.0
    angle: float = 0.0
    shear: float = 0.0
    motion: float = 0.0


@dataclass
class View:
    centre: np.ndarray
    span: float
    side: int

    def to_pixels(self):
        scale = self.side / self.span
        return _affine(scale, scale, 0.0, 0.0, (self.side / 2, self.side / 2), self.centre)


def _draw(rng, picture, sprite, pose, view):
    colour, cover = sprite.compose(rng, pose.motion)
    scale = pose.size / np.sqrt(np.prod(sprite.size))
    to_world = _affine(scale * pose.aspect ** 0.5, scale / pose.aspect ** 0.5, pose.angle, pose.shear * scale,
                       pose.position, (CANVAS_PX / 2, CANVAS_PX / 2))
    matrix = _compose(view.to_pixels(), to_world)
    shrink = np.sqrt(abs(np.linalg.det(matrix[:, :2])))
    if shrink < 0.75:  # against aliasing
        blur = 0.35 / shrink
        colour, cover = cv2.GaussianBlur(colour, (0, 0), blur), cv2.GaussianBlur(cover, (0, 0), blur)
    size = (view.side, view.side)
    colour = cv2.warpAffine(colour, matrix, size, flags=cv2.INTER_LINEAR)
    cover = cv2.warpAffine(cover, matrix, size, flags=cv2.INTER_LINEAR)[..., None]
    picture *= 1 - cover
    picture += colour


def _beyond_the_edges(picture, edges, view):
    """Repeats the border pixels where the camera's picture ends, as the tracker does."""
    low = np.floor((-edges[:2] - view.centre) / view.span * view.side + view.side / 2).astype(int)
    high = np.ceil((edges[2:] - view.centre) / view.span * view.side + view.side / 2).astype(int)
    left, top = np.clip(low, 0, view.side - 1)
    right, bottom = np.clip(high, (left + 1, top + 1), view.side)
    return cv2.copyMakeBorder(picture[top:bottom, left:right], top, view.side - bottom, left, view.side - right,
                              cv2.BORDER_REPLICATE)


class Scene:
    """A target, what stands around it, and how all of it changes with time."""

    def __init__(self, rng, pool, reach=4.0):
        self.rng, self.pool, self.reach = rng, pool, reach
        self.target = Sprite(rng, pool)
        self.ground = pool.draw(rng)
        if rng.random() < 0.4:  # hard to tell from the ground by colour alone
            self.target.tone_towards(self.ground.mean((0, 1)), rng.uniform(0.3, 1.0))
        self.ground_scale = 1.0 / (MEAN_PX_PER_UNIT * np.exp(np.clip(rng.normal(0, 0.35), -1.0, 0.4)))
        self.ground_place = self._any_place()
        self.ground_angle = rng.uniform(0, 2 * np.pi) if rng.random() < 0.3 else 0.0
        self.light = photometry.light(rng, 1.0)
        self.light['saturation'] = rng.uniform(0.2, 1.0)  # footage is paler than a palette
        self.grey = rng.random() < 0.2
        self.degradation = rng.uniform(0, 0.9)
        self.neighbours = [self._neighbour() for _ in range(int(rng.integers(1, 5)))]
        self.spots = None  # places of the ground that are followed as well, in its pixels
        self.restless = 0.8 * np.exp(rng.normal(0, 0.5))  # how much changes with time
        self.flicker = 0.9 if rng.random() < 0.3 else 0.25  # how much of that in the light
        self.camera = int(rng.integers(2 ** 31))  # mostly one lens, sensor and coder for the whole clip

    def _any_place(self):
        """A place of the ground around which most views find no end of it."""
        return self.rng.uniform(0.32, 0.68, 2) * self.ground.shape[0]

    def _neighbour(self):
        if self.rng.random() < 0.25:
            return self.target.altered(self.rng, self.pool.fields, self.rng.uniform(0.5, 1.0))
        return Sprite(self.rng, self.pool)

    def pose(self, time):
        rng, change = self.rng, time * self.restless
        return Pose(np.zeros(2), np.exp(rng.normal(0, 0.2 * change)), np.exp(rng.normal(0, 0.14 * change)),
                    rng.normal(0, 0.22 * change), rng.normal(0, 0.1 * change), 1.2 * change)

    def _ground_at(self, time):
        rng, change = self.rng, time * self.restless
        ground, place = self.ground, self.ground_place
        if rng.random() < 0.4 * time:  # the target has come to another place
            place = self._any_place()
        place = place + rng.normal(0, 1.2 * change, 2) / self.ground_scale
        scale = self.ground_scale * np.exp(rng.normal(0, 0.12 * change))
        to_world = _affine(scale, scale, self.ground_angle + rng.normal(0, 0.08 * change), 0.0, (0, 0), place)
        return to_world, ground

    def _edges(self):
        """Where the camera's picture ends, as distances from the target: left, top, right, bottom. Often beyond every view."""
        reach = self.rng.uniform(0.7, 8.0, 4)
        return np.where(self.rng.random(4) < 0.5, reach, 99.0)

    def frame(self, time):
        """What one frame holds, apart from where it is seen from: views of one frame show the same things."""
        rng = self.rng
        target = self.target
        if rng.random() < 0.25 * time:
            target = target.altered(rng, self.pool.fields, 0.5 * rng.random())
        things = []
        for sprite in self.neighbours:
            if rng.random() < 0.8:
                angle, distance = rng.uniform(0, 2 * np.pi), rng.uniform(1.15, self.reach)
                position = distance * np.array([np.cos(angle), np.sin(angle)])
                things.append((sprite, Pose(position, np.exp(rng.normal(0, 0.15)), np.exp(rng.normal(0, 0.1)),
                                            rng.normal(0, 0.2), 0.0, 1.0)))
        cover = None
        if time > 0 and rng.random() < 0.1:
            offset = rng.normal(0, 0.6, 2)
            cover = (Sprite(rng, self.pool), Pose(offset, rng.uniform(0.4, 0.9), angle=rng.uniform(0, 6.3)))
        return {'time': time, 'target': target, 'pose': self.pose(time), 'things': things, 'cover': cover,
                'ground': self._ground_at(time), 'edges': self._edges(), 'seed': int(rng.integers(2 ** 31)),
                'light': photometry.light(rng, self.flicker * time),
                'camera': self.camera if rng.random() < 0.8 else int(rng.integers(2 ** 31))}

    def view(self, frame, view):
        """The frame as seen in `view`: uint8, side x side x 3."""
        rng = np.random.default_rng(frame['seed'])  # the same details for each view of a frame
        to_world, ground = frame['ground']
        matrix = _compose(view.to_pixels(), to_world)
        picture = cv2.warpAffine(ground, matrix, (view.side, view.side), flags=cv2.INTER_LINEAR,
                                 borderMode=cv2.BORDER_REFLECT).astype(np.float32)
        order = list(frame['things'])
        order.insert(int(rng.integers(len(order) + 1)) if frame['time'] > 0 else len(order),
                     (frame['target'], frame['pose']))
        if frame['cover'] is not None:
            order.append(frame['cover'])
        for sprite, pose in order:
            _draw(rng, picture, sprite, pose, view)
        picture = _beyond_the_edges(np.clip(picture, 0, 255).astype(np.uint8), frame['edges'], view)
        picture = photometry.apply_light(photometry.apply_light(picture, self.light), frame['light'])
        if self.grey:
            picture = photometry.to_grey(picture)
        return photometry.degrade(np.random.default_rng(frame['camera']), picture, self.degradation, rng)


    def places(self, frame, view):
        """Where the things of this scene stand in a view, as shares of it from its middle (x, y), and which are to be seen
        there: FOLLOWED rows, the target, then neighbours, then spots of the ground."""
        things = [(self.target, frame['pose'].position)] + [(sprite, pose.position) for sprite, pose in frame['things']]
        to_world = frame['ground'][0]
        if self.spots is None:
            self.spots = self._free_spots(to_world, [position for _, position in things], view)
        covers = [position for _, position in things]
        if frame['cover'] is not None:
            covers.append(frame['cover'][1].position)
        rows = [things[0][1]]
        for sprite in self.neighbours:
            rows.append(next((position for other, position in things[1:] if other is sprite), None))
        rows += [to_world[:, :2] @ spot + to_world[:, 2] for spot in self.spots]
        places, seen = np.zeros((FOLLOWED, 2), np.float32), np.zeros(FOLLOWED, np.float32)
        for index, position in enumerate(rows[:FOLLOWED]):
            if position is None:
                continue
            places[index] = (position - view.centre) / view.span
            gaps = [np.hypot(*(position - other)) for other in covers if other is not position]
            inside = np.abs(places[index]).max() < 0.46
            inside = inside and (-frame['edges'][:2] < position).all() and (position < frame['edges'][2:]).all()
            seen[index] = index == 0 or (inside and min(gaps, default=9.0) > CLEAR_UNITS)
        return places, seen

    def _free_spots(self, to_world, covers, view):
        """Up to FOLLOWED spots of the ground that nothing hides and that lie apart from each other."""
        to_ground = np.linalg.inv(np.vstack([to_world, [0, 0, 1]]))
        spots, taken = [], list(covers)
        for _ in range(12):
            position = view.centre + self.rng.uniform(-0.4, 0.4, 2) * view.span
            spot = to_ground[:2, :2] @ position + to_ground[:2, 2]
            apart = min(np.hypot(*(position - other)) for other in taken) > CLEAR_UNITS
            if apart and (spot > 0).all() and (spot < self.ground.shape[0]).all():
                spots.append(spot)
                taken.append(position)
        return spots


def _varied(rng, picture, places):
    """One of the tracker's start variations of the template: mirrored, blurred or turned. The target stays in the middle."""
    kind = int(rng.integers(4))
    if kind == 0:
        return picture[:, ::-1], places * (-1, 1)
    if kind == 1:
        return cv2.GaussianBlur(picture, (0, 0), START_BLUR_PX, borderType=cv2.BORDER_REPLICATE), places
    side = picture.shape[0]
    turn = cv2.getRotationMatrix2D((side / 2, side / 2), START_ROTATION_DEG if kind == 2 else -START_ROTATION_DEG, 1.0)
    turned = cv2.warpAffine(picture, turn, (side, side), flags=cv2.INTER_LINEAR, borderMode=cv2.BORDER_REPLICATE)
    return turned, places @ turn[:, :2].T


def clip(rng, pool, side=192, memory=1, tests=2):
    """Training views and later views of one scene, with the places of FOLLOWED things: the target and others beside it.

    Returns `pictures` (3 + memory + tests + 1) x side x side x 3, uint8: the template, one shifted, one varied, then frames
    of the memory, then test frames, and at last the first test frame once more, cut too wide or too narrow; `places`,
    FOLLOWED x views x 2, where each thing stands relative to the middle of each view as a share of the view (x, y); `seen`,
    FOLLOWED x views, 1 where it can be seen there; `factor`, how many units a view at the start spans; and `mismatch`, the
    logarithm of how much too wide the last view is.
    """
    scene = Scene(rng, pool, reach=1.15 + 2.85 * side / FULL_SIDE_PX)
    factor = rng.uniform(4.5, 8.0) * side / FULL_SIDE_PX  # a small view shows less, at the same resolution
    start = scene.frame(0.0)
    pictures, places, seen = [], [], []

    def add(picture, where):
        pictures.append(np.ascontiguousarray(picture))
        places.append(where[0])
        seen.append(where[1])

    def add_view(frame, view):
        add(scene.view(frame, view), scene.places(frame, view))

    add_view(start, View(np.zeros(2), factor, side))
    shift = START_SHIFT / 2 * (1 if rng.random() < 0.5 else -1)
    add_view(start, View(np.full(2, shift * factor), factor, side))
    varied, turned_places = _varied(rng, pictures[0], places[0])
    add(varied, (turned_places, seen[0] * (np.abs(turned_places).max(1) < 0.46)))

    mismatch = rng.uniform(0.04, 0.16) * (1 if rng.random() < 0.5 else -1)
    doubted = None
    for i, time in enumerate(np.sort(rng.uniform(0.05, 1.0, memory + tests))):
        frame = scene.frame(time)
        reach = 0.08 if i < memory else (0.1 if rng.random() < 0.5 else 0.3)
        offset = rng.uniform(-reach, reach, 2)
        span = factor * frame['pose'].size
        add_view(frame, View(-offset * span, span * np.exp(rng.normal(0, 0.015)), side))
        if i == memory:
            doubted = frame, View(-offset * span, span * np.exp(mismatch), side)
    add_view(*doubted)
    return {'pictures': np.stack(pictures), 'places': np.stack(places, 1).astype(np.float32),
            'seen': np.stack(seen, 1).astype(np.float32), 'factor': np.float32(factor), 'mismatch': np.float32(mismatch)}


def _scattered(rng, pool):
    """A still scene of a ground and some things, to be seen twice."""
    picture = pool.draw(rng).astype(np.float32)
    side = picture.shape[0]
    view = View(np.zeros(2), 14.0, side)
    for _ in range(int(rng.integers(0, 7))):
        pose = Pose(rng.uniform(-6, 6, 2), np.exp(rng.normal(0.3, 0.4)), angle=rng.uniform(0, 6.3))
        _draw(rng, picture, Sprite(rng, pool), pose, view)
    return np.clip(picture, 0, 255).astype(np.uint8)


def pair(rng, pool, side=160):
    """Two views of one scene under strongly different light, lens and noise.

    Returns `pictures` 2 x side x side x 3, uint8, and `matrix` 2 x 3: a pixel (x, y) of the first view is seen at
    `matrix @ (x, y, 1)` in the second.
    """
    scene = _scattered(rng, pool)
    middle = rng.uniform(0.3, 0.7, 2) * scene.shape[0]
    zoom = np.exp(rng.uniform(np.log(0.6), np.log(1.4)))
    first = _affine(zoom, zoom, rng.uniform(-0.4, 0.4), 0.0, (side / 2, side / 2), middle)
    change = np.exp(rng.normal(0, 0.2))
    aspect = np.exp(rng.normal(0, 0.12))
    change_of_view = _affine(change * aspect, change / aspect, rng.normal(0, 0.3), rng.normal(0, 0.1),
                             side / 2 + rng.normal(0, 0.12 * side, 2), (side / 2, side / 2))
    second = _compose(change_of_view, first)
    size, pictures = (side, side), []
    grey = rng.random() < 0.15
    for matrix in (first, second):
        picture = cv2.warpAffine(scene, matrix, size, flags=cv2.INTER_LINEAR, borderMode=cv2.BORDER_REFLECT)
        picture = photometry.apply_light(picture, photometry.light(rng, 1.3))
        if grey or rng.random() < 0.08:
            picture = photometry.to_grey(picture)
        pictures.append(photometry.degrade(rng, picture))
    return {'pictures': np.stack(pictures), 'matrix': change_of_view.astype(np.float32)}

"""What light, lens, sensor and coding do to a picture. Pictures are uint8, height x width x 3."""

import cv2
import numpy as np


def light(rng, strength=1.0):
    """A draw of exposure, contrast, tint and gamma: the same draw keeps two pictures alike."""
    return {
        'gain': np.exp(rng.normal(0, 0.18 * strength)),
        'offset': rng.normal(0, 12 * strength),
        'tint': np.exp(rng.normal(0, 0.06 * strength, 3)),
        'gamma': np.exp(rng.normal(0, 0.15 * strength)),
        'saturation': np.clip(rng.normal(1, 0.25 * strength), 0, 1.6),
    }


def apply_light(picture, values):
    table = 255.0 * (np.arange(256) / 255.0) ** values['gamma'] * values['gain'] + values['offset']
    tables = np.clip(table[:, None] * values['tint'][None], 0, 255).astype(np.uint8)[None]
    result = cv2.LUT(picture, tables)
    if abs(values['saturation'] - 1) > 0.05:
        grey = cv2.cvtColor(result, cv2.COLOR_RGB2GRAY)[..., None].astype(np.float32)
        result = np.clip(grey + (result - grey) * values['saturation'], 0, 255).astype(np.uint8)
    return result


def to_grey(picture):
    return cv2.cvtColor(cv2.cvtColor(picture, cv2.COLOR_RGB2GRAY), cv2.COLOR_GRAY2RGB)


def _motion_blur(rng, picture, longest_px):
    length = rng.uniform(2, longest_px)
    size = int(np.ceil(length)) | 1
    kernel = np.zeros((size, size), np.float32)
    angle = rng.uniform(0, np.pi)
    half = np.array([np.cos(angle), np.sin(angle)]) * (length - 1) / 2
    middle = (size - 1) / 2
    ends = [tuple(np.round(((middle, middle) + sign * half) * 16).astype(int).tolist()) for sign in (-1, 1)]
    cv2.line(kernel, ends[0], ends[1], 1.0, 1, cv2.LINE_8, 4)
    return cv2.filter2D(picture, -1, kernel / max(kernel.sum(), 1e-6), borderType=cv2.BORDER_REPLICATE)


def _low_resolution(rng, picture):
    """As a small target looks: seen with few pixels, then enlarged."""
    height, width = picture.shape[:2]
    factor = rng.uniform(1.2, 3.0)
    small = cv2.resize(picture, (int(width / factor), int(height / factor)), interpolation=cv2.INTER_AREA)
    return cv2.resize(small, (width, height), interpolation=cv2.INTER_LINEAR)


def lens(rng, picture, strength, moment):
    if rng.random() < 0.2 * strength:
        picture = _low_resolution(rng, picture)
    if rng.random() < 0.25 * strength:
        picture = cv2.GaussianBlur(picture, (0, 0), rng.uniform(0.4, 2.0))
    if moment.random() < 0.2 * strength:
        picture = _motion_blur(moment, picture, 9)
    return picture


def sensor(rng, picture, strength, moment):
    if rng.random() < 0.6 * strength:
        deviation = rng.exponential(5.0)
        noise = moment.standard_normal(picture.shape, dtype=np.float32) * min(deviation, 20.0)
        picture = np.clip(picture + noise, 0, 255).astype(np.uint8)
    if rng.random() < 0.35 * strength:
        quality = int(rng.integers(25, 90))
        ok, coded = cv2.imencode('.jpg', picture, [cv2.IMWRITE_JPEG_QUALITY, quality])
        if ok:
            picture = cv2.imdecode(coded, cv2.IMREAD_COLOR)
    return picture


def degrade(rng, picture, strength=1.0, moment=None):
    """Lens, then sensor and coding. `rng` draws the camera; `moment`, where given, what differs between its frames."""
    moment = moment or rng
    return sensor(rng, lens(rng, picture, strength, moment), strength, moment)

"""Endless batches of made footage. Sample i of a stage follows from (seed, stage, i) and the pictures in the pool."""

import cv2
import numpy as np
import torch
from torch.utils.data import DataLoader, IterableDataset, get_worker_info

from textures import PicturePool

REFRESH_EVERY = 6            # samples between two new pictures of the pool
VALIDATION_SEED_OFFSET = 1_000_003  # validation has fields, pictures and clips of its own


def _tensor(sample):
    result = {name: torch.as_tensor(value) for name, value in sample.items()}
    result['pictures'] = result['pictures'].permute(0, 3, 1, 2)
    return result


def _stack(samples):
    return {name: torch.stack([sample[name] for sample in samples]) for name in samples[0]}


class Footage(IterableDataset):
    """Batches from batch number `start` on, made by `make(rng, pool)`."""

    def __init__(self, make, seed, stage, batch_size, start):
        self.make, self.seed, self.stage, self.batch_size, self.start = make, seed, stage, batch_size, start

    def __iter__(self):
        cv2.setNumThreads(1)
        torch.set_num_threads(1)
        worker = get_worker_info()
        number, workers = (worker.id, worker.num_workers) if worker else (0, 1)
        pool = PicturePool((self.seed * 31 + self.stage) * 64 + number + self.start * 1009)
        batch = self.start + number
        while True:
            samples = []
            for index in range(batch * self.batch_size, (batch + 1) * self.batch_size):
                samples.append(_tensor(self.make(np.random.default_rng((self.seed, self.stage, index)), pool)))
                if index % REFRESH_EVERY == 0:
                    pool.refresh()
            yield _stack(samples)
            batch += workers


def batches(make, seed, stage, batch_size, start, workers):
    footage = Footage(make, seed, stage, batch_size, start)
    return iter(DataLoader(footage, batch_size=None, num_workers=workers, prefetch_factor=4 if workers else 2))


def validation(seed, count, make):
    """Fixed batches of one that training never sees."""
    pool = PicturePool(seed + VALIDATION_SEED_OFFSET, size=64)
    return [_stack([_tensor(make(np.random.default_rng((seed + VALIDATION_SEED_OFFSET, i)), pool))]) for i in range(count)]

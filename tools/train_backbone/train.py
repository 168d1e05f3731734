#!/usr/bin/python3
"""Trains the trunk from nothing, on footage that it makes itself.

    train.py --out DIR                    all stages with the defaults; go on where DIR was left
    train.py --out DIR --minutes 30       stop after 30 minutes, to go on later
    train.py --out DIR --export FILE      write the averaged weights of DIR as ONNX and end

DIR takes snapshot.pt, journal.tsv, curves.png. It can be stopped at any time (Ctrl-C, SIGTERM): it saves and ends.
"""

import argparse
import copy
import math
import os
import signal
import sys
import time
from functools import partial

import numpy as np
import torch

import clips
import contrastive
import export
import filter_learning
import footage
import journal
from network import TRAINED_CHANNELS, Joined, Trunk

STAGES = ('contrastive', 'filter', 'frozen')
KEPT_OPTIONS = ('channels', 'seed')  # a training goes on with those it was begun with
TESTS = 2              # later views of a clip that the filter is judged on
VALIDATION_BATCHES = 64
SAVE_EVERY = 100       # steps
VALIDATE_EVERY = 500
STATISTICS_MOMENTUM = 0.02
AVERAGE_DECAY = 0.998  # of the running mean of the weights


def parse(arguments):
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument('--out', required=True, help='folder of the training')
    parser.add_argument('--seed', type=int, default=1)
    parser.add_argument('--channels', type=int, default=128)
    parser.add_argument('--contrastive-steps', type=int, default=1200)
    parser.add_argument('--filter-steps', type=int, default=3400)
    parser.add_argument('--frozen-steps', type=int, default=0)
    parser.add_argument('--pairs', type=int, default=8, help='pairs in a batch of the first stage')
    parser.add_argument('--clips', type=int, default=6, help='clips in a batch of the second stage')
    parser.add_argument('--side', type=int, default=128, help='pixels of a view in the second stage')
    parser.add_argument('--contrastive-rate', type=float, default=1e-3)
    parser.add_argument('--filter-rate', type=float, default=6e-4)
    parser.add_argument('--frozen-rate', type=float, default=1e-4)
    parser.add_argument('--minutes', type=float, default=math.inf, help='stop after so long')
    parser.add_argument('--threads', type=int, default=0, help='of the solver; 0: all')
    parser.add_argument('--workers', type=int, default=1, help='processes that make footage')
    parser.add_argument('--device', default='cuda' if torch.cuda.is_available() else 'cpu')
    parser.add_argument('--float32', action='store_true', help='no bfloat16 inside the trunk')
    parser.add_argument('--export', metavar='FILE', help='write the averaged weights as ONNX and end')
    options = parser.parse_args(arguments)
    if options.channels < TRAINED_CHANNELS:
        parser.error(f'--channels: the joined features take {TRAINED_CHANNELS} of them')
    return options


class Training:
    """A trunk on its way: weights, optimiser, averaged weights, where it stands."""

    def __init__(self, options):
        self.options = options
        self.snapshot = os.path.join(options.out, 'snapshot.pt')
        torch.manual_seed(options.seed)
        self.trunk = Trunk(options.channels).to(options.device, memory_format=torch.channels_last)
        self.heads = contrastive.Heads().to(options.device)
        self.stage, self.step, self.minutes = STAGES[0], 0, 0.0
        self.average = None
        self.optimiser = None
        self.generator = torch.Generator().manual_seed(options.seed)
        self._restore()

    def _restore(self):
        state = journal.load(self.snapshot, self.options.device)
        if state is None:
            self.begin(STAGES[0])
            return
        for name in KEPT_OPTIONS:
            if state['options'][name] != getattr(self.options, name):
                raise SystemExit(f'train.py: {self.snapshot} was made with --{name} {state["options"][name]}')
        self.trunk.load_state_dict(state['trunk'])
        self.heads.load_state_dict(state['heads'])
        self.begin(state['stage'])
        self.average.load_state_dict(state['average'])
        self.optimiser.load_state_dict(state['optimiser'])
        self.generator.set_state(state['generator'].cpu())
        self.step, self.minutes = state['step'], state['minutes']

    def save(self):
        journal.save(self.snapshot, {
            'trunk': self.trunk.state_dict(), 'heads': self.heads.state_dict(), 'average': self.average.state_dict(),
            'optimiser': self.optimiser.state_dict(), 'generator': self.generator.get_state(), 'stage': self.stage,
            'step': self.step, 'minutes': self.minutes,
            'options': {name: getattr(self.options, name) for name in KEPT_OPTIONS}})

    def begin(self, stage):
        self.stage, self.step = stage, 0
        weights = list(self.trunk.parameters()) + (list(self.heads.parameters()) if stage == STAGES[0] else [])
        self.optimiser = torch.optim.AdamW(weights, lr=1e-3, weight_decay=1e-4)
        self.average = copy.deepcopy(self.trunk).eval()
        for module in self.trunk.modules():
            if isinstance(module, torch.nn.BatchNorm2d):
                module.momentum = STATISTICS_MOMENTUM

    def steps(self):
        return getattr(self.options, self.stage + '_steps')

    def set_rate(self):
        """Short rise, then a cosine down to a fiftieth."""
        top = getattr(self.options, self.stage + '_rate')
        share = min(1.0, self.step / max(self.steps(), 1))
        rate = top * min(1.0, (self.step + 1) / 100) * (0.02 + 0.49 * (1 + math.cos(math.pi * share)))
        for group in self.optimiser.param_groups:
            group['lr'] = rate
        return rate

    @torch.no_grad()
    def follow_average(self):
        decay = min(AVERAGE_DECAY, (1 + self.step) / (10 + self.step))
        for mean, value in zip(self.average.state_dict().values(), self.trunk.state_dict().values()):
            if mean.dtype.is_floating_point:
                mean.lerp_(value, 1 - decay)
            else:
                mean.copy_(value)

    def in_bfloat16(self):
        return torch.autocast(torch.device(self.options.device).type, dtype=torch.bfloat16, enabled=not self.options.float32)

    def placed(self, batch):
        return {name: value.to(self.options.device, torch.float32, non_blocking=True) for name, value in batch.items()}

    def loss(self, batch):
        with self.in_bfloat16():
            if self.stage == STAGES[0]:
                return contrastive.contrastive_loss(self.trunk, self.heads, batch, self.generator)
            return filter_learning.filter_loss(self.trunk, batch, TESTS, self.generator)

    def advance(self, batch):
        self.trunk.train()
        if self.stage == STAGES[2]:
            self.trunk.freeze_statistics()
        rate = self.set_rate()
        loss, figures = self.loss(self.placed(batch))
        self.optimiser.zero_grad(set_to_none=True)
        loss.backward()
        norm = torch.nn.utils.clip_grad_norm_(self.trunk.parameters(), 5.0)
        if torch.isfinite(norm):
            self.optimiser.step()
            self.follow_average()
        self.step += 1
        return {'loss': loss.detach(), 'gradient': norm, 'rate': rate, **{k: v.detach() for k, v in figures.items()}}

    @torch.no_grad()
    def validate(self, batches):
        """Figures of the averaged weights on footage that is never trained on: pairs in the first stage, then clips."""
        generator = torch.Generator().manual_seed(0)
        if self.stage == STAGES[0]:
            rows = [contrastive.contrastive_loss(self.average, self.heads, self.placed(batch), generator)[1] for batch in batches]
        else:
            rows = [filter_learning.filter_loss(self.average, self.placed(batch), TESTS, generator)[1] for batch in batches]
        return {'valid_' + name: float(np.mean([float(row[name]) for row in rows])) for name in rows[0]}

    def inputs(self):
        """Pictures to gather statistics on: a list of N x 3 x S x S."""
        make = iter(footage.batches(clips.clip, self.options.seed, 7, 4, 0, 0))
        return [self.placed(next(make))['pictures'].flatten(0, 1) for _ in range(16)]

    @torch.no_grad()
    def settle(self):
        """Between two stages: takes the averaged weights and gathers the statistics anew on clips; behind the first stage it
        also sets the neck."""
        inputs = self.inputs()
        self.trunk.load_state_dict(self.average.state_dict())
        for module in self.trunk.modules():
            if isinstance(module, torch.nn.BatchNorm2d):
                module.reset_running_stats()
                module.momentum = None
        self.trunk.train()
        for batch in inputs:
            self.trunk.stages(batch)
        self.trunk.eval()
        if self.stage == STAGES[0]:
            self.trunk.set_neck(inputs)


class Watch:
    """Says when to stop: out of time, or asked to."""

    def __init__(self, minutes):
        self.end, self.asked = time.monotonic() + 60 * minutes, False
        for number in (signal.SIGINT, signal.SIGTERM):
            signal.signal(number, self._ask)

    def _ask(self, *_):
        self.asked = True

    def over(self):
        return self.asked or time.monotonic() > self.end


def run_stage(training, book, watch, validation):
    options = training.options
    first = training.stage == STAGES[0]
    side = clips.FULL_SIDE_PX if training.stage == STAGES[2] else options.side  # at last as the tracker sees
    make, size = (clips.pair, options.pairs) if first else (partial(clips.clip, side=side), options.clips)
    source = footage.batches(make, options.seed, STAGES.index(training.stage), size, training.step, options.workers)
    sums, start, before = {}, time.monotonic(), training.minutes
    while training.step < training.steps() and not watch.over():
        for name, value in training.advance(next(source)).items():
            sums.setdefault(name, []).append(float(value))
        training.minutes = before + (time.monotonic() - start) / 60
        if training.step % 50 == 0:
            figures = {name: float(np.mean(values)) for name, values in sums.items()}
            sums = {}
            if training.step % VALIDATE_EVERY == 0:
                figures.update(training.validate(validation))
            book.add(training.stage, training.step, training.minutes, figures)
            print(training.stage, training.step, f'{training.minutes:.1f} min',
                  ' '.join(f'{name} {value:.4g}' for name, value in figures.items()), flush=True)
        if training.step % SAVE_EVERY == 0:
            training.save()
            book.draw()
    training.save()
    book.draw()


def main(arguments):
    options = parse(arguments)
    if options.threads:
        torch.set_num_threads(options.threads)
    os.makedirs(options.out, exist_ok=True)
    training = Training(options)
    if options.export:
        if training.stage == STAGES[0]:
            raise SystemExit(f'train.py: {options.out} has no trunk to write yet: the first stage is not through')
        notes = {'training': f'seed {options.seed}, {training.stage} step {training.step}'}
        joined = Joined(training.average.cpu(), [batch.cpu() for batch in training.inputs()])
        export.write(joined, options.export, notes=notes)
        return 0
    book = journal.Journal(options.out)
    book.forget_after(training.stage, training.step)
    watch = Watch(options.minutes)
    while True:
        validation = footage.validation(options.seed, VALIDATION_BATCHES, clips.pair if training.stage == STAGES[0] else clips.clip)
        run_stage(training, book, watch, validation)
        if training.step < training.steps() or watch.over() or training.stage == STAGES[-1]:
            return 0
        training.settle()
        training.begin(STAGES[STAGES.index(training.stage) + 1])
        training.save()


if __name__ == '__main__':
    sys.exit(main(sys.argv[1:]))

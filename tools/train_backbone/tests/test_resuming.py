"""Tests of how a training stops and goes on."""

import os
import signal
import sys
import tempfile
import unittest

import torch

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), '..'))

import train


def step_somewhere(training):
    """A step of the optimiser on a made-up loss, so that there are moments to keep."""
    training.trunk.train()
    training.trunk(torch.rand(2, 3, 64, 64, generator=training.generator) * 255).square().mean().backward()
    training.optimiser.step()
    training.step += 1
    training.follow_average()


def parts(training):
    """Everything that the next step depends on, flat."""
    moments = {f'{index}.{name}': value for index, state in training.optimiser.state_dict()['state'].items()
               for name, value in state.items()}
    return {'trunk': training.trunk.state_dict(), 'average': training.average.state_dict(), 'heads': training.heads.state_dict(),
            'moments': moments, 'generator': {'state': training.generator.get_state()}}


class Resuming(unittest.TestCase):
    def test_a_training_goes_on_exactly_where_it_was_saved(self):
        for stage in train.STAGES:
            with tempfile.TemporaryDirectory() as folder:
                options = train.parse(['--out', folder, '--channels', '96', '--device', 'cpu'])
                saved = train.Training(options)
                fresh = {name: value.clone() for name, value in saved.trunk.state_dict().items()}
                saved.begin(stage)
                for _ in range(3):
                    step_somewhere(saved)
                saved.minutes = 12.5
                saved.save()
                again = train.Training(options)
            self.assertEqual((again.stage, again.step, again.minutes), (stage, 3, 12.5))
            before, after = parts(saved), parts(again)
            self.assertTrue(before['moments'])
            for part in before:
                self.assertEqual(before[part].keys(), after[part].keys())
                for name, value in before[part].items():
                    torch.testing.assert_close(after[part][name], value, rtol=0, atol=0, msg=f'{part} {name}')
            self.assertTrue(any((fresh[name] != value).any() for name, value in again.trunk.state_dict().items()))
            self.assertEqual(again.set_rate(), saved.set_rate())

    def test_an_interrupt_and_the_end_of_the_time_both_stop_it(self):
        numbers = (signal.SIGINT, signal.SIGTERM)
        kept = [signal.getsignal(number) for number in numbers]
        try:
            for number in numbers:
                watch = train.Watch(60)
                self.assertFalse(watch.over())
                os.kill(os.getpid(), number)
                self.assertTrue(watch.over())
            self.assertTrue(train.Watch(0).over())
        finally:
            for number, handler in zip(numbers, kept):
                signal.signal(number, handler)


if __name__ == '__main__':
    unittest.main()

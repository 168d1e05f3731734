"""Tests of the trunk's training: python3 -m unittest discover -s tests, from this folder's parent."""

import contextlib
import io
import os
import sys
import tempfile
import unittest

import cv2
import numpy as np
import torch

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), '..'))

import clips
import contrastive
import export
import filter_learning
import footage
import journal
import textures
import train
from network import EARLY_CHANNELS, FEATURE_NORM, Joined, Trunk


class SmallPool(textures.PicturePool):
    def __init__(self, seed=3):
        super().__init__(seed, size=3, side=256, fields=textures.FIELD_KINDS)


POOL = SmallPool()


class Pictures(unittest.TestCase):
    def test_equal_seeds_draw_equal_clips_and_other_seeds_do_not(self):
        first, again, other = (clips.clip(np.random.default_rng(seed), POOL, side=64)['pictures'] for seed in (5, 5, 6))
        np.testing.assert_array_equal(first, again)
        self.assertTrue((first != other).any())

    def test_a_refreshed_pool_equals_one_that_was_filled_later(self):
        refreshed = SmallPool()
        before = refreshed.pictures[0]
        refreshed.refresh()
        self.assertTrue((refreshed.pictures[0] != before).any())
        np.testing.assert_array_equal(refreshed.pictures[0], refreshed._make(3))

    def test_the_target_stands_where_a_clip_says(self):
        """A bright target on dark ground, without light, lens and neighbours: the centre of its pixels is the given one."""
        for seed in range(8):
            rng = np.random.default_rng(seed)
            scene = clips.Scene(rng, POOL)
            scene.ground = np.zeros_like(scene.ground)
            scene.neighbours = []
            frame = scene.frame(0.0)
            frame['things'], frame['cover'] = [], None
            scene.target.parts = scene.target.parts[:1]
            scene.target.parts[0].offset[:] = 0
            scene.target.parts[0].picture[:] = 255
            scene.target.parts[0].mask[:] = 255
            offset = rng.uniform(-0.3, 0.3, 2)
            view = clips.View(-offset * 6.0, 6.0, 192)
            picture = np.zeros((192, 192, 3), np.float32)
            clips._draw(rng, picture, scene.target, frame['pose'], view)
            y, x = np.nonzero(picture[..., 0] > 127)
            found = np.array([x.mean(), y.mean()]) + 0.5
            np.testing.assert_allclose(found, (offset + 0.5) * 192, atol=1.5)

    def test_all_followed_things_stand_where_a_clip_says(self):
        """Each thing and each spot of the ground is drawn alone in white; its pixels lie around its place in every view."""
        checked = 0
        for seed in range(6):
            rng = np.random.default_rng(seed)
            scene = clips.Scene(rng, POOL)
            start = scene.frame(0.0)
            scene.places(start, clips.View(np.zeros(2), 6.0, 192))
            for frame in (start, scene.frame(0.7)):
                view = clips.View(rng.uniform(-0.5, 0.5, 2), 6.3, 192)
                places, seen = scene.places(frame, view)
                to_ground = np.linalg.inv(np.vstack([clips._compose(view.to_pixels(), frame['ground'][0]), [0, 0, 1]]))
                first_spot = 1 + len(scene.neighbours)
                for index in range(first_spot, min(clips.FOLLOWED, first_spot + len(scene.spots))):
                    found = to_ground @ (*((places[index] + 0.5) * 192), 1.0)
                    np.testing.assert_allclose(found[:2], scene.spots[index - first_spot], atol=0.1)
                for sprite, pose in frame['things']:
                    index = 1 + next(i for i, other in enumerate(scene.neighbours) if other is sprite)
                    if index < clips.FOLLOWED and seen[index]:
                        np.testing.assert_allclose((places[index] + 0.5) * 192, view.to_pixels() @ (*pose.position, 1.0), atol=0.01)
                        checked += 1
        self.assertGreater(checked, 3)

    def test_a_varied_template_takes_the_places_along(self):
        """A white dot in a black template is found where the varied places say, for mirror and both turns."""
        kinds = set()
        for seed in range(24):
            picture = np.zeros((192, 192, 3), np.uint8)
            place = np.array([[0.2, -0.1]])
            cv2.circle(picture, tuple(np.round((place[0] + 0.5) * 192).astype(int).tolist()), 5, (255, 255, 255), -1)
            varied, places = clips._varied(np.random.default_rng(seed), picture, place)
            y, x = np.nonzero(varied[..., 0] > 100)
            np.testing.assert_allclose((places[0] + 0.5) * 192, (x.mean(), y.mean()), atol=1.6)
            kinds.add(tuple(np.round(places[0], 3)))
        self.assertEqual(len(kinds), 4)

    def test_the_warp_of_a_pair_takes_points_to_their_match(self):
        """Flat patches seen through both views of a pair: the colour at a point and at its match agree."""
        calm = {'gain': 1.0, 'offset': 0.0, 'tint': np.ones(3), 'gamma': 1.0, 'saturation': 1.0}
        kept = clips.photometry.light, clips.photometry.degrade
        clips.photometry.light, clips.photometry.degrade = (lambda *_: calm), (lambda rng, picture, *_: picture)
        try:
            agreeing = []
            for seed in range(6):
                pair = clips.pair(np.random.default_rng(seed), POOL, side=96)
                first, second = (cv2.GaussianBlur(p, (0, 0), 2.0).astype(float) for p in pair['pictures'])
                for point in np.random.default_rng(seed).uniform(10, 86, (60, 2)):
                    x, y = pair['matrix'] @ (*point, 1.0)
                    if 3 < x < 92 and 3 < y < 92:
                        a, b = first[int(round(point[1])), int(round(point[0]))], second[int(round(y)), int(round(x))]
                        agreeing.append(np.abs(a - b).max())
            self.assertLess(np.median(agreeing), 12.0)
        finally:
            clips.photometry.light, clips.photometry.degrade = kept


class FilterLearning(unittest.TestCase):
    def setUp(self):
        torch.manual_seed(2)
        torch.set_default_dtype(torch.float64)

    def tearDown(self):
        torch.set_default_dtype(torch.float32)

    def test_correlation_is_the_padded_one_with_the_window_two_cells_up_and_left(self):
        features, weights = torch.randn(1, 2, 3, 6, 7), torch.randn(1, 2, 3, 4, 4)
        expected = torch.nn.functional.conv2d(torch.nn.functional.pad(features[0], (2, 1, 2, 1)), weights[0])
        torch.testing.assert_close(filter_learning.correlate(features, weights)[0], expected.transpose(0, 1))

    def test_back_correlation_is_the_transpose(self):
        features, weights, responses = torch.randn(2, 3, 5, 6, 6), torch.randn(2, 2, 5, 4, 4), torch.randn(2, 2, 3, 6, 6)
        left = (filter_learning.correlate(features, weights) * responses).sum()
        right = (weights * filter_learning.back_correlate(features, responses)).sum()
        torch.testing.assert_close(left, right)

    def solved(self, function):
        steps, filter_learning.SOLVER_STEPS = filter_learning.SOLVER_STEPS, 60
        try:
            return function()
        finally:
            filter_learning.SOLVER_STEPS = steps

    def test_the_filters_solve_the_ridge_regression_each_with_its_own_weights(self):
        features, targets = torch.randn(1, 2, 2, 5, 5), torch.rand(1, 2, 2, 5, 5)
        weights = torch.tensor([[0.5, 0.5], [1.0, 0.0]])[None, ..., None, None]
        found = self.solved(lambda: filter_learning.ridge_filter(features, weights, targets))
        columns = [filter_learning.correlate(features, unit.reshape(1, 1, 2, 4, 4)).flatten() for unit in torch.eye(32)]
        matrix = torch.stack(columns, 1)
        for k in range(2):
            weight = weights[0, k].expand(2, 5, 5).flatten()
            dense = torch.linalg.solve(matrix.T @ (weight[:, None] * matrix) + filter_learning.REGULARISATION * torch.eye(32),
                                       matrix.T @ (weight * targets[0, k].flatten()))
            torch.testing.assert_close(found[0, k].flatten(), dense, rtol=1e-7, atol=1e-9)

    def test_gradients_through_the_filter_equal_differences(self):
        features, later = torch.randn(1, 2, 2, 4, 4, requires_grad=True), torch.randn(1, 1, 2, 4, 4)
        targets, weights = torch.rand(1, 2, 2, 4, 4), torch.full((1, 2, 2, 1, 1), 0.5)

        def function(f):
            return filter_learning.correlate(later, filter_learning.ridge_filter(f, weights, targets)).square().sum()

        self.assertTrue(self.solved(lambda: torch.autograd.gradcheck(function, (features,))))

    def test_a_label_peaks_half_a_cell_beyond_the_target(self):
        label = filter_learning.labels(torch.tensor([[[[0.0, 0.0], [0.25, -0.125]]]]), torch.tensor([7.0]), 24)[0, 0]
        self.assertEqual(divmod(int(label[0].argmax()), 24), (12, 12))
        self.assertEqual(divmod(int(label[1].argmax()), 24), (9, 18))

    def test_a_response_at_the_target_is_a_hit_and_one_beside_it_is_not(self):
        response, seen = torch.zeros(1, 1, 1, 24, 24), torch.ones(1, 1, 1)
        response[..., 12, 13] = 1
        self.assertEqual(float(filter_learning.hits(response, torch.zeros(1, 1, 1, 2), seen)), 1.0)
        self.assertEqual(float(filter_learning.hits(response, torch.full((1, 1, 1, 2), 0.2), seen)), 0.0)

    def test_what_cannot_be_seen_costs_nothing(self):
        label = filter_learning.labels(torch.zeros(1, 2, 1, 2), torch.tensor([7.0]), 24)
        response = torch.cat([label[:, :1], torch.randn(1, 1, 1, 24, 24)], 1)
        unseen = filter_learning.losses_of_response(response, label, torch.tensor([[[1.0], [0.0]]]))
        self.assertLess(float(unseen['squared']), 0.02)
        seen = filter_learning.losses_of_response(response, label, torch.ones(1, 2, 1))
        self.assertGreater(float(seen['squared']), 1.0)

    def test_a_rival_costs_what_the_peak_does_not_lead_by(self):
        label = filter_learning.labels(torch.zeros(1, 1, 1, 2), torch.tensor([7.0]), 24)
        rival = label.clone()
        rival[..., 3, 20] = 0.9
        losses = [filter_learning.losses_of_response(r, label, torch.ones(1, 1, 1))['lead'] for r in (label, rival)]
        self.assertEqual(float(losses[0]), 0.0)
        self.assertAlmostEqual(float(losses[1]), filter_learning.LEAD + 0.9 - float(label.max()), places=5)

    def test_a_peak_that_falls_enough_at_the_wrong_size_costs_nothing(self):
        label = filter_learning.labels(torch.zeros(1, 1, 1, 2), torch.tensor([7.0]), 24)[:, 0, 0]
        mismatch = torch.tensor([0.12])
        fallen, ordered = filter_learning.loss_of_size(label, 0.6 * label, label, label, mismatch)
        equal, tied = filter_learning.loss_of_size(label, label, label, label, mismatch)
        self.assertEqual((float(fallen), float(ordered), float(tied)), (0.0, 1.0, 0.0))
        self.assertAlmostEqual(float(equal), 0.8 * (1 - np.exp(-0.5)), places=6)


class Network(unittest.TestCase):
    def trunk(self):
        torch.manual_seed(4)
        trunk = Trunk(128).train()
        for _ in range(3):
            trunk.stages(torch.rand(4, 3, 64, 64) * 255)
        return trunk.eval()

    def inputs(self, count):
        return [torch.rand(4, 3, 64, 64) * torch.rand(4, 3, 1, 1) * 255 for _ in range(count)]

    def cells(self, network, inputs):
        with torch.no_grad():
            maps = torch.cat([network(x) for x in inputs])
        return maps.permute(0, 2, 3, 1).reshape(-1, maps.shape[1]).double()

    def norm(self, cells):
        return float(cells.square().sum(1).mean().sqrt())

    def correlation(self, cells):
        return float((torch.corrcoef(cells.T) - torch.eye(cells.shape[1])).abs().max())

    def test_the_neck_leaves_zero_mean_small_correlation_and_the_wanted_norm(self):
        trunk, inputs = self.trunk(), self.inputs(4)
        trunk.set_neck(inputs)
        cells = self.cells(trunk, inputs)
        self.assertLess(float(cells.mean(0).norm()), 0.02 * FEATURE_NORM)
        self.assertAlmostEqual(self.norm(cells), FEATURE_NORM, delta=0.02 * FEATURE_NORM)
        self.assertLess(self.correlation(cells), 0.05)

    def test_joined_features_keep_the_share_of_either_part_and_leave_the_trunk_as_it_was(self):
        trunk, inputs = self.trunk(), self.inputs(4)
        trunk.set_neck(inputs)
        before = {name: value.clone() for name, value in trunk.state_dict().items()}
        cells = self.cells(Joined(trunk, inputs), inputs)
        self.assertLess(float(cells.mean(0).norm()), 0.02 * FEATURE_NORM)
        for part, share in ((cells[:, :-EARLY_CHANNELS], 0.8), (cells[:, -EARLY_CHANNELS:], 0.6)):
            self.assertAlmostEqual(self.norm(part), share * FEATURE_NORM, delta=0.02 * FEATURE_NORM)
            self.assertLess(self.correlation(part), 0.05)
        for name, value in trunk.state_dict().items():
            torch.testing.assert_close(value, before[name], rtol=0, atol=0)

    def test_the_written_model_computes_what_the_joined_trunk_computes(self):
        trunk, inputs = self.trunk(), self.inputs(1)
        trunk.set_neck(inputs)
        joined, picture = Joined(trunk, inputs), torch.rand(1, 3, 64, 64) * 255
        with tempfile.TemporaryDirectory() as folder:
            path = os.path.join(folder, 'trunk.onnx')
            export.write(joined, path, side=64, notes={'note': 'of a test'})
            reader = cv2.dnn.readNetFromONNX(path)
        reader.setInput(picture.numpy())
        with torch.no_grad():
            expected = joined(picture).numpy()
        np.testing.assert_allclose(reader.forward(), expected, atol=2e-3 * np.abs(expected).max())


class Contrastive(unittest.TestCase):
    def test_a_cell_stands_over_the_pixel_at_its_index_times_the_stride(self):
        maps = torch.zeros(1, 2, 12, 12)
        maps[0, 0], maps[0, 1, 5, 7] = 0.1, 1.0
        found = contrastive._sample(maps, torch.tensor([[[56.0, 40.0], [48.0, 40.0]]]), 96)[0]
        self.assertGreater(float(found[0, 1]), 0.99)
        self.assertAlmostEqual(float(found[1, 1]), 0.0, places=5)

    def test_equal_maps_are_matched_and_unrelated_ones_are_not(self):
        torch.manual_seed(1)
        first = torch.randn(2, 16, 12, 12)
        matrix = torch.eye(3)[:2].repeat(2, 1, 1)
        places = contrastive.matches(matrix, 96, 40, torch.Generator().manual_seed(0))
        same, recall = contrastive.loss_of_level(first, first, *places, 96)
        other, chance = contrastive.loss_of_level(first, torch.randn(2, 16, 12, 12), *places, 96)
        self.assertGreater(float(recall), 0.95)
        self.assertLess(float(chance), 0.3)
        self.assertLess(float(same), float(other))

    def test_points_nearer_than_a_stride_are_no_negatives(self):
        maps = torch.ones(1, 4, 12, 12)  # all alike: every negative that counts costs
        near = torch.full((1, 3, 2), 40.0) + torch.tensor([[0.0, 0.0], [2.0, 0.0], [0.0, 2.0]])
        far = torch.full((1, 3, 2), 40.0) + torch.tensor([[0.0, 0.0], [30.0, 0.0], [0.0, 30.0]])
        inside = torch.ones(1, 3, dtype=torch.bool)
        self.assertAlmostEqual(float(contrastive.loss_of_level(maps, maps, near, near, inside, 96)[0]), 0.0, places=5)
        self.assertAlmostEqual(float(contrastive.loss_of_level(maps, maps, far, far, inside, 96)[0]), np.log(3), places=5)


class Running(unittest.TestCase):
    def run_training(self, folder, *more):
        pools = footage.PicturePool
        footage.PicturePool = lambda seed, **_: SmallPool(seed)
        count, train.VALIDATION_BATCHES = train.VALIDATION_BATCHES, 1
        try:
            train.main(['--out', folder, '--workers', '0', '--pairs', '1', '--clips', '1', '--channels', '96',
                        '--contrastive-steps', '2', '--filter-steps', '2', '--frozen-steps', '3', '--side', '64', '--device', 'cpu', *more])
        finally:
            footage.PicturePool, train.VALIDATION_BATCHES = pools, count

    def test_it_goes_through_both_stages_stops_resumes_and_writes_a_model(self):
        with tempfile.TemporaryDirectory() as folder:
            self.run_training(folder, '--minutes', '0')
            state = journal.load(os.path.join(folder, 'snapshot.pt'), 'cpu')
            self.assertEqual((state['stage'], state['step']), ('contrastive', 0))
            self.run_training(folder)
            state = journal.load(os.path.join(folder, 'snapshot.pt'), 'cpu')
            self.assertEqual((state['stage'], state['step']), ('frozen', 3))
            path = os.path.join(folder, 'trunk.onnx')
            self.run_training(folder, '--export', path)
            reader = cv2.dnn.readNetFromONNX(path)
            reader.setInput(np.zeros((1, 3, 192, 192), np.float32))
            self.assertEqual(reader.forward().shape, (1, 128, 24, 24))

    def test_it_refuses_other_options_than_it_was_begun_with_and_to_write_what_is_not_there(self):
        with tempfile.TemporaryDirectory() as folder:
            with self.assertRaisesRegex(SystemExit, 'first stage is not through'):
                self.run_training(folder, '--export', os.path.join(folder, 'trunk.onnx'))
            self.assertFalse(os.path.exists(os.path.join(folder, 'trunk.onnx')))
            self.run_training(folder, '--minutes', '0')
            with self.assertRaises(SystemExit) as refused, contextlib.redirect_stderr(io.StringIO()) as said:
                self.run_training(folder, '--channels', '95')
            self.assertEqual(refused.exception.code, 2)
            self.assertIn('--channels: the joined features take 96 of them', said.getvalue())
            with self.assertRaisesRegex(SystemExit, 'was made with --channels 96'):
                self.run_training(folder, '--channels', '100')

    def test_a_journal_forgets_what_was_written_after_the_snapshot(self):
        with tempfile.TemporaryDirectory() as folder:
            book = journal.Journal(folder)
            for step in (50, 100):
                book.add('filter', step, 1.0, {'loss': step})
            book = journal.Journal(folder)
            book.forget_after('filter', 50)
            book.add('filter', 60, 1.0, {'loss': 6, 'more': 1})
            self.assertEqual([row['step'] for row in journal.Journal(folder).rows], ['50', '60'])


if __name__ == '__main__':
    unittest.main()

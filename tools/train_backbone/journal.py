"""What a training writes down: a table of figures, curves drawn from it, and snapshots to go on from."""

import csv
import os

import torch


class Journal:
    """`folder`/journal.tsv, a row per entry; columns stay as the first entry has them, later ones are added."""

    def __init__(self, folder):
        self.path = os.path.join(folder, 'journal.tsv')
        self.rows = []
        if os.path.exists(self.path):
            with open(self.path, newline='') as file:
                self.rows = list(csv.DictReader(file, delimiter='\t'))

    def forget_after(self, stage, step):
        """Drops what a broken-off run wrote after its last snapshot."""
        self.rows = [row for row in self.rows if row['stage'] != stage or int(row['step']) <= step]

    def add(self, stage, step, minutes, figures):
        row = {'stage': stage, 'step': step, 'minutes': f'{minutes:.2f}'}
        row.update({name: f'{float(value):.5g}' for name, value in figures.items()})
        self.rows.append(row)
        columns = list(dict.fromkeys(name for entry in self.rows for name in entry))
        part = self.path + '.part'
        with open(part, 'w', newline='') as file:
            writer = csv.DictWriter(file, columns, delimiter='\t', restval='')
            writer.writeheader()
            writer.writerows(self.rows)
        os.replace(part, self.path)

    def draw(self):
        """curves.png: a panel for each figure over the steps of its stage. Without matplotlib nothing is drawn."""
        try:
            import matplotlib
            matplotlib.use('Agg')
            from matplotlib import pyplot
        except ImportError:
            return
        panels = {}
        for row in self.rows:
            for name, value in row.items():
                if name not in ('stage', 'step', 'minutes') and value:
                    panels.setdefault((row['stage'], name), []).append((int(row['step']), float(value)))
        if not panels:
            return
        columns = 4
        lines = -(-len(panels) // columns)
        figure, axes = pyplot.subplots(lines, columns, figsize=(4 * columns, 2.6 * lines), squeeze=False)
        for axis in axes.flat[len(panels):]:
            axis.axis('off')
        for axis, ((stage, name), points) in zip(axes.flat, panels.items()):
            axis.plot(*zip(*points), linewidth=0.8)
            axis.set_title(f'{stage}: {name}', fontsize=9)
            axis.tick_params(labelsize=7)
        figure.tight_layout()
        figure.savefig(os.path.join(os.path.dirname(self.path), 'curves.png'), dpi=80)
        pyplot.close(figure)


def save(path, state):
    """Writes a snapshot; the old one stays until the new one is complete."""
    part = path + '.part'
    torch.save(state, part)
    os.replace(part, path)


def load(path, device):
    return torch.load(path, map_location=device) if os.path.exists(path) else None

"""Draws what a run has measured."""

import statistics

import matplotlib

matplotlib.use("svg")
# The same record gives the same file.
matplotlib.rcParams.update({"svg.hashsalt": "orvexd", "svg.fonttype": "none", "font.size": 10})

# pylint: disable=wrong-import-position
from matplotlib import pyplot

_MIB = 2**20
_POINTS = 250  # per line
_WARM_UP = 1000  # exchanges
_WINDOW = 100  # exchanges that are summed up in one point of the latency


def draw(record, directory):
    """Writes soak-memory.svg and soak-latency.svg."""
    directory.mkdir(parents=True, exist_ok=True)
    _draw_memory(record, directory / "soak-memory.svg")
    _draw_latency(record, directory / "soak-latency.svg")


def _draw_memory(record, path):
    step = max(1, len(record.samples) // _POINTS)
    samples = record.samples[::step]
    minutes = [sample[1] / 60 for sample in samples]
    figure, axes = _figure(f"Memory of orvexd in {record.samples[-1][0]:,} exchanges")
    axes.plot(minutes, [sample[2] / _MIB for sample in samples], label="resident")
    axes.plot(minutes, [sample[3] / _MIB for sample in samples], label="of it private and written")
    after = [sample[1] / 60 for sample in record.samples if sample[0] >= _WARM_UP]
    if after:
        axes.axvline(after[0], color="grey", linestyle=":", label=f"exchange {_WARM_UP:,}")
    axes.set_ylabel("memory (MiB)")
    axes.set_ylim(bottom=0)
    _finish(figure, axes, path)


def _draw_latency(record, path):
    windows = [
        record.latencies[at : at + _WINDOW] for at in range(0, len(record.latencies), _WINDOW)
    ]
    windows = [window for window in windows if len(window) > _WINDOW // 2]
    minutes = [statistics.mean(entry[1] for entry in window) / 60 for window in windows]
    figure, axes = _figure(f"Latency of {len(record.latencies):,} answered exchanges")
    for share, label in ((1, "slowest"), (0.95, "95th percentile"), (0.5, "median")):
        values = [_quantile([entry[2] for entry in window], share) * 1000 for window in windows]
        axes.plot(minutes, values, label=label)
    axes.set_ylabel(f"latency of {_WINDOW} exchanges (ms)")
    axes.set_yscale("log")
    for formatted in (axes.yaxis.set_major_formatter, axes.yaxis.set_minor_formatter):
        formatted("{x:g}")  # no powers of ten
    _finish(figure, axes, path)


def _quantile(values, share):
    return sorted(values)[min(len(values) - 1, int(share * len(values)))]


def _figure(title):
    figure, axes = pyplot.subplots(figsize=(8, 4), layout="constrained")
    axes.set_title(title)
    axes.set_xlabel("time since the start (minutes)")
    axes.grid(True, alpha=0.3)
    return figure, axes


def _finish(figure, axes, path):
    axes.set_xlim(left=0)
    axes.legend()
    figure.savefig(path, metadata={"Date": None})
    pyplot.close(figure)
    # Trailing blanks are no part of the picture.
    lines = path.read_text("utf-8").splitlines()
    path.write_text("\n".join(line.rstrip() for line in lines) + "\n", "utf-8")

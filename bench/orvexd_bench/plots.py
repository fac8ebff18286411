"""Pictures of the curves, as small SVG files that are the same for the same numbers."""

import matplotlib

matplotlib.use("svg")
matplotlib.rcParams["svg.hashsalt"] = "orvexd"
matplotlib.rcParams["svg.fonttype"] = "none"  # text stays text
matplotlib.rcParams["font.family"] = "sans-serif"
matplotlib.rcParams["axes.grid"] = True
matplotlib.rcParams["grid.alpha"] = 0.3
matplotlib.rcParams["axes.spines.top"] = False
matplotlib.rcParams["axes.spines.right"] = False

from matplotlib import pyplot  # noqa: E402

from .pairs import percentile  # noqa: E402
from .rows import MIB  # noqa: E402


def draw(series, directory):
    """Draws what there are numbers for. Returns file names with what they show."""
    directory.mkdir(parents=True, exist_ok=True)
    pictures = []
    for name, alt, painter in (
        ("requests", "time of a request against the number of requests", _requests),
        ("sizes", "time of a byte against the size of a request", _sizes),
        ("latency", "distribution of other clients' round trips", _latency),
        ("exchange", "distribution of a small exchange's times", _exchange),
    ):
        if name in series:
            figure, axes = pyplot.subplots(figsize=(6.4, 3.6), layout="constrained")
            painter(axes, series[name])
            figure.savefig(directory / f"{name}.svg", metadata={"Date": None, "Creator": None})
            pyplot.close(figure)
            pictures.append((f"{name}.svg", alt))
    return pictures


def _curve(axes, curve, scale_x, scale_y, label):
    x = [value * scale_x for value in curve]
    spreads = list(curve.values())
    median = [spread.median * scale_y for spread in spreads]
    axes.plot(x, median, marker="o", label=label)
    axes.fill_between(
        x,
        [spread.low * scale_y for spread in spreads],
        [spread.high * scale_y for spread in spreads],
        alpha=0.2,
    )


def _requests(axes, series):
    for name, curve in series.items():
        _curve(axes, curve, 1, 1e6, name)
    axes.set(xscale="log", yscale="log", xlabel="requests in one exchange", ylabel="µs per request")


def _sizes(axes, series):
    for name, curve in series.items():
        _curve(axes, curve, 1 / MIB, 1e9, name)
    axes.set(xscale="log", yscale="log", xlabel="MiB in one request", ylabel="ns per byte")
    axes.legend(fontsize="small", ncols=2)


def _distribution(axes, series, scale, unit):
    percents = [*range(0, 99), *[99 + part / 20 for part in range(20)]]
    for name, values in series.items():
        points = [percentile(values, percent) * scale for percent in percents]
        axes.plot(points, percents, label=name)
    axes.set(xscale="log", xlabel=unit, ylabel="% are faster")
    axes.legend(fontsize="small")


def _latency(axes, series):
    _distribution(axes, series, 1e6, "µs for Get connectionStatus")


def _exchange(axes, series):
    _distribution(axes, series, 1e3, "ms for 1 KiB up and 4 KiB down")

"""Plots as SVG, readable on a light and on a dark page."""

import functools

# Of middle lightness, told apart also by those who see few colours; text and axes likewise.
COLOURS = ["#3b82c4", "#d9822b", "#3a9e6f", "#b55fb0", "#c94f4f", "#8a8a3c"]
INK = "#808080"

STYLE = {
    "axes.edgecolor": INK,
    "axes.grid": True,
    "axes.labelcolor": INK,
    "axes.spines.right": False,
    "axes.spines.top": False,
    "axes.titlecolor": INK,
    "figure.figsize": (8, 4),
    "figure.constrained_layout.use": True,
    "font.size": 11,
    "grid.alpha": 0.3,
    "grid.color": INK,
    "legend.frameon": False,
    "legend.labelcolor": INK,
    "savefig.transparent": True,
    "svg.fonttype": "none",
    "svg.hashsalt": "zel_quorin_updater",
    "text.color": INK,
    "xtick.color": INK,
    "ytick.color": INK,
}


@functools.cache
def plotter():
    """matplotlib, which takes a second to load, set to write SVG in that style."""
    import matplotlib

    matplotlib.use("svg")
    from matplotlib import pyplot

    pyplot.rcParams.update({**STYLE, "axes.prop_cycle": matplotlib.cycler(color=COLOURS)})
    return pyplot


class Plots:
    """Saves figures to a folder, and returns how a page beside that folder shows them."""

    def __init__(self, folder):
        self.folder = folder
        folder.mkdir(parents=True, exist_ok=True)

    @staticmethod
    def figure(title, x, y, **subplot):
        """A figure with one pair of axes, labelled."""
        figure, axes = plotter().subplots(subplot_kw=subplot)
        axes.set(title=title, xlabel=x, ylabel=y)
        return figure, axes

    def save(self, figure, name, alt):
        """Writes name.svg, and returns the Markdown that shows it."""
        if figure.axes[0].get_legend_handles_labels()[0]:
            figure.axes[0].legend()
        figure.savefig(self.folder / f"{name}.svg", metadata={"Date": None})
        plotter().close(figure)
        return f"![{alt}]({self.folder.name}/{name}.svg)\n"

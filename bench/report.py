"""Figures in the pages: tables between markers, pictures, and the data that both are made from."""

import functools
import json
import re
import sys

# Of middle lightness, for light and dark pages, and distinct also for readers who see few colours.
COLOURS = ["#3b82c4", "#d9822b", "#3a9e6f", "#b55fb0", "#c94f4f", "#8a8a3c"]
INK = "#808080"
STYLE = {
    **{"axes.edgecolor": INK, "axes.labelcolor": INK, "axes.titlecolor": INK, "text.color": INK},
    **{"xtick.color": INK, "ytick.color": INK, "grid.color": INK, "grid.alpha": 0.3, "axes.grid": True},
    **{"axes.spines.right": False, "axes.spines.top": False, "legend.frameon": False, "legend.labelcolor": INK},
    **{"figure.figsize": (8, 4), "figure.constrained_layout.use": True, "font.size": 11},
    **{"font.sans-serif": ["DejaVu Sans"]},  # no longer list, because each text of a picture repeats it
    **{"savefig.transparent": True, "svg.fonttype": "none", "svg.hashsalt": "zel_quorin_updater"},
}


@functools.cache
def plotter():
    """matplotlib, which takes a second to load, set to write SVG in that style."""
    import matplotlib

    matplotlib.use("svg")
    from matplotlib import pyplot

    pyplot.rcParams.update({**STYLE, "axes.prop_cycle": matplotlib.cycler(color=COLOURS)})
    return pyplot


def compact(svg):
    """The picture in tenths of a point, with no line ends in paths and no blanks before tags: much smaller."""
    svg = re.sub(r"(?<!version=\")\b\d+\.\d+", lambda number: f"{float(number[0]):.1f}".removesuffix(".0"), svg)
    return re.sub(r" *\n +| *\n(?=[CLMz\"])", lambda end: "\n" if end[0][-1] == " " else " ", svg)


class Pages:
    """The pages below a directory. Each of their tables stands between <!-- SECTION: NAME --> and <!-- end -->."""

    def __init__(self, docs):
        self.docs = docs
        self.data = docs / "performance"

    def keep(self, section, **kept):
        """Keeps eight digits of a number, and no blanks."""
        text = json.dumps(kept, default=str)
        rounded = json.loads(text, parse_float=lambda number: float(f"{float(number):.8g}"))
        (self.data / f"{section}.json").write_text(json.dumps(rounded, separators=(",", ":")) + "\n")

    def kept(self, section):
        return json.loads((self.data / f"{section}.json").read_text())

    def render(self, section, module):
        """Draws the pictures of a section and writes its tables into the pages."""
        try:
            kept = self.kept(section)
            texts = module.figures(kept["results"], self)
            texts["measured"] = f"`scripts/bench --only {section}`, {kept['date']}, commit {kept['revision']}.\n"
        except (ValueError, LookupError, TypeError, AttributeError) as error:
            wrong = f"{type(error).__name__}: {error}"
            sys.exit(
                f"bench: {self.data}/{section}.json is damaged, or of another revision ({wrong}): "
                f"scripts/bench --only {section} measures it again"
            )
        pages = {path: path.read_text() for path in self.docs.glob("*.md")}
        marked = sorted(re.findall(rf"<!-- {section}: (\w+) -->", "".join(pages.values())))
        if marked != sorted(texts):
            sys.exit(f"bench: the pages have the tables {marked} of {section}, not {sorted(texts)}")
        pattern = re.compile(rf"(<!-- {section}: (\w+) -->\n).*?(<!-- end -->\n)", re.DOTALL)
        for path, page in pages.items():
            path.write_text(pattern.sub(lambda match: match[1] + texts[match[2]] + match[3], page))

    def picture(self, name, title, x, y, lines, **axes_options):
        """Draws NAME.svg: lines are lists of x and of y values by label."""
        figure, axes = plotter().subplots()
        for number, (label, (xs, ys)) in enumerate(lines.items()):
            marker = "o" if len(xs) < 20 else ""
            axes.plot(xs, ys, marker=marker, label=label, linestyle="-" if number % 2 == 0 else "--", linewidth=1.2)
        axes.set(title=title, xlabel=x, ylabel=y, **axes_options)
        axes.minorticks_off()
        axes.legend()
        path = self.data / f"{name}.svg"
        figure.savefig(path, metadata=dict.fromkeys(("Creator", "Date", "Format", "Type")))
        plotter().close(figure)
        path.write_text(compact(path.read_text()))


def table(head, rows):
    """A Markdown table; all columns but the first are aligned to the right."""
    lines = ["| " + " | ".join(head) + " |", "|---|" + "---:|" * (len(head) - 1)]
    lines += ["| " + " | ".join(str(cell) for cell in row) + " |" for row in rows]
    return "\n".join(lines) + "\n"


def with_spread(spread, digits=3, scale=1.0, unit=""):
    """The median, and the quartiles in brackets."""
    median, low, high = (f"{spread[key] * scale:,.{digits}f}" for key in ("median", "low", "high"))
    return f"{median}{unit}" if low == high else f"{median}{unit} ({low}–{high})"


def seconds(spread):
    """A time in the unit that suits it."""
    limits = ((1e-3, 1, 1e6, " µs"), (0.1, 2, 1e3, " ms"), (float("inf"), 2, 1, " s"))
    return with_spread(spread, *next(format for limit, *format in limits if spread["median"] < limit))


COLUMNS = {"cpu": "CPU", "system": "kernel", "wall": "wall", "faults": "page faults"}


def costs(title, contests, ratio, columns, fields=tuple(COLUMNS)):
    """The table of contests by their names: the costs of the contenders by their titles; and ratios, which are those
    of that name with the contender's in it, below the titles of the columns."""
    return table(
        (title, *(COLUMNS[field] for field in fields), *columns.values()),
        (
            (f"{prefix}{name}", *_costs(contest["costs"][key], fields), *_ratios(contest, ratio.format(key), columns))
            for prefix, (contest, names) in contests.items()
            for key, name in names.items()
        ),
    )


def _costs(cost, fields):
    for field in fields:
        if field == "system":
            yield f"{cost['system']:.0%}"
        else:
            yield f"{cost['faults']['median']:,.0f}" if field == "faults" else seconds(cost[field])


def _ratios(contest, name, columns):
    ratios = contest["ratios"].get(name)
    return (with_spread(ratios[field]) if ratios else "" for field in columns)


def aims(rows):
    """The table of what was aimed at, by rows of title, ratio or number, limit, and form of a number. A verdict is on
    the median, with a word where the limit lies within the quartiles."""

    def judged():
        for title, value, limit, *form in rows:
            spread = value if isinstance(value, dict) else dict.fromkeys(("median", "low", "high"), value)
            text = with_spread(value) if spread is value else f"{value:{form[0]}}"
            unsure = ", but within the quartiles" if spread["low"] < limit < spread["high"] else ""
            met = "met" if spread["median"] <= limit else "**not met**"
            yield title, text, f"{limit:{form[0] if form else ''}}", met + unsure

    return table(("Aim", "measured", "at most", ""), judged())

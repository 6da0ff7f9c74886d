"""How figures stand in the page: tables, numbers with their spread, and verdicts."""

import textwrap


def prose(text):
    """One paragraph, its lines broken anew: figures make them longer or shorter."""
    return textwrap.fill(" ".join(text.split()), 120, break_long_words=False, break_on_hyphens=False)


def table(head, *rows):
    """A Markdown table; all columns but the first are aligned to the right."""
    lines = ["| " + " | ".join(head) + " |", "|---|" + "---:|" * (len(head) - 1)]
    lines += ["| " + " | ".join(str(cell) for cell in row) + " |" for row in rows]
    return "\n".join(lines) + "\n"


def with_spread(spread, digits=2, scale=1.0, unit=""):
    """The median, and the quartiles in brackets."""
    median, low, high = (f"{spread[key] * scale:,.{digits}f}" for key in ("median", "low", "high"))
    return f"{median}{unit}" if low == high else f"{median}{unit} ({low}–{high})"


def seconds(spread):
    """A time in the unit that suits it."""
    if spread["median"] < 0.1:
        return with_spread(spread, 2, 1e3, " ms")
    return with_spread(spread, 2, 1, " s")


def verdict(value, limit):
    return "met" if value <= limit else "**not met**"

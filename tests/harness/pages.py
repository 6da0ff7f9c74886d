"""What the pages below docs/ say to do, as commands."""

import re
import textwrap

from builds import REPOSITORY


def section(page, heading):
    """What stands below a heading, to the next one."""
    text = (REPOSITORY / "docs" / page).read_text()
    return re.search(rf"^##+ {re.escape(heading)}\n(.*?)(?=^##|\Z)", text, re.MULTILINE | re.DOTALL)[1]


def blocks(page, heading):
    """The indented blocks below a heading, ready to run."""
    found = re.findall(r"^((?:    .*\n)+(?:\n*(?:    .*\n)+)*)", section(page, heading), re.MULTILINE)
    return [textwrap.dedent(block) for block in found]


def scripts(page, heading):
    """The fenced blocks of shell below a heading."""
    return re.findall(r"^```sh\n(.*?)^```", section(page, heading), re.MULTILINE | re.DOTALL)

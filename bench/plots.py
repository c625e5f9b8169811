"""Pictures of how costs grow with the number of ACs, drawn by gnuplot."""

import subprocess

import goals

COUNTS = (1, 3, 10, 30, 100, 300, 1000, 3000, 10000, 30000, 100000, 300000, 1000000)

HEAD = """set terminal svg size 760,440 font 'sans-serif,13' background '#ffffff'
set output '{path}'
set title '{title}'
set logscale x
set format x '%.0s%c'
set xlabel 'ACs in a create (class 0, MTU 65,536)'
set ylabel '{y}'
set grid ytics lc rgb '#dddddd'
set key {key}
"""

COLOURS = ("#0b5fa5", "#c2410c", "#4d7c0f", "#7e22ce", "#475569")

LOOKS = {"lines": "linespoints lw 2 pt 7 ps 0.5 lc rgb '{}'",
         "areas": "filledcurves x1 fs solid 0.85 lc rgb '{}'"}


def plot(path, title, y, series, key="top left", extra="", style="lines"):
    """One picture; `series` maps a name to points (ACs, value)."""
    blocks, terms = [], []
    for number, (name, points) in enumerate(series.items()):
        lines = "\n".join(f"{acs} {value:.5g}" for acs, value in points)
        blocks.append(f"$data{number} << EOD\n{lines}\nEOD")
        quoted = name.replace("'", "''")
        look = LOOKS[style].format(COLOURS[number])
        terms.append(f"$data{number} with {look} title '{quoted}'")
    head = HEAD.format(path=path, title=title, y=y, key=key)
    script = head + extra + "\n".join(blocks) + "\nplot " + ", ".join(terms) + "\n"
    subprocess.run(["gnuplot"], input=script, text=True, check=True)


def per_ac(run, what):
    times = ((acs, run.time("create", 0, 65536, acs, what)) for acs in COUNTS)
    return [(acs, time / acs) for acs, time in times if time]


def draw(run, docs):
    names = ("library and send", "send", "packed copy", "library", "memcpy")
    plot(docs / "performance_cost.svg", "Cost of an AC", "ns per AC",
         {name: per_ac(run, name) for name in names}, "top right", "set logscale y\n")

    library, both = dict(per_ac(run, "library")), dict(per_ac(run, "library and send"))
    share = [(acs, min(100.0, 100 * library[acs] / both[acs])) for acs in both if acs in library]
    plot(docs / "performance_share.svg", "Who takes the time of a create that is sent", "% of the time",
         {"the kernel": [(acs, 100) for acs, _ in share], "the library": share},
         "outside bottom center horizontal", "set yrange [0:100]\n", "areas")

    growth = {}
    for name in ("library", "packed copy", "memcpy", "send"):
        points = ((acs, goals.growth_of(run, name, acs)) for acs in COUNTS if acs >= 300)
        growth[name] = [point for point in points if point[1]]
    plot(docs / "performance_growth.svg", "Growth of the cost of an AC", "times the cost at 10,000", growth)

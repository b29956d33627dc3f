"""The plot of how the works grow with the store, as SVG."""

from math import log10

from goals import OURS, RAW, SQLITE

PANELS = [('read', 'read a record by id', False), ('list', 'list, per record', True),
          ('populate', 'populate in a batch, per record', True)]
SIZES = [1_000, 10_000, 100_000, 1_000_000]
COLOURS = {OURS: '#1565c0', RAW: '#6d6d6d', SQLITE: '#c4571c'}

WIDTH, HEIGHT = 310, 220  # of a panel
LEFT, TOP, RIGHT, BOTTOM = 52, 34, 34, 40
INNER_WIDTH, INNER_HEIGHT = WIDTH - LEFT - RIGHT, HEIGHT - TOP - BOTTOM
LEGEND = 26


def points_of(figures, work, store, each):
    for records in SIZES:
        seconds = figures.of(work, records, store)
        if seconds:
            yield records, seconds / (records if each else 1) * 1e9


def step_for(top):
    """The distance between lines of the grid, a round number of nanoseconds."""
    size = 10 ** int(log10(top))
    return next(size * factor for factor in (0.2, 0.5, 1, 2) if top / (size * factor) <= 6)


def text(x, y, words, anchor='middle', **style):
    more = ''.join(f' {name.replace("_", "-")}="{value}"' for name, value in style.items())
    return f'<text x="{x:.1f}" y="{y:.1f}" text-anchor="{anchor}"{more}>{words}</text>'


def panel(figures, number, work, title, each):
    lines = {store: list(points_of(figures, work, store, each)) for store in COLOURS}
    # SQLite's reads would flatten all other lines.
    if work == 'read':
        del lines[SQLITE]
    top = max(y for points in lines.values() for _, y in points) * 1.08
    step = step_for(top)

    def x_of(records):
        return LEFT + INNER_WIDTH * (log10(records) - 3) / 3

    def y_of(nanoseconds):
        return TOP + INNER_HEIGHT * (1 - nanoseconds / top)

    yield f'<g transform="translate({number * WIDTH} 0)">'
    yield text(LEFT, 20, title, 'start', font_weight='bold')
    value = 0
    while value <= top:
        yield (f'<path d="M{LEFT} {y_of(value):.1f}h{INNER_WIDTH}" stroke="#ddd"/>')
        yield text(LEFT - 6, y_of(value) + 4, f'{value:g}', 'end', fill='#555')
        value += step
    for records in SIZES:
        yield text(x_of(records), HEIGHT - BOTTOM + 16, f'{records:,}', fill='#555')
    for store, points in lines.items():
        path = ' '.join(f'{x_of(x):.1f},{y_of(y):.1f}' for x, y in points)
        yield (f'<polyline points="{path}" fill="none" stroke="{COLOURS[store]}" '
               'stroke-width="2"/>')
        for x, y in points:
            yield f'<circle cx="{x_of(x):.1f}" cy="{y_of(y):.1f}" r="3" fill="{COLOURS[store]}"/>'
    yield '</g>'


def plot(figures):
    width, height = WIDTH * len(PANELS), HEIGHT + LEGEND
    yield (f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {width} {height}" '
           'font-family="sans-serif" font-size="11">')
    yield f'<rect width="{width}" height="{height}" fill="white"/>'
    for number, (work, title, each) in enumerate(PANELS):
        yield from panel(figures, number, work, title, each)
    for number, (store, colour) in enumerate(COLOURS.items()):
        x = LEFT + 110 * number
        yield f'<circle cx="{x}" cy="{HEIGHT + 8}" r="4" fill="{colour}"/>'
        yield text(x + 9, HEIGHT + 12, store, 'start')
    yield text(width - RIGHT, HEIGHT + 12, 'nanoseconds over records in the store', 'end',
               fill='#555')
    yield '</svg>'

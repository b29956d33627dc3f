"""The goals of the benchmarks, and the table of results."""

from statistics import median

OURS = 'vs_kvs'
RAW, THREE, SQLITE, LEVEL = 'raw engine', 'raw engine in three steps', 'SQLite', 'LevelDB'
FLUSH = 'bare flush'


class Figures:
    """The samples of all works, in seconds an operation."""

    def __init__(self):
        self.samples = {}  # (work, threads, records, store): [seconds]

    def add(self, work, threads, records, store, seconds):
        self.samples.setdefault((work, threads, records, store), []).append(seconds)

    def of(self, work, records, store, threads=1):
        found = self.samples.get((work, threads, records, store))
        return median(found) if found else None


class Row:
    def __init__(self, work, records, ours, peer, theirs, goal=None, unit='s'):
        self.work, self.records, self.ours = work, records, ours
        self.peer, self.theirs, self.goal, self.unit = peer, theirs, goal, unit
        self.ratio = ours / theirs

    @property
    def verdict(self):
        return '' if self.goal is None else 'met' if self.ratio <= self.goal else 'MISSED'

    def as_dict(self):
        return {'work': self.work, 'records': self.records, OURS: self.ours, 'peer': self.peer,
                'theirs': self.theirs, 'unit': self.unit, 'ratio': self.ratio, 'goal': self.goal,
                'verdict': self.verdict}


# Work, its name among the figures, threads, and for each number of records the peers with the goal
# of the ratio, if there is one.
COMPARISONS = [
    ('read a record by id', 'read', 1, {
        1_000: [(THREE, 0.5), (RAW, None), (SQLITE, 0.1), (LEVEL, None)],
        100_000: [(THREE, 0.5), (RAW, None), (SQLITE, 0.12), (LEVEL, None)],
        1_000_000: [(THREE, None), (RAW, 1.25), (SQLITE, None), (LEVEL, None)]}),
    ('read, two threads', 'read', 2, {
        1_000: [(THREE, None), (SQLITE, None)],
        100_000: [(THREE, None), (SQLITE, None)]}),
    ('read beside a reading process', 'read beside a reader', 1,
     {1_000: [(THREE, None), (SQLITE, None)]}),
    ('read beside a writing process', 'read beside a writer', 1,
     {1_000: [(THREE, 0.6), (SQLITE, None)]}),
    ('list all records', 'list', 1, {
        1_000: [(RAW, None), (SQLITE, 1.0), (LEVEL, None)],
        100_000: [(RAW, 2.5), (SQLITE, 1.0), (LEVEL, None)],
        1_000_000: [(RAW, 2.5), (SQLITE, None), (LEVEL, None)]}),
    ('list, two threads', 'list', 2, {100_000: [(RAW, None), (SQLITE, None)]}),
    ('select a version, durable', 'select', 1, {
        1_000: [(RAW, 0.75), (SQLITE, 1.0), (FLUSH, 1.4), (LEVEL, None)],
        100_000: [(RAW, 0.75), (SQLITE, 1.25), (FLUSH, 1.6), (LEVEL, None)]}),
    ('select, two threads', 'select', 2, {1_000: [(RAW, None), (SQLITE, None)]}),
    ('select, 8 threads', 'select', 8, {1_000: [(RAW, None), (SQLITE, 0.5)]}),
    ('select, 4 processes', 'select in 4 processes', 1,
     {1_000: [(RAW, None), (SQLITE, None)]}),
    ('select beside a writing process', 'select beside a writer', 1, {1_000: [(RAW, None)]}),
    ('add a client to 10, durable', 'add a client', 1, {1_000: [(RAW, 1.1), (SQLITE, None)]}),
    ('populate in a batch, in order', 'populate in order', 1,
     {100_000: [(SQLITE, 0.6), (RAW, None), (LEVEL, None)],
      1_000_000: [(RAW, 3.0)]}),
    ('populate in a batch, shuffled', 'populate', 1,
     {100_000: [(SQLITE, 0.6), (RAW, None), (LEVEL, None)],
      1_000_000: [(RAW, 2.0), (SQLITE, None)]}),
]


def compare(figures):
    for work, name, threads, sizes in COMPARISONS:
        for records, peers in sizes.items():
            for peer, goal in peers:
                ours = figures.of(name, records, OURS, threads)
                theirs = figures.of(name, records, peer, threads)
                if ours and theirs:
                    yield Row(work, records, ours, peer, theirs, goal)


def shared_rows(figures):
    """The time of a change where many share the flushes, or take turns, beside one alone."""
    threads, one = figures.of('select', 1_000, OURS, 8), figures.of('select', 1_000, OURS)
    yield Row('select, 8 threads', 1_000, threads, 'one thread', one, 0.333)
    alone = figures.of('select in 1 process', 1_000, OURS)
    yield Row('select, 4 processes', 1_000, figures.of('select in 4 processes', 1_000, OURS),
              'one process', alone, 1.0)


def report_rows(figures):
    """The library alone, trace and prints."""
    alone = figures.of('read alone', None, OURS)
    calls = figures.of('read alone', None, 'store calls')
    yield Row('read, library alone', None, alone - calls, 'the 150 ns it may take', 150e-9, 1.0)
    record = figures.of('trace', None, 'record')
    clock = figures.of('trace', None, 'clock and copy')
    yield Row('trace record of two strings', None, record, 'clock read, 128-byte copy', clock, 2.5)
    # Google Benchmark gives the time per record of both writers together.
    pair = 2 * figures.of('trace', None, 'record', 2)
    apart = figures.of('trace', None, 'record (wall)')
    yield Row('trace record, each of 2 threads', None, pair, 'one thread alone', apart, 2.0)
    beside = figures.of('trace', None, 'record beside a process')
    yield Row('trace record, each of 2 processes', None, beside, 'one process alone', apart, 2.0)
    yield Row('debug print that is off', None, figures.of('print', None, 'off'),
              'empty call of a library', figures.of('print', None, 'empty call'), 3.0)


def memory_row(records, peak, handed_out):
    return Row('memory at the peak of a listing', records, peak, 'handed out', handed_out, 1.3,
               'bytes')


UNITS = {'s': [('s', 1), ('ms', 1e-3), ('us', 1e-6), ('ns', 1e-9)], 'bytes': [('MB', 1e6)]}


def amount_text(amount, unit):
    name, size = next((each for each in UNITS[unit] if amount >= each[1]), UNITS[unit][-1])
    return f'{amount / size:.3g} {name}'


def table(rows):
    """The rows as an aligned Markdown table."""
    lines = [('work', 'records', OURS, 'peer', 'its time', 'ratio', 'goal', '')]
    for row in rows:
        lines.append((row.work, f'{row.records:,}' if row.records else '',
                      amount_text(row.ours, row.unit), row.peer, amount_text(row.theirs, row.unit),
                      f'{row.ratio:.2f}', '' if row.goal is None else f'{row.goal:g}',
                      row.verdict))
    widths = [max(len(line[i]) for line in lines) for i in range(len(lines[0]))]
    to_right = (1, 2, 4, 5, 6)

    def cells(line):
        return '| ' + ' | '.join(text.rjust(width) if i in to_right else text.ljust(width)
                                 for i, (text, width) in enumerate(zip(line, widths))) + ' |'
    rule = '|' + '|'.join('-' * (width + 1) + (':' if i in to_right else '-')
                          for i, width in enumerate(widths)) + '|'
    return '\n'.join([cells(lines[0]), rule] + [cells(line) for line in lines[1:]])

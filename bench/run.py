"""Runs the benchmarks and prints how the library compares with other stores.

All that is compared is measured in the same run, interleaved, and the medians are printed. Works of
one thread that only compute are measured in processor time, all others in wall-clock time.
"""

import argparse
import contextlib
import datetime
import json
import os
import pathlib
import platform
import re
import shutil
import subprocess
import sys
import tempfile

import goals
import growth

COMPUTING = ['read', 'read alone', 'trace', 'print']
MEMORY_RECORDS = 1_000_000

# For each number of records the works, and how often each is measured in a round. Each row runs in
# a process of its own: a read cache grown by reads would be larger than a listing needs.
STORE_RUNS = [
    (1_000, '^read', 5),
    (1_000, '^list', 5),
    (1_000, '^(select|select beside a writer|add a client):', 10),
    (1_000, '^select in ', 5),
    (1_000, '^populate( in order)?:(vs_kvs|raw engine|SQLite)/', 5),
    (10_000, '^read[^/]*/real_time/threads:1', 5),
    (10_000, '^list[^/]*/manual_time/threads:1', 5),
    (10_000, '^populate( in order)?:(vs_kvs|raw engine|SQLite)/', 5),
    (100_000, '^read:', 5),
    (100_000, '^list:', 5),
    (100_000, '^select:(bare|.*threads:1$)', 10),
    (100_000, '^populate', 5),
    (1_000_000, '^read:.*threads:1', 5),
    (1_000_000, '^list:.*threads:1', 3),
    (1_000_000, '^populate( in order)?:(vs_kvs|raw engine)/', 1),
    (1_000_000, '^populate:SQLite/', 1),
]
ROUNDS = 3


def arguments():
    parser = argparse.ArgumentParser(description=__doc__.split('\n')[0])
    parser.add_argument('programs', type=pathlib.Path, help='the folder of the programs')
    parser.add_argument('--json', metavar='FILE', help='write the figures to FILE')
    parser.add_argument('--plot', metavar='FILE', help='draw the growth into FILE, as SVG')
    parser.add_argument('--dir', default=tempfile.gettempdir(),
                        help='where the stores are made, and removed at the end [%(default)s]')
    parser.add_argument('--rounds', type=int, default=ROUNDS, help='rounds to run [%(default)s]')
    return parser.parse_args()


def run(program, state, *args):
    """Runs a program on the stores of one folder, with the debug prints off."""
    environment = {name: value for name, value in os.environ.items()
                   if not name.startswith('VS_') and name != 'NO_DLLMAIN'}
    environment['VS_STATE_DIR'] = str(state)
    state.mkdir(mode=0o700, exist_ok=True)
    return subprocess.run([program, *args], env=environment, check=True, text=True,
                          stdout=subprocess.PIPE).stdout


def use_idle_time():
    os.sched_setscheduler(0, os.SCHED_IDLE, os.sched_param(0))


@contextlib.contextmanager
def processors_awake():
    """Keeps the processors from sleeping with programs that run only where nothing else does.

    On a shared machine one that waits for a disk with nothing else to do may be given away, and
    comes back later than the disk: a lone writer would then seem slower than several.
    """
    loops = [subprocess.Popen([sys.executable, '-c', 'while True: pass'], preexec_fn=use_idle_time)
             for _ in range(os.cpu_count())]
    try:
        yield
    finally:
        for loop in loops:
            loop.kill()
            loop.wait()


def measure(figures, records, program, state, *args, works='.', repetitions=5):
    """Runs benchmarks, interleaved, and adds their samples to the figures.

    Reads are preceded by a warm-up: each of the stores has a cache to fill.
    """
    warm_up = 0.3 if works.startswith('^read') else 0
    out = run(program, state, *args, '--benchmark_format=json', '--benchmark_min_time=0.05',
              f'--benchmark_min_warmup_time={warm_up}',
              f'--benchmark_filter={works}', f'--benchmark_repetitions={repetitions}',
              '--benchmark_enable_random_interleaving=true')
    for sample in json.loads(out)['benchmarks']:
        if sample['run_type'] != 'iteration':
            continue
        work, store = re.match('([^:]+):([^/]+)', sample['run_name']).groups()
        computing = work in COMPUTING and 'beside' not in store and sample['threads'] == 1
        nanoseconds = sample['cpu_time' if computing else 'real_time']
        figures.add(work, sample['threads'], records, store, nanoseconds * 1e-9)
        if (work, store, sample['threads']) == ('trace', 'record', 1):
            figures.add(work, 1, records, 'record (wall)', sample['real_time'] * 1e-9)


def run_all(programs, scratch, rounds):
    figures = goals.Figures()
    for number in range(1, rounds + 1):
        for records, works, repetitions in STORE_RUNS:
            print(f'round {number}: {records:,} records: {works}', file=sys.stderr)
            with processors_awake() if 'select' in works else contextlib.nullcontext():
                measure(figures, records, programs / 'store_bench', scratch / str(records),
                        str(records), works=works, repetitions=repetitions)
        print(f'round {number}: reports', file=sys.stderr)
        for program in ('reports_bench', 'alone_bench'):
            measure(figures, None, programs / program, scratch / 'reports', repetitions=7)
    peak, handed_out = map(int, run(programs / 'memory_bench',
                                    scratch / str(MEMORY_RECORDS)).split())
    return figures, goals.memory_row(MEMORY_RECORDS, peak, handed_out)


def machine(folder):
    model = re.search(r'model name\s*: (.*)', pathlib.Path('/proc/cpuinfo').read_text())
    system = subprocess.run(['stat', '-f', '-c', '%T', folder], text=True, check=True,
                            stdout=subprocess.PIPE).stdout.strip()
    return {'date': datetime.date.today().isoformat(), 'processors': os.cpu_count(),
            'model': model.group(1) if model else platform.processor(),
            'kernel': platform.release(), 'file system': system}


def main():
    options = arguments()
    scratch = pathlib.Path(tempfile.mkdtemp(prefix='vs-bench.', dir=options.dir))
    try:
        where = machine(scratch)
        figures, memory = run_all(options.programs, scratch, options.rounds)
    finally:
        shutil.rmtree(scratch)
    rows = [*goals.compare(figures), *goals.shared_rows(figures),
            *goals.report_rows(figures), memory]
    print(', '.join(f'{name} {value}' for name, value in where.items()), end='\n\n')
    print(goals.table(rows))
    missed = sum(row.verdict == 'MISSED' for row in rows)
    print(f'\n{sum(row.verdict == "met" for row in rows)} goals met, {missed} missed')
    if options.json:
        samples = [{'work': work, 'threads': threads, 'records': records, 'store': store,
                    'seconds': seconds}
                   for (work, threads, records, store), seconds in figures.samples.items()]
        pathlib.Path(options.json).write_text(json.dumps(
            {'machine': where, 'rows': [row.as_dict() for row in rows], 'samples': samples},
            indent=1) + '\n')
    if options.plot:
        pathlib.Path(options.plot).write_text('\n'.join(growth.plot(figures)) + '\n')


if __name__ == '__main__':
    main()

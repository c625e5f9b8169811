"""What the scripts of this folder share: a build's counters, and the lists of what is excused."""
import subprocess
import sys
from collections import defaultdict
from pathlib import Path

HERE = Path(__file__).resolve().parent
ROOT = HERE.parent.parent


def fail(text):
    sys.exit(f"{Path(sys.argv[0]).name}: {text}")


def run(*command):
    done = subprocess.run([str(word) for word in command], capture_output=True, text=True)
    if done.returncode != 0:
        fail(f"{command[0]}: {done.stderr.strip()}")
    return done.stdout


def counted(path):
    """Whether a program or library was built with counters."""
    return "__llvm_covmap" in run("readelf", "--section-headers", "--wide", path)


def objects(build):
    """What ninja makes there: what is left of targets that are no more has counters of other sources."""
    targets = {row.rpartition(":")[0] for row in run("ninja", "-C", build, "-t", "targets", "all").splitlines()}
    files = [build / name for name in sorted(targets) if Path(name).parent.name in ("lib", "bin")]
    files = [path for path in files if path.is_file() and not path.is_symlink() and path.suffix not in (".a", ".sh")]
    with_counters = [path for path in files if path.read_bytes()[:4] == b"\x7fELF" and counted(path)]
    if not with_counters:
        fail(f"{build}: nothing there was built with counters")
    first, *others = with_counters
    return [first, *(word for path in others for word in ("-object", path))]


def counters_of(build, profdata):
    """The arguments for llvm-cov that name what was built and what the tests counted."""
    raw = sorted((build / "coverage").glob("*.profraw"))
    if not raw:
        fail(f"{build}: no counters; build with them and run the tests")
    data = build / "coverage" / "all.profdata"
    run(profdata, "merge", "-o", data, *raw)
    return [*objects(build), f"-instr-profile={data}"]


class exceptions:
    """What may be missed, of a file of rows: FILE | KIND | TEXT OF THE LINE | REASON. As many as there are rows.
    The text is one line's alone, so that it cannot excuse another."""

    def __init__(self, name, kinds):
        self.name = name
        self.left = defaultdict(int)
        for number, row in enumerate((HERE / name).read_text().splitlines(), 1):
            if not row.strip() or row.startswith("#"):
                continue
            fields = [field.strip() for field in row.split(" | ")]
            if len(fields) != 4 or not kinds.fullmatch(fields[1]) or not fields[3]:
                fail(f"{HERE / name}:{number}: not FILE | {kinds.pattern} | TEXT | REASON")
            source = ROOT / fields[0]
            lines = [line.strip() for line in source.read_text().splitlines()] if source.is_file() else []
            if lines.count(fields[2]) != 1:
                fail(f"{HERE / name}:{number}: {lines.count(fields[2])} lines of {fields[0]} are this one")
            self.left[tuple(fields[:3])] += 1

    def excuse(self, *miss):
        """Whether this may be missed, once more."""
        if self.left[miss] == 0:
            return False
        self.left[miss] -= 1
        return True

    def unused(self):
        """A line for each that was not missed after all."""
        return [f"{self.name}: ran: {' | '.join(row)}" for row, left in self.left.items() if left > 0]

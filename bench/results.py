"""Reads the runs that timed (bench/maketree.sh) appends to a results file,
one line each: "tool seconds user system maxKiB". The benchmark scripts'
summaries import it (they run from the top of the checkout)."""
import statistics


class Runs(dict):
    """Each tool's runs as (wall, user, system, KiB), tools in the order they
    first ran."""

    def med(self, tool, i=0):
        """Median of wall-clock (0), user (1) or system (2) seconds."""
        return statistics.median(r[i] for r in self[tool])

    def peak(self, tool):
        """Largest peak resident memory of the tool's runs, in MiB."""
        return max(r[3] for r in self[tool]) / 1024


def read(path):
    runs = Runs()
    for line in open(path):
        tool, secs, user, system, kib = line.split()
        runs.setdefault(tool, []).append((float(secs), float(user), float(system), int(kib)))
    return runs

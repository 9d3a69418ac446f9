"""Progress of long queries: tqdm when it is installed, else one line on stderr."""

import sys


class _Silent:
    def update(self, n: int) -> None:
        pass

    def close(self) -> None:
        pass


class _Line:
    def __init__(self, total: int):
        self.done = 0
        self.total = total

    def update(self, n: int) -> None:
        self.done += n
        sys.stderr.write(f"\rraytracing: {self.done:,} of {self.total:,} rays")
        sys.stderr.flush()

    def close(self) -> None:
        sys.stderr.write("\n")


def progress_bar(total: int, enabled: bool):
    if not enabled:
        return _Silent()
    try:
        from tqdm.auto import tqdm
    except ImportError:
        return _Line(total)
    return tqdm(total=total, unit="ray", unit_scale=True, desc="raytracing")

"""The records of a file, written from docs/command.md, "Damaged files", alone."""
from findings import calculated, header_of
from records import HOST

FIXED, LARGEST = {2: 96, 3: 80}, 2 ** 32 - 1


def kind_and_order(data):
    return next(((kind, order) for order in ("big", HOST) for kind in (2, 3)
                 if len(data) >= 2 and int.from_bytes(data[:2], order) == kind), (None, HOST))


def end_of(data, start, kind, order):
    """Returns: where a record ends that starts at `start`; the end of the data if it exceeds them."""
    rest = data[start:start + FIXED[kind]]
    if len(rest) < FIXED[kind]:
        return len(data)
    header = header_of(rest, kind, order)
    ends = sorted(start + size for size in (header["recsize"], calculated(header)) if FIXED[kind] <= size <= LARGEST)
    if ends and ends[0] <= len(data) and (ends[0] == len(data) or kind_and_order(data[ends[0]:ends[0] + 2])[0]):
        return ends[0]
    return min(ends[-1] if ends else start + FIXED[kind], len(data))


def records_of(data):
    """Yields: kind (None if unknown), order and bytes of each record. The bytes after an unknown one are not read."""
    start = 0
    while start < len(data) or start == 0:
        kind, order = kind_and_order(data[start:start + 2])
        end = end_of(data, start, kind, order) if kind else min(start + 96, len(data))
        yield kind, order, data[start:end]
        if kind is None:
            return
        start = end

"""Records of a deduplicating content store: reads them in place, validates, builds and converts them."""

from ._crrecord import (
    Array,
    DORecord,
    DOType,
    FPType,
    SegmentView,
    SORecord,
    Status,
    View,
    __version__,
    diagnose,
    diagnose_form,
    probe,
    records,
    validate,
)
from ._types import Digest, Error, Finding, Probe, Reference, Segment

__all__ = [
    "Array",
    "DORecord",
    "DOType",
    "Digest",
    "Error",
    "FPType",
    "Finding",
    "Probe",
    "Reference",
    "SORecord",
    "Segment",
    "SegmentView",
    "Status",
    "View",
    "diagnose",
    "diagnose_form",
    "probe",
    "records",
    "validate",
]

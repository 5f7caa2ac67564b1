"""Response times of transactions, measured through libarm.

    shop = arm.Application("shop")
    order = shop.transaction_class("order")

    with arm.transaction(order):
        ...

Without the library or an engine nothing is measured and everything else works; the logger ``arm``
says so once at debug level.
"""

from . import calls, structures
from .calls import available
from .measuring import (
    Application,
    Correlator,
    DataBlock,
    MetricDescriptions,
    MetricType,
    Status,
    Transaction,
    TransactionClass,
    measured,
    transaction,
)

__all__ = [
    "Application",
    "Correlator",
    "DataBlock",
    "MetricDescriptions",
    "MetricType",
    "Status",
    "Transaction",
    "TransactionClass",
    "available",
    "calls",
    "measured",
    "structures",
    "transaction",
]

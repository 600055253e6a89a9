"""Deadlines: every wait of these tests is for something expected, and fails loudly when it does not come."""
import threading
import time
from typing import Callable, Optional, TypeVar

# Long enough for a daemon under a sanitizer on a loaded machine; a wait that succeeds never takes it.
PATIENCE = 20.0

T = TypeVar("T")


def wait_until(
    condition: Callable[[], Optional[T]], what: str, timeout: float = PATIENCE, step: float = 0.02
) -> T:
    """Looks until `condition` gives something true, and returns it."""
    end = time.monotonic() + timeout
    while True:
        result = condition()
        if result:
            return result
        if time.monotonic() > end:
            raise AssertionError(f"not within {timeout} s: {what}")
        time.sleep(step)


def wait_on(
    changed: threading.Condition,
    condition: Callable[[], Optional[T]],
    what: Callable[[], str],
    timeout: float = PATIENCE,
) -> T:
    """As wait_until, woken by `changed`, whose lock guards what `condition` looks at."""
    end = time.monotonic() + timeout
    with changed:
        while True:
            result = condition()
            if result:
                return result
            left = end - time.monotonic()
            if left <= 0:
                raise AssertionError(f"not within {timeout} s: {what()}")
            changed.wait(left)

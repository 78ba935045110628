"""What a person sees meanwhile."""
import contextlib
import time


@contextlib.contextmanager
def step(text):
    """One line of progress."""
    start = time.monotonic()
    print(f"{text:78} ", end="", flush=True)
    try:
        yield
    except BaseException:
        print("failed", flush=True)
        raise
    print(f"done, {time.monotonic() - start:.0f} s", flush=True)

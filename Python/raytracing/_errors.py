"""The package's exceptions: a failed library call keeps the library's result code and message."""

SUCCESS = 0
OUT_OF_MEMORY = 2
FAILURE = 4

_CODE_NAMES = {SUCCESS: "Success", OUT_OF_MEMORY: "OutOfMemory", FAILURE: "Failure"}


class RayTracingError(RuntimeError):
    """A library call failed, or the device asked for cannot run.

    ``code`` is the library's result code (2 OutOfMemory, 4 Failure); the message is the library's text as
    it stands.
    """

    def __init__(self, message: str, code: int = FAILURE):
        super().__init__(message)
        self.code = code

    def __reduce__(self):
        # Keeps the code when the exception crosses processes (a Dask worker to its client).
        return (type(self), (str(self), self.code))


class OutOfMemoryError(RayTracingError, MemoryError):
    """The library ran out of device (or host) memory: result code 2."""

    def __init__(self, message: str, code: int = OUT_OF_MEMORY):
        super().__init__(message, code)


def from_library(code: int, message: str) -> RayTracingError:
    """The exception for a library call that returned ``code`` with ``message`` (called by the native part)."""
    if not message:
        message = f"the library returned {code} ({_CODE_NAMES.get(code, 'unknown')}) without a message"
    cls = OutOfMemoryError if code == OUT_OF_MEMORY else RayTracingError
    return cls(message, code)

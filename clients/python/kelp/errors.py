"""The one exception of the package."""


class KelpError(Exception):
    """What went wrong, in one line, and where possible what to do about it.

    status   the server's status text ("404 Not Found") when the server refused or broke off, else None
    """

    def __init__(self, message, status=None):
        super().__init__(message)
        self.status = status

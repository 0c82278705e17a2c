"""The one exception of the package."""


from .text import shown, without_passwords


class KelpError(Exception):
    """What went wrong, in one line, and where possible what to do about it. It shows no password of a URL, and nothing
    that steers a terminal.

    status   the server's status text ("404 Not Found") when the server refused or broke off, else None
    """

    def __init__(self, message, status=None):
        super().__init__(shown(without_passwords(message)))
        self.status = None if status is None else shown(status)

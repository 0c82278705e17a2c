"""Text from outside as people may be shown it.

A name, or the words of a server, may hold what a terminal obeys instead of showing it, or what makes a line read as
another one; and a URL may hold a password. Messages and every `repr` show neither. Values and names as data stay as
they are.
"""

import re

# Controls of ASCII and C1 (U+009B begins what ESC [ begins), orders to turn the direction of writing, and bytes that
# are no UTF-8, which stand in a text as half of a pair.
_UNFIT = re.compile("[\x00-\x1f\x7f-\x9f\u202a-\u202e\u2066-\u2069\ud800-\udfff]")


def _escape(match):
    code = ord(match.group())
    if 0xdc80 <= code <= 0xdcff:  # the byte that surrogateescape put there
        code -= 0xdc00
    return "\\x%02x" % code if code < 0x80 or code != ord(match.group()) else "\\u%04x" % code


def shown(text):
    """Returns `text` as one line that steers no terminal."""
    return _UNFIT.sub(_escape, text)


def _without_secret(text, start):
    """Hides what may be a user name and password in the URL whose "://" ends at `start`.

    They end at the last "@" in front of the path. When a slash of the password seems to begin the path, it is the last
    "@" of all.
    """
    rest = text[start:]
    authority = rest.partition("/")[0]
    at = authority.rfind("@")
    if at < 0:
        port = authority.partition(":")[2]
        if ":" not in authority or re.match(r"[0-9]+($|[ :;,'\")])", port):
            return text
        at = rest.rfind("@")
    return text if at < 0 else text[:start] + "***" + rest[at:]


def without_password(url):
    """Returns what should be a URL without what may be a user name and password."""
    scheme = url.find("://")
    return _without_secret(url, scheme + 3 if scheme >= 0 else len(url) - len(url.lstrip("/")))


def without_passwords(message):
    """The same for every URL that stands in a message. Rather too much is hidden than too little."""
    at = message.find("://")
    while at >= 0:
        message = _without_secret(message, at + 3)
        at = message.find("://", at + 3)
    return message

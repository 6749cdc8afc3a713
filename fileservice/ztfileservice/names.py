"""What counts as a stored file's name and as an upload identifier."""
import re
import unicodedata

_IDENTIFIER = re.compile(r"[0-9a-fA-F]{32}")
NAME_MAX_BYTES = 255


def is_plain_name(name):
    """A plain file name: one path component of the root folder and nothing else.

    Refused: empty, longer than the file system allows, any "/" or "\\", any
    "..", a leading "." (hidden files, and .uploads where sessions live), and
    control characters (C0, DEL, C1) including NUL.
    """
    if not isinstance(name, str) or not name:
        return False
    try:
        encoded = name.encode("utf-8")
    except UnicodeEncodeError:  # a lone surrogate from a JSON "\udXXX" escape
        return False
    if len(encoded) > NAME_MAX_BYTES:
        return False
    if name.startswith(".") or ".." in name or "/" in name or "\\" in name:
        return False
    return not any(unicodedata.category(c) == "Cc" for c in name)


def is_identifier(value):
    """The client's 32-hex-digit identifier of an upload; it names a folder."""
    return isinstance(value, str) and bool(_IDENTIFIER.fullmatch(value))

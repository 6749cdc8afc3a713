"""What counts as a stored file's name."""
import re

_IDENTIFIER = re.compile(r"^[0-9a-fA-F]{32}$")


def is_plain_name(name):
    """A plain file name: no path, no parent, no control characters, not hidden."""
    if not isinstance(name, str) or not name or len(name.encode("utf-8")) > 255:
        return False
    if name in (".", "..") or name.startswith("."):
        return False
    if "/" in name or "\\" in name:
        return False
    return not any(ord(c) < 32 or ord(c) == 127 for c in name)


def is_identifier(value):
    """The client's 32-hex-digit identifier of an upload, used as a folder name."""
    return isinstance(value, str) and bool(_IDENTIFIER.match(value))

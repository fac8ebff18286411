"""The platform library's configuration file."""

import os
import shutil


class Platform:
    """Writes the file whole, by rename, at every change.

    `connections` is a list of (kind, active, flagged); `proxy` is (host, port), (host,) or None.
    """

    def __init__(self, path):
        self.path = path
        self.system = {
            "PlatformId": "linux-test",
            "Imei": "490154203237518",
            "Imsi": "262011234567890",
            "Mmf": "fw-1.0",
        }
        self.positioning = True
        self.connections = [(1, True, False)]
        self.proxy = None

    def write(self, **changes):
        """Sets the named attributes and replaces the file."""
        for name, value in changes.items():
            assert hasattr(self, name), name
            setattr(self, name, value)
        self.write_text(self.text())

    def write_text(self, text):
        """Replaces the file by this text, whatever it is."""
        aside = self.path.with_suffix(".new")
        aside.write_text(text, "utf-8")
        os.replace(aside, self.path)

    def state(self):
        """The attributes, to be given to `restore` later."""
        return {
            "system": dict(self.system),
            "positioning": self.positioning,
            "connections": list(self.connections),
            "proxy": self.proxy,
        }

    def restore(self, state):
        """Makes the file what it was, whatever stands in its place now."""
        if self.path.is_dir() and not self.path.is_symlink():
            shutil.rmtree(self.path)
        self.write(**state)
        assert self.is_whole()

    def is_whole(self):
        """Whether the file holds what the attributes say."""
        return self.path.is_file() and self.path.read_bytes() == self.text().encode()

    def text(self):
        """The file's text for the present attributes."""
        groups = {
            "System": self.system,
            "Location": {"NetworkPositioning": _flag(self.positioning)},
            "Connections": {"List": "".join(f"c{n};" for n in range(len(self.connections)))},
        }
        for number, (kind, active, flagged) in enumerate(self.connections):
            groups[f"Connection c{number}"] = {
                "Kind": kind,
                "Active": _flag(active),
                "Flagged": _flag(flagged),
            }
        if self.proxy:
            groups["Proxy"] = dict(zip(("Host", "Port"), self.proxy))
        return "\n".join(
            f"[{name}]\n" + "".join(f"{key}={value}\n" for key, value in group.items())
            for name, group in groups.items()
        )


def _flag(value):
    return "true" if value else "false"

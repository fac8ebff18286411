"""The device identity that the packages leave to whoever installs them."""

import re


def give_identity(root):
    """Writes a device's own over the example's, which the service refuses."""
    path = root / "etc/default/orvexd"
    text = re.sub(r'^(KELVRA_UNIQUE_DEVICE_ID)=.*$', r'\1="d41d8cd98f00b204"', path.read_text("utf-8"), flags=re.M)
    path.write_text(text.replace("Example Devices", "Kelvra").replace("Model One", "linux"), "utf-8")

"""A bus that starts the daemon by the activation file that is shipped."""

import re

from .daemon import DEVICE
from .private_bus import PERMISSIVE_POLICY
from .settings import BUILD_DIR, DAEMON

SHIPPED = BUILD_DIR / "data" / "com.kelvra.orvexd.service"


def write_variables(path, platform, **changes):
    """What the administrator fills in."""
    values = {**DEVICE, "TRILBA_PLATFORM_CONF": platform.path, **changes}
    path.write_text("".join(f"{name}='{value}'\n" for name, value in values.items()), "utf-8")


def start_activating_bus(make_bus, directory, variables):
    """A bus that knows the service: the shipped file, with this build's program and these variables."""
    text = SHIPPED.read_text("utf-8")
    (program,) = re.findall(r"exec (\S+)\"$", text, re.MULTILINE)
    (defaults,) = set(re.findall(r"-r (\S+) ", text))
    text = text.replace(program, str(DAEMON)).replace(defaults, str(variables))
    bus = make_bus(policy=with_service(directory, text))
    # The address goes to the daemon the way the administrator would give it.
    with open(variables, "a", encoding="utf-8") as file:
        file.write(f"DBUS_SYSTEM_BUS_ADDRESS='{bus.address}'\n")
    return bus


def with_service(directory, text):
    """The policy of a bus that reads an activation file of this text."""
    services = directory / "services"
    services.mkdir()
    (services / SHIPPED.name).write_text(text, "utf-8")
    return f"{PERMISSIVE_POLICY}  <servicedir>{services}</servicedir>\n"

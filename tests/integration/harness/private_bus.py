"""A real dbus-daemon of type system, on a socket of its own."""

import os

from .process import Process, read_line

# Everything is allowed, also replies that nobody asked for: the tests see all that is sent.
PERMISSIVE_POLICY = """
  <policy context="default">
    <allow user="*"/>
    <allow own="*"/>
    <allow send_destination="*" eavesdrop="true"/>
    <allow send_requested_reply="false" send_type="method_return"/>
    <allow send_requested_reply="false" send_type="error"/>
    <allow receive_sender="*" eavesdrop="true"/>
    <allow receive_requested_reply="false" receive_type="method_return"/>
    <allow receive_requested_reply="false" receive_type="error"/>
  </policy>
"""
_CONFIG = """<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <type>system</type>
  <listen>unix:path={socket}</listen>
  <auth>EXTERNAL</auth>
{policy}{limits}
</busconfig>
"""


class PrivateBus:
    """Runs from construction to stop(). `limits` are <limit> elements, by name."""

    def __init__(self, directory, limits=None, policy=PERMISSIVE_POLICY):
        config = directory / "bus.conf"
        limits = "".join(
            f'  <limit name="{name}">{value}</limit>\n' for name, value in (limits or {}).items()
        )
        config.write_text(
            _CONFIG.format(socket=directory / "bus", policy=policy, limits=limits), "utf-8"
        )
        ready, write_end = os.pipe()
        try:
            self.process = Process(
                [
                    "dbus-daemon",
                    "--nofork",
                    "--nopidfile",
                    "--nosyslog",
                    f"--config-file={config}",
                    f"--print-address={write_end}",
                ],
                directory,
                "dbus-daemon",
                pass_fds=(write_end,),
            )
        finally:
            os.close(write_end)
        try:
            self.address = read_line(ready, 10).strip()
        except AssertionError:
            self.process.release()
            raise AssertionError(self.process.report()) from None
        finally:
            os.close(ready)

    def stop(self):
        self.process.stop()

    def report(self):
        return self.process.report()
